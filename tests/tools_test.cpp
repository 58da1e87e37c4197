// Tests of the developer tools as integrators run them: velto-decode on a root directory the library
// filled and on damaged files, and velto-collector taking the library's real uploads over http:// and
// https:// and answering garbage with 400 while it keeps serving. The tools run as child processes.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Config.h"
#include "HttpClient.h"
#include "Util.h"
#include "Zip.h"
#include "api_helpers.h"
#include "scenario.h"
#include "velto.h"

namespace {

using Velto::StrMap;
using Velto::Util::fencode;

// $VELTO_BINARY_DIR/tools/name; without the variable, the build directory above this test's own.
std::string tool(const char* name) {
    if (const char* dir = getenv("VELTO_BINARY_DIR")) return std::string(dir) + "/tools/" + name;
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    const std::string path(exe, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind("/tests/")) + "/tools/" + name;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

size_t count_with(const std::vector<std::string>& lines, const std::vector<std::string>& parts) {
    size_t n = 0;
    for (const std::string& line : lines) {
        bool all = true;
        for (const std::string& p : parts) all = all && line.find(p) != std::string::npos;
        n += all;
    }
    return n;
}

// A tool in a child process with its output in files. Killed if it outlives the object.
class ToolProcess {
  public:
    ToolProcess(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        fflush(stdout);
        pid_ = fork();
        if (pid_ == 0) {
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~ToolProcess() {
        if (pid_ > 0 && status_ < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    void signal(int sig) { kill(pid_, sig); }
    bool running() { return pid_ > 0 && !reaped(); }
    // The exit status, or -1 when the process is still running after timeout_ms or died of a signal.
    int wait(int timeout_ms) {
        vtest::wait_until([this] { return reaped(); }, timeout_ms);
        return status_ >= 0 && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }

  private:
    bool reaped() {
        if (status_ < 0 && waitpid(pid_, &status_, WNOHANG) != pid_) status_ = -1;
        return status_ >= 0;
    }
    pid_t pid_ = -1;
    int status_ = -1;
};

// Runs velto-decode on path (bounded); out = its standard output.
int run_decode(const std::string& path, const std::string& scratch, std::string& out) {
    ToolProcess p({tool("velto-decode"), path}, scratch + "/decode.out", scratch + "/decode.err");
    const int rc = p.wait(30000);
    out = vtest::read_file(scratch + "/decode.out");
    return rc;
}

// A configuration file that sends to url and otherwise keeps records in "sdk.msg" (high thresholds,
// no uploads at start or stop); changes overrides those settings.
void write_conf(const std::string& root, const std::string& url, const StrMap& changes = {}) {
    const std::string now = Velto::Util::ltoa(time(nullptr));
    StrMap conf = {
        {"CONF_UPD_TIME", now},    {"CONF_UPD_GAP", "24"},    {"COLLECT_ON", "ON"},
        {"COLLECT_WAY", "NOREAL"}, {"SEND_GAP", "10000"},     {"SEND_NUM", "99999"},
        {"SEND_SIZE", "20000"},    {"MAX_RESV_DAY", "7"},     {"MAX_FILE_SIZE", "2000"},
        {"MAX_LOG_SIZE", "4000"},  {"LOGERR_SEND_LIM", "50"}, {"LOGERR_NUM", "0"},
        {"SEND_LOG_ON", "OFF"},    {"SEND_CUR_CONF", "OFF"},  {"ZIP_DATA", "ON"},
        {"CON_TIMEOUT", "3000"},   {"LAST_SEND", now},        {"CONF_URL", url},
        {"ENABLE_HTTPS", "ON"},    {"SESSION_TMOUT", "1800"}, {"SEND_BEGINPOINTS", "OFF"},
        {"SEND_ENDPOINTS", "OFF"},
    };
    for (const auto& c : changes) conf[c.first] = c.second;
    vtest::write_file(root + "/sdk.cf", fencode(Velto::Util::to_json(conf)));
}

// Inside a scenario: one host run with an "init" record and three records tagged with tag, stopped,
// and the background thread waited for (bounded).
void record_session(const std::string& root, const std::string& tag) {
    ASSERT_EQ(0, data_init(root.c_str(), "tools-test"));
    ASSERT_EQ(0, apitest::give_base_info());
    ASSERT_EQ(0, data_screen(("screen-" + tag).c_str()));
    ASSERT_EQ(0, data_event(("button-" + tag).c_str(), "click", "save", 3));
    ASSERT_EQ(0, data_count(("export-" + tag).c_str(), 1200, nullptr));
    data_stop();
    ASSERT_TRUE(vtest::wait_until(
        [&] { return vtest::read_file(root + "/sdk.log").find("back thread stop ...") != std::string::npos; },
        60000));
}

std::string msg_line(long long time, const std::string& record) {
    return std::to_string(time) + "," + fencode(record) + "\n";
}

// ---- velto-decode ----

TEST(VeltoDecode, ShowsRecordsAndConfigurationTheLibraryLeft) {
    RUN_SCENARIO({
        write_conf(root, "http://127.0.0.1:1");
        record_session(root, "kept");
        std::string out;
        ASSERT_EQ(0, run_decode(root, root, out));
        const std::vector<std::string> lines = lines_of(out);
        EXPECT_EQ(1u, count_with(lines, {"{\"file\":\"sdk.cf\",\"config\":{",
                                         "\"CONF_URL\":\"http://127.0.0.1:1\""}));
        // The initial event could not be sent, so it waits in the file with the others.
        EXPECT_EQ(1u, count_with(lines, {"{\"file\":\"sdk.msg\",\"line\":", "\"dtype\":\"init\""}));
        EXPECT_EQ(1u, count_with(lines, {"\"dtype\":\"screenview\"", "\"category\":\"screen-kept\""}));
        EXPECT_EQ(1u, count_with(lines, {"\"dtype\":\"event\"", "\"category\":\"button-kept\"",
                                         "\"dvalue\":\"3\""}));
        EXPECT_EQ(1u, count_with(lines, {"\"dtype\":\"timing\"", "\"ttime\":\"1200\""}));
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(std::string::npos,
                  lines.back().find("{\"summary\":{\"pending_records\":4,\"invalid_lines\":0,"))
            << lines.back();
        EXPECT_NE(std::string::npos, lines.back().find("\"CONF_URL\":\"http://127.0.0.1:1\""))
            << lines.back();
    });
}

TEST(VeltoDecode, ReportsDamagedLinesByNumberAndCarriesOn) {
    vtest::TempDir dir;
    const std::string good = "{\"category\":\"a\",\"dtype\":\"screenview\",\"ostime\":\"1700000000\"}";
    const std::string whole = msg_line(1700000000, good);
    std::string random_bytes(300, '\0');
    std::mt19937 gen(7);
    for (char& c : random_bytes) {
        c = static_cast<char>(gen());
        if (c == '\n' || c == '\0') c = 'x';
    }
    const std::string cut = whole.substr(0, 11 + 30);  // the file ends inside a record, as after a crash
    vtest::write_file(dir.file("sdk.msg"), whole + random_bytes + "\n" + "12345," + fencode(good) + "\n" +
                                               msg_line(1700000001, good) + cut);
    vtest::write_file(dir.file("MSG_PRE_{0123456789abcdef0123456789abcdef}1700000002"), whole);
    vtest::write_file(dir.file("sdk.cf"), "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA==");

    std::string out;
    ASSERT_EQ(0, run_decode(dir.path(), dir.path(), out));
    const std::vector<std::string> lines = lines_of(out);
    EXPECT_EQ(1u, count_with(lines, {"{\"file\":\"sdk.cf\",\"invalid\":"}));
    EXPECT_EQ(1u,
              count_with(lines, {"{\"file\":\"sdk.msg\",\"line\":1,\"time\":1700000000,\"record\":" + good}));
    EXPECT_EQ(1u, count_with(lines, {"{\"file\":\"sdk.msg\",\"line\":2,\"invalid\":"}));
    EXPECT_EQ(
        1u,
        count_with(lines, {"{\"file\":\"sdk.msg\",\"line\":3,\"invalid\":\"time stamp is not 10 digits\"}"}));
    EXPECT_EQ(1u, count_with(lines, {"{\"file\":\"sdk.msg\",\"line\":4,\"time\":1700000001,"}));
    EXPECT_EQ(1u, count_with(lines, {"{\"file\":\"sdk.msg\",\"line\":5,\"invalid\":"}));
    EXPECT_EQ(1u,
              count_with(lines,
                         {"{\"file\":\"MSG_PRE_{0123456789abcdef0123456789abcdef}1700000002\",\"line\":1,"}));
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(std::string::npos, lines.back().find("\"pending_records\":2,\"invalid_lines\":3,"))
        << lines.back();
    EXPECT_NE(std::string::npos, lines.back().find("\"batch_records\":1,\"config\":{}")) << lines.back();

    EXPECT_EQ(1, run_decode(dir.file("missing"), dir.path(), out));
}

// ---- velto-collector ----

// Two ports that were free a moment ago on 127.0.0.1.
void pick_two_ports(int& a, int& b) {
    int fds[2], ports[2];
    for (int i = 0; i < 2; ++i) {
        fds[i] = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        bind(fds[i], reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        getsockname(fds[i], reinterpret_cast<sockaddr*>(&addr), &len);
        ports[i] = ntohs(addr.sin_port);
    }
    close(fds[0]);
    close(fds[1]);
    a = ports[0];
    b = ports[1];
}

class CollectorTest : public ::testing::Test {
  protected:
    void start(const std::string& conf_file = "") {
        pick_two_ports(https_port_, http_port_);
        std::vector<std::string> args = {
            tool("velto-collector"),    "--https-port", std::to_string(https_port_), "--http-port",
            std::to_string(http_port_), "--records",    dir_.file("records.jsonl"),  "--cert-dir",
            dir_.file("cert")};
        if (!conf_file.empty()) args.insert(args.end(), {"--conf", conf_file});
        proc_.reset(new ToolProcess(args, dir_.file("out.txt"), dir_.file("err.txt")));
        ASSERT_TRUE(
            vtest::wait_until([this] { return out().find("listening on") != std::string::npos; }, 20000))
            << out() << err();
    }
    int stop() {
        proc_->signal(SIGTERM);
        return proc_->wait(20000);
    }
    std::string out() { return vtest::read_file(dir_.file("out.txt")); }
    std::string err() { return vtest::read_file(dir_.file("err.txt")); }
    std::vector<std::string> records() { return lines_of(vtest::read_file(dir_.file("records.jsonl"))); }
    bool wait_for_records(const std::vector<std::string>& parts, size_t n) {
        return vtest::wait_until([&] { return count_with(records(), parts) >= n; }, 30000);
    }
    std::string http(const std::string& path) {
        return "http://127.0.0.1:" + std::to_string(http_port_) + path;
    }
    std::string https(const std::string& path) {
        return "https://127.0.0.1:" + std::to_string(https_port_) + path;
    }

    vtest::TempDir dir_;
    int https_port_ = 0, http_port_ = 0;
    std::unique_ptr<ToolProcess> proc_;
};

size_t write_reply(char* data, size_t size, size_t n, void* to) {
    static_cast<std::string*>(to)->append(data, size * n);
    return size * n;
}

struct Reply {
    long status = 0;
    std::string body;
};

Reply post(const std::string& url, const std::string& content_type, const std::string& body) {
    Reply reply;
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, ("Content-Type: " + content_type).c_str());
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &write_reply);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
    if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return reply;
}

// Writes bytes to a fresh connection and reads (bounded) until the server closes it.
void send_raw(int port, const std::string& bytes) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        char buf[512];
        while (recv(fd, buf, sizeof buf, 0) > 0) {
        }
    }
    close(fd);
}

const char kBoundary[] = "b0undary";
const char kMultipart[] = "multipart/form-data; boundary=b0undary";
const char kForm[] = "application/x-www-form-urlencoded";

std::string multipart(const std::vector<std::pair<std::string, std::string>>& parts) {
    std::string body;
    for (const auto& p : parts) {
        body +=
            std::string("--") + kBoundary + "\r\nContent-Disposition: form-data; name=\"" + p.first + "\"";
        if (p.first == "file") body += "; filename=\"x\"\r\nContent-Type: application/octet-stream";
        body += "\r\n\r\n" + p.second + "\r\n";
    }
    return body + "--" + kBoundary + "--\r\n";
}

// A file payload: the 4-byte length prefix, then the enciphered bytes.
std::string file_payload(uint32_t length, const std::string& plain) {
    std::vector<unsigned char> sealed(plain.size() + 32);
    int n = 0;
    Velto::AES_Encode2(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                       sealed.data(), n);
    std::string out = {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
                       static_cast<char>(length >> 8), static_cast<char>(length)};
    return out + std::string(reinterpret_cast<char*>(sealed.data()), static_cast<size_t>(n));
}

TEST_F(CollectorTest, TakesTheLibrarysUploadsOverHttpAndHttps) {
    start();
    // Plain http://, set by the configuration file; records travel uncompressed, and the library
    // also reports its configuration.
    const std::string plain_url = http("");
    RUN_SCENARIO({
        write_conf(root, plain_url,
                   {{"SEND_BEGINPOINTS", "ON"},
                    {"SEND_ENDPOINTS", "ON"},
                    {"ZIP_DATA", "OFF"},
                    {"SEND_CUR_CONF", "ON"}});
        record_session(root, "plain");
    });
    // https://: the configuration comes from the collector itself and points the uploads at it.
    const std::string tls_host = "127.0.0.1:" + std::to_string(https_port_);
    RUN_SCENARIO({
        Velto::set_conf_endpoint_host(tls_host);
        record_session(root, "tls");
        EXPECT_EQ("https://" + tls_host, Velto::Config::obj_->get_str("CONF_URL"));
    });

    for (const char* tag : {"plain", "tls"}) {
        SCOPED_TRACE(tag);
        const std::string t = tag;
        EXPECT_TRUE(
            wait_for_records({"\"endpoint\":\"/v1/file\",\"upload\":\"{", "\"category\":\"screen-" + t}, 1));
        EXPECT_TRUE(wait_for_records({"\"endpoint\":\"/v1/file\"", "\"category\":\"button-" + t}, 1));
        EXPECT_TRUE(wait_for_records({"\"endpoint\":\"/v1/file\"", "\"category\":\"export-" + t}, 1));
    }
    EXPECT_TRUE(wait_for_records({"\"endpoint\":\"/v1/data\",\"record\":{", "\"dtype\":\"init\""}, 2));
    EXPECT_TRUE(
        wait_for_records({"\"endpoint\":\"/v1/data\",\"config\":{", "\"CONF_URL\":\"" + plain_url}, 1));
    const std::vector<std::string> lines = records();
    EXPECT_EQ(9u, lines.size());
    for (const std::string& line : lines) {
        // {"received":T,"endpoint":E[,"upload":U],"record"|"config":{flat object}}
        EXPECT_EQ(0u, line.find("{\"received\":")) << line;
        const size_t at = line.find("\":{\"");
        ASSERT_NE(std::string::npos, at) << line;
        StrMap rec;
        EXPECT_TRUE(apitest::parse_record(line.substr(at + 2, line.size() - at - 3), rec)) << line;
    }

    EXPECT_EQ(0, stop());
    const std::string shown = out();
    EXPECT_NE(std::string::npos, shown.find("conf request  brand=tools-test")) << shown;
    EXPECT_NE(std::string::npos, shown.find("] screenview  category=screen-tls  sid={")) << shown;
    EXPECT_NE(std::string::npos,
              shown.find("] event  category=button-plain  act=click  label=save  dvalue=3  sid="))
        << shown;
    EXPECT_NE(std::string::npos, shown.find("velto-collector: 8 records received")) << shown;
    EXPECT_NE(std::string::npos, shown.find("  init           2\n")) << shown;
    EXPECT_EQ("", err());
}

TEST_F(CollectorTest, AnswersBadRequestsWith400AndKeepsServing) {
    start();
    std::string garbage(2000, '\0');
    std::mt19937 gen(11);
    for (char& c : garbage) c = static_cast<char>(gen());
    const std::string zlib_junk = std::string("\x78\x9c", 2) + "not a deflate stream at all";
    const std::string record = "{\"category\":\"late\",\"dtype\":\"screenview\",\"sid\":\"{s}\"}";
    struct Case {
        const char* what;
        std::string path, type, body, error;
    } cases[] = {
        {"random bytes", "/v1/data", kForm, garbage, ""},
        {"no form field", "/v1/data", kForm, "", "not a form"},
        {"unknown field", "/v1/data", kForm, "stuff=1", "unknown form field"},
        {"bad Base64", "/v1/data", kForm, "data=%25%25not*base64", "not Base64"},
        {"cut cipher block", "/v1/data", kForm, "data=" + Velto::UrlEncode(fencode(record).substr(4)), "AES"},
        {"bad zlib", "/v1/data", kForm, "data=" + Velto::UrlEncode(fencode(zlib_junk)), "zlib"},
        {"not multipart", "/v1/file", kForm, "file=1", "multipart"},
        {"no file part", "/v1/file", kMultipart, multipart({{"sdk_log", "{g}"}}), "has no"},
        {"short file payload", "/v1/file", kMultipart, multipart({{"file", "\x01\x02\x03"}}), "3 bytes"},
        {"file payload bad zlib", "/v1/file", kMultipart, multipart({{"file", file_payload(99, zlib_junk)}}),
         "zlib"},
        {"length prefix wrong", "/v1/file", kMultipart, multipart({{"file", file_payload(5, record)}}),
         "length prefix"},
        {"broken multipart", "/v1/file", kMultipart, garbage, ""},
        {"unknown path", "/v2/other", kForm, "data=1", "unknown path"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Reply reply = post(http(c.path), c.type, c.body);
        EXPECT_EQ(c.path == "/v2/other" ? 404 : 400, reply.status);
        EXPECT_EQ(0u, reply.body.find("{\"status\":1,\"error\":\"")) << reply.body;
        EXPECT_NE(std::string::npos, reply.body.find(c.error)) << reply.body;
    }
    send_raw(http_port_, garbage);
    send_raw(https_port_, garbage);

    // Still serving, on both ports.
    EXPECT_EQ("{\"status\":0}",
              post(https("/v1/data"), kForm, "data=" + Velto::UrlEncode(fencode(record))).body);
    const std::string log = "[2024-01-01 10:00:00] [WARN] - (12) \"quoted\"\n";
    EXPECT_EQ("{\"status\":0}", post(http("/v1/file"), kMultipart,
                                     multipart({{"sdk_log", "log"}, {"file", file_payload(log.size(), log)}}))
                                    .body);
    EXPECT_EQ(1u, count_with(records(), {"\"upload\":\"log\",\"log\":\"[2024-01-01 10:00:00] [WARN] - (12) "
                                         "\\\"quoted\\\"\\n\"}"}));
    const std::string batch = record + "\nnot json\n";
    EXPECT_EQ("{\"status\":0}",
              post(http("/v1/file"), kMultipart,
                   multipart({{"sdk_log", "{g}"},
                              {"file", file_payload(static_cast<uint32_t>(batch.size()), batch)}}))
                  .body);
    EXPECT_TRUE(wait_for_records({"\"record\":" + record}, 2));
    EXPECT_EQ(1u, count_with(records(), {"\"upload\":\"{g}\",\"invalid\":\"not json\"}"}));
    EXPECT_EQ(0, stop());
    EXPECT_NE(std::string::npos, out().find("13 bad requests, 1 unreadable records")) << out();
    EXPECT_EQ(13u, count_with(lines_of(err()), {"bad request: POST http://127.0.0.1:"})) << err();
}

TEST_F(CollectorTest, ServesTheConfigurationFileGiven) {
    const std::string conf = "{\"CONF_URL\":\"http://127.0.0.1:9\",\"SEND_GAP\":5}";
    vtest::write_file(dir_.file("conf.json"), conf + "\n");
    start(dir_.file("conf.json"));
    const Reply reply = post(https("/v1/conf"), kForm, "uid=u&brand=b");
    EXPECT_EQ(200, reply.status);
    EXPECT_EQ("{\"status\":0,\"conf\":" + conf + "}", reply.body);
    EXPECT_EQ(0, stop());
    EXPECT_NE(std::string::npos, err().find("the library ignores fewer than 10")) << err();

    ToolProcess bad({tool("velto-collector"), "--https-port", "0"}, dir_.file("o2"), dir_.file("e2"));
    EXPECT_EQ(2, bad.wait(10000));
}

}  // namespace

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

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "HttpClient.h"
#include "Zip.h"
#include "api_helpers.h"
#include "delivery.h"

namespace {

using Velto::Util::fencode;
using vtest::lines_of;

// $VELTO_BINARY_DIR/tools/name; without the variable, the build directory above this test's own.
std::string tool(const char* name) {
    if (const char* dir = getenv("VELTO_BINARY_DIR")) return std::string(dir) + "/tools/" + name;
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    const std::string path(exe, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind("/tests/")) + "/tools/" + name;
}

// How many lines hold every one of parts.
size_t count_with(const std::vector<std::string>& lines, const std::vector<std::string>& parts) {
    size_t n = 0;
    for (const std::string& line : lines) {
        bool all = true;
        for (const std::string& p : parts) all = all && vtest::has(line, p);
        n += all;
    }
    return n;
}

// A tool in a child process with its output in files. Killed if it outlives the object.
class ToolProcess {
  public:
    ToolProcess(std::vector<std::string> args, const std::string& out, const std::string& err) {
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        fflush(stdout);
        if ((pid_ = fork()) != 0) return;
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (o >= 0 && e >= 0 && dup2(o, 1) >= 0 && dup2(e, 2) >= 0) execv(argv[0], argv.data());
        _exit(127);
    }
    ~ToolProcess() {
        if (pid_ > 0 && status_ < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    void signal(int sig) { kill(pid_, sig); }
    // The exit status, or -1 when the process is still running after timeout_ms or died of a signal.
    int wait(int timeout_ms) {
        vtest::wait_until(
            [this] {
                int st = 0;
                if (status_ < 0 && pid_ > 0 && waitpid(pid_, &st, WNOHANG) == pid_) status_ = st;
                return status_ >= 0;
            },
            timeout_ms);
        return status_ >= 0 && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }

  private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// Runs velto-decode on path (bounded); out = its standard output.
int run_decode(const std::string& path, const std::string& scratch, std::string& out) {
    const int rc = ToolProcess({tool("velto-decode"), path}, scratch + "/decode.out", scratch + "/decode.err")
                       .wait(30000);
    out = vtest::read_file(scratch + "/decode.out");
    return rc;
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
        [&] { return vtest::has(vtest::read_file(root + "/sdk.log"), "back thread stop ..."); }, 60000));
}

// ---- velto-decode ----

TEST(VeltoDecode, ShowsRecordsAndConfigurationTheLibraryLeft) {
    RUN_SCENARIO({
        vtest::write_conf(root, "http://127.0.0.1:1");
        record_session(root, "kept");
        std::string out;
        ASSERT_EQ(0, run_decode(root, root, out));
        const std::vector<std::string> lines = lines_of(out);
        // The initial event could not be sent, so it waits in the file with the others.
        const std::vector<std::string> wanted[] = {
            {R"({"file":"sdk.cf","config":{)", R"("CONF_URL":"http://127.0.0.1:1")"},
            {R"({"file":"sdk.msg","line":)", R"("dtype":"init")"},
            {R"("dtype":"screenview")", R"("category":"screen-kept")"},
            {R"("dtype":"event")", R"("category":"button-kept")", R"("dvalue":"3")"},
            {R"("dtype":"timing")", R"("ttime":"1200")"},
            {R"({"summary":{"pending_records":4,"invalid_lines":0,)", R"("CONF_URL":"http://127.0.0.1:1")"},
        };
        for (const auto& parts : wanted) EXPECT_EQ(1u, count_with(lines, parts)) << parts[0] << "\n" << out;
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(0u, lines.back().find(R"({"summary":)"));
    });
}

TEST(VeltoDecode, ReportsDamagedLinesByNumberAndCarriesOn) {
    vtest::TempDir dir;
    const std::string good = R"({"category":"a","dtype":"screenview","ostime":"1700000000"})";
    const std::string whole = vtest::msg_line(1700000000, good);
    std::string random_bytes(300, '\0');
    std::mt19937 gen(7);
    for (char& c : random_bytes) {
        const char b = static_cast<char>(gen());
        c = b == '\n' || b == '\0' ? 'x' : b;
    }
    const std::string cut = whole.substr(0, 11 + 30);  // the file ends inside a record, as after a crash
    vtest::write_file(dir.file("sdk.msg"), whole + random_bytes + "\n12345," + fencode(good) + "\n" +
                                               vtest::msg_line(1700000001, good) + cut);
    const std::string batch = "MSG_PRE_{0123456789abcdef0123456789abcdef}1700000002";
    vtest::write_file(dir.file(batch), whole);
    vtest::write_file(dir.file("sdk.cf"), std::string(42, 'A') + "==");

    std::string out;
    ASSERT_EQ(0, run_decode(dir.path(), dir.path(), out));
    const std::string msg = R"({"file":"sdk.msg","line":)";
    for (const std::string& want :
         {std::string(R"({"file":"sdk.cf","invalid":)"), msg + R"(1,"time":1700000000,"record":)" + good,
          msg + R"(2,"invalid":)", msg + R"(3,"invalid":"time stamp is not 10 digits"})",
          msg + R"(4,"time":1700000001,)", msg + R"(5,"invalid":)", R"({"file":")" + batch + R"(","line":1,)",
          std::string(R"("pending_records":2,"invalid_lines":3,)"),
          std::string(R"("batch_records":1,"config":{})")})
        EXPECT_EQ(1u, count_with(lines_of(out), {want})) << want << "\n" << out;
    EXPECT_EQ(1, run_decode(dir.file("missing"), dir.path(), out));
}

// ---- velto-collector ----

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

class CollectorTest : public ::testing::Test {
  protected:
    void start(const std::string& conf_file = "") {
        pick_two_ports();
        std::vector<std::string> args = {
            tool("velto-collector"),    "--https-port", std::to_string(https_port_), "--http-port",
            std::to_string(http_port_), "--records",    dir_.file("records.jsonl"),  "--cert-dir",
            dir_.file("cert")};
        if (!conf_file.empty()) args.insert(args.end(), {"--conf", conf_file});
        proc_.reset(new ToolProcess(args, dir_.file("out.txt"), dir_.file("err.txt")));
        ASSERT_TRUE(vtest::wait_until([this] { return vtest::has(out(), "listening on"); }, 20000))
            << out() << err();
    }
    // Two ports that were free a moment ago on 127.0.0.1.
    void pick_two_ports() {
        int fds[2], *ports[2] = {&https_port_, &http_port_};
        for (int i = 0; i < 2; ++i) {
            fds[i] = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in addr = loopback(0);
            socklen_t len = sizeof addr;
            bind(fds[i], reinterpret_cast<sockaddr*>(&addr), sizeof addr);
            getsockname(fds[i], reinterpret_cast<sockaddr*>(&addr), &len);
            *ports[i] = ntohs(addr.sin_port);
        }
        close(fds[0]);
        close(fds[1]);
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

// POSTs body through libcurl (no certificate check, bounded); the reply's status code and body.
std::pair<long, std::string> post(const std::string& url, const std::string& content_type,
                                  const std::string& body) {
    std::pair<long, std::string> reply;
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
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.second);
    if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.first);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return reply;
}

// Writes bytes to a fresh connection and reads (bounded) until the server closes it.
void send_raw(int port, const std::string& bytes) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(port);
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        for (char buf[512]; recv(fd, buf, sizeof buf, 0) > 0;) {
        }
    }
    close(fd);
}

const char kMultipart[] = "multipart/form-data; boundary=b0undary";
const char kForm[] = "application/x-www-form-urlencoded";
const char kOk[] = R"({"status":0})";

std::string multipart(const std::vector<std::pair<std::string, std::string>>& parts) {
    std::string body;
    for (const auto& p : parts) {
        body += "--b0undary\r\nContent-Disposition: form-data; name=\"" + p.first + "\"";
        if (p.first == "file") body += "; filename=\"x\"\r\nContent-Type: application/octet-stream";
        body += "\r\n\r\n" + p.second + "\r\n";
    }
    return body + "--b0undary--\r\n";
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
        vtest::write_conf(root, plain_url,
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

    for (const std::string tag : {"plain", "tls"})
        for (const std::string category : {"screen-", "button-", "export-"})
            EXPECT_TRUE(wait_for_records(
                {R"("endpoint":"/v1/file","upload":"{)", R"("category":")" + category + tag}, 1))
                << category << tag;
    EXPECT_TRUE(wait_for_records({R"("endpoint":"/v1/data","record":{)", R"("dtype":"init")"}, 2));
    EXPECT_TRUE(wait_for_records({R"("endpoint":"/v1/data","config":{)", R"("CONF_URL":")" + plain_url}, 1));
    const std::vector<std::string> lines = records();
    EXPECT_EQ(9u, lines.size());
    for (const std::string& line : lines) {
        // {"received":T,"endpoint":E[,"upload":U],"record"|"config":{flat object}}
        EXPECT_EQ(0u, line.find(R"({"received":)")) << line;
        const size_t at = line.find(R"(":{")");
        ASSERT_NE(std::string::npos, at) << line;
        Velto::StrMap rec;
        EXPECT_TRUE(apitest::parse_record(line.substr(at + 2, line.size() - at - 3), rec)) << line;
    }

    EXPECT_EQ(0, stop());
    for (const char* shown : {"conf request  brand=tools-test", "] screenview  category=screen-tls  sid={",
                              "] event  category=button-plain  act=click  label=save  dvalue=3  sid=",
                              "velto-collector: 8 records received", "  init           2\n"})
        EXPECT_TRUE(vtest::has(out(), shown)) << shown << "\n" << out();
    EXPECT_EQ("", err());
}

TEST_F(CollectorTest, AnswersBadRequestsWith400AndKeepsServing) {
    start();
    std::string garbage(2000, '\0');
    std::mt19937 gen(11);
    for (char& c : garbage) c = static_cast<char>(gen());
    const std::string zlib_junk = std::string("\x78\x9c", 2) + "not a deflate stream at all";
    const std::string record = R"({"category":"late","dtype":"screenview","sid":"{s}"})";
    const auto data = [](const std::string& plain) { return "data=" + Velto::UrlEncode(fencode(plain)); };
    const auto file = [](const std::string& payload) { return multipart({{"file", payload}}); };
    struct Case {
        const char* what;
        std::string path, type, body, error;
    } cases[] = {
        {"random bytes", "/v1/data", kForm, garbage, ""},
        {"no form field", "/v1/data", kForm, "", "not a form"},
        {"unknown field", "/v1/data", kForm, "stuff=1", "unknown form field"},
        {"bad Base64", "/v1/data", kForm, "data=%25%25not*base64", "not Base64"},
        {"cut cipher block", "/v1/data", kForm, "data=" + Velto::UrlEncode(fencode(record).substr(4)), "AES"},
        {"bad zlib", "/v1/data", kForm, data(zlib_junk), "zlib"},
        {"not multipart", "/v1/file", kForm, "file=1", "multipart"},
        {"no file part", "/v1/file", kMultipart, multipart({{"sdk_log", "{g}"}}), "has no"},
        {"short file payload", "/v1/file", kMultipart, file("\x01\x02\x03"), "3 bytes"},
        {"file payload bad zlib", "/v1/file", kMultipart, file(file_payload(99, zlib_junk)), "zlib"},
        {"length prefix wrong", "/v1/file", kMultipart, file(file_payload(5, record)), "length prefix"},
        {"broken multipart", "/v1/file", kMultipart, garbage, ""},
        {"unknown path", "/v2/other", kForm, "data=1", "unknown path"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto reply = post(http(c.path), c.type, c.body);
        EXPECT_EQ(c.path == "/v2/other" ? 404 : 400, reply.first);
        EXPECT_EQ(0u, reply.second.find(R"({"status":1,"error":")")) << reply.second;
        EXPECT_TRUE(vtest::has(reply.second, c.error)) << reply.second;
    }
    send_raw(http_port_, garbage);
    send_raw(https_port_, garbage);

    // Still serving, on both ports.
    EXPECT_EQ(kOk, post(https("/v1/data"), kForm, data(record)).second);
    const std::string log = "[2024-01-01 10:00:00] [WARN] - (12) \"quoted\"\n";
    const std::string batch = record + "\nnot json\n";
    for (const auto& upload : {std::make_pair("log", log), std::make_pair("{g}", batch)}) {
        const std::string payload = file_payload(static_cast<uint32_t>(upload.second.size()), upload.second);
        EXPECT_EQ(
            kOk, post(http("/v1/file"), kMultipart, multipart({{"sdk_log", upload.first}, {"file", payload}}))
                     .second);
    }
    EXPECT_EQ(1u, count_with(records(), {R"("upload":"log","log":"[2024-01-01 10:00:00] [WARN] - (12) )"
                                         R"(\"quoted\"\n"})"}));
    EXPECT_TRUE(wait_for_records({R"("record":)" + record}, 2));
    EXPECT_EQ(1u, count_with(records(), {R"("upload":"{g}","invalid":"not json"})"}));
    EXPECT_EQ(0, stop());
    EXPECT_TRUE(vtest::has(out(), "13 bad requests, 1 unreadable records")) << out();
    EXPECT_EQ(13u, count_with(lines_of(err()), {"bad request: POST http://127.0.0.1:"})) << err();
}

TEST_F(CollectorTest, ServesTheConfigurationFileGiven) {
    const std::string conf = R"({"CONF_URL":"http://127.0.0.1:9","SEND_GAP":5})";
    vtest::write_file(dir_.file("conf.json"), conf + "\n");
    start(dir_.file("conf.json"));
    const auto reply = post(https("/v1/conf"), kForm, "uid=u&brand=b");
    EXPECT_EQ(200, reply.first);
    EXPECT_EQ(R"({"status":0,"conf":)" + conf + "}", reply.second);
    EXPECT_EQ(0, stop());
    EXPECT_TRUE(vtest::has(err(), "the library ignores fewer than 10")) << err();

    ToolProcess bad({tool("velto-collector"), "--https-port", "0"}, dir_.file("o2"), dir_.file("e2"));
    EXPECT_EQ(2, bad.wait(10000));
}

}  // namespace

// Tests of the developer tools as integrators run them: velto-decode on a root directory the library
// filled and on damaged files, and velto-collector taking the library's real uploads over http:// and
// https:// and answering garbage with 400 while it keeps serving, and its database, JSON API and event
// stream. The tools run as child processes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "HttpClient.h"
#include "api_helpers.h"
#include "child_process.h"
#include "collector_client.h"
#include "delivery.h"

namespace {

using Velto::Util::fencode;
using namespace vtest::client;
using vtest::lines_of;

// How many lines hold every one of parts.
size_t count_with(const std::vector<std::string>& lines, const std::vector<std::string>& parts) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return std::all_of(parts.begin(), parts.end(),
                           [&](const std::string& p) { return vtest::has(line, p); });
    });
}

// Runs velto-decode on path (bounded); out = its standard output.
int run_decode(const std::string& path, const std::string& scratch, std::string& out) {
    const int rc = vtest::ChildProcess({vtest::binary_dir() + "/tools/velto-decode", path},
                                       scratch + "/decode.out", scratch + "/decode.err")
                       .wait(30000);
    out = vtest::read_file(scratch + "/decode.out");
    return rc;
}

// ---- velto-decode ----

TEST(VeltoDecode, ShowsRecordsAndConfigurationTheLibraryLeft) {
    RUN_SCENARIO({
        vtest::write_conf(root, "http://127.0.0.1:1");
        record_session(root, "kept", "tools-test");
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
    const std::string junk = "\x80\xff\x01{\"not\":\"a record\"\x7f\xc3\x28 \t\r" + std::string(200, '\xfe');
    const std::string cut = whole.substr(0, 11 + 30);  // the file ends inside a record, as after a crash
    vtest::write_file(dir.file("sdk.msg"), whole + junk + "\n12345," + fencode(good) + "\n" +
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

// A socket connected to port on 127.0.0.1 (-1 when refused), its reads bounded by timeout_ms.
int connect_loopback(int port, int timeout_ms) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit{timeout_ms / 1000, timeout_ms % 1000 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

class CollectorTest : public ::testing::Test {
  protected:
    void start(const std::vector<std::string>& extra = {}, const std::string& ready = "listening on") {
        ASSERT_TRUE(collector_.start(extra, ready)) << out() << err();
    }
    int stop() { return collector_.stop(); }
    std::string db() const { return dir_.file("collector.db"); }
    std::string out() { return collector_.out(); }
    std::string err() { return collector_.err(); }
    std::vector<std::string> records() { return lines_of(vtest::read_file(dir_.file("records.jsonl"))); }
    bool wait_for_records(const std::vector<std::string>& parts, size_t n) {
        return vtest::wait_until([&] { return count_with(records(), parts) >= n; }, 30000);
    }
    std::string http(const std::string& path) { return collector_.url(path); }
    std::string https(const std::string& path) { return collector_.https_url(path); }

    vtest::TempDir dir_;
    Collector collector_{dir_, "collector", {"--records", dir_.file("records.jsonl"), "--db", db()}};
};

// Runs sql on the SQLite database at path with text parameters; the first column of every row.
std::vector<std::string> sql_column(const std::string& path, const std::string& sql,
                                    const std::vector<std::string>& params = {}) {
    std::vector<std::string> out;
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == 0) {
        for (size_t i = 0; i < params.size(); ++i)
            sqlite3_bind_text(st, static_cast<int>(i + 1), params[i].c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(st) == SQLITE_ROW) {
            const unsigned char* text = sqlite3_column_text(st, 0);
            out.emplace_back(text ? reinterpret_cast<const char*>(text) : "<null>");
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return out;
}

// The first row's first column of sql run in memory on text parameters.
std::string sql_value(const std::string& sql, const std::vector<std::string>& params) {
    const auto v = sql_column(":memory:", sql, params);
    return v.empty() ? "<no result>" : v[0];
}

// The value at path ("$.records[0].label") of json as SQLite's JSON functions read it: text as it
// decodes, numbers and objects as JSON; "<invalid>" when json is not valid JSON.
std::string json_at(const std::string& json, const std::string& path) {
    return sql_value("SELECT CASE json_valid(?1) WHEN 1 THEN json_extract(?1, ?2) ELSE '<invalid>' END",
                     {json, path});
}

// Writes bytes to a fresh connection and reads (bounded) until the server closes it.
void send_raw(int port, const std::string& bytes) {
    const int fd = connect_loopback(port, 5000);
    if (fd < 0) return;
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    for (char buf[512]; recv(fd, buf, sizeof buf, 0) > 0;) {
    }
    close(fd);
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
        record_session(root, "plain", "tools-test");
    });
    // https://: the configuration comes from the collector itself and points the uploads at it.
    const std::string tls_host = "127.0.0.1:" + std::to_string(collector_.https_port);
    RUN_SCENARIO({
        Velto::set_conf_endpoint_host(tls_host);
        record_session(root, "tls", "tools-test");
        EXPECT_EQ("https://" + tls_host, Velto::Config::obj_->get_str("CONF_URL"));
    });

    for (const std::string tag : {"plain", "tls"})
        for (const std::string category : {"screen-", "button-", "export-"})
            EXPECT_TRUE(wait_for_records(
                {R"("endpoint":"/v1/file","upload":"{)", R"("category":")" + category + tag}, 1))
                << category << tag;
    // The initial records go up alone, or in the end-of-run batch when data_stop came before their
    // attempt finished (data_stop leaves them in the file then).
    EXPECT_TRUE(wait_for_records({R"("dtype":"init")"}, 2));
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
    // The same records through the API, with the fields the page shows filled in.
    const std::string listed = get(http("/api/records?order=asc")).second;
    ASSERT_EQ("8", json_at(listed, "$.total")) << listed;
    EXPECT_EQ("8", sql_value("SELECT count(*) FROM json_each(?1, '$.records') WHERE json_extract(value, "
                             "'$.kind') = json_extract(value, '$.record.dtype') AND json_extract(value, "
                             "'$.brand') = 'tools-test' AND json_extract(value, '$.sid') <> ''",
                             {listed}))
        << listed;

    EXPECT_EQ(0, stop());
    for (const char* shown : {"conf request  brand=tools-test", "] screenview  category=screen-tls  sid={",
                              "] event  category=button-plain  act=click  label=save  dvalue=3  sid=",
                              "velto-collector: 8 records received", "  init           2\n"})
        EXPECT_TRUE(vtest::has(out(), shown)) << shown << "\n" << out();
    EXPECT_EQ("", err());
}

TEST_F(CollectorTest, AnswersBadRequestsAndQueriesWith400AndKeepsServing) {
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
    // The API's bad queries too.
    const std::string bad_queries[] = {"records?limit=abc",  "records?since=xyz",
                                       "records?order=up",   "records?after=-1",
                                       "requests?limit=1e3", "stats?minutes=0",
                                       "timeline?step=0",    "records?kind=" + std::string(5000, 'k')};
    for (const std::string& query : bad_queries) {
        const auto reply = get(http("/api/" + query));
        EXPECT_EQ(400, reply.first) << query;
        EXPECT_NE("", json_at(reply.second, "$.error")) << reply.second;
    }
    send_raw(collector_.http_port, garbage);
    send_raw(collector_.https_port, garbage);

    // Still serving, on both ports.
    EXPECT_EQ(kOk, post(https("/v1/data"), kForm, data(record)).second);
    for (const auto& upload : {batch_upload("log", {R"([2024-01-01 10:00:00] [WARN] - (12) "quoted")"}),
                               batch_upload("{g}", {record, "not json"})})
        EXPECT_EQ(kOk, post(http("/v1/file"), kMultipart, upload).second);
    EXPECT_EQ(1u, count_with(records(), {R"("upload":"log","log":"[2024-01-01 10:00:00] [WARN] - (12) )"
                                         R"(\"quoted\"\n"})"}));
    EXPECT_TRUE(wait_for_records({R"("record":)" + record}, 2));
    EXPECT_EQ(1u, count_with(records(), {R"("upload":"{g}","invalid":"not json"})"}));
    EXPECT_EQ(0, stop());
    EXPECT_TRUE(vtest::has(out(), "13 bad requests, 1 unreadable records")) << out();
    EXPECT_EQ(13u, count_with(lines_of(err()), {"bad request: POST http://127.0.0.1:"})) << err();
    EXPECT_EQ(std::size(bad_queries), count_with(lines_of(err()), {"bad request: GET http://127.0.0.1:"}))
        << err();
}

TEST_F(CollectorTest, ServesTheConfigurationFileGiven) {
    const std::string conf = R"({"CONF_URL":"http://127.0.0.1:9","SEND_GAP":5})";
    vtest::write_file(dir_.file("conf.json"), conf + "\n");
    start({"--conf", dir_.file("conf.json")});
    const auto reply = post(https("/v1/conf"), kForm, "uid=u&brand=b");
    EXPECT_EQ(200, reply.first);
    EXPECT_EQ(R"({"status":0,"conf":)" + conf + "}", reply.second);
    EXPECT_EQ(0, stop());
    EXPECT_TRUE(vtest::has(err(), "the library ignores fewer than 10")) << err();

    // One reply per brand, the default for the others (and for names that are no file name); a file
    // is read again when it changes.
    const std::string confs = dir_.file("confs");
    mkdir(confs.c_str(), 0700);
    vtest::write_file(confs + "/acme.json", R"({"SEND_GAP":7})");
    vtest::write_file(confs + "/default.json", R"({"status":0,"conf":{"SEND_GAP":9}})");
    start({"--conf-dir", confs});
    const auto conf_of = [this](const std::string& brand) {
        return post(http("/v1/conf"), kForm, "uid=u&brand=" + brand).second;
    };
    EXPECT_EQ(R"({"status":0,"conf":{"SEND_GAP":7}})", conf_of("acme"));
    for (const char* other : {"other", "..%2Facme", ""})
        EXPECT_EQ(R"({"status":0,"conf":{"SEND_GAP":9}})", conf_of(other)) << other;
    vtest::write_file(confs + "/acme.json", R"({"SEND_GAP":12})");
    EXPECT_EQ(R"({"status":0,"conf":{"SEND_GAP":12}})", conf_of("acme"));
    EXPECT_EQ(0, stop());

    vtest::ChildProcess bad({vtest::binary_dir() + "/tools/velto-collector", "--https-port", "0"},
                            dir_.file("o2"), dir_.file("e2"));
    EXPECT_EQ(2, bad.wait(10000));
}

// ---- velto-collector's database, API and event stream ----

// The categories of an /api/records reply, in order: "A,B".
std::string categories(const std::string& reply) {
    return sql_value(
        "SELECT coalesce(group_concat(json_extract(value, '$.category'), ','), '') FROM json_each(?1, "
        "'$.records')",
        {reply});
}

TEST_F(CollectorTest, ApiFiltersCountsRepeatsAndEscapesEveryLabel) {
    start();
    const std::string before = std::to_string((Velto::os_time() - 1) * 1000);
    const std::vector<std::string> batch = {
        R"({"category":"A","dtype":"event","label":"<script>","sid":"s1"})",
        R"({"category":"B","dtype":"screenview","sid":"s1"})",
        "{\"category\":\"C\",\"dtype\":\"event\",\"label\":\"a\xff\xfe"
        "b\\u0001\",\"sid\":\"s2\"}",
    };
    for (int i = 0; i < 2; ++i)  // the same batch again is a repeat
        ASSERT_EQ(kOk, post(http("/v1/file"), kMultipart, batch_upload("{b1}", batch)).second);
    ASSERT_EQ(kOk, post(https("/v1/data"), kForm,
                        data_form(R"({"act":"went","category":"A","dtype":"event","sid":"s2"})"))
                       .second);

    const std::string later = std::to_string((Velto::os_time() + 3600) * 1000);
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // query, total, categories
        {"", "4", "A,C,B,A"},  // newest first
        {"order=asc", "4", "A,B,C,A"},
        {"kind=event", "3", "A,C,A"},
        {"category=A", "2", "A,A"},
        {"sid=s1", "2", "B,A"},
        {"kind=event&sid=s2&order=asc", "2", "C,A"},
        {"q=SCRIPT", "1", "A"},
        {"q=went", "1", "A"},
        {"q=%25", "0", ""},  // "%" is a literal, not a pattern
        {"after=2&order=asc", "2", "C,A"},
        {"limit=1", "4", "A"},
        {"since=" + before + "&until=" + later, "4", "A,C,B,A"},
        {"since=" + later, "0", ""},
        {"until=" + before, "0", ""},
    };
    for (const auto& [query, total, listed] : cases) {
        const std::string reply = get(http("/api/records?" + query)).second;
        EXPECT_EQ(total, json_at(reply, "$.total")) << query << "\n" << reply;
        EXPECT_EQ(listed, categories(reply)) << query << "\n" << reply;
    }

    // Labels come back as they were sent, in valid JSON; bytes that are not UTF-8 as U+FFFD.
    const std::string listed = get(http("/api/records?order=asc")).second;
    EXPECT_EQ("<script>", json_at(listed, "$.records[0].label"));
    for (const char* label : {"$.records[2].label", "$.records[2].record.label"})
        EXPECT_EQ(
            "a\xEF\xBF\xBD\xEF\xBF\xBD"
            "b\x01",
            json_at(listed, label))
            << listed;
    EXPECT_EQ(std::string::npos, listed.find('\xff'));

    // The repeat is a request of its own; its records are not stored or written again.
    const std::string stats = get(http("/api/stats")).second;
    const std::pair<const char*, const char*> counts[] = {{"$.records", "4"},  {"$.requests", "3"},
                                                          {"$.repeats", "1"},  {"$.kinds.event", "3"},
                                                          {"$.sessions", "2"}, {"$.bad_requests", "0"}};
    for (const auto& count : counts)
        EXPECT_EQ(count.second, json_at(stats, count.first)) << count.first << "\n" << stats;
    // Over all time the timeline widens its slices (a bounded answer) and still counts every record.
    const std::string timeline = get(http("/api/timeline?since=0&kind=event")).second;
    EXPECT_EQ("3", sql_value("SELECT sum(json_extract(value, '$.count')) FROM json_each(?1, '$.slices')",
                             {timeline}))
        << timeline;
    const std::string requests = get(http("/api/requests")).second;
    EXPECT_EQ("repeat", json_at(requests, "$.requests[1].result")) << requests;
    EXPECT_EQ("{b1}", json_at(requests, "$.requests[1].batch"));
    EXPECT_EQ("https", json_at(requests, "$.requests[0].scheme"));
    EXPECT_EQ(4u, records().size());
    EXPECT_EQ(0, stop());
    EXPECT_TRUE(vtest::has(out(), "3 records: a batch stored before, not stored again")) << out();
}

// A GET /api/stream connection, read through a raw socket.
class EventStream {
  public:
    explicit EventStream(int port) : fd_(connect_loopback(port, 100)) {
        const std::string request = "GET /api/stream HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        send(fd_, request.data(), request.size(), MSG_NOSIGNAL);
    }
    ~EventStream() { close(fd_); }
    // Waits (bounded) until text has arrived, or with text "" until the server closed the stream.
    bool wait_for(const std::string& text, int timeout_ms = 20000) {
        return vtest::wait_until(
            [&] {
                char buf[4096];
                const ssize_t n = recv(fd_, buf, sizeof buf, 0);
                if (n > 0) got_.append(buf, static_cast<size_t>(n));
                return text.empty() ? n == 0 : vtest::has(got_, text);
            },
            timeout_ms);
    }
    // The data line of the first event called name.
    std::string data_of(const std::string& name) const {
        const std::string head = "event: " + name + "\ndata: ";
        const size_t at = got_.find(head);
        return at == std::string::npos
                   ? ""
                   : got_.substr(at + head.size(), got_.find('\n', at + head.size()) - at - head.size());
    }
    const std::string& got() const { return got_; }

  private:
    int fd_;
    std::string got_;
};

TEST_F(CollectorTest, StreamSendsNewRecordsToEveryClientAndEndsAtShutdown) {
    start();
    EventStream first(collector_.http_port), second(collector_.http_port);
    ASSERT_TRUE(first.wait_for(": connected")) << first.got();
    ASSERT_TRUE(second.wait_for(": connected")) << second.got();
    ASSERT_EQ(
        kOk,
        post(http("/v1/data"), kForm, data_form(R"({"category":"live","dtype":"event","sid":"s"})")).second);
    for (EventStream* stream : {&first, &second}) {
        ASSERT_TRUE(stream->wait_for(R"("sid":"s"}})"
                                     "\n\n"))
            << stream->got();  // the record's event, whole
        EXPECT_EQ("live", json_at(stream->data_of("record"), "$.record.category")) << stream->got();
        EXPECT_EQ("1", json_at(stream->data_of("request"), "$.records")) << stream->got();
    }
    // Open streams do not hold the collector up.
    collector_.signal(SIGTERM);
    EXPECT_TRUE(first.wait_for("")) << first.got();
    EXPECT_EQ(0, collector_.wait(20000));
}

TEST_F(CollectorTest, DatabaseKeepsEveryAnsweredRecordThroughKillAndRestart) {
    start();
    std::atomic<size_t> answered_count{0};
    std::vector<std::string> answered;  // the sender's until it is joined
    std::thread sender([&] {
        for (int i = 0; i < 100000; ++i) {
            const std::string category = "k" + std::to_string(i);
            if (post(http("/v1/data"), kForm,
                     data_form(R"({"category":")" + category + R"(","dtype":"event"})"))
                    .second != kOk)
                return;
            answered.push_back(category);
            ++answered_count;
        }
    });
    EXPECT_TRUE(vtest::wait_until([&] { return answered_count >= 40; }, 60000));
    collector_.signal(SIGKILL);
    collector_.wait(20000);
    sender.join();

    EXPECT_EQ(std::vector<std::string>{"ok"}, sql_column(db(), "PRAGMA integrity_check"));
    const std::vector<std::string> stored = sql_column(db(), "SELECT category FROM records");
    const std::set<std::string> kept(stored.begin(), stored.end());
    for (const std::string& category : answered) EXPECT_EQ(1u, kept.count(category)) << category;

    start();  // on the same database
    EXPECT_EQ(std::to_string(stored.size()), json_at(get(http("/api/records?limit=0")).second, "$.total"));
    EXPECT_EQ(0, stop());

    // A database of a newer collector is refused and left as it is; a damaged one is refused at
    // start with one line, not answered with 500 ever after.
    const auto refused = [&] {
        vtest::ChildProcess p(collector_.command(), dir_.file("o2"), dir_.file("e2"));
        EXPECT_EQ(2, p.wait(20000));
        return vtest::read_file(dir_.file("e2"));
    };
    sql_column(db(), "PRAGMA user_version=7");
    EXPECT_TRUE(vtest::has(refused(), "written by a newer velto-collector"));
    EXPECT_EQ(std::vector<std::string>{"7"}, sql_column(db(), "PRAGMA user_version"));
    sql_column(db(), "PRAGMA user_version=2");
    std::string bytes = vtest::read_file(db());
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t i = 4096; i < bytes.size(); i += 97) bytes[i] = static_cast<char>(bytes[i] ^ 0x5a);
    vtest::write_file(db(), bytes);
    const std::string why = refused();
    EXPECT_TRUE(vtest::has(why, "collector.db is damaged") || vtest::has(why, "collector.db cannot be used"))
        << why;
    EXPECT_EQ(1u, lines_of(why).size()) << why;
}

// Logs for a log shipper: with --log-format json every line is a JSON object, one line a request
// with its fields. (Without the option the lines stay readable: see the uploads case.)
TEST_F(CollectorTest, LogsEveryRequestAsOneJsonLine) {
    start({"--log-format", "json"}, R"("event":"start")");
    post(http("/v1/data"), kForm, data_form(R"({"category":"logged","dtype":"event"})"));
    post(http("/v1/data"), kForm, "garbage=1");
    EXPECT_EQ(0, stop());
    std::vector<std::string> requests;  // "result status records endpoint" of each request line
    for (const std::string& line : lines_of(out())) {
        EXPECT_NE("<invalid>", json_at(line, "$.event")) << line;
        if (json_at(line, "$.event") == "request")
            requests.push_back(json_at(line, "$.result") + " " + json_at(line, "$.status") + " " +
                               json_at(line, "$.records") + " " + json_at(line, "$.endpoint"));
    }
    EXPECT_EQ((std::vector<std::string>{"ok 200 1 /v1/data", "bad 400 0 /v1/data"}), requests) << out();
    EXPECT_EQ("", err());
}

// True once the server has closed fd (its end read, or the connection reset); reads nothing else.
bool closed_by_server(int fd) {
    char buf[256];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n == 0) return true;
        if (n < 0) return errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
    }
}

// Slow clients hold no worker for long: 200 connections at once, on both ports, that never send a
// byte or trickle one every half second (the request's headers in plain HTTP, a TLS record in the
// handshake). Uploads flow beside them, and each trickling connection is cut off once its request
// has taken longer than the bound in all, however regularly its bytes come.
TEST_F(CollectorTest, UploadsFlowWhileTwoHundredSlowConnectionsAreOpen) {
    start({"--request-timeout", "2"});
    std::vector<int> silent, trickling;
    for (int i = 0; i < 200; ++i) {
        const int fd = connect_loopback(i % 2 ? collector_.https_port : collector_.http_port, 5000);
        ASSERT_GE(fd, 0);
        (i % 4 < 2 ? silent : trickling).push_back(fd);
    }
    // A handshake record that announces 16 KB, or a request whose header never ends.
    const std::string tls_head("\x16\x03\x01\x40\x00", 5);
    const std::string http_head = "POST /v1/data HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: ";
    std::atomic<bool> done{false};
    std::atomic<int> cut{0};
    std::thread trickle([&] {
        std::vector<bool> open(trickling.size(), true);
        for (size_t at = 0; !done && cut < static_cast<int>(trickling.size()); ++at) {
            for (size_t i = 0; i < trickling.size(); ++i) {
                if (!open[i]) continue;
                const std::string& head = i % 2 ? tls_head : http_head;
                if (closed_by_server(trickling[i]) ||
                    send(trickling[i], at < head.size() ? &head[at] : "a", 1, MSG_NOSIGNAL) != 1) {
                    open[i] = false;
                    ++cut;
                }
            }
            for (int t = 0; t < 10 && !done; ++t) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    int taken = 0;
    for (int i = 0; i < 100; ++i) {
        const std::string url = i % 2 ? https("/v1/data") : http("/v1/data");
        taken += post(url, kForm, data_form(R"({"category":"flow","dtype":"event"})")).second == kOk;
    }
    EXPECT_EQ(100, taken);
    EXPECT_TRUE(vtest::wait_until([&] { return cut == static_cast<int>(trickling.size()); }, 60000))
        << cut << " of " << trickling.size() << " trickling connections cut off";
    done = true;
    trickle.join();
    for (int fd : silent) close(fd);
    for (int fd : trickling) close(fd);
    EXPECT_EQ(0, stop());
}

}  // namespace

// Tests of the background runner: the debug report written for each mirrored record, and end to end
// through the exported API against a loopback collector: batch thresholds, real-time sending, the
// initial event, outage and recovery, the stop handshake and a host that exits without stopping.
#include "BackRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ComInc.h"
#include "Config.h"
#include "OsApi.h"
#include "Util.h"
#include "payload.h"
#include "raw_server.h"
#include "scenario.h"
#include "velto.h"

namespace {

using vcollect::RawMode;
using vcollect::RawServer;
using Velto::BackRun;
using Velto::Config;
using Velto::StrMap;
namespace Util = Velto::Util;

// ---------------------------------------------------------------------------------------------
// Debug report

const char kReportHead[] =
    "<html><head><title>debug_msg_to_svr</title>\n"
    "<style type=\"text/css\">\n"
    "#customers{font-family:\"Trebuchet MS\", Arial, Helvetica, "
    "sans-serif;width:100%;border-collapse:collapse;}"
    "#customers td, #customers th {font-size:1em;border:1px solid #98bf21;padding:3px 7px 2px 7px;}"
    "#customers th {font-size:1.1em;text-align:center;padding-top:5px;padding-bottom:4px;"
    "background-color:#A7C942;color:#ffffff;}#customers tr.alt td {color:#000000;background-color:#EAF2D3;}\n"
    "</style>\n"
    "</head><body><h1 style=\"text-align:center\">\xCA\xFD\xBE\xDD\xB2\xC9\xBC\xAF"
    "SDK \xB5\xF7\xCA\xD4\xCF\xFB\xCF\xA2</h1><table id=\"customers\">\n"
    "<tr><th style=\"width:150\">time</th><th>type</th><th>extend info</th><th>common info</th></tr>\n"
    "\n"
    "<!--you can delete table rows in this area begin-->\n";
const char kReportTail[] =
    "<!--you can delete table rows in this area end-->\n"
    "</table></body></html>\n";
const char kHeaderRow[] =
    "<tr><th style=\"width:150\">time</th><th>type</th><th>extend info</th><th>common info</th></tr>";

const char kFullAnswer[] =
    "{\"dtype\":\"event\",\"tid\":\"T1\",\"pid\":\"7\",\"pver\":\"2.0\",\"oszone\":\"8\",\"procname\":"
    "\"app\","
    "\"procid\":\"42\",\"plang\":\"en\",\"uip\":\"1.2.3.4\",\"ostype\":\"linux\",\"osver\":\"6\",\"osbit\":"
    "\"64\","
    "\"oslang\":\"de\",\"tinstall\":\"100\",\"psource\":\"web\",\"uid\":\"u9\",\"act\":\"click\",\"cat\":"
    "\"menu\"}";
const char kFullCommon[] =
    "tid:T1, pid:7, pver:2.0, oszone:8, procname:app, procid:42, plang:en,<br/>uip:1.2.3.4, ostype:linux, "
    "osver:6, osbit:64, oslang:de, tinstall:100, psource:web, uid:u9";
const char kEmptyCommon[] =
    "tid:, pid:, pver:, oszone:, procname:, procid:, plang:,<br/>uip:, ostype:, osver:, osbit:, oslang:, "
    "tinstall:, psource:, uid:";

std::string row(bool alt, const std::string& type, const std::string& ext, const std::string& common) {
    return std::string(alt ? "<tr class=\"alt\"><td>" : "<tr><td>") + "TIME</td><td>" + type + "</td><td>" +
           ext + "</td><td>" + common + "</td></tr>\n";
}

// The time cell depends on the clock; everything else must match byte for byte.
std::string without_times(const std::string& report) {
    static const std::regex time_cell("<td>\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}</td>");
    return std::regex_replace(report, time_cell, "<td>TIME</td>");
}

class DebugReport : public ::testing::Test {
  protected:
    // A settings store of the test's own, so that this process stays uninitialised for the
    // scenarios below.
    void SetUp() override {
        conf_.init_mutex();
        conf_.set("ROOT_DIR", dir_.path() + "/");
        saved_ = Config::obj_;
        Config::obj_ = &conf_;
    }
    void TearDown() override { Config::obj_ = saved_; }
    std::string report_path() const { return dir_.file("debug_msg_to_svr.html"); }
    std::string save(std::string answer) {
        runner_.save_debug_msg(answer);
        return without_times(vtest::read_file(report_path()));
    }

    vtest::TempDir dir_;
    Config conf_;
    Config* saved_ = nullptr;
    BackRun runner_;
};

TEST_F(DebugReport, RowsKeptFromTheFileAndTheNewRow) {
    const std::string a = "<tr><td>t</td><td>a</td><td></td><td>c</td></tr>\n";
    const std::string b = "<tr class=\"alt\"><td>t</td><td>b</td><td></td><td>c</td></tr>\n";
    const std::string header = std::string(kHeaderRow) + "\n";
    struct Case {
        const char* what;
        std::string file;  // "" = no report yet
        std::string answer;
        std::string rows;  // the expected rows, the new one last
    } cases[] = {
        {"fresh", "", kFullAnswer, row(false, "event", "act:click, cat:menu", kFullCommon)},
        {"rows damaged or deleted by hand",
         header + a + "<tr><td>damaged</td></tr> tail\n" + "<tr><td>x</td></tr>\n" +  // 20 characters
             "<td>t</td><td>no row start</td></tr>\n" + b,
         "{\"dtype\":\"count\"}", a + b + row(false, "count", "", kEmptyCommon)},
        {"second header row", header + a + header + b, "{\"dtype\":\"event\"}",
         a + row(true, "event", "", kEmptyCommon)},
        {"rows outside the table", a + header + a + "</table>\n" + b, "{\"dtype\":\"event\"}",
         a + row(true, "event", "", kEmptyCommon)},
        {"no dtype, escaped quotes", "", "{\"lab\":\"a\\\"b\",\"uid\":\"\\\"u\"}",
         row(false, "", "lab:a_b",
             "tid:, pid:, pver:, oszone:, procname:, procid:, plang:,<br/>uip:, ostype:, osver:, osbit:, "
             "oslang:, tinstall:, psource:, uid:_u")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(report_path().c_str());
        if (!c.file.empty()) vtest::write_file(report_path(), c.file);
        EXPECT_EQ(std::string(kReportHead) + c.rows + kReportTail, save(c.answer));
    }
}

TEST_F(DebugReport, ReadsBackItsOwnRows) {
    save(kFullAnswer);
    save("{\"dtype\":\"screen\"}");
    EXPECT_EQ(std::string(kReportHead) + row(false, "event", "act:click, cat:menu", kFullCommon) +
                  row(true, "screen", "", kEmptyCommon) + row(false, "", "x:1", kEmptyCommon) + kReportTail,
              save("{\"x\":\"1\"}"));
}

TEST_F(DebugReport, SwitchFile) {
    EXPECT_EQ("", runner_.get_svrd());  // no file
    vtest::write_file(dir_.file("DEBUG_MODE_SVR_ADDR"), "");
    EXPECT_EQ("", runner_.get_svrd());
    vtest::write_file(dir_.file("DEBUG_MODE_SVR_ADDR"), "http://127.0.0.1:9\nsecond line\n");
    EXPECT_EQ("http://127.0.0.1:9", runner_.get_svrd());
}

// ---------------------------------------------------------------------------------------------
// End to end through the exported API, against a loopback collector.

const char kOk[] = "{\"status\":0}";
const char kRefused[] = "{\"status\":1}";
const int kWaitMs = 30000;

// A saved configuration that needs no fetch: sends nothing by threshold unless a test lowers one.
void write_conf(const std::string& root, const std::string& url, const StrMap& changes = {}) {
    std::string now = Util::ltoa(Velto::os_time());
    StrMap conf = {
        {"CONF_UPD_TIME", now},    {"CONF_UPD_GAP", "24"},     {"COLLECT_ON", "ON"},
        {"COLLECT_WAY", "NOREAL"}, {"SEND_ENDPOINTS", "OFF"},  {"SEND_BEGINPOINTS", "OFF"},
        {"SEND_GAP", "10079"},     {"SEND_NUM", "99999"},      {"SEND_SIZE", "20479"},
        {"MAX_RESV_DAY", "7"},     {"MAX_FILE_SIZE", "20479"}, {"MAX_LOG_SIZE", "4000"},
        {"LOGERR_SEND_LIM", "0"},  {"LOGERR_NUM", "0"},        {"SEND_LOG_ON", "OFF"},
        {"SEND_CUR_CONF", "OFF"},  {"ZIP_DATA", "ON"},         {"CON_TIMEOUT", "3000"},
        {"LAST_SEND", now},        {"CONF_URL", url},          {"ENABLE_HTTPS", "OFF"},
        {"SESSION_TMOUT", "1800"},
    };
    for (const auto& kv : changes) conf[kv.first] = kv.second;
    vtest::write_file(root + "/sdk.cf", Util::fencode(Util::to_json(conf)));
}

void start(const std::string& root) {
    ASSERT_EQ(0, data_init(root.c_str(), "brand"));
    ASSERT_EQ(
        0, data_base_info("tid1", 42, "1.0", 8, "uip1", "en", "mac", "10.15", 64, "en-US", 0, "src", "u1"));
}

// Asks the loop to stop and waits (bounded) until it has really ended.
void stop_and_wait() {
    data_stop();
    ASSERT_TRUE(vtest::wait_until([] { return Velto::g_back_run.stop_flag() == 0; }, kWaitMs));
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    size_t begin = 0;
    for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        out.push_back(text.substr(begin, end - begin));
    if (begin < text.size()) out.push_back(text.substr(begin));
    return out;
}

// The records of a message file (or a set-aside one): "<10-digit time>,<fencode>" per line.
std::vector<std::string> file_records(const std::string& path) {
    static const std::regex line_form("\\d{10},[A-Za-z0-9+/=]{16,}");
    std::vector<std::string> out;
    for (const std::string& line : lines_of(vtest::read_file(path))) {
        EXPECT_TRUE(std::regex_match(line, line_form)) << line;
        out.push_back(Util::fdecode(line.substr(11)));
    }
    return out;
}

size_t file_lines(const std::string& path) {
    return lines_of(vtest::read_file(path)).size();
}

bool wait_lines(const std::string& path, size_t n) {
    return vtest::wait_until([&] { return file_lines(path) >= n; }, kWaitMs);
}

std::vector<std::string> set_aside_files(const std::string& root) {
    Velto::StrList names;
    Velto::get_files(root + "/", names);
    std::vector<std::string> out;
    for (const std::string& n : names)
        if (n.compare(0, 8, "MSG_PRE_") == 0) out.push_back(root + "/" + n);
    return out;
}

std::vector<vcollect::RawRequest> requests_to(const RawServer& server, const std::string& path) {
    std::vector<vcollect::RawRequest> out;
    for (const vcollect::RawRequest& r : server.requests())
        if (r.path() == path) out.push_back(r);
    return out;
}

bool wait_requests_to(const RawServer& server, const std::string& path, size_t n) {
    return vtest::wait_until([&] { return requests_to(server, path).size() >= n; }, kWaitMs);
}

// The record of each "/v1/data" request, in arrival order.
std::vector<std::string> data_records(const RawServer& server) {
    std::vector<std::string> out;
    for (const vcollect::RawRequest& r : requests_to(server, "/v1/data")) {
        std::string rec;
        EXPECT_TRUE(
            vcollect::decode_form_payload(vcollect::form_value(vcollect::parse_form(r.body), "data"), rec));
        out.push_back(rec);
    }
    return out;
}

// The records of each "/v1/file" upload: one list per request.
std::vector<std::vector<std::string>> file_uploads(const RawServer& server) {
    std::vector<std::vector<std::string>> out;
    for (const vcollect::RawRequest& r : requests_to(server, "/v1/file")) {
        auto parts = vcollect::parse_multipart(r.body, vcollect::boundary_of(r.header("Content-Type")));
        const vcollect::FormPart* file = vcollect::find_part(parts, "file");
        vcollect::FilePayload payload;
        EXPECT_TRUE(file != nullptr && vcollect::decode_file_payload(file->data, payload));
        out.push_back(lines_of(payload.data));
    }
    return out;
}

size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

bool has(const std::string& record, const std::string& member) {
    return record.find(member) != std::string::npos;
}

std::string event_member(int i) {
    return "\"category\":\"c" + std::to_string(i) + "\"";
}

int event(int i) {
    return data_event(("c" + std::to_string(i)).c_str(), "act", nullptr, 0);
}

TEST(Delivery, CountThresholdUploadsDeduplicatedRecordsOnce) {
    RUN_SCENARIO({
        RawServer server;
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url(), {{"SEND_NUM", "4"}});
        // Left over from an earlier run: counted as pending at start, and one is a duplicate.
        std::string old = "{\"dtype\":\"event\",\"category\":\"old\"}";
        std::string line = Util::ltoa(Velto::os_time()) + "," + Util::fencode(old) + "\n";
        vtest::write_file(root + "/sdk.msg", line + line);

        start(root);
        ASSERT_EQ(0, event(1));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 3));
        std::vector<std::string> recs = file_records(root + "/sdk.msg");
        ASSERT_EQ(3u, recs.size());
        EXPECT_TRUE(has(recs[2], event_member(1))) << recs[2];
        EXPECT_TRUE(requests_to(server, "/v1/file").empty());

        ASSERT_EQ(0, event(2));
        ASSERT_TRUE(wait_requests_to(server, "/v1/file", 1));
        auto uploads = file_uploads(server);
        ASSERT_EQ(1u, uploads.size());
        ASSERT_EQ(3u, uploads[0].size());
        EXPECT_EQ(old, uploads[0][0]);
        EXPECT_TRUE(has(uploads[0][1], event_member(1)));
        EXPECT_TRUE(has(uploads[0][2], event_member(2)));
        // The initial event went out on its own and never reached the file.
        ASSERT_EQ(1u, data_records(server).size());
        EXPECT_TRUE(has(data_records(server)[0], "\"dtype\":\"init\""));

        EXPECT_TRUE(vtest::wait_until([&] { return set_aside_files(root).empty(); }, kWaitMs));
        stop_and_wait();
        EXPECT_EQ(1u, requests_to(server, "/v1/file").size());
        EXPECT_EQ(0u, file_lines(root + "/sdk.msg"));
    });
}

TEST(Delivery, SizeThresholdUploadsTheBigRecord) {
    RUN_SCENARIO({
        RawServer server;
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url(), {{"SEND_SIZE", "1"}});  // more than 1024 pending bytes
        start(root);
        std::string props(1000, 'p');
        ASSERT_EQ(0, data_experience("big", "act", props.c_str()));
        ASSERT_TRUE(wait_requests_to(server, "/v1/file", 1));
        auto uploads = file_uploads(server);
        ASSERT_EQ(1u, uploads.size());
        ASSERT_EQ(1u, uploads[0].size());
        EXPECT_TRUE(has(uploads[0][0], props));
        stop_and_wait();
    });
}

TEST(Delivery, GapThresholdSendsOnlyWhatIsPending) {
    RUN_SCENARIO({
        RawServer server;
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url(), {{"SEND_GAP", "1"}});
        start(root);
        ASSERT_EQ(0, event(1));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
        Velto::os_time_shift(61);
        ASSERT_TRUE(wait_requests_to(server, "/v1/file", 1));
        auto uploads = file_uploads(server);
        ASSERT_EQ(1u, uploads.size());
        ASSERT_EQ(1u, uploads[0].size());
        EXPECT_TRUE(has(uploads[0][0], event_member(1)));

        // The gap passes again with nothing written since: the loop keeps idling without a batch.
        Velto::os_time_shift(61);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // some hundred idle turns
        EXPECT_EQ(1u, count_of(vtest::read_file(root + "/sdk.log"), "to send, err: "));
        // The next record goes out alone: the first one is not sent again.
        ASSERT_EQ(0, event(2));
        ASSERT_TRUE(wait_requests_to(server, "/v1/file", 2));
        uploads = file_uploads(server);
        ASSERT_EQ(1u, uploads[1].size());
        EXPECT_TRUE(has(uploads[1][0], event_member(2)));
        stop_and_wait();
    });
}

TEST(Delivery, RealTimeSendsEachRecordAndFallsBackToTheFile) {
    RUN_SCENARIO({
        RawServer server;
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url(), {{"COLLECT_WAY", "REAL"}});
        start(root);
        ASSERT_EQ(0, event(1));
        ASSERT_TRUE(wait_requests_to(server, "/v1/data", 2));  // the initial event, then this one
        EXPECT_TRUE(has(data_records(server)[1], event_member(1)));

        server.set_reply(kRefused);
        ASSERT_EQ(0, event(2));
        ASSERT_EQ(0, event(3));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 2));
        // One refused attempt; the next record went straight to the file.
        EXPECT_EQ(3u, requests_to(server, "/v1/data").size());
        std::vector<std::string> recs = file_records(root + "/sdk.msg");
        ASSERT_EQ(2u, recs.size());
        EXPECT_TRUE(has(recs[0], event_member(2)));
        EXPECT_TRUE(has(recs[1], event_member(3)));

        server.set_reply(kOk);
        Velto::os_time_shift(301);
        ASSERT_EQ(0, event(4));
        ASSERT_TRUE(wait_requests_to(server, "/v1/data", 4));
        EXPECT_TRUE(has(data_records(server)[3], event_member(4)));
        stop_and_wait();
        EXPECT_EQ(2u, file_lines(root + "/sdk.msg"));
        EXPECT_TRUE(requests_to(server, "/v1/file").empty());
    });
}

TEST(Delivery, InitialEventIsTriedThreeTimes) {
    RUN_SCENARIO({
        RawServer server(RawMode::kReply, kRefused);
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url());
        start(root);
        // Two refusals, then the server takes it (the loop sleeps a second after each refusal).
        ASSERT_TRUE(wait_requests_to(server, "/v1/data", 2));
        server.set_reply(kOk);
        ASSERT_TRUE(wait_requests_to(server, "/v1/data", 3));
        stop_and_wait();
        std::vector<std::string> sent = data_records(server);
        ASSERT_EQ(3u, sent.size());
        for (const std::string& rec : sent) EXPECT_TRUE(has(rec, "\"dtype\":\"init\"")) << rec;
        EXPECT_EQ('{', sent[0][0]);  // sent without its queue prefix
        EXPECT_EQ(0u, file_lines(root + "/sdk.msg"));
    });
}

TEST(Delivery, StopWritesEveryQueuedRecordAndUploadsThem) {
    struct Case {
        const char* end_switch;
    } cases[] = {{"OFF"}, {"ON"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.end_switch);
        RUN_SCENARIO({
            const int n = 900;  // below the queue bound; the drain passes deliberate skips
            RawServer server;
            ASSERT_TRUE(server.ok());
            write_conf(root, server.url(), {{"SEND_ENDPOINTS", c.end_switch}});
            start(root);
            for (int i = 0; i < n; ++i) ASSERT_EQ(0, event(i));
            data_stop();  // returns at once; the loop drains the queue on its own
            EXPECT_EQ(207, event(n));
            ASSERT_TRUE(vtest::wait_until([] { return Velto::g_back_run.stop_flag() == 0; }, kWaitMs));

            std::vector<std::string> written;
            if (std::string(c.end_switch) == "ON") {
                auto uploads = file_uploads(server);
                ASSERT_EQ(1u, uploads.size());
                written = uploads[0];
                EXPECT_TRUE(set_aside_files(root).empty());
            } else {
                EXPECT_TRUE(requests_to(server, "/v1/file").empty());
                written = file_records(root + "/sdk.msg");
            }
            ASSERT_EQ(static_cast<size_t>(n), written.size());
            for (int i = 0; i < n; ++i) EXPECT_TRUE(has(written[i], event_member(i))) << i;
        });
    }
}

TEST(Delivery, OutageKeepsBatchesAsideAndTheNextRunUploadsThem) {
    vtest::TempDir shared;
    const std::string root = shared.path();
    std::vector<std::string> kept;  // every record the first run left on disk

    ASSERT_TRUE(vtest::run_scenario([&](const std::string&) {
        RawServer server(RawMode::kReply, kRefused);
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url(), {{"SEND_NUM", "2"}, {"SEND_ENDPOINTS", "ON"}});
        start(root);
        ASSERT_EQ(0, event(1));
        // The refused initial event (three attempts) and this one wait in the file; the failure
        // holds back batches for 300 seconds.
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 2));
        Velto::os_time_shift(301);
        ASSERT_TRUE(vtest::wait_until([&] { return set_aside_files(root).size() == 1; }, kWaitMs));
        ASSERT_EQ(0, event(2));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
        Velto::os_time_shift(301);
        ASSERT_TRUE(vtest::wait_until([&] { return set_aside_files(root).size() == 2; }, kWaitMs));
        ASSERT_EQ(0, event(3));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
        stop_and_wait();  // the end-of-run batch fails too
        EXPECT_EQ(3u, set_aside_files(root).size());
        EXPECT_EQ(3u, requests_to(server, "/v1/file").size());
    }));
    for (const std::string& path : set_aside_files(root))
        for (const std::string& rec : file_records(path)) kept.push_back(rec);
    ASSERT_EQ(4u, kept.size());
    EXPECT_EQ(0u, file_lines(root + "/sdk.msg"));

    ASSERT_TRUE(vtest::run_scenario([&](const std::string&) {
        RawServer server;
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url(), {{"SEND_BEGINPOINTS", "ON"}});
        start(root);
        ASSERT_TRUE(vtest::wait_until([&] { return set_aside_files(root).empty(); }, kWaitMs));
        std::vector<std::string> uploaded;
        for (const auto& upload : file_uploads(server))
            uploaded.insert(uploaded.end(), upload.begin(), upload.end());
        EXPECT_EQ(3u, requests_to(server, "/v1/file").size());
        std::vector<std::string> want = kept;
        std::sort(want.begin(), want.end());
        std::sort(uploaded.begin(), uploaded.end());
        EXPECT_EQ(want, uploaded);
        stop_and_wait();
    }));
}

TEST(Delivery, HostExitingWithoutStopDoesNotCrash) {
    RUN_SCENARIO({
        RawServer server;
        ASSERT_TRUE(server.ok());
        write_conf(root, server.url());
        start(root);
        std::thread producer([] {
            for (int i = 0;; ++i) event(i);
        });
        producer.detach();
        for (int i = 0; i < 500; ++i) event(100000 + i);
        std::exit(0);  // static destruction runs while both threads are still busy
    });
}

TEST(Delivery, DebugMirrorOnlyWithSwitchFile) {
    for (bool with_switch : {true, false}) {
        SCOPED_TRACE(with_switch ? "switch file" : "no switch file");
        RUN_SCENARIO({
            RawServer server;
            RawServer debug(RawMode::kReply, "{\"status\":0,\"data\":{\"dtype\":\"event\",\"x\":\"1\"}}");
            ASSERT_TRUE(server.ok() && debug.ok());
            write_conf(root, server.url());
            if (with_switch) vtest::write_file(root + "/DEBUG_MODE_SVR_ADDR", debug.url() + "\n");
            start(root);
            ASSERT_EQ(0, event(1));
            ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
            stop_and_wait();
            EXPECT_EQ(1u, server.requests().size());  // the initial event's own request
            std::string report = vtest::read_file(root + "/debug_msg_to_svr.html");
            if (!with_switch) {
                EXPECT_EQ(0u, debug.connections());
                EXPECT_EQ("", report);
                return;
            }
            // Both records went to the debug server too (the initial one without its prefix).
            std::vector<std::string> mirrored = data_records(debug);
            ASSERT_EQ(2u, mirrored.size());
            EXPECT_EQ(data_records(server)[0], mirrored[0]);
            EXPECT_TRUE(has(mirrored[1], event_member(1)));
            EXPECT_EQ(2u, count_of(report, "</td><td>event</td><td>x:1</td><td>tid:, "));
        });
    }
}

}  // namespace

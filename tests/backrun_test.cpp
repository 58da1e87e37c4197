// Tests of the background runner: the debug report written for each mirrored record, and end to end
// through the exported API against a loopback collector: batch thresholds, real-time sending, the
// initial event, outage and recovery, the stop handshake and a host that exits without stopping.
#include "BackRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Cache.h"
#include "DebugReport.h"
#include "api_helpers.h"
#include "delivery.h"
#include "velto.h"

namespace {

using apitest::stop_and_wait;
using apitest::wait_stopped;
using vcollect::RawMode;
using vcollect::RawServer;
using Velto::Config;
using vtest::has;
namespace Util = Velto::Util;

// ---------------------------------------------------------------------------------------------
// Debug report

const std::string kHeaderRow =
    "<tr><th style=\"width:150\">time</th><th>type</th><th>extend info</th><th>common info</th></tr>\n";
const std::string kReportHead =
    "<html><head><title>debug_msg_to_svr</title>\n<style type=\"text/css\">\n#customers{font-family:"
    "\"Trebuchet MS\", Arial, Helvetica, sans-serif;width:100%;border-collapse:collapse;}"
    "#customers td, #customers th {font-size:1em;border:1px solid #98bf21;padding:3px 7px 2px 7px;}"
    "#customers th {font-size:1.1em;text-align:center;padding-top:5px;padding-bottom:4px;"
    "background-color:#A7C942;color:#ffffff;}#customers tr.alt td {color:#000000;background-color:#EAF2D3;}\n"
    "</style>\n</head><body><h1 style=\"text-align:center\">\xCA\xFD\xBE\xDD\xB2\xC9\xBC\xAF"
    "SDK \xB5\xF7\xCA\xD4\xCF\xFB\xCF\xA2</h1><table id=\"customers\">\n" +
    kHeaderRow + "\n<!--you can delete table rows in this area begin-->\n";
const std::string kReportTail = "<!--you can delete table rows in this area end-->\n</table></body></html>\n";

const char kFullAnswer[] =
    R"({"dtype":"event","tid":"T1","pid":"7","pver":"2.0","oszone":"8","procname":"app","procid":"42",)"
    R"("plang":"en","uip":"1.2.3.4","ostype":"linux","osver":"6","osbit":"64","oslang":"de",)"
    R"("tinstall":"100","psource":"web","uid":"u9","act":"click","cat":"menu"})";
const char kFullCommon[] =
    "tid:T1, pid:7, pver:2.0, oszone:8, procname:app, procid:42, plang:en,<br/>uip:1.2.3.4, ostype:linux, "
    "osver:6, osbit:64, oslang:de, tinstall:100, psource:web, uid:u9";
const std::string kEmptyCommon =  // uid comes last
    "tid:, pid:, pver:, oszone:, procname:, procid:, plang:,<br/>uip:, ostype:, osver:, osbit:, oslang:, "
    "tinstall:, psource:, uid:";

std::string row(bool alt, const std::string& type, const std::string& ext, const std::string& common) {
    return std::string(alt ? "<tr class=\"alt\"><td>" : "<tr><td>") + "TIME</td><td>" + type + "</td><td>" +
           ext + "</td><td>" + common + "</td></tr>\n";
}

class DebugReport : public ::testing::Test {
  protected:
    std::string report_path() const { return dir_.file("debug_msg_to_svr.html"); }
    // The report after saving answer, the time cells (which follow the clock) replaced by "TIME".
    std::string save(std::string answer) {
        static const std::regex time_cell("<td>\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}</td>");
        Velto::DebugReport(dir_.path() + "/").save(answer);
        return std::regex_replace(vtest::read_file(report_path()), time_cell, "<td>TIME</td>");
    }

    vtest::TempDir dir_;
};

TEST_F(DebugReport, RowsKeptFromTheFileAndTheNewRow) {
    const std::string a = "<tr><td>t</td><td>a</td><td></td><td>c</td></tr>\n";
    const std::string b = "<tr class=\"alt\"><td>t</td><td>b</td><td></td><td>c</td></tr>\n";
    const std::string event = "{\"dtype\":\"event\"}";
    struct Case {
        const char* what;
        std::string file, answer, rows;  // rows: the expected ones, the new one last
    } cases[] = {
        {"rows damaged or deleted by hand",
         kHeaderRow + a + "<tr><td>damaged</td></tr> tail\n" + "<tr><td>x</td></tr>\n" +  // 20 characters
             "<td>t</td><td>no row start</td></tr>\n" + b,
         "{\"dtype\":\"count\"}", a + b + row(false, "count", "", kEmptyCommon)},
        {"second header row", kHeaderRow + a + kHeaderRow + b, event,
         a + row(true, "event", "", kEmptyCommon)},
        {"rows outside the table", a + kHeaderRow + a + "</table>\n" + b, event,
         a + row(true, "event", "", kEmptyCommon)},
        {"no dtype, escaped quotes", "", "{\"lab\":\"a\\\"b\",\"uid\":\"\\\"u\"}",
         row(false, "", "lab:a_b", kEmptyCommon + "_u")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(report_path().c_str());
        if (!c.file.empty()) vtest::write_file(report_path(), c.file);
        EXPECT_EQ(kReportHead + c.rows + kReportTail, save(c.answer));
    }
}

TEST_F(DebugReport, StartsFreshAndReadsBackItsOwnRows) {
    save(kFullAnswer);
    save("{\"dtype\":\"screen\"}");
    EXPECT_EQ(kReportHead + row(false, "event", "act:click, cat:menu", kFullCommon) +
                  row(true, "screen", "", kEmptyCommon) + row(false, "", "x:1", kEmptyCommon) + kReportTail,
              save("{\"x\":\"1\"}"));
}

// ---------------------------------------------------------------------------------------------
// End to end through the exported API, against a loopback collector.

const char kOk[] = "{\"status\":0}";
const char kRefused[] = "{\"status\":1}";
const int kWaitMs = 30000;

// Inside a scenario: a fresh configuration that sends to server, then data_init and base information.
void start(const RawServer& server, const std::string& root, const Velto::StrMap& changes = {}) {
    ASSERT_TRUE(server.ok());
    vtest::write_conf(root, server.url(), changes);
    ASSERT_EQ(0, data_init(root.c_str(), "brand"));
    ASSERT_EQ(0, apitest::give_base_info());
}

// The records of a message file (or a set-aside one): "<10-digit time>,<fencode>" per line.
std::vector<std::string> file_records(const std::string& path) {
    static const std::regex line_form("\\d{10},[A-Za-z0-9+/=]{16,}");
    std::vector<std::string> out;
    for (const std::string& line : vtest::lines_of(vtest::read_file(path))) {
        EXPECT_TRUE(std::regex_match(line, line_form)) << line;
        out.push_back(Util::fdecode(line.substr(11)));
    }
    return out;
}

size_t file_lines(const std::string& path) {
    return vtest::lines_of(vtest::read_file(path)).size();
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

bool wait_set_aside(const std::string& root, size_t n) {
    return vtest::wait_until([&] { return set_aside_files(root).size() == n; }, kWaitMs);
}

size_t requests_to(const RawServer& server, const std::string& path) {
    size_t n = 0;
    for (const vcollect::RawRequest& r : server.requests()) n += r.path() == path;
    return n;
}

bool wait_requests_to(const RawServer& server, const std::string& path, size_t n) {
    return vtest::wait_until([&] { return requests_to(server, path) >= n; }, kWaitMs);
}

// The record of each "/v1/data" request, in arrival order.
std::vector<std::string> data_records(const RawServer& server) {
    std::vector<std::string> out;
    for (const vcollect::RawRequest& r : server.requests()) {
        if (r.path() != "/v1/data") continue;
        out.emplace_back();
        EXPECT_TRUE(vcollect::decode_form_payload(vcollect::form_value(vcollect::parse_form(r.body), "data"),
                                                  out.back()));
    }
    return out;
}

// The records of each "/v1/file" upload: one list per request.
std::vector<std::vector<std::string>> batches(const RawServer& server) {
    std::vector<std::vector<std::string>> out;
    for (const auto& upload : vtest::file_uploads(server)) out.push_back(vtest::lines_of(upload.second));
    return out;
}

std::string event_member(int i) {
    return "\"category\":\"c" + std::to_string(i) + "\"";
}

int event(int i) {
    return data_event(("c" + std::to_string(i)).c_str(), "act", nullptr, 0);
}

// Waits for the n-th upload and checks that it holds exactly the records with these members, in order.
void expect_batch(const RawServer& server, size_t n, const std::vector<std::string>& members) {
    ASSERT_TRUE(wait_requests_to(server, "/v1/file", n));
    const std::vector<std::string> batch = batches(server)[n - 1];
    ASSERT_EQ(members.size(), batch.size());
    for (size_t i = 0; i < batch.size(); ++i) EXPECT_TRUE(has(batch[i], members[i])) << i << ": " << batch[i];
}

TEST(Delivery, CountThresholdUploadsDeduplicatedRecordsOnce) {
    RUN_SCENARIO({
        // Left over from an earlier run: counted as pending at start (the last upload is dated with their
        // second, however long the start takes), and one is a duplicate.
        const std::string old = "{\"dtype\":\"event\",\"category\":\"old\"}";
        const long long written = Velto::os_time();
        vtest::write_file(root + "/sdk.msg", vtest::msg_line(written, old) + vtest::msg_line(written, old));
        RawServer server;
        start(server, root, {{"SEND_NUM", "4"}, {"LAST_SEND", Util::ltoa(written)}});
        ASSERT_EQ(0, event(1));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 3));
        std::vector<std::string> recs = file_records(root + "/sdk.msg");
        ASSERT_EQ(3u, recs.size());
        EXPECT_TRUE(has(recs[2], event_member(1))) << recs[2];
        EXPECT_EQ(0u, requests_to(server, "/v1/file"));

        ASSERT_EQ(0, event(2));
        expect_batch(server, 1, {old, event_member(1), event_member(2)});
        // The initial event went out on its own and never reached the file.
        ASSERT_EQ(1u, data_records(server).size());
        EXPECT_TRUE(has(data_records(server)[0], "\"dtype\":\"init\""));

        EXPECT_TRUE(wait_set_aside(root, 0));
        stop_and_wait();
        EXPECT_EQ(1u, requests_to(server, "/v1/file"));
        EXPECT_EQ(0u, file_lines(root + "/sdk.msg"));
    });
}

TEST(Delivery, SizeThresholdUploadsTheBigRecord) {
    RUN_SCENARIO({
        RawServer server;
        start(server, root, {{"SEND_SIZE", "1"}});  // more than 1024 pending bytes
        const std::string props(1000, 'p');
        ASSERT_EQ(0, data_experience("big", "act", props.c_str()));
        expect_batch(server, 1, {props});
        stop_and_wait();
    });
}

TEST(Delivery, GapThresholdSendsOnlyWhatIsPending) {
    RUN_SCENARIO({
        RawServer server;
        start(server, root, {{"SEND_GAP", "1"}});
        ASSERT_EQ(0, event(1));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
        Velto::os_time_shift(61);
        expect_batch(server, 1, {event_member(1)});

        // The gap passes again with nothing written since: the loop keeps idling without a batch.
        Velto::os_time_shift(61);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // some hundred idle turns
        EXPECT_EQ(1u, vtest::count_of(vtest::read_file(root + "/sdk.log"), "to send, err: "));
        ASSERT_EQ(0, event(2));
        expect_batch(server, 2, {event_member(2)});  // the first record is not sent again
        stop_and_wait();
    });
}

TEST(Delivery, RealTimeSendsEachRecordAndFallsBackToTheFile) {
    RUN_SCENARIO({
        RawServer server;
        start(server, root, {{"COLLECT_WAY", "REAL"}});
        ASSERT_EQ(0, event(1));
        ASSERT_TRUE(wait_requests_to(server, "/v1/data", 2));  // the initial event, then this one
        EXPECT_TRUE(has(data_records(server)[1], event_member(1)));

        server.set_reply(kRefused);
        ASSERT_EQ(0, event(2));
        ASSERT_EQ(0, event(3));
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 2));
        // One refused attempt; the next record went straight to the file.
        EXPECT_EQ(3u, requests_to(server, "/v1/data"));
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
        EXPECT_EQ(0u, requests_to(server, "/v1/file"));
    });
}

TEST(Delivery, InitialEventIsTriedThreeTimes) {
    RUN_SCENARIO({
        RawServer server(RawMode::kReply, kRefused);
        start(server, root);
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
    for (const std::string end_switch : {"OFF", "ON"}) {
        SCOPED_TRACE(end_switch);
        RUN_SCENARIO({
            const int n = 900;  // below the queue bound; the drain passes deliberate skips
            RawServer server;
            start(server, root, {{"SEND_ENDPOINTS", end_switch}});
            std::vector<std::string> members;
            for (int i = 0; i < n; ++i) {
                ASSERT_EQ(0, event(i));
                members.push_back(event_member(i));
            }
            data_stop();  // returns at once; the loop drains the queue on its own
            EXPECT_EQ(VELTO_STOPPED, event(n));
            wait_stopped();
            if (end_switch == "ON") {
                expect_batch(server, 1, members);
                EXPECT_EQ(1u, requests_to(server, "/v1/file"));
                EXPECT_TRUE(set_aside_files(root).empty());
                return;
            }
            EXPECT_EQ(0u, requests_to(server, "/v1/file"));
            const std::vector<std::string> written = file_records(root + "/sdk.msg");
            ASSERT_EQ(members.size(), written.size());
            for (int i = 0; i < n; ++i) EXPECT_TRUE(has(written[i], members[i])) << i;
        });
    }
}

// Under a file-size limit the appends fail: the host lives on (no SIGXFSZ), the failure is logged
// once, and the records wait in memory until writes succeed again; none is lost.
// Inside a scenario: writes fail between squeeze() and ease(); 400 records go in meanwhile (about
// twice what fits) and 10 after. The host lives, the failure is logged once with its errno (err;
// 0 when the log is on the full disk too, and its lines are lost), and all 410 end up in the file
// in order.
void expect_records_kept_until_writes_succeed(const std::string& root, const std::function<void()>& squeeze,
                                              const std::function<void()>& ease, int err) {
    RawServer server;
    start(server, root);
    squeeze();
    const int n = 400;
    for (int i = 0; i < n; ++i) ASSERT_EQ(0, event(i));
    const std::string failed = "save msg to file failed, errno: " + std::to_string(err);
    ASSERT_TRUE(vtest::wait_until(
        [&] {
            return err != 0 ? has(vtest::read_file(root + "/sdk.log"), failed)
                            : Velto::Cache::obj_->count() == 0;
        },
        kWaitMs));
    EXPECT_LT(file_lines(root + "/sdk.msg"), static_cast<size_t>(n)) << "no write failed";
    ease();
    for (int i = n; i < n + 10; ++i) ASSERT_EQ(0, event(i));
    ASSERT_TRUE(wait_lines(root + "/sdk.msg", n + 10));
    stop_and_wait();
    const std::vector<std::string> written = file_records(root + "/sdk.msg");
    ASSERT_EQ(static_cast<size_t>(n + 10), written.size());
    for (int i = 0; i < n + 10; ++i) EXPECT_TRUE(has(written[i], event_member(i))) << i;
    if (err != 0) {
        EXPECT_EQ(1u, vtest::count_of(vtest::read_file(root + "/sdk.log"), "save msg to file failed"));
    }
}

TEST(Delivery, FileSizeLimitKeepsRecordsUntilWritesSucceed) {
    RUN_SCENARIO({
        rlimit before;
        ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
        rlimit small = before;
        small.rlim_cur = 128 * 1024;
        expect_records_kept_until_writes_succeed(
            root, [&] { ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small)); },
            [&] { ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before)); }, EFBIG);
    });
}

// Mounts a tmpfs of size bytes at dir in a mount namespace of the calling process's own, so that
// it goes with the process; false without the privilege.
bool mount_private_tmpfs(const std::string& dir, long long size) {
    const std::string options = "size=" + std::to_string(size);
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// A full disk: the root is a small tmpfs, filled up but for a few KiB, then freed again.
TEST(Delivery, FullDiskKeepsRecordsUntilSpaceReturns) {
    vtest::TempDir probe;
    if (!vtest::run_scenario(
            [&](const std::string&) { ASSERT_TRUE(mount_private_tmpfs(probe.path(), 1 << 20)); }))
        GTEST_SKIP() << "no privilege to mount a tmpfs in a mount namespace of the test's own";
    RUN_SCENARIO({
        ASSERT_TRUE(mount_private_tmpfs(root, 2 << 20));
        const std::string filler = root + "/filler";
        expect_records_kept_until_writes_succeed(
            root,
            [&] {
                std::string block(4096, 'x');
                const int fd = open(filler.c_str(), O_WRONLY | O_CREAT, 0600);
                while (fd >= 0 && write(fd, block.data(), block.size()) > 0) {
                }
                close(fd);
            },
            [&] { ASSERT_EQ(0, unlink(filler.c_str())); }, 0);
    });
}

// Bytes this process has handed to write(2) so far.
long long bytes_written() {
    const std::string io = vtest::read_file("/proc/self/io");
    const size_t at = io.find("wchar: ");
    return at == std::string::npos ? -1 : std::atoll(io.c_str() + at + 7);
}

// Records flat out with nothing uploaded: sdk.msg stays within MAX_FILE_SIZE (checked every 333
// records), the oldest records go and the newest stay, and the process writes at most three times
// the records' own bytes, log included.
TEST(Delivery, BurstStaysWithinTheCapAndWritesLittle) {
    RUN_SCENARIO({
        RawServer server;
        start(server, root, {{"MAX_FILE_SIZE", "64"}});
        const long long before = bytes_written();
        const int n = 5000;
        for (int i = 0; i < n; ++i) {
            int r;
            while ((r = event(i)) == VELTO_QUEUE_FULL)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ASSERT_EQ(0, r);
        }
        stop_and_wait();  // every record filed, the thread ended
        const long long written = bytes_written() - before;
        const std::vector<std::string> kept = file_records(root + "/sdk.msg");
        const long long line_bytes =
            vtest::file_size(root + "/sdk.msg") / static_cast<long long>(kept.size());
        EXPECT_LE(vtest::file_size(root + "/sdk.msg"), 64 * 1024 + 333 * line_bytes);
        EXPECT_TRUE(has(kept.back(), event_member(n - 1)));
        EXPECT_FALSE(has(kept.front(), event_member(0)));
        EXPECT_TRUE(has(vtest::read_file(root + "/sdk.log"), "to del msg: "));
        const long long record_bytes = static_cast<long long>(kept.back().size()) * n;
        EXPECT_LE(written, 3 * record_bytes) << written << " bytes written for " << record_bytes;
        std::printf("burst of %d records: %lld bytes written for %lld bytes of records (%.2f times)\n", n,
                    written, record_bytes, static_cast<double>(written) / static_cast<double>(record_bytes));
    });
}

// Links planted at the library's file names are never followed: their targets stay as they were,
// and the library's own files are made in their place, owner-only whatever the umask.
TEST(Delivery, PlantedLinksAreNotFollowed) {
    RUN_SCENARIO({
        vtest::TempDir outside;
        const std::vector<std::string> names = {"tmp",        "sdk.msg",     "sdk.log",    "sdk.lock",
                                                "sdk.cf.tmp", "sdk.msg.bak", "sdk.log.bak"};
        for (const std::string& name : names) {
            vtest::write_file(outside.file(name), "target of " + name);
            ASSERT_EQ(0, symlink(outside.file(name).c_str(), (root + "/" + name).c_str()));
        }
        umask(0);
        RawServer server;
        start(server, root, {{"SEND_NUM", "2"}});
        for (int i = 0; i < 4; ++i) ASSERT_EQ(0, event(i));
        ASSERT_TRUE(wait_requests_to(server, "/v1/file", 1));  // a batch set aside by a rename
        stop_and_wait();
        for (const std::string& name : names)
            EXPECT_EQ("target of " + name, vtest::read_file(outside.file(name)));
        for (const char* own : {"tmp", "sdk.msg", "sdk.log", "sdk.lock"}) {
            struct stat st;
            ASSERT_EQ(0, lstat((root + "/" + own).c_str(), &st)) << own;
            EXPECT_TRUE(S_ISREG(st.st_mode)) << own;
            EXPECT_EQ(0600u, st.st_mode & 0777u) << own;
        }
    });
}

TEST(Delivery, OutageKeepsBatchesAsideAndTheNextRunUploadsThem) {
    vtest::TempDir shared;
    const std::string root = shared.path();
    ASSERT_TRUE(vtest::run_scenario([&](const std::string&) {
        RawServer server(RawMode::kReply, kRefused);
        start(server, root, {{"SEND_NUM", "2"}, {"SEND_ENDPOINTS", "ON"}});
        ASSERT_EQ(0, event(1));
        // The refused initial event (three attempts) and this one wait in the file; the failure
        // holds back batches for 300 seconds.
        ASSERT_TRUE(wait_lines(root + "/sdk.msg", 2));
        for (size_t aside = 1; aside <= 2; ++aside) {
            Velto::os_time_shift(301);
            ASSERT_TRUE(wait_set_aside(root, aside));
            ASSERT_EQ(0, event(static_cast<int>(aside) + 1));
            ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
        }
        stop_and_wait();  // the end-of-run batch fails too
        EXPECT_EQ(3u, set_aside_files(root).size());
        EXPECT_EQ(3u, requests_to(server, "/v1/file"));
    }));
    std::vector<std::string> kept;  // every record the first run left on disk
    for (const std::string& path : set_aside_files(root))
        for (const std::string& rec : file_records(path)) kept.push_back(rec);
    ASSERT_EQ(4u, kept.size());
    EXPECT_EQ(0u, file_lines(root + "/sdk.msg"));

    ASSERT_TRUE(vtest::run_scenario([&](const std::string&) {
        RawServer server;
        start(server, root, {{"SEND_BEGINPOINTS", "ON"}});
        ASSERT_TRUE(wait_set_aside(root, 0));
        std::vector<std::string> uploaded;
        for (const auto& batch : batches(server)) uploaded.insert(uploaded.end(), batch.begin(), batch.end());
        EXPECT_EQ(3u, requests_to(server, "/v1/file"));
        std::sort(kept.begin(), kept.end());
        std::sort(uploaded.begin(), uploaded.end());
        EXPECT_EQ(kept, uploaded);
        stop_and_wait();
    }));
}

TEST(Delivery, DebugMirrorOnlyWithSwitchFile) {
    for (bool with_switch : {true, false}) {
        SCOPED_TRACE(with_switch ? "switch file" : "no switch file");
        RUN_SCENARIO({
            RawServer server;
            RawServer debug(RawMode::kReply, "{\"status\":0,\"data\":{\"dtype\":\"event\",\"x\":\"1\"}}");
            ASSERT_TRUE(debug.ok());
            if (with_switch)
                vtest::write_file(root + "/DEBUG_MODE_SVR_ADDR", debug.url() + "\nsecond line\n");
            start(server, root);
            ASSERT_EQ(0, event(1));
            ASSERT_TRUE(wait_lines(root + "/sdk.msg", 1));
            // A record that reaches the file while a slow transfer waits is mirrored afterwards.
            if (with_switch) {
                ASSERT_TRUE(vtest::wait_until([&] { return data_records(debug).size() >= 2; }, kWaitMs));
            }
            stop_and_wait();
            EXPECT_EQ(1u, server.requests().size());  // the initial event's own request
            const std::string report = vtest::read_file(root + "/debug_msg_to_svr.html");
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
            EXPECT_EQ(2u, vtest::count_of(report, "</td><td>event</td><td>x:1</td><td>tid:, "));
        });
    }
}

}  // namespace

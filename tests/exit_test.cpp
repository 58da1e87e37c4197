// Exit safety: a host may leave main or call exit() at any moment (right after data_init, while
// records flow, right after data_stop, without data_stop) while the background thread is inside a
// transfer, and the process must still end with its own status. Each run starts tests/hosts/exit_host
// as a separate process against a loopback collector that holds every transfer open, over HTTPS
// (libcurl and OpenSSL: the configuration fetch) and over the raw-socket client (a batch upload).
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "child_process.h"
#include "delivery.h"
#include "tls_server.h"

// In this process only the loopback HTTPS collector runs (the library runs in the host processes,
// under their own sanitizer runtime). Its many overlapping held connections make ThreadSanitizer
// report what the uninstrumented cpp-httplib and OpenSSL do inside the collector (their buffers and
// descriptors); those reports are not about the code under test, so calls from them are not watched.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\ncalled_from_lib:libssl.so\ncalled_from_lib:libcrypto.so\n";
}

namespace {

const int kHostStatus = 3;     // exit_host's own status
const int kBoundSeconds = 20;  // per run (a run takes about a second); a hung exit is killed
const size_t kMaxHung = 3;     // then the sweep stops, so that a hanging library fails in bounded time
const int kHoldMs = 5000;      // the collector answers no transfer before the host has gone
const char* const kModes[] = {"return", "exit", "stop-return", "stop-exit"};
// Denser where the thread is still setting up its connection (the TLS handshake), where exits are
// most at risk.
const int kDelaysUs[] = {0,    200,  500,   1000,  1500,  2000,   3000,  4000,
                         6000, 8000, 12000, 20000, 50000, 120000, 300000};

std::string host_path() {
    return vtest::binary_dir() + "/tests/hosts/exit_host";
}

// Runs exit_host once on root and describes how it ended when that was not status 3 ("" when it
// was). hung is set when it had to be killed.
std::string run_host_on(const std::string& root, const std::string& mode, int delay_us, int events,
                        const std::string& collect_host, bool& hung) {
    vtest::TempDir home;
    vtest::ChildProcess host({host_path(), root, mode, std::to_string(delay_us), std::to_string(events)},
                             home.file("out"), home.file("out"),
                             {{"HOME", home.path()}, {"VELTO_COLLECT_HOST", collect_host}});
    const int status = host.wait(kBoundSeconds * 1000);
    hung = !host.ended();
    if (status == kHostStatus) return "";
    return mode + " after " + std::to_string(delay_us) + " us: " +
           (hung         ? "still running after " + std::to_string(kBoundSeconds) + " s, killed"
            : status < 0 ? "ended by a signal"
                         : "status " + std::to_string(status)) +
           "\n" + vtest::read_file(home.file("out"));
}

// Every mode after every delay, each on a fresh root made by prepare; fails with the number and the
// list of runs that did not end with 3.
void expect_clean_exits(const std::string& collect_host,
                        const std::function<void(const std::string&)>& prepare) {
    ASSERT_TRUE(vtest::file_exists(host_path())) << host_path();
    std::vector<std::string> bad;
    size_t runs = 0, hung = 0;
    for (int delay_us : kDelaysUs) {
        for (const char* mode : kModes) {
            if (hung >= kMaxHung) break;
            bool killed = false;
            vtest::TempDir root;
            prepare(root.path());
            std::string outcome = run_host_on(root.path(), mode, delay_us, 5, collect_host, killed);
            ++runs;
            hung += killed ? 1 : 0;
            if (!outcome.empty()) bad.push_back(outcome);
        }
    }
    std::string list;
    for (const std::string& b : bad) list += "\n  " + b;
    EXPECT_TRUE(bad.empty()) << bad.size() << " of " << runs << " exits went wrong"
                             << (hung >= kMaxHung ? " (sweep stopped at the hung ones)" : "") << ":" << list;
}

TEST(ExitSafety, DuringHttpsConfigurationFetch) {
    vcollect::TlsServer server;
    ASSERT_TRUE(server.ok());
    server.set_delay_ms(kHoldMs);
    expect_clean_exits(server.host_port(), [](const std::string&) {});
    EXPECT_FALSE(server.requests().empty()) << "no fetch reached the collector";
    server.stop();
}

// A fresh configuration (no fetch) that uploads set-aside batches at start over plain HTTP, and one
// such batch waiting: the upload is on the wire while the host leaves.
TEST(ExitSafety, DuringRawSocketUpload) {
    vcollect::RawServer server(vcollect::RawMode::kSilent);
    ASSERT_TRUE(server.ok());
    const std::string url = server.url();
    expect_clean_exits("", [&url](const std::string& root) {
        vtest::write_conf(root, url, {{"SEND_BEGINPOINTS", "ON"}});
        const long long now = Velto::os_time();
        vtest::write_file(root + "/MSG_PRE_{0123456789abcdef0123456789abcdef}" + Velto::Util::ltoa(now),
                          vtest::msg_line(now, R"({"category":"c","dtype":"event"})"));
    });
    EXPECT_FALSE(server.requests().empty()) << "no upload reached the collector";
}

// ---- a host that returns from main right after data_stop ----

const int kShortEvents = 110;
// Every run is a process of its own; under a sanitizer each takes ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int kShortRuns = 20;
#else
const int kShortRuns = 200;
#endif

// The records in the message file and in the set-aside batches of root. torn_ok: the process may
// have ended in the middle of an append, which leaves that line torn.
std::vector<std::string> records_on_disk(const std::string& root, bool torn_ok = false) {
    std::vector<std::string> out;
    Velto::StrList names;
    Velto::get_files(root + "/", names);
    for (const std::string& name : names) {
        if (name != "sdk.msg" && name.compare(0, 8, "MSG_PRE_") != 0) continue;
        for (const std::string& line : vtest::lines_of(vtest::read_file(root + "/" + name))) {
            try {
                if (line.size() > 11) out.push_back(Velto::Util::fdecode(line.substr(11)));
            } catch (...) {
                if (!torn_ok) ADD_FAILURE() << "a damaged line in " << name;
            }
        }
    }
    return out;
}

// The records the server took: one per "/v1/data" request, every line of each "/v1/file" upload.
std::vector<std::string> records_delivered(const vcollect::RawServer& server) {
    std::vector<std::string> out;
    for (const vcollect::RawRequest& r : server.requests()) {
        if (r.path() != "/v1/data") continue;
        std::string rec;
        if (vcollect::decode_form_payload(vcollect::form_value(vcollect::parse_form(r.body), "data"), rec))
            out.push_back(rec);
    }
    for (const auto& upload : vtest::file_uploads(server))
        for (const std::string& rec : vtest::lines_of(upload.second)) out.push_back(rec);
    return out;
}

// What exit_host recorded (its "init" record and events 1..n) and records do not hold; "" when none.
std::string missing_records(const std::vector<std::string>& records, int n) {
    std::vector<bool> seen(static_cast<size_t>(n) + 1, false);
    for (const std::string& rec : records) {
        if (vtest::has(rec, "\"dtype\":\"init\"")) seen[0] = true;
        const size_t at = rec.find("\"dvalue\":\"");
        if (at == std::string::npos || !vtest::has(rec, "\"act\":\"before\"")) continue;
        const long value = std::strtol(rec.c_str() + at + 10, nullptr, 10);
        if (value >= 1 && value <= n) seen[static_cast<size_t>(value)] = true;
    }
    std::string missing;
    for (int i = 0; i <= n; ++i)
        if (!seen[static_cast<size_t>(i)]) missing += i == 0 ? " init" : " " + std::to_string(i);
    return missing;
}

enum class Collector { kAnswers, kHoldsConfiguration, kNone };

class ShortLivedHost : public ::testing::TestWithParam<Collector> {};

// kShortRuns runs of a host that records and returns right after data_stop: every record is in its
// files or was taken by the collector, whether the collector answers, holds the configuration
// request, or is not there.
TEST_P(ShortLivedHost, LosesNothing) {
    const Collector kind = GetParam();
    ASSERT_TRUE(vtest::file_exists(host_path())) << host_path();
    std::vector<std::string> bad;
    for (int run = 0; run < kShortRuns && bad.size() < 5; ++run) {
        vtest::TempDir root;
        vcollect::RawServer server(kind == Collector::kAnswers ? vcollect::RawMode::kReply
                                                               : vcollect::RawMode::kSilent);
        ASSERT_TRUE(server.ok());
        std::string collect_host = "127.0.0.1:1";  // nothing listens: the fetch is refused
        if (kind == Collector::kAnswers) vtest::write_conf(root.path(), server.url());
        if (kind == Collector::kHoldsConfiguration)
            collect_host = "127.0.0.1:" + std::to_string(server.port());
        bool hung = false;
        std::string outcome = run_host_on(root.path(), "stop-return", 0, kShortEvents, collect_host, hung);
        if (outcome.empty()) {
            std::vector<std::string> records = records_on_disk(root.path());
            for (const std::string& rec : records_delivered(server)) records.push_back(rec);
            const std::string missing = missing_records(records, kShortEvents);
            if (!missing.empty()) outcome = "missing:" + missing;
        }
        if (!outcome.empty()) bad.push_back("run " + std::to_string(run) + ": " + outcome);
    }
    std::string list;
    for (const std::string& b : bad) list += "\n  " + b;
    EXPECT_TRUE(bad.empty()) << list;
}

INSTANTIATE_TEST_SUITE_P(Collector, ShortLivedHost,
                         ::testing::Values(Collector::kAnswers, Collector::kHoldsConfiguration,
                                           Collector::kNone),
                         [](const ::testing::TestParamInfo<Collector>& info) {
                             return std::string(info.param == Collector::kAnswers ? "Answers"
                                                : info.param == Collector::kNone
                                                    ? "None"
                                                    : "HoldsTheConfigurationRequest");
                         });

// A host that calls exit() right after its last record call, without data_stop, loses what the loop
// had not taken yet: reported, not asserted (it depends on the scheduler).
TEST(ShortLivedHost, ExitWithoutStopReport) {
    const int runs = 50;
    int whole = 0;
    size_t kept = 0;
    for (int run = 0; run < runs; ++run) {
        vtest::TempDir root;
        vcollect::RawServer server;
        vtest::write_conf(root.path(), server.url());
        bool hung = false;
        ASSERT_EQ("", run_host_on(root.path(), "exit", 0, kShortEvents, "", hung));
        const std::vector<std::string> records = records_on_disk(root.path(), true);
        kept += records.size();
        whole += missing_records(records, kShortEvents).empty() ? 1 : 0;
    }
    printf("exit() without data_stop: %zu of %d records on disk in %d runs; %d runs kept every one\n", kept,
           runs * (kShortEvents + 1), runs, whole);
}

}  // namespace

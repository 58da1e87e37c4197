// Crash and resource faults during the file rewrites (trimming the message file, setting a batch
// aside and uploading it, saving the configuration, uploading the log). Each rewrite runs once in a
// forked child that lists its steps, then once per step on a fresh copy of the same files, the child
// ending at that step as a kill would. The next start must then find every record the rewrite was
// meant to keep (in "sdk.msg", restored from the journal, in a set-aside file, or already delivered),
// every log line (in the log, its backup, or delivered), and "sdk.cf" complete, old or new.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "LogUpload.h"
#include "MsgFile.h"
#include "delivery.h"

namespace {

using Velto::Config;
using Velto::StrList;
using vtest::has;
namespace Util = Velto::Util;

const int kKilled = 77;
const char kOldSend[] = "1111111111";  // LAST_SEND in the saved configuration
const char kNewSend[] = "2222222222";  // LAST_SEND in the store that the child saves
const int kBakLines = 5, kLogLines = 40;

std::string rec(int i) {
    return "{\"dtype\":\"event\",\"n\":\"" + std::to_string(i) + "\",\"p\":\"" + std::string(80, 'p') + "\"}";
}

// ---- the files before every rewrite ----
// sdk.msg: records 0-2 five minutes old, 3-5 new; a set-aside batch of 10-12; a log due for upload
// and the backup of an earlier failed one; a complete saved configuration.
void prepare(const std::string& root, long long now, bool backup = true) {
    std::string msg;
    for (int i = 0; i < 6; ++i) msg += vtest::msg_line(i < 3 ? now - 300 : now, rec(i));
    vtest::write_file(root + "/sdk.msg", msg);
    std::string aside;
    for (int i = 10; i < 13; ++i) aside += vtest::msg_line(now, rec(i));
    vtest::write_file(root + "/MSG_PRE_{a}" + Util::ltoa(now), aside);
    std::string log, bak;
    for (int i = 0; i < kLogLines; ++i)
        log += "[INFO] <line " + std::to_string(i) + "> " + std::string(40, 'x') + "\n";
    for (int i = 0; i < kBakLines; ++i) bak += "[INFO] <bak " + std::to_string(i) + ">\n";
    vtest::write_file(root + "/sdk.log", log);
    if (backup) vtest::write_file(root + "/sdk.log.bak", bak);
    vtest::write_conf(root, "http://127.0.0.1:1", {{"LAST_SEND", kOldSend}});
}

// ---- the forked child ----

std::vector<std::string> g_steps;
size_t g_end_at = SIZE_MAX;  // index of the step to end at
vcollect::RawServer* g_server = nullptr;
std::string g_side;  // the child's reports: the steps seen, the uploads the server took

void report() {
    std::string steps, delivered;
    for (const std::string& s : g_steps) steps += s + "\n";
    if (g_server)
        for (const auto& upload : vtest::file_uploads(*g_server)) delivered += upload.second + "\n";
    vtest::write_file(g_side + "/steps", steps);
    vtest::write_file(g_side + "/delivered", delivered);
}

void hook(const char* step) {
    g_steps.push_back(step);
    if (g_steps.size() == g_end_at + 1) {
        report();
        _exit(kKilled);
    }
}

// The store, log and base information as the background thread has them, uploads aimed at server.
void set_up_child(const std::string& root, const std::string& side, vcollect::RawServer& server) {
    g_side = side;
    g_server = &server;
    Config::obj_->load_default();
    Config::obj_->set("ROOT_DIR", root + "/");
    Config::obj_->set("CONF_URL", server.url());
    Config::obj_->set("LAST_SEND", kNewSend);
    Config::obj_->set("MAX_LOG_SIZE", "2");
    for (int i = 0; i < 14; ++i) Velto::g_base_info.set("k" + std::to_string(i), "v");
    Velto::Log::obj_->init((root + "/sdk.log").c_str());
    LOGI << "child start" << LEND;  // the log's write position is its size from here on
}

// ---- what the next start finds ----

// The records in "sdk.msg" after opening it as the next start does, and in every set-aside file.
// A record appended afterwards must read back intact (no half line left in front of it).
std::string recovered_records(const std::string& root) {
    Config conf;
    conf.init_mutex();
    conf.set("ROOT_DIR", root + "/");
    Velto::Uploader uploader(&conf);
    Velto::MsgFile store(conf, uploader);
    EXPECT_EQ(0, store.open());
    long long newest = 0;
    StrList found, names, part;
    store.get_msg_list(0, 0, 0, found, newest, nullptr, nullptr);
    Velto::get_files(root + "/", names);
    for (const std::string& name : names) {
        if (name.rfind("MSG_PRE_", 0) != 0) continue;
        std::fstream f(root + "/" + name, std::ios::in | std::ios::out);
        store.get_msg_list(0, 0, 0, part, newest, nullptr, &f);
        found.insert(found.end(), part.begin(), part.end());
    }
    EXPECT_TRUE(store.append(Velto::os_time(), Util::fencode(rec(99))));
    store.get_msg_list(0, 0, 0, part, newest, nullptr, nullptr);
    EXPECT_TRUE(!part.empty() && part.back() == rec(99)) << "a record appended at the next start is lost";
    std::string text;
    for (const std::string& r : found) text += r + "\n";
    return text;
}

void expect_conf(const std::string& root) {
    Velto::StrMap items;
    try {
        Util::json2map(Util::fdecode(vtest::read_file(root + "/sdk.cf")), items);
    } catch (...) {
    }
    EXPECT_LE(20u, items.size()) << "sdk.cf is not a complete configuration";
    const std::string last = items["LAST_SEND"];
    EXPECT_TRUE(has(last, kOldSend) || has(last, kNewSend)) << last;
}

// Every record in keep and every log line is found after the fault.
void expect_recoverable(const std::string& root, const std::string& delivered, const std::vector<int>& keep,
                        bool backup = true) {
    const std::string records = recovered_records(root) + delivered;
    std::string lost;
    for (int i : keep)
        if (!has(records, rec(i))) lost += " record " + std::to_string(i);
    const std::string logs =
        vtest::read_file(root + "/sdk.log") + vtest::read_file(root + "/sdk.log.bak") + delivered;
    for (int i = 0; i < kLogLines; ++i)
        if (!has(logs, "<line " + std::to_string(i) + ">")) lost += " log-line " + std::to_string(i);
    for (int i = 0; i < kBakLines && backup; ++i)
        if (!has(logs, "<bak " + std::to_string(i) + ">")) lost += " backup-line " + std::to_string(i);
    EXPECT_EQ("", lost) << "missing after the fault";
    expect_conf(root);
}

const std::vector<int> kAll = {0, 1, 2, 3, 4, 5, 10, 11, 12};
const std::vector<int> kNewer = {3, 4, 5, 10, 11, 12};
// 2.5 records' worth of bytes: trimming by size keeps the newest three.
const long long kThreeRecords = static_cast<long long>(rec(0).size() * 5 / 2);

long long g_newest = 0;

// The child's message store, opened as the background thread opens it at start.
Velto::MsgFile& store() {
    static Velto::MsgFile s;
    s.open();
    return s;
}

// What a trim leaves when it ends right after emptying "sdk.msg": only the journal holds the records.
void journal_only(const std::string& root, long long now) {
    std::string journal;
    for (int i : {3, 4, 5}) journal += vtest::msg_line(now, rec(i));
    vtest::write_file(root + "/sdk.msg.bak", journal);
    vtest::write_file(root + "/sdk.msg", "");
}

struct Rewrite {
    const char* name;
    const char* file;  // the file it rewrites, as its step names give it
    void (*run)(long long now);
    std::vector<int> keep;
    bool accept = true;  // the server takes uploads
    bool backup = true;  // a log backup of an earlier failed upload is there
    void (*alter)(const std::string& root, long long now) = nullptr;  // changes to the prepared files
};

const Rewrite kRewrites[] = {
    {"TrimByAge", "sdk.msg", [](long long now) { store().roll_msg(now - 100, 0, 0, g_newest); }, kNewer},
    {"TrimBySize", "sdk.msg", [](long long) { store().roll_msg(0, 0, kThreeRecords, g_newest); }, kNewer},
    {"RestoreFromTheJournal", "sdk.msg", [](long long) { store(); }, kNewer, true, true, journal_only},
    {"SetAsideAndUpload", "sdk.msg", [](long long) { store().process_msgs(true); }, kAll},
    {"SetAsideUploadRefused", "sdk.msg", [](long long) { store().process_msgs(true); }, kAll, false},
    {"SaveConfiguration", "sdk.cf", [](long long) { Config::obj_->save_conf(true); }, kAll},
    {"LogUpload", "sdk.log", [](long long) { Velto::LogUpload().send_log(); }, kAll},
    {"LogUploadRefused", "sdk.log", [](long long) { Velto::LogUpload().send_log(); }, kAll, false, false},
};

// One run of a rewrite on fresh files: ends at step end_at (SIZE_MAX: runs through) and checks what
// the next start finds. Returns the steps the child saw.
std::vector<std::string> run_once(const Rewrite& rw, size_t end_at) {
    vtest::TempDir root, side;
    const long long now = Velto::os_time();
    prepare(root.path(), now, rw.backup);
    if (rw.alter) rw.alter(root.path(), now);
    const bool completed = vtest::run_scenario(
        [&](const std::string&) {
            vcollect::RawServer server(vcollect::RawMode::kReply,
                                       rw.accept ? "{\"status\":0}" : "{\"status\":1}");
            set_up_child(root.path(), side.path(), server);
            g_end_at = end_at;
            Velto::set_fault_hook(&hook);
            rw.run(now);
            report();
        },
        60);
    const std::vector<std::string> steps = vtest::lines_of(vtest::read_file(side.file("steps")));
    if (end_at == SIZE_MAX)
        EXPECT_TRUE(completed);
    else
        EXPECT_EQ(end_at + 1, steps.size()) << "step " << end_at << " not reached";
    expect_recoverable(root.path(), vtest::read_file(side.file("delivered")), rw.keep, rw.backup);
    return steps;
}

class FaultTest : public ::testing::Test {
  protected:
    void SetUp() override { Velto::Log::obj_->init(log_dir_.file("test.log").c_str()); }
    vtest::TempDir log_dir_;
};

class EveryStep : public FaultTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(EveryStep, EndingThereLosesNothing) {
    const Rewrite& rw = kRewrites[GetParam()];
    const std::vector<std::string> steps = run_once(rw, SIZE_MAX);
    // Steps of other rewrites it calls (the log upload saves the configuration) do not count.
    ASSERT_TRUE(
        std::any_of(steps.begin(), steps.end(), [&](const std::string& s) { return has(s, rw.file); }))
        << "no steps reported by the rewrite \"" << rw.name << "\" of " << rw.file;
    for (size_t k = 0; k < steps.size(); ++k) {
        SCOPED_TRACE("ended at step " + std::to_string(k) + ": " + steps[k]);
        run_once(rw, k);
    }
}

INSTANTIATE_TEST_SUITE_P(Rewrite, EveryStep,
                         ::testing::Range<size_t>(0, sizeof kRewrites / sizeof *kRewrites),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                             return std::string(kRewrites[info.param].name);
                         });

// ---- real resource faults ----

enum Ops { kAppend, kTrim, kEverything };

// In a child: opens the store, appends records, then trims by age; with kEverything it also uploads
// the log and saves the configuration first and sets the batch aside last, the server refusing uploads. limit
// >= 0: the file size limit (SIGXFSZ ignored).
void run_faulty(const std::string& root, long long limit, Ops ops, bool as_nobody = false) {
    vtest::TempDir side;
    const long long now = Velto::os_time();
    EXPECT_TRUE(vtest::run_scenario(
        [&](const std::string&) {
            vcollect::RawServer server(vcollect::RawMode::kReply, "{\"status\":1}");
            // Permissions do not stop the super-user's writes.
            if (as_nobody && geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(2);
            set_up_child(root, side.path(), server);
            if (limit >= 0) {
                signal(SIGXFSZ, SIG_IGN);
                const rlimit lim = {static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
                setrlimit(RLIMIT_FSIZE, &lim);
            }
            if (ops == kEverything) {  // first, while the log still knows its size
                Velto::LogUpload().send_log();
                Config::obj_->save_conf(true);
            }
            Velto::MsgFile store;
            store.open();
            for (int i = 20; i < 30; ++i) store.append(now, Util::fencode(rec(i)));
            if (ops != kAppend) store.roll_msg(now - 100, 0, 0, g_newest);
            if (ops == kEverything) store.process_msgs(true);
            _exit(0);
        },
        60))
        << "the library crashed";
}

TEST_F(FaultTest, FileSizeLimitLosesNoKeptRecord) {
    const struct {
        const char* what;
        int limit;  // -1: half the message file; -2: 40 bytes into the next line
        Ops ops;
    } cases[] = {
        {"below the file, append", -1, kAppend},
        {"below the file, append and trim", -1, kTrim},
        {"inside the next line, append", -2, kAppend},
        {"inside the next line, append and trim", -2, kTrim},
        {"nothing writable, every rewrite", 0, kEverything},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        vtest::TempDir root;
        // Without a log backup the log upload moves the live log aside.
        const bool backup = c.ops != kEverything;
        prepare(root.path(), Velto::os_time(), backup);
        const long long size = vtest::file_size(root.file("sdk.msg"));
        run_faulty(root.path(), c.limit == -1 ? size / 2 : c.limit == -2 ? size + 40 : c.limit, c.ops);
        expect_recoverable(root.path(), "", kNewer, backup);
    }
}

TEST_F(FaultTest, ReadOnlyRootLosesNothing) {
    vtest::TempDir root;
    prepare(root.path(), Velto::os_time(), false);
    StrList names;
    Velto::get_files(root.path() + "/", names);
    for (const std::string& name : names) chmod(root.file(name).c_str(), 0444);
    chmod(root.path().c_str(), 0555);
    run_faulty(root.path(), -1, kEverything, true);
    chmod(root.path().c_str(), 0755);
    for (const std::string& name : names) chmod(root.file(name).c_str(), 0644);
    expect_recoverable(root.path(), "", kNewer, false);
}

}  // namespace

// killrun: the kill -9 durability harness. Each run starts tests/hosts/flow_host against a fresh root
// directory and a loopback collector, kills it with SIGKILL at a random moment, notes every record
// left in the root's files, then runs the host again in recovery mode and checks that each of those
// records reached the collector. It also reports what a kill loses: records the host saw accepted
// that were neither in a file nor delivered at the kill, so still in memory (the "window").
//
//   killrun [--runs R] [--seed S] [--host PATH] [--keep DIR]
//
// --keep copies the root directory of every failed or noted run (as left after recovery) to DIR/<run>.
//
// Exit status 1 when any run lost a record from the files (or its host misbehaved), 0 otherwise.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "delivery.h"
#include "tls_server.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

volatile sig_atomic_t g_interrupted = 0;
const int kRecordsPerRun = 2000;
const int kRecoveryBoundMs = 60000;  // the host drains for at most 15 s; sanitizer builds start slowly

struct Params {
    int rate, kill_ms, delay_ms, send_num, file_kib, timeout_ms;
};

// The figures of one run (and of all runs), in report order.
//   lost-from-files  in a file at the kill and never delivered: must be 0
//   window           accepted, then neither in a file nor delivered at the kill: newer than every
//                    record that was, so still in memory (what a kill loses)
//   dropped          accepted, older than a record that reached a file, yet gone: removed from the files
//                    before the kill (the size cap's trims, which the log counts as trimmed(log))
//   unacked          in a file or delivered, but killed before its "A" line was printed
//   sdk.cf-destroyed the saved configuration did not survive the kill (the next start fetches it)
// clang-format off
enum Figure { kAccepted, kRefused, kOnDisk, kDelivered, kDup, kLost, kWindow, kDropped, kTrimmed, kUnacked,
              kConfLost, kFigures };
const char* const kFigureNames[kFigures] = {"accepted", "refused", "on-disk", "delivered", "dup",
    "lost-from-files", "window", "dropped", "trimmed(log)", "unacked", "sdk.cf-destroyed"};
// clang-format on

struct Outcome {
    long long n[kFigures] = {};
    std::vector<std::string> problems;  // each one fails the run
    std::vector<std::string> notes;     // printed, not failing
};

std::string figures(const long long* n) {
    std::string out;
    for (int i = 0; i < kFigures; ++i)
        out += std::string(i ? " " : "") + kFigureNames[i] + " " + std::to_string(n[i]);
    return out;
}

// ---------------------------------------------------------------------------------------------
// Child processes. Everything the child needs is prepared before fork, so it only makes system calls.

pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& env, const std::string& out,
            const std::string& err) {
    std::vector<char*> argv, envp;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    fflush(stdout);
    pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the harness
    int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
}

// Waits up to ms for pid to end (less when interrupted and interruptible); true (and its status) when it did.
bool wait_exit(pid_t pid, int ms, int& status, bool interruptible = true) {
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) return true;
        if ((interruptible && g_interrupted) || Clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void kill_and_reap(pid_t pid) {
    int status = 0;
    kill(pid, SIGKILL);
    if (!wait_exit(pid, 10000, status, false))
        fprintf(stderr, "killrun: pid %d outlived SIGKILL for 10 s\n", pid);
}

std::string describe(int status) {
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "exit " + std::to_string(WEXITSTATUS(status));
}

// ---------------------------------------------------------------------------------------------
// Labels in record texts, files and captured uploads.

// Calls f with every label value of the run ("<run>-<digits>") found in a record text.
template <typename F>
void for_labels(const std::string& text, const std::string& run, F f) {
    const std::string key = "\"label\":\"" + run + "-";
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        size_t begin = at + 9, end = text.find('"', begin);
        if (end != std::string::npos) f(text.substr(begin, end - begin));
    }
}

bool is_record_file(const std::string& name) {
    return name == "sdk.msg" || name == "sdk.msg.bak" || name.compare(0, 8, "MSG_PRE_") == 0;
}

// label -> the first file holding a valid line of it ("<10-digit time>,<payload of 16+ chars>").
std::map<std::string, std::string> labels_on_disk(const std::string& root, const std::string& run) {
    std::map<std::string, std::string> found;
    std::error_code ec;
    for (const fs::directory_entry& entry : fs::directory_iterator(root, ec)) {
        const std::string name = entry.path().filename().string();
        if (!is_record_file(name)) continue;
        std::ifstream in(entry.path());
        std::string line;
        while (std::getline(in, line)) {
            if (line.size() < 11 + 16 || line[10] != ',') continue;
            if (!std::all_of(line.begin(), line.begin() + 10,
                             [](unsigned char c) { return std::isdigit(c) != 0; }))
                continue;
            std::string record;
            try {
                record = Velto::Util::fdecode(line.substr(11));
            } catch (...) {
                continue;
            }
            for_labels(record, run, [&](const std::string& label) { found.emplace(label, name); });
        }
    }
    return found;
}

// The decoded records of one complete "/v1/file" or "/v1/data" request into text ("" for anything
// else); false for a complete upload that does not decode.
bool decoded_upload(const vcollect::RawRequest& req, std::string& text) {
    text.clear();
    if (req.body.size() != static_cast<size_t>(std::atoll(req.header("Content-Length").c_str()))) return true;
    if (req.path() == "/v1/file") {
        auto parts = vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
        const vcollect::FormPart* file = vcollect::find_part(parts, "file");
        vcollect::FilePayload decoded;
        if (!file || !vcollect::decode_file_payload(file->data, decoded)) return false;
        text = decoded.data;
    } else if (req.path() == "/v1/data") {
        return vcollect::decode_form_payload(vcollect::form_value(vcollect::parse_form(req.body), "data"),
                                             text);
    }
    return true;
}

// label -> how many uploads carried it; undecodable counts the complete uploads that did not decode.
std::map<std::string, int> labels_delivered(const vcollect::RawServer& server, const std::string& run,
                                            int& undecodable) {
    std::map<std::string, int> count;
    std::string text;
    for (const vcollect::RawRequest& req : server.requests()) {
        undecodable += !decoded_upload(req, text);
        for_labels(text, run, [&](const std::string& label) { ++count[label]; });
    }
    return count;
}

// The host's "A <label>" and "R <label> <code>" lines.
void read_acks(const std::string& path, std::set<std::string>& accepted, long long& refused) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 2, "A ") == 0) accepted.insert(line.substr(2));
        if (line.compare(0, 2, "R ") == 0) ++refused;
    }
}

// Records the library's size cap removed, as its log tells ("roll_msg cnt: -N"). The log writes a
// line piece by piece, so another thread's pieces may stand between the key and the number: the
// number is the first "-<digits>" after the key that does not follow a digit (as dates do).
long long trimmed_per_log(const std::string& log_path) {
    const std::string key = "roll_msg cnt: ";
    const std::string text = vtest::read_file(log_path);
    long long total = 0;
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        for (size_t i = at + key.size(); i + 1 < text.size() && i < at + 400; ++i) {
            if (text[i] == '-' && isdigit(static_cast<unsigned char>(text[i + 1])) &&
                !isdigit(static_cast<unsigned char>(text[i - 1]))) {
                total += std::atoll(text.c_str() + i + 1);
                break;
            }
        }
    }
    return total;
}

std::string tail(const std::string& path) {
    std::string text = vtest::read_file(path);
    return text.size() > 600 ? text.substr(text.size() - 600) : text;
}

// ---------------------------------------------------------------------------------------------
// One run.

// What the configuration endpoint hands out: the same settings as the saved file, so that a run that
// finds its saved configuration destroyed by the kill fetches it again and still uploads to url.
std::string conf_reply(const std::string& url, const Params& p) {
    return "{\"status\":0,\"conf\":{\"CONF_URL\":\"" + url +
           "\",\"ENABLE_HTTPS\":\"OFF\",\"COLLECT_ON\":\"ON\",\"COLLECT_WAY\":\"NOREAL\","
           "\"SEND_GAP\":\"10079\",\"SEND_NUM\":\"" +
           std::to_string(p.send_num) + "\",\"SEND_SIZE\":\"20479\",\"MAX_FILE_SIZE\":\"" +
           std::to_string(p.file_kib) +
           "\",\"SEND_BEGINPOINTS\":\"ON\",\"SEND_ENDPOINTS\":\"ON\",\"ZIP_DATA\":\"ON\","
           "\"CON_TIMEOUT\":\"" +
           std::to_string(p.timeout_ms) + "\",\"SESSION_TMOUT\":\"1800\"}}";
}

// True when the saved configuration no longer reads as one (the next start has to fetch it).
bool conf_destroyed(const std::string& path) {
    std::string token = vtest::read_file(path);
    while (!token.empty() && isspace(static_cast<unsigned char>(token.back()))) token.pop_back();
    try {
        return Velto::Util::fdecode(token).find("CONF_URL") == std::string::npos;
    } catch (...) {
        return true;
    }
}

// Sorts every label of the run into the figures.
void tally(Outcome& o, const std::set<std::string>& accepted, const std::map<std::string, std::string>& disk,
           const std::map<std::string, int>& delivered) {
    auto seq = [](const std::string& label) { return std::atol(label.c_str() + label.rfind('-') + 1); };
    long newest_kept = -1;  // the newest record that reached a file or the collector
    for (const auto& d : disk) newest_kept = std::max(newest_kept, seq(d.first));
    for (const auto& d : delivered) newest_kept = std::max(newest_kept, seq(d.first));
    o.n[kAccepted] = static_cast<long long>(accepted.size());
    o.n[kOnDisk] = static_cast<long long>(disk.size());
    o.n[kDelivered] = static_cast<long long>(delivered.size());
    for (const auto& d : delivered) {
        o.n[kDup] += d.second > 1;
        o.n[kUnacked] += !accepted.count(d.first);
    }
    for (const auto& d : disk) {
        if (delivered.count(d.first)) continue;
        o.n[kUnacked] += !accepted.count(d.first);
        if (++o.n[kLost] <= 10) o.problems.push_back("lost " + d.first + " (was in " + d.second + ")");
    }
    if (o.n[kLost] > 10) o.problems.push_back("... " + std::to_string(o.n[kLost] - 10) + " more lost");
    for (const std::string& label : accepted) {
        if (!disk.count(label) && !delivered.count(label))
            ++o.n[seq(label) > newest_kept ? kWindow : kDropped];
    }
    if (o.n[kDropped] > o.n[kTrimmed])
        o.notes.push_back(std::to_string(o.n[kDropped] - o.n[kTrimmed]) +
                          " records left the files undelivered before the kill beyond the logged trims");
}

Outcome run_once(const std::string& host, const std::string& run, const Params& p, const std::string& keep) {
    Outcome o;
    vtest::TempDir root, home, out;
    vcollect::RawServer server(p.delay_ms > 0 ? vcollect::RawMode::kDelayedReply : vcollect::RawMode::kReply);
    vcollect::TlsServer conf_server;
    if (!server.ok() || !conf_server.ok() || root.path().empty() || home.path().empty() ||
        out.path().empty()) {
        o.problems.push_back("set-up failed (server or temporary directories)");
        return o;
    }
    server.set_delay_ms(p.delay_ms);
    conf_server.set_reply("/v1/conf", conf_reply(server.url(), p));
    vtest::write_conf(root.path(), server.url(),
                      {{"SEND_NUM", std::to_string(p.send_num)},
                       {"MAX_FILE_SIZE", std::to_string(p.file_kib)},
                       {"SEND_BEGINPOINTS", "ON"},
                       {"SEND_ENDPOINTS", "ON"},
                       {"CON_TIMEOUT", std::to_string(p.timeout_ms)}});

    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (strncmp(*e, "HOME=", 5) != 0 && strncmp(*e, "VELTO_COLLECT_HOST=", 19) != 0) env.push_back(*e);
    }
    env.push_back("HOME=" + home.path());
    env.push_back("VELTO_COLLECT_HOST=" + conf_server.host_port());

    // The run to be killed.
    pid_t pid = spawn({host, root.path(), std::to_string(kRecordsPerRun), std::to_string(p.rate), run}, env,
                      out.file("acks"), out.file("err1"));
    if (pid < 0) {
        o.problems.push_back("fork failed");
        return o;
    }
    int status = 0;
    if (wait_exit(pid, p.kill_ms, status)) {
        o.problems.push_back("host ended before the kill (" + describe(status) +
                             "): " + tail(out.file("err1")));
    } else {
        kill_and_reap(pid);
    }
    if (g_interrupted) return o;

    const std::map<std::string, std::string> disk = labels_on_disk(root.path(), run);
    o.n[kTrimmed] = trimmed_per_log(root.file("sdk.log"));
    o.n[kConfLost] = conf_destroyed(root.file("sdk.cf"));

    // The recovery run, against a collector that answers at once.
    server.set_mode(vcollect::RawMode::kReply);
    server.set_delay_ms(0);
    pid = spawn({host, root.path(), "0", "0", run, "recover"}, env, out.file("out2"), out.file("err2"));
    if (pid < 0) {
        o.problems.push_back("fork failed");
        return o;
    }
    if (!wait_exit(pid, kRecoveryBoundMs, status)) {
        kill_and_reap(pid);
        o.problems.push_back("recovery run did not end in time");
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        o.problems.push_back("recovery run: " + describe(status) +
                             (WIFEXITED(status) && WEXITSTATUS(status) == 3 ? " (files not drained)" : "") +
                             " " + tail(out.file("err2")));
    }
    server.stop();
    conf_server.stop();
    for (const char* name : {"err1", "err2"}) {
        const std::string err = vtest::read_file(out.file(name));
        if (vtest::has(err, "Sanitizer") || vtest::has(err, "runtime error:"))
            o.problems.push_back(std::string("sanitizer report in the host's ") + name + ": " +
                                 tail(out.file(name)));
    }

    if (vtest::file_exists(root.file("sdk.msg.bak.bad")))
        o.notes.push_back("the library set a journal aside as unusable (sdk.msg.bak.bad)");
    std::set<std::string> accepted;
    read_acks(out.file("acks"), accepted, o.n[kRefused]);
    int undecodable = 0;
    tally(o, accepted, disk, labels_delivered(server, run, undecodable));
    if (undecodable > 0) o.notes.push_back(std::to_string(undecodable) + " complete uploads did not decode");
    if (!keep.empty() && (!o.problems.empty() || !o.notes.empty())) {
        std::error_code ec;
        fs::create_directories(keep + "/" + run, ec);
        fs::copy(root.path(), keep + "/" + run,
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
        fs::copy(out.path(), keep + "/" + run + "/host-output", fs::copy_options::recursive, ec);
    }
    return o;
}

std::string default_host() {
    const char* bin = getenv("VELTO_BINARY_DIR");
    if (bin && *bin) return std::string(bin) + "/tests/hosts/flow_host";
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return (self.parent_path().parent_path() / "hosts" / "flow_host").string();
}

void on_signal(int) {
    g_interrupted = 1;
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 5;
    unsigned long long seed = std::random_device{}();
    std::string host = default_host(), keep;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--runs")
            runs = std::atoi(argv[i + 1]);
        else if (opt == "--seed")
            seed = std::strtoull(argv[i + 1], nullptr, 10);
        else if (opt == "--host")
            host = argv[i + 1];
        else if (opt == "--keep")
            keep = argv[i + 1];
        else {
            fprintf(stderr, "usage: %s [--runs R] [--seed S] [--host PATH] [--keep DIR]\n", argv[0]);
            return 2;
        }
    }
    if (access(host.c_str(), X_OK) != 0) {
        fprintf(stderr, "killrun: no host program at %s\n", host.c_str());
        return 2;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    signal(SIGPIPE, SIG_IGN);

    printf("killrun: seed %llu, %d runs, host %s\n", seed, runs, host.c_str());
    std::mt19937_64 rng(seed);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    int passed = 0, failed = 0;
    Outcome total;
    long long max_window = 0;
    for (int r = 1; r <= runs && !g_interrupted; ++r) {
        Params p;
        p.rate = pick(500, 3000);
        p.kill_ms = pick(50, 2000);
        p.delay_ms = pick(0, 1) ? pick(200, 1500) : 0;
        p.send_num = pick(30, 100);
        p.file_kib = pick(0, 2) == 0 ? 8 : 20479;
        p.timeout_ms = pick(1000, 3000);
        Outcome o = run_once(host, "r" + std::to_string(r), p, keep);
        if (g_interrupted) break;
        bool ok = o.n[kLost] == 0 && o.problems.empty();
        (ok ? passed : failed)++;
        printf("run %d: rate %d/s kill %dms delay %dms send_num %d cap %dKiB timeout %dms | %s | %s\n", r,
               p.rate, p.kill_ms, p.delay_ms, p.send_num, p.file_kib, p.timeout_ms, figures(o.n).c_str(),
               ok ? "PASS" : "FAIL");
        for (const std::string& problem : o.problems) printf("    %s\n", problem.c_str());
        for (const std::string& note : o.notes) printf("    note: %s\n", note.c_str());
        for (int i = 0; i < kFigures; ++i) total.n[i] += o.n[i];
        max_window = std::max(max_window, o.n[kWindow]);
    }
    printf("total: %s | max window %lld\n", figures(total.n).c_str(), max_window);
    printf("killrun: %d passed, %d failed\n", passed, failed);
    if (g_interrupted) return 130;
    return failed == 0 ? 0 : 1;
}

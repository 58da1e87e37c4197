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
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <random>
#include <regex>
#include <set>

#include "flow_hosts.h"  // also the child process, the file and the upload helpers
#include "tls_server.h"

namespace {

namespace fs = std::filesystem;

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
    for (int i = 0; i < kFigures; ++i) out += std::string(" ") + kFigureNames[i] + " " + std::to_string(n[i]);
    return out.substr(1);
}

// Waits up to ms for the child to end (less when interrupted), else kills it; true when it ended by itself.
bool ended_within(vtest::ChildProcess& child, int ms) {
    vtest::wait_until(
        [&] {
            child.wait(0);
            return child.ended() || g_interrupted;
        },
        ms);
    if (child.ended()) return true;
    child.signal(SIGKILL);
    child.wait(10000);
    if (!child.ended()) fprintf(stderr, "killrun: a host outlived SIGKILL for 10 s\n");
    return false;
}

std::string describe(int status) {
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                               : "exit " + std::to_string(WEXITSTATUS(status));
}

std::string tail(const std::string& path) {
    const std::string text = vtest::read_file(path);
    return text.size() > 600 ? text.substr(text.size() - 600) : text;
}

// fdecode(text), "" for a text that does not decode.
std::string fdecoded(const std::string& text) {
    try {
        return Velto::Util::fdecode(text);
    } catch (...) {
        return "";
    }
}

// The run's labels ("<run>-<digits>") of the records in text, one record a line.
std::vector<std::string> run_labels(const std::string& text, const std::string& run) {
    std::vector<std::string> labels;
    for (const std::string& record : vtest::lines_of(text)) {
        const std::string label = vtest::label_of(record);
        if (label.compare(0, run.size() + 1, run + "-") == 0) labels.push_back(label);
    }
    return labels;
}

// label -> the first record file holding a valid line of it ("<10-digit time>,<payload of 16+ chars>").
std::map<std::string, std::string> labels_on_disk(const std::string& root, const std::string& run) {
    std::map<std::string, std::string> found;
    Velto::StrList names;
    Velto::get_files(root + "/", names);
    for (const std::string& name : names) {
        if (name != "sdk.msg" && name != "sdk.msg.bak" && name.compare(0, 8, "MSG_PRE_") != 0) continue;
        for (const std::string& line : vtest::lines_of(vtest::read_file(root + "/" + name))) {
            if (line.size() < 27 || line.find_first_not_of("0123456789") != 10 || line[10] != ',') continue;
            for (const std::string& label : run_labels(fdecoded(line.substr(11)), run))
                found.emplace(label, name);
        }
    }
    return found;
}

// label -> how many uploads carried it; undecodable counts the complete "/v1/file" and "/v1/data"
// uploads that did not decode (an upload cut short by the kill is not complete).
std::map<std::string, int> labels_delivered(const vcollect::RawServer& server, const std::string& run,
                                            int& undecodable) {
    std::map<std::string, int> count;
    for (const vcollect::RawRequest& req : server.requests()) {
        if (req.body.size() != static_cast<size_t>(std::atoll(req.header("Content-Length").c_str())))
            continue;
        std::string text;
        if (req.path() == "/v1/file") {
            auto parts =
                vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
            const vcollect::FormPart* file = vcollect::find_part(parts, "file");
            vcollect::FilePayload decoded;
            const bool ok = file && vcollect::decode_file_payload(file->data, decoded);
            text = ok ? decoded.data : "";
            undecodable += !ok;
        } else if (req.path() == "/v1/data") {
            undecodable += !vcollect::decode_form_payload(
                vcollect::form_value(vcollect::parse_form(req.body), "data"), text);
        }
        for (const std::string& label : run_labels(text, run)) ++count[label];
    }
    return count;
}

// Records the library's size cap removed, as its log tells ("roll_msg cnt: -N"). The log writes a
// line piece by piece, so another thread's pieces may stand between the key and the number: the
// number is the first "-<digits>" after the key that does not follow a digit (as dates do).
long long trimmed_per_log(const std::string& log) {
    const std::string key = "roll_msg cnt: ";
    long long total = 0;
    for (size_t at = log.find(key); at != std::string::npos; at = log.find(key, at + 1)) {
        for (size_t i = at + key.size(); i + 1 < log.size() && i < at + 400; ++i) {
            if (log[i] == '-' && isdigit(static_cast<unsigned char>(log[i + 1])) &&
                !isdigit(static_cast<unsigned char>(log[i - 1]))) {
                total += std::atoll(log.c_str() + i + 1);
                break;
            }
        }
    }
    return total;
}

// Sorts every label of the run into the figures.
void tally(Outcome& o, const std::set<std::string>& accepted, const std::map<std::string, std::string>& disk,
           const std::map<std::string, int>& delivered) {
    auto seq = [](const std::string& label) { return std::atol(label.c_str() + label.rfind('-') + 1); };
    std::set<std::string> all = accepted;
    long newest_kept = -1;  // the newest record that reached a file or the collector
    for (const auto& d : disk) newest_kept = std::max(newest_kept, seq(*all.insert(d.first).first));
    for (const auto& d : delivered) newest_kept = std::max(newest_kept, seq(*all.insert(d.first).first));
    o.n[kAccepted] = accepted.size();
    o.n[kOnDisk] = disk.size();
    o.n[kDelivered] = delivered.size();
    for (const std::string& label : all) {
        const auto sent = delivered.find(label);
        if (!disk.count(label) && sent == delivered.end()) {  // accepted only
            ++o.n[seq(label) > newest_kept ? kWindow : kDropped];
            continue;
        }
        o.n[kUnacked] += !accepted.count(label);
        o.n[kDup] += sent != delivered.end() && sent->second > 1;
        if (sent == delivered.end() && ++o.n[kLost] <= 10)
            o.problems.push_back("lost " + label + " (was in " + disk.at(label) + ")");
    }
    if (o.n[kLost] > 10) o.problems.push_back("... " + std::to_string(o.n[kLost] - 10) + " more lost");
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
    // The configuration endpoint hands out these settings of the saved file too (the others as
    // write_conf has them), so that a run that finds its saved configuration destroyed by the kill
    // fetches it again and still uploads to the collector.
    Velto::StrMap conf = {{"CONF_URL", server.url()}, {"ENABLE_HTTPS", "OFF"},   {"COLLECT_ON", "ON"},
                          {"COLLECT_WAY", "NOREAL"},  {"SEND_GAP", "10079"},     {"SEND_SIZE", "20479"},
                          {"ZIP_DATA", "ON"},         {"SESSION_TMOUT", "1800"}, {"SEND_BEGINPOINTS", "ON"},
                          {"SEND_ENDPOINTS", "ON"}};
    conf["SEND_NUM"] = std::to_string(p.send_num);
    conf["MAX_FILE_SIZE"] = std::to_string(p.file_kib);
    conf["CON_TIMEOUT"] = std::to_string(p.timeout_ms);
    vtest::write_conf(root.path(), server.url(), conf);
    conf_server.set_reply("/v1/conf", "{\"status\":0,\"conf\":" + Velto::Util::to_json(conf) + "}");
    const std::vector<std::pair<std::string, std::string>> env = {
        {"HOME", home.path()}, {"VELTO_COLLECT_HOST", conf_server.host_port()}};

    {  // The run to be killed; in a process group of its own, so it dies with the harness.
        vtest::ChildProcess flow(
            {host, root.path(), std::to_string(kRecordsPerRun), std::to_string(p.rate), run},
            out.file("acks"), out.file("err1"), env, true);
        if (ended_within(flow, p.kill_ms))
            o.problems.push_back("host ended before the kill (" + describe(flow.status()) +
                                 "): " + tail(out.file("err1")));
    }
    if (g_interrupted) return o;

    const std::map<std::string, std::string> disk = labels_on_disk(root.path(), run);
    o.n[kTrimmed] = trimmed_per_log(vtest::read_file(root.file("sdk.log")));
    std::string saved = vtest::read_file(root.file("sdk.cf"));  // destroyed: the next start has to fetch it
    o.n[kConfLost] =
        !vtest::has(fdecoded(saved.erase(saved.find_last_not_of(" \t\n\v\f\r") + 1)), "CONF_URL");

    {  // The recovery run, against a collector that answers at once.
        server.set_mode(vcollect::RawMode::kReply);
        server.set_delay_ms(0);
        vtest::ChildProcess recover({host, root.path(), "0", "0", run, "recover"}, out.file("out2"),
                                    out.file("err2"), env, true);
        if (!ended_within(recover, kRecoveryBoundMs))
            o.problems.push_back("recovery run did not end in time");
        else if (const int code = recover.wait(0))
            o.problems.push_back("recovery run: " + describe(recover.status()) +
                                 (code == 3 ? " (files not drained)" : "") + " " + tail(out.file("err2")));
    }
    server.stop();
    conf_server.stop();
    for (const char* name : {"err1", "err2"})
        if (std::regex_search(vtest::read_file(out.file(name)), std::regex("Sanitizer|runtime error:")))
            o.problems.push_back(std::string("sanitizer report in the host's ") + name + ": " +
                                 tail(out.file(name)));

    if (vtest::file_exists(root.file("sdk.msg.bak.bad")))
        o.notes.push_back("the library set a journal aside as unusable (sdk.msg.bak.bad)");
    const std::vector<std::string> accepted = vtest::accepted_labels(out.file("acks"));
    o.n[kRefused] = vtest::count_of("\n" + vtest::read_file(out.file("acks")), "\nR ");
    int undecodable = 0;
    tally(o, std::set<std::string>(accepted.begin(), accepted.end()), disk,
          labels_delivered(server, run, undecodable));
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

}  // namespace

int main(int argc, char** argv) {
    std::string runs_arg = "5", seed_arg = std::to_string(std::random_device{}()),
                host = vtest::flow_host_path(), keep;
    const std::map<std::string, std::string*> options = {
        {"--runs", &runs_arg}, {"--seed", &seed_arg}, {"--host", &host}, {"--keep", &keep}};
    for (int i = 1; i + 1 < argc; i += 2) {  // a last option without a value is ignored
        const auto option = options.find(argv[i]);
        if (option == options.end()) {
            fprintf(stderr, "usage: %s [--runs R] [--seed S] [--host PATH] [--keep DIR]\n", argv[0]);
            return 2;
        }
        *option->second = argv[i + 1];
    }
    const int runs = std::atoi(runs_arg.c_str());
    const unsigned long long seed = std::strtoull(seed_arg.c_str(), nullptr, 10);
    if (access(host.c_str(), X_OK) != 0) {
        fprintf(stderr, "killrun: no host program at %s\n", host.c_str());
        return 2;
    }
    for (int sig : {SIGINT, SIGTERM}) signal(sig, [](int) { g_interrupted = 1; });
    signal(SIGPIPE, SIG_IGN);

    printf("killrun: seed %llu, %d runs, host %s\n", seed, runs, host.c_str());
    std::mt19937_64 rng(seed);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    int passed = 0, failed = 0;
    Outcome total;
    long long max_window = 0;
    for (int r = 1; r <= runs && !g_interrupted; ++r) {
        // Braced initialisers are evaluated in order, so the seed gives the same parameters as always.
        const Params p{pick(500, 3000),
                       pick(50, 2000),
                       pick(0, 1) ? pick(200, 1500) : 0,
                       pick(30, 100),
                       pick(0, 2) == 0 ? 8 : 20479,
                       pick(1000, 3000)};
        Outcome o = run_once(host, "r" + std::to_string(r), p, keep);
        if (g_interrupted) break;
        const bool ok = o.n[kLost] == 0 && o.problems.empty();
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

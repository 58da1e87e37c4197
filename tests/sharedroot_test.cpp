// Several processes on one root directory, as when an application is started twice or three times:
// every record each of them accepts reaches the collector exactly once, and no upload name ever
// stands for two different batches. Each run starts tests/hosts/flow_host two or three times on
// one root (together, or a moment apart) against a loopback collector that is sent a batch every
// 10 records, lets the uploads go quiet, kills the hosts, and lets one more start deliver what is
// left in the root.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "delivery.h"

namespace {

const int kRecords = 300;  // per host, at 1000 a second
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int kRuns = 5;
#else
const int kRuns = 20;
#endif

std::string host_path() {
    return vtest::binary_dir() + "/tests/hosts/flow_host";
}

// The labels a host printed as accepted ("A <label>").
std::vector<std::string> accepted_labels(const std::string& out) {
    std::vector<std::string> labels;
    for (const std::string& line : vtest::lines_of(vtest::read_file(out)))
        if (line.compare(0, 2, "A ") == 0) labels.push_back(line.substr(2));
    return labels;
}

// The label of a record ("" for one without, such as the initial record).
std::string label_of(const std::string& record) {
    const std::string key = "\"label\":\"";
    const size_t at = record.find(key);
    if (at == std::string::npos) return "";
    const size_t end = record.find('"', at + key.size());
    return end == std::string::npos ? "" : record.substr(at + key.size(), end - at - key.size());
}

// Waits until the collector has had no request for quiet_ms (bounded).
void wait_quiet(const vcollect::RawServer& server, int quiet_ms) {
    size_t seen = server.requests().size();
    auto last = std::chrono::steady_clock::now();
    const auto end = last + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const size_t now_seen = server.requests().size();
        if (now_seen != seen) {
            seen = now_seen;
            last = std::chrono::steady_clock::now();
        } else if (std::chrono::steady_clock::now() - last > std::chrono::milliseconds(quiet_ms)) {
            return;
        }
    }
}

// One run; what went wrong, "" when nothing did.
std::string run_shared_root(int hosts, int stagger_ms, int run) {
    vtest::TempDir root, home, side;
    vcollect::RawServer server;
    if (!server.ok()) return "no collector";
    vtest::write_conf(root.path(), server.url(), {{"SEND_NUM", "10"}, {"SEND_ENDPOINTS", "ON"}});
    const std::vector<std::pair<std::string, std::string>> env = {{"HOME", home.path()}};
    std::vector<std::unique_ptr<vtest::ChildProcess>> children;
    for (int i = 0; i < hosts; ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(stagger_ms));
        const std::string tag = "r" + std::to_string(run) + "h" + std::to_string(i);
        children.emplace_back(
            new vtest::ChildProcess({host_path(), root.path(), std::to_string(kRecords), "1000", tag},
                                    side.file(tag), side.file(tag + ".err"), env));
    }
    std::vector<std::string> accepted;
    for (int i = 0; i < hosts; ++i) {
        const std::string out = side.file("r" + std::to_string(run) + "h" + std::to_string(i));
        if (!vtest::wait_until([&] { return vtest::lines_of(vtest::read_file(out)).size() >= kRecords; },
                               30000))
            return "host " + std::to_string(i) + " did not record";
        for (const std::string& label : accepted_labels(out)) accepted.push_back(label);
    }
    wait_quiet(server, 500);
    for (auto& child : children) child->signal(SIGKILL);
    for (auto& child : children) child->wait(10000);
    vtest::ChildProcess recover({host_path(), root.path(), "0", "0", "recover", "recover"}, side.file("rec"),
                                side.file("rec"), env);
    const int drained = recover.wait(30000);
    if (drained != 0) {
        Velto::StrList names;
        Velto::get_files(root.path() + "/", names);
        std::string left;
        for (const std::string& n : names)
            left += " " + n + ":" + std::to_string(vtest::file_size(root.file(n)));
        return "the root was not drained (" + std::to_string(drained) + "):" + left;
    }

    // A batch sent again under its name (its reply was not seen before the kill) is a repeat, which
    // the collector stores once; the same name with other records would be a loss or a double.
    std::map<std::string, int> delivered;
    std::map<std::string, std::string> batch_of_name;
    for (const auto& upload : vtest::file_uploads(server)) {
        auto known = batch_of_name.find(upload.first);
        if (known != batch_of_name.end()) {
            if (known->second != upload.second)
                return "upload name " + upload.first + " stood for two batches";
            continue;
        }
        batch_of_name[upload.first] = upload.second;
        for (const std::string& record : vtest::lines_of(upload.second)) ++delivered[label_of(record)];
    }
    std::string wrong;
    for (const std::string& label : accepted) {
        const int n = delivered[label];
        if (n != 1 && wrong.size() < 400) wrong += " " + label + " x" + std::to_string(n);
    }
    return wrong.empty() ? "" : "delivered not exactly once:" + wrong;
}

void expect_runs_lose_and_double_nothing(int hosts, int stagger_ms) {
    ASSERT_TRUE(vtest::file_exists(host_path())) << host_path();
    std::string bad;
    for (int run = 0; run < kRuns; ++run) {
        const std::string outcome = run_shared_root(hosts, stagger_ms, run);
        if (!outcome.empty()) bad += "\n  run " + std::to_string(run) + ": " + outcome;
    }
    EXPECT_EQ("", bad);
}

}  // namespace

TEST(SharedRoot, TwoProcessesStartedTogether) {
    expect_runs_lose_and_double_nothing(2, 0);
}

TEST(SharedRoot, TwoProcessesAMomentApart) {
    expect_runs_lose_and_double_nothing(2, 150);
}

TEST(SharedRoot, ThreeProcessesStartedTogether) {
    expect_runs_lose_and_double_nothing(3, 0);
}

TEST(SharedRoot, ThreeProcessesAMomentApart) {
    expect_runs_lose_and_double_nothing(3, 150);
}

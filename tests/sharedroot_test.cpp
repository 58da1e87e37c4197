// Several processes on one root directory, as when an application is started twice or three times:
// every record each of them accepts reaches the collector exactly once, and no upload name ever
// stands for two different batches. Each run starts tests/hosts/flow_host two or three times on
// one root (together, or a moment apart) against a loopback collector that is sent a batch every
// 10 records, lets the uploads go quiet, kills the hosts, and lets one more start deliver what is
// left in the root.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "flow_hosts.h"

namespace {

const int kRecords = 300;  // per host, at 1000 a second
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int kRuns = 5;
#else
const int kRuns = 20;
#endif

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
        children.emplace_back(new vtest::ChildProcess(
            {vtest::flow_host_path(), root.path(), std::to_string(kRecords), "1000", tag}, side.file(tag),
            side.file(tag + ".err"), env));
    }
    std::vector<std::string> accepted;
    for (int i = 0; i < hosts; ++i) {
        const std::string out = side.file("r" + std::to_string(run) + "h" + std::to_string(i));
        if (!vtest::wait_until([&] { return vtest::lines_of(vtest::read_file(out)).size() >= kRecords; },
                               30000))
            return "host " + std::to_string(i) + " did not record";
        for (const std::string& label : vtest::accepted_labels(out)) accepted.push_back(label);
    }
    vtest::wait_quiet(server, 500);
    for (auto& child : children) child->signal(SIGKILL);
    for (auto& child : children) child->wait(10000);
    const std::string drained = vtest::drain_root(root.path(), side.file("rec"), env);
    if (!drained.empty()) return drained;
    return vtest::not_delivered_once(server, accepted);
}

void expect_runs_lose_and_double_nothing(int hosts, int stagger_ms) {
    ASSERT_TRUE(vtest::file_exists(vtest::flow_host_path())) << vtest::flow_host_path();
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

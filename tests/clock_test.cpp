// The clock set back and forth by days under a running host: libfaketime is preloaded into
// tests/hosts/flow_host and reads its offset from a file that the test rewrites. Records written
// under a clock ten days behind are delivered once it is set right (not expired as ten days old),
// and the pause after a failed upload is not stretched by a jump back. Skipped where libfaketime is
// not installed, and in sanitized builds (a preloaded library would come before their runtime).
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>

#include "flow_hosts.h"

namespace {

const char kFakeTime[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
const char kRefused[] = "{\"status\":1}";
const char kTaken[] = "{\"status\":0}";

class ClockJumps : public ::testing::Test {
  protected:
    void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "libfaketime cannot be preloaded before a sanitizer's runtime";
#endif
        if (!vtest::file_exists(kFakeTime))
            GTEST_SKIP() << "libfaketime is not installed (.ci/install-deps.sh installs it)";
        ASSERT_TRUE(server_.ok());
        server_.set_reply(kRefused);
        vtest::write_conf(root_.path(), server_.url(), {{"SEND_NUM", "10"}, {"SEND_ENDPOINTS", "ON"}});
    }
    void TearDown() override {
        if (host_) host_->signal(SIGKILL);
    }

    // The host's clock: an offset such as "-10d" or "+0" (seconds without a unit).
    void set_clock(const std::string& offset) {
        vtest::write_file(side_.file("clock"), offset + "\n");
    }
    void start_host(int records, int rate) {
        host_.reset(new vtest::ChildProcess(
            {vtest::flow_host_path(), root_.path(), std::to_string(records), std::to_string(rate), "clock"},
            side_.file("out"), side_.file("err"),
            {{"HOME", home_.path()},
             {"LD_PRELOAD", kFakeTime},
             {"FAKETIME_TIMESTAMP_FILE", side_.file("clock")},
             {"FAKETIME_NO_CACHE", "1"},
             {"FAKETIME_DONT_FAKE_MONOTONIC", "1"},
             {"NO_FAKE_STAT", "1"}}));
    }
    bool wait_for_requests(size_t n) {
        return vtest::wait_until([&] { return server_.requests().size() >= n; }, 20000);
    }
    // Lets the host record all it was asked to, then one more start (on the true clock) drains the
    // root; "" when every accepted record reached the collector exactly once.
    std::string delivery_outcome(size_t records) {
        const std::string out = side_.file("out");
        if (!vtest::wait_until([&] { return vtest::lines_of(vtest::read_file(out)).size() >= records; },
                               60000))
            return "the host did not record";
        vtest::wait_quiet(server_, 1500);
        host_->signal(SIGKILL);
        host_->wait(10000);
        host_.reset();
        const std::string drained =
            vtest::drain_root(root_.path(), side_.file("rec"), {{"HOME", home_.path()}});
        if (!drained.empty()) return drained;
        return vtest::not_delivered_once(server_, vtest::accepted_labels(out));
    }

    vtest::TempDir root_, home_, side_;
    vcollect::RawServer server_;
    std::unique_ptr<vtest::ChildProcess> host_;
};

}  // namespace

// Offline under a clock ten days behind: the sends fail and the records are written under the
// wrong time. Once the clock is right and the server takes uploads, that batch goes out too.
TEST_F(ClockJumps, RecordsStampedUnderAClockTenDaysBehindAreDeliveredOnceItIsRight) {
    set_clock("-10d");
    start_host(1200, 100);
    ASSERT_TRUE(wait_for_requests(1));
    std::this_thread::sleep_for(std::chrono::seconds(3));
    server_.set_reply(kTaken);
    set_clock("+0");
    EXPECT_EQ("", delivery_outcome(1200));
    EXPECT_FALSE(vtest::has(vtest::read_file(root_.file("sdk.log")), "msg file expired"));
}

// A failed send (the first record's) pauses uploads for 300 s. The clock then goes back a day and, a little
// later, 400 s forward: the pause counts from the jump back, so uploads resume, instead of a day later.
TEST_F(ClockJumps, PauseAfterAFailedUploadIsNotStretchedByAJumpBack) {
    set_clock("+0");
    start_host(1500, 100);
    ASSERT_TRUE(
        vtest::wait_until([&] { return vtest::has(vtest::read_file(root_.file("sdk.log")), "snd init: "); },
                          20000));  // the first record's attempts failed
    set_clock("-86400");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    server_.set_reply(kTaken);
    const size_t before = server_.requests().size();
    set_clock("-86000");
    EXPECT_TRUE(wait_for_requests(before + 1)) << "no upload after the pause";
    EXPECT_EQ("", delivery_outcome(1500));
}

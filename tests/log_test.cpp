// Tests of the diagnostics log on real files: the line format, rolling at the size limit, surviving
// a deleted file, error counting into LOGERR_NUM and two threads writing at once.
#include "Log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Config.h"
#include "LogUpload.h"
#include "delivery.h"

using Velto::Log;

namespace {

// One whole line: the time head, the level tag, the message (a regex) and the line feed.
bool is_line(const std::string& line, const std::string& tag, const std::string& message) {
    static const std::string head = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\] )";
    return std::regex_match(line, std::regex(head + "\\[" + tag + "\\] " + message + "\n"));
}

size_t line_size(const std::string& tag, const std::string& message) {
    return 22 + tag.size() + 3 + message.size() + 1;
}

// A Log of the test's own in a fresh directory.
class LogFile : public ::testing::Test {
  protected:
    std::string contents() const { return vtest::read_file(path_); }

    vtest::TempDir dir_;
    std::string path_ = dir_.file("sdk.log");
    Log log_;
};

}  // namespace

TEST_F(LogFile, LineFormat) {
    log_.info() << "- (1) lost before init" << LEND;
    log_.init(path_.c_str());
    log_.info() << "- (" << 12 << ") "
                << "value " << -3 << LEND;
    log_.warn() << std::string("- (13) warned") << LEND;
    log_.error() << "- (14) two" << std::string("\n\n");  // plain text: two line feeds, no flush
    log_.flush();
    const std::string text = contents();
    const size_t a = line_size("INFO", "- (12) value -3"), b = a + line_size("WARN", "- (13) warned");
    ASSERT_EQ(b + line_size("ERROR", "- (14) two") + 1, text.size()) << text;
    EXPECT_TRUE(is_line(text.substr(0, a), "INFO", R"(- \(12\) value -3)")) << text;
    EXPECT_TRUE(is_line(text.substr(a, b - a), "WARN", R"(- \(13\) warned)")) << text;
    EXPECT_TRUE(is_line(text.substr(b), "ERROR", R"(- \(14\) two\n)")) << text;

    // Past 2038 the head still carries the date (a 32-bit time_t would wrap it to 1901).
    const long long shift = 4116744000LL - Velto::os_time();  // 2100-06-15 12:00 UTC
    Velto::os_time_shift(shift);
    log_.info() << "- (15) later" << LEND;
    Velto::os_time_shift(-shift);
    EXPECT_EQ("[2100-06-15 ", contents().substr(text.size(), 12)) << contents();

    EXPECT_EQ("sdk_0A1B-C2D3.log", Log::get_name_to_svr("{0A1B-C2D3}"));
}

TEST_F(LogFile, SizeLimitRange) {
    EXPECT_EQ(6291456u, log_.size_limit());
    const std::pair<unsigned long long, unsigned long long> cases[] = {
        {1024, 6291456}, {1025, 1025}, {2048, 2048}, {41943039, 41943039}, {41943040, 41943039}};
    for (const auto& c : cases) {
        log_.set_size_limit(c.first);
        EXPECT_EQ(c.second, log_.size_limit()) << c.first;
    }
}

// A line that begins when the file holds at least the limit cuts it to its last 55 % of the limit
// (at a byte, not a line), which ends with the roll notice; the new line follows.
TEST_F(LogFile, RollingAtLimit) {
    struct Case {
        unsigned long long limit;
        long long over;  // file size - limit when the next line begins
    } cases[] = {{4096, 0}, {4096, -1}, {4096, 100}, {Log::kDefaultLimit, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.limit) + " " + std::to_string(c.over));
        std::string before(static_cast<size_t>(c.limit + c.over), '\0');
        for (size_t i = 0; i < before.size(); ++i) before[i] = static_cast<char>('a' + i % 26);
        vtest::write_file(path_, before);
        Log log;
        log.init(path_.c_str());
        log.set_size_limit(c.limit);
        log.info() << "- (7) next" << LEND;

        const std::string after = contents();
        const size_t keep =
            c.over < 0 ? before.size() : static_cast<size_t>(static_cast<double>(c.limit) * 0.55);
        ASSERT_EQ(keep + line_size("INFO", "- (7) next"), after.size());
        EXPECT_TRUE(is_line(after.substr(keep), "INFO", R"(- \(7\) next)"));
        if (c.over < 0) {
            EXPECT_EQ(before, after.substr(0, keep));
            continue;
        }
        const std::string notice = "to roll file, cur size: " + std::to_string(before.size());
        const size_t notice_at = keep - line_size("INFO", notice);
        EXPECT_TRUE(is_line(after.substr(notice_at, keep - notice_at), "INFO", notice));
        EXPECT_EQ(before.substr(before.size() - notice_at), after.substr(0, notice_at));
    }
}

// The file is compared with the path at most once a millisecond: lines written after that go to a
// file that was deleted, moved aside or emptied meanwhile (created anew when missing).
TEST_F(LogFile, FollowsDeletedMovedAndEmptiedFile) {
    log_.init(path_.c_str());
    auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(3)); };
    log_.info() << "- (1) first" << LEND;
    ASSERT_EQ(0, std::remove(path_.c_str()));
    pause();
    log_.warn() << "- (2) second" << LEND;
    EXPECT_TRUE(is_line(contents(), "WARN", R"(- \(2\) second)")) << contents();

    ASSERT_EQ(0, std::rename(path_.c_str(), (path_ + ".old").c_str()));
    pause();
    log_.info() << "- (3) third" << LEND;
    EXPECT_TRUE(is_line(contents(), "INFO", R"(- \(3\) third)")) << contents();

    vtest::write_file(path_, "");  // emptied in place: the next line starts the file
    log_.info() << "- (4) fourth" << LEND;
    EXPECT_TRUE(is_line(contents(), "INFO", R"(- \(4\) fourth)")) << contents();
}

// Warn and error lines count into LOGERR_NUM while LOGERR_SEND_LIM is positive; info lines never do.
TEST_F(LogFile, ErrorCounting) {
    Velto::Config conf;
    conf.init_mutex();
    const std::pair<long long, long long> cases[] = {{1, 2}, {0, 0}, {-1, 0}};
    for (const auto& c : cases) {
        conf.load_default();
        conf.set("LOGERR_SEND_LIM", c.first);
        log_.take_error_count();
        log_.info() << "- (1) i" << LEND;
        log_.warn() << "- (2) w" << LEND;
        log_.error() << "- (3) e" << LEND;
        Velto::count_log_errors(log_, conf);
        EXPECT_EQ(c.second, conf.get_int("LOGERR_NUM")) << "LOGERR_SEND_LIM " << c.first;
    }
    conf.load_default();
    Log::obj_->take_error_count();
    LOGW << "counted before init" << LEND;
    Log::obj_->init(path_.c_str());
    LOGE << "via macro" << LEND;
    Velto::count_log_errors(*Log::obj_, conf);
    EXPECT_EQ(2, conf.get_int("LOGERR_NUM"));
    EXPECT_TRUE(is_line(contents(), "ERROR", R"(- \(\d+\) via macro)")) << contents();
}

// Lines of two threads are written whole (one write each), also while rolling and counting
// warnings (run under TSan as well).
TEST_F(LogFile, TwoThreadsWithRolling) {
    log_.init(path_.c_str());
    log_.take_error_count();
    log_.set_size_limit(4096);
    auto writer = [this](int id) {
        for (int i = 0; i < 300; ++i)
            (i % 10 ? log_.info() : log_.warn()) << "- (" << id << ") " << i << LEND;
    };
    std::thread a(writer, 1), b(writer, 2);
    a.join();
    b.join();
    const long long size = vtest::file_size(path_);
    EXPECT_TRUE(size > 2252 && size < 4096 + 200) << size;
    // The first line may be cut by the roll (it keeps bytes, not lines); every other one is whole.
    const std::vector<std::string> lines = vtest::lines_of(contents());
    ASSERT_GT(lines.size(), 10u);
    for (size_t i = 1; i < lines.size(); ++i) {
        EXPECT_TRUE(is_line(lines[i] + "\n", "(INFO|WARN)", R"(- \([12]\) \d+)") ||
                    is_line(lines[i] + "\n", "INFO", R"(to roll file, cur size: \d+)"))
            << lines[i];
    }
    EXPECT_EQ(60, log_.error_count());  // every tenth line of each thread is a warning
}

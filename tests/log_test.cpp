// Tests of the diagnostics log on real files: the line format, rolling at the size limit, surviving
// a deleted file, error counting into LOGERR_NUM and two threads writing at once.
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 reports a false -Wmaybe-uninitialized inside libstdc++'s <regex> in sanitizer builds; the
// location lies in <functional>, which gtest includes first, so the pragma has to precede every include.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "Log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Config.h"
#include "scenario.h"

using Velto::Log;

namespace {

const char kHead[] = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\] )";

bool is_line(const std::string& line, const std::string& tag, const std::string& message) {
    return std::regex_match(line,
                            std::regex(std::string("^") + kHead + "\\[" + tag + "\\] " + message + "$"));
}

// Bytes of one whole line: the time head, the level tag, the message and the line feed.
size_t line_size(const std::string& tag, const std::string& message) {
    return 22 + tag.size() + 3 + message.size() + 1;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// A Log of the test's own, writing to a fresh directory; HOME points at another fresh directory
// because opening the log reads (and may create) the client id's preferences file there.
class LogFile : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* home = std::getenv("HOME");
        old_home_ = home ? home : "";
        setenv("HOME", home_.path().c_str(), 1);
        path_ = dir_.file("sdk.log");
    }
    void TearDown() override { setenv("HOME", old_home_.c_str(), 1); }

    std::string contents() const { return vtest::read_file(path_); }

    vtest::TempDir home_, dir_;
    std::string old_home_, path_;
    Log log_;
};

}  // namespace

TEST_F(LogFile, LineFormat) {
    log_.info() << "- (1) lost before init" << LEND;  // no path yet: silently dropped
    log_.init(path_.c_str());
    log_.info() << "- (" << 12 << ") "
                << "value " << -3 << LEND;
    log_.warn() << std::string("- (13) warned") << LEND;
    log_.error() << "- (14) two"
                 << "\n\n";
    log_.info() << "- (15) " << 4294967296ULL << LEND;

    const std::vector<std::string> lines = lines_of(contents());
    ASSERT_EQ(5u, lines.size());
    EXPECT_TRUE(is_line(lines[0], "INFO", R"(- \(12\) value -3)")) << lines[0];
    EXPECT_TRUE(is_line(lines[1], "WARN", R"(- \(13\) warned)")) << lines[1];
    EXPECT_TRUE(is_line(lines[2], "ERROR", R"(- \(14\) two)")) << lines[2];
    EXPECT_EQ("", lines[3]);  // "\n\n" is plain text: two line feeds
    EXPECT_TRUE(is_line(lines[4], "INFO", R"(- \(15\) 4294967296)")) << lines[4];
}

TEST_F(LogFile, UploadNameFromClientId) {
    log_.init(path_.c_str());
    const std::string name = log_.get_name_to_svr();
    EXPECT_EQ(0u, name.rfind("sdk_", 0));
    EXPECT_EQ(".log", name.substr(name.size() - 4));
    EXPECT_EQ(std::string::npos, name.find_first_of("{} "));
}

TEST_F(LogFile, SizeLimitRange) {
    struct Case {
        unsigned long long bytes, want;
    } cases[] = {
        {1024, 4096}, {1025, 1025}, {2048, 2048}, {41943039, 41943039}, {41943040, 41943039}, {0, 41943039},
    };
    log_.set_size_limit(4096);
    for (const Case& c : cases) {
        log_.set_size_limit(c.bytes);
        EXPECT_EQ(c.want, log_.size_limit()) << "bytes: " << c.bytes;
    }
    EXPECT_EQ(6291456u, Log().size_limit());
}

// The file is cut when its size is at least the limit when a line begins; the kept part is the last
// 55 % of the limit (cut at a byte, not a line), ending with the roll notice.
TEST_F(LogFile, RollingAtLimit) {
    struct Case {
        unsigned long long limit;
        long long offset;  // file size - limit when the next line begins
        bool rolls;
    } cases[] = {{4096, 0, true}, {4096, -1, false}, {4096, 100, true}, {Log::kDefaultLimit, 0, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE("limit " + std::to_string(c.limit) + " offset " + std::to_string(c.offset));
        std::string before(static_cast<size_t>(c.limit + c.offset), '\0');
        for (size_t i = 0; i < before.size(); ++i) before[i] = static_cast<char>('a' + i % 26);
        vtest::write_file(path_, before);

        Log log;
        log.init(path_.c_str());
        log.set_size_limit(c.limit);
        log.info() << "- (7) next" << LEND;

        const std::string after = contents();
        const std::string line = after.substr(after.size() - line_size("INFO", "- (7) next"));
        EXPECT_TRUE(is_line(line.substr(0, line.size() - 1), "INFO", R"(- \(7\) next)")) << line;
        if (!c.rolls) {
            EXPECT_EQ(before + line, after);
            continue;
        }
        const size_t keep = static_cast<size_t>(static_cast<double>(c.limit) * 0.55);
        ASSERT_EQ(keep + line.size(), after.size());
        const std::string notice = "to roll file, cur size: " + std::to_string(before.size());
        const size_t notice_at = keep - line_size("INFO", notice);
        EXPECT_TRUE(is_line(after.substr(notice_at, keep - notice_at - 1), "INFO", notice));
        EXPECT_EQ(before.substr(before.size() - notice_at), after.substr(0, notice_at));
    }
    EXPECT_EQ(3460300u, static_cast<size_t>(static_cast<double>(Log::kDefaultLimit) * 0.55));
}

TEST_F(LogFile, DeletedFileIsRecreated) {
    log_.init(path_.c_str());
    log_.info() << "- (1) first" << LEND;
    ASSERT_EQ(0, std::remove(path_.c_str()));
    log_.warn() << "- (2) second" << LEND;
    const std::vector<std::string> lines = lines_of(contents());
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(is_line(lines[0], "WARN", R"(- \(2\) second)")) << lines[0];
}

// Warn and error lines count into LOGERR_NUM while LOGERR_SEND_LIM is positive; info lines never do.
TEST_F(LogFile, ErrorCounting) {
    Velto::Config& conf = *Velto::Config::obj_;
    struct Case {
        long long send_lim, want;
    } cases[] = {{1, 2}, {0, 0}, {-1, 0}};
    for (const Case& c : cases) {
        conf.load_default();
        conf.set("LOGERR_SEND_LIM", c.send_lim);
        log_.info() << "- (1) i" << LEND;
        log_.warn() << "- (2) w" << LEND;
        log_.error() << "- (3) e" << LEND;
        EXPECT_EQ(c.want, conf.get_int("LOGERR_NUM")) << "LOGERR_SEND_LIM " << c.send_lim;
    }
    // The process-wide log counts through the macros, also before it has a file.
    conf.load_default();
    LOGW << "counted" << LEND;
    EXPECT_EQ(1, conf.get_int("LOGERR_NUM"));
    Log::obj_->init(path_.c_str());
    LOGE << "via macro" << LEND;
    EXPECT_EQ(2, conf.get_int("LOGERR_NUM"));
    EXPECT_TRUE(is_line(lines_of(contents()).back(), "ERROR", R"(- \(\d+\) via macro)")) << contents();
}

// Insertions of two threads may interleave within a line, but nothing breaks, also while rolling.
TEST_F(LogFile, TwoThreadsWithRolling) {
    log_.init(path_.c_str());
    log_.set_size_limit(4096);
    auto writer = [this](int id) {
        for (int i = 0; i < 300; ++i) {
            if (i % 10 == 0) {
                log_.warn() << "- (" << id << ") w " << i << LEND;
            } else {
                log_.info() << "- (" << id << ") i " << i << LEND;
            }
        }
    };
    std::thread a(writer, 1), b(writer, 2);
    a.join();
    b.join();
    log_.flush();
    const long long size = vtest::file_size(path_);
    EXPECT_GT(size, 2252);
    EXPECT_LT(size, 4096 + 200);
}

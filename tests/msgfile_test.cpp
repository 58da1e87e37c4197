// Tests of the message file store: the line format, which lines reading keeps, the journal, the
// size cap, rolling by age and bytes, de-duplication, and the upload of set-aside batches
// (process_msgs) against a loopback collector.
#include "MsgFile.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

#include "delivery.h"

using Velto::StrList;
using Velto::Util::fencode;
using Velto::Util::ltoa;
using vtest::has;

namespace {

std::string rec(int i) {
    return "{\"dtype\":\"event\",\"n\":\"" + std::to_string(i) + "\"}";
}
std::string line(long long t, int i) {
    return vtest::msg_line(t, rec(i));
}

class MsgStore : public vtest::CollectorFixture {
  protected:
    void SetUp() override {
        CollectorFixture::SetUp();
        now_ = Velto::os_time();
    }
    std::string msg() const { return vtest::read_file(file("sdk.msg")); }
    void put(const std::string& content) {
        vtest::write_file(file("sdk.msg"), content);
        ASSERT_EQ(0, store_.open());
    }
    int read(StrList& out, long long max_count = 0, long long max_bytes = 0) {
        return store_.get_msg_list(0, max_count, max_bytes, out, newest_, nullptr, nullptr);
    }
    int roll(long long begin, long long max_count = 0, long long max_bytes = 0) {
        return store_.roll_msg(begin, max_count, max_bytes, newest_);
    }
    std::string set_aside(const std::string& guid, long long time, const std::string& content) {
        const std::string name = "MSG_PRE_" + guid + ltoa(time);
        vtest::write_file(file(name), content);
        return name;
    }

    Velto::MsgFile store_{conf_, uploader_};
    long long now_ = 0, newest_ = 0;
};

}  // namespace

TEST_F(MsgStore, AppendedLinesReadBack) {
    ASSERT_EQ(0, store_.open());
    ASSERT_TRUE(store_.append(now_, fencode(rec(1))));
    ASSERT_TRUE(store_.append(now_ + 1, fencode(rec(2))));
    StrList got;
    EXPECT_EQ(0, read(got));
    EXPECT_EQ((StrList{rec(1), rec(2)}), got);
    EXPECT_EQ(now_ + 1, newest_);
    ASSERT_TRUE(store_.append(now_ + 2, fencode(rec(3))));  // still appending after the read
    EXPECT_EQ(line(now_, 1) + line(now_ + 1, 2) + line(now_ + 2, 3), msg());
}

TEST_F(MsgStore, InvalidLinesAreDroppedAndGoneAfterRewrite) {
    std::string noise;
    for (int i = 0; i < 512; ++i) noise += static_cast<char>(i % 256 == '\n' ? 0 : i % 256);
    const std::string t = ltoa(now_);
    const std::string invalid[] = {
        "12345," + fencode(rec(9)),                           // 5-digit time
        t + ",ABCDEFGHIJKLMNO",                               // 15-character payload
        t + fencode(rec(9)),                                  // no comma
        t + ",****************",                              // does not decode
        t + "," + std::string(100001, 'A'),                   // does not decode, long
        t + "," + fencode(std::string(16, '\0').data(), 16),  // decodes to ""
        noise,
        "",
    };
    std::string content = line(now_, 1);
    for (const std::string& bad : invalid) content += bad + "\n";
    put(content + line(now_, 2));

    StrList got;
    EXPECT_EQ(-8, read(got));
    EXPECT_EQ((StrList{rec(1), rec(2)}), got);
    EXPECT_EQ(0, roll(0));
    EXPECT_TRUE(has(log(), "roll_msg cnt: -8"));
    EXPECT_EQ(line(now_, 1) + line(now_, 2), msg());
    EXPECT_EQ("", vtest::read_file(file("sdk.msg.bak")));
}

TEST_F(MsgStore, JournalOfTenBytesOrMoreReplacesTheFile) {
    const std::string lines = line(now_, 1) + line(now_, 2);
    const std::string cases[][3] = {
        // journal, sdk.msg after open, journal after open
        {"123456789", "old\n", "123456789"},
        {lines, lines, ""},
    };
    for (const auto& c : cases) {
        vtest::write_file(file("sdk.msg.bak"), c[0]);
        put("old\n");
        EXPECT_EQ(c[1], msg()) << c[0];
        EXPECT_EQ(c[2], vtest::read_file(file("sdk.msg.bak"))) << c[0];
    }
}

// Above a cap the oldest lines go, down to 40 % of it, and the newest stay whole; at most the hard
// cap counts, whatever the cap asked for.
TEST_F(MsgStore, CapDropsTheOldestLinesFarBelowIt) {
    std::string lines;
    for (int i = 0; i < 100; ++i) lines += line(now_, i);
    const long long size = static_cast<long long>(lines.size());
    put(lines);
    EXPECT_FALSE(store_.check_cap(size));
    EXPECT_TRUE(store_.check_cap(size - 1));
    const std::string kept = msg();
    EXPECT_LE(static_cast<long long>(kept.size()), (size - 1) * 2 / 5);
    const size_t cut = lines.size() - kept.size();
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept, lines.substr(cut));  // the newest lines, whole
    EXPECT_EQ('\n', lines[cut - 1]);
    EXPECT_TRUE(has(log(), "to del msg: " + std::to_string(size)));
    EXPECT_TRUE(has(log(), "roll_msg cnt: -" + std::to_string(vtest::count_of(lines.substr(0, cut), "\n"))));

    vtest::write_file(file("sdk.msg"), std::string(6291456, 'x') + "\n");
    EXPECT_TRUE(store_.check_cap(LLONG_MAX));         // a cap above the hard cap counts as the hard cap
    EXPECT_EQ(0, vtest::file_size(file("sdk.msg")));  // no whole line fitted
}

TEST_F(MsgStore, RollByAgeKeepsNewerLinesOrEmptiesTheFile) {
    const std::string newer = line(now_ - 20, 2) + line(now_ - 10, 3);
    put(line(now_ - 30, 1) + newer);
    // The cheap look agrees with the roll: by the first line's age, and by the size on disk.
    EXPECT_FALSE(store_.roll_needed(now_ - 100, 0));
    EXPECT_FALSE(store_.roll_needed(now_ - 100, static_cast<long long>(msg().size())));
    EXPECT_TRUE(store_.roll_needed(now_ - 100, static_cast<long long>(msg().size()) - 1));
    EXPECT_TRUE(store_.roll_needed(now_ - 20, 0));
    EXPECT_EQ(0, roll(now_ - 100));  // nothing dropped: not rewritten
    EXPECT_FALSE(has(log(), "roll_msg cnt"));
    EXPECT_EQ(0, roll(now_ - 20));
    EXPECT_EQ(newer, msg());
    EXPECT_TRUE(has(log(), "roll_msg cnt: -1"));

    EXPECT_EQ(0, roll(now_ + 100));
    EXPECT_EQ("", msg());
    EXPECT_TRUE(has(log(), "roll_msg null"));
    EXPECT_EQ(now_ - 10, newest_);  // the last valid line's time, even though it was cut
    ASSERT_TRUE(store_.append(now_, fencode(rec(4))));
    EXPECT_EQ(line(now_, 4), msg());
}

TEST_F(MsgStore, CountAndByteLimitsKeepTheNewest) {
    std::string content;  // five lines of 100-byte records "aaa...", "bbb...", ...
    for (int i = 0; i < 5; ++i) content += vtest::msg_line(now_ + i, "{" + std::string(98, 'a' + i) + "}");
    const size_t line_len = content.size() / 5;
    struct Case {
        long long max_count, max_bytes;
        int kept;
    } cases[] = {{0, 0, 5}, {2, 0, 2}, {0, 250, 3}, {0, 300, 4}, {0, 1, 1}, {1, 300, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.max_count) + "/" + std::to_string(c.max_bytes));
        put(content);
        StrList got;
        EXPECT_EQ(c.kept - 5, read(got, c.max_count, c.max_bytes));
        ASSERT_EQ(static_cast<size_t>(c.kept), got.size());
        EXPECT_EQ(static_cast<char>('a' + 5 - c.kept), got.front()[1]);
        EXPECT_EQ(0, roll(0, c.max_count, c.max_bytes));
        EXPECT_EQ(content.substr(content.size() - c.kept * line_len), msg());
    }
}

TEST_F(MsgStore, NothingPendingOrNothingToSetAside) {
    put(line(now_, 1));
    EXPECT_TRUE(store_.process_msgs(false));
    EXPECT_EQ(line(now_, 1), msg());
    std::remove(file("sdk.msg").c_str());
    EXPECT_FALSE(store_.process_msgs(true));  // the rename fails
    EXPECT_TRUE(has(log(), "rename: "));
    conf_.set("ROOT_DIR", "");
    EXPECT_FALSE(store_.process_msgs(false));
    EXPECT_EQ(0u, server_.connections());
}

TEST_F(MsgStore, BatchIsSetAsideUploadedOnceAndDeleted) {
    ASSERT_EQ(0, store_.open());
    for (int i : {1, 2, 1, 3, 2}) ASSERT_TRUE(store_.append(now_, fencode(rec(i))));
    EXPECT_TRUE(store_.process_msgs(true));
    const auto got = vtest::file_uploads(server_);
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(rec(1) + "\n" + rec(2) + "\n" + rec(3) + "\n", got[0].second);  // first appearance order
    EXPECT_EQ(34u, got[0].first.size());                  // the GUID part of the set-aside name
    EXPECT_EQ(2u, vtest::count_of(log(), "repeat msg"));  // one per duplicate
    StrList names;
    Velto::get_files(dir_.path() + "/", names);
    for (const std::string& name : names) EXPECT_NE(0u, name.rfind("MSG_PRE_", 0)) << name;
    EXPECT_EQ("", msg());  // a fresh file takes the next records
}

TEST_F(MsgStore, FailedUploadKeepsTheFilesAndStopsTheWalk) {
    server_.set_reply("{\"status\":1}");
    const std::string a = set_aside("{a}", now_, line(now_, 1));
    const std::string b = set_aside("{b}", now_, line(now_, 2));
    EXPECT_FALSE(store_.process_msgs(false));
    EXPECT_EQ(1u, server_.requests().size());
    EXPECT_TRUE(vtest::file_exists(file(a)) && vtest::file_exists(file(b)));
    EXPECT_TRUE(has(log(), ", ret: 204"));
    server_.set_reply("{\"status\":0}");
    EXPECT_TRUE(store_.process_msgs(false));
    EXPECT_FALSE(vtest::file_exists(file(a)) || vtest::file_exists(file(b)));
}

TEST_F(MsgStore, SetAsideFilesBeyondTheirCapLoseTheOldest) {
    server_.set_reply("{\"status\":1}");
    std::string content;
    for (int i = 0; content.size() < Velto::MsgFile::kSetAsideCap * 2 / 5; ++i) content += line(now_, i);
    const std::string oldest = set_aside("{a}", now_ - 2, content);
    const std::string older = set_aside("{b}", now_ - 1, content);
    const std::string newest = set_aside("{c}", now_, content);
    EXPECT_FALSE(store_.process_msgs(false));
    EXPECT_FALSE(vtest::file_exists(file(oldest)));
    EXPECT_TRUE(vtest::file_exists(file(older)) && vtest::file_exists(file(newest)));
    EXPECT_TRUE(has(log(), "msg file dropped over cap: " + file(oldest)));
}

TEST_F(MsgStore, ExpiredEmptyAndMalformedSetAsideFiles) {
    // Expiry goes by the newest record, not by the time in the name (a clock set right since).
    const std::string week_old = set_aside("{a}", now_, line(now_ - 7 * 86400 - 1, 1));
    const std::string old_name = set_aside("{d}", now_ - 30 * 86400, line(now_, 3));
    const std::string invalid = set_aside("{b}", now_, "12345,not a record\n\n");
    const std::string good = set_aside("x}", now_, line(now_, 1));
    const std::string bad = set_aside("}", now_, line(now_, 2));  // nothing before the brace
    EXPECT_TRUE(store_.process_msgs(false));
    conf_.set("MAX_RESV_DAY", "0");
    const std::string past = set_aside("{c}", now_, line(now_ - 1, 1));
    EXPECT_TRUE(store_.process_msgs(false));
    for (const std::string& name : {week_old, invalid, past, good, old_name})
        EXPECT_FALSE(vtest::file_exists(file(name))) << name;
    EXPECT_TRUE(vtest::file_exists(file(bad)));
    EXPECT_TRUE(has(log(), "msg file: " + bad));
    EXPECT_TRUE(has(log(), "msg file expired: " + file(week_old)));
    const auto got = vtest::file_uploads(server_);
    ASSERT_EQ(2u, got.size());  // oldest name first, each named by what comes before the time
    EXPECT_EQ("{d}", got[0].first);
    EXPECT_EQ("x}", got[1].first);
}

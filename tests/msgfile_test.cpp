// Tests of the message file store: the line format, which lines reading keeps, the journal, the
// size cap, rolling by age and bytes, de-duplication, and the upload of set-aside batches
// (process_msgs) against a loopback collector.
#include "MsgFile.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "Log.h"
#include "OsApi.h"
#include "Util.h"
#include "payload.h"
#include "raw_server.h"
#include "scenario.h"

using Velto::StrList;
namespace Util = Velto::Util;

namespace {

std::string record(int i) {
    return "{\"dtype\":\"event\",\"n\":\"" + std::to_string(i) + "\"}";
}
std::string line(long long t, const std::string& rec) {
    return Util::ltoa(t) + "," + Util::fencode(rec) + "\n";
}

int count_of(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

class MsgStore : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("HOME", home_.path().c_str(), 1);
        Velto::Config::obj_->load_default();
        Velto::Config::obj_->set("ROOT_DIR", root());
        Velto::Log::obj_->init(dir_.file("sdk.log").c_str());
        now_ = Velto::os_time();
    }
    std::string root() const { return dir_.path() + "/"; }
    std::string file(const std::string& name) const { return dir_.file(name); }
    std::string msg() const { return vtest::read_file(file("sdk.msg")); }
    std::string log() const { return vtest::read_file(file("sdk.log")); }
    int read(StrList& out, long long begin = 0, long long max_count = 0, long long max_bytes = 0) {
        return store_.get_msg_list(begin, max_count, max_bytes, out, newest_, nullptr, nullptr);
    }

    vtest::TempDir home_, dir_;
    Velto::MsgFile store_;
    long long now_ = 0;
    long long newest_ = 0;
};

// process_msgs against a loopback collector: CONF_URL points at it and the base information is
// complete, so that uploads go out at once.
class MsgUpload : public MsgStore {
  protected:
    struct Upload {
        std::string name, data;
    };

    void SetUp() override {
        MsgStore::SetUp();
        ASSERT_TRUE(server_.ok());
        Velto::Config::obj_->set("CONF_URL", server_.url());
        for (int i = 0; i < 14; ++i) Velto::g_base_info.set("k" + std::to_string(i), "v");
    }
    // "MSG_PRE_" + guid + time, holding the given lines.
    std::string set_aside(const std::string& guid, long long time, const std::string& content) {
        const std::string name = "MSG_PRE_" + guid + Util::ltoa(time);
        vtest::write_file(file(name), content);
        return name;
    }
    std::vector<Upload> uploads() const {
        std::vector<Upload> out;
        for (const vcollect::RawRequest& req : server_.requests()) {
            EXPECT_EQ("/v1/file", req.path());
            auto parts = vcollect::parse_multipart(req.body, "70db372eb000e2ax");
            const vcollect::FormPart* name = vcollect::find_part(parts, "sdk_log");
            const vcollect::FormPart* payload = vcollect::find_part(parts, "file");
            vcollect::FilePayload decoded;
            EXPECT_TRUE(name && payload && vcollect::decode_file_payload(payload->data, decoded));
            out.push_back({name ? vcollect::field_text(*name) : "", decoded.data});
        }
        return out;
    }

    vcollect::RawServer server_;
};

}  // namespace

TEST_F(MsgStore, AppendedLinesReadBackInOrder) {
    ASSERT_EQ(0, store_.open());
    ASSERT_TRUE(store_.append(now_, Util::fencode(record(1))));
    ASSERT_TRUE(store_.append(now_ + 1, Util::fencode(record(2))));
    EXPECT_EQ(line(now_, record(1)) + line(now_ + 1, record(2)), msg());

    StrList got;
    EXPECT_EQ(0, read(got));
    EXPECT_EQ((StrList{record(1), record(2)}), got);
    EXPECT_EQ(now_ + 1, newest_);
    // Reading leaves the stream appending at the end.
    ASSERT_TRUE(store_.append(now_ + 2, Util::fencode(record(3))));
    EXPECT_EQ(3, count_of(msg(), "\n"));
}

TEST_F(MsgStore, InvalidLinesAreDroppedAndGoneAfterRewrite) {
    std::string random_bytes;
    for (int i = 0; i < 512; ++i) {
        const char c = static_cast<char>((i * 151 + 7) & 0xFF);
        random_bytes += c == '\n' ? ' ' : c;
    }
    const std::string stamp = Util::ltoa(now_);
    const std::vector<std::string> invalid = {
        "12345," + Util::fencode(record(9)),                             // 5-digit time
        stamp + ",ABCDEFGHIJKLMNO",                                      // 15-character payload
        stamp + Util::fencode(record(9)),                                // no comma
        "no comma in the first ten, then, " + Util::fencode(record(9)),  // time field too long
        stamp + ",****************",                                     // does not decode
        stamp + "," + std::string(100001, 'A'),                          // does not decode, long
        stamp + "," + Util::fencode(std::string(16, '\0').data(), 16),   // decodes to ""
        random_bytes,
        "",
    };
    const std::string first = line(now_, record(1));
    const std::string rest = line(now_, record(2)) + line(now_, record(3));
    std::string content = first;
    for (const std::string& bad : invalid) content += bad + "\n";
    vtest::write_file(file("sdk.msg"), content + rest);
    ASSERT_EQ(0, store_.open());

    StrList got;
    const int dropped = -static_cast<int>(invalid.size());
    EXPECT_EQ(dropped, read(got));
    EXPECT_EQ((StrList{record(1), record(2), record(3)}), got);

    long long newest = 0;
    EXPECT_EQ(0, store_.roll_msg(0, 0, 0, newest));
    EXPECT_NE(std::string::npos, log().find("roll_msg cnt: " + std::to_string(dropped)));
    EXPECT_EQ(first + rest, msg());
    EXPECT_EQ("", vtest::read_file(file("sdk.msg.bak")));
}

TEST_F(MsgStore, JournalOfTenBytesOrMoreReplacesTheFile) {
    const std::string lines = line(now_, record(1)) + line(now_, record(2));
    struct Case {
        std::string journal, want_msg, want_journal;
    } cases[] = {
        {"123456789", "old\n", "123456789"},
        {"1234567890", "1234567890\n", ""},
        {lines, lines, ""},
    };
    for (const Case& c : cases) {
        store_.close();
        vtest::write_file(file("sdk.msg"), "old\n");
        vtest::write_file(file("sdk.msg.bak"), c.journal);
        EXPECT_EQ(0, store_.open());
        EXPECT_EQ(c.want_msg, msg()) << c.journal;
        EXPECT_EQ(c.want_journal, vtest::read_file(file("sdk.msg.bak"))) << c.journal;
    }
}

TEST_F(MsgStore, CheckDropDeletesOnlyAboveTheLimit) {
    ASSERT_EQ(6291456, store_.size_limit());
    vtest::write_file(file("sdk.msg"), std::string(6291456, 'x'));
    EXPECT_FALSE(store_.check_drop());
    EXPECT_EQ(6291456, vtest::file_size(file("sdk.msg")));

    vtest::write_file(file("sdk.msg"), std::string(6291457, 'x'));
    EXPECT_TRUE(store_.check_drop());
    EXPECT_EQ(0, vtest::file_size(file("sdk.msg")));  // reopened empty
    EXPECT_NE(std::string::npos, log().find("to del msg: 6291457"));
    EXPECT_TRUE(store_.is_open());
}

TEST_F(MsgStore, RollByAgeKeepsNewerLinesOrEmptiesTheFile) {
    const std::string old_line = line(now_ - 30, record(1));
    const std::string newer = line(now_ - 20, record(2)) + line(now_ - 10, record(3));
    vtest::write_file(file("sdk.msg"), old_line + newer);
    ASSERT_EQ(0, store_.open());

    long long newest = 0;
    EXPECT_EQ(0, store_.roll_msg(now_ - 100, 0, 0, newest));  // nothing to drop: file untouched
    EXPECT_EQ(0, count_of(log(), "roll_msg cnt"));
    EXPECT_EQ(0, store_.roll_msg(now_ - 20, 0, 0, newest));
    EXPECT_EQ(newer, msg());
    EXPECT_EQ(now_ - 10, newest);
    EXPECT_NE(std::string::npos, log().find("roll_msg cnt: -1"));

    EXPECT_EQ(0, store_.roll_msg(now_ + 100, 0, 0, newest));
    EXPECT_EQ("", msg());
    EXPECT_NE(std::string::npos, log().find("roll_msg null"));
    EXPECT_EQ(now_ - 10, newest);  // the last valid line's time, even when it was cut
    ASSERT_TRUE(store_.append(now_, Util::fencode(record(4))));
    EXPECT_EQ(line(now_, record(4)), msg());
}

TEST_F(MsgStore, CountAndByteLimitsKeepTheNewest) {
    std::string content;
    for (int i = 0; i < 5; ++i) content += line(now_ + i, std::string(100, static_cast<char>('a' + i)));
    struct Case {
        long long max_count, max_bytes;
        int ret;
        char first_kept;
    } cases[] = {
        {0, 0, 0, 'a'},    {2, 0, -3, 'd'}, {0, 250, -2, 'c'},
        {0, 300, -1, 'b'}, {0, 1, -4, 'e'}, {1, 300, -4, 'e'},
    };
    for (const Case& c : cases) {
        vtest::write_file(file("sdk.msg"), content);
        ASSERT_EQ(0, store_.open());
        StrList got;
        EXPECT_EQ(c.ret, read(got, 0, c.max_count, c.max_bytes)) << c.max_count << "/" << c.max_bytes;
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(c.first_kept, got.front()[0]) << c.max_count << "/" << c.max_bytes;
        EXPECT_EQ(static_cast<size_t>(5 + c.ret), got.size());

        long long newest = 0;
        EXPECT_EQ(0, store_.roll_msg(0, c.max_count, c.max_bytes, newest));
        const size_t line_len = content.size() / 5;
        EXPECT_EQ(content.substr(content.size() - got.size() * line_len), msg());
    }
}

TEST_F(MsgStore, DelRepeatKeepsFirstAppearanceAndWarnsPerDuplicate) {
    StrList records{"a", "b", "a", "c", "b", "a"};
    EXPECT_TRUE(store_.del_repeat(records));
    EXPECT_EQ((StrList{"a", "b", "c"}), records);
    EXPECT_EQ(3, count_of(log(), "repeat msg"));

    vtest::write_file(file("sdk.msg"), line(now_, record(1)) + line(now_, record(1)) + line(now_, record(2)));
    ASSERT_EQ(0, store_.open());
    long long newest = 0;
    EXPECT_EQ(record(1) + "\n" + record(2) + "\n", store_.comb_msg(0, 0, 0, newest, nullptr));
    EXPECT_EQ(4, count_of(log(), "repeat msg"));
}

TEST_F(MsgUpload, NothingSetAsideSendsNothing) {
    vtest::write_file(file("sdk.msg"), line(now_, record(1)));
    ASSERT_EQ(0, store_.open());
    EXPECT_TRUE(store_.process_msgs(false));
    EXPECT_EQ(0u, server_.connections());
    EXPECT_EQ(line(now_, record(1)), msg());
}

TEST_F(MsgUpload, BatchIsSetAsideUploadedOnceAndDeleted) {
    ASSERT_EQ(0, store_.open());
    for (int i : {1, 2, 1}) ASSERT_TRUE(store_.append(now_, Util::fencode(record(i))));
    EXPECT_TRUE(store_.process_msgs(true));

    const std::vector<Upload> got = uploads();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(record(1) + "\n" + record(2) + "\n", got[0].data);
    EXPECT_EQ(34u, got[0].name.size());
    EXPECT_EQ('{', got[0].name.front());
    EXPECT_EQ('}', got[0].name.back());
    EXPECT_EQ(1, count_of(log(), "repeat msg"));
    StrList names;
    Velto::get_files(root(), names);
    for (const std::string& name : names) EXPECT_NE(0u, name.rfind("MSG_PRE_", 0)) << name;
    EXPECT_EQ("", msg());  // a fresh file takes the next records
    EXPECT_TRUE(store_.append(now_, Util::fencode(record(3))));
}

TEST_F(MsgUpload, FailedUploadKeepsTheFilesAndStopsTheWalk) {
    server_.set_reply("{\"status\":1}");
    const std::string a = set_aside("{a}", now_, line(now_, record(1)));
    const std::string b = set_aside("{b}", now_, line(now_, record(2)));
    EXPECT_FALSE(store_.process_msgs(false));
    EXPECT_EQ(1u, server_.requests().size());
    EXPECT_TRUE(vtest::file_exists(file(a)));
    EXPECT_TRUE(vtest::file_exists(file(b)));
    EXPECT_NE(std::string::npos, log().find(", ret: 204"));

    server_.set_reply("{\"status\":0}");
    EXPECT_TRUE(store_.process_msgs(false));
    EXPECT_FALSE(vtest::file_exists(file(a)));
    EXPECT_FALSE(vtest::file_exists(file(b)));
}

TEST_F(MsgUpload, ExpiredAndEmptyFilesAreDeletedUnsent) {
    const std::string week_old = set_aside("{a}", now_ - 7 * 86400 - 1, line(now_, record(1)));
    const std::string invalid = set_aside("{b}", now_, "12345,not a record\n\n");
    EXPECT_TRUE(store_.process_msgs(false));
    EXPECT_FALSE(vtest::file_exists(file(week_old)));
    EXPECT_FALSE(vtest::file_exists(file(invalid)));

    Velto::Config::obj_->set("MAX_RESV_DAY", "0");
    const std::string past = set_aside("{c}", now_ - 1, line(now_, record(1)));
    EXPECT_TRUE(store_.process_msgs(false));
    EXPECT_FALSE(vtest::file_exists(file(past)));
    EXPECT_EQ(0u, server_.connections());
}

TEST_F(MsgUpload, NameNeedsSomethingBeforeTheBrace) {
    const std::string good = set_aside("x}", now_, line(now_, record(1)));
    const std::string bad = set_aside("}", now_, line(now_, record(2)));
    vtest::write_file(file("other"), "kept");
    EXPECT_TRUE(store_.process_msgs(false));

    const std::vector<Upload> got = uploads();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ("x}", got[0].name);
    EXPECT_FALSE(vtest::file_exists(file(good)));
    EXPECT_TRUE(vtest::file_exists(file(bad)));
    EXPECT_NE(std::string::npos, log().find("msg file: " + bad));
    EXPECT_EQ("kept", vtest::read_file(file("other")));
}

TEST_F(MsgUpload, NoRootOrFailedRenameIsFalse) {
    EXPECT_FALSE(store_.process_msgs(true));  // no "sdk.msg" to set aside
    EXPECT_NE(std::string::npos, log().find("rename: "));
    Velto::Config::obj_->set("ROOT_DIR", "");
    EXPECT_FALSE(store_.process_msgs(false));
    EXPECT_EQ(0u, server_.connections());
}

// Tests of the operating-system services: process name rule, directory listing, mutex registry,
// GUIDs and renaming, on real files in temporary directories.
#include "OsApi.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <set>

#include "Log.h"
#include "scenario.h"

namespace {

using Velto::StrList;

TEST(OsApi, ProcessNameFromPath) {
    struct Case {
        const char* path;
        const char* name;
    } cases[] = {
        {"/Applications/Foo.app/Contents/MacOS/Foo Bar", "Foo Bar"},
        {"/usr/local/bin/host", "host"},
        {"/usr/bin/", "/usr/bin/"},    // separator is the last byte
        {"/usr/bin/a", "/usr/bin/a"},  // separator is the byte before the last
        {"/usr/bin/ab", "ab"},         // shortest name taken
        {"C:\\Program Files\\app.exe", "app.exe"},
        {"dir\\a", "dir\\a"},
        {"a/b\\c", "b\\c"},  // a slash wins over later backslashes
        {"plain", "plain"},
        {"", ""},
    };
    for (const Case& c : cases) EXPECT_EQ(c.name, Velto::pname_from_path(c.path)) << c.path;
    EXPECT_EQ("osapi_test", Velto::get_pname());
}

// Every entry but "." and "..", files and directories alike; nothing for an empty, missing or
// two-byte directory name ("/." is real, but too short).
TEST(OsApi, ListsEveryEntryButDots) {
    vtest::TempDir dir;
    vtest::write_file(dir.file("a"), "1");
    vtest::write_file(dir.file("b"), "");
    ASSERT_EQ(0, mkdir(dir.file("c").c_str(), 0755));
    StrList out{"stale"};
    Velto::get_files(dir.path(), out);
    EXPECT_EQ((std::set<std::string>{"a", "b", "c"}), std::set<std::string>(out.begin(), out.end()));
    EXPECT_EQ(3u, out.size());
    for (const std::string& empty :
         {dir.file("c"), std::string("/."), std::string("/nonexistent-velto-dir")}) {
        out = {"stale"};
        Velto::get_files(empty, out);
        EXPECT_TRUE(out.empty()) << empty;
    }
}

TEST(OsApi, MutexRegistry) {
    Velto::Mutex m;
    EXPECT_EQ(-1, m.id());
    m.init();
    int first = m.id();
    ASSERT_GE(first, 0);
    m.init();
    EXPECT_EQ(first, m.id());  // once only
    EXPECT_TRUE(m.created());
    EXPECT_NE(nullptr, Velto::get_mutex(first));

    EXPECT_TRUE(m.lock());
    EXPECT_EQ(0, m.unlock());

    EXPECT_EQ(nullptr, Velto::get_mutex(-1));
    int last = Velto::new_mutex();
    EXPECT_EQ(nullptr, Velto::get_mutex(last + 1));
    EXPECT_NE(Velto::get_mutex(first), Velto::get_mutex(last));
}

TEST(OsApi, GuidForm) {
    const std::string a = Velto::get_guid();
    ASSERT_EQ(34u, a.size());
    EXPECT_EQ('{', a.front());
    EXPECT_EQ('}', a.back());
    for (size_t i = 1; i < 33; ++i) EXPECT_TRUE(strchr("0123456789abcdef", a[i]) && a[i]) << a;
    EXPECT_NE(a, Velto::get_guid());
}

TEST(OsApi, RenameMovesFileOrLogsWhy) {
    vtest::TempDir dir;
    setenv("HOME", dir.path().c_str(), 1);  // the log looks up the client id on open
    Velto::Log::obj_->init(dir.file("sdk.log").c_str());
    vtest::write_file(dir.file("old"), "content");
    EXPECT_TRUE(Velto::rename_file(dir.path() + "/", "old", "new"));
    EXPECT_FALSE(vtest::file_exists(dir.file("old")));
    EXPECT_EQ("content", vtest::read_file(dir.file("new")));

    EXPECT_FALSE(Velto::rename_file(dir.path() + "/", "missing", "other"));
    EXPECT_FALSE(vtest::file_exists(dir.file("other")));
    std::string log = vtest::read_file(dir.file("sdk.log"));
    EXPECT_NE(std::string::npos, log.find("[ERROR] ")) << log;
    EXPECT_NE(std::string::npos, log.find(std::string("rename: ") + strerror(ENOENT))) << log;
}

}  // namespace

// Tests of the operating-system services: process name rule, directory listing, GUIDs and
// renaming, on real files in temporary directories.
#include "OsApi.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "scenario.h"

namespace {

using Velto::StrList;

TEST(OsApi, ProcessNameFromPath) {
    const std::pair<const char*, const char*> cases[] = {
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
    for (const auto& [path, name] : cases) EXPECT_EQ(name, Velto::pname_from_path(path)) << path;
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
    out.sort();
    EXPECT_EQ((StrList{"a", "b", "c"}), out);
    for (const std::string& empty :
         {dir.file("c"), std::string("/."), std::string("/nonexistent-velto-dir")}) {
        out = {"stale"};
        Velto::get_files(empty, out);
        EXPECT_TRUE(out.empty()) << empty;
    }
}

TEST(OsApi, GuidForm) {
    const std::string a = Velto::get_guid();
    EXPECT_TRUE(a.size() == 34 && a.front() == '{' && a.back() == '}' &&
                a.find_first_not_of("0123456789abcdef", 1) == 33)
        << a;
    EXPECT_NE(a, Velto::get_guid());
}

TEST(OsApi, RenameMovesFileOrGivesWhy) {
    vtest::TempDir dir;
    vtest::write_file(dir.file("old"), "content");
    EXPECT_TRUE(Velto::rename_file(dir.path() + "/", "old", "new"));
    EXPECT_FALSE(vtest::file_exists(dir.file("old")));
    EXPECT_EQ("content", vtest::read_file(dir.file("new")));

    std::string why;
    EXPECT_FALSE(Velto::rename_file(dir.path() + "/", "missing", "other", &why));
    EXPECT_FALSE(vtest::file_exists(dir.file("other")));
    EXPECT_EQ(strerror(ENOENT), why);
}

}  // namespace

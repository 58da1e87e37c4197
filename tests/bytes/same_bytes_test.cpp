// The 32-bit Intel build writes the same bytes as this build: runs this build's velto-bytes-dump and
// the one of the i386 build tree named by VELTO_I386_BUILD_DIR (the CMake cache variable of that
// name, or the environment variable), and compares their items one by one. Skipped when no i386
// build is named; .ci/i386.sh runs it against build-i386.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>

namespace {

// "<item> <hex>" lines of the program's standard output; false when it did not run to a clean exit.
bool run_dump(const std::string& program, std::map<std::string, std::string>& items) {
    FILE* out = popen(("'" + program + "'").c_str(), "r");
    if (out == nullptr) return false;
    std::string text;
    char buf[65536];
    for (size_t n; (n = fread(buf, 1, sizeof buf, out)) > 0;) text.append(buf, n);
    const int status = pclose(out);
    for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = text.substr(begin, end - begin);
        const size_t blank = line.find(' ');
        if (blank != std::string::npos) items[line.substr(0, blank)] = line.substr(blank + 1);
    }
    return status == 0;
}

// The ELF class byte of a file: 1 for 32-bit, 2 for 64-bit, 0 when it is no ELF file.
int elf_class(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char head[5] = {};
    in.read(head, sizeof head);
    if (!in || std::string(head, 4) !=
                   "\x7f"
                   "ELF")
        return 0;
    return head[4];
}

}  // namespace

TEST(SameBytes, I386BuildWritesWhatThisBuildWrites) {
    const char* dir = getenv("VELTO_I386_BUILD_DIR");
    if (dir == nullptr || *dir == '\0') GTEST_SKIP() << "no i386 build named (VELTO_I386_BUILD_DIR)";
    const std::string other = std::string(dir) + "/tests/bytes/velto-bytes-dump";
    if (elf_class(other) == 0) GTEST_SKIP() << "no i386 velto-bytes-dump at " << other;
    ASSERT_EQ(1, elf_class(other)) << other << " is not a 32-bit program";
    ASSERT_EQ(2, elf_class(VELTO_BYTES_DUMP)) << "this build is expected to be 64-bit";

    std::map<std::string, std::string> mine, theirs;
    ASSERT_TRUE(run_dump(VELTO_BYTES_DUMP, mine));
    ASSERT_TRUE(run_dump(other, theirs));
    for (const char* item :
         {"base64", "aes.raw", "aes.base64", "record.json", "record.fencode", "zip", "base.view", "sdk.msg",
          "sdk.cf", "upload.form.zipON", "upload.file.zipON", "upload.form.zipOFF", "upload.file.zipOFF"}) {
        ASSERT_TRUE(mine.count(item)) << item;
        EXPECT_FALSE(mine[item].empty()) << item << " is empty in this build";
        EXPECT_EQ(mine[item], theirs[item]) << item << " differs";
    }
    EXPECT_EQ(mine.size(), theirs.size());
}

// Replays every fuzz target's seed corpus (fuzz/corpus/<target>/) and every input kept from a found
// fault (fuzz/crashers/<target>/) through the target's entry point, without libFuzzer, so that a
// fixed fault stays fixed in the normal build. A target checks its own invariants and aborts on a
// violation, which fails this test. The entry points are compiled in by fuzz/replay.cmake.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#define VELTO_FUZZ_ENTRY(name) extern "C" int velto_fuzz_##name(const uint8_t* data, size_t size);
#include "fuzz_entries.inc"
#undef VELTO_FUZZ_ENTRY

namespace {

struct Target {
    const char* name;
    int (*entry)(const uint8_t*, size_t);
};

#define VELTO_FUZZ_ENTRY(name) {#name, velto_fuzz_##name},
const Target kTargets[] = {
#include "fuzz_entries.inc"
};
#undef VELTO_FUZZ_ENTRY

// The regular files of a directory, in name order; none when it does not exist.
std::vector<std::string> files_in(const std::string& dir) {
    std::vector<std::string> files;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string path = dir + "/" + e->d_name;
            struct stat st;
            if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(path);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(FuzzReplay, EveryTargetTakesItsCorpusAndCrashers) {
    const std::string root = VELTO_FUZZ_DIR;
    for (const Target& target : kTargets) {
        SCOPED_TRACE(target.name);
        const std::vector<std::string> seeds = files_in(root + "/corpus/" + target.name);
        EXPECT_FALSE(seeds.empty()) << "a target without seeds";
        std::vector<std::string> inputs = seeds;
        for (const std::string& crasher : files_in(root + "/crashers/" + target.name))
            inputs.push_back(crasher);
        for (const std::string& path : inputs) {
            SCOPED_TRACE(path);
            const std::string bytes = read_file(path);
            EXPECT_EQ(0, target.entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
        }
    }
}

}  // namespace

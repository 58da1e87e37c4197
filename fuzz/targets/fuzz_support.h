// Helpers shared by the fuzz targets: one private temporary directory per process (removed when the
// process ends), whole-file writes into it, and splitting one input into several pieces. The targets
// are built both for libFuzzer (fuzz/CMakeLists.txt) and into the replay test of the normal suite.
#ifndef VELTO_FUZZ_SUPPORT_H
#define VELTO_FUZZ_SUPPORT_H

#include <ftw.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// The entry point of a target. The replay test compiles every target into one program and renames
// this symbol per target on the command line.
#define VELTO_FUZZ_TARGET extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)

namespace vfuzz {

inline int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

inline std::string& temp_root_storage() {
    static std::string root;
    return root;
}

inline void remove_temp_root() {
    const std::string& root = temp_root_storage();
    if (!root.empty()) nftw(root.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS);
}

// The process's own scratch directory, created on first use and removed at exit; ends in "/".
inline const std::string& temp_root() {
    std::string& root = temp_root_storage();
    if (root.empty()) {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/velto-fuzz-XXXXXX";
        if (mkdtemp(&templ[0]) == nullptr) abort();  // no scratch space: nothing can be tested
        root = templ + "/";
        atexit(remove_temp_root);
    }
    return root;
}

inline bool write_file(const std::string& path, const std::string& content) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    bool ok = fwrite(content.data(), 1, content.size(), f) == content.size();
    return fclose(f) == 0 && ok;
}

// The input cut at its NUL bytes into at most `count` pieces (the last one keeps any further NULs);
// missing pieces are empty. Lets one input drive several files or arguments.
inline std::vector<std::string> split_input(const uint8_t* data, size_t size, size_t count) {
    std::vector<std::string> pieces(count);
    std::string all(reinterpret_cast<const char*>(data), size);
    size_t pos = 0;
    for (size_t i = 0; i + 1 < count && pos <= all.size(); ++i) {
        size_t nul = all.find('\0', pos);
        if (nul == std::string::npos) {
            pieces[i] = all.substr(pos);
            return pieces;
        }
        pieces[i] = all.substr(pos, nul - pos);
        pos = nul + 1;
    }
    if (pos <= all.size()) pieces[count - 1] = all.substr(pos);
    return pieces;
}

}  // namespace vfuzz

#endif

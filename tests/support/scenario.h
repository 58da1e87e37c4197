// Test support: temporary directories and per-process scenarios.
//
// data_init works once per process and starts a thread, so every test of the exported API runs its
// body in a forked child with its own temporary root and HOME:
//     TEST(Api, SecondInit) { RUN_SCENARIO({ ... ASSERT_EQ(0, data_init(root.c_str(), "brand")); }); }
// Inside the body, `root` is a fresh directory and HOME points at a fresh directory too. The child's
// assertions print as usual; the parent fails when the child failed, crashed or ran past its bound.
#ifndef VELTO_TEST_SCENARIO_H
#define VELTO_TEST_SCENARIO_H

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace vtest {

// A directory under $TMPDIR removed (recursively) when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string read_file(const std::string& path);  // "" when missing
void write_file(const std::string& path, const std::string& bytes);
bool file_exists(const std::string& path);
long long file_size(const std::string& path);  // -1 when missing

// Polls pred every 10 ms until it holds or timeout_ms passes; returns its last value.
bool wait_until(const std::function<bool()>& pred, int timeout_ms);

// Runs body in a forked child (root = a fresh directory, HOME = another); returns true when the
// child exited 0 within timeout_s seconds. The child is killed past the bound.
bool run_scenario(const std::function<void(const std::string& root)>& body, int timeout_s = 120);

}  // namespace vtest

#define RUN_SCENARIO(...)                                            \
    EXPECT_TRUE(::vtest::run_scenario([&](const std::string& root) { \
        (void)root;                                                  \
        __VA_ARGS__                                                  \
    }))

#endif

// Temporary directories, file helpers and the forked scenario runner of the tests.
#include "scenario.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace vtest {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/velto-test-XXXXXX";
    char* made = mkdtemp(&tmpl[0]);
    path_ = made ? made : "";
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool run_scenario(const std::function<void(const std::string& root)>& body, int timeout_s) {
    TempDir root, home;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        setenv("HOME", home.path().c_str(), 1);
        // Only the child's own failures count: the parent's earlier ones are inherited with the fork.
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        const ::testing::TestResult* result = info ? info->result() : nullptr;
        const int inherited = result ? result->total_part_count() : 0;
        body(root.path());
        bool failed = false;
        for (int i = inherited; result && i < result->total_part_count(); ++i)
            failed = failed || result->GetTestPartResult(i).failed();
        fflush(stdout);
        fflush(stderr);
        _exit(failed ? 1 : 0);
    }
    int status = 0;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "scenario ran past " << timeout_s << " s and was killed";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (WIFSIGNALED(status)) ADD_FAILURE() << "scenario died of signal " << WTERMSIG(status);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace vtest

// Exit safety: a host may leave main or call exit() at any moment (right after data_init, while
// records flow, right after data_stop, without data_stop) while the background thread is inside a
// transfer, and the process must still end with its own status. Each run starts tests/hosts/exit_host
// as a separate process against a loopback collector that holds every transfer open, over HTTPS
// (libcurl and OpenSSL: the configuration fetch) and over the raw-socket client (a batch upload).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "delivery.h"
#include "tls_server.h"

extern char** environ;

// In this process only the loopback HTTPS collector runs (the library runs in the host processes,
// under their own sanitizer runtime). Its many overlapping held connections make ThreadSanitizer
// report what the uninstrumented cpp-httplib and OpenSSL do inside the collector (their buffers and
// descriptors); those reports are not about the code under test, so calls from them are not watched.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\ncalled_from_lib:libssl.so\ncalled_from_lib:libcrypto.so\n";
}

namespace {

const int kHostStatus = 3;     // exit_host's own status
const int kBoundSeconds = 20;  // per run (a run takes about a second); a hung exit is killed
const size_t kMaxHung = 3;     // then the sweep stops, so that a hanging library fails in bounded time
const int kHoldMs = 5000;      // the collector answers no transfer before the host has gone
const char* const kModes[] = {"return", "exit", "stop-return", "stop-exit"};
// Denser where the thread is still setting up its connection (the TLS handshake), where exits are
// most at risk.
const int kDelaysUs[] = {0,    200,  500,   1000,  1500,  2000,   3000,  4000,
                         6000, 8000, 12000, 20000, 50000, 120000, 300000};

std::string host_path() {
    const char* dir = getenv("VELTO_BINARY_DIR");
    return std::string(dir ? dir : "..") + "/tests/hosts/exit_host";
}

// The test's environment with HOME and VELTO_COLLECT_HOST replaced ("" leaves the latter out).
std::vector<std::string> child_environment(const std::string& home, const std::string& collect_host) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (strncmp(*e, "HOME=", 5) != 0 && strncmp(*e, "VELTO_COLLECT_HOST=", 19) != 0) env.push_back(*e);
    }
    env.push_back("HOME=" + home);
    if (!collect_host.empty()) env.push_back("VELTO_COLLECT_HOST=" + collect_host);
    return env;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (std::string& t : texts) out.push_back(&t[0]);
    out.push_back(nullptr);
    return out;
}

// Runs exit_host once and describes how it ended when that was not status 3 ("" when it was).
// hung is set when it had to be killed.
std::string run_host(const std::string& mode, int delay_us, const std::string& collect_host,
                     const std::function<void(const std::string& root)>& prepare, bool& hung) {
    vtest::TempDir root, home;
    prepare(root.path());
    std::vector<std::string> args = {host_path(), root.path(), mode, std::to_string(delay_us)};
    std::vector<std::string> env = child_environment(home.path(), collect_host);
    std::vector<char*> argv = pointers(args), envp = pointers(env);
    const std::string run = mode + " after " + std::to_string(delay_us) + " us: ";
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return run + "fork failed";
    if (pid == 0) {
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kBoundSeconds);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            hung = true;
            return run + "still running after " + std::to_string(kBoundSeconds) + " s, killed";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (WIFSIGNALED(status)) return run + "signal " + std::to_string(WTERMSIG(status));
    if (WEXITSTATUS(status) != kHostStatus) return run + "status " + std::to_string(WEXITSTATUS(status));
    return "";
}

// Every mode after every delay; fails with the number and the list of runs that did not end with 3.
void expect_clean_exits(const std::string& collect_host,
                        const std::function<void(const std::string&)>& prepare) {
    ASSERT_TRUE(vtest::file_exists(host_path())) << host_path();
    std::vector<std::string> bad;
    size_t runs = 0, hung = 0;
    for (int delay_us : kDelaysUs) {
        for (const char* mode : kModes) {
            if (hung >= kMaxHung) break;
            bool killed = false;
            std::string outcome = run_host(mode, delay_us, collect_host, prepare, killed);
            ++runs;
            hung += killed ? 1 : 0;
            if (!outcome.empty()) bad.push_back(outcome);
        }
    }
    std::string list;
    for (const std::string& b : bad) list += "\n  " + b;
    EXPECT_TRUE(bad.empty()) << bad.size() << " of " << runs << " exits went wrong"
                             << (hung >= kMaxHung ? " (sweep stopped at the hung ones)" : "") << ":" << list;
}

TEST(ExitSafety, DuringHttpsConfigurationFetch) {
    vcollect::TlsServer server;
    ASSERT_TRUE(server.ok());
    server.set_delay_ms(kHoldMs);
    expect_clean_exits(server.host_port(), [](const std::string&) {});
    EXPECT_FALSE(server.requests().empty()) << "no fetch reached the collector";
    server.stop();
}

// A fresh configuration (no fetch) that uploads set-aside batches at start over plain HTTP, and one
// such batch waiting: the upload is on the wire while the host leaves.
TEST(ExitSafety, DuringRawSocketUpload) {
    vcollect::RawServer server(vcollect::RawMode::kSilent);
    ASSERT_TRUE(server.ok());
    const std::string url = server.url();
    expect_clean_exits("", [&url](const std::string& root) {
        vtest::write_conf(root, url, {{"SEND_BEGINPOINTS", "ON"}});
        const long long now = Velto::os_time();
        vtest::write_file(root + "/MSG_PRE_{0123456789abcdef0123456789abcdef}" + Velto::Util::ltoa(now),
                          vtest::msg_line(now, R"({"category":"c","dtype":"event"})"));
    });
    EXPECT_FALSE(server.requests().empty()) << "no upload reached the collector";
}

}  // namespace

// Programs of the build run as child processes by the tests that drive the built tools and
// examples (velto-collector, velto-decode, the demo host): where the build is, loopback ports that
// are free, and a child whose output goes to files and which never outlives its test.
#ifndef VELTO_TESTS_CHILD_PROCESS_H
#define VELTO_TESTS_CHILD_PROCESS_H

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "scenario.h"

namespace vtest {

// $VELTO_BINARY_DIR (set by CTest), else the build directory above this test's own.
inline std::string binary_dir() {
    if (const char* dir = getenv("VELTO_BINARY_DIR")) return dir;
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    const std::string path(exe, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind("/tests/"));
}

// n ports, all different, that were free a moment ago on 127.0.0.1.
inline std::vector<int> free_loopback_ports(int n) {
    std::vector<int> fds, ports;
    for (int i = 0; i < n; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
        fds.push_back(fd);
        ports.push_back(ntohs(addr.sin_port));
    }
    for (int fd : fds) close(fd);
    return ports;
}

// A program in a child process, its standard output and error in files (the same file when out ==
// err), env set (an empty value unset) in its environment. Killed if it outlives the object. With own_group,
// it runs in a process group of its own that is asked to end (SIGTERM, 10 s) and then killed as a whole, and
// it dies if the test process dies.
class ChildProcess {
  public:
    ChildProcess(std::vector<std::string> args, const std::string& out, const std::string& err,
                 const std::vector<std::pair<std::string, std::string>>& env = {}, bool own_group = false)
        : own_group_(own_group) {
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        fflush(stdout);
        if ((pid_ = fork()) != 0) {
            if (pid_ > 0 && own_group_) setpgid(pid_, pid_);
            return;
        }
        if (own_group_) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        }
        for (const auto& kv : env)  // an empty value removes the variable
            kv.second.empty() ? unsetenv(kv.first.c_str()) : setenv(kv.first.c_str(), kv.second.c_str(), 1);
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int e = err == out ? o : open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (o >= 0 && e >= 0 && dup2(o, 1) >= 0 && dup2(e, 2) >= 0) execv(argv[0], argv.data());
        _exit(127);
    }
    ~ChildProcess() {
        if (pid_ <= 0) return;
        if (own_group_) {  // also what the program started and left behind
            kill(-pid_, SIGTERM);
            wait(10000);
            kill(-pid_, SIGKILL);
        } else if (status_ < 0) {
            kill(pid_, SIGKILL);
        }
        if (status_ < 0) waitpid(pid_, nullptr, 0);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void signal(int sig) {
        if (pid_ > 0) kill(pid_, sig);  // never kill(-1, ...) after a failed fork
    }
    bool ended() const { return status_ >= 0; }  // reaped by wait()
    int status() const { return status_; }  // the waitpid status once ended(), for WIFSIGNALED and the like
    // The exit status, or -1 when the process is still running after timeout_ms or died of a signal.
    int wait(int timeout_ms) {
        wait_until(
            [this] {
                int st = 0;
                if (status_ < 0 && pid_ > 0 && waitpid(pid_, &st, WNOHANG) == pid_) status_ = st;
                return status_ >= 0;
            },
            timeout_ms);
        return status_ >= 0 && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }

  private:
    bool own_group_;
    pid_t pid_ = -1;
    int status_ = -1;
};

}  // namespace vtest

#endif

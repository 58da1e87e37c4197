// Finding the collector's connections among the process's sockets and cutting the slow ones
// (request_deadlines.h).
#include "request_deadlines.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace vcollect {

namespace {

const int kSweepMs = 500;

// "address port" of an IPv4 or IPv6 socket address, as cpp-httplib shows the peer; "" for others.
std::string address_key(const sockaddr_storage& addr, int& port) {
    char text[INET6_ADDRSTRLEN] = "";
    if (addr.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&addr);
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        port = ntohs(in->sin_port);
    } else if (addr.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&addr);
        inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
        port = ntohs(in6->sin6_port);
    } else {
        return "";
    }
    return std::string(text) + " " + std::to_string(port);
}

std::string peer_key(const std::string& address, int port) {
    return address + " " + std::to_string(port);
}

struct Found {
    int fd;
    ino_t socket;
    std::string peer;
};

// The accepted connections of ports open in this process now (listening sockets left out).
std::vector<Found> served_connections(const std::set<int>& ports) {
    std::vector<Found> found;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return found;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        const long fd = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(dir)) continue;
        struct stat st;
        int listening = 0;
        socklen_t size = sizeof listening;
        if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode) ||
            getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening)
            continue;
        sockaddr_storage local{}, peer{};
        socklen_t local_size = sizeof local, peer_size = sizeof peer;
        int local_port = 0, peer_port = 0;
        if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &local_size) != 0 ||
            address_key(local, local_port).empty() || !ports.count(local_port) ||
            getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &peer_size) != 0)
            continue;
        const std::string key = address_key(peer, peer_port);
        if (!key.empty()) found.push_back(Found{static_cast<int>(fd), st.st_ino, key});
    }
    closedir(dir);
    return found;
}

// Still the same socket: the descriptor may have been closed and reused since it was found.
bool same_socket(int fd, ino_t socket) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode) && st.st_ino == socket;
}

}  // namespace

RequestDeadlines::RequestDeadlines(std::set<int> ports, int limit_s)
    : ports_(std::move(ports)), limit_(std::chrono::seconds(limit_s)), thread_([this] { run(); }) {}

RequestDeadlines::~RequestDeadlines() {
    {
        std::lock_guard<std::mutex> hold(m_);
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void RequestDeadlines::answered(const std::string& address, int port) {
    mark(address, port, false);
}

void RequestDeadlines::streaming(const std::string& address, int port) {
    mark(address, port, true);
}

void RequestDeadlines::mark(const std::string& address, int port, bool exempt) {
    std::lock_guard<std::mutex> hold(m_);
    Connection& c = connections_[peer_key(address, port)];
    c.since = Clock::now();
    c.exempt = exempt;
}

long long RequestDeadlines::cut() const {
    std::lock_guard<std::mutex> hold(m_);
    return cut_;
}

void RequestDeadlines::run() {
    std::unique_lock<std::mutex> hold(m_);
    while (!stop_) {
        hold.unlock();
        try {
            sweep();
        } catch (...) {
            // Out of memory at worst; the next sweep tries again.
        }
        hold.lock();
        wake_.wait_for(hold, std::chrono::milliseconds(kSweepMs), [this] { return stop_; });
    }
}

// Starts the clock of connections seen for the first time, forgets closed ones, cuts late ones.
void RequestDeadlines::sweep() {
    const std::vector<Found> found = served_connections(ports_);
    const Clock::time_point now = Clock::now();
    std::vector<Found> late;
    {
        std::lock_guard<std::mutex> hold(m_);
        std::map<std::string, Connection> open;
        for (const Found& f : found) {
            // A mark made before a sweep saw the connection (socket 0) is its own.
            const auto known = connections_.find(f.peer);
            Connection c;
            if (known != connections_.end() &&
                (known->second.socket == f.socket || known->second.socket == 0))
                c = known->second;
            else
                c.since = now;
            c.socket = f.socket;
            if (!c.exempt && !c.cut && now - c.since > limit_) {
                late.push_back(f);
                c.cut = true;
                ++cut_;
            }
            open[f.peer] = c;
        }
        connections_.swap(open);
    }
    for (const Found& f : late)
        if (same_socket(f.fd, f.socket)) shutdown(f.fd, SHUT_RDWR);
}

}  // namespace vcollect

// The plain-TCP loopback collector: accept thread, one thread per connection, bounded waits
// everywhere so that stop() never hangs on a client that keeps its connection open.
#include "raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

namespace vcollect {

namespace {

const int kTickMs = 50;             // how often blocked threads look at the stop flag
const size_t kMaxHead = 64u << 10;  // a longer head is not from the library
const size_t kMaxBody = 64u << 20;  // nor a larger body
const int kSendTimeoutMs = 2000;

// Waits up to kTickMs for fd to become readable: 1 readable, 0 not yet, -1 error.
int wait_readable(int fd) {
    pollfd p = {fd, POLLIN, 0};
    const int r = poll(&p, 1, kTickMs);
    return r < 0 ? (errno == EINTR ? 0 : -1) : r > 0;
}

// Each send waits at most kSendTimeoutMs for the client to take bytes.
bool send_all(int fd, const std::string& bytes) {
    const timeval limit = {kSendTimeoutMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0 && errno != EINTR) return false;
        sent += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

// Sleeps ms in small steps, ending early when stop is set.
void pause(int ms, const std::atomic<bool>& stop) {
    for (int waited = 0; waited < ms && !stop; waited += 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

std::string http_response(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

size_t content_length(const std::string& head) {
    const unsigned long long n = strtoull(RawRequest{head, ""}.header("Content-Length").c_str(), nullptr, 10);
    return n > kMaxBody ? kMaxBody : static_cast<size_t>(n);
}

}  // namespace

std::string RawRequest::path() const {
    size_t start = head.find(' ');
    if (start == std::string::npos) return "";
    size_t end = head.find(' ', start + 1);
    return head.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
}

// The first header line called name (in any case), its value without the leading blanks.
std::string RawRequest::header(const std::string& name) const {
    for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
        if (strncasecmp(head.c_str() + at + 2, (name + ":").c_str(), name.size() + 1) != 0) continue;
        const size_t start = head.find_first_not_of(' ', at + 3 + name.size());
        return start == std::string::npos ? "" : head.substr(start, head.find("\r\n", start) - start);
    }
    return "";
}

RawServer::RawServer(RawMode mode, const std::string& reply) : mode_(mode), reply_(reply) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    if (listen_fd_ < 0) return;
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 16) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(listen_fd_);
        listen_fd_ = -1;
        return;
    }
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread(&RawServer::accept_loop, this);
}

RawServer::~RawServer() {
    stop();
}

std::string RawServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<RawRequest> RawServer::requests() const {
    std::lock_guard<std::mutex> hold(m_);
    return requests_;
}

bool RawServer::wait_for_requests(size_t n, int timeout_ms) const {
    std::unique_lock<std::mutex> hold(m_);
    return cv_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] { return requests_.size() >= n; });
}

void RawServer::stop() {
    if (stop_.exchange(true)) return;
    if (acceptor_.joinable()) acceptor_.join();
    reap(true);
    if (listen_fd_ >= 0) close(listen_fd_);
    listen_fd_ = -1;
}

void RawServer::accept_loop() {
    while (!stop_) {
        reap(false);
        if (wait_readable(listen_fd_) <= 0) continue;
        int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd < 0) continue;
        ++connections_;
        ++open_;
        std::unique_lock<std::mutex> hold(m_);
        const RawMode mode = mode_;
        const std::string reply = reply_;
        const int delay_ms = delay_ms_;
        hold.unlock();
        auto done = std::make_shared<std::atomic<bool>>(false);
        conns_.push_back(Conn{std::thread([this, fd, mode, reply, delay_ms, done] {
                                  serve(fd, mode, reply, delay_ms);
                                  --open_;
                                  *done = true;
                              }),
                              done});
    }
}

// Joins finished connection threads (all of them when stopping), so a long-running collector does
// not pile them up.
void RawServer::reap(bool all) {
    for (auto it = conns_.begin(); it != conns_.end();) {
        if (all || *it->done) {
            if (it->thread.joinable()) it->thread.join();
            it = conns_.erase(it);
        } else {
            ++it;
        }
    }
}

void RawServer::serve(int fd, RawMode mode, const std::string& reply, int delay_ms) {
    RawRequest req;
    const bool complete = read_request(fd, req);
    if (!req.head.empty()) record(std::move(req));
    if (!complete) {
        close(fd);
        return;
    }
    if (mode == RawMode::kDelayedReply) pause(delay_ms, stop_);
    if (mode == RawMode::kReply || mode == RawMode::kDelayedReply || mode == RawMode::kReplyKeepOpen)
        send_all(fd, http_response(reply));
    if (mode == RawMode::kRawBytes || mode == RawMode::kResetMidReply) send_all(fd, reply);
    if (mode == RawMode::kReplyKeepOpen || mode == RawMode::kSilent) wait_for_close(fd);
    // A slow server, or one that keeps a client busy on purpose: every byte is news, so a client
    // whose time-out restarts on each one would wait for the whole reply.
    for (size_t i = 0; mode == RawMode::kDripFeed && i < reply.size() && !stop_; ++i) {
        if (!send_all(fd, reply.substr(i, 1))) break;
        pause(delay_ms, stop_);
    }
    if (mode == RawMode::kResetMidReply) {  // a zero linger time sends a reset instead of an orderly end
        const linger lg = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    }
    close(fd);
}

// Reads the head through its blank line, then Content-Length bytes. False when the client closed,
// the head ran too long or the server is stopping before the request was whole.
bool RawServer::read_request(int fd, RawRequest& req) {
    std::string data;
    char buf[8192];
    while (!stop_) {
        const size_t head_end = data.find("\r\n\r\n");
        if (head_end != std::string::npos) {
            req.head = data.substr(0, head_end + 4);
            if (data.size() - req.head.size() >= content_length(req.head)) break;
        } else if (data.size() > kMaxHead) {
            break;
        }
        const int ready = wait_readable(fd);
        if (ready < 0) break;
        if (ready == 0) continue;
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        data.append(buf, static_cast<size_t>(n));
    }
    const size_t want = content_length(req.head);  // what has come of the body, also when not all of it
    req.body = req.head.empty() ? "" : data.substr(req.head.size(), want);
    return !req.head.empty() && req.body.size() == want;
}

// Keeps the connection open, discarding anything the client still sends, until it closes.
void RawServer::wait_for_close(int fd) {
    char buf[4096];
    while (!stop_) {
        int ready = wait_readable(fd);
        if (ready < 0) return;
        if (ready == 0) continue;
        if (recv(fd, buf, sizeof buf, 0) <= 0) return;
    }
}

void RawServer::record(RawRequest req) {
    std::unique_lock<std::mutex> hold(m_);
    requests_.push_back(std::move(req));
    hold.unlock();
    cv_.notify_all();
}

}  // namespace vcollect

// The transport's raw-socket HTTP/1.1 client, for plain "http://" URLs: a non-blocking connect,
// the request head and body, and the reply read until the server closes, each phase bounded by the
// request's time-out and the whole by twice that. Also the URL and status-line parsing and the
// address look-up it uses. Background thread; every call owns its socket.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Common.h"
#include "HttpClient.h"
#include "HttpLimits.h"
#include "Log.h"
#include "Thread.h"

namespace Velto {

using namespace http;

namespace {

const char kFormHeader[] = "Content-Type:application/x-www-form-urlencoded\r\n";
const size_t kRecvChunk = 2048;

class Socket {
  public:
    Socket() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

bool set_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL, 0);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Waits for the connection in short steps; readiness counts as connected (a refused connection
// shows up at the first send). poll rather than select: a host with many open files may hand us a
// descriptor beyond FD_SETSIZE, which select cannot take.
bool connect_nonblocking(int fd, const sockaddr_in& addr, unsigned int timeout_ms, const Deadline& deadline) {
    int ret = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    if (ret != 0 && errno != EINPROGRESS) {
        LOGE << "unblock connect server failed: " << errno_text(errno) << ", errno: " << ret << LEND;
        return false;
    }
    const long long start = now_ms();
    for (;;) {
        const int ready = wait_ready(fd, POLLIN | POLLOUT, wait_budget_ms(start, timeout_ms, deadline));
        if (ready < 0) {
            LOGE << "(select) connect server failed!" << LEND;
            return false;
        }
        if (ready > 0) return true;
        if (timed_out(start, timeout_ms) || deadline.passed()) break;
    }
    LOGE << "(select) connect server timeout!" << LEND;
    return false;
}

bool connect_blocking(int fd, const sockaddr_in& addr) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return true;
    LOGE << "block connect server failed!" << LEND;
    return false;
}

// The request head. When the body text runs past body_len, the whole text goes into the head and
// send_body is cleared (older callers relied on it); otherwise body_len bytes follow separately.
// REQUIRES: a body of that kind is zero-terminated; any other body has body_len + 1 readable bytes.
std::string build_head(const std::string& host, const std::string& path, const RequestParam* param,
                       bool& send_body) {
    send_body = false;
    std::string head;
    head.reserve(384);
    head += (param && param->post) ? "POST " : "GET ";
    head += path;
    head += " HTTP/1.1\r\nhost:";
    head += host;
    head += "\r\nUser-Agent:Mozilla/5.0 (compatible; MSIE 9.0; Windows NT 6.1; Trident/5.0)\r\n";
    if (param && param->header && starts_with(param->header, "Content-Type:"))
        head += param->header;
    else
        head += kFormHeader;
    head += "Accept:text/html,application/xhtml+xml,*/*\r\nConnection:close\r\n";
    if (param == nullptr) return head + "\r\n";
    char length[48];
    snprintf(length, sizeof length, "Content-Length:%d\r\n\r\n", param->body_len);
    head += length;
    if (param->body) {
        size_t len = param->body_len > 0 ? static_cast<size_t>(param->body_len) : 0;
        if (strnlen(param->body, len + 1) > len)
            head += param->body;
        else
            send_body = len > 0;
    }
    return head;
}

struct SendTexts {
    const char* timeout;
    const char* failed_errno;
    const char* failed;
};
const SendTexts kHeadTexts = {"send head timeout! error: EWOULDBLOCK",
                              "send head failed! error: ", "send head failed!"};
const SendTexts kDataTexts = {"send data timeout! error: 10035",
                              "send data failed! error: ", "send data failed!"};

bool send_all(int fd, const char* data, size_t len, unsigned int timeout_ms, const Deadline& deadline,
              const SendTexts& texts) {
    size_t sent = 0;
    long long last = now_ms();
    while (sent < len) {
        ssize_t n = send(fd, data + sent, len - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            last = now_ms();
            continue;
        }
        if (n == 0) {
            LOGE << texts.failed << LEND;
            return false;
        }
        int err = errno;
        if (err == EINTR) continue;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            LOGE << texts.failed_errno << errno_text(err) << LEND;
            return false;
        }
        if (timed_out(last, timeout_ms) || deadline.passed()) {
            LOGE << texts.timeout << LEND;
            return false;
        }
        wait_ready(fd, POLLOUT, wait_budget_ms(last, timeout_ms, deadline));
    }
    return true;
}

// Reads until the server closes. Each chunk is taken as text (a zero byte cuts that chunk). A chunk
// restarts the quiet-time timer, but not the deadline: a server that drips bytes is cut off too.
bool recv_all(int fd, std::string& reply, const RequestParam* param, const Deadline& deadline) {
    reply.clear();
    char buf[kRecvChunk + 1];
    long long last = now_ms();
    for (;;) {
        ssize_t n = recv(fd, buf, kRecvChunk, 0);
        if (n > 0) {
            buf[n] = 0;
            reply += buf;
            if (reply.size() > kMaxReply) {
                LOGE << "recv failed! reply larger than " << kMaxReply << LEND;
                return false;
            }
            last = now_ms();
            if (deadline.passed()) {
                LOGE << "recv timeout! error: " << errno_text(ETIMEDOUT) << LEND;
                return false;
            }
            continue;
        }
        if (n == 0) return true;
        int err = errno;
        if (err == EINTR) continue;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            // The text is fixed whatever the error; the server side reads these lines as they are.
            LOGE << "recv failed! error: EWOULDBLOCK" << LEND;
            return false;
        }
        if ((param && timed_out(last, param->timeout_ms)) || deadline.passed()) {
            LOGE << "recv timeout! error: " << errno_text(err) << LEND;
            return false;
        }
        wait_ready(
            fd, POLLIN,
            param ? wait_budget_ms(last, param->timeout_ms, deadline) : static_cast<int>(deadline.left_ms()));
    }
}

// Connects, sends the head (and the body), and reads the reply until the server closes.
bool exchange(int fd, const std::string& host, int port, const std::string& path, const RequestParam* param,
              std::string& reply) {
    std::string ip;
    GetRealIP(host, ip);
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(ip.c_str());
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const unsigned int timeout_ms = param ? param->timeout_ms : 0;
    const Deadline deadline(timeout_ms);
    const bool connected = (param && param->block) ? connect_blocking(fd, addr)
                                                   : connect_nonblocking(fd, addr, timeout_ms, deadline);
    if (!connected) return false;
    bool send_body = false;
    const std::string head = build_head(host, path, param, send_body);
    if (!send_all(fd, head.data(), head.size(), timeout_ms, deadline, kHeadTexts)) return false;
    if (send_body &&
        !send_all(fd, param->body, static_cast<size_t>(param->body_len), timeout_ms, deadline, kDataTexts))
        return false;
    return recv_all(fd, reply, param, deadline);
}
}  // namespace

long http_status_of(const std::string& reply) {
    // "HTTP/1.1 200 OK": the three digits after the first blank of the status line.
    if (reply.compare(0, 5, "HTTP/") != 0) return 0;
    const size_t blank = reply.find(' ');
    if (blank == std::string::npos || blank > 16 || reply.size() < blank + 4) return 0;
    long code = 0;
    for (size_t i = blank + 1; i < blank + 4; ++i) {
        if (reply[i] < '0' || reply[i] > '9') return 0;
        code = code * 10 + (reply[i] - '0');
    }
    return code;
}

bool parse_http_url(const std::string& url, std::string& host, int& port, std::string& path) {
    static const size_t kScheme = 7;  // "http://"
    if (url.compare(0, kScheme, "http://") != 0) {
        LOGE << "err url head: " << url << LEND;
        return false;
    }
    // The search starts one byte into the host, so the host is never empty.
    const size_t colon = url.find(':', kScheme + 1);
    const size_t slash = url.find('/', kScheme + 1);
    port = 80;
    path = "/";
    if (colon == std::string::npos && slash == std::string::npos) {
        host = url.substr(kScheme);
    } else if (slash == std::string::npos) {
        host = url.substr(kScheme, colon - kScheme);
        port = atoi(url.c_str() + colon + 1);
    } else if (colon == std::string::npos || colon > slash) {
        host = url.substr(kScheme, slash - kScheme);
        path = url.substr(slash);
    } else {
        host = url.substr(kScheme, colon - kScheme);
        port = atoi(url.substr(colon + 1, slash - colon - 1).c_str());
        path = url.substr(slash);
    }
    return true;
}

bool http_client(const char* url, std::string& reply, RequestParam* param) {
    try {
        if (param && param->declined && param->declined())
            return false;  // no request for a user who declined
        if (url == nullptr) {
            LOGE << "null url" << LEND;
            return false;
        }
        Socket sock;
        if (sock.fd() < 0) {
            LOGE << "create socket" << LEND;
            return false;
        }
        if (param && !param->block) set_nonblocking(sock.fd());
        std::string host, path;
        int port = 0;
        if (!parse_http_url(url, host, port, path)) return false;
        return exchange(sock.fd(), host, port, path, param, reply);
    } catch (...) {
        LOGE << "Exception, http_client" << LEND;
        return false;
    }
}

bool GetRealIP(const std::string& host, std::string& ip) {
    ip = host;
    if (inet_addr(host.c_str()) != INADDR_NONE) return true;
    // getaddrinfo instead of gethostbyname: same first IPv4 address, without the shared result.
    addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return false;
    char text[INET_ADDRSTRLEN] = {0};
    const sockaddr_in* addr = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    const bool ok = inet_ntop(AF_INET, &addr->sin_addr, text, sizeof text) != nullptr;
    freeaddrinfo(found);
    if (ok) ip = text;
    return ok;
}

}  // namespace Velto

// The browser test's WebSocket client; see websocket.h.
#include "websocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "Zip.h"

namespace vbrowser {

namespace {

const size_t kMaxHandshake = 16u << 10;
const char kAcceptGuid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

enum Opcode { kContinuation = 0, kText = 1, kBinary = 2, kClose = 8, kPing = 9, kPong = 10 };

int ms_left(Deadline deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

std::string base64(const std::string& bytes) {
    return Velto::base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<unsigned>(bytes.size()));
}

std::string random_bytes(size_t n) {
    static std::random_device seed;
    static std::mt19937 gen(seed());
    std::string out(n, '\0');
    for (char& c : out) c = static_cast<char>(gen());
    return out;
}

// The Sec-WebSocket-Accept value a server must answer to key.
std::string expected_accept(const std::string& key) {
    const std::string text = key + kAcceptGuid;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(text.data(), text.size(), digest, &n, EVP_sha1(), nullptr);
    return base64(std::string(reinterpret_cast<char*>(digest), n));
}

// The value of a response header, found case-insensitively by name; "" when absent.
std::string header_value(const std::string& head, const std::string& name) {
    size_t at = head.find("\r\n");
    while (at != std::string::npos && at + 2 < head.size()) {
        const size_t begin = at + 2, end = head.find("\r\n", begin);
        const std::string line =
            head.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
        const size_t colon = line.find(':');
        if (colon == name.size() && strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            const size_t value = line.find_first_not_of(' ', colon + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
        at = end;
    }
    return "";
}

}  // namespace

WebSocket::~WebSocket() {
    close();
}

void WebSocket::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    in_.clear();
}

bool WebSocket::connect(int port, const std::string& path, Deadline deadline, std::string& why) {
    close();
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        why = "cannot connect to 127.0.0.1:" + std::to_string(port);
        return false;
    }
    const int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const std::string key = base64(random_bytes(16));
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                                "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " + key +
                                "\r\nSec-WebSocket-Version: 13\r\n\r\n";
    if (!write_all(request.data(), request.size(), deadline)) {
        why = "the handshake could not be sent";
        return false;
    }
    size_t end;
    while ((end = in_.find("\r\n\r\n")) == std::string::npos) {
        if (in_.size() > kMaxHandshake || !fill(deadline)) {
            why = "no complete handshake answer: " + in_.substr(0, 200);
            return false;
        }
    }
    const std::string head = in_.substr(0, end + 2);
    in_.erase(0, end + 4);  // anything after the head is already frame data
    if (head.compare(0, 12, "HTTP/1.1 101") != 0 ||
        header_value(head, "Sec-WebSocket-Accept") != expected_accept(key)) {
        why = "the server refused the upgrade: " + head.substr(0, 200);
        return false;
    }
    return true;
}

bool WebSocket::fill(Deadline deadline) {
    if (fd_ < 0) return false;
    for (;;) {
        pollfd p{fd_, POLLIN, 0};
        const int ready = poll(&p, 1, ms_left(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        char buf[65536];
        const ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        in_.append(buf, static_cast<size_t>(n));
        return true;
    }
}

bool WebSocket::read_exact(char* out, size_t n, Deadline deadline) {
    while (in_.size() < n)
        if (!fill(deadline)) return false;
    in_.copy(out, n);
    in_.erase(0, n);
    return true;
}

bool WebSocket::write_all(const char* data, size_t n, Deadline deadline) {
    while (fd_ >= 0 && n > 0) {
        pollfd p{fd_, POLLOUT, 0};
        const int ready = poll(&p, 1, ms_left(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t sent = send(fd_, data, n, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        data += sent;
        n -= static_cast<size_t>(sent);
    }
    return n == 0;
}

// A client's frames are always masked (the server must refuse unmasked ones).
bool WebSocket::send_frame(int opcode, const std::string& payload, Deadline deadline) {
    std::string frame(1, static_cast<char>(0x80 | opcode));
    const uint64_t n = payload.size();
    if (n < 126) {
        frame += static_cast<char>(0x80 | n);
    } else if (n <= 0xFFFF) {
        frame += static_cast<char>(0x80 | 126);
        for (int shift = 8; shift >= 0; shift -= 8) frame += static_cast<char>(n >> shift);
    } else {
        frame += static_cast<char>(0x80 | 127);
        for (int shift = 56; shift >= 0; shift -= 8) frame += static_cast<char>(n >> shift);
    }
    const std::string mask = random_bytes(4);
    frame += mask;
    for (size_t i = 0; i < payload.size(); ++i) frame += static_cast<char>(payload[i] ^ mask[i % 4]);
    return write_all(frame.data(), frame.size(), deadline);
}

bool WebSocket::send_text(const std::string& text, Deadline deadline) {
    return send_frame(kText, text, deadline);
}

bool WebSocket::receive(std::string& message, Deadline deadline) {
    message.clear();
    bool in_message = false;
    for (;;) {
        unsigned char head[2];
        if (!read_exact(reinterpret_cast<char*>(head), 2, deadline)) return false;
        const bool fin = head[0] & 0x80;
        const int opcode = head[0] & 0x0F;
        uint64_t length = head[1] & 0x7F;
        if (length >= 126) {
            unsigned char ext[8];
            const size_t bytes = length == 126 ? 2 : 8;
            if (!read_exact(reinterpret_cast<char*>(ext), bytes, deadline)) return false;
            length = 0;
            for (size_t i = 0; i < bytes; ++i) length = (length << 8) | ext[i];
        }
        const bool control = opcode >= kClose;
        if ((control && (length > 125 || !fin)) || length > kMaxMessage - message.size()) return false;
        char mask[4] = {0, 0, 0, 0};
        if ((head[1] & 0x80) && !read_exact(mask, 4, deadline)) return false;
        std::string payload(static_cast<size_t>(length), '\0');
        if (!read_exact(&payload[0], payload.size(), deadline)) return false;
        for (size_t i = 0; i < payload.size(); ++i) payload[i] ^= mask[i % 4];

        if (opcode == kPing) {
            if (!send_frame(kPong, payload, deadline)) return false;
        } else if (opcode == kClose) {
            return false;
        } else if (opcode == kText || opcode == kBinary || opcode == kContinuation) {
            if ((opcode == kContinuation) != in_message) return false;  // a fragment out of place
            message += payload;
            in_message = !fin;
            if (fin) return true;
        } else if (opcode != kPong) {
            return false;  // reserved opcode
        }
    }
}

}  // namespace vbrowser

// A minimal WebSocket client (RFC 6455) for talking to a local headless browser's DevTools endpoint
// in the browser test: the opening handshake, masked text frames out, whole messages in (fragments
// joined, pings answered). Every read and write is bounded by a deadline and every message by a size.
#ifndef VELTO_TEST_BROWSER_WEBSOCKET_H
#define VELTO_TEST_BROWSER_WEBSOCKET_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vbrowser {

typedef std::chrono::steady_clock::time_point Deadline;

inline Deadline deadline_in(int ms) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
}

class WebSocket {
  public:
    // A DevTools screenshot of a large page comes as one message of a few megabytes.
    static const size_t kMaxMessage = 64u << 20;

    WebSocket() = default;
    ~WebSocket();
    WebSocket(const WebSocket&) = delete;
    WebSocket& operator=(const WebSocket&) = delete;

    // Connects to ws://127.0.0.1:port<path> and completes the handshake; why says what failed.
    bool connect(int port, const std::string& path, Deadline deadline, std::string& why);
    bool send_text(const std::string& text, Deadline deadline);
    // The next whole text (or binary) message. False on timeout, a close frame, a broken frame or a
    // message above kMaxMessage; the connection is then unusable.
    bool receive(std::string& message, Deadline deadline);
    void close();

  private:
    bool send_frame(int opcode, const std::string& payload, Deadline deadline);
    bool write_all(const char* data, size_t n, Deadline deadline);
    bool read_exact(char* out, size_t n, Deadline deadline);
    bool fill(Deadline deadline);  // reads what the socket has into in_, waiting until the deadline

    int fd_ = -1;
    std::string in_;  // bytes received and not yet taken
};

}  // namespace vbrowser

#endif

// A loopback HTTP collector over plain TCP, for the tests: it listens on
// 127.0.0.1 with an ephemeral port, records the exact bytes of every request (the head, then
// Content-Length bytes of body) and answers the way it is told to, including the ways a broken or
// hostile server would. One accept thread and one thread per connection; every accessor is
// thread-safe. stop() (and the destructor) returns within about a tenth of a second.
#ifndef VELTO_TESTS_RAW_SERVER_H
#define VELTO_TESTS_RAW_SERVER_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vcollect {

struct RawRequest {
    std::string head;  // request line and header lines, through the blank line
    std::string body;  // Content-Length bytes (fewer when the client stopped early)

    std::string bytes() const { return head + body; }
    std::string path() const;                           // as written on the request line
    std::string header(const std::string& name) const;  // case-insensitive name; "" when absent
};

enum class RawMode {
    kReply,          // a minimal HTTP/1.1 200 response around the reply body, then close
    kReplyKeepOpen,  // the same response, then keep the connection open until the client closes
    kSilent,         // read the request and never answer; keep the connection open
    kDelayedReply,   // wait delay_ms, then as kReply
    kClose,          // close right after reading the request, answering nothing
    kRawBytes,       // send the reply body exactly as given (no HTTP framing), then close
    kResetMidReply,  // send the reply body exactly as given, then reset the connection
    kDripFeed,       // send the reply body exactly as given one byte every delay_ms, then close
};

class RawServer {
  public:
    explicit RawServer(RawMode mode = RawMode::kReply, const std::string& reply = "{\"status\":0}");
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    bool ok() const { return port_ > 0; }  // listening
    int port() const { return port_; }
    std::string url(const std::string& path = "") const;  // "http://127.0.0.1:<port>" + path

    // Apply to connections accepted afterwards.
    void set_mode(RawMode mode) { set(mode_, mode); }
    void set_reply(const std::string& body) { set(reply_, body); }
    void set_delay_ms(int ms) { set(delay_ms_, ms); }

    std::vector<RawRequest> requests() const;
    size_t connections() const { return connections_; }  // accepted so far
    size_t open_connections() const { return open_; }    // accepted and not yet closed
    // Waits (bounded) until at least n requests were recorded.
    bool wait_for_requests(size_t n, int timeout_ms) const;

    void stop();

  private:
    struct Conn {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    template <class T>
    void set(T& field, const T& value) {
        std::lock_guard<std::mutex> hold(m_);
        field = value;
    }
    void accept_loop();
    void serve(int fd, RawMode mode, const std::string& reply, int delay_ms);
    bool read_request(int fd, RawRequest& req);
    void wait_for_close(int fd);
    void record(RawRequest req);
    void reap(bool all);

    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<size_t> connections_{0};
    std::atomic<size_t> open_{0};
    std::thread acceptor_;
    std::list<Conn> conns_;  // touched by the accept thread and stop() only

    mutable std::mutex m_;
    mutable std::condition_variable cv_;
    RawMode mode_;
    std::string reply_;
    int delay_ms_ = 0;
    std::vector<RawRequest> requests_;
};

}  // namespace vcollect

#endif

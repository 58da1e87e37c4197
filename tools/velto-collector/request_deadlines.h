// The bound on each request's time: a connection to one of the collector's ports gets at most
// limit seconds from its start, or from the reply to its previous request on a kept-alive
// connection, until its next reply is written (TLS handshake, request line, headers and body
// included). cpp-httplib bounds each read, not their sum, so a client that trickles one byte a
// second would hold a worker for as long as it likes; a thread of its own here finds such
// connections among the process's sockets twice a second and shuts them down. Event streams are
// exempt once their request has been read. Safe on any thread.
#ifndef VELTO_COLLECTOR_REQUEST_DEADLINES_H
#define VELTO_COLLECTOR_REQUEST_DEADLINES_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace vcollect {

class RequestDeadlines {
  public:
    RequestDeadlines(std::set<int> ports, int limit_s);
    ~RequestDeadlines();
    RequestDeadlines(const RequestDeadlines&) = delete;
    RequestDeadlines& operator=(const RequestDeadlines&) = delete;

    // The request of the connection from address:port was answered; its next one gets a whole bound.
    void answered(const std::string& address, int port);
    // The connection from address:port serves an event stream from now on, without a bound.
    void streaming(const std::string& address, int port);
    long long cut() const;  // connections shut down so far

  private:
    typedef std::chrono::steady_clock Clock;
    struct Connection {
        ino_t socket = 0;  // the socket's inode: a new connection from the same address and port differs
        Clock::time_point since;
        bool exempt = false;
        bool cut = false;
    };
    void run();
    void sweep();
    void mark(const std::string& address, int port, bool exempt);

    const std::set<int> ports_;
    const Clock::duration limit_;
    mutable std::mutex m_;
    std::map<std::string, Connection> connections_;  // by the peer's "address port"
    long long cut_ = 0;
    bool stop_ = false;
    std::condition_variable wake_;
    std::thread thread_;
};

}  // namespace vcollect

#endif

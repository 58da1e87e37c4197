// The live feed of velto-collector (GET /api/stream): server-sent events to every connected page.
// main.cpp publishes each stored record and request; each client has its own bounded queue, and a
// client that falls behind is dropped rather than letting the queue grow. close() ends every stream
// at once, so that the servers can stop while pages are still connected. Safe on any thread.
#ifndef VELTO_COLLECTOR_EVENT_STREAM_H
#define VELTO_COLLECTOR_EVENT_STREAM_H

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace vcollect {

class EventHub {
  public:
    struct Limits {
        size_t clients = 16;             // more streams at once get 503
        size_t queued_bytes = 4u << 20;  // a client with more waiting is dropped
        int ping_seconds = 15;           // ": ping" after this long without an event
    };
    // note receives readable lines about clients (dropped, refused) for the terminal.
    EventHub(Limits limits, std::function<void(const std::string&)> note);

    // Queues "event: name\ndata: data\n\n" for every client; data must be one line.
    void publish(const std::string& name, const std::string& data);
    // Streams open now.
    size_t open_streams();
    // Ends every stream and refuses new ones.
    void close();
    // Answers GET /api/stream: registers the client and streams until it goes away or close().
    void serve(const httplib::Request& req, httplib::Response& res);

  private:
    struct Client;
    bool pump(Client& client, const std::function<bool(const std::string&)>& write,
              const std::function<bool()>& writable);
    void forget(const std::shared_ptr<Client>& client);

    const Limits limits_;
    const std::function<void(const std::string&)> note_;
    std::mutex m_;
    std::condition_variable wake_;
    std::vector<std::shared_ptr<Client>> clients_;
    bool closed_ = false;
};

}  // namespace vcollect

#endif

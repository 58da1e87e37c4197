// Server-sent events for velto-collector's page, on cpp-httplib's chunked content provider. Each
// connected page holds one of the server's worker threads, which waits here for events.
#include "event_stream.h"

#include <httplib.h>

#include <chrono>
#include <deque>
#include <utility>

namespace vcollect {

struct EventHub::Client {
    std::string peer;
    std::deque<std::string> queue;
    size_t queued_bytes = 0;
    bool dropped = false;  // fell behind: its stream ends at the next wake-up
    bool greeted = false;
    std::chrono::steady_clock::time_point last_write = std::chrono::steady_clock::now();
};

EventHub::EventHub(Limits limits, std::function<void(const std::string&)> note)
    : limits_(limits), note_(std::move(note)) {}

void EventHub::publish(const std::string& name, const std::string& data) {
    const std::string event = "event: " + name + "\ndata: " + data + "\n\n";
    std::vector<std::string> dropped;
    {
        std::lock_guard<std::mutex> hold(m_);
        for (const auto& c : clients_) {
            if (c->dropped) continue;
            if (c->queued_bytes + event.size() > limits_.queued_bytes) {
                c->dropped = true;
                c->queue.clear();
                c->queued_bytes = 0;
                dropped.push_back(c->peer);
                continue;
            }
            c->queue.push_back(event);
            c->queued_bytes += event.size();
        }
    }
    wake_.notify_all();
    for (const std::string& peer : dropped)
        note_("event stream to " + peer + " dropped: the client does not keep up");
}

size_t EventHub::open_streams() {
    std::lock_guard<std::mutex> hold(m_);
    return clients_.size();
}

void EventHub::close() {
    {
        std::lock_guard<std::mutex> hold(m_);
        closed_ = true;
    }
    wake_.notify_all();
}

void EventHub::forget(const std::shared_ptr<Client>& client) {
    std::lock_guard<std::mutex> hold(m_);
    for (auto it = clients_.begin(); it != clients_.end(); ++it) {
        if (*it == client) {
            clients_.erase(it);
            return;
        }
    }
}

// One turn of a stream: writes what is queued, a ping when it has been quiet, or nothing. False ends
// the stream (closed, dropped, or the client went away).
bool EventHub::pump(Client& client, const std::function<bool(const std::string&)>& write,
                    const std::function<bool()>& writable) {
    std::string out;
    {
        std::unique_lock<std::mutex> hold(m_);
        if (!client.greeted) {
            client.greeted = true;
            out = ": connected\n\n";  // lets the client know it is subscribed
        } else {
            // Short waits, so that a client that closed its end is noticed without an event to send.
            wake_.wait_for(hold, std::chrono::seconds(1),
                           [&] { return closed_ || client.dropped || !client.queue.empty(); });
        }
        if (closed_ || client.dropped) return false;
        for (const std::string& e : client.queue) out += e;
        client.queue.clear();
        client.queued_bytes = 0;
    }
    const auto now = std::chrono::steady_clock::now();
    if (out.empty()) {
        if (now - client.last_write < std::chrono::seconds(limits_.ping_seconds)) return writable();
        out = ": ping\n\n";
    }
    client.last_write = now;
    return write(out);
}

void EventHub::serve(const httplib::Request& req, httplib::Response& res) {
    auto client = std::make_shared<Client>();
    client->peer = req.remote_addr + ":" + std::to_string(req.remote_port);
    std::string refused;
    {
        std::lock_guard<std::mutex> hold(m_);
        if (closed_)
            refused = "the collector is stopping";
        else if (clients_.size() >= limits_.clients)
            refused = "too many event streams at once (" + std::to_string(limits_.clients) + ")";
        else
            clients_.push_back(client);
    }
    if (!refused.empty()) {
        note_("event stream to " + client->peer + " refused: " + refused);
        res.status = 503;
        res.set_content("{\"error\":\"" + refused + "\"}", "application/json");
        return;
    }
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, client](size_t, httplib::DataSink& sink) {
            return pump(
                *client, [&sink](const std::string& s) { return sink.write(s.data(), s.size()); },
                [&sink] { return sink.is_writable(); });
        },
        [this, client](bool) { forget(client); });
}

}  // namespace vcollect

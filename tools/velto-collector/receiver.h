// velto-collector's receiving side: the routes of the library's requests (POST /v1/conf, /v1/data,
// /v1/file) on an HTTP or HTTPS server. Each request is decoded (ingestion.h), stored (store.h) and
// only then answered {"status":0}, so that the library deletes a batch only once it is committed; a
// database that fails or does not answer in time gets 503 and the library keeps the batch. Stored
// requests are then printed, appended to the --records file and sent to the page's event streams.
// Runs on the servers' worker threads; safe on any thread.
#ifndef VELTO_COLLECTOR_RECEIVER_H
#define VELTO_COLLECTOR_RECEIVER_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "event_stream.h"
#include "ingestion.h"
#include "store.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace vcollect {

struct ReceiverSettings {
    FILE* records = nullptr;           // the --records file, null without it
    size_t max_body = 64u << 20;       // larger bodies are refused
    bool trust_forwarded_for = false;  // the client's address from X-Forwarded-For on plain HTTP
};

// The /v1/conf reply for a brand ("" when the request names none).
typedef std::function<std::string(const std::string& brand)> ConfReply;

class Collector {
  public:
    Collector(ReceiverSettings settings, ConfReply conf, Store& store, EventHub& hub);

    // Answers one upload or configuration request whose body was read whole; never throws.
    // started_ms (steady clock) is when its handler began, for the duration in the log.
    void serve(const std::string& scheme, const httplib::Request& req, const std::string& body,
               const std::vector<FormPart>& parts, size_t bytes_read, int64_t started_ms,
               httplib::Response& res);
    // Answers with an error, logs it and stores the request with result "bad: <why>".
    void reject(const std::string& scheme, const httplib::Request& req, const std::string& why,
                httplib::Response& res, int status = 400, size_t bytes_read = 0, int64_t started_ms = -1);
    // Logs an API request answered with 400 (not stored: the store keeps uploads).
    void report_bad_query(const std::string& scheme, const httplib::Request& req, const std::string& why);
    // The records by kind and the requests by result, logged at shutdown.
    void print_summary();
    // The counters of /metrics, in the Prometheus text format.
    std::string metrics();

    const ReceiverSettings& settings() const { return settings_; }

  private:
    void publish(const Output& out, const RequestRow& request, bool repeat, int64_t started_ms);
    void count(const std::string& endpoint, const std::string& result);
    void print_bad_request(const std::string& scheme, const httplib::Request& req, const std::string& why,
                           int status, size_t bytes_read, int64_t started_ms);
    RequestRow request_row(const std::string& scheme, const httplib::Request& req, size_t bytes_read) const;
    bool store(RequestRow& request, Output& out, bool& repeat);

    const ReceiverSettings settings_;
    const ConfReply conf_;
    Store& store_;
    EventHub& hub_;
    std::mutex m_;  // guards everything below, the three output streams and the order of published events
    std::map<std::string, long long> kinds_;
    std::map<std::pair<std::string, std::string>, long long> requests_;  // (endpoint, result) -> count
    long long records_stored_ = 0;
    long long unreadable_ = 0;
};

// Adds the POST routes of the library and a JSON 404 for everything else; after install_api.
void install_routes(httplib::Server& server, Collector& collector, const std::string& scheme);

}  // namespace vcollect

#endif

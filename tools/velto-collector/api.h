// velto-collector's JSON API and page, served on its plain-HTTP port for the page kept open beside
// the application under test: GET / (the embedded page), /api/records, /api/requests, /api/stats,
// /api/timeline and /api/stream (server-sent events). main.cpp installs the routes and publishes
// through the same JSON forms (record_json, request_json) on the stream.
#ifndef VELTO_COLLECTOR_API_H
#define VELTO_COLLECTOR_API_H

#include <functional>
#include <string>

#include "event_stream.h"
#include "store.h"

namespace httplib {
class Server;
struct Request;
}  // namespace httplib

namespace vcollect {

// {"id":N,"time":MS,"kind":"...",...,"request":N,"record":{...}} on one line.
std::string record_json(const RecordRow& r);
// {"id":N,"time":MS,"endpoint":"...","peer":"...","scheme":"...","bytes":N,"result":"...",...} on one line.
std::string request_json(const RequestRow& r);

// Called with a readable reason for every API request answered with 400, for the terminal.
typedef std::function<void(const httplib::Request&, const std::string&)> BadQueryReport;

// Adds GET /, /favicon.ico and /api/* to server; they must come before any catch-all route.
void install_api(httplib::Server& server, Store& store, EventHub& hub, BadQueryReport report);

}  // namespace vcollect

#endif

// The collector's HTTP servers as main.cpp starts them (listeners.cpp).
#ifndef VELTO_COLLECTOR_LISTENERS_H
#define VELTO_COLLECTOR_LISTENERS_H

#include <httplib.h>

#include <memory>
#include <string>

#include "options.h"
#include "receiver.h"
#include "request_deadlines.h"
#include "store.h"

namespace vcollect {

// The HTTPS server on --cert/--key as given, or on the pair in --cert-dir, (re)made when unusable;
// null (the problem printed) when there is no usable pair.
std::unique_ptr<httplib::SSLServer> make_tls_server(const Options& opt);
// Each connection a worker of its own from a pool of --max-connections, closed when quiet for
// --read-timeout; each request bounded by --request-timeout in all (deadlines).
void set_limits(httplib::Server& server, const Options& opt, RequestDeadlines& deadlines);
// GET /healthz (200 when the database answers, else 503) and GET /metrics.
void install_operations(httplib::Server& server, Collector& collector, Store& store);
// Binds address:port with a wide backlog; false (the problem printed) when it cannot.
bool bind_listener(httplib::Server& server, const std::string& address, int port);

}  // namespace vcollect

#endif

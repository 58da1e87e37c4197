// The collector's HTTP servers as main.cpp starts them: the HTTPS server and its certificate, the
// limits that keep slow clients from holding the workers, the operations routes (/healthz,
// /metrics) and the listening socket with a backlog fit for bursts of new connections.
#include "listeners.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>

#include "log_lines.h"
#include "self_signed_cert.h"

namespace vcollect {

namespace {

const int kListenBacklog = 1024;  // connections the kernel holds until they are accepted

// cpp-httplib (Debian builds it as a shared library) listens with a backlog of 5: a burst of new
// connections would see dropped SYNs and wait a second or more each. Linux lets listen() be called
// again on a listening socket to change it; the server keeps its socket to itself, so it is found by
// its port.
void widen_backlog(int port) {
    for (int fd = 3; fd < 4096; ++fd) {
        int accepting = 0;
        socklen_t size = sizeof accepting;
        sockaddr_storage addr{};
        socklen_t addr_size = sizeof addr;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &size) != 0 || !accepting ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &addr_size) != 0)
            continue;
        const int bound = addr.ss_family == AF_INET ? ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port)
                          : addr.ss_family == AF_INET6
                              ? ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port)
                              : -1;
        if (bound == port) listen(fd, kListenBacklog);
    }
}

}  // namespace

// The HTTPS server on --cert/--key as given, or on the pair in --cert-dir, (re)made when unusable.
std::unique_ptr<httplib::SSLServer> make_tls_server(const Options& opt) {
    if (!opt.cert.empty()) {
        std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(opt.cert.c_str(), opt.key.c_str()));
        if (!server->is_valid())
            log_start_problem("error", "cannot use the certificate " + opt.cert + " with the key " + opt.key);
        return server->is_valid() ? std::move(server) : nullptr;
    }
    const std::string cert = opt.cert_dir + "/cert.pem", key = opt.cert_dir + "/key.pem";
    std::error_code ec;
    std::filesystem::create_directories(opt.cert_dir, ec);
    if (std::filesystem::exists(cert, ec) && std::filesystem::exists(key, ec)) {
        std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(cert.c_str(), key.c_str()));
        if (server->is_valid()) return server;
        log_start_problem("warn", cert + " or " + key + " is unusable; making a new pair");
    }
    if (!make_self_signed_cert(cert, key)) {
        log_start_problem("error", "cannot write a certificate to " + opt.cert_dir);
        return nullptr;
    }
    LogLine("info", "certificate")
        .add("dir", opt.cert_dir)
        .write(stdout,
               "velto-collector: made a self-signed certificate for 127.0.0.1 in " + opt.cert_dir + "\n");
    std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(cert.c_str(), key.c_str()));
    return server->is_valid() ? std::move(server) : nullptr;
}

// Limits that keep slow or idle clients from holding the workers: each connection has a worker of
// its own from a pool of max_connections, is closed when it stays quiet for read_timeout_s (the TLS
// handshake included), and each of its requests has request_timeout_s in all (deadlines).
void set_limits(httplib::Server& server, const Options& opt, RequestDeadlines& deadlines) {
    const size_t workers = static_cast<size_t>(opt.max_connections);
    server.new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
    server.set_read_timeout(opt.read_timeout_s, 0);
    server.set_write_timeout(opt.read_timeout_s, 0);
    server.set_keep_alive_timeout(2);
    server.set_keep_alive_max_count(100);
    // A reply goes out in several writes; without this, Nagle's algorithm and the client's delayed
    // ACK hold every reply on a kept-alive connection for 40 ms.
    server.set_tcp_nodelay(true);
    server.set_logger([&deadlines](const httplib::Request& req, const httplib::Response&) {
        deadlines.answered(req.remote_addr, req.remote_port);
    });
    // An event stream lasts as long as its page: once its request has been read (it has no body),
    // it has no bound.
    server.set_pre_routing_handler([&deadlines](const httplib::Request& req, httplib::Response&) {
        if (req.path == "/api/stream" && !req.has_header("Content-Length") &&
            !req.has_header("Transfer-Encoding"))
            deadlines.streaming(req.remote_addr, req.remote_port);
        return httplib::Server::HandlerResponse::Unhandled;
    });
}

// GET /healthz (200 when the database answers, else 503) and GET /metrics, on every port.
void install_operations(httplib::Server& server, Collector& collector, Store& store) {
    server.Get("/healthz", [&store](const httplib::Request&, httplib::Response& res) {
        const bool up = store.ping();
        res.status = up ? 200 : 503;
        res.set_content(up ? "{\"database\":\"ok\"}" : "{\"database\":\"unavailable\"}", "application/json");
    });
    server.Get("/metrics", [&collector](const httplib::Request&, httplib::Response& res) {
        res.set_content(collector.metrics(), "text/plain; version=0.0.4");
    });
}

bool bind_listener(httplib::Server& server, const std::string& address, int port) {
    if (server.bind_to_port(address.c_str(), port)) {
        widen_backlog(port);
        return true;
    }
    log_start_problem("error", "cannot listen on " + address + ":" + std::to_string(port) + " (in use?)");
    return false;
}

}  // namespace vcollect

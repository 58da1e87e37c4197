// velto-collector: the collection server of the library. It serves the configuration ("/v1/conf")
// and takes the uploads ("/v1/data", "/v1/file") over https:// and plain http://, keeps every
// request and record in SQLite (one machine) or PostgreSQL (several collectors behind a load
// balancer, one database), and shows them on a page with a JSON API and a live event stream.
//
//   velto-collector [--https-port N --cert-dir DIR | --cert F --key F] [--http-port M] [--listen ADDR]
//                   [--db PATH | --db postgresql://...] [--records FILE] [--conf F | --conf-dir DIR] ...
//   velto-collector --help | --version
//
// The pieces: options.cpp (command line), conf_source.cpp (/v1/conf replies), receiver.cpp (the
// library's routes), ingestion.cpp (decoding), terminal.cpp (readable lines), store.cpp and its
// backends (the database), api.cpp and event_stream.cpp (the page). This file starts the servers,
// runs the database housekeeping on a thread of its own and waits for SIGINT or SIGTERM, which end
// the streams, print a summary by record kind and exit 0.
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "api.h"
#include "conf_source.h"
#include "event_stream.h"
#include "options.h"
#include "receiver.h"
#include "store.h"
#include "terminal.h"
#include "tls_server.h"
#include "velto.h"

namespace {

using namespace vcollect;

const int kMaintenanceMinutes = 10;  // partitions ahead and retention, this often
const int kListenBacklog = 1024;     // connections the kernel holds until they are accepted

// The HTTPS server on --cert/--key as given, or on the pair in --cert-dir, (re)made when unusable.
std::unique_ptr<httplib::SSLServer> make_tls_server(const Options& opt) {
    if (!opt.cert.empty()) {
        std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(opt.cert.c_str(), opt.key.c_str()));
        if (!server->is_valid())
            fprintf(stderr, "velto-collector: cannot use the certificate %s with the key %s\n",
                    opt.cert.c_str(), opt.key.c_str());
        return server->is_valid() ? std::move(server) : nullptr;
    }
    const std::string cert = opt.cert_dir + "/cert.pem", key = opt.cert_dir + "/key.pem";
    std::error_code ec;
    std::filesystem::create_directories(opt.cert_dir, ec);
    if (std::filesystem::exists(cert, ec) && std::filesystem::exists(key, ec)) {
        std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(cert.c_str(), key.c_str()));
        if (server->is_valid()) return server;
        fprintf(stderr, "velto-collector: %s or %s is unusable; making a new pair\n", cert.c_str(),
                key.c_str());
    }
    if (!make_self_signed_cert(cert, key)) {
        fprintf(stderr, "velto-collector: cannot write a certificate to %s\n", opt.cert_dir.c_str());
        return nullptr;
    }
    printf("velto-collector: made a self-signed certificate for 127.0.0.1 in %s\n", opt.cert_dir.c_str());
    std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(cert.c_str(), key.c_str()));
    return server->is_valid() ? std::move(server) : nullptr;
}

// Limits that keep slow or idle clients from holding the workers: each connection has a worker of
// its own from a pool of max_connections, and is closed when it stays quiet for read_timeout_s (the
// TLS handshake included).
void set_limits(httplib::Server& server, const Options& opt) {
    const size_t workers = static_cast<size_t>(opt.max_connections);
    server.new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
    server.set_read_timeout(opt.read_timeout_s, 0);
    server.set_write_timeout(opt.read_timeout_s, 0);
    server.set_keep_alive_timeout(2);
    server.set_keep_alive_max_count(100);
    // A reply goes out in several writes; without this, Nagle's algorithm and the client's delayed
    // ACK hold every reply on a kept-alive connection for 40 ms.
    server.set_tcp_nodelay(true);
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

bool bind(httplib::Server& server, const std::string& address, int port) {
    if (server.bind_to_port(address.c_str(), port)) {
        widen_backlog(port);
        return true;
    }
    fprintf(stderr, "velto-collector: cannot listen on %s:%d (in use?)\n", address.c_str(), port);
    return false;
}

// Blocks the stop signals in every thread (the server threads inherit the mask) so that the main
// thread alone takes them with sigwait.
sigset_t block_stop_signals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    // A shell without job control starts background commands with SIGINT ignored; run.sh stops the
    // collector with it all the same.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
    return stop;
}

// Runs the database housekeeping every few minutes until stopped; failures are printed and retried.
class Maintenance {
  public:
    Maintenance(Store& store, int keep_days)
        : store_(store), keep_days_(keep_days), thread_([this] { run(); }) {}
    ~Maintenance() {
        {
            std::lock_guard<std::mutex> hold(m_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

  private:
    void run() {
        std::unique_lock<std::mutex> hold(m_);
        while (!stop_) {
            hold.unlock();
            try {
                store_.maintain(keep_days_);
            } catch (const std::exception& e) {
                print_note("database housekeeping failed: " + printable(e.what(), 300));
            } catch (...) {
                print_note("database housekeeping failed");
            }
            hold.lock();
            wake_.wait_for(hold, std::chrono::minutes(kMaintenanceMinutes), [this] { return stop_; });
        }
    }

    Store& store_;
    const int keep_days_;
    std::mutex m_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

std::string conf_host(const Options& opt) {
    return opt.listen == "0.0.0.0" || opt.listen == "::" ? "127.0.0.1" : opt.listen;
}

void print_start(const Options& opt, const Store& store) {
    std::string where;
    if (opt.https_port) where += "https://" + opt.listen + ":" + std::to_string(opt.https_port);
    if (opt.http_port)
        where += std::string(where.empty() ? "" : " and ") + "http://" + opt.listen + ":" +
                 std::to_string(opt.http_port);
    printf("velto-collector: listening on %s; records go to %s%s\n", where.c_str(), store.describe().c_str(),
           opt.records.empty() ? "" : (" and " + opt.records).c_str());
    if (opt.http_port)
        printf("velto-collector: the page: http://%s:%d/\n", conf_host(opt).c_str(), opt.http_port);
    printf("velto-collector: serving %s configuration; stop with Ctrl-C\n",
           !opt.conf_dir.empty() ? ("the per-brand " + opt.conf_dir).c_str()
           : opt.conf.empty()    ? "the built-in"
                                 : opt.conf.c_str());
    fflush(stdout);
}

int run(const Options& opt) {
    ConfSource conf(builtin_conf_reply(conf_host(opt), opt.https_port), opt.conf, opt.conf_dir);
    if (!conf.check()) return 2;
    std::unique_ptr<FILE, int (*)(FILE*)> records(nullptr, &fclose);
    if (!opt.records.empty()) {
        records.reset(fopen(opt.records.c_str(), "a"));
        if (!records) {
            fprintf(stderr, "velto-collector: cannot open %s: %s\n", opt.records.c_str(), strerror(errno));
            return 2;
        }
    }
    std::unique_ptr<Store> store;
    try {
        store.reset(new Store(opt.db, opt.db_timeout_ms));
    } catch (const StoreError& e) {
        fprintf(stderr, "velto-collector: %s\n", e.what());
        return 2;
    }
    const sigset_t stop = block_stop_signals();
    Maintenance maintenance(*store, opt.keep_days);
    EventHub hub(EventHub::Limits(), &print_note);
    ReceiverSettings settings;
    settings.records = records.get();
    settings.max_body = opt.max_body;
    settings.trust_forwarded_for = opt.trust_forwarded_for;
    Collector collector(
        settings, [&conf](const std::string& brand) { return conf.reply(brand); }, *store, hub);

    std::unique_ptr<httplib::Server> tls, plain;
    if (opt.https_port) {
        tls = make_tls_server(opt);
        if (!tls) return 1;
        set_limits(*tls, opt);
        install_operations(*tls, collector, *store);
        install_routes(*tls, collector, "https");
        if (!bind(*tls, opt.listen, opt.https_port)) return 1;
    }
    if (opt.http_port) {
        plain.reset(new httplib::Server);
        set_limits(*plain, opt);
        install_operations(*plain, collector, *store);
        // The page and the API first: install_routes ends with catch-all routes.
        install_api(*plain, *store, hub, [&collector](const httplib::Request& req, const std::string& why) {
            collector.report_bad_query("http", req, why);
        });
        install_routes(*plain, collector, "http");
        if (!bind(*plain, opt.listen, opt.http_port)) return 1;
    }
    std::thread tls_thread([&] {
        if (tls) tls->listen_after_bind();
    });
    std::thread plain_thread([&] {
        if (plain) plain->listen_after_bind();
    });
    // stop() acts only on a running listener: a signal that came early must still end both.
    for (int i = 0; i < 5000 && !((!tls || tls->is_running()) && (!plain || plain->is_running())); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    print_start(opt, *store);

    int sig = 0;
    sigwait(&stop, &sig);
    hub.close();  // the servers wait for their worker threads, and open streams hold some
    if (tls) tls->stop();
    if (plain) plain->stop();
    tls_thread.join();
    plain_thread.join();
    collector.print_summary();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(kUsage, stdout);
            return 0;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("velto-collector %s\n", VELTO_VERSION_STRING);
            return 0;
        }
    }
    Options opt;
    if (!parse_args(argc, argv, opt)) {
        fputs(kUsage, stderr);
        return 2;
    }
    try {
        return run(opt);
    } catch (const std::exception& e) {
        fprintf(stderr, "velto-collector: %s\n", e.what());
        return 1;
    }
}

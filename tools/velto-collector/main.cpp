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
// backends (the database), api.cpp and event_stream.cpp (the page), listeners.cpp (the servers' sockets,
// certificate and limits). This file starts the servers,
// runs the database housekeeping on a thread of its own and waits for SIGINT or SIGTERM, which end
// the streams, print a summary by record kind and exit 0.
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "api.h"
#include "conf_source.h"
#include "event_stream.h"
#include "listeners.h"
#include "log_lines.h"
#include "options.h"
#include "receiver.h"
#include "request_deadlines.h"
#include "store.h"
#include "terminal.h"
#include "velto.h"

namespace {

using namespace vcollect;

const int kMaintenanceMinutes = 10;  // partitions ahead and retention, this often

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
                log_note("error", "maintenance_failed",
                         "database housekeeping failed: " + printable(e.what(), 300));
            } catch (...) {
                log_note("error", "maintenance_failed", "database housekeeping failed");
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
    const std::string conf = !opt.conf_dir.empty() ? "the per-brand " + opt.conf_dir
                             : opt.conf.empty()    ? std::string("the built-in")
                                                   : opt.conf;
    std::string text = "velto-collector: listening on " + where + "; records go to " + store.describe() +
                       (opt.records.empty() ? "" : " and " + opt.records) + "\n";
    if (opt.http_port)
        text += "velto-collector: the page: http://" + conf_host(opt) + ":" + std::to_string(opt.http_port) +
                "/\n";
    text += "velto-collector: serving " + conf + " configuration; stop with Ctrl-C\n";
    LogLine line("info", "start");
    line.add("listen", opt.listen).add("https_port", opt.https_port).add("http_port", opt.http_port);
    line.add("db", store.describe()).add("conf", conf).add("version", VELTO_VERSION_STRING);
    line.write(stdout, text);
}

int run(const Options& opt) {
    set_log_format(opt.log_format);
    ConfSource conf(builtin_conf_reply(conf_host(opt), opt.https_port), opt.conf, opt.conf_dir);
    if (!conf.check()) return 2;
    std::unique_ptr<FILE, int (*)(FILE*)> records(nullptr, &fclose);
    if (!opt.records.empty()) {
        records.reset(fopen(opt.records.c_str(), "a"));
        if (!records) {
            log_start_problem("error", "cannot open " + opt.records + ": " + strerror(errno));
            return 2;
        }
    }
    std::unique_ptr<Store> store;
    try {
        store.reset(new Store(opt.db, opt.db_timeout_ms));
    } catch (const StoreError& e) {
        log_start_problem("error", e.what());
        return 2;
    }
    const sigset_t stop = block_stop_signals();
    Maintenance maintenance(*store, opt.keep_days);
    EventHub hub(EventHub::Limits(), [](const std::string& note) { log_note("warn", "stream", note); });
    std::set<int> ports;
    for (int port : {opt.https_port, opt.http_port})
        if (port) ports.insert(port);
    RequestDeadlines deadlines(ports, opt.request_timeout_s);
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
        set_limits(*tls, opt, deadlines);
        install_operations(*tls, collector, *store);
        install_routes(*tls, collector, "https");
        if (!bind_listener(*tls, opt.listen, opt.https_port)) return 1;
    }
    if (opt.http_port) {
        plain.reset(new httplib::Server);
        set_limits(*plain, opt, deadlines);
        install_operations(*plain, collector, *store);
        // The page and the API first: install_routes ends with catch-all routes.
        install_api(*plain, *store, hub, [&collector](const httplib::Request& req, const std::string& why) {
            collector.report_bad_query("http", req, why);
        });
        install_routes(*plain, collector, "http");
        if (!bind_listener(*plain, opt.listen, opt.http_port)) return 1;
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
    LogLine("info", "stopping").add("signal", sig == SIGINT ? "SIGINT" : "SIGTERM").write(stdout, "");
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

// The tests' HTTPS loopback collector: a self-signed certificate (self_signed_cert.h) in a private
// temporary directory and cpp-httplib's SSL server on its own listening thread.
#include "tls_server.h"

#include <curl/curl.h>
#include <httplib.h>
#include <strings.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "scenario.h"

namespace vcollect {

namespace {

const char kDefaultReply[] = "{\"status\":0}";
const size_t kMaxPayload = 64u << 20;
const char* const kPaths[] = {"/v1/data", "/v1/file", "/v1/conf"};

}  // namespace

std::string TlsRequest::header(const std::string& name) const {
    for (const auto& h : headers)
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
    return "";
}

struct TlsServer::Impl {
    vtest::TempDir dir;
    std::unique_ptr<httplib::SSLServer> server;
    std::thread thread;
    int port = -1;
    std::atomic<bool> stopping{false};

    mutable std::mutex m;
    mutable std::condition_variable cv;
    std::map<std::string, std::string> replies;
    std::map<std::string, std::string> redirects;
    int delay_ms = 0;
    std::vector<TlsRequest> requests;

    std::string cert_path() const { return dir.file("cert.pem"); }
    std::string key_path() const { return dir.file("key.pem"); }

    static TlsRequest start_record(const httplib::Request& req) {
        return TlsRequest{req.method, req.path, {req.headers.begin(), req.headers.end()}, "", {}};
    }

    void answer(const std::string& path, TlsRequest rec, httplib::Response& res) {
        std::string reply, location;
        int delay;
        {
            std::lock_guard<std::mutex> hold(m);
            requests.push_back(std::move(rec));
            reply = replies[path];
            location = redirects[path];
            delay = delay_ms;
        }
        cv.notify_all();
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(delay);
        while (!stopping && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (!location.empty()) {
            res.set_redirect(location);
            return;
        }
        res.set_content(reply, "application/json");
    }

    void route(const std::string& path) {
        server->Get(path, [this, path](const httplib::Request& req, httplib::Response& res) {
            answer(path, start_record(req), res);
        });
        server->Post(path, [this, path](const httplib::Request& req, httplib::Response& res,
                                        const httplib::ContentReader& reader) {
            TlsRequest rec = start_record(req);
            if (req.is_multipart_form_data()) {
                reader(
                    [&](const httplib::MultipartFormData& f) {
                        rec.parts.push_back(FormPart{f.name, f.filename, f.content_type, ""});
                        return true;
                    },
                    [&](const char* data, size_t n) {
                        if (!rec.parts.empty()) rec.parts.back().data.append(data, n);
                        return true;
                    });
            } else {
                reader([&](const char* data, size_t n) {
                    rec.body.append(data, n);
                    return true;
                });
            }
            answer(path, std::move(rec), res);
        });
    }

    bool start() {
        if (!make_self_signed_cert(cert_path(), key_path())) return false;
        server.reset(new httplib::SSLServer(cert_path().c_str(), key_path().c_str()));
        if (!server->is_valid()) return false;
        server->set_keep_alive_timeout(1);
        server->set_payload_max_length(kMaxPayload);
        for (const char* p : kPaths) {
            replies[p] = kDefaultReply;
            route(p);
        }
        port = server->bind_to_any_port("127.0.0.1");
        if (port <= 0) return false;
        thread = std::thread([this] { server->listen_after_bind(); });
        // stop() only works on a running server; wait (bounded) for the listener to be up.
        for (int i = 0; i < 5000 && !server->is_running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!server->is_running()) return false;
        warm_up();
        return true;
    }

    // The first HTTPS transfer of a process costs far more than later ones (OpenSSL fetches and caches
    // its algorithms; under valgrind every code path is also translated once): several seconds under
    // valgrind, more than the transfer time-outs the tests set. One transfer here through libcurl, as
    // the library makes them, answered 404 and not recorded, keeps that cost out of what they bound.
    void warm_up() {
        CURL* curl = curl_easy_init();
        if (!curl) return;
        const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/warm-up";
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_perform(curl);
        curl_easy_cleanup(curl);
    }

    void stop() {
        stopping = true;
        if (server) server->stop();
        if (thread.joinable()) thread.join();
    }
};

TlsServer::TlsServer() : impl_(new Impl), cert_path_(impl_->cert_path()) {
    if (impl_->start()) port_ = impl_->port;
}

TlsServer::~TlsServer() {
    stop();
}

void TlsServer::set_reply(const std::string& body) {
    std::lock_guard<std::mutex> hold(impl_->m);
    for (auto& r : impl_->replies) r.second = body;
}

void TlsServer::set_reply(const std::string& path, const std::string& body) {
    std::lock_guard<std::mutex> hold(impl_->m);
    impl_->replies[path] = body;
}

void TlsServer::set_redirect(const std::string& path, const std::string& location) {
    std::lock_guard<std::mutex> hold(impl_->m);
    impl_->redirects[path] = location;
}

void TlsServer::set_delay_ms(int ms) {
    std::lock_guard<std::mutex> hold(impl_->m);
    impl_->delay_ms = ms;
}

std::vector<TlsRequest> TlsServer::requests() const {
    std::lock_guard<std::mutex> hold(impl_->m);
    return impl_->requests;
}

bool TlsServer::wait_for_requests(size_t n, int timeout_ms) const {
    std::unique_lock<std::mutex> hold(impl_->m);
    return impl_->cv.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                              [&] { return impl_->requests.size() >= n; });
}

void TlsServer::stop() {
    impl_->stop();
}

}  // namespace vcollect

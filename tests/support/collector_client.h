// A small HTTP client for the tests that drive velto-collector (tools, collector_pg): requests over
// libcurl (no certificate check, bounded), the bodies the library sends (a record form, a file
// payload and a batch upload), a host run of the library, and the collector itself as a child process.
#ifndef VELTO_TESTS_COLLECTOR_CLIENT_H
#define VELTO_TESTS_COLLECTOR_CLIENT_H

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "HttpClient.h"
#include "Util.h"
#include "Zip.h"
#include "child_process.h"
#include "velto.h"

namespace vtest {
namespace client {

inline size_t write_reply(char* data, size_t size, size_t n, void* to) {
    static_cast<std::string*>(to)->append(data, size * n);
    return size * n;
}

// Runs a prepared libcurl request (no certificate check, bounded); the reply's status code and body.
inline std::pair<long, std::string> perform(CURL* curl, const std::string& url) {
    std::pair<long, std::string> reply;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &write_reply);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.second);
    if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.first);
    curl_easy_cleanup(curl);
    return reply;
}

inline std::pair<long, std::string> post(const std::string& url, const std::string& content_type,
                                         const std::string& body) {
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, ("Content-Type: " + content_type).c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    const auto reply = perform(curl, url);
    curl_slist_free_all(headers);
    return reply;
}

inline std::pair<long, std::string> get(const std::string& url) {
    return perform(curl_easy_init(), url);
}

const char kMultipart[] = "multipart/form-data; boundary=b0undary";
const char kForm[] = "application/x-www-form-urlencoded";
const char kOk[] = R"({"status":0})";

inline std::string multipart(const std::vector<std::pair<std::string, std::string>>& parts) {
    std::string body;
    for (const auto& p : parts) {
        body += "--b0undary\r\nContent-Disposition: form-data; name=\"" + p.first + "\"";
        if (p.first == "file") body += "; filename=\"x\"\r\nContent-Type: application/octet-stream";
        body += "\r\n\r\n" + p.second + "\r\n";
    }
    return body + "--b0undary--\r\n";
}

// A file payload: the 4-byte length prefix, then the enciphered bytes.
inline std::string file_payload(uint32_t length, const std::string& plain) {
    std::vector<unsigned char> sealed(plain.size() + 32);
    int n = 0;
    Velto::AES_Encode2(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                       sealed.data(), n);
    std::string out = {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
                       static_cast<char>(length >> 8), static_cast<char>(length)};
    return out + std::string(reinterpret_cast<char*>(sealed.data()), static_cast<size_t>(n));
}

inline std::string data_form(const std::string& record) {
    return "data=" + Velto::UrlEncode(Velto::Util::fencode(record));
}

// A records upload as the library sends it: the batch id in "sdk_log", the records in the file part.
inline std::string batch_upload(const std::string& batch, const std::vector<std::string>& records) {
    std::string text;
    for (const std::string& r : records) text += r + "\n";
    return multipart({{"sdk_log", batch}, {"file", file_payload(static_cast<uint32_t>(text.size()), text)}});
}

// Inside a scenario: one host run of brand with an "init" record and three records tagged with tag
// (screen-, button-, export-), stopped, and the background thread waited for (bounded).
inline void record_session(const std::string& root, const std::string& tag, const char* brand) {
    ASSERT_EQ(0, data_init(root.c_str(), brand));
    ASSERT_EQ(
        0, data_base_info("tid1", 42, "1.0", 8, "uip1", "en", "mac", "10.15", 64, "en-US", 0, "src", "u1"));
    ASSERT_EQ(0, data_screen(("screen-" + tag).c_str()));
    ASSERT_EQ(0, data_event(("button-" + tag).c_str(), "click", "save", 3));
    ASSERT_EQ(0, data_count(("export-" + tag).c_str(), 1200, nullptr));
    data_stop();
    const auto stopped = [&] {
        return read_file(root + "/sdk.log").find("back thread stop ...") != std::string::npos;
    };
    ASSERT_TRUE(wait_until(stopped, 60000));
}

// velto-collector of this build in a child process, its output in dir/<name>.out and .err, every
// start on fresh loopback ports for http:// and https:// (its certificate in dir/<name>.cert).
class Collector {
  public:
    Collector(const TempDir& dir, const std::string& name, std::vector<std::string> args = {})
        : dir_(dir), name_(name), args_(std::move(args)) {}

    // The command line on the current ports, with extra arguments after the constructor's.
    std::vector<std::string> command(const std::vector<std::string>& extra = {}) const {
        std::vector<std::string> c = {binary_dir() + "/tools/velto-collector", "--cert-dir", file("cert")};
        c.insert(c.end(),
                 {"--http-port", std::to_string(http_port), "--https-port", std::to_string(https_port)});
        c.insert(c.end(), args_.begin(), args_.end());
        c.insert(c.end(), extra.begin(), extra.end());
        return c;
    }
    // Starts it and waits (bounded) until its output shows ready; false when it ended before.
    bool start(const std::vector<std::string>& extra = {}, const std::string& ready = "listening on") {
        const std::vector<int> ports = free_loopback_ports(2);
        http_port = ports[0];
        https_port = ports[1];
        unlink(file("out").c_str());  // a restart waits for its own ready line
        proc_.reset(new ChildProcess(command(extra), file("out"), file("err")));
        const auto ready_or_ended = [&] {
            proc_->wait(0);
            return proc_->ended() || out().find(ready) != std::string::npos;
        };
        return wait_until(ready_or_ended, 20000) && !proc_->ended();
    }
    int stop() {
        proc_->signal(SIGTERM);
        return proc_->wait(20000);
    }
    void signal(int sig) { proc_->signal(sig); }
    int wait(int timeout_ms) { return proc_->wait(timeout_ms); }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(http_port) + path;
    }
    std::string https_url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(https_port) + path;
    }
    std::string out() const { return read_file(file("out")); }
    std::string err() const { return read_file(file("err")); }

    int http_port = 0, https_port = 0;

  private:
    std::string file(const std::string& kind) const { return dir_.file(name_ + "." + kind); }

    const TempDir& dir_;
    std::string name_;
    std::vector<std::string> args_;
    std::unique_ptr<ChildProcess> proc_;
};

}  // namespace client
}  // namespace vtest

#endif

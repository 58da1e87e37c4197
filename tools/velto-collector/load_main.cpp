// velto-collector-load: a load run against a velto-collector on this machine, for the figures in
// docs/collector.md. Several clients send record batches in the library's upload format (records
// deflated with the library's Zip, enciphered with its AES_Encode2, length prefix, multipart form
// with "sdk_log") as fast as the collector takes them, for a bounded time, and report uploads and
// records per second and the reply time p50/p99. Loopback addresses only.
//
//   velto-collector-load --url http://127.0.0.1:18080 [--seconds 10] [--clients 8] [--records 10]
//                        [--new-connections]
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Zip.h"

namespace {

struct Settings {
    std::string url;
    int seconds = 10;
    int clients = 8;
    int records = 10;
    bool new_connections = false;  // a connection per upload, as desktops that connect directly
};

// One record as the library writes it: the base fields of every record and an event's own.
std::string record(int run, int i) {
    return R"({"tstart":"1795468265","BRAND":"velto-load","did":"{3d1219c7c4c5404aaa1f6d2a48adfda4}",)"
           R"("procname":"velto-load","procid":"18169","modver":"1.1.1.1113","tid":"demo-tid","pid":"1001",)"
           R"("pver":"2.4.0","uip":"127.0.0.1","plang":"en-US","ostype":"Linux","osver":"Debian 12",)"
           R"("osbit":"64","oslang":"en_US","oszone":"60","psource":"website","uid":"user-42",)"
           R"("tinstall":"1792876265","dtype":"event","sid":"{22b6b4badc7a4499aac209fda69211eb}",)"
           R"("ostime":"1795468265","category":"toolbar","act":"click","label":"button-)" +
           std::to_string(i) + R"(","dvalue":")" + std::to_string(run) + R"("})";
}

// The multipart body of one batch upload, as the library sends it.
std::string batch_body(const std::string& batch, int records, int run) {
    std::string text;
    for (int i = 0; i < records; ++i) text += record(run, i) + "\n";
    std::vector<unsigned char> zipped(text.size() + 1024);
    int zipped_len = static_cast<int>(zipped.size());
    Velto::Zip(text.c_str(), zipped.data(), zipped_len);
    std::vector<unsigned char> sealed(static_cast<size_t>(zipped_len) + 64);
    int sealed_len = 0;
    Velto::AES_Encode2(zipped.data(), zipped_len, sealed.data(), sealed_len);
    const uint32_t n = static_cast<uint32_t>(text.size());
    std::string payload = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                           static_cast<char>(n)};
    payload.append(reinterpret_cast<const char*>(sealed.data()), static_cast<size_t>(sealed_len));
    const std::string open = "--velto-load\r\nContent-Disposition: form-data; name=\"";
    return open + "sdk_log\"\r\n\r\n" + batch + "\r\n" + open + "file\"; filename=\"" + batch +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + payload + "\r\n--velto-load--\r\n";
}

bool is_loopback(const std::string& url) {
    for (const char* prefix : {"http://127.", "https://127.",
                               "http://localhost:", "https://localhost:", "http://[::1]:", "https://[::1]:"})
        if (url.rfind(prefix, 0) == 0) return true;
    return false;
}

bool parse(int argc, char** argv, Settings& s) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--new-connections") {
            s.new_connections = true;
            continue;
        }
        if (++i >= argc) return false;
        const int n = atoi(argv[i]);
        if (flag == "--url")
            s.url = argv[i];
        else if (flag == "--seconds" && n >= 1 && n <= 120)
            s.seconds = n;
        else if (flag == "--clients" && n >= 1 && n <= 128)
            s.clients = n;
        else if (flag == "--records" && n >= 1 && n <= 1000)
            s.records = n;
        else
            return false;
    }
    return is_loopback(s.url);
}

struct Totals {
    std::mutex m;
    std::vector<double> ms;  // reply time of every upload taken
    long long failed = 0;
};

void client(const Settings& s, int id, std::chrono::steady_clock::time_point end, Totals& totals) {
    std::vector<double> ms;
    long long failed = 0;
    std::unique_ptr<httplib::Client> http;
    for (int n = 0; std::chrono::steady_clock::now() < end; ++n) {
        const std::string batch =
            "{load-" + std::to_string(getpid()) + "-" + std::to_string(id) + "-" + std::to_string(n) + "}";
        const std::string body = batch_body(batch, s.records, n);
        if (!http || s.new_connections) {
            http.reset(new httplib::Client(s.url));
            http->enable_server_certificate_verification(false);
            http->set_keep_alive(!s.new_connections);
            http->set_tcp_nodelay(true);
            http->set_read_timeout(10, 0);
        }
        const auto start = std::chrono::steady_clock::now();
        auto res = http->Post("/v1/file", body, "multipart/form-data; boundary=velto-load");
        const double took =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        if (res && res->status == 200 && res->body == "{\"status\":0}")
            ms.push_back(took);
        else
            ++failed;
    }
    std::lock_guard<std::mutex> hold(totals.m);
    totals.ms.insert(totals.ms.end(), ms.begin(), ms.end());
    totals.failed += failed;
}

double percentile(std::vector<double>& v, double p) {
    if (v.empty()) return 0;
    const size_t at = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(at), v.end());
    return v[at];
}

}  // namespace

int main(int argc, char** argv) {
    Settings s;
    if (!parse(argc, argv, s)) {
        fputs(
            "usage: velto-collector-load --url http(s)://127.0.0.1:PORT [--seconds S<=120] [--clients "
            "C<=128]\n"
            "                            [--records N<=1000] [--new-connections]   (loopback only)\n",
            stderr);
        return 2;
    }
    Totals totals;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(s.seconds);
    std::vector<std::thread> threads;
    for (int i = 0; i < s.clients; ++i) threads.emplace_back([&, i] { client(s, i, end, totals); });
    for (std::thread& t : threads) t.join();
    const double uploads = static_cast<double>(totals.ms.size()) / s.seconds;
    const double p50 = percentile(totals.ms, 0.50), p99 = percentile(totals.ms, 0.99);
    printf(
        "%s: %d clients%s, %d records a batch, %d s: %.0f uploads/s, %.0f records/s, "
        "p50 %.1f ms, p99 %.1f ms, %lld failed\n",
        s.url.c_str(), s.clients, s.new_connections ? " (a connection per upload)" : " (keep-alive)",
        s.records, s.seconds, uploads, uploads * s.records, p50, p99, totals.failed);
    return totals.failed == 0 ? 0 : 1;
}

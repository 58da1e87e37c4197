// Shared ground of the transport tests: a settings store of their own at its defaults with a
// one-second connection time-out, complete base information of their own (so file uploads never
// wait for it), the log in a temporary directory, and a helper that bounds a blocking call.
#ifndef VELTO_TEST_TRANSPORT_FIXTURE_H
#define VELTO_TEST_TRANSPORT_FIXTURE_H

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "HttpClient.h"
#include "Log.h"
#include "Uploader.h"
#include "payload.h"
#include "raw_server.h"
#include "scenario.h"
#include "tls_server.h"

namespace transporttest {

const char kProcName[] = "host app";
const char kDid[] = "{0A1B-did}";
const char kTid[] = "T-7";

// Runs fn on a thread of its own and waits at most `seconds`. A call that overruns cannot be
// cancelled, so the test fails and the process ends there.
template <typename F>
auto bounded(F fn, int seconds = 20) -> decltype(fn()) {
    typedef decltype(fn()) R;
    auto task = std::make_shared<std::packaged_task<R()>>(fn);
    std::future<R> result = task->get_future();
    std::thread([task] { (*task)(); }).detach();
    if (result.wait_for(std::chrono::seconds(seconds)) != std::future_status::ready) {
        ADD_FAILURE() << "call still running after " << seconds << " s";
        std::_Exit(1);
    }
    return result.get();
}

// The settings and base information the uploads of these tests are made from.
inline Velto::Config& settings() {
    static Velto::Config* conf = new Velto::Config();  // never destroyed: bounded() may outlive a test
    return *conf;
}
inline Velto::BaseInfo& base_info() {
    static Velto::BaseInfo* base = new Velto::BaseInfo();
    return *base;
}

// The context the library's own uploads would have now: the settings and base information the test
// set up.
inline Velto::UploadContext upload_context() {
    return Velto::Uploader(&settings(), &base_info()).context();
}

const char kFormType[] = "Content-Type:application/x-www-form-urlencoded\r\n";

// The head the raw-socket client writes: request line, fixed header lines, the Content-Type line
// given, and Content-Length unless `length` is negative.
inline std::string raw_head(const std::string& request_line, const std::string& type, long length) {
    return request_line + " HTTP/1.1\r\nhost:127.0.0.1\r\n" +
           "User-Agent:Mozilla/5.0 (compatible; MSIE 9.0; Windows NT 6.1; Trident/5.0)\r\n" + type +
           "Accept:text/html,application/xhtml+xml,*/*\r\nConnection:close\r\n" +
           (length < 0 ? "" : "Content-Length:" + std::to_string(length) + "\r\n") + "\r\n";
}

class TransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        curl_global_init(CURL_GLOBAL_ALL);
        Velto::Log::obj_->init(dir_.file("sdk.log").c_str());
        settings().init_mutex();
        settings().load_default();
        settings().set("CON_TIMEOUT", 1000);
        settings().set("tid", kTid);
        base_info().init_mutex();
        const char* const base[] = {
            "procname", kProcName, "did",    kDid,    "uid",    "u1", "pid",      "42",        "pver",  "2.0",
            "BRAND",    "Brand",   "modver", "1.1.1", "plang",  "en", "ostype",   "linux",     "osver", "6.1",
            "osbit",    "64",      "oslang", "en-US", "oszone", "1",  "tinstall", "1600000000"};
        for (size_t i = 0; i < sizeof base / sizeof *base; i += 2) base_info().set(base[i], base[i + 1]);
    }

    void zip(bool on) { settings().set("ZIP_DATA", on ? "ON" : "OFF"); }
    std::string log_text() {
        Velto::Log::obj_->flush();
        return vtest::read_file(dir_.file("sdk.log"));
    }
    bool logged(const std::string& text) { return log_text().find(text) != std::string::npos; }
    // A loopback port where nothing listens (a server's, after it stopped).
    static int closed_port() {
        vcollect::RawServer gone;
        const int port = gone.port();
        gone.stop();
        return port;
    }

    vtest::TempDir dir_;
};

}  // namespace transporttest

#endif

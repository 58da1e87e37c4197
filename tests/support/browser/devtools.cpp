// Headless Chromium over its DevTools protocol for the browser test; see devtools.h.
#include "devtools.h"

#include <fcntl.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "json_text.h"
#include "payload.h"

namespace vbrowser {

namespace {

const std::string::size_type npos = std::string::npos;

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

size_t skip_blanks(const std::string& s, size_t i) {
    while (i < s.size() && is_blank(s[i])) ++i;
    return i;
}

// One past the end of the JSON value that starts at s[i]; npos when it is cut or broken.
size_t value_end(const std::string& s, size_t i) {
    if (i >= s.size()) return npos;
    if (s[i] == '"') {
        for (++i; i < s.size(); ++i) {
            if (s[i] == '\\')
                ++i;
            else if (s[i] == '"')
                return i + 1;
        }
        return npos;
    }
    if (s[i] == '{' || s[i] == '[') {
        size_t depth = 0;
        for (; i < s.size(); ++i) {
            const char c = s[i];
            if (c == '"') {
                const size_t end = value_end(s, i);
                if (end == npos) return npos;
                i = end - 1;
            } else if (c == '{' || c == '[') {
                ++depth;
            } else if ((c == '}' || c == ']') && --depth == 0) {
                return i + 1;
            }
        }
        return npos;
    }
    size_t j = i;  // a number, true, false or null
    while (j < s.size() && !is_blank(s[j]) && s[j] != ',' && s[j] != '}' && s[j] != ']') ++j;
    return j == i ? npos : j;
}

std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string tail(const std::string& text, size_t n) {
    return text.size() > n ? text.substr(text.size() - n) : text;
}

// Strict Base64 (with "=" padding) as DevTools sends binary data.
bool base64_bytes(const std::string& text, std::string& out) {
    if (text.size() % 4 != 0) return false;
    out.assign(text.size() / 4 * 3, '\0');
    const int n =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (n < 0) return false;
    size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
    out.resize(static_cast<size_t>(n) - padding);
    return true;
}

// "ws://127.0.0.1:PORT/devtools/page/ID" -> "/devtools/page/ID"
std::string websocket_path(const std::string& url) {
    const size_t host = url.find("://");
    const size_t path = host == npos ? npos : url.find('/', host + 3);
    return path == npos ? "" : url.substr(path);
}

}  // namespace

// ---- JSON readers ----

std::string json_member(const std::string& object, const std::string& name) {
    size_t i = skip_blanks(object, 0);
    if (i >= object.size() || object[i] != '{') return "";
    i = skip_blanks(object, i + 1);
    while (i < object.size() && object[i] == '"') {
        const size_t key_end = value_end(object, i);
        std::string key;
        if (key_end == npos || !json_string_value(object.substr(i, key_end - i), key)) return "";
        i = skip_blanks(object, key_end);
        if (i >= object.size() || object[i] != ':') return "";
        i = skip_blanks(object, i + 1);
        const size_t end = value_end(object, i);
        if (end == npos) return "";
        if (key == name) return object.substr(i, end - i);
        i = skip_blanks(object, end);
        if (i >= object.size() || object[i] != ',') break;
        i = skip_blanks(object, i + 1);
    }
    return "";
}

std::vector<std::string> json_elements(const std::string& array) {
    std::vector<std::string> out;
    size_t i = skip_blanks(array, 0);
    if (i >= array.size() || array[i] != '[') return out;
    i = skip_blanks(array, i + 1);
    while (i < array.size() && array[i] != ']') {
        const size_t end = value_end(array, i);
        if (end == npos) return {};
        out.push_back(array.substr(i, end - i));
        i = skip_blanks(array, end);
        if (i < array.size() && array[i] == ',') i = skip_blanks(array, i + 1);
    }
    return out;
}

bool json_string_value(const std::string& literal, std::string& out) {
    out.clear();
    if (literal.size() < 2 || literal.front() != '"' || value_end(literal, 0) != literal.size()) return false;
    out = vcollect::json_unescape(literal.substr(1, literal.size() - 2));
    return true;
}

// ---- the browser process ----

std::string chromium_path() {
    const char* path = "/usr/bin/chromium";
    return access(path, X_OK) == 0 ? path : "";
}

bool Chromium::start(const std::string& profile_dir, const std::string& log_path, std::string& why) {
    const std::string exe = chromium_path();
    if (exe.empty()) {
        why = "chromium is not installed";
        return false;
    }
    std::vector<std::string> args = {exe,
                                     "--headless=new",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--disable-quic",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--disable-dev-shm-usage",
                                     "--hide-scrollbars",
                                     "--window-size=1400,860",
                                     "--user-data-dir=" + profile_dir,
                                     "--remote-debugging-port=0",
                                     "about:blank"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    fflush(stdout);
    fflush(stderr);
    pid_ = fork();
    if (pid_ < 0) {
        why = "fork failed";
        return false;
    }
    if (pid_ == 0) {
        setpgid(0, 0);                     // the browser and every helper it starts: one group to kill
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // and no browser left behind by a test that crashed
        const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int null = open("/dev/null", O_RDONLY);
        if (log >= 0 && null >= 0 && dup2(null, 0) >= 0 && dup2(log, 1) >= 0 && dup2(log, 2) >= 0)
            execv(argv[0], argv.data());
        _exit(127);
    }
    setpgid(pid_, pid_);  // also here, so that stop() finds the group even if the child has not run yet

    // The browser writes its port as the first line of DevToolsActivePort once it listens.
    const Deadline deadline = deadline_in(30000);
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string active = read_text(profile_dir + "/DevToolsActivePort");
        const size_t eol = active.find('\n');
        if (eol != npos && eol > 0) {
            port_ = atoi(active.substr(0, eol).c_str());
            if (port_ > 0 && port_ < 65536) return true;
        }
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            why = "chromium exited at start: " + tail(read_text(log_path), 2000);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    why = "chromium did not tell its DevTools port within 30 s: " + tail(read_text(log_path), 2000);
    stop();
    return false;
}

void Chromium::stop() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGTERM);
    bool reaped = false;
    for (int i = 0; i < 300 && !reaped; ++i) {
        reaped = waitpid(pid_, nullptr, WNOHANG) == pid_;
        if (!reaped) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(-pid_, SIGKILL);  // helpers that outlived the browser, or the browser itself
    if (!reaped) waitpid(pid_, nullptr, 0);
    pid_ = -1;
    port_ = 0;
}

// ---- a page ----

bool DevToolsPage::attach(int devtools_port, std::string& why) {
    httplib::Client http("127.0.0.1", devtools_port);
    http.set_connection_timeout(5, 0);
    http.set_read_timeout(5, 0);
    const Deadline deadline = deadline_in(15000);
    why = "no page target";
    while (std::chrono::steady_clock::now() < deadline) {
        if (auto res = http.Get("/json/list")) {
            for (const std::string& target : json_elements(res->body)) {
                std::string type, url;
                if (json_string_value(json_member(target, "type"), type) && type == "page" &&
                    json_string_value(json_member(target, "webSocketDebuggerUrl"), url))
                    return ws_.connect(devtools_port, websocket_path(url), deadline, why);
            }
            why = "no page target in " + res->body.substr(0, 500);
        } else {
            why = "GET /json/list failed: " + httplib::to_string(res.error());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

bool DevToolsPage::call(const std::string& method, const std::string& params_json, std::string& result,
                        std::string& why, int timeout_ms) {
    const Deadline deadline = deadline_in(timeout_ms);
    const std::string id = std::to_string(++next_id_);
    if (!ws_.send_text("{\"id\":" + id + ",\"method\":" + vcollect::json_quote(method) +
                           ",\"params\":" + params_json + "}",
                       deadline)) {
        why = method + ": the command could not be sent";
        return false;
    }
    // Events may come first; the answer carries the command's id.
    for (std::string message; ws_.receive(message, deadline);) {
        if (json_member(message, "id") != id) continue;
        const std::string error = json_member(message, "error");
        if (!error.empty()) {
            why = method + ": " + error;
            return false;
        }
        result = json_member(message, "result");
        return true;
    }
    why = method + ": no answer within " + std::to_string(timeout_ms) + " ms";
    return false;
}

bool DevToolsPage::navigate(const std::string& url, std::string& why) {
    std::string result;
    if (!call("Page.navigate", "{\"url\":" + vcollect::json_quote(url) + "}", result, why)) return false;
    const std::string error = json_member(result, "errorText");
    if (error.empty()) return true;
    why = "Page.navigate: " + error;
    return false;
}

bool DevToolsPage::evaluate(const std::string& expression, std::string& value, std::string& why) {
    const std::string wrapped = "(async () => String(await (" + expression + ")))()";
    std::string result;
    if (!call("Runtime.evaluate",
              "{\"expression\":" + vcollect::json_quote(wrapped) +
                  ",\"awaitPromise\":true,\"returnByValue\":true}",
              result, why))
        return false;
    const std::string exception = json_member(result, "exceptionDetails");
    if (!exception.empty()) {
        why = "Runtime.evaluate: " + exception.substr(0, 1000);
        return false;
    }
    if (json_string_value(json_member(json_member(result, "result"), "value"), value)) return true;
    why = "Runtime.evaluate: no string value in " + result.substr(0, 500);
    return false;
}

bool DevToolsPage::screenshot(const std::string& png_path, std::string& why) {
    std::string result, text, png;
    if (!call("Page.captureScreenshot", "{\"format\":\"png\"}", result, why, 30000)) return false;
    if (!json_string_value(json_member(result, "data"), text) || !base64_bytes(text, png)) {
        why = "Page.captureScreenshot: no PNG data";
        return false;
    }
    std::ofstream out(png_path, std::ios::binary | std::ios::trunc);
    out.write(png.data(), static_cast<std::streamsize>(png.size()));
    out.close();
    if (out) return true;
    why = "cannot write " + png_path;
    return false;
}

}  // namespace vbrowser

// Headless Chromium driven over its DevTools protocol, for the browser test of the collector's page:
// starting the browser in its own process group (so that it and all its helpers can be killed at
// once), attaching to its page over WebSocket, navigating, evaluating JavaScript and taking
// screenshots. Every wait is bounded.
#ifndef VELTO_TEST_BROWSER_DEVTOOLS_H
#define VELTO_TEST_BROWSER_DEVTOOLS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "websocket.h"

namespace vbrowser {

// The browser program (Debian's chromium), "" when it is not installed.
std::string chromium_path();

class Chromium {
  public:
    Chromium() = default;
    ~Chromium() { stop(); }
    Chromium(const Chromium&) = delete;
    Chromium& operator=(const Chromium&) = delete;

    // Starts the headless browser on about:blank with its profile in profile_dir and its output in
    // log_path, and waits (bounded) until it tells its DevTools port.
    bool start(const std::string& profile_dir, const std::string& log_path, std::string& why);
    // Ends the browser's whole process group and reaps the browser; safe to call twice.
    void stop();
    int devtools_port() const { return port_; }

  private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// One page (tab) of the browser.
class DevToolsPage {
  public:
    // Attaches to the browser's first page target.
    bool attach(int devtools_port, std::string& why);
    // Sends a command; result = the answer's "result" object, or why = its "error" (or what failed).
    bool call(const std::string& method, const std::string& params_json, std::string& result,
              std::string& why, int timeout_ms = 15000);
    bool navigate(const std::string& url, std::string& why);
    // Evaluates a JavaScript expression in the page (a promise is awaited) and gives String(value);
    // an exception's description goes to why.
    bool evaluate(const std::string& expression, std::string& value, std::string& why);
    // Writes a PNG of what the page shows.
    bool screenshot(const std::string& png_path, std::string& why);

  private:
    WebSocket ws_;
    long long next_id_ = 0;
};

// Small readers for DevTools answers.
// The raw JSON text of a member of a JSON object; "" when absent or not an object.
std::string json_member(const std::string& object, const std::string& name);
// The elements of a JSON array, each as raw JSON text; empty when not an array.
std::vector<std::string> json_elements(const std::string& array);
// The text of a JSON string literal, escapes decoded to UTF-8; false when it is not one.
bool json_string_value(const std::string& literal, std::string& out);

}  // namespace vbrowser

#endif

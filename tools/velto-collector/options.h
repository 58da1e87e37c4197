// velto-collector's command line: the options, their defaults and checks, and the usage text. Used by
// main.cpp once at start.
#ifndef VELTO_COLLECTOR_OPTIONS_H
#define VELTO_COLLECTOR_OPTIONS_H

#include <cstddef>
#include <string>

#include "log_lines.h"

namespace vcollect {

struct Options {
    std::string listen = "127.0.0.1";  // the address both ports listen on
    int https_port = 0;                // 0 = no HTTPS server
    int http_port = 0;                 // 0 = no plain-HTTP server (then no page either)
    std::string cert_dir;              // a self-signed pair kept here when --cert/--key are not given
    std::string cert, key;             // the HTTPS server's certificate chain and key (PEM)
    std::string db = "velto-collector.db";
    int db_timeout_ms = 3000;  // the longest a request waits for the database before it gets 503
    int keep_days = 0;         // records older than this many days are removed; 0 keeps everything
    std::string records;       // "" = no JSON-lines file
    std::string conf;          // "" = the built-in configuration
    std::string conf_dir;      // "" = no per-brand configuration
    bool trust_forwarded_for = false;
    int max_connections = 512;    // connections served at once per port
    size_t max_body = 64u << 20;  // larger request bodies are refused
    int read_timeout_s = 5;       // a connection quiet this long (handshake, headers, body) is closed
    int request_timeout_s = 30;   // the most one request may take in all, however its bytes trickle
    LogFormat log_format = LogFormat::kReadable;
};

extern const char kUsage[];

// Reads argv into opt; false after a line on stderr.
bool parse_args(int argc, char** argv, Options& opt);

}  // namespace vcollect

#endif

// Parsing and checking of velto-collector's command line (options.h).
#include "options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

namespace vcollect {

const char kUsage[] =
    "usage: velto-collector [--https-port N --cert-dir DIR | --cert FILE --key FILE] [--http-port M]\n"
    "                       [--listen ADDR] [--db PATH|postgresql://...] [--records FILE]\n"
    "                       [--conf FILE.json | --conf-dir DIR] [more options below]\n"
    "  --listen ADDR        address of both ports (default 127.0.0.1; 0.0.0.0 for every interface)\n"
    "  --https-port N       HTTPS port (the library's libcurl uploads and the configuration request)\n"
    "  --http-port M        plain-HTTP port: uploads of a CONF_URL that starts with http:// or from a\n"
    "                       TLS-terminating load balancer; also the page (/), its JSON API (/api/*)\n"
    "  --cert-dir DIR       cert.pem and key.pem of the HTTPS port; a self-signed pair is made when missing\n"
    "  --cert FILE --key FILE  the HTTPS port's certificate chain and private key (PEM), used as they are\n"
    "  --db PATH            SQLite database of every request and record, kept across runs (default\n"
    "                       velto-collector.db; :memory: keeps nothing), or a PostgreSQL connection string\n"
    "                       (postgresql://user@host/db or \"host=... dbname=...\") shared by several "
    "collectors\n"
    "  --db-timeout MS      the longest an upload waits for the database before it gets 503 (default 3000)\n"
    "  --keep-days N        remove records (and requests) older than N days (default 0: keep everything)\n"
    "  --records FILE       also append received records here, one JSON object per line\n"
    "  --conf FILE          the /v1/conf reply: a whole reply with \"status\", or just the \"conf\" object\n"
    "  --conf-dir DIR       one /v1/conf reply per brand, DIR/BRAND.json, and DIR/default.json for the\n"
    "                       others; files are read again when they change\n"
    "  --trust-forwarded-for  on the plain-HTTP port, the client's address is the last of X-Forwarded-For\n"
    "  --max-connections N  connections served at once on each port (default 512)\n"
    "  --max-body BYTES     larger request bodies are refused (default 67108864)\n"
    "  --read-timeout S     a connection quiet for S seconds is closed (default 5)\n"
    "  --request-timeout S  a request not answered S seconds after its connection opened (or after the\n"
    "                       previous reply) is cut off, however its bytes trickle in (default 30)\n"
    "  --log-format F       readable (default: lines for a terminal), text (key=value) or json (objects),\n"
    "                       one line per request, start-up, database error and shutdown\n"
    "  --help               this text;  --version  its version, which is the library's\n";

namespace {

bool parse_int(const char* text, long low, long high, int& out) {
    char* end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v < low || v > high) return false;
    out = static_cast<int>(v);
    return true;
}

bool set_text(const char* value, std::string& out) {
    out = value;
    return !out.empty();
}

typedef std::function<bool(const char*, Options&)> Setter;

const std::map<std::string, Setter>& setters() {
    static const std::map<std::string, Setter> table = {
        {"--listen", [](const char* v, Options& o) { return set_text(v, o.listen); }},
        {"--https-port", [](const char* v, Options& o) { return parse_int(v, 1, 65535, o.https_port); }},
        {"--http-port", [](const char* v, Options& o) { return parse_int(v, 1, 65535, o.http_port); }},
        {"--cert-dir", [](const char* v, Options& o) { return set_text(v, o.cert_dir); }},
        {"--cert", [](const char* v, Options& o) { return set_text(v, o.cert); }},
        {"--key", [](const char* v, Options& o) { return set_text(v, o.key); }},
        {"--db", [](const char* v, Options& o) { return set_text(v, o.db); }},
        {"--db-timeout",
         [](const char* v, Options& o) { return parse_int(v, 100, 600000, o.db_timeout_ms); }},
        {"--keep-days", [](const char* v, Options& o) { return parse_int(v, 0, 100000, o.keep_days); }},
        {"--records", [](const char* v, Options& o) { return set_text(v, o.records); }},
        {"--conf", [](const char* v, Options& o) { return set_text(v, o.conf); }},
        {"--conf-dir", [](const char* v, Options& o) { return set_text(v, o.conf_dir); }},
        {"--max-connections",
         [](const char* v, Options& o) { return parse_int(v, 4, 10000, o.max_connections); }},
        {"--max-body",
         [](const char* v, Options& o) {
             int n = 0;
             if (!parse_int(v, 1024, 1 << 30, n)) return false;
             o.max_body = static_cast<size_t>(n);
             return true;
         }},
        {"--read-timeout", [](const char* v, Options& o) { return parse_int(v, 1, 3600, o.read_timeout_s); }},
        {"--request-timeout",
         [](const char* v, Options& o) { return parse_int(v, 1, 86400, o.request_timeout_s); }},
        {"--log-format", [](const char* v, Options& o) { return parse_log_format(v, o.log_format); }},
    };
    return table;
}

// A line on stderr when the options do not go together.
bool consistent(const Options& opt) {
    const char* why = nullptr;
    if (opt.https_port == 0 && opt.http_port == 0)
        why = "give --https-port, --http-port or both";
    else if (opt.https_port != 0 && opt.cert_dir.empty() && (opt.cert.empty() || opt.key.empty()))
        why = "--https-port needs --cert-dir or both --cert and --key";
    else if (opt.cert.empty() != opt.key.empty())
        why = "--cert and --key go together";
    else if (!opt.conf.empty() && !opt.conf_dir.empty())
        why = "give --conf or --conf-dir, not both";
    if (why) fprintf(stderr, "velto-collector: %s\n", why);
    return why == nullptr;
}

}  // namespace

bool parse_args(int argc, char** argv, Options& opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--trust-forwarded-for") {
            opt.trust_forwarded_for = true;
            continue;
        }
        const auto setter = setters().find(flag);
        if (setter == setters().end()) {
            fprintf(stderr, "velto-collector: unknown option %s\n", flag.c_str());
            return false;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "velto-collector: %s needs a value\n", flag.c_str());
            return false;
        }
        const char* value = argv[++i];
        if (!setter->second(value, opt)) {
            fprintf(stderr, "velto-collector: bad option %s %s\n", flag.c_str(), value);
            return false;
        }
    }
    return consistent(opt);
}

}  // namespace vcollect

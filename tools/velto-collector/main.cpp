// velto-collector: a local collection server for developing and checking an integration. It serves
// the configuration ("/v1/conf") and takes the uploads ("/v1/data", "/v1/file") of a library built to
// talk to it, over https:// (self-signed certificate, made on first start) and plain http:// (the
// library's own socket client), on 127.0.0.1 only.
//
//   velto-collector --https-port N --http-port M --cert-dir DIR [--db PATH] [--records FILE]
//                   [--conf FILE.json]
//   velto-collector --help | --version
//
// Every received record is printed as one readable line and stored with the request that carried it
// in an SQLite database (store.h), kept across runs; with --records it is also appended to FILE as one
// JSON object per line, for grep and jq. A batch uploaded again is stored once. The plain-HTTP port
// also serves the page and its JSON API (api.h) with a live event stream (event_stream.h). Ctrl-C
// (SIGINT) or SIGTERM ends the streams, prints a summary by record kind and exits 0. Requests are
// served on cpp-httplib's worker threads; the main thread only waits for the signal.
#include <httplib.h>
#include <signal.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Util.h"
#include "api.h"
#include "event_stream.h"
#include "json_text.h"
#include "payload.h"
#include "store.h"
#include "tls_server.h"
#include "upload.h"
#include "velto.h"

namespace {

const size_t kMaxBody = 64u << 20;   // larger requests get 413 from the server itself
const size_t kShownValueBytes = 60;  // longer values are cut in the readable lines

struct Options {
    int https_port = 0;
    int http_port = 0;
    std::string records;  // "" = no JSON-lines file
    std::string db = "velto-collector.db";
    std::string cert_dir;
    std::string conf;  // "" = the built-in configuration
};

const char kUsage[] =
    "usage: velto-collector --https-port N --http-port M --cert-dir DIR [--db PATH] [--records FILE]\n"
    "                       [--conf FILE.json]\n"
    "  --https-port N   HTTPS port on 127.0.0.1 (libcurl uploads and the configuration request)\n"
    "  --http-port M    plain-HTTP port on 127.0.0.1 (for CONF_URL values that start with http://);\n"
    "                   also serves the page (http://127.0.0.1:M/) and its JSON API: /api/records,\n"
    "                   /api/requests, /api/stats and /api/stream (live events); not on the HTTPS port\n"
    "  --cert-dir DIR   cert.pem and key.pem; a self-signed pair is made when missing\n"
    "  --db PATH        SQLite database of every request and record, kept across runs\n"
    "                   (default velto-collector.db in the working directory; :memory: keeps nothing)\n"
    "  --records FILE   also append received records here, one JSON object per line\n"
    "  --conf FILE      the /v1/conf reply: a whole reply with \"status\", or just the \"conf\" object\n"
    "  --help           this text;  --version  its version, which is the library's\n";

// ---- small text helpers ----

// Length of the valid UTF-8 sequence at s[i], 0 when there is none or it is a C1 control character.
size_t utf8_sequence(const std::string& s, size_t i) {
    const size_t n = vcollect::utf8_sequence_at(s, i);
    if (n == 2 && static_cast<unsigned char>(s[i]) == 0xC2 && static_cast<unsigned char>(s[i + 1]) < 0xA0)
        return 0;
    return n;
}

// Bytes shown in a terminal line: ASCII and valid UTF-8 as they are, every other byte as \xNN (so
// that no input can send control sequences to the terminal), cut to a readable length.
std::string printable(const std::string& s, size_t limit = kShownValueBytes) {
    std::string out;
    size_t i = 0;
    while (i < s.size() && i < limit) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t n = c < 0x80 ? (c >= 0x20 && c != 0x7f) : utf8_sequence(s, i);
        if (n == 0) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
            ++i;
        } else {
            out.append(s, i, n);
            i += n;
        }
    }
    if (i < s.size()) out += "...";
    return out;
}

std::string clock_text(long long t) {
    time_t tt = static_cast<time_t>(t);
    struct tm parts;
    char buf[16] = "??:??:??";
    if (localtime_r(&tt, &parts)) strftime(buf, sizeof buf, "%H:%M:%S", &parts);
    return std::string("[") + buf + "]";
}

// ---- records ----

typedef std::vector<std::pair<std::string, std::string>> Members;

// Reads a flat JSON object whose values are all strings; keys and values are kept as written
// (escapes included). False for anything else, so that only valid JSON reaches the records file.
class FlatObjectReader {
  public:
    explicit FlatObjectReader(const std::string& text) : s_(text) {}

    bool read(Members& out) {
        out.clear();
        skip_blanks();
        if (!take('{')) return false;
        skip_blanks();
        if (take('}')) return at_end();
        for (;;) {
            std::string key, value;
            if (!read_string(key) || !take_after_blanks(':') || !read_string(value)) return false;
            out.emplace_back(std::move(key), std::move(value));
            skip_blanks();
            if (take('}')) return at_end();
            if (!take(',')) return false;
        }
    }

  private:
    void skip_blanks() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r')) ++i_;
    }
    bool take(char c) {
        if (i_ >= s_.size() || s_[i_] != c) return false;
        ++i_;
        return true;
    }
    bool take_after_blanks(char c) {
        skip_blanks();
        if (!take(c)) return false;
        skip_blanks();
        return true;
    }
    bool at_end() {
        skip_blanks();
        return i_ == s_.size();
    }
    bool read_escape() {
        if (i_ >= s_.size()) return false;
        const char c = s_[i_++];
        if (strchr("\"\\/bfnrt", c)) return true;
        if (c != 'u' || i_ + 4 > s_.size()) return false;
        for (int k = 0; k < 4; ++k)
            if (!isxdigit(static_cast<unsigned char>(s_[i_++]))) return false;
        return true;
    }
    bool read_string(std::string& out) {
        if (!take('"')) return false;
        const size_t begin = i_;
        while (i_ < s_.size() && s_[i_] != '"') {
            const unsigned char c = static_cast<unsigned char>(s_[i_++]);
            if (c < 0x20) return false;
            if (c == '\\' && !read_escape()) return false;
        }
        if (i_ >= s_.size()) return false;
        out = s_.substr(begin, i_++ - begin);
        return true;
    }

    const std::string& s_;
    size_t i_ = 0;
};

const std::string* member(const Members& m, const char* key) {
    for (const auto& kv : m)
        if (kv.first == key) return &kv.second;
    return nullptr;
}

// The keys each kind of record adds to the base information, in the order the calls take them.
const std::map<std::string, std::vector<const char*>>& own_keys_by_kind() {
    static const std::map<std::string, std::vector<const char*>> kinds = {
        {"event", {"category", "act", "label", "dvalue"}},
        {"screenview", {"category"}},
        {"timing", {"category", "ttime", "label"}},
        {"exception", {"desc", "fatal", "label", "stack"}},
        {"experience", {"category", "act", "properties"}},
        {"init", {"BRAND", "procname", "pver", "uid", "osver"}},
    };
    return kinds;
}

// Keys every record carries; for a kind this tool does not know, everything else is shown.
bool is_common_key(const std::string& key) {
    static const char* const kCommon[] = {"tstart",   "BRAND", "did",    "procname", "procid",  "modver",
                                          "tid",      "pid",   "pver",   "uip",      "plang",   "ostype",
                                          "osver",    "osbit", "oslang", "oszone",   "psource", "uid",
                                          "tinstall", "dtype", "sid",    "ostime"};
    for (const char* k : kCommon)
        if (key == k) return true;
    return false;
}

std::string field_text(const std::string& key, const std::string& value) {
    std::string shown = printable(value);
    if (shown.find(' ') != std::string::npos) shown = "\"" + shown + "\"";
    return "  " + key + "=" + shown;
}

// "[12:03:07] screenview  category=MainWindow  sid={...}"
std::string readable_line(const Members& rec, long long received) {
    const std::string* kind = member(rec, "dtype");
    const std::string* ostime = member(rec, "ostime");
    const long long when = ostime ? atoll(ostime->c_str()) : 0;
    std::string line =
        clock_text(when > 0 ? when : received) + " " + (kind ? printable(*kind) : "(no dtype)");
    const auto& kinds = own_keys_by_kind();
    auto known = kind ? kinds.find(*kind) : kinds.end();
    if (known != kinds.end()) {
        for (const char* key : known->second)
            if (const std::string* v = member(rec, key)) line += field_text(key, *v);
        // The host's own base fields (data_base_ext) are shown where they are introduced.
        if (*kind == "init")
            for (const auto& kv : rec)
                if (!is_common_key(kv.first)) line += field_text(kv.first, kv.second);
    } else {
        for (const auto& kv : rec)
            if (!is_common_key(kv.first)) line += field_text(kv.first, kv.second);
    }
    const std::string* sid = member(rec, "sid");
    return line + "  sid=" + (sid ? printable(*sid) : "-");
}

// ---- request decoding ----

// The checks of what an upload carries live in tools/collector/upload.h, where the fuzz targets reach
// them too.
using vcollect::BadRequest;
using vcollect::decode_upload;
using vcollect::is_base64_text;
using vcollect::Upload;
using vcollect::why_form_payload_fails;

// ---- the collector ----

struct Received {
    std::string endpoint;  // "/v1/data" or "/v1/file"
    std::string upload;    // the upload name of a file, "" for single payloads
    long long at = 0;      // seconds since the epoch
};

// What one request produces, gathered first and published in one piece, so that the lines of
// concurrent uploads do not interleave.
struct Output {
    std::string shown;     // readable lines for stdout
    std::string warnings;  // lines for stderr
    std::string json;      // lines for the records file
    std::map<std::string, long long> kinds;
    long long unreadable = 0;
    std::vector<vcollect::RecordRow> rows;  // for the database
    std::string batch;                      // the batch id of a records upload

    void show(const std::string& line) { shown += line + "\n"; }
    void add_json(const Received& from, const std::string& member) {
        json += "{\"received\":" + std::to_string(from.at) +
                ",\"endpoint\":" + vcollect::json_quote(from.endpoint);
        if (!from.upload.empty()) json += ",\"upload\":" + vcollect::json_quote(from.upload);
        json += "," + member + "}\n";
    }
};

// The database row of a record: the fields the page filters and shows, decoded from their JSON
// escapes, and the whole record written again as valid JSON.
vcollect::RecordRow record_row(const Members& rec, const Received& from) {
    const auto field = [&rec](const char* key) {
        const std::string* v = member(rec, key);
        return v ? vcollect::json_unescape(*v) : std::string();
    };
    vcollect::RecordRow row;
    row.kind = field("dtype");
    row.category = field("category");
    row.action = field("act");
    row.label = field("label");
    row.sid = field("sid");
    row.cid = field("did");
    row.brand = field("BRAND");
    row.pver = field("pver");
    row.batch = from.upload;
    row.record = vcollect::clean_json_object(rec);
    return row;
}

void take_record(const std::string& text, const Received& from, Output& out) {
    Members rec;
    if (!FlatObjectReader(text).read(rec)) {
        ++out.unreadable;
        out.warnings += clock_text(from.at) + " " + from.endpoint +
                        ": a record that is not a flat JSON object: " + printable(text, 200) + "\n";
        out.add_json(from, "\"invalid\":" + vcollect::json_quote(text));
        // Kept in the database too, so that the page shows what the library sent.
        vcollect::RecordRow row;
        row.batch = from.upload;
        row.record = "{\"invalid\":" + vcollect::json_string(text) + "}";
        out.rows.push_back(std::move(row));
        return;
    }
    const std::string* kind = member(rec, "dtype");
    ++out.kinds[kind ? *kind : "(no dtype)"];
    out.show(readable_line(rec, from.at));
    out.add_json(from, "\"record\":" + text);
    out.rows.push_back(record_row(rec, from));
}

// The library's current configuration, sent when it is asked to report it.
void take_config(const std::string& text, const Received& from, Output& out) {
    Members conf;
    const bool flat = FlatObjectReader(text).read(conf);
    out.show(clock_text(from.at) + " config  " + std::to_string(conf.size()) + " settings from the library");
    out.add_json(from, flat ? "\"config\":" + text : "\"config_text\":" + vcollect::json_quote(text));
}

void take_log(const std::string& text, const Received& from, Output& out) {
    out.show(clock_text(from.at) + " log upload  " + std::to_string(text.size()) +
             " bytes of the library's log");
    out.add_json(from, "\"log\":" + vcollect::json_quote(text));
}

void take_conf_request(const std::string& body, const Received& from, Output& out) {
    const vcollect::FormFields form = vcollect::parse_form(body);
    out.show(clock_text(from.at) + " conf request  brand=" + printable(vcollect::form_value(form, "brand")) +
             "  pver=" + printable(vcollect::form_value(form, "pver")) +
             "  client_sign=" + printable(vcollect::form_value(form, "client_sign")));
}

void take_data(const std::string& body, const Received& from, Output& out) {
    const vcollect::FormFields form = vcollect::parse_form(body);
    if (form.empty()) throw BadRequest("the body is not a form (expected data=... or conf=...)");
    const std::string& field = form.front().first;
    if (field != "data" && field != "conf")
        throw BadRequest("unknown form field \"" + printable(field) + "\"");
    std::string text;
    const std::string& payload = form.front().second;
    if (!is_base64_text(payload) || !vcollect::decode_form_payload(payload, text))
        throw BadRequest(why_form_payload_fails(payload));
    if (field == "conf")
        take_config(text, from, out);
    else
        take_record(text, from, out);
}

void take_file(const httplib::Request& req, const std::vector<vcollect::FormPart>& parts,
               const Received& from_request, Output& out) {
    if (!req.is_multipart_form_data()) throw BadRequest("expected a multipart/form-data upload");
    const Upload up = decode_upload(parts);
    Received from = from_request;
    from.upload = up.name;
    if (up.name == "log") return take_log(up.data, from, out);
    out.batch = up.name;

    std::vector<std::string> lines;
    std::istringstream in(up.data);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    out.show(clock_text(from.at) + " upload " + printable(up.name) + "  " + std::to_string(lines.size()) +
             " records");
    for (const std::string& line : lines) take_record(line, from, out);
}

// The database could not take a request; the upload is answered with 500 so that the library sends
// it again later.
struct StoreFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The size of a request's body: its Content-Length, else the bytes read.
int64_t body_size(const httplib::Request& req, size_t read) {
    const std::string length = req.get_header_value("Content-Length");
    char* end = nullptr;
    const long long n = strtoll(length.c_str(), &end, 10);
    return !length.empty() && *end == '\0' && n >= 0 ? n : static_cast<int64_t>(read);
}

vcollect::RequestRow request_row(const std::string& scheme, const httplib::Request& req, size_t bytes_read) {
    vcollect::RequestRow row;
    row.time = now_ms();
    row.endpoint = req.path.substr(0, 256);
    row.peer = req.remote_addr + ":" + std::to_string(req.remote_port);
    row.scheme = scheme;
    row.bytes = body_size(req, bytes_read);
    row.result = "ok";
    return row;
}

// A line about the event streams for the terminal. Called while Collector::publish holds its lock,
// so it takes none: one fprintf keeps the line whole.
void print_note(const std::string& line) {
    fprintf(stderr, "%s %s\n", clock_text(time(nullptr)).c_str(), line.c_str());
    fflush(stderr);
}

class Collector {
  public:
    Collector(FILE* records, std::string conf_reply, vcollect::Store& store, vcollect::EventHub& hub)
        : records_(records), conf_reply_(std::move(conf_reply)), store_(store), hub_(hub) {}

    // Answers one request; never throws.
    void serve(const std::string& scheme, const httplib::Request& req, const std::string& body,
               const std::vector<vcollect::FormPart>& parts, size_t bytes_read, httplib::Response& res);
    // Answers with an error, prints it and stores the request with result "bad: <why>".
    void reject(const std::string& scheme, const httplib::Request& req, const std::string& why,
                httplib::Response& res, int status = 400, size_t bytes_read = 0);
    // Prints the line of an API request answered with 400 (not stored: the store keeps uploads).
    void report_bad_query(const std::string& scheme, const httplib::Request& req, const std::string& why);
    void count_request(const std::string& path);
    void print_summary();

  private:
    void publish(Output& out, vcollect::RequestRow& request);
    void print_bad_request(const std::string& scheme, const httplib::Request& req, const std::string& why);

    std::mutex m_;   // guards everything below, the three output streams and the order of stored events
    FILE* records_;  // null without --records
    const std::string conf_reply_;
    vcollect::Store& store_;
    vcollect::EventHub& hub_;
    std::map<std::string, long long> kinds_;
    std::map<std::string, long long> requests_;
    long long bad_requests_ = 0;
    long long unreadable_ = 0;
    long long repeats_ = 0;
};

// Stores the request and its records, then shows them and sends them to the event streams, all under
// one lock so that the terminal, the file and the streams see requests in the order they were stored.
void Collector::publish(Output& out, vcollect::RequestRow& request) {
    std::lock_guard<std::mutex> hold(m_);
    request.batch = out.batch;
    request.records = static_cast<int64_t>(out.rows.size());
    bool repeat = false;
    try {
        repeat = store_.add(request, out.rows);
    } catch (const std::exception& e) {
        throw StoreFailure(std::string("cannot be stored: ") + e.what());
    }
    if (repeat) {
        ++repeats_;
        printf("%s upload %s  %zu records: a batch stored before, not stored again\n",
               clock_text(request.time / 1000).c_str(), printable(out.batch).c_str(), out.rows.size());
        fflush(stdout);
    } else {
        for (const auto& k : out.kinds) kinds_[k.first] += k.second;
        unreadable_ += out.unreadable;
        if (records_) {
            fwrite(out.json.data(), 1, out.json.size(), records_);
            fflush(records_);
        }
        fputs(out.shown.c_str(), stdout);
        fflush(stdout);
        fputs(out.warnings.c_str(), stderr);
        fflush(stderr);
    }
    hub_.publish("request", vcollect::request_json(request));
    if (!repeat)
        for (const vcollect::RecordRow& row : out.rows) hub_.publish("record", vcollect::record_json(row));
}

void Collector::serve(const std::string& scheme, const httplib::Request& req, const std::string& body,
                      const std::vector<vcollect::FormPart>& parts, size_t bytes_read,
                      httplib::Response& res) {
    try {
        vcollect::RequestRow request = request_row(scheme, req, bytes_read);
        Received from;
        from.endpoint = req.path;
        from.at = request.time / 1000;
        Output out;
        if (req.path == "/v1/conf")
            take_conf_request(body, from, out);
        else if (req.path == "/v1/data")
            take_data(body, from, out);
        else
            take_file(req, parts, from, out);
        publish(out, request);
        res.set_content(req.path == "/v1/conf" ? conf_reply_ : "{\"status\":0}", "application/json");
    } catch (const BadRequest& e) {
        reject(scheme, req, e.what(), res, 400, bytes_read);
    } catch (const StoreFailure& e) {
        reject(scheme, req, e.what(), res, 500, bytes_read);
    } catch (const std::exception& e) {
        reject(scheme, req, std::string("cannot be read: ") + e.what(), res, 400, bytes_read);
    } catch (...) {
        reject(scheme, req, "cannot be read", res, 400, bytes_read);
    }
}

void Collector::print_bad_request(const std::string& scheme, const httplib::Request& req,
                                  const std::string& why) {
    fprintf(stderr, "%s bad request: %s %s://127.0.0.1:%d%s from %s:%d: %s\n",
            clock_text(time(nullptr)).c_str(), printable(req.method, 16).c_str(), scheme.c_str(),
            req.local_port, printable(req.path, 100).c_str(), req.remote_addr.c_str(), req.remote_port,
            printable(why, 300).c_str());
    fflush(stderr);
}

void Collector::reject(const std::string& scheme, const httplib::Request& req, const std::string& why,
                       httplib::Response& res, int status, size_t bytes_read) {
    vcollect::RequestRow row = request_row(scheme, req, bytes_read);
    row.result = "bad: " + why.substr(0, 300);
    {
        std::lock_guard<std::mutex> hold(m_);
        ++bad_requests_;
        print_bad_request(scheme, req, why);
        try {
            std::vector<vcollect::RecordRow> none;
            store_.add(row, none);
            hub_.publish("request", vcollect::request_json(row));
        } catch (const std::exception& e) {
            fprintf(stderr, "velto-collector: the bad request cannot be stored: %s\n", e.what());
            fflush(stderr);
        }
    }
    res.status = status;
    res.set_content("{\"status\":1,\"error\":" + vcollect::json_string(why) + "}", "application/json");
}

void Collector::report_bad_query(const std::string& scheme, const httplib::Request& req,
                                 const std::string& why) {
    std::lock_guard<std::mutex> hold(m_);
    print_bad_request(scheme, req, why);
}

void Collector::count_request(const std::string& path) {
    std::lock_guard<std::mutex> hold(m_);
    ++requests_[path];
}

void Collector::print_summary() {
    std::lock_guard<std::mutex> hold(m_);
    long long total = 0;
    for (const auto& k : kinds_) total += k.second;
    printf("velto-collector: %lld records received\n", total);
    for (const auto& k : kinds_) printf("  %-14s %lld\n", printable(k.first, 30).c_str(), k.second);
    printf("  requests: %lld conf, %lld data, %lld file; %lld bad requests, %lld unreadable records\n",
           requests_["/v1/conf"], requests_["/v1/data"], requests_["/v1/file"], bad_requests_, unreadable_);
    if (repeats_ > 0) printf("  %lld batches uploaded again (stored once)\n", repeats_);
    fflush(stdout);
}

// ---- servers ----

void install_routes(httplib::Server& server, Collector& collector, const std::string& scheme) {
    server.set_payload_max_length(kMaxBody);
    server.set_keep_alive_timeout(2);
    for (const char* path : {"/v1/conf", "/v1/data", "/v1/file"}) {
        server.Post(path, [&collector, scheme](const httplib::Request& req, httplib::Response& res,
                                               const httplib::ContentReader& reader) {
            collector.count_request(req.path);
            std::string body;
            std::vector<vcollect::FormPart> parts;
            size_t bytes_read = 0;
            bool whole = false;
            try {
                if (req.is_multipart_form_data()) {
                    whole = reader(
                        [&](const httplib::MultipartFormData& f) {
                            parts.push_back(vcollect::FormPart{f.name, f.filename, f.content_type, ""});
                            return true;
                        },
                        [&](const char* data, size_t n) {
                            bytes_read += n;
                            if (!parts.empty()) parts.back().data.append(data, n);
                            return true;
                        });
                } else {
                    whole = reader([&](const char* data, size_t n) {
                        bytes_read += n;
                        body.append(data, n);
                        return true;
                    });
                }
            } catch (...) {
                whole = false;
            }
            if (!whole)
                collector.reject(scheme, req,
                                 body_size(req, bytes_read) > static_cast<int64_t>(kMaxBody)
                                     ? "the body is larger than the collector takes (" +
                                           std::to_string(kMaxBody >> 20) + " MiB)"
                                     : "the body could not be read (broken multipart form or cut short)",
                                 res, 400, bytes_read);
            else
                collector.serve(scheme, req, body, parts, bytes_read, res);
        });
    }
    // Anything else gets the same kind of JSON error, not httplib's empty 404.
    const std::string known = scheme == "http" ? "POST /v1/conf, /v1/data and /v1/file; GET / and /api/*"
                                               : "POST /v1/conf, /v1/data and /v1/file";
    auto unknown = [&collector, scheme, known](const httplib::Request& req, httplib::Response& res) {
        collector.reject(scheme, req, "unknown path (the collector serves " + known + ")", res, 404);
    };
    server.Get(".*", unknown);
    server.Post(".*", unknown);
    server.Put(".*", unknown);
}

// The HTTPS server on the pair in cert_dir; a missing or unusable pair is (re)made.
std::unique_ptr<httplib::SSLServer> make_tls_server(const std::string& cert_dir) {
    const std::string cert = cert_dir + "/cert.pem", key = cert_dir + "/key.pem";
    std::error_code ec;
    std::filesystem::create_directories(cert_dir, ec);
    const bool had_pair = std::filesystem::exists(cert, ec) && std::filesystem::exists(key, ec);
    if (had_pair) {
        std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(cert.c_str(), key.c_str()));
        if (server->is_valid()) return server;
        fprintf(stderr, "velto-collector: %s or %s is unusable; making a new pair\n", cert.c_str(),
                key.c_str());
    }
    if (!vcollect::make_self_signed_cert(cert, key)) {
        fprintf(stderr, "velto-collector: cannot write a certificate to %s\n", cert_dir.c_str());
        return nullptr;
    }
    printf("velto-collector: made a self-signed certificate for 127.0.0.1 in %s\n", cert_dir.c_str());
    std::unique_ptr<httplib::SSLServer> server(new httplib::SSLServer(cert.c_str(), key.c_str()));
    return server->is_valid() ? std::move(server) : nullptr;
}

bool bind_loopback(httplib::Server& server, int port) {
    if (server.bind_to_port("127.0.0.1", port)) return true;
    fprintf(stderr, "velto-collector: cannot listen on 127.0.0.1:%d (in use?)\n", port);
    return false;
}

// ---- configuration ----

std::string builtin_conf_reply(int https_port) {
    return "{\"status\":0,\"conf\":{"
           "\"CONF_URL\":\"https://127.0.0.1:" +
           std::to_string(https_port) +
           "\",\"ENABLE_HTTPS\":\"ON\",\"CONF_UPD_GAP\":1,\"COLLECT_ON\":\"ON\",\"COLLECT_WAY\":\"NOREAL\","
           "\"SEND_ENDPOINTS\":\"ON\",\"SEND_BEGINPOINTS\":\"ON\",\"SEND_GAP\":1,\"SEND_NUM\":10,\"SEND_"
           "SIZE\":16,"
           "\"MAX_RESV_DAY\":7,\"MAX_FILE_SIZE\":2000,\"MAX_LOG_SIZE\":4000,\"LOGERR_SEND_LIM\":50,"
           "\"SEND_LOG_ON\":\"OFF\",\"SEND_CUR_CONF\":\"OFF\",\"ZIP_DATA\":\"ON\",\"CON_TIMEOUT\":3000,"
           "\"SESSION_TMOUT\":1800}}";
}

// The reply served from a file: a whole reply when it has a "status" member, else the "conf" object.
bool conf_reply_from_file(const std::string& path, std::string& reply) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "velto-collector: cannot read %s\n", path.c_str());
        return false;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    std::string text = ss.str();
    Velto::Util::trim(text);
    if (text.size() < 2 || text.front() != '{' || text.back() != '}') {
        fprintf(stderr, "velto-collector: %s does not hold a JSON object\n", path.c_str());
        return false;
    }
    const bool whole = !Velto::Util::json_item(text, "status").empty();
    reply = whole ? text : "{\"status\":0,\"conf\":" + text + "}";
    Velto::StrMap items;
    Velto::Util::json2map(whole ? Velto::Util::json_item(text, "conf") : text, items);
    if (items.size() < 10)
        fprintf(stderr,
                "velto-collector: warning: %s gives %zu settings; the library ignores fewer than 10\n",
                path.c_str(), items.size());
    return true;
}

// ---- command line ----

bool parse_port(const char* text, int& port) {
    char* end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 1 || v > 65535) return false;
    port = static_cast<int>(v);
    return true;
}

bool parse_args(int argc, char** argv, Options& opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (i + 1 >= argc) {
            fprintf(stderr, "velto-collector: %s needs a value\n", flag.c_str());
            return false;
        }
        const char* value = argv[++i];
        bool ok = true;
        if (flag == "--https-port")
            ok = parse_port(value, opt.https_port);
        else if (flag == "--http-port")
            ok = parse_port(value, opt.http_port);
        else if (flag == "--records")
            opt.records = value;
        else if (flag == "--db")
            ok = (opt.db = value).size() > 0;
        else if (flag == "--cert-dir")
            opt.cert_dir = value;
        else if (flag == "--conf")
            opt.conf = value;
        else
            ok = false;
        if (!ok) {
            fprintf(stderr, "velto-collector: bad option %s %s\n", flag.c_str(), value);
            return false;
        }
    }
    if (opt.https_port == 0 || opt.http_port == 0 || opt.cert_dir.empty()) {
        fprintf(stderr, "velto-collector: --https-port, --http-port and --cert-dir are required\n");
        return false;
    }
    return true;
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

// Where the records go, for the start-up line.
std::string destinations(const Options& opt) {
    return "the database " + opt.db + (opt.records.empty() ? "" : " and " + opt.records);
}

int run(const Options& opt) {
    std::string conf_reply = builtin_conf_reply(opt.https_port);
    if (!opt.conf.empty() && !conf_reply_from_file(opt.conf, conf_reply)) return 2;
    std::unique_ptr<FILE, int (*)(FILE*)> records(nullptr, &fclose);
    if (!opt.records.empty()) {
        records.reset(fopen(opt.records.c_str(), "a"));
        if (!records) {
            fprintf(stderr, "velto-collector: cannot open %s: %s\n", opt.records.c_str(), strerror(errno));
            return 2;
        }
    }
    std::unique_ptr<vcollect::Store> store;
    try {
        store.reset(new vcollect::Store(opt.db));
    } catch (const vcollect::StoreError& e) {
        fprintf(stderr, "velto-collector: %s\n", e.what());
        return 2;
    }
    const sigset_t stop = block_stop_signals();
    vcollect::EventHub hub(vcollect::EventHub::Limits(), &print_note);
    Collector collector(records.get(), conf_reply, *store, hub);
    std::unique_ptr<httplib::SSLServer> tls = make_tls_server(opt.cert_dir);
    httplib::Server plain;
    if (!tls) return 1;
    // Each open event stream holds a worker thread: room for the streams and the uploads beside them.
    plain.new_task_queue = [] { return new httplib::ThreadPool(32); };
    install_routes(*tls, collector, "https");
    // The page and the API first: install_routes ends with catch-all routes.
    vcollect::install_api(plain, *store, hub,
                          [&collector](const httplib::Request& req, const std::string& why) {
                              collector.report_bad_query("http", req, why);
                          });
    install_routes(plain, collector, "http");
    if (!bind_loopback(*tls, opt.https_port) || !bind_loopback(plain, opt.http_port)) return 1;
    std::thread tls_thread([&] { tls->listen_after_bind(); });
    std::thread plain_thread([&] { plain.listen_after_bind(); });
    // stop() acts only on a running listener: a signal that came early must still end both.
    for (int i = 0; i < 5000 && !(tls->is_running() && plain.is_running()); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    printf("velto-collector: listening on https://127.0.0.1:%d and http://127.0.0.1:%d; records go to %s\n",
           opt.https_port, opt.http_port, destinations(opt).c_str());
    printf("velto-collector: the page: http://127.0.0.1:%d/\n", opt.http_port);
    printf("velto-collector: serving %s configuration; stop with Ctrl-C\n",
           opt.conf.empty() ? "the built-in" : opt.conf.c_str());
    fflush(stdout);

    int sig = 0;
    sigwait(&stop, &sig);
    hub.close();  // the servers wait for their worker threads, and open streams hold some
    tls->stop();
    plain.stop();
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

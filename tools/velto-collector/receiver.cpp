// The library's routes on velto-collector's servers (receiver.h): read the body within its bound,
// decode, store, answer, then publish.
#include "receiver.h"

#include <httplib.h>

#include <chrono>
#include <utility>

#include "api.h"
#include "json_text.h"
#include "log_lines.h"
#include "terminal.h"
#include "upload.h"

namespace vcollect {

namespace {

int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int64_t steady_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The size of a request's body: its Content-Length, else the bytes read.
int64_t body_size(const httplib::Request& req, size_t read) {
    const std::string length = req.get_header_value("Content-Length");
    char* end = nullptr;
    const long long n = strtoll(length.c_str(), &end, 10);
    return !length.empty() && *end == '\0' && n >= 0 ? n : static_cast<int64_t>(read);
}

// The last address of X-Forwarded-For (the one the trusted balancer added), "" when it is missing or
// does not look like an address.
std::string forwarded_for(const httplib::Request& req) {
    std::string list = req.get_header_value("X-Forwarded-For");
    const size_t comma = list.rfind(',');
    if (comma != std::string::npos) list.erase(0, comma + 1);
    const size_t begin = list.find_first_not_of(' ');
    const size_t end = list.find_last_not_of(' ');
    if (begin == std::string::npos) return "";
    list = list.substr(begin, end - begin + 1);
    if (list.size() > 45 || list.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos)
        return "";
    return list;
}

const char* endpoint_label(const std::string& path) {
    for (const char* known : {"/v1/conf", "/v1/data", "/v1/file"})
        if (path == known) return known;
    return "other";
}

std::string prometheus_labels(const std::string& endpoint, const std::string& result) {
    return "{endpoint=\"" + endpoint + "\",result=\"" + result + "\"}";
}

// The structured line of one answered request; started_ms < 0 leaves out its duration.
LogLine request_line(const RequestRow& row, const char* result, int status, int64_t started_ms) {
    LogLine line(status >= 500 ? "error" : status >= 400 ? "warn" : "info", "request");
    line.add("endpoint", row.endpoint).add("scheme", row.scheme).add("peer", row.peer);
    line.add("status", status).add("result", result).add("records", row.records).add("batch", row.batch);
    line.add("bytes", row.bytes);
    if (started_ms >= 0) line.add("duration_ms", steady_ms() - started_ms);
    return line;
}

}  // namespace

Collector::Collector(ReceiverSettings settings, ConfReply conf, Store& store, EventHub& hub)
    : settings_(settings), conf_(std::move(conf)), store_(store), hub_(hub) {}

RequestRow Collector::request_row(const std::string& scheme, const httplib::Request& req,
                                  size_t bytes_read) const {
    RequestRow row;
    row.time = now_ms();
    row.endpoint = req.path.substr(0, 256);
    const std::string forwarded =
        settings_.trust_forwarded_for && scheme == "http" ? forwarded_for(req) : std::string();
    row.peer = forwarded.empty() ? req.remote_addr + ":" + std::to_string(req.remote_port) : forwarded;
    row.scheme = scheme;
    row.bytes = body_size(req, bytes_read);
    row.result = "ok";
    return row;
}

void Collector::count(const std::string& endpoint, const std::string& result) {
    ++requests_[{endpoint_label(endpoint), result}];
}

// Stores the request and its records; false (after a line on stderr) when the database failed.
bool Collector::store(RequestRow& request, Output& out, bool& repeat) {
    request.batch = out.batch;
    request.records = static_cast<int64_t>(out.rows.size());
    try {
        repeat = store_.add(request, out.rows);
        return true;
    } catch (const std::exception& e) {
        LogLine("error", "database_error")
            .add("endpoint", request.endpoint)
            .add("peer", request.peer)
            .add("error", e.what())
            .write(stderr, clock_text(time(nullptr)) + " cannot store " + printable(request.endpoint) +
                               " from " + printable(request.peer) + ": " + printable(e.what(), 300) + "\n");
        return false;
    }
}

// Shows the stored request and sends it to the event streams, under one lock so that the terminal,
// the file and the streams see requests in one order.
void Collector::publish(const Output& out, const RequestRow& request, bool repeat, int64_t started_ms) {
    std::lock_guard<std::mutex> hold(m_);
    count(request.endpoint, repeat ? "repeat" : "ok");
    if (!repeat) {
        for (const auto& k : out.kinds) kinds_[k.first] += k.second;
        unreadable_ += out.unreadable;
        records_stored_ += static_cast<long long>(out.rows.size());
        if (settings_.records) {
            fwrite(out.json.data(), 1, out.json.size(), settings_.records);
            fflush(settings_.records);
        }
    }
    if (structured_log()) {
        LogLine line = request_line(request, repeat ? "repeat" : "ok", 200, started_ms);
        if (out.unreadable > 0) line.add("unreadable", out.unreadable);
        line.write(stdout, "");
    } else if (repeat) {
        write_whole(stdout, clock_text(request.time / 1000) + " upload " + printable(out.batch) + "  " +
                                std::to_string(out.rows.size()) +
                                " records: a batch stored before, not stored again\n");
    } else {
        write_whole(stdout, out.shown);
        if (!out.warnings.empty()) write_whole(stderr, out.warnings);
    }
    hub_.publish("request", request_json(request));
    if (!repeat)
        for (const RecordRow& row : out.rows) hub_.publish("record", record_json(row));
}

void Collector::serve(const std::string& scheme, const httplib::Request& req, const std::string& body,
                      const std::vector<FormPart>& parts, size_t bytes_read, int64_t started_ms,
                      httplib::Response& res) {
    try {
        RequestRow request = request_row(scheme, req, bytes_read);
        Received from;
        from.endpoint = req.path;
        from.at = request.time / 1000;
        Output out = ingest(req.path, body, req.is_multipart_form_data(), parts, from);
        bool repeat = false;
        const bool stored = store(request, out, repeat);
        if (req.path == "/v1/conf") {
            // The configuration is served even when the database cannot keep the request.
            if (stored)
                publish(out, request, false, started_ms);
            else
                request_line(request, "ok", 200, started_ms).write(stdout, "");
            res.set_content(conf_(form_value(parse_form(body), "brand")), "application/json");
            return;
        }
        if (!stored) {
            {
                std::lock_guard<std::mutex> hold(m_);
                count(req.path, "unavailable");
            }
            request_line(request, "unavailable", 503, started_ms).write(stdout, "");
            res.status = 503;
            res.set_content(R"({"status":1,"error":"the database is unavailable; send again later"})",
                            "application/json");
            return;
        }
        publish(out, request, repeat, started_ms);
        res.set_content("{\"status\":0}", "application/json");
    } catch (const BadRequest& e) {
        reject(scheme, req, e.what(), res, 400, bytes_read, started_ms);
    } catch (const std::exception& e) {
        reject(scheme, req, std::string("cannot be read: ") + e.what(), res, 400, bytes_read, started_ms);
    } catch (...) {
        reject(scheme, req, "cannot be read", res, 400, bytes_read, started_ms);
    }
}

void Collector::print_bad_request(const std::string& scheme, const httplib::Request& req,
                                  const std::string& why, int status, size_t bytes_read, int64_t started_ms) {
    if (structured_log()) {
        request_line(request_row(scheme, req, bytes_read), "bad", status, started_ms)
            .add("method", req.method)
            .add("error", why)
            .write(stdout, "");
        return;
    }
    char line[1024];
    snprintf(line, sizeof line, "%s bad request: %s %s://%s:%d%s from %s:%d: %s\n",
             clock_text(time(nullptr)).c_str(), printable(req.method, 16).c_str(), scheme.c_str(),
             printable(req.local_addr, 64).c_str(), req.local_port, printable(req.path, 100).c_str(),
             req.remote_addr.c_str(), req.remote_port, printable(why, 300).c_str());
    write_whole(stderr, line);
}

void Collector::reject(const std::string& scheme, const httplib::Request& req, const std::string& why,
                       httplib::Response& res, int status, size_t bytes_read, int64_t started_ms) {
    RequestRow row = request_row(scheme, req, bytes_read);
    row.result = "bad: " + why.substr(0, 300);
    bool stored = false;
    try {
        std::vector<RecordRow> none;
        store_.add(row, none);
        stored = true;
    } catch (const std::exception& e) {
        log_note("error", "database_error", "the bad request cannot be stored: " + printable(e.what(), 300));
    }
    {
        std::lock_guard<std::mutex> hold(m_);
        count(req.path, "bad");
        print_bad_request(scheme, req, why, status, bytes_read, started_ms);
        if (stored) hub_.publish("request", request_json(row));
    }
    res.status = status;
    res.set_content("{\"status\":1,\"error\":" + json_string(why) + "}", "application/json");
}

void Collector::report_bad_query(const std::string& scheme, const httplib::Request& req,
                                 const std::string& why) {
    std::lock_guard<std::mutex> hold(m_);
    print_bad_request(scheme, req, why, 400, 0, -1);
}

void Collector::print_summary() {
    std::lock_guard<std::mutex> hold(m_);
    long long total = 0;
    for (const auto& k : kinds_) total += k.second;
    std::map<std::string, long long> by_endpoint, by_result;
    for (const auto& r : requests_) {
        by_endpoint[r.first.first] += r.second;
        by_result[r.first.second] += r.second;
    }
    LogLine line("info", "stop");
    line.add("records", total);
    for (const auto& k : kinds_) line.add(("records_" + printable(k.first, 30)).c_str(), k.second);
    line.add("conf_requests", by_endpoint["/v1/conf"]).add("data_requests", by_endpoint["/v1/data"]);
    line.add("file_requests", by_endpoint["/v1/file"]).add("bad_requests", by_result["bad"]);
    line.add("repeats", by_result["repeat"]).add("unavailable", by_result["unavailable"]);
    line.add("unreadable", unreadable_);
    std::string text = "velto-collector: " + std::to_string(total) + " records received\n";
    char buf[256];
    for (const auto& k : kinds_) {
        snprintf(buf, sizeof buf, "  %-14s %lld\n", printable(k.first, 30).c_str(), k.second);
        text += buf;
    }
    snprintf(buf, sizeof buf,
             "  requests: %lld conf, %lld data, %lld file; %lld bad requests, %lld unreadable records\n",
             by_endpoint["/v1/conf"], by_endpoint["/v1/data"], by_endpoint["/v1/file"], by_result["bad"],
             unreadable_);
    text += buf;
    if (by_result["repeat"] > 0)
        text += "  " + std::to_string(by_result["repeat"]) + " batches uploaded again (stored once)\n";
    if (by_result["unavailable"] > 0)
        text += "  " + std::to_string(by_result["unavailable"]) +
                " uploads answered 503 (database unavailable)\n";
    line.write(stdout, text);
}

std::string Collector::metrics() {
    std::string out =
        "# HELP velto_requests_total Requests to the library's endpoints by result.\n"
        "# TYPE velto_requests_total counter\n";
    long long repeats = 0, bad = 0;
    {
        std::lock_guard<std::mutex> hold(m_);
        for (const auto& r : requests_) {
            out += "velto_requests_total" + prometheus_labels(r.first.first, r.first.second) + " " +
                   std::to_string(r.second) + "\n";
            if (r.first.second == "repeat") repeats += r.second;
            if (r.first.second == "bad") bad += r.second;
        }
        out +=
            "# HELP velto_records_stored_total Records stored by this collector.\n"
            "# TYPE velto_records_stored_total counter\n"
            "velto_records_stored_total " +
            std::to_string(records_stored_) + "\n";
    }
    out +=
        "# HELP velto_repeats_total Batches received again and not stored twice.\n"
        "# TYPE velto_repeats_total counter\n"
        "velto_repeats_total " +
        std::to_string(repeats) +
        "\n"
        "# HELP velto_bad_requests_total Requests answered 400 or 404.\n"
        "# TYPE velto_bad_requests_total counter\n"
        "velto_bad_requests_total " +
        std::to_string(bad) + "\n";
    const DatabaseCounters& db = store_.counters();
    out +=
        "# HELP velto_database_write_seconds Time of each database write (a request and its records).\n"
        "# TYPE velto_database_write_seconds histogram\n";
    for (int i = 0; i < 6; ++i)
        out += "velto_database_write_seconds_bucket{le=\"" + std::to_string(kWriteBucketsMs[i] / 1000.0) +
               "\"} " + std::to_string(db.write_buckets[i].load()) + "\n";
    out += "velto_database_write_seconds_bucket{le=\"+Inf\"} " + std::to_string(db.writes.load()) + "\n" +
           "velto_database_write_seconds_sum " + std::to_string(db.write_us_total.load() / 1e6) + "\n" +
           "velto_database_write_seconds_count " + std::to_string(db.writes.load()) + "\n" +
           "# HELP velto_database_errors_total Database writes that failed or timed out.\n"
           "# TYPE velto_database_errors_total counter\n"
           "velto_database_errors_total " +
           std::to_string(db.errors.load()) + "\n" +
           "# HELP velto_open_streams Event streams open now.\n"
           "# TYPE velto_open_streams gauge\n"
           "velto_open_streams " +
           std::to_string(hub_.open_streams()) + "\n";
    return out;
}

void install_routes(httplib::Server& server, Collector& collector, const std::string& scheme) {
    const size_t max_body = collector.settings().max_body;
    server.set_payload_max_length(max_body);
    for (const char* path : {"/v1/conf", "/v1/data", "/v1/file"}) {
        server.Post(path, [&collector, scheme, max_body](const httplib::Request& req, httplib::Response& res,
                                                         const httplib::ContentReader& reader) {
            const int64_t started_ms = steady_ms();
            std::string body;
            std::vector<FormPart> parts;
            size_t bytes_read = 0;
            bool whole = false;
            try {
                if (req.is_multipart_form_data()) {
                    whole = reader(
                        [&](const httplib::MultipartFormData& f) {
                            parts.push_back(FormPart{f.name, f.filename, f.content_type, ""});
                            return true;
                        },
                        [&](const char* data, size_t n) {
                            bytes_read += n;
                            if (!parts.empty()) parts.back().data.append(data, n);
                            return bytes_read <= max_body;
                        });
                } else {
                    whole = reader([&](const char* data, size_t n) {
                        bytes_read += n;
                        body.append(data, n);
                        return bytes_read <= max_body;
                    });
                }
            } catch (...) {
                whole = false;
            }
            if (!whole)
                collector.reject(scheme, req,
                                 body_size(req, bytes_read) > static_cast<int64_t>(max_body)
                                     ? "the body is larger than the collector takes (" +
                                           std::to_string(max_body) + " bytes)"
                                     : "the body could not be read (broken multipart form or cut short)",
                                 res, 400, bytes_read, started_ms);
            else
                collector.serve(scheme, req, body, parts, bytes_read, started_ms, res);
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

}  // namespace vcollect

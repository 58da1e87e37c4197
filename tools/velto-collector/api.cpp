// The routes of velto-collector's JSON API: query values are checked and bounded here (a malformed
// one gets 400 with {"error":"..."}), the store does the filtering, and every string leaves through
// json_string so that the page can always parse what it gets.
#include "api.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>

#include "json_text.h"
#include "web_page.h"

namespace vcollect {

namespace {

const int64_t kDefaultRecords = 200, kMaxRecords = 5000;
const int64_t kDefaultRequests = 100, kMaxRequests = 5000;
const int64_t kDefaultMinutes = 10, kMaxMinutes = 60 * 24 * 366 * 10;
const int64_t kDefaultTimelineMinutes = 60, kMaxSlices = 1440, kMaxTimelineRows = 20000;
const size_t kMaxTextParam = 1024;  // longer filter texts are refused
const size_t kMaxDigits = 15;       // up to ~3e7 years of milliseconds

int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Reads a request's query parameters; the first malformed one is kept in error().
class QueryReader {
  public:
    explicit QueryReader(const httplib::Request& req) : req_(req) {}

    std::optional<std::string> text(const char* name) {
        if (!req_.has_param(name)) return std::nullopt;
        std::string v = req_.get_param_value(name);
        if (v.size() > kMaxTextParam)
            return fail(name, "is longer than " + std::to_string(kMaxTextParam) + " bytes");
        return v;
    }
    // A decimal number of at most kMaxDigits digits, in [low, high]; values above high are taken as
    // high when clamp is set.
    std::optional<int64_t> number(const char* name, int64_t low, int64_t high, bool clamp = false) {
        if (!req_.has_param(name)) return std::nullopt;
        const std::string v = req_.get_param_value(name);
        if (v.empty() || v.size() > kMaxDigits || v.find_first_not_of("0123456789") != std::string::npos)
            return fail(name, "is not a whole number of at most " + std::to_string(kMaxDigits) + " digits");
        const int64_t n = std::stoll(v);
        if (n > high && clamp) return high;
        if (n < low || n > high)
            return fail(name, "must be from " + std::to_string(low) + " to " + std::to_string(high));
        return n;
    }
    std::optional<bool> order_oldest_first() {
        const std::optional<std::string> v = text("order");
        if (!v) return std::nullopt;
        if (*v == "asc") return true;
        if (*v == "desc") return false;
        return fail("order", "must be asc or desc");
    }
    const std::string& error() const { return error_; }

  private:
    std::nullopt_t fail(const char* name, const std::string& why) {
        if (error_.empty()) error_ = std::string(name) + " " + why;
        return std::nullopt;
    }

    const httplib::Request& req_;
    std::string error_;
};

void reply_json(httplib::Response& res, const std::string& body) {
    res.set_header("Cache-Control", "no-store");
    res.set_content(body, "application/json; charset=utf-8");
}

// 400 with the reason, reported to the terminal; true when the query was bad.
bool refuse_bad_query(const QueryReader& q, const httplib::Request& req, httplib::Response& res,
                      const BadQueryReport& report) {
    if (q.error().empty()) return false;
    report(req, q.error());
    res.status = 400;
    reply_json(res, "{\"error\":" + json_string(q.error()) + "}");
    return true;
}

std::string counts_json(const std::map<std::string, int64_t>& counts) {
    std::string out = "{";
    for (const auto& kv : counts) {
        if (out.size() > 1) out += ',';
        out += json_string(kv.first) + ":" + std::to_string(kv.second);
    }
    return out + "}";
}

// The filter members that /api/records and /api/timeline share.
RecordFilter record_filter(QueryReader& q) {
    RecordFilter f;
    f.kind = q.text("kind");
    f.category = q.text("category");
    f.sid = q.text("sid");
    f.text = q.text("q");
    if (f.text && f.text->empty()) f.text.reset();
    f.since = q.number("since", 0, INT64_MAX);
    f.until = q.number("until", 0, INT64_MAX);
    return f;
}

void serve_records(Store& store, const httplib::Request& req, httplib::Response& res,
                   const BadQueryReport& report) {
    QueryReader q(req);
    RecordFilter f = record_filter(q);
    f.after = q.number("after", 0, INT64_MAX);
    f.limit = q.number("limit", 0, kMaxRecords, true).value_or(kDefaultRecords);
    f.oldest_first = q.order_oldest_first().value_or(false);
    if (refuse_bad_query(q, req, res, report)) return;
    int64_t total = 0;
    std::string body = "{\"records\":[";
    bool first = true;
    for (const RecordRow& r : store.records(f, total)) {
        if (!first) body += ',';
        first = false;
        body += record_json(r);
    }
    reply_json(res, body + "],\"total\":" + std::to_string(total) + "}");
}

void serve_requests(Store& store, const httplib::Request& req, httplib::Response& res,
                    const BadQueryReport& report) {
    QueryReader q(req);
    const int64_t limit = q.number("limit", 0, kMaxRequests, true).value_or(kDefaultRequests);
    const std::optional<int64_t> after = q.number("after", 0, INT64_MAX);
    if (refuse_bad_query(q, req, res, report)) return;
    int64_t total = 0;
    std::string body = "{\"requests\":[";
    bool first = true;
    for (const RequestRow& r : store.requests(limit, after, total)) {
        if (!first) body += ',';
        first = false;
        body += request_json(r);
    }
    reply_json(res, body + "],\"total\":" + std::to_string(total) + "}");
}

void serve_stats(Store& store, const httplib::Request& req, httplib::Response& res,
                 const BadQueryReport& report) {
    QueryReader q(req);
    const int64_t minutes = q.number("minutes", 1, kMaxMinutes).value_or(kDefaultMinutes);
    if (refuse_bad_query(q, req, res, report)) return;
    const Stats s = store.stats(now_ms() - minutes * 60000);
    reply_json(res, "{\"records\":" + std::to_string(s.records) + ",\"requests\":" +
                        std::to_string(s.requests) + ",\"repeats\":" + std::to_string(s.repeats) +
                        ",\"bad_requests\":" + std::to_string(s.bad_requests) + ",\"kinds\":" +
                        counts_json(s.kinds) + ",\"recent\":{\"minutes\":" + std::to_string(minutes) +
                        ",\"kinds\":" + counts_json(s.recent_kinds) +
                        "},\"sessions\":" + std::to_string(s.sessions) + "}");
}

// The slice (whole minutes, at least the one asked for) that cuts since..until into at most
// kMaxSlices pieces, so that a long range cannot ask for an unbounded answer.
int64_t slice_minutes(int64_t since, int64_t until, int64_t asked) {
    const int64_t span_minutes = (until - since) / 60000 + 1;
    return std::max(asked, (span_minutes + kMaxSlices - 1) / kMaxSlices);
}

void serve_timeline(Store& store, const httplib::Request& req, httplib::Response& res,
                    const BadQueryReport& report) {
    QueryReader q(req);
    RecordFilter f = record_filter(q);
    const int64_t asked = q.number("step", 1, kMaxMinutes).value_or(1);
    if (refuse_bad_query(q, req, res, report)) return;
    const int64_t until = f.until.value_or(now_ms());
    const int64_t since =
        std::min(until, f.since.value_or(std::max<int64_t>(0, until - kDefaultTimelineMinutes * 60000)));
    f.since = since;
    f.until = until;
    const int64_t step = slice_minutes(since, until, asked);
    std::string body = "{\"since\":" + std::to_string(since) + ",\"until\":" + std::to_string(until) +
                       ",\"step\":" + std::to_string(step) + ",\"slices\":[";
    bool first = true;
    for (const SliceCount& n : store.counts_over_time(f, step * 60000, kMaxTimelineRows)) {
        if (!first) body += ',';
        first = false;
        body += "{\"time\":" + std::to_string(n.start) + ",\"kind\":" + json_string(n.kind) +
                ",\"count\":" + std::to_string(n.count) + "}";
    }
    reply_json(res, body + "]}");
}

// A failing query (a database error) still gets a JSON answer and a terminal line.
template <typename Serve>
httplib::Server::Handler guarded(Serve serve, const BadQueryReport& report) {
    return [serve, report](const httplib::Request& req, httplib::Response& res) {
        try {
            serve(req, res);
        } catch (const std::exception& e) {
            report(req, e.what());
            res.status = 500;
            reply_json(res, "{\"error\":" + json_string(e.what()) + "}");
        }
    };
}

}  // namespace

std::string record_json(const RecordRow& r) {
    std::string out = "{\"id\":" + std::to_string(r.id) + ",\"time\":" + std::to_string(r.time);
    const std::pair<const char*, const std::string*> texts[] = {
        {"kind", &r.kind},   {"category", &r.category}, {"action", &r.action},
        {"label", &r.label}, {"sid", &r.sid},           {"cid", &r.cid},
        {"brand", &r.brand}, {"pver", &r.pver},         {"batch", &r.batch}};
    for (const auto& t : texts) out += ",\"" + std::string(t.first) + "\":" + json_string(*t.second);
    return out + ",\"request\":" + std::to_string(r.request) +
           ",\"record\":" + (r.record.empty() ? "{}" : r.record) + "}";
}

std::string request_json(const RequestRow& r) {
    return "{\"id\":" + std::to_string(r.id) + ",\"time\":" + std::to_string(r.time) +
           ",\"endpoint\":" + json_string(r.endpoint) + ",\"peer\":" + json_string(r.peer) +
           ",\"scheme\":" + json_string(r.scheme) + ",\"bytes\":" + std::to_string(r.bytes) +
           ",\"result\":" + json_string(r.result) + ",\"batch\":" + json_string(r.batch) +
           ",\"records\":" + std::to_string(r.records) + "}";
}

void install_api(httplib::Server& server, Store& store, EventHub& hub, BadQueryReport report) {
    server.Get("/", [](const httplib::Request&, httplib::Response& res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(reinterpret_cast<const char*>(kPageHtml), kPageHtmlSize, "text/html; charset=utf-8");
    });
    // Browsers ask for it on their own; an empty answer keeps it out of the bad-request lines.
    server.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& res) { res.status = 204; });
    using Req = const httplib::Request&;
    using Res = httplib::Response&;
    server.Get(
        "/api/records",
        guarded([&store, report](Req req, Res res) { serve_records(store, req, res, report); }, report));
    server.Get(
        "/api/requests",
        guarded([&store, report](Req req, Res res) { serve_requests(store, req, res, report); }, report));
    server.Get("/api/stats",
               guarded([&store, report](Req req, Res res) { serve_stats(store, req, res, report); }, report));
    server.Get(
        "/api/timeline",
        guarded([&store, report](Req req, Res res) { serve_timeline(store, req, res, report); }, report));
    server.Get("/api/stream", guarded([&hub](Req req, Res res) { hub.serve(req, res); }, report));
}

}  // namespace vcollect

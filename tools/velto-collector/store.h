// velto-collector's SQLite database: every request the collector answered and every record it took,
// kept across runs so that an integrator can look back at earlier sessions. main.cpp stores what
// arrives; api.cpp reads it for the page. One connection behind a mutex: safe on any thread.
//
// WAL journal with synchronous=NORMAL: a transaction the collector committed (it answers the upload
// only afterwards) survives a kill of the process. The schema carries its version in user_version;
// a database written by a newer collector, or one that is not the collector's, is refused.
#ifndef VELTO_COLLECTOR_STORE_H
#define VELTO_COLLECTOR_STORE_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

struct sqlite3;

namespace vcollect {

struct RequestRow {
    int64_t id = 0;
    int64_t time = 0;  // ms since the epoch, when it was received
    std::string endpoint;
    std::string peer;    // "address:port"
    std::string scheme;  // "http" or "https"
    int64_t bytes = 0;
    std::string result;  // "ok", "repeat" or "bad: <reason>"
    std::string batch;   // the upload's batch id, "" for single records and other requests
    int64_t records = 0;
};

struct RecordRow {
    int64_t id = 0;
    int64_t time = 0;  // the time of the request that carried it
    std::string kind;  // the record's "dtype"
    std::string category, action, label, sid, cid, brand, pver, batch;
    int64_t request = 0;
    std::string record;  // the whole record, a valid JSON object
};

// Which records a query returns; unset members do not filter.
struct RecordFilter {
    std::optional<std::string> kind, category, sid;
    std::optional<std::string> text;  // substring of category, action, label or the whole record
    std::optional<int64_t> since, until, after;
    int64_t limit = 200;
    bool oldest_first = false;
};

struct Stats {
    int64_t records = 0, requests = 0, repeats = 0, bad_requests = 0, sessions = 0;
    std::map<std::string, int64_t> kinds;         // all time
    std::map<std::string, int64_t> recent_kinds;  // received at or after the "since" given
};

// Opening fails with this; the text is a readable sentence for the terminal.
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Store {
  public:
    // Opens path (":memory:" keeps nothing on disk), creating the schema in a new database.
    explicit Store(const std::string& path);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Stores a request and its records in one transaction and fills in their ids. A records upload
    // (request.batch not "") whose batch was stored before is kept as a request with result "repeat"
    // and no records; the return value is then true. Throws std::runtime_error on a database error.
    bool add(RequestRow& request, std::vector<RecordRow>& records);

    // Records matching the filter in id order, at most filter.limit; total = all that match.
    std::vector<RecordRow> records(const RecordFilter& filter, int64_t& total);
    // Requests newest first with id > after (when given), at most limit; total = all that match.
    std::vector<RequestRow> requests(int64_t limit, std::optional<int64_t> after, int64_t& total);
    Stats stats(int64_t recent_since_ms);

  private:
    void migrate(const std::string& path);
    bool batch_stored(const std::string& batch);

    std::mutex m_;
    sqlite3* db_ = nullptr;
};

}  // namespace vcollect

#endif

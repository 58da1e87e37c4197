// velto-collector's store: every request the collector answered and every record it took, in SQLite
// (one machine) or PostgreSQL (several collectors sharing one database), kept across runs. main.cpp
// stores what arrives; api.cpp reads it for the page. Safe on any thread: each call takes a session
// from the pool (database.h) and gives up with DatabaseError when the database does not answer within
// the store's timeout, so that an upload is answered 503 and the library sends it again later.
//
// A records upload is written in one transaction; its batch id is a unique key in the database, so
// a batch that two collectors receive at once or one after the other is stored once, and the second
// copy is kept as a request with result "repeat".
#ifndef VELTO_COLLECTOR_STORE_H
#define VELTO_COLLECTOR_STORE_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database.h"

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

// Records of one kind received in one slice of time (the page's chart).
struct SliceCount {
    int64_t start = 0;  // ms since the epoch, a multiple of the slice's length
    std::string kind;
    int64_t count = 0;
};

struct Stats {
    int64_t records = 0, requests = 0, repeats = 0, bad_requests = 0, sessions = 0;
    std::map<std::string, int64_t> kinds;         // all time
    std::map<std::string, int64_t> recent_kinds;  // received at or after the "since" given
};

// How the database has been doing, for /metrics.
struct DatabaseCounters {
    std::atomic<int64_t> writes{0}, errors{0}, write_us_total{0};
    std::atomic<int64_t> write_buckets[6] = {};  // writes that took at most kWriteBucketsMs[i]
};
const int kWriteBucketsMs[6] = {5, 10, 25, 100, 500, 2000};

class Store {
  public:
    // Opens the database given to --db (database.h, make_backend) and checks, creates or migrates its
    // schema. Throws StoreError with a one-line reason when it cannot be used.
    Store(const std::string& db, int timeout_ms);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    std::string describe() const { return backend_->describe(); }

    // Stores a request and its records in one transaction and fills in their ids. A records upload
    // (request.batch not "", result "ok") whose batch was stored before is kept as a request with
    // result "repeat" and no records; the return value is then true. Throws DatabaseError.
    bool add(RequestRow& request, std::vector<RecordRow>& records);

    // Records matching the filter in id order, at most filter.limit; total = all that match.
    std::vector<RecordRow> records(const RecordFilter& filter, int64_t& total);
    // Requests newest first with id > after (when given), at most limit; total = all that match.
    std::vector<RequestRow> requests(int64_t limit, std::optional<int64_t> after, int64_t& total);
    Stats stats(int64_t recent_since_ms);
    // Counts of the records matching the filter (its limit, after and order aside) per kind and per
    // slice of slice_ms milliseconds, oldest first, empty slices left out; at most max_rows rows.
    std::vector<SliceCount> counts_over_time(const RecordFilter& filter, int64_t slice_ms, int64_t max_rows);
    // True when the database answers a trivial query within the timeout.
    bool ping();
    // Partitions ahead and retention (Backend::maintain); throws DatabaseError.
    void maintain(int keep_days);

    const DatabaseCounters& counters() const { return counters_; }

  private:
    Deadline deadline() const;
    void count_write(int64_t started_us, bool ok);

    std::unique_ptr<Backend> backend_;
    std::unique_ptr<ConnectionPool> pool_;
    const int timeout_ms_;
    DatabaseCounters counters_;
};

}  // namespace vcollect

#endif

// velto-collector's store over either database: the write of one request with its records in one
// transaction, and the filtered reads behind the JSON API. Every value from the network reaches SQL
// as a bound parameter; the SQL text itself is made of fixed pieces only.
#include "store.h"

#include <algorithm>
#include <utility>

#include "schema.h"

namespace vcollect {

namespace {

const size_t kRowsPerInsert = 100;    // records per INSERT statement (12 values each)
const size_t kRowsInOneWrite = 1000;  // at most this many records go in a single-statement write

int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int64_t number(const std::string& text) {
    char* end = nullptr;
    const long long n = strtoll(text.c_str(), &end, 10);
    return end && *end == '\0' ? n : 0;
}

int64_t first_number(Connection& c, const std::string& sql, const std::vector<Param>& params, Deadline d) {
    const std::vector<Row> rows = c.query(sql, params, d);
    return rows.empty() || rows[0].empty() ? 0 : number(rows[0][0]);
}

// Rolls back unless committed: a failed write leaves nothing half stored.
class Transaction {
  public:
    Transaction(Connection& c, Deadline d) : c_(c), d_(d) { c_.script(c_.begin_write(), d_); }
    ~Transaction() {
        if (done_ || c_.broken()) return;
        try {
            c_.script("ROLLBACK", d_ + std::chrono::seconds(1));
        } catch (...) {
        }
    }
    void commit() {
        c_.script("COMMIT", d_);
        done_ = true;
    }

  private:
    Connection& c_;
    const Deadline d_;
    bool done_ = false;
};

// "%text%" for LIKE ... ESCAPE '\', with the pattern characters in text taken literally.
std::string contains_pattern(const std::string& text) {
    std::string out = "%";
    for (char c : text) {
        if (c == '%' || c == '_' || c == '\\') out += '\\';
        out += c;
    }
    return out + "%";
}

// The WHERE clause of a record filter (fixed SQL with "?" only) and the values for it.
std::string record_conditions(const RecordFilter& f, const char* like, std::vector<Param>& params) {
    std::string where;
    const auto add = [&](const std::string& condition, Param value) {
        where += where.empty() ? " WHERE " : " AND ";
        where += condition;
        params.push_back(std::move(value));
    };
    if (f.kind) add("kind = ?", Param::of(*f.kind));
    if (f.category) add("category = ?", Param::of(*f.category));
    if (f.sid) add("sid = ?", Param::of(*f.sid));
    if (f.since) add("time >= ?", Param::of(*f.since));
    if (f.until) add("time <= ?", Param::of(*f.until));
    if (f.after) add("id > ?", Param::of(*f.after));
    if (f.text) {
        const Param pattern = Param::of(contains_pattern(*f.text));
        const std::string op = std::string(" ") + like + " ? ESCAPE '\\'";
        add("(category" + op + " OR action" + op + " OR label" + op + " OR record" + op + ")", pattern);
        for (int i = 0; i < 3; ++i) params.push_back(pattern);
    }
    return where;
}

RecordRow record_from(const Row& row) {
    RecordRow r;
    r.id = number(row.at(0));
    r.time = number(row.at(1));
    std::string* texts[] = {&r.kind, &r.category, &r.action, &r.label, &r.sid,
                            &r.cid,  &r.brand,    &r.pver,   &r.batch};
    size_t col = 2;
    for (std::string* t : texts) *t = row.at(col++);
    r.request = number(row.at(col++));
    r.record = row.at(col);
    return r;
}

RequestRow request_from(const Row& row) {
    RequestRow r;
    r.id = number(row.at(0));
    r.time = number(row.at(1));
    r.endpoint = row.at(2);
    r.peer = row.at(3);
    r.scheme = row.at(4);
    r.bytes = number(row.at(5));
    r.result = row.at(6);
    r.batch = row.at(7);
    r.records = number(row.at(8));
    return r;
}

std::map<std::string, int64_t> kind_counts(Connection& c, const std::string& sql,
                                           const std::vector<Param>& params, Deadline d) {
    std::map<std::string, int64_t> out;
    for (const Row& row : c.query(sql, params, d)) out[row.at(0)] = number(row.at(1));
    return out;
}

const char kInsertRequest[] =
    "INSERT INTO requests (time, endpoint, peer, scheme, bytes, result, batch, records)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?)";
// The batch's unique key: the first copy of a batch inserts, every later one finds it there (or waits
// for the collector that is inserting it, and finds it once that one commits).
const char kFirstCopyOnly[] = " ON CONFLICT (batch) WHERE result = 'ok' AND batch <> '' DO NOTHING";

std::vector<Param> request_params(const RequestRow& r) {
    return {Param::of(r.time),  Param::of(r.endpoint), Param::of(r.peer),  Param::of(r.scheme),
            Param::of(r.bytes), Param::of(r.result),   Param::of(r.batch), Param::of(r.records)};
}

// Inserts the request; false when it is a copy of a batch stored before (nothing inserted).
bool insert_request(Connection& c, RequestRow& request, Deadline d) {
    const bool keyed = !request.batch.empty() && request.result == "ok";
    const std::vector<Row> id =
        c.query(std::string(kInsertRequest) + (keyed ? kFirstCopyOnly : "") + " RETURNING id",
                request_params(request), d);
    if (id.empty()) return false;
    request.id = number(id[0].at(0));
    return true;
}

void insert_records(Connection& c, const RequestRow& request, std::vector<RecordRow>& records, Deadline d) {
    for (size_t begin = 0; begin < records.size(); begin += kRowsPerInsert) {
        const size_t end = std::min(records.size(), begin + kRowsPerInsert);
        std::string sql =
            "INSERT INTO records (time, kind, category, action, label, sid, cid, brand, pver, batch,"
            " request, record) VALUES ";
        std::vector<Param> params;
        for (size_t i = begin; i < end; ++i) {
            RecordRow& r = records[i];
            r.time = request.time;
            r.request = request.id;
            sql += i == begin ? "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"
                              : ", (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
            params.push_back(Param::of(r.time));
            for (const std::string* t :
                 {&r.kind, &r.category, &r.action, &r.label, &r.sid, &r.cid, &r.brand, &r.pver, &r.batch})
                params.push_back(Param::of(*t));
            params.push_back(Param::of(r.request));
            params.push_back(Param::of(r.record));
        }
        const std::vector<Row> ids = c.query(sql + " RETURNING id", params, d);
        for (size_t i = begin; i < end && i - begin < ids.size(); ++i)
            records[i].id = number(ids[i - begin].at(0));
    }
}

const char kRecordTexts[] = "kind, category, action, label, sid, cid, brand, pver, batch, record";

// The request and its records in one statement, for a database whose INSERTs can feed one another
// (PostgreSQL): one round trip instead of four, and the statement is its own transaction, so a
// batch is stored whole or not at all. The copy of a batch stored before inserts nothing: the
// result then has no rows.
bool insert_in_one_statement(Connection& c, RequestRow& request, std::vector<RecordRow>& records,
                             Deadline d) {
    std::vector<Param> params = request_params(request);
    params.reserve(params.size() + records.size() * 10);
    std::string sql = std::string("WITH q AS (") + kInsertRequest + kFirstCopyOnly +
                      " RETURNING id, time), r AS (INSERT INTO records (time, request, " + kRecordTexts +
                      ") SELECT q.time, q.id, " + kRecordTexts + " FROM q, (VALUES ";
    for (size_t i = 0; i < records.size(); ++i) {
        const RecordRow& r = records[i];
        sql += i == 0 ? "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)" : ", (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
        for (const std::string* t : {&r.kind, &r.category, &r.action, &r.label, &r.sid, &r.cid, &r.brand,
                                     &r.pver, &r.batch, &r.record})
            params.push_back(Param::of(*t));
    }
    sql += std::string(") AS v(") + kRecordTexts +
           ") RETURNING id) SELECT 0, id FROM q UNION ALL SELECT 1, id FROM r";
    // The record ids in the order of the VALUES rows, which is the order they were drawn in.
    std::vector<int64_t> record_ids;
    bool stored = false;
    for (const Row& row : c.query(sql, params, d)) {
        if (row.at(0) == "0") {
            request.id = number(row.at(1));
            stored = true;
        } else {
            record_ids.push_back(number(row.at(1)));
        }
    }
    std::sort(record_ids.begin(), record_ids.end());
    for (size_t i = 0; i < records.size(); ++i) {
        records[i].time = request.time;
        records[i].request = request.id;
        if (i < record_ids.size()) records[i].id = record_ids[i];
    }
    return stored;
}

}  // namespace

Store::Store(const std::string& db, int timeout_ms) : timeout_ms_(timeout_ms) {
    backend_ = make_backend(db, timeout_ms);
    pool_.reset(new ConnectionPool(*backend_));
    try {
        std::unique_ptr<Connection> c = backend_->connect(deadline());
        backend_->prepare(*c);
        backend_->maintain(*c, 0,
                           std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count());
        pool_->adopt(std::move(c));
    } catch (const DatabaseError& e) {
        throw StoreError("cannot open " + backend_->describe() + ": " + std::string(e.what()));
    }
}

Store::~Store() = default;

Deadline Store::deadline() const {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
}

void Store::count_write(int64_t started_us, bool ok) {
    const int64_t took = now_us() - started_us;
    ++counters_.writes;
    if (!ok) ++counters_.errors;
    counters_.write_us_total += took;
    for (int i = 0; i < 6; ++i)
        if (took <= kWriteBucketsMs[i] * 1000) ++counters_.write_buckets[i];
}

bool Store::add(RequestRow& request, std::vector<RecordRow>& records) {
    const int64_t started = now_us();
    const Deadline d = deadline();
    try {
        auto c = pool_->take(d);
        if (backend_->chained_inserts() && !records.empty() && records.size() <= kRowsInOneWrite &&
            request.result == "ok") {
            const bool repeat = !insert_in_one_statement(**c, request, records, d);
            if (repeat) {
                request.result = "repeat";
                insert_request(**c, request, d);
            }
            count_write(started, true);
            return repeat;
        }
        Transaction tx(**c, d);
        const bool repeat = !insert_request(**c, request, d);
        if (repeat) {
            request.result = "repeat";
            insert_request(**c, request, d);
        } else {
            insert_records(**c, request, records, d);
        }
        tx.commit();
        count_write(started, true);
        return repeat;
    } catch (...) {
        count_write(started, false);
        throw;
    }
}

std::vector<RecordRow> Store::records(const RecordFilter& filter, int64_t& total) {
    const Deadline d = deadline();
    auto c = pool_->take(d);
    std::vector<Param> params;
    const std::string where = record_conditions(filter, backend_->like_any_case(), params);
    total = first_number(**c, "SELECT count(*) FROM records" + where, params, d);
    params.push_back(Param::of(filter.limit));
    std::vector<RecordRow> out;
    for (const Row& row :
         (*c)->query(std::string("SELECT ") + kRecordColumns + " FROM records" + where + " ORDER BY id " +
                         (filter.oldest_first ? "ASC" : "DESC") + " LIMIT ?",
                     params, d))
        out.push_back(record_from(row));
    return out;
}

std::vector<RequestRow> Store::requests(int64_t limit, std::optional<int64_t> after, int64_t& total) {
    const Deadline d = deadline();
    auto c = pool_->take(d);
    std::vector<Param> params;
    if (after) params.push_back(Param::of(*after));
    const std::string where = after ? " WHERE id > ?" : "";
    total = first_number(**c, "SELECT count(*) FROM requests" + where, params, d);
    params.push_back(Param::of(limit));
    std::vector<RequestRow> out;
    for (const Row& row : (*c)->query(std::string("SELECT ") + kRequestColumns + " FROM requests" + where +
                                          " ORDER BY id DESC LIMIT ?",
                                      params, d))
        out.push_back(request_from(row));
    return out;
}

Stats Store::stats(int64_t recent_since_ms) {
    const Deadline d = deadline();
    auto c = pool_->take(d);
    Connection& db = **c;
    Stats s;
    s.records = first_number(db, "SELECT count(*) FROM records", {}, d);
    s.requests = first_number(db, "SELECT count(*) FROM requests", {}, d);
    s.repeats = first_number(db, "SELECT count(*) FROM requests WHERE result = 'repeat'", {}, d);
    s.bad_requests = first_number(db, "SELECT count(*) FROM requests WHERE result LIKE 'bad:%'", {}, d);
    s.sessions = first_number(db, "SELECT count(DISTINCT sid) FROM records WHERE sid <> ''", {}, d);
    s.kinds = kind_counts(db, "SELECT kind, count(*) FROM records GROUP BY kind", {}, d);
    s.recent_kinds = kind_counts(db, "SELECT kind, count(*) FROM records WHERE time >= ? GROUP BY kind",
                                 {Param::of(recent_since_ms)}, d);
    return s;
}

std::vector<SliceCount> Store::counts_over_time(const RecordFilter& filter, int64_t slice_ms,
                                                int64_t max_rows) {
    const Deadline d = deadline();
    auto c = pool_->take(d);
    RecordFilter f = filter;
    f.after.reset();
    std::vector<Param> params = {Param::of(slice_ms)};
    const std::string where = record_conditions(f, backend_->like_any_case(), params);
    params.push_back(Param::of(max_rows));
    std::vector<SliceCount> out;
    // time and the slice are whole numbers in both databases, so "/" truncates.
    for (const Row& row : (*c)->query(
             "SELECT time / ?, kind, count(*) FROM records" + where + " GROUP BY 1, 2 ORDER BY 1, 2 LIMIT ?",
             params, d)) {
        SliceCount n;
        n.start = number(row.at(0)) * slice_ms;
        n.kind = row.at(1);
        n.count = number(row.at(2));
        out.push_back(n);
    }
    return out;
}

bool Store::ping() {
    try {
        const Deadline d = deadline();
        auto c = pool_->take(d);
        return first_number(**c, "SELECT 1", {}, d) == 1;
    } catch (const std::exception&) {
        return false;
    }
}

void Store::maintain(int keep_days) {
    const Deadline d = deadline();
    auto c = pool_->take(d);
    backend_->maintain(**c, keep_days,
                       std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count());
}

}  // namespace vcollect

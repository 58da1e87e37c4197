// velto-collector's SQLite storage: schema, migration, the write of one request with its records, and
// the filtered reads behind the JSON API. Every value from the network reaches SQL as a bound
// parameter; the SQL text itself is made of fixed pieces only.
#include "store.h"

#include <sqlite3.h>

#include <utility>

namespace vcollect {

namespace {

const int kSchemaVersion = 1;

const char kSchema[] =
    "CREATE TABLE requests ("
    " id INTEGER PRIMARY KEY, time INTEGER NOT NULL, endpoint TEXT NOT NULL, peer TEXT NOT NULL,"
    " scheme TEXT NOT NULL, bytes INTEGER NOT NULL, result TEXT NOT NULL, batch TEXT NOT NULL,"
    " records INTEGER NOT NULL);"
    "CREATE INDEX requests_time ON requests(time);"
    "CREATE INDEX requests_batch ON requests(batch);"
    "CREATE TABLE records ("
    " id INTEGER PRIMARY KEY, time INTEGER NOT NULL, kind TEXT NOT NULL, category TEXT NOT NULL,"
    " action TEXT NOT NULL, label TEXT NOT NULL, sid TEXT NOT NULL, cid TEXT NOT NULL, brand TEXT NOT NULL,"
    " pver TEXT NOT NULL, batch TEXT NOT NULL, request INTEGER NOT NULL REFERENCES requests(id),"
    " record TEXT NOT NULL);"
    "CREATE INDEX records_time ON records(time);"
    "CREATE INDEX records_kind ON records(kind);"
    "CREATE INDEX records_category ON records(category);"
    "CREATE INDEX records_sid ON records(sid);"
    "CREATE INDEX records_batch ON records(batch);";

const char kRecordColumns[] =
    "id, time, kind, category, action, label, sid, cid, brand, pver, batch, request, record";
const char kRequestColumns[] = "id, time, endpoint, peer, scheme, bytes, result, batch, records";

// A value bound to one "?" of a statement.
struct Param {
    bool is_text;
    std::string text;
    int64_t number;

    static Param of(const std::string& s) { return Param{true, s, 0}; }
    static Param of(int64_t n) { return Param{false, std::string(), n}; }
};

// One prepared statement; throws std::runtime_error with SQLite's message on any failure.
class Statement {
  public:
    Statement(sqlite3* db, const std::string& sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt_, nullptr) != SQLITE_OK)
            fail();
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(const std::vector<Param>& params) {
        for (const Param& p : params) bind(p);
        return *this;
    }
    Statement& bind(const Param& p) {
        const int at = ++bound_;
        const int rc = p.is_text ? sqlite3_bind_text(stmt_, at, p.text.data(),
                                                     static_cast<int>(p.text.size()), SQLITE_TRANSIENT)
                                 : sqlite3_bind_int64(stmt_, at, p.number);
        if (rc != SQLITE_OK) fail();
        return *this;
    }
    template <typename T>
    Statement& bind(const T& value) {
        return bind(Param::of(value));
    }
    // True while there is a row to read.
    bool step() {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc != SQLITE_DONE) fail();
        return false;
    }
    // Ready to run again with new values.
    void reset() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
        bound_ = 0;
    }
    int64_t number(int col) const { return sqlite3_column_int64(stmt_, col); }
    std::string text(int col) const {
        const unsigned char* p = sqlite3_column_text(stmt_, col);
        return p ? std::string(reinterpret_cast<const char*>(p),
                               static_cast<size_t>(sqlite3_column_bytes(stmt_, col)))
                 : std::string();
    }

  private:
    [[noreturn]] void fail() { throw std::runtime_error(std::string("database: ") + sqlite3_errmsg(db_)); }

    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
    int bound_ = 0;
};

void exec(sqlite3* db, const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : sqlite3_errmsg(db);
        sqlite3_free(message);
        throw std::runtime_error("database: " + text);
    }
}

int64_t single_number(sqlite3* db, const std::string& sql, const std::vector<Param>& params = {}) {
    Statement st(db, sql);
    st.bind(params);
    return st.step() ? st.number(0) : 0;
}

// Rolls back unless committed: a failed write leaves nothing half stored.
class Transaction {
  public:
    explicit Transaction(sqlite3* db) : db_(db) { exec(db_, "BEGIN IMMEDIATE"); }
    ~Transaction() {
        if (!done_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void commit() {
        exec(db_, "COMMIT");
        done_ = true;
    }

  private:
    sqlite3* db_;
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
std::string record_conditions(const RecordFilter& f, std::vector<Param>& params) {
    std::string where;
    const auto add = [&](const char* condition, Param value) {
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
        add("(category LIKE ? ESCAPE '\\' OR action LIKE ? ESCAPE '\\' OR label LIKE ? ESCAPE '\\'"
            " OR record LIKE ? ESCAPE '\\')",
            pattern);
        for (int i = 0; i < 3; ++i) params.push_back(pattern);
    }
    return where;
}

RecordRow record_from(const Statement& st) {
    RecordRow r;
    r.id = st.number(0);
    r.time = st.number(1);
    std::string* texts[] = {&r.kind, &r.category, &r.action, &r.label, &r.sid,
                            &r.cid,  &r.brand,    &r.pver,   &r.batch};
    int col = 2;
    for (std::string* t : texts) *t = st.text(col++);
    r.request = st.number(col++);
    r.record = st.text(col);
    return r;
}

RequestRow request_from(const Statement& st) {
    RequestRow r;
    r.id = st.number(0);
    r.time = st.number(1);
    r.endpoint = st.text(2);
    r.peer = st.text(3);
    r.scheme = st.text(4);
    r.bytes = st.number(5);
    r.result = st.text(6);
    r.batch = st.text(7);
    r.records = st.number(8);
    return r;
}

std::map<std::string, int64_t> kind_counts(sqlite3* db, const char* sql, const std::vector<Param>& params) {
    std::map<std::string, int64_t> out;
    Statement st(db, sql);
    st.bind(params);
    while (st.step()) out[st.text(0)] = st.number(1);
    return out;
}

// SQLite's own words, without the "database: " that the statements put before them.
std::string sqlite_message(const std::exception& e) {
    const std::string text = e.what();
    return text.compare(0, 10, "database: ") == 0 ? text.substr(10) : text;
}

}  // namespace

Store::Store(const std::string& path) {
    const int rc = sqlite3_open_v2(
        path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        const std::string why = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_close(db_);
        throw StoreError("cannot open the database " + path + ": " + why);
    }
    try {
        sqlite3_busy_timeout(db_, 2000);
        migrate(path);
    } catch (const StoreError&) {
        sqlite3_close(db_);
        throw;
    } catch (const std::exception& e) {
        sqlite3_close(db_);
        throw StoreError("cannot use the database " + path + ": " + sqlite_message(e));
    }
}

Store::~Store() {
    sqlite3_close(db_);
}

void Store::migrate(const std::string& path) {
    // The journal mode first: it is also the first read, which tells a file that is no database.
    exec(db_, "PRAGMA journal_mode=WAL");
    exec(db_, "PRAGMA synchronous=NORMAL");
    const int64_t version = single_number(db_, "PRAGMA user_version");
    if (version > kSchemaVersion)
        throw StoreError("the database " + path + " was written by a newer velto-collector (schema version " +
                         std::to_string(version) + "; this one knows version " +
                         std::to_string(kSchemaVersion) + "); give another --db");
    if (version == kSchemaVersion) return;
    if (single_number(db_, "SELECT count(*) FROM sqlite_master") > 0)
        throw StoreError(
            "the database " + path +
            " holds tables of another program (it is not a velto-collector database); give another --db");
    Transaction tx(db_);
    exec(db_, kSchema);
    exec(db_, ("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
    tx.commit();
}

bool Store::batch_stored(const std::string& batch) {
    return single_number(db_, "SELECT count(*) FROM requests WHERE batch = ? AND result = 'ok'",
                         {Param::of(batch)}) > 0;
}

bool Store::add(RequestRow& request, std::vector<RecordRow>& records) {
    std::lock_guard<std::mutex> hold(m_);
    Transaction tx(db_);
    const bool repeat = !request.batch.empty() && request.result == "ok" && batch_stored(request.batch);
    if (repeat) request.result = "repeat";
    Statement req(db_,
                  "INSERT INTO requests (time, endpoint, peer, scheme, bytes, result, batch, records)"
                  " VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    req.bind(request.time).bind(request.endpoint).bind(request.peer).bind(request.scheme).bind(request.bytes);
    req.bind(request.result).bind(request.batch).bind(request.records).step();
    request.id = sqlite3_last_insert_rowid(db_);
    if (!repeat) {
        Statement rec(
            db_,
            "INSERT INTO records (time, kind, category, action, label, sid, cid, brand, pver, batch,"
            " request, record) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
        for (RecordRow& r : records) {
            r.time = request.time;
            r.request = request.id;
            const std::string* texts[] = {&r.kind, &r.category, &r.action, &r.label, &r.sid,
                                          &r.cid,  &r.brand,    &r.pver,   &r.batch};
            rec.reset();
            rec.bind(r.time);
            for (const std::string* t : texts) rec.bind(*t);
            rec.bind(r.request).bind(r.record).step();
            r.id = sqlite3_last_insert_rowid(db_);
        }
    }
    tx.commit();
    return repeat;
}

std::vector<RecordRow> Store::records(const RecordFilter& filter, int64_t& total) {
    std::lock_guard<std::mutex> hold(m_);
    std::vector<Param> params;
    const std::string where = record_conditions(filter, params);
    total = single_number(db_, "SELECT count(*) FROM records" + where, params);
    Statement st(db_, std::string("SELECT ") + kRecordColumns + " FROM records" + where + " ORDER BY id " +
                          (filter.oldest_first ? "ASC" : "DESC") + " LIMIT ?");
    st.bind(params).bind(filter.limit);
    std::vector<RecordRow> out;
    while (st.step()) out.push_back(record_from(st));
    return out;
}

std::vector<RequestRow> Store::requests(int64_t limit, std::optional<int64_t> after, int64_t& total) {
    std::lock_guard<std::mutex> hold(m_);
    std::vector<Param> params;
    if (after) params.push_back(Param::of(*after));
    const std::string where = after ? " WHERE id > ?" : "";
    total = single_number(db_, "SELECT count(*) FROM requests" + where, params);
    Statement st(db_, std::string("SELECT ") + kRequestColumns + " FROM requests" + where +
                          " ORDER BY id DESC LIMIT ?");
    st.bind(params).bind(limit);
    std::vector<RequestRow> out;
    while (st.step()) out.push_back(request_from(st));
    return out;
}

Stats Store::stats(int64_t recent_since_ms) {
    std::lock_guard<std::mutex> hold(m_);
    Stats s;
    s.records = single_number(db_, "SELECT count(*) FROM records");
    s.requests = single_number(db_, "SELECT count(*) FROM requests");
    s.repeats = single_number(db_, "SELECT count(*) FROM requests WHERE result = 'repeat'");
    s.bad_requests = single_number(db_, "SELECT count(*) FROM requests WHERE result LIKE 'bad:%'");
    s.sessions = single_number(db_, "SELECT count(DISTINCT sid) FROM records WHERE sid != ''");
    s.kinds = kind_counts(db_, "SELECT kind, count(*) FROM records GROUP BY kind", {});
    s.recent_kinds = kind_counts(db_, "SELECT kind, count(*) FROM records WHERE time >= ? GROUP BY kind",
                                 {Param::of(recent_since_ms)});
    return s;
}

}  // namespace vcollect

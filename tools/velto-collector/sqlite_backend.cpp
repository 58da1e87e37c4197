// velto-collector's SQLite backend: one session on one file in WAL mode with synchronous=NORMAL, so
// that a transaction the collector committed (it answers the upload only afterwards) survives a
// kill of the process. The schema's version is kept in user_version. A file that is no database, a
// damaged one (quick_check), one with tables of another program or one of a newer collector is
// refused on start.
#include "sqlite_backend.h"

#include <sqlite3.h>

#include "schema.h"

namespace vcollect {

namespace {

const char kMigrateFrom1[] =
    "CREATE UNIQUE INDEX requests_batch_once ON requests(batch) WHERE result = 'ok' AND batch <> '';";

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

std::string one_line(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

class SqliteConnection : public Connection {
  public:
    SqliteConnection(const std::string& path, int timeout_ms) {
        const int rc = sqlite3_open_v2(
            path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
        if (rc != SQLITE_OK) {
            const std::string why = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
            sqlite3_close(db_);
            throw DatabaseError("database: " + why);
        }
        sqlite3_busy_timeout(db_, timeout_ms);
    }
    ~SqliteConnection() override { sqlite3_close(db_); }

    std::vector<Row> query(const std::string& sql, const std::vector<Param>& params, Deadline) override {
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &st, nullptr) != SQLITE_OK)
            fail();
        std::vector<Row> rows;
        try {
            int at = 0;
            for (const Param& p : params) {
                const int rc = p.is_text
                                   ? sqlite3_bind_text(st, ++at, p.text.data(),
                                                       static_cast<int>(p.text.size()), SQLITE_TRANSIENT)
                                   : sqlite3_bind_int64(st, ++at, p.number);
                if (rc != SQLITE_OK) fail();
            }
            int rc;
            while ((rc = sqlite3_step(st)) == SQLITE_ROW) rows.push_back(row_of(st));
            if (rc != SQLITE_DONE) fail();
        } catch (...) {
            sqlite3_finalize(st);
            throw;
        }
        sqlite3_finalize(st);
        return rows;
    }

    void script(const std::string& sql, Deadline) override {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            const std::string text = message ? message : sqlite3_errmsg(db_);
            sqlite3_free(message);
            throw DatabaseError("database: " + text);
        }
    }

    bool broken() const override { return false; }
    const char* begin_write() const override { return "BEGIN IMMEDIATE"; }

  private:
    static Row row_of(sqlite3_stmt* st) {
        Row row;
        const int n = sqlite3_column_count(st);
        for (int col = 0; col < n; ++col) {
            const unsigned char* p = sqlite3_column_text(st, col);
            row.emplace_back(p ? std::string(reinterpret_cast<const char*>(p),
                                             static_cast<size_t>(sqlite3_column_bytes(st, col)))
                               : std::string());
        }
        return row;
    }
    [[noreturn]] void fail() { throw DatabaseError("database: " + one_line(sqlite3_errmsg(db_))); }

    sqlite3* db_ = nullptr;
};

int64_t first_number(Connection& c, const std::string& sql, Deadline d) {
    const std::vector<Row> rows = c.query(sql, {}, d);
    return rows.empty() || rows[0].empty() ? 0 : std::stoll("0" + rows[0][0]);
}

class SqliteBackend : public Backend {
  public:
    SqliteBackend(std::string path, int timeout_ms) : path_(std::move(path)), timeout_ms_(timeout_ms) {}

    std::string describe() const override { return "the SQLite database " + path_; }
    std::unique_ptr<Connection> connect(Deadline) override {
        return std::unique_ptr<Connection>(new SqliteConnection(path_, timeout_ms_));
    }
    size_t max_connections() const override { return 1; }

    void prepare(Connection& c) override {
        const Deadline d = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
        try {
            // The journal mode first: it is also the first read, which tells a file that is no database.
            c.script("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", d);
            const std::vector<Row> check = c.query("PRAGMA quick_check", {}, d);
            if (check.size() != 1 || check[0].at(0) != "ok")
                refuse("is damaged (" + one_line(check.empty() ? "no answer" : check[0].at(0)) + ")");
            migrate(c, first_number(c, "PRAGMA user_version", d), d);
            check_columns(c, d);
        } catch (const DatabaseError& e) {
            refuse("cannot be used: " + std::string(e.what()).substr(10));
        }
    }

    void maintain(Connection& c, int keep_days, int64_t now_ms) override {
        if (keep_days <= 0) return;
        const Deadline d = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
        const Param cutoff = Param::of(now_ms - keep_days * kDayMs);
        c.script("BEGIN IMMEDIATE", d);
        try {
            c.query("DELETE FROM records WHERE time < ?", {cutoff}, d);
            c.query("DELETE FROM requests WHERE time < ?", {cutoff}, d);
            c.script("COMMIT", d);
        } catch (...) {
            c.script("ROLLBACK", d);
            throw;
        }
    }

  private:
    void migrate(Connection& c, int64_t version, Deadline d) {
        if (version > kSchemaVersion)
            refuse("was written by a newer velto-collector (schema version " + std::to_string(version) +
                   "; this one knows version " + std::to_string(kSchemaVersion) + ")");
        if (version == kSchemaVersion) return;
        if (version == 0 && first_number(c, "SELECT count(*) FROM sqlite_master", d) > 0)
            refuse("holds tables of another program (it is not a velto-collector database)");
        c.script("BEGIN IMMEDIATE", d);
        if (version == 0) c.script(kSchema, d);
        c.script(kMigrateFrom1, d);
        c.script("PRAGMA user_version=" + std::to_string(kSchemaVersion), d);
        c.script("COMMIT", d);
    }
    void check_columns(Connection& c, Deadline d) {
        try {
            check_schema_columns(c, d);
        } catch (const DatabaseError& e) {
            refuse("does not have the tables of a velto-collector database (" +
                   std::string(e.what()).substr(10) + ")");
        }
    }
    [[noreturn]] void refuse(const std::string& why) const {
        throw StoreError("the database " + path_ + " " + why + "; give another --db");
    }

    const std::string path_;
    const int timeout_ms_;
};

}  // namespace

std::unique_ptr<Backend> make_sqlite_backend(const std::string& path, int timeout_ms) {
    return std::unique_ptr<Backend>(new SqliteBackend(path, timeout_ms));
}

}  // namespace vcollect

// velto-collector's PostgreSQL backend. Sessions talk to the server through libpq's asynchronous
// calls and wait with poll() until the caller's deadline, so that a server that stopped answering
// costs a request its deadline and no more; the session is then dropped and a new one opened for
// the next request. The server's own statement_timeout backs that up.
//
// Schema: the version in velto_schema; records partitioned by range of their receive time, one
// partition per UTC day (records_pYYYYMMDD), made a few days ahead, so that retention drops whole
// days. Schema changes and partition work run under an advisory lock, so collectors that start
// together do not race. Partition names and bounds are computed here from the clock, never taken
// from a request; every value that comes from the network is a bound parameter.
#include "postgresql_backend.h"

#include <libpq-fe.h>
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <set>

#include "json_text.h"
#include "schema.h"

namespace vcollect {

namespace {

const int64_t kSchemaLock = 0x76656c746f01;     // "velto" 1: schema changes
const int64_t kPartitionLock = 0x76656c746f02;  // "velto" 2: partitions and retention
const int kDaysAhead = 3;                       // partitions exist for today and this many days on

const char kSchema[] =
    "CREATE TABLE velto_schema (version INTEGER NOT NULL);"
    "CREATE TABLE requests ("
    " id BIGSERIAL PRIMARY KEY, time BIGINT NOT NULL, endpoint TEXT NOT NULL, peer TEXT NOT NULL,"
    " scheme TEXT NOT NULL, bytes BIGINT NOT NULL, result TEXT NOT NULL, batch TEXT NOT NULL,"
    " records BIGINT NOT NULL);"
    "CREATE INDEX requests_time ON requests(time);"
    "CREATE UNIQUE INDEX requests_batch_once ON requests(batch) WHERE result = 'ok' AND batch <> '';"
    // No foreign key to requests: retention drops record partitions and deletes old requests apart.
    "CREATE TABLE records ("
    " id BIGSERIAL, time BIGINT NOT NULL, kind TEXT NOT NULL, category TEXT NOT NULL,"
    " action TEXT NOT NULL, label TEXT NOT NULL, sid TEXT NOT NULL, cid TEXT NOT NULL, brand TEXT NOT NULL,"
    " pver TEXT NOT NULL, batch TEXT NOT NULL, request BIGINT NOT NULL, record TEXT NOT NULL,"
    " PRIMARY KEY (id, time)) PARTITION BY RANGE (time);"
    "CREATE INDEX records_time ON records(time);"
    "CREATE INDEX records_kind ON records(kind);"
    "CREATE INDEX records_category ON records(category);"
    "CREATE INDEX records_sid ON records(sid);"
    "CREATE INDEX records_batch ON records(batch);";

std::string one_line(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    for (char& c : text)
        if (c == '\n' || c == '\r' || c == '\t') c = ' ';
    return text;
}

const size_t kPreparedStatements = 64;  // per session
const size_t kSeenStatements = 256;     // statements remembered as run once, per session

int remaining_ms(Deadline d) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(d - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left.count(), 1 << 30)));
}

// Waits until the socket is ready for events (POLLIN/POLLOUT); false at the deadline.
bool wait_socket(PGconn* conn, short events, Deadline d) {
    pollfd p{PQsocket(conn), events, 0};
    if (p.fd < 0) return false;
    for (;;) {
        const int n = poll(&p, 1, remaining_ms(d));
        if (n > 0) return true;
        if (n == 0 || errno != EINTR) return false;
    }
}

// Text that a UTF-8 database takes: invalid UTF-8 and NUL bytes become U+FFFD.
std::string database_text(const std::string& s) {
    bool plain = true;
    for (unsigned char c : s) plain = plain && c != 0 && c < 0x80;
    if (plain) return s;
    std::string out;
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t n = c == 0 ? 0 : c < 0x80 ? 1 : utf8_sequence_at(s, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(s, i, n);
            i += n;
        }
    }
    return out;
}

class PgConnection : public Connection {
  public:
    PgConnection(const std::string& conninfo, int timeout_ms, Deadline d) {
        const std::string statement_ms = std::to_string(timeout_ms);
        // Settings first, the caller's string last: what it names itself wins.
        const char* keys[] = {"application_name", "client_encoding", "dbname", nullptr};
        const char* values[] = {"velto-collector", "UTF8", conninfo.c_str(), nullptr};
        conn_ = PQconnectStartParams(keys, values, 1);
        if (!conn_ || PQstatus(conn_) == CONNECTION_BAD) fail("cannot connect");
        for (PostgresPollingStatusType st = PGRES_POLLING_WRITING;;) {
            if (st == PGRES_POLLING_OK) break;
            if (st == PGRES_POLLING_FAILED) fail("cannot connect");
            if (!wait_socket(conn_, st == PGRES_POLLING_READING ? POLLIN : POLLOUT, d))
                fail("no connection within the timeout");
            st = PQconnectPoll(conn_);
        }
        if (PQsetnonblocking(conn_, 1) != 0) fail("cannot connect");
        PQsetNoticeProcessor(
            conn_, [](void*, const char*) {}, nullptr);  // "already exists, skipping"
        // The server ends a statement or an idle transaction that outlives the collector's wait.
        script("SET statement_timeout = " + statement_ms +
                   "; SET idle_in_transaction_session_timeout = " + std::to_string(timeout_ms * 2),
               d);
    }
    ~PgConnection() override { close(); }

    std::vector<Row> query(const std::string& sql, const std::vector<Param>& params, Deadline d) override {
        std::vector<std::string> texts;
        texts.reserve(params.size());
        for (const Param& p : params)
            texts.push_back(p.is_text ? database_text(p.text) : std::to_string(p.number));
        std::vector<const char*> values;
        for (const std::string& t : texts) values.push_back(t.c_str());
        const std::string* name = prepared(sql, static_cast<int>(values.size()), d);
        ready();
        const int sent = name ? PQsendQueryPrepared(conn_, name->c_str(), static_cast<int>(values.size()),
                                                    values.data(), nullptr, nullptr, 0)
                              : PQsendQueryParams(conn_, numbered_placeholders(sql).c_str(),
                                                  static_cast<int>(values.size()), nullptr, values.data(),
                                                  nullptr, nullptr, 0);
        if (!sent) fail("cannot send");
        return results(d);
    }

    void script(const std::string& sql, Deadline d) override {
        ready();
        if (!PQsendQuery(conn_, sql.c_str())) fail("cannot send");
        results(d);
    }

    bool broken() const override { return !conn_ || PQstatus(conn_) != CONNECTION_OK; }

  private:
    void ready() {
        if (broken()) fail("the connection was lost");
    }

    // The name of sql prepared on this session, null while it has been seen only once (the API's
    // queries vary) or when the session holds enough: a statement run again (an upload of the same
    // number of records) is then parsed and planned once per session.
    const std::string* prepared(const std::string& sql, int params, Deadline d) {
        const auto known = prepared_.find(sql);
        if (known != prepared_.end()) return &known->second;
        if (prepared_.size() >= kPreparedStatements || seen_.size() >= kSeenStatements) return nullptr;
        if (seen_.insert(sql).second) return nullptr;
        const std::string name = "velto_" + std::to_string(prepared_.size());
        ready();
        if (!PQsendPrepare(conn_, name.c_str(), numbered_placeholders(sql).c_str(), params, nullptr))
            fail("cannot send");
        results(d);
        seen_.erase(sql);
        return &(prepared_[sql] = name);
    }

    // Sends what is queued and collects every result until the server is done; the rows of the last.
    std::vector<Row> results(Deadline d) {
        while (PQflush(conn_) == 1)
            if (!wait_socket(conn_, POLLOUT | POLLIN, d) || !PQconsumeInput(conn_)) timeout_or_lost(d);
        std::vector<Row> rows;
        std::string error;
        for (;;) {
            while (PQisBusy(conn_))
                if (!wait_socket(conn_, POLLIN, d) || !PQconsumeInput(conn_)) timeout_or_lost(d);
            PGresult* r = PQgetResult(conn_);
            if (!r) break;
            const ExecStatusType st = PQresultStatus(r);
            if (st == PGRES_TUPLES_OK)
                rows = rows_of(r);
            else if (st != PGRES_COMMAND_OK && error.empty())
                error = one_line(PQresultErrorMessage(r));
            PQclear(r);
        }
        if (!error.empty()) throw DatabaseError("database: " + error);
        return rows;
    }
    static std::vector<Row> rows_of(PGresult* r) {
        std::vector<Row> rows;
        const int n = PQntuples(r), cols = PQnfields(r);
        for (int i = 0; i < n; ++i) {
            Row row;
            for (int col = 0; col < cols; ++col)
                row.emplace_back(PQgetvalue(r, i, col), static_cast<size_t>(PQgetlength(r, i, col)));
            rows.push_back(std::move(row));
        }
        return rows;
    }
    [[noreturn]] void timeout_or_lost(Deadline d) {
        fail(remaining_ms(d) == 0 ? "no answer within the timeout" : "the connection was lost");
    }
    // The session is given up whatever happened: the next request opens a new one.
    [[noreturn]] void fail(const char* what) {
        std::string why = conn_ ? one_line(PQerrorMessage(conn_)) : "";
        close();
        throw DatabaseError(std::string("database: ") + what + (why.empty() ? "" : ": " + why));
    }
    void close() {
        if (conn_) PQfinish(conn_);
        conn_ = nullptr;
    }

    PGconn* conn_ = nullptr;
    std::map<std::string, std::string> prepared_;  // SQL text -> statement name
    std::set<std::string> seen_;                   // SQL texts run once
};

int64_t first_number(Connection& c, const std::string& sql, Deadline d) {
    const std::vector<Row> rows = c.query(sql, {}, d);
    return rows.empty() || rows[0].empty() || rows[0][0].empty() ? 0 : std::stoll(rows[0][0]);
}

// "records_p20240131" for the UTC day that starts at day * kDayMs.
std::string partition_name(int64_t day) {
    const time_t t = static_cast<time_t>(day * 86400);
    struct tm parts;
    char buf[32] = "";
    gmtime_r(&t, &parts);
    strftime(buf, sizeof buf, "records_p%Y%m%d", &parts);
    return buf;
}

// The day of a partition this backend made (records_pYYYYMMDD), -1 for any other table.
int64_t partition_day(const std::string& name) {
    struct tm parts = {};
    if (name.size() != 17 || name.compare(0, 9, "records_p") != 0) return -1;
    const char* end = strptime(name.c_str() + 9, "%Y%m%d", &parts);
    if (!end || *end != '\0') return -1;
    const int64_t day = static_cast<int64_t>(timegm(&parts)) / 86400;
    return partition_name(day) == name ? day : -1;
}

class PgBackend : public Backend {
  public:
    PgBackend(std::string conninfo, int timeout_ms)
        : conninfo_(std::move(conninfo)), timeout_ms_(timeout_ms) {}

    std::string describe() const override {
        std::string out = "the PostgreSQL database";
        char* error = nullptr;
        PQconninfoOption* options = PQconninfoParse(conninfo_.c_str(), &error);
        if (!options) {
            PQfreemem(error);
            return out;
        }
        for (PQconninfoOption* o = options; o->keyword; ++o)
            for (const char* shown : {"dbname", "host", "port", "user"})
                if (o->val && *o->val && std::string(o->keyword) == shown)
                    out += std::string(" ") + shown + "=" + o->val;
        PQconninfoFree(options);
        return out;
    }
    std::unique_ptr<Connection> connect(Deadline d) override {
        return std::unique_ptr<Connection>(new PgConnection(conninfo_, timeout_ms_, d));
    }
    size_t max_connections() const override { return 8; }
    const char* like_any_case() const override { return "ILIKE"; }
    bool chained_inserts() const override { return true; }

    void prepare(Connection& c) override {
        const Deadline d = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
        try {
            c.script("BEGIN", d);
            c.query("SELECT pg_advisory_xact_lock(?)", {Param::of(kSchemaLock)}, d);
            migrate(c, d);
            c.script("COMMIT", d);
            check_schema_columns(c, d);
        } catch (const DatabaseError& e) {
            refuse("cannot be used: " + std::string(e.what()).substr(10));
        }
    }

    void maintain(Connection& c, int keep_days, int64_t now_ms) override {
        const Deadline d = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_ * 4);
        const int64_t today = now_ms / kDayMs;
        c.script("BEGIN", d);
        c.query("SELECT pg_advisory_xact_lock(?)", {Param::of(kPartitionLock)}, d);
        for (int64_t day = today - 1; day <= today + kDaysAhead; ++day)
            c.script("CREATE TABLE IF NOT EXISTS " + partition_name(day) +
                         " PARTITION OF records FOR VALUES FROM (" + std::to_string(day * kDayMs) + ") TO (" +
                         std::to_string((day + 1) * kDayMs) + ")",
                     d);
        if (keep_days > 0) drop_before(c, (today - keep_days + 1) * kDayMs, now_ms - keep_days * kDayMs, d);
        c.script("COMMIT", d);
    }

  private:
    void migrate(Connection& c, Deadline d) {
        if (first_number(c,
                         "SELECT count(*) FROM pg_tables WHERE schemaname = current_schema()"
                         " AND tablename = 'velto_schema'",
                         d) == 0) {
            if (first_number(c, "SELECT count(*) FROM pg_tables WHERE schemaname = current_schema()", d) > 0)
                refuse("holds tables of another program (it is not a velto-collector database)");
            c.script(kSchema, d);
            c.query("INSERT INTO velto_schema (version) VALUES (?)", {Param::of(int64_t{kSchemaVersion})}, d);
            return;
        }
        const int64_t version = first_number(c, "SELECT max(version) FROM velto_schema", d);
        if (version > kSchemaVersion)
            refuse("was written by a newer velto-collector (schema version " + std::to_string(version) +
                   "; this one knows version " + std::to_string(kSchemaVersion) + ")");
        if (version < kSchemaVersion) refuse("has an unknown schema version " + std::to_string(version));
    }

    // Drops the day partitions that end at or before first_kept_day_ms, and older requests.
    void drop_before(Connection& c, int64_t first_kept_day_ms, int64_t cutoff_ms, Deadline d) {
        const std::vector<Row> parts = c.query(
            "SELECT child.relname FROM pg_inherits JOIN pg_class child ON child.oid = pg_inherits.inhrelid"
            " WHERE pg_inherits.inhparent = 'records'::regclass",
            {}, d);
        for (const Row& row : parts) {
            const int64_t day = partition_day(row.at(0));
            if (day >= 0 && day < first_kept_day_ms / kDayMs)
                c.script("DROP TABLE " + partition_name(day), d);
        }
        c.query("DELETE FROM requests WHERE time < ?", {Param::of(cutoff_ms)}, d);
    }

    [[noreturn]] void refuse(const std::string& why) const {
        throw StoreError(describe() + " " + why + "; give another --db");
    }

    const std::string conninfo_;
    const int timeout_ms_;
};

}  // namespace

std::unique_ptr<Backend> make_postgresql_backend(const std::string& conninfo, int timeout_ms) {
    return std::unique_ptr<Backend>(new PgBackend(conninfo, timeout_ms));
}

}  // namespace vcollect

// The two databases velto-collector can keep its records in, behind one small interface: SQLite (one
// file, the default for one machine) and PostgreSQL (shared by several collectors). store.cpp writes
// its SQL once against Connection, with "?" placeholders and values always bound; each Backend knows
// its own schema, migrations and housekeeping. A Connection is used by one thread at a time; the
// ConnectionPool hands them out with a bounded wait, so a database that is down or slow makes a
// request fail within its deadline instead of holding it.
#ifndef VELTO_COLLECTOR_DATABASE_H
#define VELTO_COLLECTOR_DATABASE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace vcollect {

typedef std::chrono::steady_clock::time_point Deadline;

// A value bound to one "?" of a statement.
struct Param {
    bool is_text;
    std::string text;
    int64_t number;

    static Param of(const std::string& s) { return Param{true, s, 0}; }
    static Param of(int64_t n) { return Param{false, std::string(), n}; }
};

// The columns of one result row as text (numbers in decimal, NULL as "").
typedef std::vector<std::string> Row;

// A database error: the statement failed, the connection broke, or the deadline passed.
struct DatabaseError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Opening refused: a damaged or foreign database, or one of a newer collector. One readable line.
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Connection {
  public:
    virtual ~Connection() = default;
    // Runs one statement with "?" placeholders; every row it returns. Throws DatabaseError.
    virtual std::vector<Row> query(const std::string& sql, const std::vector<Param>& params,
                                   Deadline deadline) = 0;
    // Runs statements without parameters (schema, transactions). Throws DatabaseError.
    virtual void script(const std::string& sql, Deadline deadline) = 0;
    // True once the session is lost; the pool then opens a new one.
    virtual bool broken() const = 0;
    // The statement that opens a write transaction.
    virtual const char* begin_write() const { return "BEGIN"; }
};

// What differs between the databases.
class Backend {
  public:
    virtual ~Backend() = default;
    // Where the records go, for the start-up line (no password).
    virtual std::string describe() const = 0;
    // A new session; throws DatabaseError.
    virtual std::unique_ptr<Connection> connect(Deadline deadline) = 0;
    // Checks the schema on start: creates it in an empty database, migrates an older one; throws
    // StoreError for a database that is damaged, foreign or newer.
    virtual void prepare(Connection& c) = 0;
    // Housekeeping, run on start and then now and then: partitions ahead of time, and records older
    // than keep_days days (0 = keep everything) removed.
    virtual void maintain(Connection& c, int keep_days, int64_t now_ms) = 0;
    // How many sessions may be open at once.
    virtual size_t max_connections() const = 0;
    // True when one statement may hold several INSERTs (WITH ... AS (INSERT ... RETURNING ...)).
    virtual bool chained_inserts() const { return false; }
    // The SQL operator of a case-insensitive LIKE.
    virtual const char* like_any_case() const { return "LIKE"; }
};

// Sessions of one backend for the request threads: take() waits until one is free (at most until
// the deadline) and opens a new session in place of a broken one.
class ConnectionPool {
  public:
    explicit ConnectionPool(Backend& backend);

    class Lease {
      public:
        Lease(ConnectionPool& pool, std::unique_ptr<Connection> c) : pool_(pool), c_(std::move(c)) {}
        ~Lease() { pool_.give_back(std::move(c_)); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        Connection& operator*() { return *c_; }
        Connection* operator->() { return c_.get(); }

      private:
        ConnectionPool& pool_;
        std::unique_ptr<Connection> c_;
    };

    // Throws DatabaseError when no session is free or can be opened before the deadline.
    std::unique_ptr<Lease> take(Deadline deadline);
    // Keeps an open session for later use (the one that prepared the schema: for ":memory:" it is
    // the only one that has it).
    void adopt(std::unique_ptr<Connection> c);

  private:
    void give_back(std::unique_ptr<Connection> c);

    Backend& backend_;
    std::mutex m_;
    std::condition_variable freed_;
    std::vector<std::unique_ptr<Connection>> idle_;
    size_t out_ = 0;  // sessions leased or being opened
};

// The backend for --db: "postgresql://..." / "postgres://..." or a libpq "key=value" string for
// PostgreSQL, anything else an SQLite file. Throws StoreError when this build lacks PostgreSQL.
std::unique_ptr<Backend> make_backend(const std::string& db, int timeout_ms);

bool is_postgresql_address(const std::string& db);

// Turns "?" placeholders into "$1", "$2", ... (PostgreSQL's form), outside quoted literals.
std::string numbered_placeholders(const std::string& sql);

}  // namespace vcollect

#endif

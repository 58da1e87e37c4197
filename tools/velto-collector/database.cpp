// The parts of database.h shared by both backends: the pool of sessions, the choice of backend from
// --db and the placeholder rewriting for PostgreSQL.
#include "database.h"

#include <utility>

#include "sqlite_backend.h"
#ifdef VELTO_COLLECTOR_POSTGRESQL
#include "postgresql_backend.h"
#endif

namespace vcollect {

ConnectionPool::ConnectionPool(Backend& backend) : backend_(backend) {}

std::unique_ptr<ConnectionPool::Lease> ConnectionPool::take(Deadline deadline) {
    std::unique_ptr<Connection> c;
    {
        std::unique_lock<std::mutex> hold(m_);
        const bool free = freed_.wait_until(
            hold, deadline, [this] { return !idle_.empty() || out_ < backend_.max_connections(); });
        if (!free) throw DatabaseError("database: every session is busy");
        ++out_;
        if (!idle_.empty()) {
            c = std::move(idle_.back());
            idle_.pop_back();
        }
    }
    try {
        if (!c || c->broken()) {
            c.reset();
            c = backend_.connect(deadline);
        }
    } catch (...) {
        give_back(nullptr);
        throw;
    }
    return std::unique_ptr<Lease>(new Lease(*this, std::move(c)));
}

void ConnectionPool::adopt(std::unique_ptr<Connection> c) {
    std::lock_guard<std::mutex> hold(m_);
    idle_.push_back(std::move(c));
}

void ConnectionPool::give_back(std::unique_ptr<Connection> c) {
    std::lock_guard<std::mutex> hold(m_);
    --out_;
    // A broken session is closed here; the next take() opens a new one.
    if (c && !c->broken()) idle_.push_back(std::move(c));
    freed_.notify_one();
}

bool is_postgresql_address(const std::string& db) {
    if (db.rfind("postgresql://", 0) == 0 || db.rfind("postgres://", 0) == 0) return true;
    // A libpq "key=value ..." string names its server, database or service.
    for (const char* key : {"host=", "hostaddr=", "dbname=", "service=", "port="})
        if (db.rfind(key, 0) == 0 || db.find(std::string(" ") + key) != std::string::npos) return true;
    return false;
}

std::unique_ptr<Backend> make_backend(const std::string& db, int timeout_ms) {
    if (!is_postgresql_address(db)) return make_sqlite_backend(db, timeout_ms);
#ifdef VELTO_COLLECTOR_POSTGRESQL
    return make_postgresql_backend(db, timeout_ms);
#else
    throw StoreError("this velto-collector was built without PostgreSQL (libpq); --db " + db +
                     " cannot be used");
#endif
}

std::string numbered_placeholders(const std::string& sql) {
    std::string out;
    int n = 0;
    char quote = 0;
    for (char c : sql) {
        if (quote) {
            if (c == quote) quote = 0;
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == '?') {
            out += "$" + std::to_string(++n);
            continue;
        }
        out += c;
    }
    return out;
}

}  // namespace vcollect

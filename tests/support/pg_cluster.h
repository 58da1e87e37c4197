// A PostgreSQL 15 cluster of a test's own (Debian's postgresql-15): made with initdb in a temporary
// directory, served on a free loopback port, stopped and removed with the object. The server runs as
// an unprivileged user ("nobody", through runuser) when the test runs as root, since PostgreSQL
// refuses to run as root. Every wait is bounded. Used by collector_pg_test.
#ifndef VELTO_TESTS_PG_CLUSTER_H
#define VELTO_TESTS_PG_CLUSTER_H

#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "child_process.h"
#include "scenario.h"

namespace vtest {

class PgCluster {
  public:
    PgCluster() : port_(free_loopback_ports(1)[0]) {
        if (geteuid() == 0) {
            const passwd* nobody = getpwnam("nobody");
            if (!nobody || chown(dir_.path().c_str(), nobody->pw_uid, nobody->pw_gid) != 0) return;
            as_owner_ = {"/usr/sbin/runuser", "-u", "nobody", "--"};
        }
        ok_ = run({bin("initdb"), "-D", data(), "-U", "velto", "--auth=trust", "-E", "UTF8", "--no-sync"}) &&
              start();
    }
    ~PgCluster() {
        run({bin("pg_ctl"), "-D", data(), "-m", "immediate", "-w", "-t", "20", "stop"});
        // A server that did not go (the test was cut short meanwhile) does not outlive the directory.
        const long pid = atol(read_file(data() + "/postmaster.pid").c_str());
        if (pid > 0) kill(static_cast<pid_t>(pid), SIGKILL);
    }
    PgCluster(const PgCluster&) = delete;
    PgCluster& operator=(const PgCluster&) = delete;

    bool ok() const { return ok_; }
    // fsync is off: these tests stop the collector, not the machine.
    bool start() {
        return run({bin("pg_ctl"), "-D", data(), "-l", dir_.file("server.log"), "-w", "-t", "30", "-o",
                    "-p " + std::to_string(port_) + " -k " + dir_.path() +
                        " -c listen_addresses=127.0.0.1 -c fsync=off -c max_connections=60",
                    "start"});
    }
    bool stop() { return run({bin("pg_ctl"), "-D", data(), "-m", "fast", "-w", "-t", "30", "stop"}); }
    std::string url(const std::string& db = "postgres") const {
        return "postgresql://velto@127.0.0.1:" + std::to_string(port_) + "/" + db;
    }
    std::string log() const { return read_file(dir_.file("server.log")); }

    // Runs sql; the first column of every row ("<error: ...>" as the only row when it fails).
    std::vector<std::string> column(const std::string& sql, const std::string& db = "postgres") const {
        std::vector<std::string> out;
        PGconn* conn = PQconnectdb((url(db) + "?connect_timeout=10").c_str());
        PGresult* r = PQstatus(conn) == CONNECTION_OK ? PQexec(conn, sql.c_str()) : nullptr;
        const ExecStatusType st = r ? PQresultStatus(r) : PGRES_FATAL_ERROR;
        if (st != PGRES_TUPLES_OK && st != PGRES_COMMAND_OK)
            out.push_back(std::string("<error: ") + PQerrorMessage(conn) + ">");
        else
            for (int i = 0; i < PQntuples(r); ++i) out.push_back(PQgetvalue(r, i, 0));
        PQclear(r);
        PQfinish(conn);
        return out;
    }
    std::string value(const std::string& sql, const std::string& db = "postgres") const {
        const std::vector<std::string> v = column(sql, db);
        return v.empty() ? "<no row>" : v[0];
    }

  private:
    static std::string bin(const char* name) { return std::string("/usr/lib/postgresql/15/bin/") + name; }
    std::string data() const { return dir_.file("data"); }
    bool run(const std::vector<std::string>& command) {
        std::vector<std::string> args = as_owner_;
        args.insert(args.end(), command.begin(), command.end());
        const std::string out = dir_.file("command.out");
        return ChildProcess(args, out, out).wait(60000) == 0;
    }

    TempDir dir_;
    const int port_;
    std::vector<std::string> as_owner_;
    bool ok_ = false;
};

}  // namespace vtest

#endif

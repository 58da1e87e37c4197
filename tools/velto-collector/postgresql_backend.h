// The PostgreSQL backend of velto-collector's store (database.h): several collectors share one
// database; records are partitioned by day. Used through make_backend; built when libpq is found.
#ifndef VELTO_COLLECTOR_POSTGRESQL_BACKEND_H
#define VELTO_COLLECTOR_POSTGRESQL_BACKEND_H

#include <memory>
#include <string>

#include "database.h"

namespace vcollect {

// conninfo: any libpq connection string ("postgresql://user@host/db", "host=... dbname=...").
std::unique_ptr<Backend> make_postgresql_backend(const std::string& conninfo, int timeout_ms);

}  // namespace vcollect

#endif

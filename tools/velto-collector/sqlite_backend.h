// The SQLite backend of velto-collector's store (database.h): one file (or ":memory:"), one session,
// WAL journal. Used through make_backend.
#ifndef VELTO_COLLECTOR_SQLITE_BACKEND_H
#define VELTO_COLLECTOR_SQLITE_BACKEND_H

#include <memory>
#include <string>

#include "database.h"

namespace vcollect {

std::unique_ptr<Backend> make_sqlite_backend(const std::string& path, int timeout_ms);

}  // namespace vcollect

#endif

// What both of velto-collector's databases share: the schema's version, the columns store.cpp reads
// and writes, and the check that a database has them. Version 1 was the first SQLite schema;
// version 2 adds the unique key that keeps a batch stored once however many collectors receive it.
#ifndef VELTO_COLLECTOR_SCHEMA_H
#define VELTO_COLLECTOR_SCHEMA_H

#include <cstdint>

#include "database.h"

namespace vcollect {

const int kSchemaVersion = 2;
const int64_t kDayMs = 86400000;

const char kRecordColumns[] =
    "id, time, kind, category, action, label, sid, cid, brand, pver, batch, request, record";
const char kRequestColumns[] = "id, time, endpoint, peer, scheme, bytes, result, batch, records";

// Throws DatabaseError when the requests or records table lacks a column the collector uses.
inline void check_schema_columns(Connection& c, Deadline d) {
    c.query(std::string("SELECT ") + kRequestColumns + " FROM requests WHERE 1 = 0", {}, d);
    c.query(std::string("SELECT ") + kRecordColumns + " FROM records WHERE 1 = 0", {}, d);
}

}  // namespace vcollect

#endif

// velto-collector's ingestion: what one request to /v1/conf, /v1/data or /v1/file carries, decoded
// (tools/wire/upload.h checks the envelope) into the rows for the store, the readable lines for
// the terminal and the lines of the --records file. The receiver (receiver.cpp) calls it on the
// request's thread; stateless, safe on any thread.
#ifndef VELTO_COLLECTOR_INGESTION_H
#define VELTO_COLLECTOR_INGESTION_H

#include <map>
#include <string>
#include <vector>

#include "payload.h"
#include "store.h"

namespace vcollect {

struct Received {
    std::string endpoint;  // "/v1/data" or "/v1/file"
    std::string upload;    // the upload name of a file, "" for single payloads
    long long at = 0;      // seconds since the epoch
};

// What one request produces, gathered first and published in one piece, so that the lines of
// concurrent uploads do not interleave.
struct Output {
    std::string shown;     // readable lines for stdout
    std::string warnings;  // lines for stderr
    std::string json;      // lines for the records file
    std::map<std::string, long long> kinds;
    long long unreadable = 0;
    std::vector<RecordRow> rows;  // for the database
    std::string batch;            // the batch id of a records upload

    void show(const std::string& line) { shown += line + "\n"; }
    void add_json(const Received& from, const std::string& member) {
        json += "{\"received\":" + std::to_string(from.at) + ",\"endpoint\":" + json_quote(from.endpoint);
        if (!from.upload.empty()) json += ",\"upload\":" + json_quote(from.upload);
        json += "," + member + "}\n";
    }
};

// Decodes one request to path ("/v1/conf", "/v1/data" or "/v1/file"): body is the form of the first
// two, parts the multipart form of the last. Throws BadRequest (upload.h) with a readable reason.
Output ingest(const std::string& path, const std::string& body, bool multipart,
              const std::vector<FormPart>& parts, const Received& from);

}  // namespace vcollect

#endif

// velto-collector's log: the lines it writes about start-up, requests, database errors and shutdown.
// By default they are the readable lines of a developer's terminal; with --log-format text or json
// each one is a single line of stable fields (time, level, event, then the event's own) for a log
// shipper: key=value pairs or one JSON object. Safe on any thread: a line is written whole, under
// one lock, with one call.
#ifndef VELTO_COLLECTOR_LOG_LINES_H
#define VELTO_COLLECTOR_LOG_LINES_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vcollect {

enum class LogFormat { kReadable, kText, kJson };

// "readable", "text" or "json"; false for anything else.
bool parse_log_format(const std::string& name, LogFormat& out);
void set_log_format(LogFormat format);
bool structured_log();  // text or json

// One event: built with the fields, then written once.
class LogLine {
  public:
    LogLine(const char* level, const char* event);
    LogLine& add(const char* key, const std::string& value);
    LogLine& add(const char* key, int64_t value);

    // Writes the event: readable (when not empty, newline included) to the readable stream in the
    // readable format; the fields to stdout in the others.
    void write(FILE* readable_stream, const std::string& readable) const;

    std::string text() const;  // time=... level=... event=... key=value ...
    std::string json() const;  // {"time":"...","level":"...","event":"...",...}

  private:
    struct Field {
        std::string key, value;
        bool number;
    };
    std::vector<Field> fields_;
};

// Writes a finished line (newline included) to stream and flushes it, under the log's lock.
void write_whole(FILE* stream, const std::string& line);

// An event with one message: readable as "[HH:MM:SS] message" on stderr.
void log_note(const char* level, const char* event, const std::string& message);
// A problem at start-up: readable as "velto-collector: message" on stderr.
void log_start_problem(const char* level, const std::string& message);

}  // namespace vcollect

#endif

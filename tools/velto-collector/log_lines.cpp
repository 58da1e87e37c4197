// The formats of velto-collector's log lines (log_lines.h).
#include "log_lines.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <mutex>

#include "json_text.h"
#include "terminal.h"

namespace vcollect {

namespace {

std::atomic<LogFormat> g_format{LogFormat::kReadable};
std::mutex g_write;

const size_t kValueBytes = 300;  // longer values are cut

// "2024-05-01T12:03:07.123Z": UTC with milliseconds, the same width on every line.
std::string utc_now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    struct tm parts;
    char buf[40] = "0000-00-00T00:00:00";
    const time_t seconds = now.tv_sec;
    if (gmtime_r(&seconds, &parts)) strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &parts);
    char out[64];
    snprintf(out, sizeof out, "%s.%03dZ", buf, static_cast<int>(now.tv_usec / 1000));
    return out;
}

// A logfmt value: as it is when it is a plain word; else quoted, with backslashes and quotes escaped
// and bytes that are not printable written as \xNN, so that a value never breaks the line.
std::string text_value(const std::string& value) {
    std::string escaped;
    for (char c : value) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c;
    }
    const std::string shown = printable(escaped, kValueBytes);
    const bool plain = !value.empty() && value.find_first_of(" =\"\\") == std::string::npos &&
                       shown.find('\\') == std::string::npos;
    return plain ? shown : "\"" + shown + "\"";
}

}  // namespace

bool parse_log_format(const std::string& name, LogFormat& out) {
    if (name == "readable")
        out = LogFormat::kReadable;
    else if (name == "text")
        out = LogFormat::kText;
    else if (name == "json")
        out = LogFormat::kJson;
    else
        return false;
    return true;
}

void set_log_format(LogFormat format) {
    g_format = format;
}

bool structured_log() {
    return g_format != LogFormat::kReadable;
}

LogLine::LogLine(const char* level, const char* event) {
    fields_.push_back(Field{"time", utc_now(), false});
    fields_.push_back(Field{"level", level, false});
    fields_.push_back(Field{"event", event, false});
}

LogLine& LogLine::add(const char* key, const std::string& value) {
    fields_.push_back(Field{key, value.substr(0, kValueBytes * 2), false});
    return *this;
}

LogLine& LogLine::add(const char* key, int64_t value) {
    fields_.push_back(Field{key, std::to_string(value), true});
    return *this;
}

std::string LogLine::text() const {
    std::string line;
    for (const Field& f : fields_) line += (line.empty() ? "" : " ") + f.key + "=" + text_value(f.value);
    return line;
}

std::string LogLine::json() const {
    std::string line;
    for (const Field& f : fields_) {
        line += line.empty() ? "{" : ",";
        line += json_string(f.key) + ":" + (f.number ? f.value : json_string(f.value.substr(0, kValueBytes)));
    }
    return line + "}";
}

void LogLine::write(FILE* readable_stream, const std::string& readable) const {
    const LogFormat format = g_format;
    if (format == LogFormat::kReadable) {
        if (!readable.empty()) write_whole(readable_stream, readable);
    } else {
        write_whole(stdout, (format == LogFormat::kJson ? json() : text()) + "\n");
    }
}

void write_whole(FILE* stream, const std::string& line) {
    std::lock_guard<std::mutex> hold(g_write);
    fwrite(line.data(), 1, line.size(), stream);
    fflush(stream);
}

void log_note(const char* level, const char* event, const std::string& message) {
    LogLine(level, event)
        .add("message", message)
        .write(stderr, clock_text(time(nullptr)) + " " + message + "\n");
}

void log_start_problem(const char* level, const std::string& message) {
    LogLine(level, "start_problem")
        .add("message", message)
        .write(stderr, "velto-collector: " + message + "\n");
}

}  // namespace vcollect

// velto-collector's terminal output: the readable line of each record, values made safe to print
// (no input can send control sequences to the terminal), clock times. Used by the ingestion and the
// receiver; stateless, safe on any thread.
#ifndef VELTO_COLLECTOR_TERMINAL_H
#define VELTO_COLLECTOR_TERMINAL_H

#include <cstddef>
#include <string>

#include "json_text.h"

namespace vcollect {

const size_t kShownValueBytes = 60;  // longer values are cut in the readable lines

// Bytes shown in a terminal line: ASCII and valid UTF-8 as they are, every other byte as \xNN, cut to
// limit bytes ("..." after).
std::string printable(const std::string& s, size_t limit = kShownValueBytes);

// "[HH:MM:SS]" of t (seconds since the epoch), local time.
std::string clock_text(long long t);

// "[12:03:07] screenview  category=MainWindow  sid={...}": the record's own time when it has one.
std::string readable_line(const FlatMembers& rec, long long received);

}  // namespace vcollect

#endif

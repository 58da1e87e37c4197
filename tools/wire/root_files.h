// Readers of the files the library keeps in its root directory (the message file, its journal, the
// set-aside batches and the configuration file), rendering them as JSON lines. Used by velto-decode,
// which does the file handling around them, and by the fuzz targets. Nothing here trusts its input.
#ifndef VELTO_WIRE_ROOT_FILES_H
#define VELTO_WIRE_ROOT_FILES_H

#include <ostream>
#include <string>

#include "Util.h"

namespace vcollect {

// The record as a JSON value: the library's records are flat objects already; anything else
// (including text with a control byte) is shown as a string.
std::string record_value(const std::string& rec);
// The library's envelope reader; false when the token does not decode or decodes to nothing.
bool decode_token(const std::string& token, std::string& text);
// Why the library would skip this message-file line, or "" when it is a valid record (time and
// record are then set).
std::string check_line(const std::string& line, long long& time, std::string& record);

struct FileStats {
    long long records = 0, invalid = 0, oldest = 0, newest = 0;
};

// One JSON line per line of a message file's content: {"file":name,"line":N,"time":T,"record":..}
// or {"file":name,"line":N,"invalid":"reason"}.
FileStats print_messages(const std::string& name, const std::string& content, std::ostream& out);
// The configuration file's content as {"file":"sdk.cf","config":..} (conf receives its items), or
// {"file":"sdk.cf","invalid":"reason"}.
void print_config(const std::string& content, Velto::StrMap& conf, std::ostream& out);

}  // namespace vcollect

#endif

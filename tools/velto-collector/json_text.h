// JSON text helpers of velto-collector: strict UTF-8 checks, string literals that are valid JSON
// whatever bytes they hold, and the decoding of JSON string escapes. The records arrive with whatever
// bytes the host passed to the library, so everything the collector shows or serves goes through here,
// and records are read as flat objects here.
// Stateless; safe on any thread.
#ifndef VELTO_COLLECTOR_JSON_TEXT_H
#define VELTO_COLLECTOR_JSON_TEXT_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace vcollect {

// Length of the well-formed UTF-8 sequence of a non-ASCII character at s[i] (no overlong forms, no
// surrogates, nothing above U+10FFFF), 0 when there is none.
size_t utf8_sequence_at(const std::string& s, size_t i);

// A JSON string literal of s: quotes, backslashes and control characters escaped, valid UTF-8 kept,
// every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string json_string(const std::string& s);

// The bytes a JSON string's content stands for (the text between the quotes, escapes as written).
// Unpaired surrogates become U+FFFD; a broken escape is kept as written.
std::string json_unescape(const std::string& raw);

// {"k":"v",...} of members whose keys and values are raw JSON string contents (escapes as written),
// written again through json_string so that the result is valid JSON.
std::string clean_json_object(const std::vector<std::pair<std::string, std::string>>& raw_members);

// The members of a flat JSON object whose values are all strings, keys and values as written (escapes
// included).
typedef std::vector<std::pair<std::string, std::string>> FlatMembers;

// Reads such an object; false for anything else (nesting, numbers, broken syntax, trailing bytes), so
// that only valid JSON is passed on as a record.
bool read_flat_object(const std::string& text, FlatMembers& out);

// The raw value of key, null when the object lacks it.
const std::string* member(const FlatMembers& m, const char* key);

}  // namespace vcollect

#endif

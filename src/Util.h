// String, key/value and flat-JSON helpers shared by every component. Stateless and thread-safe.
// The helpers are deliberately naive (no nesting awareness in json2map, no unescaping anywhere):
// records, configuration files and server replies depend on their exact behaviour.
#ifndef VELTO_UTIL_H
#define VELTO_UTIL_H

#include <list>
#include <map>
#include <string>

namespace Velto {

// Ordered text-to-text map (byte-wise key order): records, base information, settings.
typedef std::map<std::string, std::string> StrMap;
// Ordered list of texts.
typedef std::list<std::string> StrList;

namespace Util {

// Removes whitespace (space, tab, LF, FF, CR; not VT, not NUL) and any c1/c2 bytes from both ends of s,
// in place; returns a copy of the result.
std::string trim(std::string& s, char c1 = 0, char c2 = 0);
// Splits s at the first sep: 0 when found; -1 (key = whole s, val empty) when not.
int split_key_val(std::string s, std::string& key, std::string& val, std::string sep);
// Splits s at every sep, skipping empty pieces; to_upper upper-cases every piece but the last.
void splits(std::string s, StrList& out, std::string sep, bool to_upper = false);
void upper(std::string& s);  // ASCII only
void lower(std::string& s);  // ASCII only
std::string ltoa(long long n);
// {"k":"v",...} in key order, entries with empty values left out, nothing escaped.
std::string to_json(const StrMap& m);
// k:v, k:v in key order, entries with empty values left out.
std::string to_key_val(const StrMap& m);
// Reads a flat object of string values; commas inside values split them (kept on purpose).
void json2map(std::string json, StrMap& out);
// Raw text of one member's value (quotes of a string kept, braces of an object removed), or "".
std::string json_item(const std::string& json, const std::string& key);
// Escapes a value for inclusion between double quotes; drops other control bytes and 0x7F.
std::string trim_json(const std::string& s);
// The same escaping, appended to out (at most 2 * n bytes).
void append_trim_json(std::string& out, const char* s, size_t n);
// Replaces every backslash-quote pair with "_".
std::string trim_json2(const std::string& s);
// Position (relative to start) of the partner of the first `open` byte in s[start..], or -1.
int get_cupl_pos(const std::string& s, char open, char close, int start);

// The payload envelope of files and uploads: Base64 of AES-256-CBC under the built-in key.
// Empty input (or len < 1) gives "".
std::string fencode(const std::string& s);
std::string fencode(const char* data, long long len);
// Reverse of fencode; strips trailing bytes that read as a signed char <= 15 (padding and, on
// purpose, the tail of a trailing non-ASCII character). Throws the cipher's exception when the
// decoded length is 0 or not a multiple of 16.
std::string fdecode(const std::string& s);

}  // namespace Util
}  // namespace Velto

#endif

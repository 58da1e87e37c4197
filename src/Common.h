// Small helpers and constants shared by the library's components (the message store, the delivery
// loop, the API, the transport, the platform layer): one starts_with, the text of an errno value, a
// whole write to a descriptor, and the names that mark a record or a file. Stateless; any thread.
// Depends on nothing of the library, so that every component may use it.
#ifndef VELTO_COMMON_H
#define VELTO_COMMON_H

#include <cstddef>
#include <cstring>
#include <string>

namespace Velto {

// The mark in front of the initial record's text while it is queued: the loop sends that record
// on its own and strips the mark before the record reaches the file.
inline constexpr char kInitPrefix[] = "INIT_EVENT";
inline constexpr size_t kInitPrefixLen = sizeof(kInitPrefix) - 1;
// The name of a set-aside batch: this prefix, a GUID in braces, then the time it was set aside.
inline constexpr char kSetAsidePrefix[] = "MSG_PRE_";
inline constexpr size_t kSetAsidePrefixLen = sizeof(kSetAsidePrefix) - 1;

inline bool starts_with(const std::string& s, const char* prefix) {
    return s.compare(0, strlen(prefix), prefix) == 0;
}
inline bool starts_with(const char* text, const char* prefix) {
    return text != nullptr && strncmp(text, prefix, strlen(prefix)) == 0;
}
// Whether s holds prefix at pos (false when pos lies past its end).
inline bool starts_with_at(const std::string& s, size_t pos, const char* prefix) {
    return pos <= s.size() && s.compare(pos, strlen(prefix), prefix) == 0;
}

// Whether a queued item is the initial record (its text behind kInitPrefix).
inline bool is_initial(const std::string& item) {
    return starts_with(item, kInitPrefix);
}
// Removes the initial record's mark, when there is one; true when there was.
bool strip_initial(std::string& item);

// kSetAsidePrefix + guid + the time in decimal.
std::string set_aside_name(const std::string& guid, long long time);
// The parts of a set-aside name: the GUID (through the first "}") and the time behind it. False
// for a name without the prefix or without a GUID.
bool parse_set_aside_name(const std::string& name, std::string& guid, long long& time);

// The text of an errno value, without strerror's shared buffer (either strerror_r flavour).
std::string errno_text(int err);
// Writes all n bytes to fd, going on after a signal; false at the first failed or empty write.
bool write_all(int fd, const char* data, size_t n);

}  // namespace Velto

#endif

// The readable lines velto-collector prints for what it receives.
#include "terminal.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

namespace vcollect {

namespace {

// Length of the valid UTF-8 sequence at s[i], 0 when there is none or it is a C1 control character.
size_t utf8_sequence(const std::string& s, size_t i) {
    const size_t n = utf8_sequence_at(s, i);
    if (n == 2 && static_cast<unsigned char>(s[i]) == 0xC2 && static_cast<unsigned char>(s[i + 1]) < 0xA0)
        return 0;
    return n;
}

}  // namespace

std::string printable(const std::string& s, size_t limit) {
    std::string out;
    size_t i = 0;
    while (i < s.size() && i < limit) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t n = c < 0x80 ? (c >= 0x20 && c != 0x7f) : utf8_sequence(s, i);
        if (n == 0) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
            ++i;
        } else {
            out.append(s, i, n);
            i += n;
        }
    }
    if (i < s.size()) out += "...";
    return out;
}

std::string clock_text(long long t) {
    time_t tt = static_cast<time_t>(t);
    struct tm parts;
    char buf[16] = "??:??:??";
    if (localtime_r(&tt, &parts)) strftime(buf, sizeof buf, "%H:%M:%S", &parts);
    return std::string("[") + buf + "]";
}

namespace {

// The keys each kind of record adds to the base information, in the order the calls take them.
const std::map<std::string, std::vector<const char*>>& own_keys_by_kind() {
    static const std::map<std::string, std::vector<const char*>> kinds = {
        {"event", {"category", "act", "label", "dvalue"}},
        {"screenview", {"category"}},
        {"timing", {"category", "ttime", "label"}},
        {"exception", {"desc", "fatal", "label", "stack"}},
        {"experience", {"category", "act", "properties"}},
        {"init", {"BRAND", "procname", "pver", "uid", "osver"}},
    };
    return kinds;
}

// Keys every record carries; for a kind this tool does not know, everything else is shown.
bool is_common_key(const std::string& key) {
    static const char* const kCommon[] = {"tstart",   "BRAND", "did",    "procname", "procid",  "modver",
                                          "tid",      "pid",   "pver",   "uip",      "plang",   "ostype",
                                          "osver",    "osbit", "oslang", "oszone",   "psource", "uid",
                                          "tinstall", "dtype", "sid",    "ostime"};
    for (const char* k : kCommon)
        if (key == k) return true;
    return false;
}

std::string field_text(const std::string& key, const std::string& value) {
    std::string shown = printable(value);
    if (shown.find(' ') != std::string::npos) shown = "\"" + shown + "\"";
    return "  " + key + "=" + shown;
}

}  // namespace

// "[12:03:07] screenview  category=MainWindow  sid={...}"
std::string readable_line(const FlatMembers& rec, long long received) {
    const std::string* kind = member(rec, "dtype");
    const std::string* ostime = member(rec, "ostime");
    const long long when = ostime ? atoll(ostime->c_str()) : 0;
    std::string line =
        clock_text(when > 0 ? when : received) + " " + (kind ? printable(*kind) : "(no dtype)");
    const auto& kinds = own_keys_by_kind();
    auto known = kind ? kinds.find(*kind) : kinds.end();
    if (known != kinds.end()) {
        for (const char* key : known->second)
            if (const std::string* v = member(rec, key)) line += field_text(key, *v);
        // The host's own base fields (data_base_ext) are shown where they are introduced.
        if (*kind == "init")
            for (const auto& kv : rec)
                if (!is_common_key(kv.first)) line += field_text(kv.first, kv.second);
    } else {
        for (const auto& kv : rec)
            if (!is_common_key(kv.first)) line += field_text(kv.first, kv.second);
    }
    const std::string* sid = member(rec, "sid");
    return line + "  sid=" + (sid ? printable(*sid) : "-");
}

}  // namespace vcollect

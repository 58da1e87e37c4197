// String, key/value and flat-JSON helpers used by every component on every thread. They are naive on
// purpose: records, the configuration file and server replies are written and read with exactly this
// behaviour, so the odd cases (commas splitting values, unpaired brace trimming) are part of the formats.
// The payload envelope (fencode/fdecode) lives with the codecs in Zip.cpp.
#include "Util.h"

#include <climits>
#include <cstdio>

namespace Velto {
namespace Util {

namespace {

// Vertical tab and NUL are not whitespace here: values may carry them and must keep them.
inline bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
}

inline bool trimmable(char c, char c1, char c2) {
    return is_blank(c) || c == c1 || c == c2;
}

}  // namespace

std::string trim(std::string& s, char c1, char c2) {
    if (s.empty()) return std::string();
    size_t first = 0;
    while (first < s.size() && trimmable(s[first], c1, c2)) ++first;
    if (first == s.size()) {
        s.clear();
        return std::string();
    }
    size_t last = s.size() - 1;
    while (last > first && trimmable(s[last], c1, c2)) --last;
    if (first > 0 || last + 1 < s.size()) s = s.substr(first, last - first + 1);
    return s;
}

int split_key_val(std::string s, std::string& key, std::string& val, std::string sep) {
    val.clear();
    size_t at = sep.empty() ? std::string::npos : s.find(sep);
    if (at == std::string::npos) {
        key = std::move(s);
        return -1;
    }
    key.assign(s, 0, at);
    size_t rest = at + sep.size();
    if (rest < s.size()) val.assign(s, rest, std::string::npos);
    return 0;
}

void splits(std::string s, StrList& out, std::string sep, bool to_upper) {
    out.clear();
    if (sep.empty() || s.empty()) return;
    size_t pos = 0;
    while (true) {
        size_t at = s.find(sep, pos);
        if (at == std::string::npos) break;
        if (at > pos) {
            out.push_back(s.substr(pos, at - pos));
            if (to_upper) upper(out.back());
        }
        pos = at + sep.size();
        if (pos >= s.size()) break;
    }
    // The last piece is kept as it stands, never upper-cased: readers of the lists rely on that.
    if (pos < s.size()) out.push_back(s.substr(pos));
}

void upper(std::string& s) {
    for (char& c : s) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 0x20);
    }
}

void lower(std::string& s) {
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 0x20);
    }
}

std::string ltoa(long long n) {
    char buf[32];
    int len = std::snprintf(buf, sizeof(buf), "%lld", n);
    return std::string(buf, len > 0 ? static_cast<size_t>(len) : 0);
}

std::string to_json(const StrMap& m) {
    size_t need = 2;
    for (const auto& kv : m) {
        if (!kv.second.empty()) need += kv.first.size() + kv.second.size() + 6;
    }
    std::string out;
    out.reserve(need);
    out += '{';
    bool first = true;
    for (const auto& kv : m) {
        if (kv.second.empty()) continue;
        if (!first) out += ',';
        first = false;
        out += '"';
        out += kv.first;
        out += "\":\"";
        out += kv.second;
        out += '"';
    }
    out += '}';
    return out;
}

std::string to_key_val(const StrMap& m) {
    std::string out;
    for (const auto& kv : m) {
        if (kv.second.empty()) continue;
        if (!out.empty()) out += ", ";
        out += kv.first;
        out += ':';
        out += kv.second;
    }
    return out;
}

void json2map(std::string json, StrMap& out) {
    out.clear();
    trim(json, '{', '}');
    StrList pieces;
    splits(json, pieces, ",", false);
    std::string key, val;
    for (const std::string& piece : pieces) {
        split_key_val(piece, key, val, ":");
        trim(key, '"', 0);
        trim(val, '"', 0);
        out[key] = val;
    }
}

std::string json_item(const std::string& json, const std::string& key) {
    if (key.empty()) return std::string();
    std::string needle;
    needle.reserve(key.size() + 2);
    needle += '"';
    needle += key;
    needle += '"';
    size_t at = json.find(needle);
    if (at == std::string::npos) return std::string();
    size_t begin = at + needle.size();
    long long depth = 0;
    long long opened = 0;
    for (size_t i = begin; i < json.size(); ++i) {
        char c = json[i];
        if (c == '{') {
            ++depth;
            ++opened;
        } else if (c == '}') {
            --depth;
        }
        bool stop = depth < 0 || (opened > 0 && depth < 1) || (c == ',' && opened == 0);
        if (stop) {
            std::string raw = json.substr(begin, i - begin);
            return trim(raw, ':', '{');
        }
    }
    return std::string();  // unterminated member
}

void append_trim_json(std::string& out, const char* s, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const char c = s[i];
        switch (c) {
            case '\b':
                out += "\\b";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\r':
                out += "\\r";
                break;
            case '"':
                out += "\\\"";
                break;
            case '/':
                out += "\\/";
                break;
            case '\\':
                out += "\\\\";
                break;
            default: {
                unsigned char u = static_cast<unsigned char>(c);
                if (u >= 0x20 && u != 0x7F) out += c;  // other control bytes are dropped
            }
        }
    }
}

std::string trim_json(const std::string& s) {
    std::string out;
    out.reserve(s.size() + s.size() / 8 + 2);
    append_trim_json(out, s.data(), s.size());
    return out;
}

std::string trim_json2(const std::string& s) {
    // One left-to-right pass gives the same text as rescanning from the start after each
    // replacement: "_" can never complete a new backslash-quote pair.
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size() && s[i + 1] == '"') {
            out += '_';
            ++i;
        } else {
            out += s[i];
        }
    }
    return out;
}

int get_cupl_pos(const std::string& s, char open, char close, int start) {
    if (open == close || start < 0 || static_cast<size_t>(start) >= s.size()) return -1;
    size_t len = s.size() - static_cast<size_t>(start);
    if (len > static_cast<size_t>(INT_MAX)) len = INT_MAX;
    const char* sub = s.data() + start;
    int depth = -1;
    for (size_t i = 0; i < len; ++i) {
        char c = sub[i];
        if (c == open) depth = depth < 0 ? 1 : depth + 1;
        if (c == close) {
            if (depth < 0) return -1;
            if (depth < 2) return static_cast<int>(i);  // relative to start, as callers expect
            --depth;
        }
    }
    return -1;
}

}  // namespace Util
}  // namespace Velto

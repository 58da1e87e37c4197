// JSON string writing and reading for velto-collector's store, API and terminal lines.
#include "json_text.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "payload.h"

namespace vcollect {

namespace {

bool is_continuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

// The range the second byte of a sequence must fall in; the lead byte decides (RFC 3629).
bool second_byte_fits(unsigned char lead, unsigned char second) {
    if (lead == 0xE0) return second >= 0xA0 && second <= 0xBF;  // no overlong 3-byte forms
    if (lead == 0xED) return second >= 0x80 && second <= 0x9F;  // no surrogates
    if (lead == 0xF0) return second >= 0x90 && second <= 0xBF;  // no overlong 4-byte forms
    if (lead == 0xF4) return second >= 0x80 && second <= 0x8F;  // nothing above U+10FFFF
    return is_continuation(second);
}

void append_utf8(uint32_t cp, std::string& out) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// The four hex digits at raw[i], or -1.
long hex4(const std::string& raw, size_t i) {
    if (i + 4 > raw.size()) return -1;
    long v = 0;
    for (size_t k = i; k < i + 4; ++k) {
        const char c = raw[k];
        const int d = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
        if (d < 0) return -1;
        v = v * 16 + d;
    }
    return v;
}

const uint32_t kReplacement = 0xFFFD;

// Decodes the \uXXXX escape (and its low half, for a surrogate pair) at raw[i] == 'u'; i ends on the
// last digit used. False when the digits are not hex.
bool take_unicode_escape(const std::string& raw, size_t& i, std::string& out) {
    const long high = hex4(raw, i + 1);
    if (high < 0) return false;
    i += 4;
    uint32_t cp = static_cast<uint32_t>(high);
    if (cp >= 0xD800 && cp <= 0xDBFF) {
        const long low =
            i + 2 < raw.size() && raw[i + 1] == '\\' && raw[i + 2] == 'u' ? hex4(raw, i + 3) : -1;
        if (low >= 0xDC00 && low <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<uint32_t>(low) - 0xDC00);
            i += 6;
        } else {
            cp = kReplacement;
        }
    } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
        cp = kReplacement;
    }
    append_utf8(cp, out);
    return true;
}

}  // namespace

size_t utf8_sequence_at(const std::string& s, size_t i) {
    if (i >= s.size()) return 0;
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const size_t n = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    if (!second_byte_fits(c, static_cast<unsigned char>(s[i + 1]))) return 0;
    for (size_t k = 2; k < n; ++k)
        if (!is_continuation(static_cast<unsigned char>(s[i + k]))) return 0;
    return n;
}

std::string json_string(const std::string& s) {
    std::string out;
    out.reserve(s.size() + 2);
    out += '"';
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x80) {
            const size_t n = utf8_sequence_at(s, i);
            if (n == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(s, i, n);
                i += n;
            }
            continue;
        }
        ++i;
        append_json_escaped(out, c);
    }
    return out + "\"";
}

std::string json_unescape(const std::string& raw) {
    std::string out;
    out.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\' || i + 1 >= raw.size()) {
            out += raw[i];
            continue;
        }
        const char e = raw[++i];
        switch (e) {
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u':
                if (!take_unicode_escape(raw, i, out)) out += "\\u";
                break;
            default:  // \" \\ \/ stand for themselves; anything else is kept as it came
                if (e != '"' && e != '\\' && e != '/') out += '\\';
                out += e;
        }
    }
    return out;
}

std::string clean_json_object(const std::vector<std::pair<std::string, std::string>>& raw_members) {
    std::string out = "{";
    for (const auto& kv : raw_members) {
        if (out.size() > 1) out += ',';
        out += json_string(json_unescape(kv.first)) + ":" + json_string(json_unescape(kv.second));
    }
    return out + "}";
}

namespace {

// Reads a flat JSON object whose values are all strings; keys and values are kept as written
// (escapes included). False for anything else, so that only valid JSON reaches the records file.
class FlatObjectReader {
  public:
    explicit FlatObjectReader(const std::string& text) : s_(text) {}

    bool read(FlatMembers& out) {
        out.clear();
        skip_blanks();
        if (!take('{')) return false;
        skip_blanks();
        if (take('}')) return at_end();
        for (;;) {
            std::string key, value;
            if (!read_string(key) || !take_after_blanks(':') || !read_string(value)) return false;
            out.emplace_back(std::move(key), std::move(value));
            skip_blanks();
            if (take('}')) return at_end();
            if (!take(',')) return false;
        }
    }

  private:
    void skip_blanks() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r')) ++i_;
    }
    bool take(char c) {
        if (i_ >= s_.size() || s_[i_] != c) return false;
        ++i_;
        return true;
    }
    bool take_after_blanks(char c) {
        skip_blanks();
        if (!take(c)) return false;
        skip_blanks();
        return true;
    }
    bool at_end() {
        skip_blanks();
        return i_ == s_.size();
    }
    bool read_escape() {
        if (i_ >= s_.size()) return false;
        const char c = s_[i_++];
        if (strchr("\"\\/bfnrt", c)) return true;
        if (c != 'u' || i_ + 4 > s_.size()) return false;
        for (int k = 0; k < 4; ++k)
            if (!isxdigit(static_cast<unsigned char>(s_[i_++]))) return false;
        return true;
    }
    bool read_string(std::string& out) {
        if (!take('"')) return false;
        const size_t begin = i_;
        while (i_ < s_.size() && s_[i_] != '"') {
            const unsigned char c = static_cast<unsigned char>(s_[i_++]);
            if (c < 0x20) return false;
            if (c == '\\' && !read_escape()) return false;
        }
        if (i_ >= s_.size()) return false;
        out = s_.substr(begin, i_++ - begin);
        return true;
    }

    const std::string& s_;
    size_t i_ = 0;
};

}  // namespace

bool read_flat_object(const std::string& text, FlatMembers& out) {
    return FlatObjectReader(text).read(out);
}

const std::string* member(const FlatMembers& m, const char* key) {
    for (const auto& kv : m)
        if (kv.first == key) return &kv.second;
    return nullptr;
}

}  // namespace vcollect

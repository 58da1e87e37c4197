// Fuzz target: the flat-JSON helpers that read server replies, configuration text and debug answers
// (json2map, json_item and the bracket matcher behind it), the escaping that writes them back, and the
// text helpers beneath them (trim, splits). Each result must stay inside its input and keep its
// helper's rule; a violation aborts.
// Input: the JSON text, optionally followed by a NUL and the member name to look up; the name's first
// byte is also the extra byte trim removes, its length the bracket matcher's start.
#include <cstdlib>
#include <string>

#include "Util.h"
#include "fuzz_support.h"

namespace Util = Velto::Util;

namespace {

void check(bool ok) {
    if (!ok) abort();
}

// The bytes trim removes from the ends: whitespace other than VT, and the extra byte it is given.
bool trimmable(char c, char extra) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == extra;
}

// trim leaves no removable byte at either end, and what is left is a piece of the input.
void check_trim(const std::string& text, char extra) {
    std::string copy = text;
    const std::string got = Util::trim(copy, extra, extra);
    check(got == copy && text.find(got) != std::string::npos);
    check(got.empty() || (!trimmable(got.front(), extra) && !trimmable(got.back(), extra)));
}

void check_splits(const std::string& text) {
    Velto::StrList pieces;
    Util::splits(text, pieces, ",", true);
    for (const std::string& p : pieces) check(!p.empty() && p.find(',') == std::string::npos);
}

// The matcher's answer, relative to start, points at a closing byte inside the text.
void check_couple(const std::string& text, char open, char close, int start) {
    const int pos = Util::get_cupl_pos(text, open, close, start);
    check(pos < 0 ||
          (start >= 0 && static_cast<size_t>(start) + pos < text.size() && text[start + pos] == close));
}

// trim_json2's defining rule: replace the first backslash-quote pair until none is left.
void check_quote_pairs(const std::string& text) {
    std::string rescanned = text;
    for (size_t at; (at = rescanned.find("\\\"")) != std::string::npos;) rescanned.replace(at, 2, "_");
    check(Util::trim_json2(text) == rescanned);
}

// trim_json escapes or drops every control byte and DEL.
void check_escaped(const std::string& text) {
    for (char c : Util::trim_json(text)) check(static_cast<unsigned char>(c) >= 0x20 && c != '\x7f');
}

}  // namespace

VELTO_FUZZ_TARGET {
    std::vector<std::string> pieces = vfuzz::split_input(data, size, 2);
    const std::string& json = pieces[0];
    const std::string key = pieces[1].empty() ? "status" : pieces[1];

    Velto::StrMap items;
    Util::json2map(json, items);
    // What was read must render and read back without fault (to_json escapes nothing on purpose, so
    // the round trip is not expected to be exact).
    Velto::StrMap again;
    Util::json2map(Util::to_json(items), again);
    Util::to_key_val(items);

    for (const char* member : {"status", "conf", "data"})
        check(Util::json_item(json, member).size() <= json.size());
    check(Util::json_item(json, key).size() <= json.size());
    check_couple(json, '{', '}', 0);
    check_couple(json, '[', ']', static_cast<int>(json.size() / 2));
    check_couple(json, '{', '}', static_cast<int>(pieces[1].size() % (json.size() + 2)) - 1);

    check_escaped(json);
    check_quote_pairs(json);
    check_trim(json, pieces[1].empty() ? '\0' : pieces[1][0]);
    check_trim(json, '"');
    check_splits(json);
    return 0;
}

// Tests of the string, key/value and flat-JSON helpers: the quirks the file and wire formats rely on.
// Arbitrary bytes through them, with their rules checked, are the json_text fuzz target's part.
#include "Util.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

using Velto::StrList;
using Velto::StrMap;
namespace U = Velto::Util;

TEST(Util, TrimTakesAsciiBlanksOrTheGivenBytes) {
    struct Trim {
        std::string in;
        char c1, c2;
        std::string want;
    } trims[] = {
        {" \vx\v ", 0, 0, "\vx\v"},  // vertical tab is not whitespace
        {"\t\n\f\r x\r", 0, 0, "x"},
        {"\"\"", '"', 0, ""},
        {"{\"a\":{\"b\":\"c\"}}", '{', '}', "\"a\":{\"b\":\"c\""},  // braces are not paired
        {std::string("\0a\0", 3), '"', 0, "a"},                     // c2 = 0 trims NUL
        {std::string("\0a\0", 3), 'x', 'y', std::string("\0a\0", 3)},
    };
    for (const Trim& c : trims) {
        std::string s = c.in;
        EXPECT_EQ(c.want, U::trim(s, c.c1, c.c2)) << c.in;
        EXPECT_EQ(c.want, s) << c.in;
    }
}

TEST(Util, SplitsAtTheFirstSeparatorAndDropsEmptyPieces) {
    std::string key, val = "stale";
    EXPECT_EQ(-1, U::split_key_val("k", key, val, ":"));
    EXPECT_EQ(0, U::split_key_val("a:b:c", key, val, ":"));
    EXPECT_EQ("a|b:c", key + "|" + val);

    struct Split {
        std::string in;
        bool up;
        StrList want;
    } splits[] = {
        {"a,,b,", false, {"a", "b"}},
        {"a,b", true, {"A", "b"}},  // the last piece is never upper-cased
        {",,,", false, {}},
        {"", false, {}},
    };
    for (const Split& c : splits) {
        StrList out = {"stale"};
        U::splits(c.in, out, ",", c.up);
        EXPECT_EQ(c.want, out) << c.in;
    }
}

TEST(Util, LtoaWritesTheMostNegativeNumber) {
    EXPECT_EQ("-9223372036854775808", U::ltoa(LLONG_MIN));
}

TEST(Util, JsonBuildAndRead) {
    const StrMap m = {{"b", "2"}, {"a", "1"}, {"c", ""}};
    EXPECT_EQ("{\"a\":\"1\",\"b\":\"2\"}", U::to_json(m));
    EXPECT_EQ("a:1, b:2", U::to_key_val(m));
    EXPECT_EQ("{}", U::to_json({{"x", ""}}));

    struct Read {
        std::string in;
        StrMap want;
    } reads[] = {
        {"{\"a\":\"x,y\"}", {{"a", "x"}, {"y", ""}}},  // a comma splits the value
        {"{\"u\":\"http://h:1\",\"n\":12}", {{"u", "http://h:1"}, {"n", "12"}}},
        {"{\"a\":\"1\",\"a\":\"2\"}", {{"a", "2"}}},
        {"{\"e\":\"a\\\"b\"}", {{"e", "a\\\"b"}}},  // nothing unescaped
    };
    for (const Read& c : reads) {
        StrMap out = {{"stale", "x"}};
        U::json2map(c.in, out);
        EXPECT_EQ(c.want, out) << c.in;
    }

    const std::string nested = "{\"a\":{\"b\":\"c\"},\"d\":\"e\"}";
    struct Item {
        std::string json, key, want;
    } items[] = {
        {"{\"status\":1}", "status", "1"},
        {nested, "a", "\"b\":\"c\""},
        {nested, "d", "\"e\""},
        {"{\"x\":\"1\",\"y\":2}", "x", "\"1\""},
        {"{\"status\":1", "status", ""},  // unterminated
        {"{\"status\":1}", "", ""},
    };
    for (const Item& c : items) EXPECT_EQ(c.want, U::json_item(c.json, c.key)) << c.json << " / " << c.key;
}

TEST(Util, EscapesAndCouplePosition) {
    EXPECT_EQ("a\\/b", U::trim_json("a/b"));
    EXPECT_EQ("ab\xc3\xa4", U::trim_json(std::string("a\0\x01\x0b\x7f"
                                                     "b\xc3\xa4",
                                                     8)));
    EXPECT_EQ("\\b\\t\\n\\f\\r\\\"\\\\", U::trim_json("\b\t\n\f\r\"\\"));
    EXPECT_EQ("a_b\\_", U::trim_json2("a\\\"b\\\\\""));

    struct Pos {
        std::string s;
        int start, want;
    } positions[] = {
        {"x{a{b}c}d", 0, 7}, {"x{a{b}c}d", 2, 3},  // relative to start
        {"}{}", 0, -1},      {"{{}", 0, -1},      {"{}", 2, -1}, {"{}", -1, -1}, {"{}", INT_MAX, -1},
    };
    for (const Pos& c : positions) EXPECT_EQ(c.want, U::get_cupl_pos(c.s, '{', '}', c.start)) << c.s;
    EXPECT_EQ(-1, U::get_cupl_pos("\"a\"", '"', '"', 0));
}

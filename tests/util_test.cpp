// Tests of the string, key/value and flat-JSON helpers: the quirks the file and wire formats rely on.
// Arbitrary bytes through them, with their rules checked, are the json_text fuzz target's part.
#include "Util.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <tuple>
#include <utility>

using Velto::StrList;
using Velto::StrMap;
namespace U = Velto::Util;

TEST(Util, TrimTakesAsciiBlanksOrTheGivenBytes) {
    const std::tuple<std::string, char, char, std::string> trims[] = {
        {" \vx\v ", 0, 0, "\vx\v"},  // vertical tab is not whitespace
        {"\t\n\f\r x\r", 0, 0, "x"},
        {"\"\"", '"', 0, ""},
        {"{\"a\":{\"b\":\"c\"}}", '{', '}', "\"a\":{\"b\":\"c\""},  // braces are not paired
        {std::string("\0a\0", 3), '"', 0, "a"},                     // c2 = 0 trims NUL
        {std::string("\0a\0", 3), 'x', 'y', std::string("\0a\0", 3)},
    };
    for (const auto& [in, c1, c2, want] : trims) {
        std::string s = in;
        EXPECT_EQ(want, U::trim(s, c1, c2)) << in;
        EXPECT_EQ(want, s) << in;
    }
}

TEST(Util, SplitsAtTheFirstSeparatorAndDropsEmptyPieces) {
    std::string key, val = "stale";
    EXPECT_EQ(-1, U::split_key_val("k", key, val, ":"));
    EXPECT_EQ(0, U::split_key_val("a:b:c", key, val, ":"));
    EXPECT_EQ("a|b:c", key + "|" + val);

    const std::tuple<std::string, bool, StrList> splits[] = {
        {"a,,b,", false, {"a", "b"}},
        {"a,b", true, {"A", "b"}},  // the last piece is never upper-cased
        {",,,", false, {}},
        {"", false, {}},
    };
    for (const auto& [in, up, want] : splits) {
        StrList out = {"stale"};
        U::splits(in, out, ",", up);
        EXPECT_EQ(want, out) << in;
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

    const std::pair<std::string, StrMap> reads[] = {
        {"{\"a\":\"x,y\"}", {{"a", "x"}, {"y", ""}}},  // a comma splits the value
        {"{\"u\":\"http://h:1\",\"n\":12}", {{"u", "http://h:1"}, {"n", "12"}}},
        {"{\"a\":\"1\",\"a\":\"2\"}", {{"a", "2"}}},
        {"{\"e\":\"a\\\"b\"}", {{"e", "a\\\"b"}}},  // nothing unescaped
    };
    for (const auto& [in, want] : reads) {
        StrMap out = {{"stale", "x"}};
        U::json2map(in, out);
        EXPECT_EQ(want, out) << in;
    }

    const std::string nested = "{\"a\":{\"b\":\"c\"},\"d\":\"e\"}";
    const std::tuple<std::string, std::string, std::string> items[] = {
        {"{\"status\":1}", "status", "1"},
        {nested, "a", "\"b\":\"c\""},
        {nested, "d", "\"e\""},
        {"{\"x\":\"1\",\"y\":2}", "x", "\"1\""},
        {"{\"status\":1", "status", ""},  // unterminated
        {"{\"status\":1}", "", ""},
    };
    for (const auto& [json, key, want] : items)
        EXPECT_EQ(want, U::json_item(json, key)) << json << " / " << key;
}

TEST(Util, EscapesAndCouplePosition) {
    EXPECT_EQ("a\\/b", U::trim_json("a/b"));
    EXPECT_EQ("ab\xc3\xa4", U::trim_json(std::string("a\0\x01\x0b\x7f"
                                                     "b\xc3\xa4",
                                                     8)));
    EXPECT_EQ("\\b\\t\\n\\f\\r\\\"\\\\", U::trim_json("\b\t\n\f\r\"\\"));
    EXPECT_EQ("a_b\\_", U::trim_json2("a\\\"b\\\\\""));

    const std::tuple<std::string, int, int> positions[] = {
        {"x{a{b}c}d", 0, 7}, {"x{a{b}c}d", 2, 3},  // relative to start
        {"}{}", 0, -1},      {"{{}", 0, -1},      {"{}", 2, -1}, {"{}", -1, -1}, {"{}", INT_MAX, -1},
    };
    for (const auto& [s, start, want] : positions) EXPECT_EQ(want, U::get_cupl_pos(s, '{', '}', start)) << s;
    EXPECT_EQ(-1, U::get_cupl_pos("\"a\"", '"', '"', 0));
}

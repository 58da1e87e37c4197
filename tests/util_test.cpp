// Tests of the string, key/value and flat-JSON helpers: the quirks the file and wire formats rely on,
// and a randomized run over arbitrary bytes that must never read out of bounds.
#include "Util.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>

using Velto::StrList;
using Velto::StrMap;
namespace U = Velto::Util;

TEST(Util, TrimAndSplits) {
    struct Trim {
        std::string in;
        char c1, c2;
        std::string want;
    } trims[] = {
        {" \vx\v ", 0, 0, "\vx\v"},  // vertical tab is not whitespace
        {"\t\n\f\r x\r", 0, 0, "x"},
        {"\"abc\"", '"', 0, "abc"},
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

    std::string key, val = "stale";
    EXPECT_EQ(-1, U::split_key_val("k", key, val, ":"));
    EXPECT_EQ("k", key + val);
    EXPECT_EQ(0, U::split_key_val("k:", key, val, ":"));
    EXPECT_EQ("k", key + val);
    EXPECT_EQ(0, U::split_key_val("a:b:c", key, val, ":"));
    EXPECT_EQ("a|b:c", key + "|" + val);

    struct Split {
        std::string in;
        bool up;
        StrList want;
    } splits[] = {
        {"a,,b,", false, {"a", "b"}}, {"a,b", true, {"A", "b"}},  // the last piece is never upper-cased
        {",a", false, {"a"}},         {",,,", false, {}},        {"", false, {}},
    };
    for (const Split& c : splits) {
        StrList out = {"stale"};
        U::splits(c.in, out, ",", c.up);
        EXPECT_EQ(c.want, out) << c.in;
    }

    std::string s = "aZ\xe4{";
    U::upper(s);
    EXPECT_EQ("AZ\xe4{", s);
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

// Arbitrary bytes, weighted towards the bytes the helpers react to, must give results that stay
// inside the input and keep the helpers' own rules. ASan turns any stray read into a failure.
TEST(Util, RandomBytes) {
    const char special[] = {'{', '}', '"', ':', ',', ' ', '\t', '\n', '\v', '\0', '\\', '/', '\x7f', '\xff'};
    auto blank_or = [](char c, char c1) {
        return c == ' ' || (c >= '\t' && c <= '\r' && c != '\v') || c == c1;
    };
    std::mt19937 rng(20240501u);
    for (int iter = 0; iter < 4000; ++iter) {
        std::string s(rng() % 48, '\0');
        for (char& c : s) c = (rng() % 3) ? special[rng() % sizeof(special)] : static_cast<char>(rng() % 256);
        const char c1 = special[rng() % sizeof(special)];

        std::string t = s;
        const std::string got = U::trim(t, c1, c1);
        ASSERT_TRUE(got.empty() || (!blank_or(got.front(), c1) && !blank_or(got.back(), c1)));
        ASSERT_NE(std::string::npos, s.find(got));

        StrList pieces;
        U::splits(s, pieces, ",", true);
        for (const std::string& p : pieces) ASSERT_TRUE(!p.empty() && p.find(',') == std::string::npos);

        StrMap m;
        U::json2map(s, m);
        const std::string key = s.substr(s.empty() ? 0 : rng() % s.size(), rng() % 4);
        ASSERT_LE(U::json_item(s, key).size(), s.size());

        const int start = static_cast<int>(rng() % (s.size() + 2)) - 1;
        const int pos = U::get_cupl_pos(s, '{', '}', start);
        ASSERT_TRUE(pos < 0 || s[start + pos] == '}');

        std::string rescanned = s;  // the defining rule: replace the first pair until none is left
        for (size_t at; (at = rescanned.find("\\\"")) != std::string::npos;) rescanned.replace(at, 2, "_");
        ASSERT_EQ(rescanned, U::trim_json2(s));
        for (char c : U::trim_json(s)) ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != '\x7f');
    }
}

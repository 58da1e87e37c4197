// Tests of the string, key/value and flat-JSON helpers: the quirks the file and wire formats rely on,
// and a randomized run over arbitrary bytes that must never read out of bounds.
#include "Util.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

using Velto::StrList;
using Velto::StrMap;
namespace U = Velto::Util;

namespace {

StrList list_of(std::initializer_list<const char*> items) {
    StrList out;
    for (const char* s : items) out.push_back(s);
    return out;
}

}  // namespace

TEST(UtilTrim, Table) {
    struct Case {
        std::string in;
        char c1, c2;
        std::string want;
    } cases[] = {
        {" \vx\v ", 0, 0, "\vx\v"},  // vertical tab is not whitespace
        {"\t\n\f\r x \r\f\n\t", 0, 0, "x"},
        {"\"abc\"", '"', 0, "abc"},
        {"\"\"", '"', 0, ""},
        {"{\"a\":{\"b\":\"c\"}}", '{', '}', "\"a\":{\"b\":\"c\""},  // braces are not paired
        {std::string("\0a\0", 3), '"', 0, "a"},                     // c2 = 0 trims NUL
        {std::string("\0a\0", 3), 'x', 'y', std::string("\0a\0", 3)},
        {"", 0, 0, ""},
        {"   ", 0, 0, ""},
        {"\xff x \x80", 0, 0, "\xff x \x80"},
    };
    for (const Case& c : cases) {
        std::string s = c.in;
        std::string got = U::trim(s, c.c1, c.c2);
        EXPECT_EQ(c.want, got) << "input: " << c.in;
        EXPECT_EQ(c.want, s) << "in place: " << c.in;
    }
}

TEST(UtilSplit, KeyValAndSplits) {
    std::string key, val;
    EXPECT_EQ(-1, U::split_key_val("k", key, val, ":"));
    EXPECT_EQ("k", key);
    EXPECT_EQ("", val);
    EXPECT_EQ(0, U::split_key_val("k:", key, val, ":"));
    EXPECT_EQ("k", key);
    EXPECT_EQ("", val);
    EXPECT_EQ(0, U::split_key_val("a:b:c", key, val, ":"));
    EXPECT_EQ("a", key);
    EXPECT_EQ("b:c", val);
    EXPECT_EQ(-1, U::split_key_val("a:b", key, val, ""));
    EXPECT_EQ("a:b", key);

    struct Case {
        std::string in, sep;
        bool up;
        StrList want;
    } cases[] = {
        {"a,,b,", ",", false, list_of({"a", "b"})},
        {"a,b", ",", true, list_of({"A", "b"})},  // the last piece is never upper-cased
        {",a", ",", false, list_of({"a"})},
        {"x&&y&&z", "&&", true, list_of({"X", "Y", "z"})},
        {"abc", ",", true, list_of({"abc"})},
        {"", ",", false, list_of({})},
        {"abc", "", false, list_of({})},
        {",,,", ",", false, list_of({})},
    };
    for (const Case& c : cases) {
        StrList out = list_of({"stale"});
        U::splits(c.in, out, c.sep, c.up);
        EXPECT_EQ(c.want, out) << "input: " << c.in;
    }
}

TEST(UtilCase, AsciiOnly) {
    std::string s = "aZ09\xe4\xc4{}";
    U::upper(s);
    EXPECT_EQ("AZ09\xe4\xc4{}", s);
    U::lower(s);
    EXPECT_EQ("az09\xe4\xc4{}", s);
    EXPECT_EQ("-12", U::ltoa(-12));
    EXPECT_EQ("-9223372036854775808", U::ltoa(LLONG_MIN));
    EXPECT_EQ("1700000000000", U::ltoa(1700000000000LL));
}

TEST(UtilJson, RenderMaps) {
    StrMap m = {{"b", "2"}, {"a", "1"}, {"c", ""}};
    EXPECT_EQ("{\"a\":\"1\",\"b\":\"2\"}", U::to_json(m));
    EXPECT_EQ("a:1, b:2", U::to_key_val(m));
    EXPECT_EQ("{}", U::to_json({}));
    EXPECT_EQ("{}", U::to_json({{"x", ""}}));
    EXPECT_EQ("", U::to_key_val({}));
    EXPECT_EQ("{\"q\":\"a\"b\"}", U::to_json({{"q", "a\"b"}}));  // nothing escaped
}

TEST(UtilJson, Json2Map) {
    struct Case {
        std::string in;
        StrMap want;
    } cases[] = {
        {"{\"a\":\"x,y\"}", {{"a", "x"}, {"y", ""}}},  // commas split values
        {"{\"u\":\"http://h:1\"}", {{"u", "http://h:1"}}},
        {"{\"n\":12,\"b\":true}", {{"n", "12"}, {"b", "true"}}},
        {"{\"a\":\"1\",\"a\":\"2\"}", {{"a", "2"}}},
        {" { \"k\" : \"v\" } ", {{"k", "v"}}},
        {"{\"e\":\"a\\\"b\"}", {{"e", "a\\\"b"}}},
        {"{}", {}},
        {"", {}},
    };
    for (const Case& c : cases) {
        StrMap out = {{"stale", "x"}};
        U::json2map(c.in, out);
        EXPECT_EQ(c.want, out) << "input: " << c.in;
    }
}

TEST(UtilJson, JsonItem) {
    const std::string nested = "{\"a\":{\"b\":\"c\"},\"d\":\"e\"}";
    struct Case {
        std::string json, key, want;
    } cases[] = {
        {"{\"status\":1}", "status", "1"},
        {nested, "a", "\"b\":\"c\""},
        {nested, "d", "\"e\""},
        {nested, "b", "\"c\""},
        {"{\"x\":\"1\",\"y\":2}", "x", "\"1\""},
        {"{\"r\":{\"conf\":{\"k\":\"v\"},\"s\":\"0\"}}", "conf", "\"k\":\"v\""},
        {"{\"status\":1", "status", ""},  // unterminated last member
        {"{\"status\":1}", "stat", ""},
        {"{\"status\":1}", "", ""},
        {"", "status", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.want, U::json_item(c.json, c.key)) << c.json << " / " << c.key;
    }
}

TEST(UtilJson, Escapes) {
    EXPECT_EQ("a\\/b", U::trim_json("a/b"));
    EXPECT_EQ("ab", U::trim_json(std::string("a\0\x01\x7f"
                                             "b",
                                             5)));
    EXPECT_EQ("\\b\\t\\n\\f\\r\\\"\\\\", U::trim_json("\b\t\n\f\r\"\\"));
    EXPECT_EQ("\xc3\xa4", U::trim_json("\xc3\xa4\x0b"));  // vertical tab dropped, UTF-8 kept
    EXPECT_EQ("a_b_", U::trim_json2("a\\\"b\\\""));
    EXPECT_EQ("\\_", U::trim_json2("\\\\\""));
    EXPECT_EQ("\"\\", U::trim_json2("\"\\"));
}

TEST(UtilJson, CouplePosition) {
    struct Case {
        std::string s;
        char open, close;
        int start, want;
    } cases[] = {
        {"x{a{b}c}d", '{', '}', 0, 7}, {"x{a{b}c}d", '{', '}', 2, 3},  // relative to start
        {"}{}", '{', '}', 0, -1},      {"{{}", '{', '}', 0, -1},      {"\"a\"", '"', '"', 0, -1},
        {"{}", '{', '}', 2, -1},       {"{}", '{', '}', -1, -1},      {"{}", '{', '}', INT_MAX, -1},
        {"", '{', '}', 0, -1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.want, U::get_cupl_pos(c.s, c.open, c.close, c.start)) << c.s << " @" << c.start;
    }
}

namespace {

// The rescanning definition of trim_json2, kept here as the reference.
std::string defuse_by_rescan(std::string s) {
    for (size_t at = s.find("\\\""); at != std::string::npos; at = s.find("\\\"")) s.replace(at, 2, "_");
    return s;
}

bool blank_or(char c, char c1, char c2) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == c1 || c == c2;
}

}  // namespace

// Arbitrary bytes, weighted towards the bytes the helpers react to, must give results that stay
// inside the input and keep the helpers' own invariants. ASan turns any stray read into a failure.
TEST(UtilRandom, ArbitraryBytes) {
    const char special[] = {'{', '}', '"', ':', ',', ' ', '\t', '\n', '\v', '\0', '\\', '/', '\x7f', '\xff'};
    std::mt19937 rng(20240501u);
    for (int iter = 0; iter < 4000; ++iter) {
        std::string s(rng() % 48, '\0');
        for (char& c : s) c = (rng() % 3) ? special[rng() % sizeof(special)] : static_cast<char>(rng() % 256);
        const char c1 = special[rng() % sizeof(special)];

        std::string t = s;
        std::string got = U::trim(t, c1, 0);
        ASSERT_EQ(got, t);
        if (!got.empty()) {
            ASSERT_FALSE(blank_or(got.front(), c1, 0));
            ASSERT_FALSE(blank_or(got.back(), c1, 0));
            ASSERT_NE(std::string::npos, s.find(got));
        }

        StrList pieces;
        U::splits(s, pieces, ",", true);
        for (const std::string& p : pieces) {
            ASSERT_FALSE(p.empty());
            ASSERT_EQ(std::string::npos, p.find(','));
        }

        StrMap m;
        U::json2map(s, m);
        ASSERT_LE(m.size(), s.size() + 1);

        const std::string key = s.substr(s.empty() ? 0 : rng() % s.size(), rng() % 4);
        ASSERT_LE(U::json_item(s, key).size(), s.size());

        const int start = static_cast<int>(rng() % (s.size() + 2)) - 1;
        const int pos = U::get_cupl_pos(s, '{', '}', start);
        if (pos >= 0) {
            ASSERT_EQ('}', s[start + pos]);
        }

        ASSERT_EQ(defuse_by_rescan(s), U::trim_json2(s));
        for (char c : U::trim_json(s)) ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != '\x7f');
    }
}

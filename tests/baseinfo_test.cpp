// The base information: data_base_info with its "init" record, its checks and its deliberate partial
// update; the parsing of data_base_info2 lines; and data_base_ext.
#include <tuple>

#include "api_helpers.h"

namespace {

using apitest::drain;
using apitest::parse_record;
using Velto::g_base_info;
using Velto::StrMap;

const char kAbsent[] = "<absent>";

void expect_fields(const StrMap& want) {
    StrMap have;
    g_base_info.copy(have);
    for (const auto& kv : want) {
        auto it = have.find(kv.first);
        EXPECT_EQ(kv.second, it == have.end() ? kAbsent : it->second) << kv.first;
    }
}

TEST(BaseInfo, QueuesOneInitRecord) {
    RUN_SCENARIO({
        apitest::start(root);
        ASSERT_EQ(0, data_base_info("a/b", -7, "1.0", -60, "u", "en", "mac", "14", 32, "de", 1700000000,
                                    nullptr, nullptr));
        EXPECT_EQ("a\\/b", Velto::Config::obj_->get_str("tid"));
        std::vector<std::string> recs = drain();
        ASSERT_EQ(1u, recs.size());
        ASSERT_EQ(0u, recs[0].rfind("INIT_EVENT{", 0)) << recs[0];
        StrMap rec, base;
        ASSERT_TRUE(parse_record(recs[0].substr(10), rec)) << recs[0];
        g_base_info.copy(base);
        base.erase("psource");  // stored empty, so left out of the text
        base.erase("uid");
        base["dtype"] = "init";
        base["sid"] = rec["sid"];
        base["ostime"] = rec["ostime"];
        EXPECT_EQ(base, rec);
        expect_fields({{"tid", "a\\/b"}, {"pid", "-7"}, {"oszone", "-60"}, {"osbit", "32"}});
        expect_fields({{"tinstall", "1700000000"}, {"psource", ""}, {"uid", ""}});
    });
}

TEST(BaseInfo, RefusedArgumentsAndPartialUpdate) {
    RUN_SCENARIO({
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        const std::string s65(65, 'x');
        for (int arg = 0; arg < 7; ++arg) {
            for (const char* bad : {static_cast<const char*>(nullptr), "", s65.c_str()}) {
                // tid pver uip plang ostype osver oslang
                const char* t[7] = {"t", "p", "u", "l", "o", "v", "l"};
                t[arg] = bad;
                EXPECT_EQ(VELTO_BAD_ARG, data_base_info(t[0], 1, t[1], 0, t[2], t[3], t[4], t[5], 64, t[6], 0,
                                                        nullptr, nullptr))
                    << arg;
            }
        }
        EXPECT_EQ(VELTO_BAD_ARG,
                  data_base_info("t", 1, "p", 0, "u", "l", "o", "v", 16, "l", 0, nullptr, nullptr));
        EXPECT_EQ(6u, g_base_info.count());

        // A bad psource is found after tid..oszone were stored; they stay.
        EXPECT_EQ(VELTO_BAD_ARG,
                  data_base_info("t", 1, "p", 2, "u", "l", "o", "v", 64, "l", 5, s65.c_str(), nullptr));
        expect_fields({{"tid", "t"}, {"oszone", "2"}, {"psource", kAbsent}, {"tinstall", kAbsent}});
        EXPECT_FALSE(Velto::Config::obj_->has("tid"));
        // A bad uid comes after psource, the configuration's "tid" and tinstall.
        EXPECT_EQ(VELTO_BAD_ARG,
                  data_base_info("t2", 1, "p", 2, "u", "l", "o", "v", 64, "l", 5, "", s65.c_str()));
        expect_fields({{"tid", "t2"}, {"psource", ""}, {"tinstall", "5"}, {"uid", kAbsent}});
        EXPECT_EQ("t2", Velto::Config::obj_->get_str("tid"));
        EXPECT_EQ(0, Velto::Cache::obj_->count());
    });
}

TEST(BaseInfo, LineParsing) {
    RUN_SCENARIO({
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        const std::string p65(65, 'p');
        std::string padded = "t 1 1.0 8 u en mac 10 64 en 0 src uid";
        while (padded.size() < 1024) padded += " x";
        padded.resize(1024, 'x');
        const std::tuple<std::string, int, StrMap> cases[] = {
            // line, result, fields afterwards
            // clang-format off
            {"t 1 1.0 8 u en mac 10 64 en 0 src uid", 0,
             {{"pid", "1"}, {"oszone", "8"}, {"osbit", "64"}, {"tinstall", kAbsent}, {"uid", "uid"}}},
            {"t 2 1.0 -3 u en mac 10 32 en NULL NULL NULL", 0,
             {{"pid", "2"}, {"oszone", "-3"}, {"osbit", "32"}, {"tinstall", kAbsent}, {"psource", ""},
              {"uid", ""}}},
            {"t  3 1.0 8 u en mac 10 64 en 5 src", 0, {{"pid", "3"}, {"tinstall", "5"}, {"uid", ""}}},
            {"t 4 1.0 8 u en mac 10 64 en 5", VELTO_BAD_ARG, {{"pid", "3"}}},
            {"t 4 " + p65 + " 8 u en mac 10 64 en 5 s u", VELTO_BAD_ARG, {}},
            {"t 4 1.0 8 u en mac 10 abc en 5 s u", VELTO_BAD_ARG, {}},
            {"t 4 1.0 8 u en mac 10 64 en 5 s u " + p65, 0, {{"pid", "4"}}},  // pieces after 13 ignored
            {padded, 0, {{"pid", "1"}}},
            {padded + "x", VELTO_BAD_ARG, {{"pid", "1"}}},
            {"", VELTO_BAD_ARG, {}},
            // clang-format on
        };
        for (const auto& [line, expected, fields] : cases) {
            EXPECT_EQ(expected, data_base_info2(line.c_str())) << line;
            expect_fields(fields);
        }
        EXPECT_EQ(VELTO_BAD_ARG, data_base_info2(nullptr));
    });
}

TEST(BaseInfo, Extension) {
    RUN_SCENARIO({
        apitest::start(root);
        const std::string s64(64, 'k'), s65(65, 'k');
        for (const auto& kv :
             {std::make_pair("", "v"), std::make_pair(s65.c_str(), "v"),
              std::make_pair("k", static_cast<const char*>(nullptr)), std::make_pair("k", s65.c_str())})
            EXPECT_EQ(VELTO_BAD_ARG, data_base_ext(kv.first, kv.second)) << kv.first;
        EXPECT_EQ(0, data_base_ext(s64.c_str(), s64.c_str()));
        EXPECT_EQ(0, data_base_ext("k\"", "v/"));  // the key is taken as it is, the value escaped
        EXPECT_EQ(0, data_base_ext("uip", "x"));
        expect_fields({{"k\\\"", "v\\/"}, {"uip", "x"}, {s64, s64}});
        EXPECT_EQ(0, Velto::Cache::obj_->count());
        data_stop();
        EXPECT_EQ(VELTO_STOPPED, data_base_ext("k", "v"));
    });
}

}  // namespace

// The five record calls: the exact record text, the base fields and own keys of every kind, the
// escaping of arguments, the argument limits at their edges, the order of the refusals (207, 209,
// 106, 208, 104), and records from many host threads. Also the pending queue on its own.
#include <functional>
#include <thread>

#include "api_helpers.h"
#include "delivery.h"

namespace {

using apitest::drain;
using apitest::parse_record;
using apitest::start;
using Velto::StrMap;

// The record's text is exactly to_json of the base fields merged with the call's keys (the reader is
// strict: sorted unique keys, no blanks, every value a non-empty JSON string): keys in ascending byte
// order (upper case before lower), a call's key replacing a base field even when the call's value is
// empty (then the key is left out), arguments escaped, empty values and values that escape to nothing
// left out, and the base information's later changes taken up by the next record.
TEST(Records, TextIsJsonOfMergedMap) {
    RUN_SCENARIO({
        start(root);
        const std::pair<const char*, const char*> ext[] = {
            {"label", "base-label"}, {"dvalue", "7"}, {"Zed", "upper"}, {"~last", "tilde"}, {"a", "first"}};
        for (const auto& kv : ext) ASSERT_EQ(0, data_base_ext(kv.first, kv.second));
        // Each call with its own keys ("" values: the key is replaced and left out).
        const std::pair<std::function<int()>, StrMap> cases[] = {
            {[] { return data_event("c", "a", "", 0); },
             {{"dtype", "event"}, {"category", "c"}, {"act", "a"}, {"label", ""}}},
            {[] { return data_event("c", "a", nullptr, -9); },
             {{"dtype", "event"}, {"category", "c"}, {"act", "a"}, {"dvalue", "-9"}}},
            {[] { return data_event("c\"/\\\n\x01\x7f\xc3\xa9", "a b", "lab", -5); },
             {{"dtype", "event"},
              {"category", "c\\\"\\/\\\\\\n\xc3\xa9"},
              {"act", "a b"},
              {"label", "lab"},
              {"dvalue", "-5"}}},
            {[] { return data_screen("\x01\x02"); }, {{"dtype", "screenview"}, {"category", ""}}},
            {[] { return data_count("c", 9, "L"); },
             {{"dtype", "timing"}, {"category", "c"}, {"ttime", "9"}, {"label", "L"}}},
            {[] { return data_err_trace("d", 0, "L/1", "\x7f"); },
             {{"dtype", "exception"}, {"desc", "d"}, {"fatal", "0"}, {"label", "L\\/1"}, {"stack", ""}}},
            {[] { return data_experience("c", "a", "p"); },
             {{"dtype", "experience"}, {"category", "c"}, {"act", "a"}, {"properties", "p"}}},
        };
        for (int round = 0; round < 2; ++round) {
            if (round == 1) {
                ASSERT_EQ(0, data_base_ext("category", "changed"));
            }
            StrMap base;
            Velto::g_base_info.copy(base);
            for (const auto& [call, own] : cases) {
                const long long before = Velto::os_time();
                ASSERT_EQ(0, call());
                const std::vector<std::string> texts = drain();
                ASSERT_EQ(1u, texts.size());
                StrMap rec;
                ASSERT_TRUE(parse_record(texts[0], rec)) << texts[0];
                EXPECT_EQ(34u, rec["sid"].size());
                EXPECT_GE(std::stoll(rec["ostime"]), before);
                EXPECT_LE(std::stoll(rec["ostime"]), Velto::os_time());
                StrMap expected = base;
                for (const auto& kv : own) expected[kv.first] = kv.second;
                expected["sid"] = rec["sid"];
                expected["ostime"] = rec["ostime"];
                EXPECT_EQ(Velto::Util::to_json(expected), texts[0]);
            }
        }
    });
}

// One argument-limit case: the call as written, the call, its expected result.
struct LimitCase {
    const char* text;
    std::function<int()> call;
    int expected;
};
// clang-format off
#define OK(call) LimitCase{#call, [&] { return call; }, VELTO_OK}
#define BAD(call) LimitCase{#call, [&] { return call; }, VELTO_BAD_ARG}
// clang-format on

TEST(Records, ArgumentLimits) {
    RUN_SCENARIO({
        start(root);
        const std::string s64(64, 'x'), s65(65, 'x'), q64(64, '"'), s1024(1024, 'p'), s1025(1025, 'p'),
            s2048(2048, 's'), s2049(2049, 's');
        const char *c64 = s64.c_str(), *c65 = s65.c_str(), *const none = nullptr;
        // clang-format off
        LimitCase cases[] = {
            OK(data_event(c64, c64, c64, 0)),       OK(data_event("c", "a", "", 0)),
            BAD(data_event(c65, "a", none, 0)),     BAD(data_event("", "a", none, 0)),
            BAD(data_event(none, "a", none, 0)),    BAD(data_event("c", c65, none, 0)),
            BAD(data_event("c", "", none, 0)),      BAD(data_event("c", none, "", 0)),
            BAD(data_event("c", "a", c65, 0)),
            OK(data_screen(q64.c_str())),           BAD(data_screen(c65)),
            BAD(data_screen("")),                   BAD(data_screen(none)),
            OK(data_count(c64, 1, c64)),            BAD(data_count(c65, 1, none)),
            BAD(data_count("c", 0, none)),          BAD(data_count("c", -1, none)),
            BAD(data_count("c", 1, "")),            BAD(data_count("c", 1, c65)),
            OK(data_err_trace(c64, 0, c64, s2048.c_str())),
            OK(data_err_trace("d", 1, "", "")),     OK(data_err_trace("d", 2, none, none)),
            BAD(data_err_trace("d", 3, none, none)), BAD(data_err_trace("d", -1, none, none)),
            BAD(data_err_trace(c65, 0, none, none)), BAD(data_err_trace("", 0, none, none)),
            BAD(data_err_trace("d", 0, c65, none)),  BAD(data_err_trace("d", 0, none, s2049.c_str())),
            OK(data_experience(c64, c64, s1024.c_str())),
            OK(data_experience("c", "a", "")),      BAD(data_experience("c", "a", s1025.c_str())),
            BAD(data_experience(c65, "a", none)),   BAD(data_experience("c", none, none)),
        };
        // clang-format on
        for (const LimitCase& c : cases) {
            long long before = Velto::Cache::obj_->count();
            EXPECT_EQ(c.expected, c.call()) << c.text;
            EXPECT_EQ(before + (c.expected == 0 ? 1 : 0), Velto::Cache::obj_->count()) << c.text;
        }
        // Limits count raw bytes: 64 quotes pass and are stored escaped.
        std::string escaped;
        for (int i = 0; i < 64; ++i) escaped += "\\\"";
        std::vector<std::string> screens;
        for (const std::string& rec : drain())
            if (vtest::has(rec, "screenview")) screens.push_back(rec);
        ASSERT_EQ(1u, screens.size());
        EXPECT_TRUE(vtest::has(screens[0], "\"category\":\"" + escaped + "\"")) << screens[0];
    });
}

TEST(Records, RefusalOrder) {
    RUN_SCENARIO({
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        Velto::Config::obj_->set("data_screen", "");      // present, whatever the value: switched off
        EXPECT_EQ(VELTO_KIND_OFF, data_screen(nullptr));  // before the completeness test
        EXPECT_EQ(VELTO_BASE_INCOMPLETE, data_event(nullptr, "a", nullptr, 0));
        ASSERT_EQ(0, apitest::give_base_info());
        apitest::park_background();
        EXPECT_EQ(VELTO_KIND_OFF, data_screen("s"));
        EXPECT_EQ(0, data_event("c", "a", nullptr, 0));
        EXPECT_EQ(0, data_count("c", 1, nullptr));
        EXPECT_EQ(0, data_err_trace("d", 0, nullptr, nullptr));
        EXPECT_EQ(0, data_experience("c", "a", nullptr));
        data_stop();
        EXPECT_EQ(VELTO_STOPPED, data_screen("s"));
    });
}

TEST(Records, QueueBound) {
    RUN_SCENARIO({
        start(root);
        for (int i = 0; i < 1001; ++i) ASSERT_EQ(0, data_screen("s")) << i;  // 1000 waiting still take one
        EXPECT_EQ(1001, Velto::Cache::obj_->count());
        EXPECT_EQ(VELTO_QUEUE_FULL, data_screen("s"));
        EXPECT_EQ(VELTO_QUEUE_FULL, data_event(nullptr, nullptr, nullptr, 0));  // before the argument checks
        Velto::Cache::obj_->get();
        Velto::Cache::obj_->get();
        EXPECT_EQ(0, data_screen("s"));
    });
}

TEST(Records, ManyThreadsQueueCompleteRecordsInOrder) {
    RUN_SCENARIO({
        start(root);
        const int kThreads = 8, kEach = 120;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                std::string cat = "t" + std::to_string(t);
                for (int i = 1; i <= kEach; ++i) EXPECT_EQ(0, data_event(cat.c_str(), "a", nullptr, i));
            });
        }
        for (std::thread& th : threads) th.join();
        std::vector<std::string> recs = drain();
        ASSERT_EQ(size_t(kThreads * kEach), recs.size());
        std::map<std::string, int> last;
        for (const std::string& text : recs) {
            StrMap rec;
            ASSERT_TRUE(parse_record(text, rec)) << text;
            int n = std::stoi(rec["dvalue"]);
            EXPECT_EQ(last[rec["category"]] + 1, n) << rec["category"];
            last[rec["category"]] = n;
        }
    });
}

}  // namespace

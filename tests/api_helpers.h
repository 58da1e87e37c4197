// Helpers of the exported-API tests (api_test, records_test, baseinfo_test, session_test): starting
// the library inside a scenario, taking the pending queue over from the background thread, and a
// strict reader of record texts.
#ifndef VELTO_TEST_API_HELPERS_H
#define VELTO_TEST_API_HELPERS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BackRun.h"
#include "BaseInfo.h"
#include "Cache.h"
#include "ComInc.h"
#include "Config.h"
#include "Util.h"
#include "scenario.h"
#include "velto.h"
#include "velto_test.h"

namespace apitest {

// A complete, valid data_base_info: with the six start-up fields the store then holds 18.
inline int give_base_info() {
    return data_base_info("tid1", 42, "1.0", 8, "uip1", "en", "mac", "10.15", 64, "en-US", 0, "src", "u1");
}

// Every text waiting in the pending queue, oldest first; the queue is empty afterwards.
inline std::vector<std::string> drain() {
    std::vector<std::string> out;
    for (std::string s = Velto::Cache::obj_->get(); !s.empty(); s = Velto::Cache::obj_->get())
        out.push_back(s);
    return out;
}

// Ends the background thread through its stop handshake and reopens the library, so that the test
// alone reads the pending queue. Whatever the thread had not taken is dropped.
inline void park_background() {
    Velto::g_back_run.stop();
    ASSERT_TRUE(vtest::wait_until([] { return Velto::g_back_run.stop_flag() == 0; }, 60000))
        << vtest::read_file(Velto::Config::obj_->get_str("ROOT_DIR") + "sdk.log");
    Velto::g_back_run.set_running(1);
    drain();
}

// Waits (bounded) until the background thread has ended.
inline void wait_stopped() {
    ASSERT_TRUE(vtest::wait_until([] { return Velto::g_back_run.stop_flag() == 0; }, 30000));
}

// data_stop, then the thread's end: whatever it would still write or send is written or sent.
inline void stop_and_wait() {
    data_stop();
    wait_stopped();
}

// data_init and data_base_info, then the queue belongs to the test.
inline void start(const std::string& root) {
    ASSERT_EQ(0, data_init(root.c_str(), "brand"));
    ASSERT_EQ(0, give_base_info());
    park_background();
}

// Reads a record {"k":"v",...} strictly: no blanks, every value a non-empty JSON string (escapes
// kept as written), keys unique and in ascending byte order.
inline bool parse_record(const std::string& text, Velto::StrMap& out) {
    out.clear();
    size_t i = 0;
    auto read_string = [&](std::string& s) {
        if (i >= text.size() || text[i] != '"') return false;
        size_t begin = ++i;
        while (i < text.size() && text[i] != '"') i += text[i] == '\\' ? 2 : 1;
        if (i >= text.size()) return false;
        s = text.substr(begin, i++ - begin);
        return true;
    };
    if (text.empty() || text[i++] != '{') return false;
    if (text == "{}") return true;
    for (;;) {
        std::string key, value;
        if (!read_string(key) || i >= text.size() || text[i++] != ':' || !read_string(value)) return false;
        if (value.empty() || (!out.empty() && out.rbegin()->first >= key)) return false;
        out[key] = value;
        if (i >= text.size()) return false;
        char c = text[i++];
        if (c == '}') return i == text.size();
        if (c != ',') return false;
    }
}

// The one record the last call queued, parsed; fails the test unless exactly one is waiting.
inline Velto::StrMap only_record() {
    std::vector<std::string> recs = drain();
    Velto::StrMap rec;
    EXPECT_EQ(1u, recs.size());
    if (recs.size() == 1) {
        EXPECT_TRUE(parse_record(recs[0], rec)) << recs[0];
    }
    return rec;
}

}  // namespace apitest

#endif

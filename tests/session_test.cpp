// Session ids: renewal after the idle time-out in the foreground (built in or from the settings),
// no renewal in the background, renewal on the return to the foreground, and data_changestate with
// its "fg"/"bg" events. The clock is moved with os_time_shift instead of waiting.
#include "Session.h"

#include "api_helpers.h"

namespace {

using apitest::drain;
using apitest::only_record;
using Velto::os_time_shift;
using Velto::StrMap;

// Whether the process-wide session is in the background, read under the API lock like the library
// reads it.
bool session_in_background() {
    Velto::MutexLock hold(Velto::api_m);
    return Velto::g_session.background();
}

TEST(Session, ChangeStateEvents) {
    RUN_SCENARIO({
        apitest::start(root);
        EXPECT_EQ(0, data_changestate(1));  // already in the foreground
        EXPECT_TRUE(drain().empty());
        EXPECT_EQ(0, data_changestate(0));
        StrMap bg = only_record();
        EXPECT_EQ("default", bg["category"]);
        EXPECT_EQ("bg", bg["act"]);
        EXPECT_EQ(0u, bg.count("label") + bg.count("dvalue"));
        EXPECT_EQ(0, data_changestate(0));
        EXPECT_TRUE(drain().empty());
        EXPECT_EQ(0, data_changestate(5));  // any non-zero value is the foreground
        StrMap fg = only_record();
        EXPECT_EQ("fg", fg["act"]);
        EXPECT_EQ(bg["sid"], fg["sid"]);  // a short absence keeps the session
        data_stop();                      // refused, but the state still changes
        EXPECT_EQ(VELTO_STOPPED, data_changestate(0));
        EXPECT_TRUE(session_in_background());
        EXPECT_EQ(VELTO_STOPPED, data_changestate(1));
        EXPECT_FALSE(session_in_background());
    });
}

TEST(Session, BackgroundKeepsSessionUntilReturn) {
    RUN_SCENARIO({
        apitest::start(root);
        ASSERT_EQ(0, data_changestate(0));
        std::string sid = only_record()["sid"];
        for (int i = 0; i < 2; ++i) {
            os_time_shift(3 * 3600);
            ASSERT_EQ(0, data_screen("s"));
            EXPECT_EQ(sid, only_record()["sid"]);
        }
        os_time_shift(2 * 3600);
        ASSERT_EQ(0, data_changestate(1));
        std::string renewed = only_record()["sid"];  // the "fg" event already carries the new id
        EXPECT_NE(sid, renewed);
        ASSERT_EQ(0, data_screen("s"));
        EXPECT_EQ(renewed, only_record()["sid"]);
    });
}

TEST(Session, ConfiguredTimeouts) {
    struct Case {
        const char* setting;
        long long keep_gap;   // idle seconds that keep the session
        long long renew_gap;  // idle seconds that renew it (0: never within the test)
    } cases[] = {{"60", 60, 61}, {"", 0, 1}, {"-5", 1000000000, 0}, {"1799", 1799, 1800}};
    for (const Case& c : cases) {
        RUN_SCENARIO({
            Velto::Config::obj_->set("SESSION_TMOUT", c.setting);
            Velto::Session s;
            const long long t0 = 1000000;
            std::string first = s.GetSID(t0);
            EXPECT_EQ(first, s.GetSID(t0 + c.keep_gap)) << c.setting;
            if (c.renew_gap > 0) {
                EXPECT_NE(first, s.GetSID(t0 + c.keep_gap + c.renew_gap)) << c.setting;
            }
        });
    }
}

}  // namespace

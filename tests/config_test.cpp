// Tests of the settings store: typed reads, switches, the counter, the built-in defaults and the
// configuration endpoint seam.
#include "Config.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>

using Velto::Config;

namespace {

class ConfigStore : public ::testing::Test {
  protected:
    void SetUp() override { conf_.init_mutex(); }
    Config conf_;
};

}  // namespace

TEST_F(ConfigStore, TypedReads) {
    struct Case {
        const char* value;
        long long want;
    } cases[] = {
        {"", 0},
        {"12abc", 12},
        {"abc", 0},
        {"-7", -7},
        {" 42", 42},
        {"0012", 12},
        {"5000000000", 5000000000LL},
    };
    for (const Case& c : cases) {
        conf_.set("K", c.value);
        EXPECT_EQ(c.want, conf_.get_int("K")) << "value: " << c.value;
    }
    EXPECT_EQ(0, conf_.get_int("ABSENT"));
    EXPECT_EQ("", conf_.get_str("ABSENT"));
    EXPECT_FALSE(conf_.has("ABSENT"));  // reading does not create the key
}

TEST_F(ConfigStore, WritesAndEmptyKey) {
    conf_.set("", "x");
    conf_.set("", 5);
    EXPECT_TRUE(conf_.snapshot().empty());
    conf_.set("N", LLONG_MIN);
    EXPECT_EQ("-9223372036854775808", conf_.get_str("N"));
    EXPECT_EQ(LLONG_MIN, conf_.get_int("N"));
    conf_.set("S", " Mixed ");
    EXPECT_EQ(" Mixed ", conf_.get_str("S"));  // stored as given
    conf_.set("E", "");
    EXPECT_TRUE(conf_.has("E"));
}

TEST_F(ConfigStore, Switches) {
    struct Case {
        const char* value;
        bool want;
    } cases[] = {{"on", true},   {"On", true}, {"ON", true},  {"1", false},
                 {"YES", false}, {"", false},  {" ON", false}};
    for (const Case& c : cases) {
        conf_.set("SW", c.value);
        EXPECT_EQ(c.want, conf_.on("SW")) << "value: " << c.value;
    }
    EXPECT_FALSE(conf_.on("ABSENT"));
}

TEST_F(ConfigStore, Counter) {
    EXPECT_EQ(0, conf_.ins("LOGERR_NUM"));
    EXPECT_FALSE(conf_.has("LOGERR_NUM"));
    conf_.set("LOGERR_NUM", 41);
    EXPECT_EQ(42, conf_.ins("LOGERR_NUM"));
    EXPECT_EQ("42", conf_.get_str("LOGERR_NUM"));
    conf_.set("LOGERR_NUM", "");
    EXPECT_EQ(1, conf_.ins("LOGERR_NUM"));
}

TEST_F(ConfigStore, DefaultsOverwriteButKeepOtherKeys) {
    conf_.set("ROOT_DIR", "/r/");
    conf_.set("TID", "T1");
    conf_.set("data_event", "OFF");
    conf_.set("SEND_GAP", "5");
    conf_.set("DATA_RANGE", "event");
    EXPECT_EQ(0, conf_.load_default());

    const Velto::StrMap want = {
        {"CONF_UPD_TIME", "0"},
        {"CONF_UPD_GAP", "24"},
        {"COLLECT_ON", "ON"},
        {"COLLECT_WAY", "NOREAL"},
        {"SEND_ENDPOINTS", "ON"},
        {"SEND_BEGINPOINTS", "ON"},
        {"SEND_GAP", "120"},
        {"SEND_NUM", "200"},
        {"SEND_SIZE", "200"},
        {"MAX_RESV_DAY", "7"},
        {"MAX_FILE_SIZE", "2000"},
        {"MAX_LOG_SIZE", "4000"},
        {"LOGERR_SEND_LIM", "50"},
        {"LOGERR_NUM", "0"},
        {"SEND_LOG_ON", "OFF"},
        {"SEND_CUR_CONF", "OFF"},
        {"ZIP_DATA", "ON"},
        {"CON_TIMEOUT", "3000"},
        {"DATA_RANGE", ""},
        {"LAST_SEND", "0"},
        {"CONF_URL", Velto::default_conf_url()},
        {"ENABLE_HTTPS", "ON"},
        {"SESSION_TMOUT", "1800"},
        {"ROOT_DIR", "/r/"},
        {"TID", "T1"},
        {"data_event", "OFF"},
    };
    EXPECT_EQ(want, conf_.snapshot());
    EXPECT_EQ(std::string("https://") + VELTO_COLLECT_HOST, conf_.get_str("CONF_URL"));
}

TEST(ConfigEndpoint, SeamAndRestore) {
    const std::string built_in = std::string("https://") + VELTO_COLLECT_HOST + "/v1/conf";
    EXPECT_EQ(built_in, Velto::conf_endpoint());
    Velto::set_conf_endpoint_host("127.0.0.1:43210");
    EXPECT_EQ("https://127.0.0.1:43210/v1/conf", Velto::conf_endpoint());
    Velto::set_conf_endpoint_host("");
    EXPECT_EQ(built_in, Velto::conf_endpoint());
}

// The host's threads and the background thread use the store at once; each access is whole.
TEST_F(ConfigStore, ConcurrentAccess) {
    conf_.load_default();
    auto writer = [this](const char* key) {
        for (int i = 0; i < 2000; ++i) {
            conf_.set(key, i);
            conf_.ins("LOGERR_NUM");
            (void)conf_.on("ZIP_DATA");
        }
    };
    std::thread a(writer, "A"), b(writer, "B");
    a.join();
    b.join();
    EXPECT_EQ(1999, conf_.get_int("A"));
    EXPECT_EQ(1999, conf_.get_int("B"));
    EXPECT_GT(conf_.get_int("LOGERR_NUM"), 0);  // increments may be lost, never torn
}

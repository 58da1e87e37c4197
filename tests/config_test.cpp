// Tests of the settings store: typed reads, switches, the counter, the built-in defaults and the
// configuration endpoint seam.
#include "Config.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

using Velto::Config;

TEST(ConfigStore, ReadsWritesSwitchesAndCounter) {
    Config conf;
    conf.init_mutex();
    const std::pair<const char*, long long> ints[] = {
        {"", 0}, {"12abc", 12}, {"abc", 0}, {"0012", 12}, {"5000000000", 5000000000LL}};
    for (const auto& c : ints) {
        conf.set("K", c.first);
        EXPECT_EQ(c.second, conf.get_int("K")) << c.first;
    }
    EXPECT_EQ(0, conf.get_int("ABSENT"));
    EXPECT_EQ("", conf.get_str("ABSENT"));
    EXPECT_FALSE(conf.on("ABSENT"));
    EXPECT_FALSE(conf.has("ABSENT"));  // reading does not create the key
    conf.set("", "x");
    conf.set("", 5);
    EXPECT_EQ(1u, conf.snapshot().size());
    conf.set("N", LLONG_MIN);
    EXPECT_EQ("-9223372036854775808", conf.get_str("N"));

    const std::pair<const char*, bool> switches[] = {{"on", true}, {"On", true},   {"ON", true},
                                                     {"1", false}, {"YES", false}, {" ON", false}};
    for (const auto& c : switches) {
        conf.set("SW", c.first);
        EXPECT_EQ(c.second, conf.on("SW")) << c.first;
    }

    EXPECT_EQ(0, conf.ins("LOGERR_NUM"));
    EXPECT_FALSE(conf.has("LOGERR_NUM"));
    conf.set("LOGERR_NUM", 41);
    EXPECT_EQ(42, conf.ins("LOGERR_NUM"));
    EXPECT_EQ("42", conf.get_str("LOGERR_NUM"));
}

TEST(ConfigStore, DefaultsOverwriteButKeepOtherKeys) {
    Config conf;
    conf.init_mutex();
    for (const char* key : {"ROOT_DIR", "TID", "data_event", "SEND_GAP", "DATA_RANGE"}) conf.set(key, "x");
    EXPECT_EQ(0, conf.load_default());
    Velto::StrMap want = {{"CONF_UPD_TIME", "0"},    {"CONF_UPD_GAP", "24"},    {"COLLECT_ON", "ON"},
                          {"COLLECT_WAY", "NOREAL"}, {"SEND_ENDPOINTS", "ON"},  {"SEND_BEGINPOINTS", "ON"},
                          {"SEND_GAP", "120"},       {"SEND_NUM", "200"},       {"SEND_SIZE", "200"},
                          {"MAX_RESV_DAY", "7"},     {"MAX_FILE_SIZE", "2000"}, {"MAX_LOG_SIZE", "4000"},
                          {"LOGERR_SEND_LIM", "50"}, {"LOGERR_NUM", "0"},       {"SEND_LOG_ON", "OFF"},
                          {"SEND_CUR_CONF", "OFF"},  {"ZIP_DATA", "ON"},        {"CON_TIMEOUT", "3000"},
                          {"DATA_RANGE", ""},        {"LAST_SEND", "0"},        {"ENABLE_HTTPS", "ON"},
                          {"SESSION_TMOUT", "1800"}, {"ROOT_DIR", "x"},         {"TID", "x"},
                          {"data_event", "x"}};
    want["CONF_URL"] = std::string("https://") + VELTO_COLLECT_HOST;
    EXPECT_EQ(want, conf.snapshot());
}

TEST(ConfigEndpoint, BuiltInUnlessATestAimsIt) {
    Velto::set_conf_endpoint_host("127.0.0.1:43210");
    EXPECT_EQ("https://127.0.0.1:43210/v1/conf", Velto::conf_endpoint());
    Velto::set_conf_endpoint_host("");
    EXPECT_EQ(std::string("https://") + VELTO_COLLECT_HOST + "/v1/conf", Velto::conf_endpoint());
}

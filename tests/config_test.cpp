// Tests of the settings store: typed reads, switches, the counter, the built-in defaults and the
// configuration endpoint taken from the environment.
#include "Config.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

using Velto::Config;

// Integers read as far as they go, from a leading run of digits.
TEST(ConfigStore, IntegerReads) {
    Config conf;
    conf.init_mutex();
    const std::pair<const char*, long long> ints[] = {
        {"", 0}, {"12abc", 12}, {"abc", 0}, {"0012", 12}, {"5000000000", 5000000000LL}};
    for (const auto& c : ints) {
        conf.set("K", c.first);
        EXPECT_EQ(c.second, conf.get_int("K")) << c.first;
    }
    EXPECT_EQ(0, conf.get_int("ABSENT"));
    EXPECT_FALSE(conf.has("ABSENT"));  // reading does not create the key
}

// A switch is on only for "on" in any case, nothing else.
TEST(ConfigStore, SwitchIsOnOnlyForOn) {
    Config conf;
    conf.init_mutex();
    const std::pair<const char*, bool> switches[] = {{"on", true}, {"On", true},   {"ON", true},
                                                     {"1", false}, {"YES", false}, {" ON", false}};
    for (const auto& c : switches) {
        conf.set("SW", c.first);
        EXPECT_EQ(c.second, conf.on("SW")) << c.first;
    }
    EXPECT_FALSE(conf.on("ABSENT"));
}

// The error counter counts only once it is set.
TEST(ConfigStore, CounterCountsOnlyOnceSet) {
    Config conf;
    conf.init_mutex();
    EXPECT_EQ(0, conf.ins("LOGERR_NUM"));
    EXPECT_FALSE(conf.has("LOGERR_NUM"));
    conf.set("LOGERR_NUM", 41);
    EXPECT_EQ(42, conf.ins("LOGERR_NUM"));
    EXPECT_EQ("42", conf.get_str("LOGERR_NUM"));
}

// The defaults replace only their own keys, and each passes the rules a file or server value must.
TEST(ConfigStore, DefaultsKeepOtherKeysAndPassTheirOwnRules) {
    Config conf;
    conf.init_mutex();
    for (const char* key : {"ROOT_DIR", "TID", "data_event", "SEND_GAP"}) conf.set(key, "x");
    EXPECT_EQ(0, conf.load_default());
    for (const char* key : {"ROOT_DIR", "TID", "data_event"}) EXPECT_EQ("x", conf.get_str(key)) << key;
    EXPECT_NE("x", conf.get_str("SEND_GAP"));
    const Velto::StrMap defaults = conf.snapshot();
    const std::string text = conf.save_conf(false);  // as the file would hold them
    for (const auto& kv : defaults) {
        if (!kv.second.empty() && kv.second != "x") conf.set(kv.first, "junk");
    }
    ASSERT_TRUE(conf.ana_conf(text));
    EXPECT_EQ(defaults, conf.snapshot());
}

// VELTO_COLLECT_HOST replaces the built-in host only when it is a host with an optional port.
TEST(ConfigEndpoint, EnvironmentHostOnlyWhenWellFormed) {
    const std::string built_in = std::string("https://") + VELTO_COLLECT_HOST + "/v1/conf";
    const std::pair<const char*, bool> cases[] = {
        {"127.0.0.1:8443", true}, {"collect.example.com", true},
        {"h:65535", true},        {"", false},
        {"a b", false},           {"h:0", false},
        {"h:65536", false},       {"h:", false},
        {":80", false},           {"h/x", false},
        {"h:80x", false},
    };
    for (const auto& c : cases) {
        setenv("VELTO_COLLECT_HOST", c.first, 1);
        Velto::read_collect_host_env();
        EXPECT_EQ(c.second ? "https://" + std::string(c.first) + "/v1/conf" : built_in,
                  Velto::conf_endpoint())
            << c.first;
        Velto::set_conf_endpoint_host("");
    }
    unsetenv("VELTO_COLLECT_HOST");
}

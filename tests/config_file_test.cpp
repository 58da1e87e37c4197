// Tests of the settings store (typed reads, switches, the counter, the built-in defaults, the
// endpoint taken from the environment), of the configuration file "sdk.cf" and of the validation of
// configuration texts: the round trip through the file, the rules per key, the record-kind switches,
// init_conf's paths that need no server (the fetch meets a closed loopback port). Arbitrary files
// and texts are the config_file fuzz target's part.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "Result.h"
#include "config_fixture.h"

using Velto::Config;
using Velto::StrMap;
using Velto::Util::fdecode;
using Velto::Util::fencode;

namespace {

using Items = std::vector<std::pair<std::string, std::string>>;

// A configuration text of the given items, padded with unknown keys to the 10 items it needs.
std::string conf_text(Items items) {
    for (int pad = 0; items.size() < 10; ++pad) items.emplace_back("x_pad" + std::to_string(pad), "v");
    std::string json = "{";
    for (const auto& item : items)
        json += (json.size() > 1 ? ",\"" : "\"") + item.first + "\":\"" + item.second + "\"";
    return json + "}";
}

using ConfFile = conftest::ConfFixture;
using ConfigStore = conftest::ConfFixture;

}  // namespace

TEST_F(ConfFile, SaveAndLoadRoundTrip) {
    conf_.load_default();
    conf_.set("SEND_GAP", 60);
    conf_.set("CONF_UPD_TIME", Velto::os_time());
    conf_.set("TID", "T1");
    conf_.set("data_event", "OFF");
    const std::string text = conf_.save_conf(true);

    const std::string token = vtest::read_file(cf_path());
    EXPECT_EQ(std::string::npos, token.find_first_of(" \t\r\n"));
    EXPECT_EQ(text, fdecode(token));
    StrMap want = conf_.snapshot();
    for (const char* transient : {"ROOT_DIR", "TID", "data_event"}) want.erase(transient);
    EXPECT_EQ(Velto::Util::to_json(want), text);  // sorted, DATA_RANGE left out while empty
    EXPECT_EQ(std::string::npos, text.find("DATA_RANGE"));

    Config fresh;
    fresh.init_mutex();
    fresh.set("ROOT_DIR", root());
    EXPECT_EQ(0, fresh.init_conf());
    EXPECT_EQ(text, fresh.save_conf(false));
    EXPECT_FALSE(logged("update conf from svr"));
}

TEST_F(ConfFile, SaveRefusals) {
    vtest::write_file(cf_path(), "keep");
    conf_.set("SEND_GAP", 60);  // far fewer than the 20 saved keys a loaded store holds
    EXPECT_EQ("", conf_.save_conf(true));
    EXPECT_TRUE(logged("lack of conf items, maybe exiting"));

    conf_.load_default();
    EXPECT_FALSE(conf_.save_conf(false).empty());
    EXPECT_EQ("keep", vtest::read_file(cf_path()));  // save_conf(false) never writes

    conf_.set("ROOT_DIR", "");
    EXPECT_EQ("", conf_.save_conf(true));
    EXPECT_TRUE(logged("null conf path, maybe exiting"));

    conf_.set("ROOT_DIR", root() + "missing/");
    EXPECT_FALSE(conf_.save_conf(true).empty());  // the text, though the file cannot be written
    EXPECT_TRUE(logged("to open: " + root() + "missing/sdk.cf, errno: 2"));
}

TEST_F(ConfFile, ValidationRules) {
    struct Case {
        const char* key;
        const char* value;
        const char* want;  // "PRIOR": dropped, the earlier value stays
        Items extra;
    } cases[] = {
        {"ZIP_DATA", "on", "ON", {}},
        {"ZIP_DATA", "yes", "PRIOR", {}},
        {"zip_data", "Off", "OFF", {}},
        {"SEND_GAP", "0", "PRIOR", {}},
        {"SEND_GAP", "10080", "PRIOR", {}},
        {"SEND_GAP", "10079", "10079", {}},
        {"SEND_GAP", "0012", "12", {}},
        {"SEND_GAP", "abc", "PRIOR", {}},
        {"SESSION_TMOUT", "29", "PRIOR", {}},
        {"SESSION_TMOUT", "30", "30", {}},
        {"CONF_UPD_GAP", "720", "PRIOR", {}},
        {"MAX_RESV_DAY", "0", "0", {}},
        {"CON_TIMEOUT", "4294967297", "PRIOR", {}},  // must not wrap into range
        {"CONF_UPD_TIME", "-1", "PRIOR", {}},
        {"CONF_UPD_TIME", "99999999999", "99999999999", {}},
        {"LAST_SEND", "-5", "PRIOR", {}},
        {"COLLECT_WAY", "real", "REAL", {}},
        {"COLLECT_WAY", "fast", "PRIOR", {}},
        {"TID", "ab-c", "AB-C", {}},
        {"CONF_URL", "Collect.Example.COM/x", "https://collect.example.com/x", {}},
        {"CONF_URL", "Collect.Example.COM", "http://collect.example.com", {{"ENABLE_HTTPS", "off"}}},
        {"CONF_URL", "HTTP://A.B", "http://a.b", {{"ENABLE_HTTPS", "off"}}},
    };
    for (const Case& c : cases) {
        Config conf;
        conf.init_mutex();
        conf.load_default();
        std::string key = c.key;
        Velto::Util::upper(key);
        conf.set(key, "PRIOR");
        Items items = c.extra;
        items.emplace_back(c.key, c.value);
        ASSERT_TRUE(conf.ana_conf(conf_text(items))) << c.key << "=" << c.value;
        EXPECT_EQ(c.want, conf.get_str(key)) << c.key << "=" << c.value;
    }
    EXPECT_TRUE(logged("upexpect conf: X_PAD0:V"));
}

TEST_F(ConfFile, DataRangeSwitchesKindsOffForGood) {
    ASSERT_TRUE(conf_.ana_conf(conf_text({{"data_range", "Data_Event&&data_count&"}})));
    EXPECT_EQ("data_event&&data_count&", conf_.get_str("DATA_RANGE"));
    EXPECT_EQ("OFF", conf_.get_str("data_event"));
    EXPECT_EQ("OFF", conf_.get_str("data_count"));
    for (const char* kind : {"data_screen", "data_err_trace", "data_experience"})
        EXPECT_FALSE(conf_.has(kind));

    ASSERT_TRUE(conf_.ana_conf(conf_text({{"DATA_RANGE", "data_screen"}})));
    EXPECT_EQ("OFF", conf_.get_str("data_event"));  // never switched back on
    EXPECT_EQ("OFF", conf_.get_str("data_screen"));
}

TEST_F(ConfFile, InitPathsWithoutServer) {
    // Missing file: created empty, and the fetch (which finds no server) is stamped and reported.
    EXPECT_EQ(Velto::RES_SVR_REJECT, conf_.init_conf());
    EXPECT_EQ(0, vtest::file_size(cf_path()));
    EXPECT_NEAR(Velto::os_time(), conf_.get_int("CONF_UPD_TIME"), 5);
    EXPECT_TRUE(logged("update conf from svr"));
    EXPECT_TRUE(logged("svr ret: 205"));

    // A token that is not whole cipher blocks is an exception; the defaults stay.
    vtest::write_file(cf_path(), "QUJD");
    EXPECT_EQ(VELTO_EXCEPTION, conf_.init_conf());
    EXPECT_TRUE(logged("init_conf exception"));
    EXPECT_EQ("120", conf_.get_str("SEND_GAP"));

    // A token too long to be ours is not decoded (it would load: fresh and complete).
    Config big;
    big.init_mutex();
    big.load_default();
    big.set("CONF_UPD_TIME", Velto::os_time());
    big.set("CONF_URL", std::string(800 * 1024, 'u'));
    vtest::write_file(cf_path(), fencode(big.save_conf(false)));
    ASSERT_GT(vtest::file_size(cf_path()), 1 << 20);
    EXPECT_EQ(Velto::RES_SVR_REJECT, conf_.init_conf());

    conf_.set("ROOT_DIR", root() + "missing/");
    EXPECT_EQ(Velto::RES_FILE_OPEN, conf_.init_conf());
    EXPECT_TRUE(logged("to open: " + root() + "missing/sdk.cf, errno: 2"));
}

// Integers read as far as they go, from a leading run of digits; a switch is on only for "on" in any
// case; the error counter counts only once it is set. Reading does not create a key.
TEST_F(ConfigStore, TypedReadsSwitchesAndCounter) {
    const std::pair<const char*, long long> ints[] = {
        {"", 0}, {"12abc", 12}, {"abc", 0}, {"0012", 12}, {"5000000000", 5000000000LL}};
    for (const auto& c : ints) {
        conf_.set("K", c.first);
        EXPECT_EQ(c.second, conf_.get_int("K")) << c.first;
    }
    const std::pair<const char*, bool> switches[] = {{"on", true}, {"On", true},   {"ON", true},
                                                     {"1", false}, {"YES", false}, {" ON", false}};
    for (const auto& c : switches) {
        conf_.set("SW", c.first);
        EXPECT_EQ(c.second, conf_.on("SW")) << c.first;
    }
    EXPECT_EQ(0, conf_.get_int("ABSENT"));
    EXPECT_FALSE(conf_.on("ABSENT"));
    EXPECT_EQ(0, conf_.ins("LOGERR_NUM"));
    EXPECT_FALSE(conf_.has("ABSENT") || conf_.has("LOGERR_NUM"));
    conf_.set("LOGERR_NUM", 41);
    EXPECT_EQ(42, conf_.ins("LOGERR_NUM"));
    EXPECT_EQ("42", conf_.get_str("LOGERR_NUM"));
}

// The defaults replace only their own keys, and each passes the rules a file or server value must.
TEST_F(ConfigStore, DefaultsKeepOtherKeysAndPassTheirOwnRules) {
    for (const char* key : {"ROOT_DIR", "TID", "data_event", "SEND_GAP"}) conf_.set(key, "x");
    EXPECT_EQ(0, conf_.load_default());
    for (const char* key : {"ROOT_DIR", "TID", "data_event"}) EXPECT_EQ("x", conf_.get_str(key)) << key;
    EXPECT_NE("x", conf_.get_str("SEND_GAP"));
    const Velto::StrMap defaults = conf_.snapshot();
    const std::string text = conf_.save_conf(false);  // as the file would hold them
    for (const auto& kv : defaults) {
        if (!kv.second.empty() && kv.second != "x") conf_.set(kv.first, "junk");
    }
    ASSERT_TRUE(conf_.ana_conf(text));
    EXPECT_EQ(defaults, conf_.snapshot());
}

// VELTO_COLLECT_HOST replaces the built-in host only when it is a host with an optional port.
TEST(ConfigEndpoint, EnvironmentHostOnlyWhenWellFormed) {
    const std::string built_in = std::string("https://") + VELTO_COLLECT_HOST + "/v1/conf";
    const std::string hosts[] = {
        "127.0.0.1:8443", "collect.example.com", "h:65535", "", "a b", "h:0", "h:65536", "h:", ":80", "h/x",
        "h:80x"};
    for (size_t i = 0; i < std::size(hosts); ++i) {  // the first three are well-formed
        setenv("VELTO_COLLECT_HOST", hosts[i].c_str(), 1);
        Velto::read_collect_host_env();
        EXPECT_EQ(i < 3 ? "https://" + hosts[i] + "/v1/conf" : built_in, Velto::conf_endpoint()) << hosts[i];
        Velto::set_conf_endpoint_host("");
    }
    unsetenv("VELTO_COLLECT_HOST");
}

// Tests of the configuration request against a loopback HTTPS collector: the request body field by
// field, the judging of replies, the refresh decision of init_conf and a server that does not answer.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "Result.h"
#include "config_fixture.h"
#include "tls_server.h"

using Velto::Config;

namespace {

// A "conf" member of exactly n items, SEND_GAP first.
std::string conf_items(int n) {
    static const char* const kItems[] = {
        "\"SEND_GAP\":\"60\"",       "\"ZIP_DATA\":\"off\"",   "\"SEND_NUM\":\"50\"",
        "\"SEND_SIZE\":\"100\"",     "\"MAX_RESV_DAY\":\"3\"", "\"COLLECT_WAY\":\"real\"",
        "\"CON_TIMEOUT\":\"2000\"",  "\"SEND_LOG_ON\":\"on\"", "\"LOGERR_SEND_LIM\":\"9\"",
        "\"SESSION_TMOUT\":\"600\"",
    };
    std::string out = "{";
    for (int i = 0; i < n; ++i) out += std::string(i ? "," : "") + kItems[i];
    return out + "}";
}

std::string reply(const std::string& status, int items) {
    return "{\"status\":" + status + ",\"conf\":" + conf_items(items) + "}";
}

class ConfFetch : public conftest::ConfFixture {
  protected:
    void SetUp() override {
        ConfFixture::SetUp();
        ASSERT_TRUE(server_.ok());
        Velto::set_conf_endpoint_host(server_.host_port());
        conf_.load_default();
    }
    void shift_clock(long long seconds) {
        Velto::os_time_shift(seconds);
        shifted_ += seconds;
    }
    // Writes "sdk.cf" holding the defaults, last fetched at `fetched_at`.
    void write_conf_file(long long fetched_at) {
        Config source;
        source.init_mutex();
        source.load_default();
        source.set("ROOT_DIR", root());
        source.set("CONF_UPD_TIME", fetched_at);
        ASSERT_FALSE(source.save_conf(true).empty());
    }
    vcollect::TlsServer server_;
};

}  // namespace

TEST_F(ConfFetch, RequestBodyFieldByField) {
    server_.set_reply("/v1/conf", reply("0", 10));
    conf_.set("CONF_URL", "http://127.0.0.1:1");  // the uploads' server never moves the fetch
    conf_.set("ENABLE_HTTPS", "OFF");
    std::string conf;
    ASSERT_EQ(0, conf_.get_conf_frm_svr(conf));
    EXPECT_EQ(conf_items(10).substr(1, conf_items(10).size() - 2), conf);

    auto requests = server_.requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("POST", requests[0].method);
    EXPECT_EQ("/v1/conf", requests[0].path);
    EXPECT_EQ("application/x-www-form-urlencoded", requests[0].header("Content-Type"));
    EXPECT_EQ(
        "uid=u+1&pid=42&client_sign=%7Bab-cd%7D&pver=2.0%26b&tid=t%2F1&brand=Brand+X&sdkver=1.1.1.1113"
        "&plang=en&osname=mac&osver=10.15&installtm=1600000000",
        requests[0].body);

    // Missing fields go out empty and are not created in the base information.
    Velto::StrMap base;
    Velto::g_base_info.copy(base);
    base.erase("uid");
    base.erase("tinstall");
    base["extra1"] = base["extra2"] = "x";
    Velto::g_base_info.clear();
    for (const auto& kv : base) Velto::g_base_info.set(kv.first, kv.second);
    ASSERT_EQ(0, conf_.get_conf_frm_svr(conf));
    ASSERT_TRUE(server_.wait_for_requests(2, 5000));
    const std::string body = server_.requests()[1].body;
    EXPECT_EQ(0u, body.find("uid=&pid=42&"));
    EXPECT_EQ(body.size() - 11, body.find("&installtm="));
    EXPECT_EQ(base.size(), Velto::g_base_info.count());
}

// A fresh file is kept, then fetched again once the period has passed. A fresh file fetched from
// another collection host is fetched afresh from the current one, and the uploads never go to the
// other host's CONF_URL, even when the current host does not answer.
TEST_F(ConfFetch, InitConfRefreshesWhenDueOrForANewCollectionHost) {
    server_.set_reply("/v1/conf", reply("0", 10));
    write_conf_file(Velto::os_time());
    EXPECT_EQ(0, conf_.init_conf());
    EXPECT_TRUE(server_.requests().empty());  // fresh file: no request

    shift_clock(24 * 3600 + 60);  // the default 24-hour period has passed
    EXPECT_EQ(0, conf_.init_conf());
    EXPECT_EQ(1u, server_.requests().size());
    EXPECT_EQ("60", conf_.get_str("SEND_GAP"));
    EXPECT_NE(std::string::npos,
              Velto::Util::fdecode(vtest::read_file(cf_path())).find("\"SEND_GAP\":\"60\""));
    EXPECT_NEAR(Velto::os_time(), conf_.get_int("CONF_UPD_TIME"), 5);
    EXPECT_TRUE(logged("update conf from svr end"));
    EXPECT_EQ(server_.host_port() + "\n", vtest::read_file(dir_.file("sdk.cf.host")));
    EXPECT_EQ(0, conf_.init_conf());
    EXPECT_EQ(1u, server_.requests().size());  // fetched from this host: still fresh

    vtest::write_file(dir_.file("sdk.cf.host"), "old.example:443\n");
    EXPECT_EQ(0, conf_.init_conf());
    EXPECT_EQ(2u, server_.requests().size());
    EXPECT_EQ(server_.host_port() + "\n", vtest::read_file(dir_.file("sdk.cf.host")));

    Velto::set_conf_endpoint_host("127.0.0.1:1");  // a new host where nothing listens
    EXPECT_EQ(Velto::RES_SVR_REJECT, conf_.init_conf());
    EXPECT_EQ("https://127.0.0.1:1", conf_.get_str("CONF_URL"));
}

TEST_F(ConfFetch, InitConfFailures) {
    const std::tuple<std::string, int, const char*> cases[] = {
        // reply, result, log line
        {reply("1", 10), Velto::RES_SVR_REJECT, "get_conf_frm_svr"},
        {reply("\"0\"", 10), Velto::RES_SVR_REJECT,
         "get_conf_frm_svr"},                             // the status text must be 0, not "0"
        {"", Velto::RES_SVR_REJECT, "get_conf_frm_svr"},  // headers only
        {"{\"status\":0,\"conf\":{}}", Velto::RES_SVR_REJECT, "svr ret: 204"},
        {reply("0", 9), Velto::RES_CONF_REJECT, "ana conf2"},
    };
    for (const auto& [body, want, log] : cases) {
        write_conf_file(0);  // stale: fetched long ago
        const std::string before = vtest::read_file(cf_path());
        const size_t log_mark = log_text().size();
        server_.set_reply("/v1/conf", body);
        EXPECT_EQ(want, conf_.init_conf()) << body;
        EXPECT_TRUE(logged(log, log_mark)) << body;
        EXPECT_EQ("120", conf_.get_str("SEND_GAP")) << body;  // nothing of the reply applied
        EXPECT_NEAR(Velto::os_time(), conf_.get_int("CONF_UPD_TIME"), 5) << body;
        EXPECT_EQ(before, vtest::read_file(cf_path())) << body;
    }
}

TEST_F(ConfFetch, SilentServerTimesOut) {
    server_.set_delay_ms(4000);  // answers long after the 2-second transfer limit below
    conf_.set("CON_TIMEOUT", 1000);
    conf_.set("CONF_UPD_TIME", 0);
    std::string conf;
    EXPECT_EQ(Velto::RES_NO_REPLY, conf_.get_conf_frm_svr(conf));
    EXPECT_NEAR(Velto::os_time(), conf_.get_int("CONF_UPD_TIME"), 5);
    EXPECT_TRUE(logged("http_client"));
}

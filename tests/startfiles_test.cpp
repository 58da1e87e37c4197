// Damaged files in the root directory at start-up: a cut-short configuration file, a rewrite journal
// that cannot be trusted, and a message file whose last line was cut short. Each start runs in its
// own process (data_init works once per process); two starts on the same root show what the first
// one left for the next. The records are read back with the library's own reader.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "MsgFile.h"
#include "api_helpers.h"
#include "delivery.h"
#include "tls_server.h"

namespace {

using apitest::give_base_info;
using apitest::stop_and_wait;
using vtest::has;
using vtest::msg_line;

const int kBoundMs = 60000;  // sanitizer builds start slowly

// Runs body in a fresh process on root (a directory of the test, so that it outlives the process).
bool run_on(const std::string& root, const std::function<void(const std::string&)>& body) {
    return vtest::run_scenario([&](const std::string&) { body(root); });
}

// The records the library's reader finds in ROOT/sdk.msg, start records ("init") left out. Called in
// the test process, where no library runs and no root directory is set.
std::vector<std::string> stored_records(const std::string& root) {
    std::fstream file(root + "/sdk.msg", std::ios::in | std::ios::out);
    Velto::MsgFile reader;
    Velto::StrList records;
    long long newest = 0;
    reader.get_msg_list(0, 0, 0, records, newest, nullptr, &file);
    std::vector<std::string> out;
    for (const std::string& r : records)
        if (!has(r, R"("dtype":"init")")) out.push_back(r);
    return out;
}

// The record text an upload carries: one record ("/v1/data") or a batch of them ("/v1/file").
std::string uploaded_text(const vcollect::TlsRequest& request) {
    std::string text;
    if (request.path == "/v1/data") {
        vcollect::decode_form_payload(vcollect::form_value(vcollect::parse_form(request.body), "data"), text);
    } else if (const vcollect::FormPart* file = vcollect::find_part(request.parts, "file")) {
        vcollect::FilePayload batch;
        if (vcollect::decode_file_payload(file->data, batch)) text = batch.data;
    }
    return text;
}

const std::string kA = R"({"category":"a","dtype":"event"})";
const std::string kB = R"({"category":"b","dtype":"event"})";
const std::string kC =
    R"({"category":"c","dtype":"event","label":"long enough to fill several cipher blocks"})";
const std::string kD = R"({"category":"d","dtype":"event"})";

// A journal is restored over "sdk.msg" only when complete and every line is a record; any other is
// set aside and the records of "sdk.msg" stay as they were.
TEST(StartFiles, JournalRestoredOnlyWhenComplete) {
    const long long now = Velto::os_time();
    const std::string msg = msg_line(now, kA) + msg_line(now + 1, kB);
    const std::string journal = msg_line(now, kC) + msg_line(now + 1, kD);
    struct Case {
        const char* what;
        std::string journal;
        bool restored;
    } cases[] = {
        {"complete", journal, true},
        {"torn last line", msg_line(now, kC) + msg_line(now + 1, kD).substr(0, 40), false},
        {"last line feed missing", journal.substr(0, journal.size() - 1), false},
        {"zero-filled", std::string(4096, '\0'), false},
        {"a line that does not decode",
         std::to_string(now) + ",not-a-cipher-text-at-all\n" + msg_line(now, kD), false},
        {"a line that is no record", msg_line(now, kC) + msg_line(now, "plain text, no record"), false},
    };
    // A fresh configuration that uploads nothing: the files stay as the start left them.
    const auto start_and_stop = [](const std::string& root) {
        vtest::write_conf(root, "http://127.0.0.1:1");
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        stop_and_wait();
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        vtest::TempDir dir;
        const std::string root = dir.path();
        vtest::write_file(root + "/sdk.msg", msg);
        vtest::write_file(root + "/sdk.msg.bak", c.journal);
        EXPECT_TRUE(run_on(root, start_and_stop));
        EXPECT_EQ(c.restored ? (std::vector<std::string>{kC, kD}) : (std::vector<std::string>{kA, kB}),
                  stored_records(root));
        EXPECT_LE(vtest::file_size(root + "/sdk.msg.bak"), 0) << "the journal must not be tried again";
    }
}

// A last line cut short (a kill in the middle of an append) is ended before the next record is
// appended, and dropped on reading, also when what is left of it still deciphers.
TEST(StartFiles, TornLastMessageLineEnded) {
    const long long now = Velto::os_time();
    const std::string c_line = msg_line(now, kC);
    const std::string whole_blocks = c_line.substr(0, 11 + 64);  // time, comma, 3 cipher blocks
    ASSERT_EQ('{', Velto::Util::fdecode(whole_blocks.substr(11)).at(0));
    for (const std::string& fragment : {c_line.substr(0, 30), whole_blocks}) {
        SCOPED_TRACE(fragment);
        vtest::TempDir dir;
        const std::string root = dir.path();
        vtest::write_file(root + "/sdk.msg", msg_line(now, kA) + msg_line(now, kB) + fragment);
        // A start that records one event and stops; the start record goes to a loopback collector of
        // the process (made after the fork, like every thread of a scenario).
        EXPECT_TRUE(run_on(root, [](const std::string& root) {
            vcollect::RawServer server;
            vtest::write_conf(root, server.url());
            ASSERT_EQ(0, data_init(root.c_str(), "brand"));
            ASSERT_EQ(0, give_base_info());
            ASSERT_EQ(0, data_event("torn", "after", nullptr, 0));
            stop_and_wait();
        }));
        std::vector<std::string> records = stored_records(root);
        ASSERT_EQ(3u, records.size()) << vtest::read_file(root + "/sdk.msg");
        EXPECT_EQ(kA, records[0]);
        EXPECT_EQ(kB, records[1]);
        EXPECT_TRUE(has(records[2], R"("act":"after")") && has(records[2], R"("category":"torn")"))
            << records[2];
    }
}

// A loopback HTTPS collector of the scenario's process, made the configuration endpoint; it hands
// out a real-time configuration that uploads to itself.
class ConfCollector {
  public:
    ConfCollector() {
        EXPECT_TRUE(server_.ok());
        server_.set_reply(
            "/v1/conf", R"({"status":0,"conf":{"CONF_UPD_GAP":"24","COLLECT_ON":"ON","COLLECT_WAY":"REAL",)"
                        R"("SEND_ENDPOINTS":"OFF","SEND_BEGINPOINTS":"OFF","SEND_GAP":"60","SEND_NUM":"100",)"
                        R"("SEND_SIZE":"100","ZIP_DATA":"ON","CON_TIMEOUT":"3000","CONF_URL":")" +
                            server_.url() + R"("}})");
        setenv("VELTO_COLLECT_HOST", server_.host_port().c_str(), 1);
    }
    // The configuration was fetched; an upload carried a record of category (when not "").
    bool got(const std::string& category = "") const {
        for (const vcollect::TlsRequest& r : server_.requests())
            if (category.empty() ? r.path == "/v1/conf"
                                 : has(uploaded_text(r), R"("category":")" + category + "\""))
                return true;
        return false;
    }

  private:
    vcollect::TlsServer server_;
};

// The configuration file cut short. A token that no longer deciphers ends this run's background loop
// (records refused, nothing fetched) and is set aside as "sdk.cf.bad", so that the next start fetches
// afresh; a token that still deciphers, to too few items, is simply replaced by a fetch.
TEST(StartConf, CutShortConfigurationFile) {
    struct Case {
        const char* what;
        int keep;  // characters of the token kept; negative: that many cut from its end
        bool deciphers;
    } cases[] = {
        {"10 characters", 10, false},
        {"100 characters", 100, false},
        {"7 characters cut", -7, false},
        {"64 characters: 3 whole blocks", 64, true},
        {"128 characters: 6 whole blocks", 128, true},
    };
    const auto refused_start = [](const std::string& root) {
        ConfCollector collector;
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        give_base_info();  // the loop may already have ended
        ASSERT_TRUE(vtest::wait_until([] { return Velto::g_back_run.running() == 0; }, kBoundMs));
        EXPECT_EQ(VELTO_STOPPED, data_event("c", "a", nullptr, 0));
        EXPECT_TRUE(has(vtest::read_file(root + "/sdk.log"), "init_conf exception"));
        EXPECT_FALSE(collector.got()) << "this run keeps its result";
    };
    const auto working_start = [](const std::string& root) {
        ConfCollector collector;
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        ASSERT_EQ(0, give_base_info());
        ASSERT_EQ(0, data_event("fresh", "after", nullptr, 0));
        stop_and_wait();
        EXPECT_TRUE(collector.got() && collector.got("fresh")) << vtest::read_file(root + "/sdk.log");
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        vtest::TempDir dir;
        const std::string root = dir.path();
        vtest::write_conf(root, "http://127.0.0.1:1");
        const std::string token = vtest::read_file(root + "/sdk.cf");
        const std::string cut = token.substr(0, c.keep > 0 ? c.keep : token.size() + c.keep);
        vtest::write_file(root + "/sdk.cf", cut);
        if (c.deciphers) {
            Velto::StrMap items;
            Velto::Util::json2map(Velto::Util::fdecode(cut), items);
            ASSERT_LT(items.size(), 10u);
        } else {
            ASSERT_ANY_THROW(Velto::Util::fdecode(cut));
            EXPECT_TRUE(run_on(root, refused_start));
            EXPECT_EQ(cut, vtest::read_file(root + "/sdk.cf.bad"));
            EXPECT_NE(cut, vtest::read_file(root + "/sdk.cf"));
        }
        EXPECT_TRUE(run_on(root, working_start));
        if (c.deciphers) {
            EXPECT_FALSE(vtest::file_exists(root + "/sdk.cf.bad"));
        }
    }
}

}  // namespace

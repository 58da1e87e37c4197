// Hostile and slow collection servers: every transfer ends by its overall deadline whatever the
// server does, a reply that is not 2xx is a failed upload whatever its body says, and records keep
// reaching the message file while the background loop waits on a server.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <random>
#include <string>
#include <thread>

#include "api_helpers.h"
#include "delivery.h"
#include "transport_fixture.h"
#include "velto.h"

namespace {

using vcollect::RawMode;
using vcollect::RawServer;
using vtest::has;

const int kSlackMs = 2000;  // beyond the deadline: a call still running then is hung
const char kRecord[] = "{\"dtype\":\"event\",\"category\":\"c\"}";
const char k5xx[] =
    "HTTP/1.1 500 Internal Server Error\r\nContent-Type: application/json\r\nContent-Length: 12\r\n"
    "Connection: close\r\n\r\n{\"status\":0}";
// A 200 reply that a client waiting long enough takes as a success: its status-0 body comes last,
// after some hundred bytes of padding.
const std::string kPaddedSuccess =
    "HTTP/1.1 200 OK\r\nContent-Length: 412\r\n\r\n" + std::string(400, ' ') + "{\"status\":0}";

std::string noise() {
    std::mt19937 rng(11);
    std::string bytes(3000, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    return bytes;
}

class Deadline : public transporttest::TransportTest, public ::testing::WithParamInterface<int> {};

// Every server of the table at once, each with a form upload and a file upload. The slow but timely
// ones must succeed (the deadline is not cut short); the hostile ones must fail by the deadline.
TEST_P(Deadline, EveryTransferEndsByItsDeadline) {
    const int timeout = GetParam();
    transporttest::settings().set("CON_TIMEOUT", timeout);
    const long long deadline_ms = std::max(1000, 2 * timeout);

    RawServer silent(RawMode::kSilent), drip(RawMode::kDripFeed, kPaddedSuccess),
        garbage(RawMode::kRawBytes, noise()), error(RawMode::kRawBytes, k5xx), handshake(RawMode::kSilent),
        slow(RawMode::kDelayedReply);
    vcollect::TlsServer slow_tls;
    ASSERT_TRUE(slow_tls.ok());
    drip.set_delay_ms(50);
    const int in_time_ms = static_cast<int>(deadline_ms / 4);
    slow.set_delay_ms(in_time_ms);
    slow_tls.set_delay_ms(in_time_ms);
    const struct {
        const char* what;
        std::string base;
        bool want_ok;
        std::vector<bool> files = {false, true};  // send_file, else send_msg
    } servers[] = {
        {"silent", silent.url(), false},
        {"drip-feeding", drip.url(), false},
        {"garbage", garbage.url(), false},
        {"500 with status 0", error.url(), false},
        {"TLS handshake never completing", "https://127.0.0.1:" + std::to_string(handshake.port()), false},
        {"reply in a quarter of the deadline", slow.url(), true},
        // One request only: the HTTPS collector's server library races with itself on concurrent ones.
        {"TLS reply in a quarter of the deadline", slow_tls.url(), true, {false}},
    };
    struct Call {
        std::string what;
        bool want_ok;
        std::future<std::pair<int, long long>> result;  // the call's result and its milliseconds
    };
    std::vector<Call> calls;
    for (const auto& s : servers) {
        for (bool file : s.files) {
            const std::string url = s.base + (file ? "/v1/file" : "/v1/data");
            calls.push_back({std::string(s.what) + (file ? ", send_file" : ", send_msg"), s.want_ok,
                             std::async(std::launch::async, [url, file] {
                                 const auto start = std::chrono::steady_clock::now();
                                 const Velto::UploadContext ctx = transporttest::upload_context();
                                 const int rc = file ? Velto::send_file(kRecord, url.c_str(), "a.log", ctx)
                                                     : Velto::send_msg(kRecord, url.c_str(), "data", ctx);
                                 return std::make_pair(
                                     rc, (long long)((std::chrono::steady_clock::now() - start) /
                                                     std::chrono::milliseconds(1)));
                             })});
        }
    }
    const auto hung_after =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(deadline_ms + kSlackMs + 500);
    for (Call& c : calls) c.result.wait_until(hung_after);
    // Calls still running are hung; closing their connections lets them return.
    for (RawServer* s : {&silent, &drip, &garbage, &error, &handshake, &slow}) s->stop();
    for (Call& c : calls) {
        if (c.result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << c.what << ": the call kept running after its server closed";
            std::_Exit(1);
        }
        const std::pair<int, long long> r = c.result.get();
        EXPECT_EQ(c.want_ok, r.first == 0) << c.what << ": " << r.first;
        EXPECT_LE(r.second, deadline_ms + kSlackMs) << c.what << " (CON_TIMEOUT " << timeout << ")";
    }
}

INSTANTIATE_TEST_SUITE_P(ConTimeout, Deadline, ::testing::Values(1, 500, 999, 1000, 3000));

// ---------------------------------------------------------------------------------------------
// Records keep reaching "sdk.msg" while the background loop waits on a server that holds its
// connection and never answers.

const int kEvents = 50;

// The events ("category" e0, e1, ...) among the valid lines of "sdk.msg".
size_t events_in(const std::string& path) {
    size_t n = 0;
    for (const std::string& line : vtest::lines_of(vtest::read_file(path))) {
        if (line.size() < 27 || line[10] != ',') continue;
        try {
            const std::string rec = Velto::Util::fdecode(line.substr(11));
            n += rec[0] == '{' && has(rec, "\"category\":\"e");
        } catch (...) {  // a line being written
        }
    }
    return n;
}

// Starts the library on a saved configuration uploading to url, waits until the server holds the
// loop's connection, records the events and expects them in the file while the connection is held.
void record_while_held(const std::string& root, const RawServer& holder, const std::string& url,
                       const Velto::StrMap& changes) {
    ASSERT_TRUE(holder.ok());
    Velto::StrMap conf = {{"CON_TIMEOUT", "10000"}};
    for (const auto& kv : changes) conf[kv.first] = kv.second;
    vtest::write_conf(root, url, conf);
    ASSERT_EQ(0, data_init(root.c_str(), "brand"));
    ASSERT_EQ(0, apitest::give_base_info());
    ASSERT_TRUE(vtest::wait_until([&] { return holder.open_connections() > 0; }, 20000));
    for (int i = 0; i < kEvents; ++i)
        ASSERT_EQ(0, data_event(("e" + std::to_string(i)).c_str(), "act", nullptr, 0));
    EXPECT_TRUE(vtest::wait_until([&] { return events_in(root + "/sdk.msg") == kEvents; }, 3000))
        << events_in(root + "/sdk.msg") << " events in the file";
    EXPECT_EQ(1u, holder.connections());
    EXPECT_EQ(1u, holder.open_connections());
}

TEST(WaitingLoop, RecordsReachTheFileDuringTheStartUpUpload) {
    RUN_SCENARIO({
        RawServer silent(RawMode::kSilent);
        const long long now = Velto::os_time();
        vtest::write_file(root + "/MSG_PRE_{a}" + Velto::Util::ltoa(now), vtest::msg_line(now, kRecord));
        record_while_held(root, silent, silent.url(), {{"SEND_BEGINPOINTS", "ON"}});
        EXPECT_EQ("/v1/file", silent.requests().at(0).path());
    });
}

TEST(WaitingLoop, RecordsReachTheFileDuringTheInitialRecordsAttempts) {
    RUN_SCENARIO({
        RawServer silent(RawMode::kSilent);
        record_while_held(root, silent, silent.url(), {});
        EXPECT_EQ("/v1/data", silent.requests().at(0).path());
    });
}

TEST(WaitingLoop, RecordsReachTheFileDuringTheConfigurationFetch) {
    RUN_SCENARIO({
        RawServer handshake(RawMode::kSilent), collector;
        Velto::set_conf_endpoint_host("127.0.0.1:" + std::to_string(handshake.port()));
        record_while_held(root, handshake, collector.url(), {{"CONF_UPD_TIME", "0"}});
    });
}

}  // namespace

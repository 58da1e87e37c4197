// The user's consent: a refusal given before data_init, after records were queued, while an upload
// is held open by the collector, and kept across a restart. After it no request reaches the loopback
// collector and nothing is left in the root but the marker and the log; consent given again lets new
// records (only those) flow. Each scenario runs in its own process.
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "api_helpers.h"
#include "delivery.h"

namespace {

using apitest::give_base_info;
using apitest::stop_and_wait;
using vcollect::RawMode;
using vcollect::RawServer;

const char kMarker[] = "sdk.declined";

// The files in root but the empty lock files, which other processes on the root may hold (the
// fetch's may have been made before the refusal).
std::set<std::string> files_in(const std::string& root) {
    Velto::StrList names;
    Velto::get_files(root, names);
    std::set<std::string> out(names.begin(), names.end());
    out.erase("sdk.lock");
    out.erase("sdk.net.lock");
    return out;
}

const std::set<std::string> kLeftAfterRefusal = {kMarker, "sdk.log"};

// Records an earlier run left in the message file and in a set-aside batch.
void plant_old_records(const std::string& root) {
    const long long now = Velto::os_time();
    vtest::write_file(root + "/sdk.msg", vtest::msg_line(now, "{\"old\":\"in the file\"}"));
    vtest::write_file(root + "/MSG_PRE_{00000000000000000000000000000001}" + std::to_string(now),
                      vtest::msg_line(now, "{\"old\":\"set aside\"}"));
}

TEST(Consent, RefusedBeforeInitNothingLeavesOrStays) {
    RUN_SCENARIO({
        RawServer server;
        vtest::write_conf(root, server.url(), {{"SEND_BEGINPOINTS", "ON"}, {"SEND_ENDPOINTS", "ON"}});
        plant_old_records(root);
        EXPECT_EQ(VELTO_BAD_ARG, data_consent(2));
        ASSERT_EQ(0, data_consent(0));
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        EXPECT_EQ(0, give_base_info());
        EXPECT_EQ(VELTO_DECLINED, data_event("c", "a", nullptr, 0));
        EXPECT_EQ(VELTO_DECLINED, data_changestate(0));
        stop_and_wait();
        EXPECT_EQ(0u, server.requests().size());
        EXPECT_EQ(kLeftAfterRefusal, files_in(root));
    });
}

TEST(Consent, RefusedAfterRecordsThenGivenAgainOnlyNewRecordsFlow) {
    RUN_SCENARIO({
        RawServer server;
        vtest::write_conf(root, server.url(), {{"SEND_ENDPOINTS", "ON"}});
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        ASSERT_EQ(0, give_base_info());
        ASSERT_EQ(0, data_event("before", "on disk", nullptr, 0));
        ASSERT_TRUE(vtest::wait_until([&] { return vtest::file_size(root + "/sdk.msg") > 0; }, 10000));
        ASSERT_EQ(0, data_event("before", "queued", nullptr, 0));
        ASSERT_TRUE(server.wait_for_requests(1, 10000));  // the initial record's own send

        ASSERT_EQ(0, data_consent(0));
        EXPECT_EQ(kLeftAfterRefusal, files_in(root));
        EXPECT_EQ(VELTO_DECLINED, data_screen("s"));

        ASSERT_EQ(0, data_consent(1));
        EXPECT_FALSE(vtest::file_exists(root + "/" + kMarker));
        EXPECT_EQ(0, data_event("after", "consent", nullptr, 0));
        stop_and_wait();
        const auto uploads = vtest::file_uploads(server);
        ASSERT_EQ(1u, uploads.size());
        EXPECT_TRUE(vtest::has(uploads[0].second, "\"category\":\"after\""));
        EXPECT_FALSE(vtest::has(uploads[0].second, "before"));
        EXPECT_EQ(2u, server.requests().size());
    });
}

TEST(Consent, RefusedWhileAnUploadIsHeldOpen) {
    RUN_SCENARIO({
        RawServer server(RawMode::kSilent);
        vtest::write_conf(root, server.url(),
                          {{"SEND_BEGINPOINTS", "ON"}, {"SEND_ENDPOINTS", "ON"}, {"CON_TIMEOUT", "1500"}});
        plant_old_records(root);
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        ASSERT_EQ(0, give_base_info());
        ASSERT_TRUE(server.wait_for_requests(1, 10000));  // the first batch, never answered
        const size_t seen = server.requests().size();

        ASSERT_EQ(0, data_consent(0));
        EXPECT_EQ(kLeftAfterRefusal, files_in(root));
        stop_and_wait();
        EXPECT_EQ(seen, server.requests().size());
        EXPECT_EQ(kLeftAfterRefusal, files_in(root));
    });
}

TEST(Consent, RefusalKeptAcrossRestart) {
    RUN_SCENARIO({
        pid_t first = fork();
        if (first == 0) {  // the earlier run: declines, then ends
            const bool ok = data_init(root.c_str(), "brand") == 0 && data_consent(0) == 0;
            data_stop();
            _exit(ok ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(first, waitpid(first, &status, 0));
        ASSERT_EQ(0, status);

        RawServer server;
        vtest::write_conf(root, server.url(), {{"SEND_BEGINPOINTS", "ON"}, {"SEND_ENDPOINTS", "ON"}});
        plant_old_records(root);  // as another process on the root might have left them
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        EXPECT_EQ(0, give_base_info());
        EXPECT_EQ(VELTO_DECLINED, data_event("c", "a", nullptr, 0));
        stop_and_wait();
        EXPECT_EQ(0u, server.requests().size());
        EXPECT_EQ(kLeftAfterRefusal, files_in(root));
    });
}

}  // namespace

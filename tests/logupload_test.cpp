// Tests of the log upload: when the live log is due (size and error triggers), the backup of an
// earlier failed upload going first, and what is left on disk after success and failure.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "Log.h"
#include "Util.h"
#include "payload.h"
#include "raw_server.h"
#include "scenario.h"

namespace {

using Velto::Config;
using Velto::Log;

class LogUpload : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("HOME", home_.path().c_str(), 1);
        ASSERT_TRUE(server_.ok());
        Config::obj_->load_default();
        Config::obj_->set("ROOT_DIR", dir_.path() + "/");
        Config::obj_->set("CONF_URL", server_.url());
        for (int i = 0; i < 14; ++i) Velto::g_base_info.set("k" + std::to_string(i), "v");
        Log::obj_->init(file("sdk.log").c_str());
    }
    std::string file(const std::string& name) const { return dir_.file(name); }
    // Starts the live log afresh with one line of text_len bytes of text (29 bytes of head, one LF).
    std::string write_line(size_t text_len) {
        vtest::write_file(file("sdk.log"), "");
        Log::obj_->info() << std::string(text_len, 'x') << "\n";
        return vtest::read_file(file("sdk.log"));
    }
    // The decoded upload payloads, in order; every upload is named "log".
    std::vector<std::string> uploads() const {
        std::vector<std::string> out;
        for (const vcollect::RawRequest& req : server_.requests()) {
            auto parts = vcollect::parse_multipart(req.body, "70db372eb000e2ax");
            const vcollect::FormPart* name = vcollect::find_part(parts, "sdk_log");
            const vcollect::FormPart* payload = vcollect::find_part(parts, "file");
            vcollect::FilePayload decoded;
            EXPECT_TRUE(name && payload && vcollect::decode_file_payload(payload->data, decoded));
            EXPECT_EQ("log", name ? vcollect::field_text(*name) : "");
            out.push_back(decoded.data);
        }
        return out;
    }

    vtest::TempDir home_, dir_;
    vcollect::RawServer server_;
};

}  // namespace

TEST_F(LogUpload, SizeAndErrorTriggers) {
    struct Case {
        const char* max_kib;
        const char* err_limit;
        const char* err_count;
        size_t text_len;
        bool due;
    } cases[] = {
        {"2", "0", "0", 993, false},    {"2", "0", "0", 994, true},     // 1023 and 1024 bytes
        {"4000", "5", "6", 10, true},   {"4000", "5", "5", 10, false},  // above the limit, equal
        {"4000", "0", "99", 10, false},                                 // limit 0: never
    };
    size_t sent = 0;
    for (const Case& c : cases) {
        Config::obj_->set("MAX_LOG_SIZE", c.max_kib);
        Config::obj_->set("LOGERR_SEND_LIM", c.err_limit);
        const std::string text = write_line(c.text_len);
        Config::obj_->set("LOGERR_NUM", c.err_count);
        EXPECT_EQ(0, Log::obj_->send_log()) << c.max_kib << " " << c.err_count;
        if (c.due) ++sent;
        ASSERT_EQ(sent, server_.requests().size()) << c.max_kib << " " << c.err_count;
        if (!c.due) continue;
        const std::string sent = uploads().back();
        EXPECT_EQ(0u, sent.find(text.substr(0, text.size() - 1)));
        EXPECT_EQ(std::string::npos, sent.find('\n'));  // lines run together on purpose
        EXPECT_EQ(std::string::npos, vtest::read_file(file("sdk.log")).find("xxxxxxxxxx"));
        EXPECT_EQ("", vtest::read_file(file("sdk.log.bak")));
        const std::string saved = Velto::Util::fdecode(vtest::read_file(file("sdk.cf")));
        EXPECT_EQ("\"0\"", Velto::Util::json_item(saved, "LOGERR_NUM"));
    }
    // The decision's line is the last one of the log it triggered.
    EXPECT_NE(std::string::npos, uploads()[1].find("snd log lim_size: 2048000, lim_err:5, err:6"));
}

TEST_F(LogUpload, FailedUploadLeavesTheBackupForNextTime) {
    server_.set_reply("{\"status\":1}");
    Config::obj_->set("MAX_LOG_SIZE", "2");
    const std::string text = write_line(1000);
    EXPECT_EQ(-2, Log::obj_->send_log());
    const std::string backup = vtest::read_file(file("sdk.log.bak"));
    EXPECT_EQ(0u, backup.find(text));  // line breaks kept in the backup
    EXPECT_EQ(std::string::npos, vtest::read_file(file("sdk.log")).find(std::string(1000, 'x')));

    EXPECT_EQ(-1, Log::obj_->send_log());  // the backup goes first and fails again
    EXPECT_NE(std::string::npos, vtest::read_file(file("sdk.log")).find("send bak log file"));
    EXPECT_EQ(backup, vtest::read_file(file("sdk.log.bak")));

    server_.set_reply("{\"status\":0}");
    EXPECT_EQ(0, Log::obj_->send_log());
    EXPECT_EQ(backup, uploads().back());
    EXPECT_EQ("", vtest::read_file(file("sdk.log.bak")));
}

TEST_F(LogUpload, BackupOfTenBytesIsNeitherSentNorEmptied) {
    vtest::write_file(file("sdk.log.bak"), "012345678\n");
    EXPECT_EQ(0, Log::obj_->send_log());
    EXPECT_EQ(0u, server_.connections());
    EXPECT_EQ("012345678\n", vtest::read_file(file("sdk.log.bak")));

    vtest::write_file(file("sdk.log.bak"), "0123456789\n");
    EXPECT_EQ(0, Log::obj_->send_log());
    ASSERT_EQ(1u, uploads().size());
    EXPECT_EQ("0123456789\n", uploads()[0]);
    EXPECT_EQ("", vtest::read_file(file("sdk.log.bak")));
}

TEST_F(LogUpload, LinesWrittenDuringTheMoveLandInExactlyOneFile) {
    Config::obj_->set("MAX_LOG_SIZE", "2");
    std::atomic<bool> done{false};
    const int kLines = 2000;
    std::thread writer([&] {
        // One insertion per token: separate insertions may be split by the move, which is accepted.
        for (int i = 0; i < kLines; ++i) Log::obj_->info() << "<" + std::to_string(i) + ">" << LEND;
        done = true;
    });
    for (int round = 0; round < 100000 && !done; ++round) EXPECT_LE(0, Log::obj_->send_log());
    writer.join();

    std::string everything = vtest::read_file(file("sdk.log"));
    for (const std::string& sent : uploads()) everything += sent;
    for (int i = 0; i < kLines; ++i) {
        const std::string token = "<" + std::to_string(i) + ">";
        const size_t at = everything.find(token);
        ASSERT_NE(std::string::npos, at) << token;
        EXPECT_EQ(std::string::npos, everything.find(token, at + 1)) << token;
    }
}

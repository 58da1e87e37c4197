// Tests of the log upload: when the live log is due (size and error triggers), the backup of an
// earlier failed upload going first, and what is left on disk after success and failure.
#include "LogUpload.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "delivery.h"

namespace {

using Velto::Log;

class LogUpload : public vtest::CollectorFixture {
  protected:
    // Starts the live log afresh with one line of text_len bytes of text (29 bytes of head, one LF).
    std::string write_line(size_t text_len) {
        vtest::write_file(file("sdk.log"), "");
        Log::obj_->info() << std::string(text_len, 'x') << "\n";
        return log();
    }
    int send_log() { return Velto::LogUpload(*Log::obj_, conf_, uploader_).send_log(); }
    std::string backup() const { return vtest::read_file(file("sdk.log.bak")); }
    std::string last_upload() const { return vtest::file_uploads(server_).back().second; }
};

}  // namespace

TEST_F(LogUpload, SizeAndErrorTriggers) {
    struct Case {
        const char *max_kib, *err_limit, *err_count;
        size_t text_len;
        bool due;
    } cases[] = {
        {"2", "0", "0", 993, false},    {"2", "0", "0", 994, true},     // 1023 and 1024 bytes
        {"4000", "5", "6", 10, true},   {"4000", "5", "5", 10, false},  // above the limit, equal
        {"4000", "0", "99", 10, false},                                 // limit 0: never
    };
    size_t sent = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.max_kib) + " " + c.err_count);
        conf_.set("MAX_LOG_SIZE", c.max_kib);
        conf_.set("LOGERR_SEND_LIM", c.err_limit);
        const std::string text = write_line(c.text_len);
        conf_.set("LOGERR_NUM", c.err_count);
        EXPECT_EQ(0, send_log());
        sent += c.due;
        ASSERT_EQ(sent, server_.requests().size());
        if (!c.due) continue;
        EXPECT_EQ("log", vtest::file_uploads(server_).back().first);  // the upload name
        const std::string upload = last_upload();
        EXPECT_EQ(0u, upload.find(text.substr(0, text.size() - 1)));
        EXPECT_FALSE(vtest::has(upload, "\n"));  // lines run together on purpose
        EXPECT_FALSE(vtest::has(log(), "xxxxxxxxxx"));
        EXPECT_EQ("", backup());
        const std::string saved = Velto::Util::fdecode(vtest::read_file(file("sdk.cf")));
        EXPECT_EQ("\"0\"", Velto::Util::json_item(saved, "LOGERR_NUM"));
    }
    // The decision's line is the last one of the log it triggered.
    EXPECT_TRUE(
        vtest::has(vtest::file_uploads(server_)[1].second, "snd log lim_size: 2048000, lim_err:5, err:6"));
}

TEST_F(LogUpload, FailedUploadLeavesTheBackupForNextTime) {
    server_.set_reply("{\"status\":1}");
    conf_.set("MAX_LOG_SIZE", "2");
    const std::string text = write_line(1000);
    EXPECT_EQ(-2, send_log());
    const std::string kept = backup();
    EXPECT_EQ(0u, kept.find(text));  // line breaks kept in the backup
    EXPECT_FALSE(vtest::has(log(), std::string(1000, 'x')));

    EXPECT_EQ(-1, send_log());  // the backup goes first and fails again
    EXPECT_TRUE(vtest::has(log(), "send bak log file"));
    EXPECT_EQ(kept, backup());

    server_.set_reply("{\"status\":0}");
    EXPECT_EQ(0, send_log());
    EXPECT_EQ(kept, last_upload());
    EXPECT_EQ("", backup());
}

TEST_F(LogUpload, BackupOfTenBytesIsNeitherSentNorEmptied) {
    vtest::write_file(file("sdk.log.bak"), "012345678\n");
    EXPECT_EQ(0, send_log());
    EXPECT_EQ(0u, server_.connections());
    EXPECT_EQ("012345678\n", backup());

    vtest::write_file(file("sdk.log.bak"), "0123456789\n");
    EXPECT_EQ(0, send_log());
    ASSERT_EQ(1u, server_.requests().size());
    EXPECT_EQ("0123456789\n", last_upload());
    EXPECT_EQ("", backup());
}

TEST_F(LogUpload, LinesWrittenDuringTheMoveLandInExactlyOneFile) {
    conf_.set("MAX_LOG_SIZE", "2");
    std::atomic<bool> done{false};
    const int kLines = 2000;
    std::thread writer([&] {
        // One insertion per token: separate insertions may be split by the move, which is accepted.
        for (int i = 0; i < kLines; ++i) Log::obj_->info() << "<" + std::to_string(i) + ">" << LEND;
        done = true;
    });
    for (int round = 0; round < 100000 && !done; ++round) EXPECT_LE(0, send_log());
    writer.join();

    std::string everything = log();
    for (const auto& sent : vtest::file_uploads(server_)) everything += sent.second;
    for (int i = 0; i < kLines; ++i)
        EXPECT_EQ(1u, vtest::count_of(everything, "<" + std::to_string(i) + ">")) << i;
}

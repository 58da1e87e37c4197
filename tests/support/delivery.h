// Helpers of the delivery and tool tests (backrun, msgfile, logupload, tools): lines and counts of
// texts, message-file lines, a saved configuration that needs no fetch, the uploads a loopback
// collector received, and a fixture of a settings store and log aimed at such a collector.
#ifndef VELTO_TEST_DELIVERY_H
#define VELTO_TEST_DELIVERY_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "Log.h"
#include "OsApi.h"
#include "Uploader.h"
#include "Util.h"
#include "payload.h"
#include "raw_server.h"
#include "scenario.h"

namespace vtest {

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    size_t begin = 0;
    for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        out.push_back(text.substr(begin, end - begin));
    if (begin < text.size()) out.push_back(text.substr(begin));
    return out;
}

inline size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

inline bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// One line of "sdk.msg": "<10-digit time>,<fencode(record)>".
inline std::string msg_line(long long time, const std::string& record) {
    return Velto::Util::ltoa(time) + "," + Velto::Util::fencode(record) + "\n";
}

// A saved configuration, fresh, that uploads to url only when a test lowers a threshold in changes.
inline void write_conf(const std::string& root, const std::string& url, const Velto::StrMap& changes = {}) {
    const std::string now = Velto::Util::ltoa(Velto::os_time());
    Velto::StrMap conf = {
        {"CONF_UPD_TIME", now},    {"CONF_UPD_GAP", "24"},     {"COLLECT_ON", "ON"},
        {"COLLECT_WAY", "NOREAL"}, {"SEND_ENDPOINTS", "OFF"},  {"SEND_BEGINPOINTS", "OFF"},
        {"SEND_GAP", "10079"},     {"SEND_NUM", "99999"},      {"SEND_SIZE", "20479"},
        {"MAX_RESV_DAY", "7"},     {"MAX_FILE_SIZE", "20479"}, {"MAX_LOG_SIZE", "4000"},
        {"LOGERR_SEND_LIM", "0"},  {"LOGERR_NUM", "0"},        {"SEND_LOG_ON", "OFF"},
        {"SEND_CUR_CONF", "OFF"},  {"ZIP_DATA", "ON"},         {"CON_TIMEOUT", "3000"},
        {"LAST_SEND", now},        {"CONF_URL", url},          {"ENABLE_HTTPS", "OFF"},
        {"SESSION_TMOUT", "1800"},
    };
    for (const auto& kv : changes) conf[kv.first] = kv.second;
    write_file(root + "/sdk.cf", Velto::Util::fencode(Velto::Util::to_json(conf)));
}

// (upload name, decoded file) of every "/v1/file" request, in arrival order.
inline std::vector<std::pair<std::string, std::string>> file_uploads(const vcollect::RawServer& server) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const vcollect::RawRequest& req : server.requests()) {
        if (req.path() != "/v1/file") continue;
        auto parts = vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
        const vcollect::FormPart* name = vcollect::find_part(parts, "sdk_log");
        const vcollect::FormPart* file = vcollect::find_part(parts, "file");
        vcollect::FilePayload decoded;
        EXPECT_TRUE(name && file && vcollect::decode_file_payload(file->data, decoded));
        out.emplace_back(name ? vcollect::field_text(*name) : "", decoded.data);
    }
    return out;
}

// A settings store of the test's own on defaults over a fresh root, the process's log in it,
// complete base information of its own and CONF_URL aimed at a loopback collector, so that uploads
// go out at once; the uploader and the message file of a test take these.
class CollectorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server_.ok());
        conf_.init_mutex();
        conf_.load_default();
        conf_.set("ROOT_DIR", dir_.path() + "/");
        conf_.set("CONF_URL", server_.url());
        base_.init_mutex();
        for (int i = 0; i < 14; ++i) base_.set("k" + std::to_string(i), "v");
        Velto::Log::obj_->init(file("sdk.log").c_str());
    }
    std::string file(const std::string& name) const { return dir_.file(name); }
    std::string log() const { return read_file(file("sdk.log")); }

    TempDir dir_;
    vcollect::RawServer server_;
    Velto::Config conf_;
    Velto::BaseInfo base_;
    Velto::Uploader uploader_{&conf_, &base_};
};

}  // namespace vtest

#endif

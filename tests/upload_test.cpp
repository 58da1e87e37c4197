// The uploads: exact wire bytes on the raw-socket path, the same uploads decoded on an HTTPS
// collector, the reply verdicts and the cases that must send nothing.
#include <tuple>

#include "Result.h"
#include "collector_client.h"
#include "transport_fixture.h"

using namespace transporttest;
using namespace vcollect;
using Fields = std::vector<std::pair<std::string, std::string>>;

namespace {

const std::string kRecord = "{\"dtype\":\"event\",\"name\":\"a b&c\",\"val\":\"\xC3\xA9!\"}";
const std::string kLogText = "[2024-01-02 03:04:05] [ERROR] - (12) line one\n[INFO] two & three\n";
const std::string kBoundary = "\r\n--70db372eb000e2ax";

// The four text fields of a file upload named `name`, in order.
Fields text_fields(const std::string& name) {
    return {{"sdk_log", name}, {"proc_name", kProcName}, {"tid", kTid}, {"client_sign", kDid}};
}

// The raw client's multipart body, written out from the upload format.
std::string expected_multipart(const std::string& name, const std::string& payload) {
    std::string body;
    for (const auto& f : text_fields(name))
        body += kBoundary + "\r\nContent-Disposition: form-data; name=\"" + f.first + "\"\r\n\r\n" +
                f.second + "\r\n\r\n";
    return body + kBoundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + payload + kBoundary + "--\r\n";
}

Zipped zipped_if(bool on) {
    return on ? Zipped::kYes : Zipped::kNo;
}

// The upload calls, bounded.
int msg(const std::string& url) {
    return bounded([&] { return Velto::send_msg(kRecord, url.c_str(), "data", upload_context()); });
}
int file(const std::string& text, const std::string& url, const char* name) {
    return bounded([&] { return Velto::send_file(text, url.c_str(), name, upload_context()); });
}
std::string msg_res(const std::string& url) {
    return bounded([&] { return Velto::send_msg_res(kRecord, url.c_str(), "conf", upload_context()); });
}

}  // namespace

TEST_F(TransportTest, SendMsgRawBytes) {
    for (bool zipped : {false, true}) {
        zip(zipped);
        RawServer srv;
        ASSERT_EQ(0, msg(srv.url("/v1/data")));
        const auto req = srv.requests().at(0);
        EXPECT_EQ(raw_head("POST /v1/data", kFormType, long(req.body.size())), req.head);
        const FormFields form = parse_form(req.body);
        ASSERT_EQ(1u, form.size());
        EXPECT_EQ("data", form[0].first);
        if (!zipped) {
            EXPECT_EQ("data=" + Velto::UrlEncode(Velto::Util::fencode(kRecord)), req.body);
        }
        std::string record;
        ASSERT_TRUE(decode_form_payload(form[0].second, record, zipped_if(zipped)));
        EXPECT_EQ(kRecord, record);
    }
}

// The file payload starts with the plain length as 4 big-endian bytes (a 5-byte text: 00 00 00 05).
TEST_F(TransportTest, SendFileRawBytes) {
    const std::tuple<bool, std::string, std::string> cases[] = {
        // zipped, text, length prefix{false, "12345", std::string("\0\0\0\x05", 4)},
        {true, kLogText, std::string("\0\0\0", 3) + char(kLogText.size())},
        {true, std::string(70000, 'x'), std::string("\0\x01\x11\x70", 4)}};
    for (const auto& [zipped, text, length] : cases) {
        zip(zipped);
        RawServer srv;
        ASSERT_EQ(0, file(text, srv.url("/v1/file"), "sdk_x.log"));
        const auto req = srv.requests().at(0);
        EXPECT_EQ(raw_head("POST /v1/file", "Content-Type:multipart/form-data;boundary=70db372eb000e2ax\r\n",
                           long(req.body.size())),
                  req.head);
        const auto parts = parse_multipart(req.body, boundary_of(req.header("Content-Type")));
        const FormPart* file = find_part(parts, "file");
        ASSERT_NE(nullptr, file);
        EXPECT_EQ(expected_multipart("sdk_x.log", file->data), req.body);
        EXPECT_EQ(length, file->data.substr(0, 4));
        if (!zipped) {
            EXPECT_EQ(vtest::client::file_payload(uint32_t(text.size()), text), file->data);
        }
        FilePayload decoded;
        ASSERT_TRUE(decode_file_payload(file->data, decoded, zipped_if(zipped)));
        EXPECT_EQ(text, decoded.data);
    }
}

TEST_F(TransportTest, UploadsOverHttpsDecodeOnTheServer) {
    TlsServer srv;
    ASSERT_TRUE(srv.ok());
    for (bool zipped : {false, true}) {
        zip(zipped);
        ASSERT_EQ(0, msg(srv.url("/v1/data")));
        ASSERT_EQ(0, file(kLogText, srv.url("/v1/file"), "up.log"));
    }
    const auto reqs = srv.requests();
    ASSERT_EQ(4u, reqs.size());
    for (size_t i = 0; i < reqs.size(); i += 2) {
        std::string record;
        ASSERT_TRUE(decode_form_payload(form_value(parse_form(reqs[i].body), "data"), record));
        EXPECT_EQ(kRecord, record);

        const auto& parts = reqs[i + 1].parts;
        ASSERT_EQ(5u, parts.size());
        Fields texts;
        for (size_t k = 0; k < 4; ++k) texts.emplace_back(parts[k].name, parts[k].data);
        EXPECT_EQ(text_fields("up.log"), texts);
        EXPECT_EQ("file", parts[4].name);
        EXPECT_EQ("up.log", parts[4].filename);
        EXPECT_EQ("application/octet-stream", parts[4].content_type);
        FilePayload file;
        ASSERT_TRUE(decode_file_payload(parts[4].data, file));
        EXPECT_EQ(kLogText, file.data);
    }
}

// send_msg succeeds only on "status" exactly 0; send_msg_res returns the raw "data" member.
TEST_F(TransportTest, ReplyVerdicts) {
    struct {
        RawMode mode;
        const char* reply;
        int msg_rc;
        bool logs;  // "http_client"; otherwise no log line at all
        const char* data;
    } cases[] = {
        {RawMode::kReply, "{\"status\":0}", 0, false, ""},
        {RawMode::kReply, "{\"status\":\"0\",\"data\":\"x\"}", Velto::RES_SVR_REJECT, true, "\"x\""},
        {RawMode::kReply, "{\"status\":1,\"data\":{\"a\":\"1\"}}", Velto::RES_SVR_REJECT, true,
         "\"a\":\"1\""},
        {RawMode::kRawBytes, "{}", Velto::RES_SVR_REJECT, false, ""},
    };
    for (const auto& c : cases) {
        RawServer srv(c.mode, c.reply);
        const size_t log_before = log_text().size();
        EXPECT_EQ(c.msg_rc, msg(srv.url())) << c.reply;
        const std::string added = log_text().substr(log_before);
        EXPECT_TRUE(c.logs ? added.find("http_client") != std::string::npos : added.empty())
            << c.reply << added;
        EXPECT_EQ(c.data, msg_res(srv.url()));
    }
    RawServer srv(RawMode::kReply, "{\"status\":2}");
    EXPECT_EQ(Velto::RES_SVR_REJECT, file(kLogText, srv.url(), "a.log"));
    EXPECT_TRUE(logged("http response: HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(logged("{\"status\":2}"));
}

TEST_F(TransportTest, EmptyPayloadSendsNothing) {
    zip(false);
    RawServer srv;
    EXPECT_EQ(-1, Velto::send_msg("", srv.url().c_str(), "data", upload_context()));
    EXPECT_EQ(-1, Velto::send_file("", srv.url().c_str(), "a.log", upload_context()));
    EXPECT_EQ("", Velto::send_msg_res("", srv.url().c_str(), "conf", upload_context()));
    EXPECT_EQ(0u, srv.connections());
}

TEST_F(TransportTest, CapitalHttpsGoesToTheRawClient) {
    TlsServer srv;
    std::string url = srv.url("/v1/data");
    url.replace(0, 5, "HTTPS");
    EXPECT_EQ(Velto::RES_NO_REPLY, msg(url));
    EXPECT_TRUE(logged("err url head: " + url));
    EXPECT_EQ(0u, srv.requests().size());
}

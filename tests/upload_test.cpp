// The uploads: exact wire bytes on the raw-socket path, the same uploads decoded on an HTTPS
// collector, the reply verdicts and the cases that must send nothing.
#include "Util.h"
#include "Zip.h"
#include "transport_fixture.h"

using transporttest::bounded;
using transporttest::TransportTest;
using vcollect::RawMode;
using vcollect::RawServer;
using vcollect::TlsServer;

namespace {

const std::string kRecord = "{\"dtype\":\"event\",\"name\":\"a b&c\",\"val\":\"\xC3\xA9!\"}";
const std::string kLogText = "[2024-01-02 03:04:05] [ERROR] - (12) line one\n[INFO] two & three\n";

std::string be32(uint32_t n) {
    return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
            static_cast<char>(n)};
}

std::string text_part(const std::string& name, const std::string& value) {
    return "\r\n--70db372eb000e2ax\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
           "\r\n\r\n";
}

// The raw client's multipart body, written out from the upload format.
std::string expected_multipart(const std::string& name, const std::string& payload) {
    return text_part("sdk_log", name) + text_part("proc_name", transporttest::kProcName) +
           text_part("tid", transporttest::kTid) + text_part("client_sign", transporttest::kDid) +
           "\r\n--70db372eb000e2ax\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + payload + "\r\n--70db372eb000e2ax--\r\n";
}

std::string expected_head(const std::string& path, const std::string& type, size_t length) {
    return "POST " + path + " HTTP/1.1\r\nhost:127.0.0.1\r\n" +
           "User-Agent:Mozilla/5.0 (compatible; MSIE 9.0; Windows NT 6.1; Trident/5.0)\r\n" + type +
           "Accept:text/html,application/xhtml+xml,*/*\r\nConnection:close\r\nContent-Length:" +
           std::to_string(length) + "\r\n\r\n";
}

std::string sealed(const std::string& data) {
    std::vector<unsigned char> out(data.size() + 32);
    int len = 0;
    Velto::AES_Encode2(reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()),
                       out.data(), len);
    return std::string(reinterpret_cast<const char*>(out.data()), static_cast<size_t>(len));
}

}  // namespace

TEST_F(TransportTest, SendMsgRawBytes) {
    for (bool zipped : {false, true}) {
        zip(zipped);
        RawServer srv;
        ASSERT_EQ(0, bounded([&] { return Velto::send_msg(kRecord, srv.url("/v1/data").c_str(), "data"); }));
        const auto req = srv.requests().at(0);
        EXPECT_EQ(
            expected_head("/v1/data", "Content-Type:application/x-www-form-urlencoded\r\n", req.body.size()),
            req.head);
        const vcollect::FormFields form = vcollect::parse_form(req.body);
        ASSERT_EQ(1u, form.size());
        EXPECT_EQ("data", form[0].first);
        if (!zipped) {
            EXPECT_EQ("data=" + Velto::UrlEncode(Velto::Util::fencode(kRecord)), req.body);
        }
        std::string record;
        ASSERT_TRUE(vcollect::decode_form_payload(form[0].second, record,
                                                  zipped ? vcollect::Zipped::kYes : vcollect::Zipped::kNo));
        EXPECT_EQ(kRecord, record);
    }
}

TEST_F(TransportTest, SendFileRawBytes) {
    for (bool zipped : {false, true}) {
        zip(zipped);
        RawServer srv;
        ASSERT_EQ(
            0, bounded([&] { return Velto::send_file(kLogText, srv.url("/v1/file").c_str(), "sdk_x.log"); }));
        const auto req = srv.requests().at(0);
        EXPECT_EQ(expected_head("/v1/file", "Content-Type:multipart/form-data;boundary=70db372eb000e2ax\r\n",
                                req.body.size()),
                  req.head);
        const auto parts =
            vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
        const vcollect::FormPart* file = vcollect::find_part(parts, "file");
        ASSERT_NE(nullptr, file);
        EXPECT_EQ(expected_multipart("sdk_x.log", file->data), req.body);
        EXPECT_EQ(be32(static_cast<uint32_t>(kLogText.size())), file->data.substr(0, 4));
        if (!zipped) {
            EXPECT_EQ(sealed(kLogText), file->data.substr(4));
        }
        vcollect::FilePayload decoded;
        ASSERT_TRUE(vcollect::decode_file_payload(file->data, decoded,
                                                  zipped ? vcollect::Zipped::kYes : vcollect::Zipped::kNo));
        EXPECT_EQ(kLogText, decoded.data);
    }
}

TEST_F(TransportTest, UploadsOverHttpsDecodeOnTheServer) {
    TlsServer srv;
    ASSERT_TRUE(srv.ok());
    for (bool zipped : {false, true}) {
        zip(zipped);
        ASSERT_EQ(0, bounded([&] { return Velto::send_msg(kRecord, srv.url("/v1/data").c_str(), "data"); }));
        ASSERT_EQ(0,
                  bounded([&] { return Velto::send_file(kLogText, srv.url("/v1/file").c_str(), "up.log"); }));
    }
    const auto reqs = srv.requests();
    ASSERT_EQ(4u, reqs.size());
    for (size_t i = 0; i < reqs.size(); i += 2) {
        std::string record;
        ASSERT_TRUE(vcollect::decode_form_payload(
            vcollect::form_value(vcollect::parse_form(reqs[i].body), "data"), record));
        EXPECT_EQ(kRecord, record);

        const auto& parts = reqs[i + 1].parts;
        ASSERT_EQ(5u, parts.size());
        const std::pair<std::string, std::string> fields[] = {{"sdk_log", "up.log"},
                                                              {"proc_name", transporttest::kProcName},
                                                              {"tid", transporttest::kTid},
                                                              {"client_sign", transporttest::kDid}};
        for (size_t k = 0; k < 4; ++k) {
            EXPECT_EQ(fields[k].first, parts[k].name);
            EXPECT_EQ(fields[k].second, parts[k].data);
        }
        EXPECT_EQ("file", parts[4].name);
        EXPECT_EQ("up.log", parts[4].filename);
        EXPECT_EQ("application/octet-stream", parts[4].content_type);
        vcollect::FilePayload file;
        ASSERT_TRUE(vcollect::decode_file_payload(parts[4].data, file));
        EXPECT_EQ(kLogText, file.data);
    }
}

TEST_F(TransportTest, LibcurlMultipartLayoutParses) {
    RawServer srv;  // a plain-http URL given to libcurl directly, to see its bytes
    Velto::RequestParam p;
    const std::string payload("\x00\x01\r\n--x", 7);
    p.body = payload.data();
    p.body_len = static_cast<int>(payload.size());
    p.timeout_ms = 1000;
    p.upname = "n.log";
    bounded([&] { return Velto::curl_http_post(srv.url("/v1/file"), p, 2); });
    const auto req = srv.requests().at(0);
    const auto parts = vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
    ASSERT_EQ(5u, parts.size());
    EXPECT_EQ("n.log", vcollect::field_text(parts[0]));
    EXPECT_EQ(payload, parts[4].data);
}

TEST_F(TransportTest, ReplyVerdicts) {
    struct {
        RawMode mode;
        const char* reply;
        int msg_rc;
        const char* msg_log;  // null: no log line at all
    } cases[] = {
        {RawMode::kReply, "{\"status\":0}", 0, nullptr},
        {RawMode::kReply, "{\"status\":\"0\"}", 204, "http_client"},
        {RawMode::kReply, "{\"status\":1}", 204, "http_client"},
        {RawMode::kRawBytes, "{}", 204, nullptr},
    };
    for (const auto& c : cases) {
        RawServer srv(c.mode, c.reply);
        const size_t log_before = log_text().size();
        EXPECT_EQ(c.msg_rc, bounded([&] { return Velto::send_msg(kRecord, srv.url().c_str(), "data"); }))
            << c.reply;
        const std::string added = log_text().substr(log_before);
        if (c.msg_log) {
            EXPECT_NE(std::string::npos, added.find(c.msg_log)) << c.reply;
        } else {
            EXPECT_EQ("", added) << c.reply;
        }
    }
    RawServer srv(RawMode::kReply, "{\"status\":2}");
    EXPECT_EQ(204, bounded([&] { return Velto::send_file(kLogText, srv.url().c_str(), "a.log"); }));
    EXPECT_TRUE(logged("http response: HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(logged("{\"status\":2}"));
}

TEST_F(TransportTest, NoReplyIs205) {
    const std::string url = "http://127.0.0.1:" + std::to_string(closed_port()) + "/v1/data";
    EXPECT_EQ(205, bounded([&] { return Velto::send_msg(kRecord, url.c_str(), "data"); }));
    EXPECT_TRUE(logged("msg http_client ret: 0"));
    EXPECT_EQ(205, bounded([&] { return Velto::send_file(kLogText, url.c_str(), "a.log"); }));
    EXPECT_TRUE(logged("file http_client ret: 0"));
    EXPECT_EQ("", bounded([&] { return Velto::send_msg_res(kRecord, url.c_str(), "conf"); }));

    RawServer silent(RawMode::kSilent);  // answers nothing: bounded by CON_TIMEOUT
    EXPECT_EQ(205, bounded([&] { return Velto::send_msg(kRecord, silent.url().c_str(), "data"); }));
    EXPECT_TRUE(logged("recv timeout! error: "));
}

TEST_F(TransportTest, SendMsgResReturnsTheRawDataMember) {
    const std::pair<std::string, std::string> cases[] = {
        {"{\"status\":1,\"data\":{\"a\":\"1\"}}", "\"a\":\"1\""}, {"{\"data\":\"x\"}", "\"x\""}, {"{}", ""}};
    for (const auto& c : cases) {
        RawServer srv(c.first == "{}" ? RawMode::kRawBytes : RawMode::kReply, c.first);
        EXPECT_EQ(c.second, bounded([&] { return Velto::send_msg_res(kRecord, srv.url().c_str(), "conf"); }));
    }
}

TEST_F(TransportTest, EmptyPayloadSendsNothing) {
    zip(false);
    RawServer srv;
    EXPECT_EQ(-1, Velto::send_msg("", srv.url().c_str(), "data"));
    EXPECT_EQ(-1, Velto::send_file("", srv.url().c_str(), "a.log"));
    EXPECT_EQ("", Velto::send_msg_res("", srv.url().c_str(), "conf"));
    EXPECT_EQ(0u, srv.connections());
}

TEST_F(TransportTest, FilePayloadStartsWithTheBigEndianLength) {
    for (size_t size : {5u, 70000u}) {
        RawServer srv;
        ASSERT_EQ(
            0, bounded([&] { return Velto::send_file(std::string(size, 'x'), srv.url().c_str(), "a.log"); }));
        const auto req = srv.requests().at(0);
        const auto parts = vcollect::parse_multipart(req.body, "70db372eb000e2ax");
        ASSERT_EQ(5u, parts.size());
        EXPECT_EQ(be32(static_cast<uint32_t>(size)), parts[4].data.substr(0, 4));
    }
}

TEST_F(TransportTest, CapitalHttpsGoesToTheRawClient) {
    TlsServer srv;
    std::string url = srv.url("/v1/data");
    url.replace(0, 5, "HTTPS");
    EXPECT_EQ(205, bounded([&] { return Velto::send_msg(kRecord, url.c_str(), "data"); }));
    EXPECT_TRUE(logged("err url head: " + url));
    EXPECT_EQ(0u, srv.requests().size());
}

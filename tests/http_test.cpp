// The two HTTP clients against loopback collectors (exact request heads, time-outs, hostile
// replies), URL parsing, name resolution and the form encoding helpers; and the uploads: exact wire
// bytes on the raw-socket path, the same uploads decoded on an HTTPS collector, the reply verdicts and
// the cases that must send nothing.
#include "Result.h"
#include "collector_client.h"
#include "transport_fixture.h"

using transporttest::bounded;
using transporttest::kFormType;
using transporttest::raw_head;
using transporttest::TransportTest;
using vcollect::RawMode;
using vcollect::RawServer;
using vcollect::TlsServer;

namespace {

Velto::RequestParam post_param(const char* body, int len, const char* header = nullptr) {
    Velto::RequestParam p;
    p.body = body;
    p.body_len = len;
    p.header = header;
    p.timeout_ms = 1000;
    return p;
}

TEST(HttpUrl, SplitsHostPortAndPath) {
    struct {
        const char* url;
        const char* host;
        int port;
        const char* path;
    } cases[] = {
        {"http://host:8080", "host", 8080, "/"},
        {"http://host/a:b", "host", 80, "/a:b"},
        {"http://h", "h", 80, "/"},
        {"http://host:81/p?q=1&r", "host", 81, "/p?q=1&r"},
        {"http://host:junk/x", "host", 0, "/x"},
        {"http://10.0.0.1/", "10.0.0.1", 80, "/"},
    };
    for (const auto& c : cases) {
        std::string host, path;
        int port = -1;
        ASSERT_TRUE(Velto::parse_http_url(c.url, host, port, path)) << c.url;
        EXPECT_EQ(c.host, host) << c.url;
        EXPECT_EQ(c.port, port) << c.url;
        EXPECT_EQ(c.path, path) << c.url;
    }
}

TEST_F(TransportTest, OtherSchemesAreRejectedWithALogLine) {
    for (const char* url : {"http:/x", "https://h/", "HTTP://h/"}) {
        std::string host, path;
        int port = 0;
        EXPECT_FALSE(Velto::parse_http_url(url, host, port, path)) << url;
        EXPECT_TRUE(logged(std::string("err url head: ") + url)) << url;
    }
    std::string reply;
    EXPECT_FALSE(Velto::http_client(nullptr, reply, nullptr));
    EXPECT_TRUE(logged("null url"));
}

TEST(HttpResolve, DottedAddressAndLocalhost) {
    std::string ip;
    EXPECT_TRUE(Velto::GetRealIP("127.0.0.1", ip));
    EXPECT_EQ("127.0.0.1", ip);
    EXPECT_TRUE(Velto::GetRealIP("localhost", ip));
    EXPECT_EQ("127.0.0.1", ip);
    EXPECT_FALSE(Velto::GetRealIP("no-such-host.invalid", ip));
    EXPECT_EQ("no-such-host.invalid", ip);
}

TEST(FormEncoding, EncodeAndDecode) {
    const std::pair<std::string, std::string> encoded[] = {
        {"a b&c", "a+b%26c"}, {"\xE9", "%E9"}, {"-._~Az09", "-._~Az09"}, {"+/=\n", "%2B%2F%3D%0A"}, {"", ""}};
    for (const auto& e : encoded) {
        EXPECT_EQ(e.second, Velto::UrlEncode(e.first));
        EXPECT_EQ(e.first, Velto::UrlDecode(e.second));
    }
    // A "%" without two characters after it is copied through; letters past F count above 15, other
    // characters that are not hexadecimal digits as 0.
    const std::pair<std::string, std::string> decoded[] = {
        {"%", "%"}, {"a%4", "a%4"}, {"%4a%4A", "JJ"}, {"%!1", "\x01"}, {"%G0", std::string(1, '\0')}};
    for (const auto& d : decoded) EXPECT_EQ(d.second, Velto::UrlDecode(d.first)) << d.first;
}

TEST_F(TransportTest, RawClientSendsTheExactHeadAndBody) {
    RawServer srv;
    const char binary[] = {'a', '\0', 'b'};
    Velto::RequestParam form = post_param("a=1", 3);
    Velto::RequestParam typed = post_param(binary, 3, "Content-Type:text/plain\r\n");
    Velto::RequestParam get = post_param(nullptr, 0);
    get.post = false;
    std::string reply;
    ASSERT_TRUE(bounded([&] { return Velto::http_client(srv.url("/v1/data?x=1").c_str(), reply, &form); }));
    EXPECT_EQ(0u, reply.find("HTTP/1.1 200 OK\r\n"));
    EXPECT_NE(std::string::npos, reply.find("\r\n\r\n{\"status\":0}"));
    ASSERT_TRUE(bounded([&] { return Velto::http_client(srv.url().c_str(), reply, &typed); }));
    ASSERT_TRUE(bounded([&] { return Velto::http_client(srv.url("/g").c_str(), reply, &get); }));
    ASSERT_TRUE(bounded([&] { return Velto::http_client(srv.url().c_str(), reply, nullptr); }));

    const auto reqs = srv.requests();
    ASSERT_EQ(4u, reqs.size());
    EXPECT_EQ(raw_head("POST /v1/data?x=1", kFormType, 3) + "a=1", reqs[0].bytes());
    EXPECT_EQ(raw_head("POST /", "Content-Type:text/plain\r\n", 3) + std::string(binary, 3), reqs[1].bytes());
    EXPECT_EQ(raw_head("GET /g", kFormType, 0), reqs[2].bytes());
    EXPECT_EQ(raw_head("GET /", kFormType, -1), reqs[3].bytes());
}

// A server that accepts and never answers, one that answers but keeps the connection open, and a
// port where nothing listens: every call fails within CON_TIMEOUT (1 s here).
TEST_F(TransportTest, NoReplyFailsWithinTheTimeout) {
    RawServer silent(RawMode::kSilent), open(RawMode::kReplyKeepOpen);
    const std::string closed = "127.0.0.1:" + std::to_string(closed_port()) + "/v1/data";
    Velto::RequestParam p = post_param("a=1", 3);
    const std::pair<std::string, bool> cases[] = {
        {silent.url(), true}, {open.url(), true}, {"http://" + closed, false}};  // logs a recv time-out
    for (const auto& c : cases) {
        const size_t before = log_text().size();
        std::string reply;
        EXPECT_FALSE(bounded([&] { return Velto::http_client(c.first.c_str(), reply, &p); })) << c.first;
        EXPECT_EQ(c.second, log_text().find("recv timeout! error: ", before) != std::string::npos) << c.first;
    }

    const std::string url = "http://" + closed;
    const Velto::UploadContext ctx = transporttest::upload_context();
    EXPECT_EQ(Velto::RES_NO_REPLY, bounded([&] { return Velto::send_msg("{}x", url.c_str(), "data", ctx); }));
    EXPECT_TRUE(logged("msg http_client ret: 0"));
    EXPECT_EQ(Velto::RES_NO_REPLY,
              bounded([&] { return Velto::send_file("{}x", url.c_str(), "a.log", ctx); }));
    EXPECT_TRUE(logged("file http_client ret: 0"));
    EXPECT_EQ("", bounded([&] { return Velto::send_msg_res("{}x", url.c_str(), "conf", ctx); }));

    EXPECT_EQ("", bounded([&] { return Velto::curl_http_post("https://" + closed, p, 1); }));
    EXPECT_EQ("", bounded([&] { return Velto::curl_http_get("https://" + closed, p); }));
    EXPECT_TRUE(logged("curl_easy_perform() failed: "));
    EXPECT_TRUE(logged("curl_easy_perform failed: "));
}

TEST_F(TransportTest, HostileRepliesGiveAResultNotACrash) {
    struct {
        RawMode mode;
        std::string reply;
    } cases[] = {{RawMode::kRawBytes, std::string("\0{\"status\":0}", 13)},
                 {RawMode::kRawBytes, "HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\n{\"sta"},
                 {RawMode::kResetMidReply, "HTTP/1.1 200 OK\r\nContent-Len"},
                 {RawMode::kClose, ""}};
    for (const auto& c : cases) {
        RawServer srv(c.mode, c.reply);
        Velto::RequestParam p = post_param("a=1", 3);
        std::string reply = "stale";
        const bool ok = bounded([&] { return Velto::http_client(srv.url().c_str(), reply, &p); });
        if (ok) {
            EXPECT_LE(reply.size(), c.reply.size());
        }
        const Velto::UploadContext ctx = transporttest::upload_context();
        const int rc =
            bounded([&] { return Velto::send_msg("{\"k\":\"v\"}", srv.url().c_str(), "data", ctx); });
        EXPECT_TRUE(rc == Velto::RES_SVR_REJECT || rc == Velto::RES_NO_REPLY) << rc;
    }
}

TEST_F(TransportTest, CurlModesReachTheHttpsServer) {
    TlsServer srv;
    ASSERT_TRUE(srv.ok());
    srv.set_reply("/v1/conf", "{\"status\":0,\"conf\":{}}");
    Velto::RequestParam p = post_param("a=1&b=%20", 9);
    const std::string reply = bounded([&] { return Velto::curl_http_post(srv.url("/v1/data"), p, 1); });
    EXPECT_EQ(0u, reply.find("HTTP/1.1 200"));  // headers are part of the reply
    EXPECT_NE(std::string::npos, reply.find("{\"status\":0}"));
    bounded([&] { return Velto::curl_http_post(srv.url("/v1/file"), p, 3); });
    const std::string got = bounded([&] { return Velto::curl_http_get(srv.url("/v1/conf"), p); });
    EXPECT_NE(std::string::npos, got.find("\"conf\":{}"));

    const auto reqs = srv.requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ("POST", reqs[0].method);
    EXPECT_EQ("a=1&b=%20", reqs[0].body);
    ASSERT_EQ(1u, reqs[1].parts.size());
    EXPECT_EQ("reqformat", reqs[1].parts[0].name);
    EXPECT_EQ("plain", reqs[1].parts[0].data);
    EXPECT_EQ("GET", reqs[2].method);
}

// A server redirecting to itself gets the request and three redirects; a redirect to another
// protocol is not followed.
TEST_F(TransportTest, CurlFollowsAtMostThreeRedirectsAndOnlyToTheWeb) {
    TlsServer srv;
    vcollect::RawServer ftp;
    ASSERT_TRUE(srv.ok() && ftp.ok());
    srv.set_redirect("/v1/data", srv.url("/v1/data"));
    srv.set_redirect("/v1/file", "ftp://127.0.0.1:" + std::to_string(ftp.port()) + "/x");
    Velto::RequestParam p = post_param("a=1", 3);
    bounded([&] { return Velto::curl_http_post(srv.url("/v1/data"), p, 1); });
    EXPECT_EQ(4u, srv.requests().size());
    bounded([&] { return Velto::curl_http_post(srv.url("/v1/file"), p, 1); });
    EXPECT_EQ(5u, srv.requests().size());
    EXPECT_EQ(0u, ftp.connections());
}

TEST(CurlCallbacks, WriteCallbackStopsAtZeroAndAtTheChunkEnd) {
    std::string reply = "<";
    char with_zero[] = {'a', 'b', 'c', '\0', 'd', 'e'};
    EXPECT_EQ(6u, Velto::curl_recv_data(with_zero, 1, 6, &reply));
    char unterminated[] = {'x', 'y', 'z'};
    EXPECT_EQ(2u, Velto::curl_recv_data(unterminated, 2, 1, &reply));
    EXPECT_EQ("<abcxy", reply);
}

using Fields = std::vector<std::pair<std::string, std::string>>;

const std::string kRecord = "{\"dtype\":\"event\",\"name\":\"a b&c\",\"val\":\"\xC3\xA9!\"}";
const std::string kLogText = "[2024-01-02 03:04:05] [ERROR] - (12) line one\n[INFO] two & three\n";
const std::string kBoundary = "\r\n--70db372eb000e2ax";

// The four text fields of a file upload named `name`, in order.
Fields text_fields(const std::string& name) {
    return {{"sdk_log", name},
            {"proc_name", transporttest::kProcName},
            {"tid", transporttest::kTid},
            {"client_sign", transporttest::kDid}};
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

vcollect::Zipped zipped_if(bool on) {
    return on ? vcollect::Zipped::kYes : vcollect::Zipped::kNo;
}

// The upload calls, bounded.
int msg(const std::string& url) {
    return bounded(
        [&] { return Velto::send_msg(kRecord, url.c_str(), "data", transporttest::upload_context()); });
}
int file(const std::string& text, const std::string& url, const char* name) {
    return bounded(
        [&] { return Velto::send_file(text, url.c_str(), name, transporttest::upload_context()); });
}
std::string msg_res(const std::string& url) {
    return bounded(
        [&] { return Velto::send_msg_res(kRecord, url.c_str(), "conf", transporttest::upload_context()); });
}

}  // namespace

TEST_F(TransportTest, SendMsgRawBytes) {
    for (bool zipped : {false, true}) {
        zip(zipped);
        RawServer srv;
        ASSERT_EQ(0, msg(srv.url("/v1/data")));
        const auto req = srv.requests().at(0);
        EXPECT_EQ(raw_head("POST /v1/data", transporttest::kFormType, long(req.body.size())), req.head);
        const vcollect::FormFields form = vcollect::parse_form(req.body);
        ASSERT_EQ(1u, form.size());
        EXPECT_EQ("data", form[0].first);
        if (!zipped) {
            EXPECT_EQ("data=" + Velto::UrlEncode(Velto::Util::fencode(kRecord)), req.body);
        }
        std::string record;
        ASSERT_TRUE(vcollect::decode_form_payload(form[0].second, record, zipped_if(zipped)));
        EXPECT_EQ(kRecord, record);
    }
}

// The file payload starts with the plain length as 4 big-endian bytes (a 5-byte text: 00 00 00 05).
TEST_F(TransportTest, SendFileRawBytes) {
    const std::string kLogLength = std::string("\0\0\0", 3) + char(kLogText.size());
    const struct {
        bool zipped;
        std::string text, length;
    } cases[] = {{false, kLogText, kLogLength},
                 {true, kLogText, kLogLength},
                 {false, "12345", std::string("\0\0\0\x05", 4)},
                 {true, std::string(70000, 'x'), std::string("\0\x01\x11\x70", 4)}};
    for (const auto& c : cases) {
        const bool zipped = c.zipped;
        zip(zipped);
        RawServer srv;
        ASSERT_EQ(0, file(c.text, srv.url("/v1/file"), "sdk_x.log"));
        const auto req = srv.requests().at(0);
        EXPECT_EQ(raw_head("POST /v1/file", "Content-Type:multipart/form-data;boundary=70db372eb000e2ax\r\n",
                           long(req.body.size())),
                  req.head);
        const auto parts =
            vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
        const vcollect::FormPart* file = vcollect::find_part(parts, "file");
        ASSERT_NE(nullptr, file);
        EXPECT_EQ(expected_multipart("sdk_x.log", file->data), req.body);
        EXPECT_EQ(c.length, file->data.substr(0, 4));
        if (!zipped) {
            EXPECT_EQ(vtest::client::file_payload(uint32_t(c.text.size()), c.text), file->data);
        }
        vcollect::FilePayload decoded;
        ASSERT_TRUE(vcollect::decode_file_payload(file->data, decoded, zipped_if(zipped)));
        EXPECT_EQ(c.text, decoded.data);
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
        ASSERT_TRUE(vcollect::decode_form_payload(
            vcollect::form_value(vcollect::parse_form(reqs[i].body), "data"), record));
        EXPECT_EQ(kRecord, record);

        const auto& parts = reqs[i + 1].parts;
        ASSERT_EQ(5u, parts.size());
        Fields texts;
        for (size_t k = 0; k < 4; ++k) texts.emplace_back(parts[k].name, parts[k].data);
        EXPECT_EQ(text_fields("up.log"), texts);
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
    const Velto::UploadContext form = transporttest::upload_context();
    p.form = &form;
    bounded([&] { return Velto::curl_http_post(srv.url("/v1/file"), p, 2); });
    const auto req = srv.requests().at(0);
    const auto parts = vcollect::parse_multipart(req.body, vcollect::boundary_of(req.header("Content-Type")));
    ASSERT_EQ(5u, parts.size());
    EXPECT_EQ("n.log", vcollect::field_text(parts[0]));
    EXPECT_EQ(payload, parts[4].data);
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
    EXPECT_EQ(-1, Velto::send_msg("", srv.url().c_str(), "data", transporttest::upload_context()));
    EXPECT_EQ(-1, Velto::send_file("", srv.url().c_str(), "a.log", transporttest::upload_context()));
    EXPECT_EQ("", Velto::send_msg_res("", srv.url().c_str(), "conf", transporttest::upload_context()));
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

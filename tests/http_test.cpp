// The two HTTP clients against loopback collectors (exact request heads, time-outs, hostile
// replies), URL parsing, name resolution and the form encoding helpers.
#include "Result.h"
#include "transport_fixture.h"

using namespace transporttest;
using namespace vcollect;

namespace {

Velto::RequestParam post_param(const char* body, int len, const char* header = nullptr) {
    Velto::RequestParam p;
    p.body = body;
    p.body_len = len;
    p.header = header;
    p.timeout_ms = 1000;
    return p;
}

// The host, port and path of http:// URLs; other schemes are rejected with a log line.
TEST_F(TransportTest, UrlsSplitIntoHostPortAndPathForHttpOnly) {
    struct {
        const char* url;
        const char* host;  // nullptr: rejected
        int port;
        const char* path;
    } cases[] = {
        {"http://host:8080", "host", 8080, "/"},
        {"http://host/a:b", "host", 80, "/a:b"},
        {"http://h", "h", 80, "/"},
        {"http://host:81/p?q=1&r", "host", 81, "/p?q=1&r"},
        {"http://host:junk/x", "host", 0, "/x"},
        {"http:/x", nullptr, 0, ""},
        {"https://h/", nullptr, 0, ""},
        {"HTTP://h/", nullptr, 0, ""},
    };
    for (const auto& c : cases) {
        std::string host, path;
        int port = -1;
        ASSERT_EQ(c.host != nullptr, Velto::parse_http_url(c.url, host, port, path)) << c.url;
        if (c.host) {
            EXPECT_EQ(c.host + std::string(" ") + std::to_string(c.port) + " " + c.path,
                      host + " " + std::to_string(port) + " " + path);
        } else {
            EXPECT_TRUE(logged(std::string("err url head: ") + c.url)) << c.url;
        }
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
    const Velto::UploadContext ctx = upload_context();
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
        const Velto::UploadContext ctx = upload_context();
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
    RawServer ftp;
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

}  // namespace

// The transport as built with certificate checking on (see CMakeLists.txt), against the loopback
// HTTPS collector and its self-signed certificate: only a CA bundle that holds that certificate
// lets a transfer through; without it every transfer fails as if the server were unreachable.
#include <cstdlib>
#include <string>

#include "transport_fixture.h"

namespace {

using transporttest::bounded;

class VerifiedTransport : public transporttest::TransportTest {
  protected:
    void TearDown() override { unsetenv("VELTO_CA_BUNDLE"); }

    // One upload and one configuration-style GET with the given bundle (null: the variable unset).
    void expect_transfers(const char* bundle, bool delivered) {
        if (bundle)
            setenv("VELTO_CA_BUNDLE", bundle, 1);
        else
            unsetenv("VELTO_CA_BUNDLE");
        const size_t before = server_.requests().size();
        const int sent = bounded([&] {
            return Velto::send_msg("{\"k\":\"v\"}", server_.url("/v1/data").c_str(), "data",
                                   transporttest::upload_context());
        });
        Velto::RequestParam get;
        get.timeout_ms = 1000;
        const std::string reply = bounded([&] { return Velto::curl_http_get(server_.url("/v1/conf"), get); });
        if (delivered) {
            EXPECT_EQ(0, sent);
            EXPECT_NE(std::string::npos, reply.find("{\"status\":0}"));
            EXPECT_EQ(before + 2, server_.requests().size());
        } else {
            EXPECT_EQ(205, sent);  // no reply: the upload failed and its records stay on disk
            EXPECT_EQ("", reply);
            EXPECT_EQ(before, server_.requests().size());  // the handshake never got to a request
        }
    }

    vcollect::TlsServer server_;
};

TEST_F(VerifiedTransport, OnlyTheBundleWithTheServersCertificateLetsTransfersThrough) {
    ASSERT_TRUE(server_.ok());
    // A certificate of the same shape (127.0.0.1, localhost) that did not sign the server's.
    const std::string stranger = dir_.file("stranger.pem");
    ASSERT_TRUE(vcollect::make_self_signed_cert(stranger, dir_.file("stranger-key.pem")));
    const std::string missing = dir_.file("missing.pem");
    const std::string own = server_.cert_path();

    const struct {
        const char* what;
        const char* bundle;
        bool delivered;
    } cases[] = {
        {"the server's own certificate", own.c_str(), true},
        {"no bundle: the system's authorities do not know the server", nullptr, false},
        {"an empty variable counts as none", "", false},
        {"another self-signed certificate", stranger.c_str(), false},
        {"a bundle that does not exist", missing.c_str(), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        expect_transfers(c.bundle, c.delivered);
    }
    EXPECT_TRUE(logged("curl_easy_perform() failed"));
}

}  // namespace

// Tests of the payload envelope: Base64 against OpenSSL, whole envelopes rebuilt with OpenSSL under
// the built-in key and IV, fencode/fdecode and their stripping rule, zlib, and use from several threads.
// Arbitrary bytes into the decoders are the envelope fuzz target's part.
#include "Zip.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Util.h"

using Bytes = std::vector<unsigned char>;

namespace {

const unsigned char kKey[] = "Tq4w&9Lm#p2Zr!x8Vc*b6Nk$d3Hs%j7Y";
const unsigned char kIv[] = "Pm3&e!Rz8qa%$wTn";

const unsigned char* uc(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}

std::string random_text(std::mt19937& rng, size_t n, int lo = 0x20, int hi = 0x7e) {
    std::string s(n, ' ');
    for (auto& c : s) c = char(lo + int(rng() % unsigned(hi - lo + 1)));
    return s;
}

// The envelope built with OpenSSL alone: padding, AES-256-CBC, EVP_EncodeBlock.
std::string openssl_envelope(const std::string& plain) {
    std::string padded = plain;
    padded.append(16 - plain.size() % 16 == 16 ? 0 : 16 - plain.size() % 16, char(16 - plain.size() % 16));
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes sealed(padded.size() + 16);
    int n = 0;
    EXPECT_EQ(1, EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, kKey, kIv));
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(1, EVP_EncryptUpdate(ctx, sealed.data(), &n, uc(padded), int(padded.size())));
    EVP_CIPHER_CTX_free(ctx);
    std::vector<unsigned char> text(size_t(n) / 3 * 4 + 8);
    const int m = EVP_EncodeBlock(text.data(), sealed.data(), n);
    return std::string(reinterpret_cast<char*>(text.data()), size_t(m));
}

}  // namespace

TEST(Zip, BadOrEmptyArguments) {
    unsigned char buf[64];
    int out_len = 0;
    EXPECT_EQ(-1, Velto::AES_Encode(nullptr, 3, buf));
    EXPECT_EQ(-1, Velto::AES_Encode(buf, 0, buf));
    EXPECT_EQ(-1, Velto::AES_Encode(buf, 3, nullptr));
    EXPECT_EQ(-1, Velto::AES_Encode2(buf, -1, buf, out_len));
    EXPECT_EQ(-1, Velto::AES_Decode(nullptr, buf));
    EXPECT_EQ(-1, Velto::AES_Decode("QUJD", nullptr));
    EXPECT_EQ("", Velto::Util::fencode(std::string()));
    EXPECT_EQ("", Velto::Util::fencode("abc", 0));
    EXPECT_EQ("", Velto::Util::fencode(nullptr, 5));
    EXPECT_EQ("", Velto::Util::fdecode(std::string()));
    EXPECT_EQ("", Velto::base64_encode(uc("abc"), 0));
}

TEST(Zip, FdecodeStripsTrailingBytesThatReadAsSmallSignedChars) {
    const std::pair<std::string, std::string> cases[] = {
        // plain, decoded
        {"caf\xC3\xA9", "caf"},  // a trailing two-byte character is lost entirely
        {"abc\x05\x0f", "abc"},  // padding-like values go too
        {"\x01", "\x01"},        // the first byte always stays
        {"\xC3\xA9", "\xC3"},
        {"a\x80 b", "a\x80 b"},  // only the tail is touched
        {std::string(16, '\x0f'), std::string(1, '\x0f')},
    };
    for (const auto& [plain, decoded] : cases)
        EXPECT_EQ(decoded, Velto::Util::fdecode(Velto::Util::fencode(plain)));
}

TEST(Zip, FdecodeThrowsWhenTheDecodedLengthIsNotWholeBlocks) {
    const std::string bad[] = {"QUJD", Velto::base64_encode(uc(std::string(20, 'z')), 20), "====", "!"};
    for (const std::string& token : bad) EXPECT_THROW(Velto::Util::fdecode(token), std::exception) << token;
    unsigned char out[8] = {1};
    EXPECT_THROW(Velto::AES_Decode("", out), std::exception);
    EXPECT_EQ(0, out[0]);
}

TEST(Zip, ZipRoundTripsAndRespectsCapacities) {
    const std::string text = "{\"dtype\":\"event\",\"name\":\"start\"}" + std::string(300, 'z');
    Bytes out(text.size() + 100);
    int len = int(out.size());
    ASSERT_EQ(0, Velto::Zip(text.c_str(), out.data(), len));
    EXPECT_LT(len, int(text.size()));
    EXPECT_EQ(text, Velto::unZip(out.data(), len));

    int small = 5;
    EXPECT_EQ(-1, Velto::Zip(text.c_str(), out.data(), small));
    EXPECT_EQ(0, Velto::Zip(text.c_str(), small));

    // 200 000 equal bytes deflate far below a tenth of their size: the fixed output bound refuses them.
    const std::string flat(200000, 'a');
    Bytes big(flat.size());
    len = int(big.size());
    ASSERT_EQ(0, Velto::Zip(flat.c_str(), big.data(), len));
    EXPECT_EQ("", Velto::unZip(big.data(), len));
    EXPECT_EQ("", Velto::unZip(uc("not zlib at all"), 15));
    EXPECT_EQ("", Velto::unZip(nullptr, 4));
}

// Every length up to a few hundred bytes (the encoder works in pieces of several blocks) and a few
// large ones: AES_Encode, AES_Encode2 and fencode give exactly the envelope OpenSSL builds (whole
// blocks only, never an extra one, padded with 16 - n % 16), and the decoders take it back.
TEST(Zip, EnvelopeMatchesOneBuiltWithOpenSsl) {
    std::mt19937 rng(23);
    std::vector<size_t> lengths;
    for (size_t len = 1; len <= 400; len++) lengths.push_back(len);
    for (size_t len : {size_t(600), size_t(4095), size_t(4096), size_t(65537)}) lengths.push_back(len);
    for (size_t len : lengths) {
        const std::string plain = random_text(rng, len, 0, 255), expected = openssl_envelope(plain);
        std::vector<unsigned char> text(len * 2 + 64);
        ASSERT_EQ(0, Velto::AES_Encode(uc(plain), int(len), text.data()));
        ASSERT_EQ(expected, reinterpret_cast<char*>(text.data())) << len;
        ASSERT_EQ(expected, Velto::Util::fencode(plain)) << len;
        ASSERT_EQ(expected, Velto::Util::fencode(plain.data(), (long long)len)) << len;
        Bytes raw(len + 16);
        int raw_len = 0;
        ASSERT_EQ(0, Velto::AES_Encode2(uc(plain), int(len), raw.data(), raw_len));
        raw.resize(size_t(raw_len));
        EXPECT_EQ(expected, Velto::base64_encode(raw.data(), unsigned(raw.size()))) << len;

        Bytes clear(expected.size() / 4 * 3 + 1);
        ASSERT_EQ(0, Velto::AES_Decode(expected.c_str(), clear.data()));
        EXPECT_EQ(0, memcmp(plain.data(), clear.data(), len)) << len;
        EXPECT_EQ(0, clear[raw.size()]) << len;
    }
}

// Base64 against OpenSSL on random bytes of every length; the tolerant decoder keeps the whole groups
// before the first "=" or foreign byte.
TEST(Zip, Base64MatchesOpenSsl) {
    std::mt19937 rng(24);
    for (size_t len = 0; len < 300; len++) {
        const std::string bytes = random_text(rng, len, 0, 255);
        Bytes theirs(len / 3 * 4 + 8);
        theirs.resize(size_t(EVP_EncodeBlock(theirs.data(), uc(bytes), int(len))));
        const std::string text = Velto::base64_encode(uc(bytes), unsigned(len));
        EXPECT_EQ(std::string(theirs.begin(), theirs.end()), text) << len;
        Bytes out(text.size() / 4 * 3 + 1);
        out.resize(size_t(Velto::base64_decode(text.c_str(), out.data())));
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), out) << len;
        EXPECT_EQ(bytes.substr(0, len / 3 * 3), Velto::base64_decode(text)) << len;
    }
    EXPECT_EQ("foo", Velto::base64_decode(std::string("Zm9v\nYmFy")));  // up to the first foreign byte
}

// The envelope from several threads at once (the background loop and host threads do this); each
// result must be the single-threaded one. Under ThreadSanitizer this checks the shared keyed cipher,
// each thread running its own chain.
TEST(Zip, EnvelopeFromSeveralThreads) {
    std::mt19937 rng(25);
    std::vector<std::string> plains, tokens;
    for (int i = 0; i < 8; i++) {
        plains.push_back(random_text(rng, 1 + rng() % 700));
        tokens.push_back(Velto::Util::fencode(plains.back()));
    }
    std::vector<int> ok(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; i++) {
                const size_t k = size_t(i + t) % plains.size();
                ok[size_t(t)] += Velto::Util::fencode(plains[k]) == tokens[k] &&
                                 Velto::Util::fdecode(tokens[k]) == plains[k];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int n : ok) EXPECT_EQ(200, n);
}

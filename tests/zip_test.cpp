// Tests of the payload envelope: Base64 (against OpenSSL and against the decoders' documented rules
// on odd input), the padding rule checked by deciphering with OpenSSL under the built-in key and IV,
// whole envelopes rebuilt with OpenSSL, fencode/fdecode and their stripping rule, zlib, and use from
// several threads. Arbitrary bytes into the decoders are the envelope fuzz target's part.
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

Bytes openssl_decipher(const Bytes& in) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 16);
    int n = 0, tail = 0;
    EXPECT_EQ(1, EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, kKey, kIv));
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(1, EVP_DecryptUpdate(ctx, out.data(), &n, in.data(), int(in.size())));
    EXPECT_EQ(1, EVP_DecryptFinal_ex(ctx, out.data() + n, &tail));
    EVP_CIPHER_CTX_free(ctx);
    out.resize(size_t(n + tail));
    return out;
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

// The strict decoder's rules, written out: groups of four up to the end of the text, missing places
// read as NUL; every byte outside the alphabet (NUL and "=" included) has the value 255; "=" in the
// third place ends after one byte, in the fourth after two.
Bytes reference_decode(const std::string& text) {
    Bytes out;
    for (size_t i = 0; i < text.size(); i += 4) {
        char c[4];
        unsigned d[4];
        for (int k = 0; k < 4; k++) {
            c[k] = i + size_t(k) < text.size() ? text[i + size_t(k)] : '\0';
            const size_t at = c[k] == 0 ? std::string::npos : Velto::base64_chars.find(c[k]);
            d[k] = at == std::string::npos ? 255u : unsigned(at);
        }
        out.push_back(static_cast<unsigned char>((d[0] << 2) | ((d[1] >> 4) & 3)));
        if (c[2] == '=') break;
        out.push_back(static_cast<unsigned char>((d[1] << 4) | ((d[2] >> 2) & 15)));
        if (c[3] == '=') break;
        out.push_back(static_cast<unsigned char>((d[2] << 6) | (d[3] & 63)));
    }
    return out;
}

std::string aes_encode(const std::string& plain) {
    std::vector<char> out(plain.size() * 2 + 64);
    EXPECT_EQ(0,
              Velto::AES_Encode(uc(plain), int(plain.size()), reinterpret_cast<unsigned char*>(out.data())));
    return out.data();
}

}  // namespace

// n plain bytes become ceil(n / 16) blocks, never an extra one: 16 bytes give 24 Base64 characters
// ending "==", 17 give 44. The padding bytes all hold 16 - n % 16, as OpenSSL shows.
TEST(Zip, EnvelopePadsToWholeBlocksOnly) {
    std::mt19937 rng(21);
    for (size_t len = 1; len <= 64; len++) {
        const std::string plain = random_text(rng, len, 0, 255), text = aes_encode(plain);
        const size_t n = (len + 15) / 16 * 16;
        EXPECT_EQ((n + 2) / 3 * 4, text.size()) << len;
        EXPECT_EQ(std::string((3 - n % 3) % 3, '='), text.substr(text.find_last_not_of('=') + 1)) << len;
        Bytes wire(text.size());
        wire.resize(size_t(Velto::base64_decode(text.c_str(), wire.data())));
        ASSERT_EQ(n, wire.size()) << len;

        Bytes raw(n);
        int raw_len = 0;
        ASSERT_EQ(0, Velto::AES_Encode2(uc(plain), int(len), raw.data(), raw_len));
        EXPECT_EQ(int(n), raw_len);
        EXPECT_EQ(wire, raw) << len;

        const Bytes clear = openssl_decipher(wire);
        EXPECT_EQ(plain, std::string(clear.begin(), clear.begin() + long(len)));
        for (size_t i = len; i < n; i++) EXPECT_EQ(16 - len % 16, clear[i]) << len;
    }
}

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

TEST(Zip, FdecodeReversesFencode) {
    std::mt19937 rng(22);
    for (const std::string& plain :
         {std::string("A"), std::string(16, 'q'), std::string(17, 'r'), random_text(rng, 600),
          std::string("{\"k\":\"\\u00e9 tab\there\"}x\x10")}) {
        const std::string token = Velto::Util::fencode(plain);
        EXPECT_EQ(token, Velto::Util::fencode(plain.data(), (long long)plain.size()));
        EXPECT_EQ(token.find_first_not_of(Velto::base64_chars + "="), std::string::npos);
        EXPECT_EQ(plain, Velto::Util::fdecode(token));
    }
}

TEST(Zip, FdecodeStripsTrailingBytesThatReadAsSmallSignedChars) {
    const struct {
        std::string plain, decoded;
    } cases[] = {
        {"caf\xC3\xA9", "caf"},  // a trailing two-byte character is lost entirely
        {"abc\x05\x0f", "abc"},  // padding-like values go too
        {"\x01", "\x01"},        // the first byte always stays
        {"\xC3\xA9", "\xC3"},
        {"a\x80 b", "a\x80 b"},  // only the tail is touched
        {std::string(16, '\x0f'), std::string(1, '\x0f')},
    };
    for (const auto& c : cases) EXPECT_EQ(c.decoded, Velto::Util::fdecode(Velto::Util::fencode(c.plain)));
}

TEST(Zip, FdecodeThrowsWhenTheDecodedLengthIsNotWholeBlocks) {
    const std::string bad[] = {"QUJD", Velto::base64_encode(uc(std::string(20, 'z')), 20), "====", "!"};
    for (const std::string& token : bad) EXPECT_THROW(Velto::Util::fdecode(token), std::exception) << token;
    unsigned char out[8] = {1};
    EXPECT_THROW(Velto::AES_Decode("", out), std::exception);
    EXPECT_EQ(0, out[0]);
}

TEST(Zip, Base64KnownAnswers) {
    const std::pair<std::string, std::string> rfc[] = {{"f", "Zg=="},          {"fo", "Zm8="},
                                                       {"foo", "Zm9v"},        {"foob", "Zm9vYg=="},
                                                       {"foobar", "Zm9vYmFy"}, {"", ""}};
    for (const auto& c : rfc) {
        EXPECT_EQ(c.second, Velto::base64_encode(uc(c.first), unsigned(c.first.size())));
        unsigned char out[8] = {0};
        ASSERT_EQ(int(c.first.size()), Velto::base64_decode(c.second.c_str(), out)) << c.second;
        EXPECT_EQ(c.first, std::string(reinterpret_cast<char*>(out), c.first.size()));
    }
    // The tolerant form keeps the whole groups before the first "=" or foreign byte.
    EXPECT_EQ("foobar", Velto::base64_decode(std::string("Zm9vYmFy")));
    EXPECT_EQ("foo", Velto::base64_decode(std::string("Zm9vYg==")));
    EXPECT_EQ("foo", Velto::base64_decode(std::string("Zm9v\nYmFy")));
    EXPECT_EQ("", Velto::base64_decode(std::string("Zm9")));
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
// large ones: AES_Encode, AES_Encode2 and fencode give exactly the envelope OpenSSL builds, and the
// decoders take it back.
TEST(Zip, EnvelopeMatchesOneBuiltWithOpenSsl) {
    std::mt19937 rng(23);
    std::vector<size_t> lengths;
    for (size_t len = 1; len <= 400; len++) lengths.push_back(len);
    for (size_t len : {size_t(600), size_t(4095), size_t(4096), size_t(65537)}) lengths.push_back(len);
    for (size_t len : lengths) {
        const std::string plain = random_text(rng, len, 0, 255), expected = openssl_envelope(plain);
        ASSERT_EQ(expected, aes_encode(plain)) << len;
        ASSERT_EQ(expected, Velto::Util::fencode(plain)) << len;
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

// Base64 against OpenSSL on random bytes, and both decoders against their rules on text mixing the
// alphabet with "=", NUL-free foreign bytes and odd lengths.
TEST(Zip, Base64MatchesOpenSslAndTheDecodersKeepTheirRulesOnOddInput) {
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

    const std::string odd = Velto::base64_chars + "====\x01!\xff ";
    for (int iter = 0; iter < 3000; iter++) {
        std::string text(rng() % 40, ' ');
        for (auto& c : text) c = rng() % 4 ? Velto::base64_chars[rng() % 64] : odd[rng() % odd.size()];
        Bytes out(text.size() / 4 * 3 + 3);
        const Bytes expected = reference_decode(text);
        out.resize(size_t(Velto::base64_decode(text.c_str(), out.data())));
        ASSERT_EQ(expected, out) << text;

        // The tolerant form: whole groups before the first byte outside the alphabet.
        const size_t end = std::min(text.find_first_not_of(Velto::base64_chars), text.size());
        const Bytes whole = reference_decode(text.substr(0, end / 4 * 4));
        EXPECT_EQ(std::string(whole.begin(), whole.end()), Velto::base64_decode(text)) << text;
    }
}

// The envelope from several threads at once (the background loop and host threads do this); each
// result must be the single-threaded one. Under ThreadSanitizer this checks the shared cipher.
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

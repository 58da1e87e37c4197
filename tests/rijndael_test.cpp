// Tests of the Rijndael cipher: OpenSSL as a second implementation for AES, round
// trips for the 24- and 32-byte blocks OpenSSL lacks, the AES-instruction path against the table path,
// the chaining across calls (the object's and the caller's) and the failure rules. Use from several threads
// is checked through the envelope (zip_test).
#include "Rijndael.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>

using Velto::CRijndael;
using Bytes = std::string;  // raw bytes

namespace {

Bytes random_bytes(std::mt19937& rng, size_t n) {
    Bytes b(n, 0);
    for (auto& c : b) c = char(rng());
    return b;
}

Bytes run(CRijndael& c, bool encrypt, const Bytes& in, int mode) {
    Bytes out(in.size(), 0);
    if (encrypt)
        c.Encrypt(in.data(), &out[0], in.size(), mode);
    else
        c.Decrypt(in.data(), &out[0], in.size(), mode);
    return out;
}

Bytes keyed_run(const Bytes& key, const Bytes& iv, bool encrypt, const Bytes& in, int mode, int block = 16,
                bool tables_only = false) {
    CRijndael c;
    c.UseTablesOnly(tables_only);
    c.MakeKey(key.data(), iv.data(), (int)key.size(), block);
    return run(c, encrypt, in, mode);
}

Bytes openssl_run(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& iv, bool encrypt,
                  const Bytes& in) {
    auto u = [](const Bytes& b) { return reinterpret_cast<const unsigned char*>(b.data()); };
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 32, 0);
    unsigned char* o = reinterpret_cast<unsigned char*>(&out[0]);
    int n = 0, tail = 0;
    EXPECT_EQ(1, EVP_CipherInit_ex(ctx, cipher, nullptr, u(key), u(iv), encrypt ? 1 : 0));
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(1, EVP_CipherUpdate(ctx, o, &n, u(in), (int)in.size()));
    EXPECT_EQ(1, EVP_CipherFinal_ex(ctx, o + n, &tail));
    EVP_CIPHER_CTX_free(ctx);
    out.resize(size_t(n + tail));
    return out;
}

const int kSizes[] = {16, 24, 32};

}  // namespace

// Every key and block size (the envelope uses AES-256; the others only need to be consistent): the
// round count, block round trips, then round trips in every mode, decrypting in place: the chaining
// must read each input block before overwriting it.
TEST(Rijndael, EveryKeyAndBlockSizeRoundTripsInPlace) {
    std::mt19937 rng(11);
    for (int block : kSizes) {
        for (int keylen : kSizes) {
            SCOPED_TRACE("block " + std::to_string(block) + " key " + std::to_string(keylen));
            const Bytes key = random_bytes(rng, size_t(keylen)), iv = random_bytes(rng, size_t(block));
            CRijndael r;
            r.MakeKey(key.data(), iv.data(), keylen, block);
            EXPECT_EQ(std::max(keylen, block) / 4 + 6, r.GetRounds());
            const Bytes plain = random_bytes(rng, size_t(block));
            Bytes out(plain.size(), 0), back(plain.size(), 0);
            r.EncryptBlock(plain.data(), &out[0]);
            EXPECT_NE(plain, out);
            r.DecryptBlock(out.data(), &back[0]);
            EXPECT_EQ(plain, back);
            for (int mode : {CRijndael::ECB, CRijndael::CBC, CRijndael::CFB}) {
                const Bytes plain = random_bytes(rng, size_t(block) * 5);
                Bytes buf = keyed_run(key, iv, true, plain, mode, block);
                EXPECT_NE(plain, buf);
                r.ResetChain();
                r.Decrypt(buf.data(), &buf[0], buf.size(), mode);
                EXPECT_EQ(plain, buf) << "mode " << mode;
            }
        }
    }
}

// Not initialised (a rejected MakeKey leaves it so), not whole blocks, and a rejected MakeKey that
// must leave a keyed object as it was.
TEST(Rijndael, FailuresThrow) {
    char buf[64] = {0}, out[64];
    CRijndael fresh, r;
    r.MakeKey(buf, buf, 32, 16);
    const Bytes plain(32, 5), before = run(r, true, plain, CRijndael::ECB);
    int i = 0;
    for (const auto& call : std::initializer_list<std::function<void()>>{
             [&] { fresh.Encrypt(buf, out, 16); }, [&] { fresh.Decrypt(buf, out, 16); },
             [&] { fresh.EncryptBlock(buf, out); }, [&] { fresh.DecryptBlock(buf, out); },
             [&] { fresh.DefEncryptBlock(buf, out); }, [&] { fresh.DefDecryptBlock(buf, out); },
             [&] { fresh.Xor(buf, out); }, [&] { fresh.DecryptCbc(buf, out, 16, buf); },
             [&] { fresh.MakeKey(buf, buf, 20, 16); }, [&] { fresh.Encrypt(buf, out, 16); },
             [&] { r.EncryptCbc(buf, out, 15, buf); }, [&] { r.MakeKey(buf, buf, 20, 16); },
             [&] { r.MakeKey(buf, buf, 32, 20); }, [&] { r.MakeKey(nullptr, buf, 32, 16); }})
        EXPECT_THROW(call(), std::exception) << "call " << i++;
    EXPECT_EQ(32, r.GetKeyLength());
    EXPECT_EQ(16, r.GetBlockSize());
    EXPECT_EQ(before, run(r, true, plain, CRijndael::ECB));

    for (int block : kSizes) {
        CRijndael k;
        k.MakeKey(buf, buf, 32, block);
        for (size_t n : {size_t(0), size_t(17), size_t(block) + 1}) {
            EXPECT_THROW(k.Encrypt(buf, out, n, CRijndael::CBC), std::exception) << n;
            EXPECT_THROW(k.Decrypt(buf, out, n, CRijndael::CBC), std::exception) << n;
        }
    }
}

// Split anywhere, the object's chain (CBC, CFB) continues across calls until ResetChain, and
// EncryptCbc/DecryptCbc, called in between, continue the caller's chain and leave the object's alone.
TEST(Rijndael, ChainsContinueAcrossCalls) {
    std::mt19937 rng(14);
    const Bytes key = random_bytes(rng, 32), iv = random_bytes(rng, 16), plain = random_bytes(rng, 16 * 37);
    const Bytes cbc = keyed_run(key, iv, true, plain, CRijndael::CBC);
    for (bool tables : {false, true}) {
        for (int mode : {CRijndael::CBC, CRijndael::CFB}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + (tables ? " tables" : ""));
            const Bytes whole = keyed_run(key, iv, true, plain, mode);
            CRijndael r;
            r.UseTablesOnly(tables);
            r.MakeKey(key.data(), iv.data(), 32, 16);
            Bytes parts(plain.size(), 0), enc = parts, dec = parts, echain = iv, dchain = iv;
            for (size_t off = 0, n = 0; off < plain.size(); off += n) {
                n = std::min(plain.size() - off, size_t(16 * (1 + rng() % 12)));
                r.Encrypt(plain.data() + off, &parts[off], n, mode);
                r.EncryptCbc(plain.data() + off, &enc[off], n, &echain[0]);
                r.DecryptCbc(cbc.data() + off, &dec[off], n, &dchain[0]);
            }
            EXPECT_EQ(whole, parts);
            EXPECT_EQ(cbc, enc);
            EXPECT_EQ(plain, dec);
            EXPECT_EQ(cbc.substr(cbc.size() - 16), echain);
            EXPECT_EQ(echain, dchain);
            r.ResetChain();
            EXPECT_EQ(whole, run(r, true, plain, mode));
        }
    }
}

// Where the processor has the AES instructions, 16-byte blocks go through them; the table code must
// give the same bytes, and both must agree with OpenSSL, for every key size and mode, lengths that
// end inside and on the 8-block groups of the CBC decryption, and in place. (Without the
// instructions both objects run the tables and the comparison still holds.)
TEST(Rijndael, HardwareAndTablePathsMatchEachOtherAndOpenSsl) {
    std::mt19937 rng(15);
    const char* const modes[] = {"ecb", "cbc", "cfb"};  // by CRijndael's mode numbers
    RecordProperty("aes_instructions", CRijndael::HardwareAes() ? "yes" : "no");
    for (int k = 0; k < 3; k++) {
        for (int mode : {CRijndael::ECB, CRijndael::CBC, CRijndael::CFB}) {
            for (int i = 0; i < 30; i++) {
                const Bytes key = random_bytes(rng, size_t(16 + 8 * k)), iv = random_bytes(rng, 16);
                const size_t blocks = i < 17 ? size_t(i + 1) : 1 + rng() % 80;
                const Bytes plain = random_bytes(rng, 16 * blocks);
                SCOPED_TRACE("key " + std::to_string(key.size()) + " mode " + std::to_string(mode) +
                             " blocks " + std::to_string(blocks));
                const std::string name = "aes-" + std::to_string(key.size() * 8) + "-" + modes[mode];
                const Bytes theirs = openssl_run(EVP_get_cipherbyname(name.c_str()), key, iv, true, plain);
                for (bool tables : {false, true}) {
                    EXPECT_EQ(theirs, keyed_run(key, iv, true, plain, mode, 16, tables));
                    EXPECT_EQ(plain, keyed_run(key, iv, false, theirs, mode, 16, tables));
                }

                CRijndael hw;
                hw.MakeKey(key.data(), iv.data(), int(key.size()), 16);
                Bytes buf = theirs;
                hw.Decrypt(buf.data(), &buf[0], buf.size(), mode);
                EXPECT_EQ(plain, buf);
                hw.ResetChain();
                hw.Encrypt(buf.data(), &buf[0], buf.size(), mode);
                EXPECT_EQ(theirs, buf);
            }
        }
        // Single blocks: the public block calls take the fast path, DefEncryptBlock always the tables.
        const Bytes key = random_bytes(rng, size_t(16 + 8 * k)), plain = random_bytes(rng, 16);
        CRijndael r;
        r.MakeKey(key.data(), nullptr, int(key.size()), 16);
        Bytes a(16, 0), b(16, 0), back(16, 0);
        r.EncryptBlock(plain.data(), &a[0]);
        r.DefEncryptBlock(plain.data(), &b[0]);
        EXPECT_EQ(a, b);
        r.DecryptBlock(a.data(), &back[0]);
        EXPECT_EQ(plain, back);
        r.DefDecryptBlock(a.data(), &back[0]);
        EXPECT_EQ(plain, back);
        const Bytes iv(16, 0);  // unknown modes act as ECB
        EXPECT_EQ(keyed_run(key, iv, true, plain, CRijndael::ECB), keyed_run(key, iv, true, plain, 7));
    }
}

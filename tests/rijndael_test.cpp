// Tests of the Rijndael cipher: standard vectors, OpenSSL as a second implementation for AES, a
// textbook byte-oriented Rijndael for the 24- and 32-byte blocks OpenSSL lacks, and the failure rules.
#include "Rijndael.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <exception>
#include <random>
#include <string>
#include <vector>

using Velto::CRijndael;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes from_hex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back((unsigned char)std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

Bytes random_bytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& c : b) c = (unsigned char)rng();
    return b;
}

const char* cs(const Bytes& b) {
    return reinterpret_cast<const char*>(b.data());
}
char* cs(Bytes& b) {
    return reinterpret_cast<char*>(b.data());
}

Bytes run(CRijndael& c, bool encrypt, const Bytes& in, int mode) {
    Bytes out(in.size());
    if (encrypt)
        c.Encrypt(cs(in), cs(out), in.size(), mode);
    else
        c.Decrypt(cs(in), cs(out), in.size(), mode);
    return out;
}

Bytes keyed_run(const Bytes& key, const Bytes& iv, bool encrypt, const Bytes& in, int mode, int block = 16) {
    CRijndael c;
    c.MakeKey(cs(key), cs(iv), (int)key.size(), block);
    return run(c, encrypt, in, mode);
}

Bytes openssl_run(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& iv, bool encrypt,
                  const Bytes& in) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 32);
    int n = 0, tail = 0;
    EXPECT_EQ(1, EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.data(), encrypt ? 1 : 0));
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(1, EVP_CipherUpdate(ctx, out.data(), &n, in.data(), (int)in.size()));
    EXPECT_EQ(1, EVP_CipherFinal_ex(ctx, out.data() + n, &tail));
    EVP_CIPHER_CTX_free(ctx);
    out.resize(size_t(n + tail));
    return out;
}

// Textbook Rijndael (FIPS-197 generalised to Nb = 4, 6, 8), byte by byte, S-box derived on the spot.
struct ReferenceRijndael {
    unsigned char sbox[256];
    int nb, nk, nr;
    std::vector<unsigned char> w;  // round keys, 4 * nb * (nr + 1) bytes

    static unsigned char xtime(unsigned char a) {
        return (unsigned char)((a << 1) ^ ((a & 0x80) ? 0x1b : 0));
    }
    static unsigned char mul(unsigned char a, unsigned char b) {
        unsigned char p = 0;
        for (; b; b >>= 1, a = xtime(a))
            if (b & 1) p ^= a;
        return p;
    }

    ReferenceRijndael(const Bytes& key, int block_bytes) {
        for (int x = 0; x < 256; x++) {
            unsigned char inv = 0;
            for (int y = 1; y < 256 && x; y++)
                if (mul((unsigned char)x, (unsigned char)y) == 1) inv = (unsigned char)y;
            unsigned char s = inv;
            for (int k = 1; k < 5; k++) s ^= (unsigned char)((inv << k) | (inv >> (8 - k)));
            sbox[x] = s ^ 0x63;
        }
        nb = block_bytes / 4;
        nk = (int)key.size() / 4;
        nr = std::max(nb, nk) + 6;
        w.assign(key.begin(), key.end());
        unsigned char rcon = 1;
        for (int i = nk; i < nb * (nr + 1); i++) {
            unsigned char t[4] = {w[4 * (i - 1)], w[4 * (i - 1) + 1], w[4 * (i - 1) + 2], w[4 * (i - 1) + 3]};
            if (i % nk == 0) {
                unsigned char r0 = t[0];
                t[0] = sbox[t[1]] ^ rcon, t[1] = sbox[t[2]], t[2] = sbox[t[3]], t[3] = sbox[r0];
                rcon = xtime(rcon);
            } else if (nk > 6 && i % nk == 4) {
                for (auto& b : t) b = sbox[b];
            }
            for (int k = 0; k < 4; k++) w.push_back(w[4 * (i - nk) + k] ^ t[k]);
        }
    }

    Bytes encrypt(const Bytes& in) const {
        const int shift[4] = {0, 1, nb == 8 ? 3 : 2, nb == 8 ? 4 : 3};
        Bytes s(in);
        auto add_key = [&](int round) {
            for (int i = 0; i < 4 * nb; i++) s[i] ^= w[4 * nb * round + i];
        };
        add_key(0);
        for (int round = 1; round <= nr; round++) {
            for (auto& b : s) b = sbox[b];
            Bytes t(s);
            for (int r = 1; r < 4; r++)
                for (int c = 0; c < nb; c++) s[4 * c + r] = t[4 * ((c + shift[r]) % nb) + r];
            if (round != nr) {
                for (int c = 0; c < nb; c++) {
                    unsigned char* col = &s[4 * c];
                    unsigned char a0 = col[0], a1 = col[1], a2 = col[2], a3 = col[3];
                    col[0] = mul(a0, 2) ^ mul(a1, 3) ^ a2 ^ a3;
                    col[1] = a0 ^ mul(a1, 2) ^ mul(a2, 3) ^ a3;
                    col[2] = a0 ^ a1 ^ mul(a2, 2) ^ mul(a3, 3);
                    col[3] = mul(a0, 3) ^ a1 ^ a2 ^ mul(a3, 2);
                }
            }
            add_key(round);
        }
        return s;
    }
};

const int kSizes[] = {16, 24, 32};
const int kModes[] = {CRijndael::ECB, CRijndael::CBC, CRijndael::CFB};

}  // namespace

TEST(Rijndael, Fips197ExampleVectors) {
    struct Case {
        const char* key;
        const char* cipher;
    } cases[] = {
        {"000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {"000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
         "8ea2b7ca516745bfeafc49904b496089"},
    };
    const Bytes plain = from_hex("00112233445566778899aabbccddeeff");
    for (const Case& c : cases) {
        const Bytes key = from_hex(c.key);
        CRijndael r;
        r.MakeKey(cs(key), nullptr, (int)key.size(), 16);
        Bytes out(16), back(16);
        r.EncryptBlock(cs(plain), cs(out));
        EXPECT_EQ(from_hex(c.cipher), out) << c.key;
        r.DecryptBlock(cs(out), cs(back));
        EXPECT_EQ(plain, back) << c.key;
    }
}

TEST(Rijndael, BlocksMatchTextbookRijndaelForEveryKeyAndBlockSize) {
    std::mt19937 rng(11);
    for (int block : kSizes) {
        for (int keylen : kSizes) {
            const Bytes key = random_bytes(rng, size_t(keylen));
            const ReferenceRijndael ref(key, block);
            CRijndael r;
            r.MakeKey(cs(key), nullptr, keylen, block);
            EXPECT_EQ(std::max(keylen, block) / 4 + 6, r.GetRounds());
            for (int i = 0; i < 4; i++) {
                const Bytes plain = random_bytes(rng, size_t(block));
                Bytes out(plain.size()), back(plain.size());
                r.EncryptBlock(cs(plain), cs(out));
                EXPECT_EQ(ref.encrypt(plain), out) << "block " << block << " key " << keylen;
                r.DecryptBlock(cs(out), cs(back));
                EXPECT_EQ(plain, back) << "block " << block << " key " << keylen;
            }
        }
    }
}

TEST(Rijndael, RoundTripsInPlaceInEveryModeKeyAndBlockSize) {
    std::mt19937 rng(12);
    for (int block : kSizes) {
        for (int keylen : kSizes) {
            for (int mode : kModes) {
                const Bytes key = random_bytes(rng, size_t(keylen));
                const Bytes iv = random_bytes(rng, size_t(block));
                const Bytes plain = random_bytes(rng, size_t(block) * 5);
                const Bytes enc = keyed_run(key, iv, true, plain, mode, block);
                EXPECT_NE(plain, enc);
                // Decrypt in place: the chaining must read each input block before overwriting it.
                Bytes buf(enc);
                CRijndael r;
                r.MakeKey(cs(key), cs(iv), keylen, block);
                r.Decrypt(cs(buf), cs(buf), buf.size(), mode);
                EXPECT_EQ(plain, buf) << "block " << block << " key " << keylen << " mode " << mode;
            }
        }
    }
}

TEST(Rijndael, Aes256CbcAndCfbMatchOpenSsl) {
    std::mt19937 rng(13);
    struct Mode {
        int ours;
        const EVP_CIPHER* theirs;
    } modes[] = {{CRijndael::CBC, EVP_aes_256_cbc()}, {CRijndael::CFB, EVP_aes_256_cfb128()}};
    for (const Mode& m : modes) {
        for (int i = 0; i < 40; i++) {
            const Bytes key = random_bytes(rng, 32), iv = random_bytes(rng, 16);
            const Bytes plain = random_bytes(rng, 16 * (1 + rng() % 64));
            const Bytes theirs = openssl_run(m.theirs, key, iv, true, plain);
            EXPECT_EQ(theirs, keyed_run(key, iv, true, plain, m.ours)) << "mode " << m.ours;
            EXPECT_EQ(plain, keyed_run(key, iv, false, theirs, m.ours)) << "mode " << m.ours;
        }
    }
}

TEST(Rijndael, ChainContinuesAcrossCallsUntilReset) {
    std::mt19937 rng(14);
    const Bytes key = random_bytes(rng, 32), iv = random_bytes(rng, 16);
    const Bytes plain = random_bytes(rng, 64);
    for (int mode : {CRijndael::CBC, CRijndael::CFB}) {
        const Bytes whole = keyed_run(key, iv, true, plain, mode);
        CRijndael r;
        r.MakeKey(cs(key), cs(iv), 32, 16);
        Bytes parts(64);
        r.Encrypt(cs(plain), cs(parts), 16, mode);
        r.Encrypt(cs(plain) + 16, cs(parts) + 16, 48, mode);
        EXPECT_EQ(whole, parts);
        r.ResetChain();
        EXPECT_EQ(whole, run(r, true, plain, mode));
    }
}

TEST(Rijndael, CbcHidesRepeatedBlocksButEcbAndUnknownModesDoNot) {
    const Bytes key(32, 0x42), iv(16, 0x17);
    const Bytes plain(32, 'A');
    const Bytes cbc = keyed_run(key, iv, true, plain, CRijndael::CBC);
    EXPECT_NE(Bytes(cbc.begin(), cbc.begin() + 16), Bytes(cbc.begin() + 16, cbc.end()));
    EXPECT_EQ(plain, keyed_run(key, iv, false, cbc, CRijndael::CBC));

    const Bytes ecb = keyed_run(key, iv, true, plain, CRijndael::ECB);
    EXPECT_EQ(Bytes(ecb.begin(), ecb.begin() + 16), Bytes(ecb.begin() + 16, ecb.end()));
    EXPECT_EQ(ecb, keyed_run(key, iv, true, plain, 7));
    EXPECT_EQ(plain, keyed_run(key, iv, false, ecb, 7));
}

TEST(Rijndael, EncryptAndDecryptRejectLengthsThatAreNotWholeBlocks) {
    const Bytes key(32, 1), iv(32, 2), buf(64, 3);
    Bytes out(64);
    for (int block : kSizes) {
        CRijndael r;
        r.MakeKey(cs(key), cs(iv), 32, block);
        for (size_t n : {size_t(0), size_t(17), size_t(block) + 1}) {
            EXPECT_THROW(r.Encrypt(cs(buf), cs(out), n, CRijndael::CBC), std::exception) << n;
            EXPECT_THROW(r.Decrypt(cs(buf), cs(out), n, CRijndael::CBC), std::exception) << n;
        }
    }
}

TEST(Rijndael, EveryOperationRefusesToRunBeforeMakeKey) {
    char buf[32] = {0}, out[32];
    CRijndael r;
    EXPECT_THROW(r.Encrypt(buf, out, 16), std::exception);
    EXPECT_THROW(r.Decrypt(buf, out, 16), std::exception);
    EXPECT_THROW(r.EncryptBlock(buf, out), std::exception);
    EXPECT_THROW(r.DecryptBlock(buf, out), std::exception);
    EXPECT_THROW(r.DefEncryptBlock(buf, out), std::exception);
    EXPECT_THROW(r.DefDecryptBlock(buf, out), std::exception);
    EXPECT_THROW(r.Xor(buf, out), std::exception);
    EXPECT_STREQ("Object not Initialized", CRijndael::sm_szErrorMsg1);
    EXPECT_STREQ("Data not multiple of Block Size", CRijndael::sm_szErrorMsg2);
}

TEST(Rijndael, RejectedMakeKeyLeavesTheObjectAsItWas) {
    const Bytes key(32, 9), other(32, 8), iv(16, 0), plain(32, 5);
    CRijndael fresh;
    EXPECT_THROW(fresh.MakeKey(cs(key), cs(iv), 20, 16), std::exception);
    EXPECT_THROW(run(fresh, true, plain, CRijndael::ECB), std::exception);

    CRijndael r;
    r.MakeKey(cs(key), cs(iv), 32, 16);
    const Bytes before = run(r, true, plain, CRijndael::ECB);
    EXPECT_THROW(r.MakeKey(cs(other), cs(iv), 20, 16), std::exception);
    EXPECT_THROW(r.MakeKey(cs(other), cs(iv), 32, 20), std::exception);
    EXPECT_THROW(r.MakeKey(nullptr, cs(iv), 32, 16), std::exception);
    EXPECT_EQ(32, r.GetKeyLength());
    EXPECT_EQ(16, r.GetBlockSize());
    EXPECT_EQ(before, run(r, true, plain, CRijndael::ECB));
}

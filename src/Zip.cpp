// The payload envelope: zlib deflate, AES-256-CBC under the built-in key and IV, and Base64, plus the
// string wrappers fencode/fdecode. Called from host threads (record uploads built on demand) and from
// the background loop (message file, configuration file, uploads). The only shared object is the
// cipher keyed once with the built-in key, which calls only read; every call has its own chain block
// and buffers, so all of it is safe on any thread.
#include "Zip.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>

#include "Rijndael.h"
#include "Util.h"

namespace Velto {

// Never destroyed: the background thread may still encode while the host exits.
const std::string& base64_chars =
    *new std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");

namespace {

// Built-in cipher parameters of every enciphered file and payload; both ends of the wire share them.
const char kKey[] = "Tq4w&9Lm#p2Zr!x8Vc*b6Nk$d3Hs%j7Y";
const char kIv[] = "Pm3&e!Rz8qa%$wTn";
const int kKeyLen = 32;
const int kBlock = 16;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const unsigned char kNotBase64 = 255;

// Byte -> alphabet index, 255 for every byte outside the alphabet (including "=" and NUL).
constexpr std::array<unsigned char, 256> make_decode_table() {
    std::array<unsigned char, 256> table{};
    for (auto& v : table) v = kNotBase64;
    for (int i = 0; i < 64; i++)
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
    return table;
}
constexpr std::array<unsigned char, 256> kDecode = make_decode_table();

inline unsigned char decode_char(char c) {
    return kDecode[static_cast<unsigned char>(c)];
}

// The two characters of every 12-bit value: an encoder step is two lookups for three bytes.
struct PairTable {
    char pair[4096][2];
};
constexpr PairTable make_pair_table() {
    PairTable t{};
    for (int v = 0; v < 4096; v++) {
        t.pair[v][0] = kAlphabet[v >> 6];
        t.pair[v][1] = kAlphabet[v & 63];
    }
    return t;
}
constexpr PairTable kPairs = make_pair_table();

// The strict decoder's group of four is the OR of one lookup per place, each holding the alphabet
// index already shifted into its 6 bits of the 24-bit group. A byte outside the alphabet (NUL, "=",
// anything else) counts as index 63: the decoder uses only the low six bits of a character's value,
// and texts written by earlier releases decode with exactly those bits. "=" in the third or fourth place
// also sets bit 31 or 30, which ends the decoding there.
const uint32_t kPadThird = 1u << 31, kPadFourth = 1u << 30;
struct GroupTables {
    uint32_t place[4][256];
};
constexpr GroupTables make_group_tables() {
    GroupTables t{};
    for (int c = 0; c < 256; c++) {
        const uint32_t d = kDecode[size_t(c)] & 63u;
        t.place[0][c] = d << 18;
        t.place[1][c] = d << 12;
        t.place[2][c] = (d << 6) | (c == '=' ? kPadThird : 0u);
        t.place[3][c] = d | (c == '=' ? kPadFourth : 0u);
    }
    return t;
}
constexpr GroupTables kGroup = make_group_tables();

inline uint32_t decode_group(const unsigned char* p) {
    return kGroup.place[0][p[0]] | kGroup.place[1][p[1]] | kGroup.place[2][p[2]] | kGroup.place[3][p[3]];
}

size_t round_up_to_block(size_t len) {
    return (len + kBlock - 1) / kBlock * kBlock;
}

size_t base64_length(size_t n) {
    return (n + 2) / 3 * 4;
}

// Writes the Base64 text of n bytes to out (base64_length(n) characters, no terminator).
char* base64_encode_to(const unsigned char* in, size_t n, char* out) {
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        const unsigned v = (unsigned(in[i]) << 16) | (unsigned(in[i + 1]) << 8) | unsigned(in[i + 2]);
        memcpy(out, kPairs.pair[v >> 12], 2);
        memcpy(out + 2, kPairs.pair[v & 0xfff], 2);
        out += 4;
    }
    if (i < n) {
        const bool two = i + 1 < n;
        const unsigned v = (unsigned(in[i]) << 16) | (two ? unsigned(in[i + 1]) << 8 : 0u);
        *out++ = kAlphabet[(v >> 18) & 63];
        *out++ = kAlphabet[(v >> 12) & 63];
        *out++ = two ? kAlphabet[(v >> 6) & 63] : '=';
        *out++ = '=';
    }
    return out;
}

// The cipher under the built-in key, expanded once for the process and never destroyed (the
// background thread may still encode while the host exits). Only read afterwards.
const CRijndael& builtin_cipher() {
    static const CRijndael* const cipher = [] {
        CRijndael* c = new CRijndael;
        c->MakeKey(kKey, kIv, kKeyLen, kBlock);
        return c;
    }();
    return *cipher;
}

// Enciphers len bytes padded to whole blocks (value 16 - len % 16; nothing added when len is already
// a multiple of 16) and hands the cipher text to the sink in order, kPiece bytes at a time (less for
// the last piece). Only the padded last block is copied; the others go from data straight through the
// cipher into the sink's buffer.
const size_t kPiece = 6 * kBlock;  // a multiple of 3 as well: Base64 of a piece needs no padding

template <class Sink>
void encipher(const unsigned char* data, size_t len, Sink& sink) {
    const CRijndael& cipher = builtin_cipher();
    char chain[kBlock];
    memcpy(chain, kIv, kBlock);
    const char* in = reinterpret_cast<const char*>(data);
    const size_t whole = len / kBlock * kBlock, rest = len - whole;
    char last[kBlock];
    if (rest != 0) {
        memcpy(last, in + whole, rest);
        memset(last + rest, int(kBlock - rest), kBlock - rest);
    }
    const size_t n = whole + (rest != 0 ? kBlock : 0);
    for (size_t off = 0; off < n;) {
        char* piece = sink.buffer();
        const size_t size = std::min(kPiece, n - off);
        const size_t direct = off < whole ? std::min(size, whole - off) : 0;
        if (direct != 0) cipher.EncryptCbc(in + off, piece, direct, chain);
        if (direct < size) cipher.EncryptCbc(last, piece + direct, kBlock, chain);
        sink.take(size);
        off += size;
    }
    sink.finish();
}

// Base64 text into out. Each piece is encoded only after the next one has been enciphered: CBC
// encryption is one long dependency chain that leaves most of the core idle, and encoding the
// finished piece while the next one is under way hides part of the Base64 work behind it.
class Base64Sink {
  public:
    explicit Base64Sink(char* out) : out_(out) {}
    char* buffer() { return pieces_[next_]; }
    void take(size_t n) {
        finish();
        pending_ = n;
        next_ ^= 1;
    }
    void finish() {
        if (pending_ == 0) return;
        out_ = base64_encode_to(reinterpret_cast<const unsigned char*>(pieces_[next_ ^ 1]), pending_, out_);
        pending_ = 0;
    }
    char* end() const { return out_; }

  private:
    char* out_;
    char pieces_[2][kPiece];
    int next_ = 0;
    size_t pending_ = 0;
};

// The raw cipher bytes into out.
class RawSink {
  public:
    explicit RawSink(char* out) : out_(out) {}
    char* buffer() { return out_; }
    void take(size_t n) { out_ += n; }
    void finish() {}

  private:
    char* out_;
};

// Capacity AES_Decode needs in out for a Base64 text of b64_len characters: the decoder yields at most
// three bytes per started group of four, plus the terminating zero.
size_t decoded_capacity(size_t b64_len) {
    return (b64_len + 3) / 4 * 3 + 1;
}

}  // namespace

int AES_Encode(const unsigned char* data, int len, unsigned char* out) {
    if (data == nullptr || out == nullptr || len <= 0 || len > INT_MAX - 32) return -1;
    Base64Sink sink(reinterpret_cast<char*>(out));
    encipher(data, size_t(len), sink);
    *sink.end() = 0;
    return 0;
}

int AES_Encode2(const unsigned char* data, int len, unsigned char* out, int& outLen) {
    if (data == nullptr || out == nullptr || len <= 0 || len > INT_MAX - 32) return -1;
    RawSink sink(reinterpret_cast<char*>(out));
    encipher(data, size_t(len), sink);
    outLen = int(round_up_to_block(size_t(len)));
    return 0;
}

// out must hold decoded_capacity(strlen(b64)) bytes: 3 * ceil(strlen(b64) / 4) + 1. The text is
// decoded into out and deciphered there in place.
int AES_Decode(const char* b64, unsigned char* out) {
    if (b64 == nullptr || out == nullptr) return -1;
    const int m = base64_decode(b64, out);
    char* text = reinterpret_cast<char*>(out);
    if (m == 0 || m % kBlock != 0) {
        out[0] = 0;  // out reads as "" when the cipher refuses the length
        throw std::exception();
    }
    char chain[kBlock];
    memcpy(chain, kIv, kBlock);
    builtin_cipher().DecryptCbc(text, text, size_t(m), chain);
    out[m] = 0;
    return 0;
}

std::string base64_encode(const unsigned char* bytes, unsigned int len) {
    if (bytes == nullptr || len == 0) return std::string();
    std::string text(base64_length(len), '\0');
    base64_encode_to(bytes, len, &text[0]);
    return text;
}

// Groups of four up to the terminating zero. A short last group reads the terminator (as index 63) in
// place of its missing characters and ends the decoding, so nothing past the text is ever read.
int base64_decode(const char* text, unsigned char* out) {
    if (text == nullptr || out == nullptr) return 0;
    const size_t len = strlen(text);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    size_t written = 0;
    for (size_t i = 0; i < len; i += 4) {
        uint32_t v;
        if (i + 4 <= len) {
            v = decode_group(p + i);
        } else {
            unsigned char last[4] = {0, 0, 0, 0};
            memcpy(last, p + i, len - i);
            v = decode_group(last);
        }
        out[written] = static_cast<unsigned char>(v >> 16);
        if (v & (kPadThird | kPadFourth)) {
            if (v & kPadThird) return int(written + 1);
            out[written + 1] = static_cast<unsigned char>(v >> 8);
            return int(written + 2);
        }
        out[written + 1] = static_cast<unsigned char>(v >> 8);
        out[written + 2] = static_cast<unsigned char>(v);
        written += 3;
    }
    return int(written);
}

std::string base64_decode(const std::string& text) {
    size_t end = 0;
    while (end < text.size() && decode_char(text[end]) != kNotBase64) end++;
    const size_t groups = end / 4;
    std::string bytes(groups * 3, '\0');
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t g = 0; g < groups; g++) {
        const uint32_t v = decode_group(p + 4 * g);  // alphabet characters only: no flags
        bytes[3 * g] = static_cast<char>(v >> 16);
        bytes[3 * g + 1] = static_cast<char>(v >> 8);
        bytes[3 * g + 2] = static_cast<char>(v);
    }
    return bytes;
}

int Zip(const char* text, unsigned char* out, int& len) {
    if (text == nullptr || out == nullptr || len <= 0) return -1;
    uLongf outLen = uLongf(len);
    if (compress(out, &outLen, reinterpret_cast<const Bytef*>(text), uLong(strlen(text))) != Z_OK) return -1;
    len = int(outLen);
    return 0;
}

int Zip(const char* /*text*/, int& /*len*/) {
    return 0;
}

std::string unZip(const unsigned char* data, int len) {
    if (data == nullptr || len <= 0) return std::string();
    // The inflated size is capped at 10 * len + 100; larger results fail with Z_BUF_ERROR.
    uLongf outLen = uLongf(10) * uLongf(len) + 100;
    std::unique_ptr<unsigned char[]> out(new unsigned char[outLen]());
    if (uncompress(out.get(), &outLen, data, uLong(len)) != Z_OK) return std::string();
    const char* text = reinterpret_cast<const char*>(out.get());
    return std::string(text, strnlen(text, outLen));
}

namespace Util {

std::string fencode(const std::string& s) {
    return fencode(s.data(), static_cast<long long>(s.size()));
}

std::string fencode(const char* data, long long len) {
    if (data == nullptr || len < 1 || len > INT_MAX - 32) return std::string();
    std::string text(base64_length(round_up_to_block(size_t(len))), '\0');
    Base64Sink sink(&text[0]);
    encipher(reinterpret_cast<const unsigned char*>(data), size_t(len), sink);
    return text;
}

std::string fdecode(const std::string& s) {
    if (s.empty()) return std::string();
    std::string text(decoded_capacity(strlen(s.c_str())), '\0');
    AES_Decode(s.c_str(), reinterpret_cast<unsigned char*>(&text[0]));
    size_t n = strlen(text.c_str());
    // Padding is recognised by value, not counted: any trailing byte that reads as a signed char <= 15
    // goes, which also takes the tail of a trailing non-ASCII character. The first byte always stays.
    while (n > 1 && static_cast<signed char>(text[n - 1]) <= 15) n--;
    text.resize(n);
    return text;
}

}  // namespace Util
}  // namespace Velto

// The payload envelope: zlib deflate, AES-256-CBC under the built-in key and IV, and Base64, plus the
// string wrappers fencode/fdecode. Called from host threads (record uploads built on demand) and from
// the background loop (message file, configuration file, uploads); nothing here keeps state, every
// call makes its own cipher object and buffers.
#include "Zip.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>

#include "Rijndael.h"
#include "Util.h"

namespace Velto {

// Never destroyed: the background thread may still encode while the host exits.
const std::string& base64_chars = *new std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");

namespace {

// Built-in cipher parameters of every enciphered file and payload; both ends of the wire share them.
const char kKey[] = "Tq4w&9Lm#p2Zr!x8Vc*b6Nk$d3Hs%j7Y";
const char kIv[] = "Pm3&e!Rz8qa%$wTn";
const int kKeyLen = 32;
const int kBlock = 16;

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
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

size_t round_up_to_block(size_t len) {
    return (len + kBlock - 1) / kBlock * kBlock;
}

size_t base64_length(size_t n) {
    return (n + 2) / 3 * 4;
}

// Writes the Base64 text of n bytes to out (base64_length(n) characters, no terminator).
void base64_encode_to(const unsigned char* in, size_t n, char* out) {
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        const unsigned v = (unsigned(in[i]) << 16) | (unsigned(in[i + 1]) << 8) | unsigned(in[i + 2]);
        *out++ = kAlphabet[(v >> 18) & 63];
        *out++ = kAlphabet[(v >> 12) & 63];
        *out++ = kAlphabet[(v >> 6) & 63];
        *out++ = kAlphabet[v & 63];
    }
    if (i < n) {
        const bool two = i + 1 < n;
        const unsigned v = (unsigned(in[i]) << 16) | (two ? unsigned(in[i + 1]) << 8 : 0u);
        *out++ = kAlphabet[(v >> 18) & 63];
        *out++ = kAlphabet[(v >> 12) & 63];
        *out++ = two ? kAlphabet[(v >> 6) & 63] : '=';
        *out++ = '=';
    }
}

// Copies len bytes, pads them to whole blocks (value 16 - len % 16; nothing added when len is already
// a multiple of 16) and enciphers them in place with a fresh cipher. Returns the enciphered length.
size_t pad_and_encipher(const unsigned char* data, int len, std::unique_ptr<char[]>& work) {
    const size_t n = round_up_to_block(size_t(len));
    work.reset(new char[size_t(len) + 32]);
    memcpy(work.get(), data, size_t(len));
    const int pad = kBlock - len % kBlock;
    memset(work.get() + len, pad, size_t(32));
    CRijndael cipher;
    cipher.MakeKey(kKey, kIv, kKeyLen, kBlock);
    cipher.Encrypt(work.get(), work.get(), n, CRijndael::CBC);
    return n;
}

// Capacity AES_Decode needs in out for a Base64 text of b64_len characters: the decoder yields at most
// three bytes per started group of four, plus the terminating zero.
size_t decoded_capacity(size_t b64_len) {
    return (b64_len + 3) / 4 * 3 + 1;
}

}  // namespace

int AES_Encode(const unsigned char* data, int len, unsigned char* out) {
    if (data == nullptr || out == nullptr || len <= 0 || len > INT_MAX - 32) return -1;
    std::unique_ptr<char[]> work;
    const size_t n = pad_and_encipher(data, len, work);
    char* text = reinterpret_cast<char*>(out);
    base64_encode_to(reinterpret_cast<const unsigned char*>(work.get()), n, text);
    text[base64_length(n)] = 0;
    return 0;
}

int AES_Encode2(const unsigned char* data, int len, unsigned char* out, int& outLen) {
    if (data == nullptr || out == nullptr || len <= 0 || len > INT_MAX - 32) return -1;
    std::unique_ptr<char[]> work;
    const size_t n = pad_and_encipher(data, len, work);
    memcpy(out, work.get(), n);
    outLen = int(n);
    return 0;
}

// out must hold decoded_capacity(strlen(b64)) bytes: 3 * ceil(strlen(b64) / 4) + 1.
int AES_Decode(const char* b64, unsigned char* out) {
    if (b64 == nullptr || out == nullptr) return -1;
    out[0] = 0;
    const size_t len = strlen(b64);
    std::unique_ptr<unsigned char[]> work(new unsigned char[2 * len + 100]);
    const int m = base64_decode(b64, work.get());
    CRijndael cipher;
    cipher.MakeKey(kKey, kIv, kKeyLen, kBlock);
    cipher.Decrypt(reinterpret_cast<const char*>(work.get()), reinterpret_cast<char*>(out), size_t(m),
                   CRijndael::CBC);
    out[m] = 0;
    return 0;
}

std::string base64_encode(const unsigned char* bytes, unsigned int len) {
    if (bytes == nullptr || len == 0) return std::string();
    std::string text(base64_length(len), '\0');
    base64_encode_to(bytes, len, &text[0]);
    return text;
}

// Groups of four up to the terminating zero. A short last group reads the terminator (code 255) in
// place of its missing characters and ends the decoding, so nothing past the text is ever read.
int base64_decode(const char* text, unsigned char* out) {
    if (text == nullptr || out == nullptr) return 0;
    int written = 0;
    const char* p = text;
    while (*p != 0) {
        char c[4];
        bool cut = false;
        for (int k = 0; k < 4; k++) {
            c[k] = cut ? '\0' : p[k];
            if (c[k] == 0) cut = true;
        }
        const unsigned d0 = decode_char(c[0]), d1 = decode_char(c[1]);
        const unsigned d2 = decode_char(c[2]), d3 = decode_char(c[3]);
        out[written++] = static_cast<unsigned char>((d0 << 2) | ((d1 >> 4) & 3));
        if (c[2] == '=') return written;
        out[written++] = static_cast<unsigned char>((d1 << 4) | ((d2 >> 2) & 15));
        if (c[3] == '=') return written;
        out[written++] = static_cast<unsigned char>((d2 << 6) | (d3 & 63));
        if (cut) break;
        p += 4;
    }
    return written;
}

std::string base64_decode(const std::string& text) {
    size_t end = 0;
    while (end < text.size() && decode_char(text[end]) != kNotBase64) end++;
    const size_t groups = end / 4;
    std::string bytes;
    bytes.reserve(groups * 3);
    for (size_t g = 0; g < groups; g++) {
        const char* p = text.data() + 4 * g;
        const unsigned v = (unsigned(decode_char(p[0])) << 18) | (unsigned(decode_char(p[1])) << 12) |
                           (unsigned(decode_char(p[2])) << 6) | unsigned(decode_char(p[3]));
        bytes.push_back(static_cast<char>(v >> 16));
        bytes.push_back(static_cast<char>(v >> 8));
        bytes.push_back(static_cast<char>(v));
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
    const size_t needed = base64_length(round_up_to_block(size_t(len))) + 1;
    std::string text(std::max<size_t>({100, 2 * size_t(len), needed}), '\0');
    if (AES_Encode(reinterpret_cast<const unsigned char*>(data), int(len),
                   reinterpret_cast<unsigned char*>(&text[0])) != 0)
        return std::string();
    text.resize(strlen(text.c_str()));
    return text;
}

std::string fdecode(const std::string& s) {
    if (s.empty()) return std::string();
    const size_t len = strlen(s.c_str());
    std::string text(std::max<size_t>({100, 2 * s.size(), decoded_capacity(len)}), '\0');
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

// The payload envelope: optional zlib compression, AES-256-CBC under the built-in key and IV, and
// Base64. Everything the library writes enciphered to disk or sends to the server passes through here.
// Stateless apart from the cipher keyed once with the built-in key, which calls only read: all
// functions are safe on any thread.
#ifndef VELTO_ZIP_H
#define VELTO_ZIP_H

#include <string>

namespace Velto {

extern const std::string& base64_chars;

// Pads (value 16 - len % 16, no extra block when len is a multiple of 16), enciphers and writes the
// Base64 text with its terminating zero to out, which must hold 4 * ceil(n / 3) + 1 bytes where n is
// len rounded up to 16 (and at least n bytes). Returns 0, or -1 for null pointers or len <= 0.
int AES_Encode(const unsigned char* data, int len, unsigned char* out);
// As AES_Encode without Base64: out (n bytes) receives the raw enciphered bytes, outLen = n.
int AES_Encode2(const unsigned char* data, int len, unsigned char* out, int& outLen);
// Decodes Base64 b64 and deciphers the m bytes into out (m + 1 bytes, zero-terminated); padding is
// left in place. out must hold 3 * ceil(strlen(b64) / 4) + 1 bytes, the most the decoder can yield. Returns 0
// or -1 for null pointers; throws when m is 0 or not a multiple of 16.
int AES_Decode(const char* b64, unsigned char* out);

std::string base64_encode(const unsigned char* bytes, unsigned int len);
// Strict decoder used by AES_Decode: groups of four, stops at "=" in the third or fourth place;
// returns the number of bytes written to out (at most 3 * ceil(strlen(text) / 4)).
int base64_decode(const char* text, unsigned char* out);
// Tolerant form: stops at "=" or at any byte outside the alphabet.
std::string base64_decode(const std::string& text);

// Deflates strlen(text) bytes into out; len holds the capacity on entry and the compressed length on
// return. Returns 0, or -1 when zlib fails (for example when the capacity is too small).
int Zip(const char* text, unsigned char* out, int& len);
// Unfinished overload kept for the interface: does nothing, returns 0.
int Zip(const char* text, int& len);
// Inflates len bytes (output up to 10 * len + 100 bytes, cut at its first zero); "" on failure.
std::string unZip(const unsigned char* data, int len);

}  // namespace Velto

#endif

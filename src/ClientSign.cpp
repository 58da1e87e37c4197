// The portable rules of the client id behind "did": which source wins, when a stored id is good
// enough, how a new one is stored and how the result is wrapped and cleaned. Runs once per
// data_init on the host's thread; the platform supplies the leaves (ClientIdLeaves).
#include "ClientSign.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstdio>

namespace Velto {

namespace {

// The library's own key of the machine-id hash. Changing it changes every machine's "did".
const unsigned char kPlatformIdKey[32] = {0x5e, 0x1b, 0xc4, 0x07, 0x9a, 0x3d, 0x62, 0xf1, 0x28, 0xb5, 0x4e,
                                          0x90, 0xd7, 0x13, 0x6a, 0xcc, 0x81, 0x3f, 0xe2, 0x55, 0x0b, 0x9c,
                                          0x74, 0x2d, 0xa6, 0x19, 0xf8, 0x43, 0xbe, 0x67, 0x0d, 0x92};

// A stored id shorter than this counts as no id at all.
const size_t kMinStoredIdLength = 10;

// Length as the platform's string type counts it (UTF-16 code units of the UTF-8 text): one per
// character, two for characters beyond the basic plane, so that ids stored by other applications
// of the maker are judged the same way here.
size_t utf16_length(const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) {
        if ((c & 0xC0) == 0x80) continue;  // continuation byte
        n += c >= 0xF0 ? 2 : 1;
    }
    return n;
}

bool is_unprintable(char c) {
    return static_cast<signed char>(c) < 33 || c == 127;
}

}  // namespace

std::string keyed_platform_id(const std::string& source) {
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!HMAC(EVP_sha256(), kPlatformIdKey, sizeof kPlatformIdKey,
              reinterpret_cast<const unsigned char*>(source.data()), source.size(), mac, &len) ||
        len < 16)
        return "";
    mac[6] = static_cast<unsigned char>((mac[6] & 0x0F) | 0x40);  // version 4
    mac[8] = static_cast<unsigned char>((mac[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char text[37];
    char* at = text;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) *at++ = '-';
        at += std::snprintf(at, 3, "%02X", mac[i]);
    }
    return std::string(text, 36);
}

std::string create_client_id(ClientIdLeaves& leaves) {
    std::string uuid = leaves.platform_uuid();
    if (!uuid.empty()) return "{" + uuid + "}";
    return "{[" + leaves.random_uuid() + "]}";
}

std::string client_sign(ClientIdLeaves& leaves) {
    bool have_file = leaves.prefs_exists();
    if (have_file) {
        std::string stored = leaves.prefs_client_id();
        if (utf16_length(stored) >= kMinStoredIdLength) return stored;
    }
    std::string id = create_client_id(leaves);
    if (have_file) {
        leaves.prefs_set_client_id(id);
    } else {
        leaves.prefs_create(id);
    }
    return id;
}

std::string wrap_client_id(const std::string& id) {
    if (!id.empty() && id[0] == '{') return id;
    return "{" + id + "}";
}

std::string sanitize_client_sign(const std::string& id) {
    if (id.size() < 2) return id;
    std::string clean(id);
    for (char& c : clean) {
        if (is_unprintable(c)) c = '0';
    }
    return clean;
}

}  // namespace Velto

// The portable rules of the client id behind "did": which source wins, when a stored id is good
// enough, how a new one is stored and how the result is wrapped and cleaned. Runs once per
// data_init on the host's thread; the platform supplies the leaves (ClientIdLeaves).
#include "ClientSign.h"

namespace Velto {

namespace {

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

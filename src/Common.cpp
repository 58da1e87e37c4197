// The out-of-line helpers of Common.h. Stateless; any thread.
#include "Common.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>

namespace Velto {

namespace {

// The two flavours of strerror_r (GNU returns the text, XSI fills the buffer) behind one call.
// Only the overload of the C library's flavour is called.
[[maybe_unused]] inline const char* strerror_result(const char* text, const char*) {
    return text;
}
[[maybe_unused]] inline const char* strerror_result(int, const char* buf) {
    return buf;
}

}  // namespace

bool strip_initial(std::string& item) {
    if (!is_initial(item)) return false;
    item.erase(0, kInitPrefixLen);
    return true;
}

std::string set_aside_name(const std::string& guid, long long time) {
    return kSetAsidePrefix + guid + std::to_string(time);
}

bool parse_set_aside_name(const std::string& name, std::string& guid, long long& time) {
    if (!starts_with(name, kSetAsidePrefix)) return false;
    const size_t brace = name.find('}');
    if (brace == std::string::npos || brace < kSetAsidePrefixLen + 1) return false;
    guid = name.substr(kSetAsidePrefixLen, brace - kSetAsidePrefixLen + 1);
    time = std::strtoll(name.c_str() + brace + 1, nullptr, 10);
    return true;
}

std::string errno_text(int err) {
    char buf[256] = {0};
    return strerror_result(strerror_r(err, buf, sizeof(buf)), buf);
}

bool write_all(int fd, const char* data, size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(fd, data, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        data += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

}  // namespace Velto

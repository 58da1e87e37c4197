// Session ids of the records. Used only under the API lock (record calls, data_changestate).
#include "Session.h"

#include <cstdint>

#include "Config.h"
#include "OsApi.h"

namespace Velto {

namespace {

// The idle time is compared as a floating-point difference against an unsigned time-out, so a
// negative configured time-out never expires a session.
bool idle_longer_than(long long now, long long last, unsigned long long timeout) {
    return static_cast<double>(now - last) > static_cast<double>(timeout);
}

}  // namespace

Session::Session() : sid_(get_guid()), last_(os_time()), bg_(0), tmout_(kBuiltinTimeout) {}

std::string Session::GetSID(long long now) {
    // The time-out is taken from the configuration once it is there, and never read again.
    if (tmout_ == kBuiltinTimeout && Config::obj_->has("SESSION_TMOUT")) {
        int32_t configured = static_cast<int32_t>(Config::obj_->get_int("SESSION_TMOUT"));
        tmout_ = static_cast<unsigned long long>(static_cast<long long>(configured));
    }
    if (bg_ == 0 && idle_longer_than(now, last_, tmout_)) sid_ = get_guid();
    last_ = now;
    return sid_;
}

bool Session::ChangeState(int foreground) {
    long long wanted_bg = foreground == 0 ? 1 : 0;
    if (wanted_bg == bg_) return false;
    long long now = os_time();
    if (bg_ != 0 && idle_longer_than(now, last_, tmout_)) sid_ = get_guid();
    bg_ = wanted_bg;
    last_ = now;
    return true;
}

}  // namespace Velto

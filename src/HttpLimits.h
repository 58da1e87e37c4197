// What the two HTTP clients (HttpRaw.cpp, HttpCurl.cpp) share: the bound of a reply and the time
// limits of a transfer. Internal to the transport.
#ifndef VELTO_HTTPLIMITS_H
#define VELTO_HTTPLIMITS_H

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace Velto {
namespace http {

// Replies are small JSON objects; a server that keeps streaming must not grow the reply without end.
const size_t kMaxReply = 8u << 20;
// No transfer may hold the background thread for ever, whatever CON_TIMEOUT says.
const long long kMinTransferMs = 1000;

inline long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline long long phase_limit_ms(unsigned int timeout_ms) {
    return std::max(kMinTransferMs, static_cast<long long>(timeout_ms));
}

// A phase (connecting, sending, a pause in the reply) may be quiet for CON_TIMEOUT, at least a second.
inline bool timed_out(long long since, unsigned int timeout_ms) {
    return now_ms() - since >= phase_limit_ms(timeout_ms);
}

// The hard bound of one whole transfer (connect, send and receive together): twice the configured
// time-out, the same bound as libcurl's whole-transfer time-out, and never less than a second.
class Deadline {
  public:
    explicit Deadline(unsigned int timeout_ms)
        : end_(std::chrono::steady_clock::now() +
               std::chrono::milliseconds(std::max(kMinTransferMs, 2LL * timeout_ms))) {}
    bool passed() const { return std::chrono::steady_clock::now() >= end_; }
    long long left_ms() const {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
        return std::max(0LL, static_cast<long long>(left.count()));
    }

  private:
    std::chrono::steady_clock::time_point end_;
};

// How long the next wait of a phase that began at since may last: until the phase's quiet time or
// the transfer's deadline, whichever comes first.
inline int wait_budget_ms(long long since, unsigned int timeout_ms, const Deadline& deadline) {
    const long long phase_left = since + phase_limit_ms(timeout_ms) - now_ms();
    return static_cast<int>(std::max(0LL, std::min(phase_left, deadline.left_ms())));
}

}  // namespace http
}  // namespace Velto

#endif

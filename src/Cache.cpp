// The pending queue between the host's threads (record calls) and the background loop.
#include "Cache.h"

#include <utility>

#include "Log.h"
#include "Thread.h"

namespace Velto {

namespace {
const size_t kFirstRing = 1024;  // the record calls keep about 1000 waiting at most
}  // namespace

void Cache::reset() {
    m_.init();
    MutexLock hold(m_);
    for (std::string& s : ring_) std::string().swap(s);
    head_ = size_ = 0;
    count_.store(0);
}

void Cache::put(const std::string& rec) {
    put(std::string(rec));
}

// Doubles the ring, the records staying in their order.
void Cache::grow() {
    std::vector<std::string> bigger(ring_.empty() ? kFirstRing : ring_.size() * 2);
    for (size_t i = 0; i < size_; ++i) bigger[i] = std::move(ring_[(head_ + i) % ring_.size()]);
    ring_.swap(bigger);
    head_ = 0;
}

void Cache::put(std::string&& rec) {
    try {
        MutexLock hold(m_);
        if (size_ == ring_.size()) grow();
        ring_[(head_ + size_) % ring_.size()] = std::move(rec);
        ++size_;
        // Sequentially consistent, and before the doorbell's look: a loop that has armed the bell
        // either is rung or sees the count.
        count_.store(static_cast<long long>(size_));
    } catch (...) {
        LOGW << "Exception, Cache::put" << LEND;
        return;
    }
    doorbell().ring();
}

std::string Cache::get() {
    try {
        MutexLock hold(m_);
        if (size_ == 0) return std::string();
        std::string rec = std::move(ring_[head_]);
        head_ = (head_ + 1) % ring_.size();
        --size_;
        count_.store(static_cast<long long>(size_), std::memory_order_relaxed);
        return rec;
    } catch (...) {
    }
    LOGW << "Exception, Cache::get" << LEND;
    return std::string();
}

bool Cache::lock() {
    return m_.lock();
}

void Cache::unlock() {
    m_.unlock();
}

}  // namespace Velto

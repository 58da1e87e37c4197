// The pending queue between the host's threads (record calls) and the background loop.
#include "Cache.h"

#include <utility>

#include "Log.h"

namespace Velto {

void Cache::reset() {
    m_.init();
    MutexLock hold(m_);
    items_.clear();
    count_ = 0;
}

void Cache::put(const std::string& rec) { put(std::string(rec)); }

void Cache::put(std::string&& rec) {
    try {
        MutexLock hold(m_);
        items_.push_back(std::move(rec));
        ++count_;
        return;
    } catch (...) {
    }
    LOGW << "Exception, Cache::put" << LEND;
}

std::string Cache::get() {
    try {
        MutexLock hold(m_);
        if (items_.empty()) return std::string();
        std::string rec = std::move(items_.front());
        items_.pop_front();
        --count_;
        return rec;
    } catch (...) {
    }
    LOGW << "Exception, Cache::get" << LEND;
    return std::string();
}

long long Cache::count() {
    MutexLock hold(m_);
    return count_;
}

bool Cache::lock() { return m_.lock(); }

void Cache::unlock() { m_.unlock(); }

}  // namespace Velto

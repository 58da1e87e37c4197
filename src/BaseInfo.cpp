// The base-information store: fields every record copies. Any thread; each access under its mutex.
#include "BaseInfo.h"

#include "Thread.h"

namespace Velto {

void BaseInfo::init_mutex() {
    if (mutex_inited_) return;
    m_.init();
    mutex_inited_ = true;
}

void BaseInfo::clear() {
    MutexLock hold(m_);
    map_.clear();
}

void BaseInfo::set(const std::string& key, const std::string& value) {
    MutexLock hold(m_);
    map_[key] = value;
}

void BaseInfo::copy(StrMap& out) {
    MutexLock hold(m_);
    out = map_;
}

std::string BaseInfo::operator[](const std::string& key) {
    MutexLock hold(m_);
    return map_[key];
}

size_t BaseInfo::count() {
    MutexLock hold(m_);
    return map_.size();
}

bool BaseInfo::wait(int seconds) {
    for (int i = 0; i < seconds; ++i) {
        if (count() >= kComplete) break;
        pause_ms(1000);  // records keep reaching the file meanwhile
    }
    return count() >= kComplete;
}

}  // namespace Velto

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
    changed();
}

void BaseInfo::set(const std::string& key, const std::string& value) {
    MutexLock hold(m_);
    map_[key] = value;
    changed();
}

void BaseInfo::copy(StrMap& out) {
    MutexLock hold(m_);
    out = map_;
}

std::string BaseInfo::operator[](const std::string& key) {
    MutexLock hold(m_);
    auto it = map_.find(key);
    if (it != map_.end()) return it->second;
    map_.emplace(key, std::string());
    changed();
    return std::string();
}

size_t BaseInfo::count() {
    MutexLock hold(m_);
    return map_.size();
}

void BaseInfo::refresh(BaseView& view) {
    if (view.version == version_.load(std::memory_order_acquire)) return;
    MutexLock hold(m_);
    view.version = version_.load(std::memory_order_relaxed);
    view.count = map_.size();
    view.json.clear();
    view.fields.clear();
    for (const auto& kv : map_) {
        if (kv.second.empty()) continue;  // left out of records, like to_json does
        if (!view.json.empty()) view.json += ',';
        BaseView::Field f;
        f.key = kv.first;
        f.begin = view.json.size();
        view.json += '"';
        view.json += kv.first;
        view.json += "\":\"";
        view.json += kv.second;
        view.json += '"';
        f.end = view.json.size();
        view.fields.push_back(std::move(f));
    }
}

bool BaseInfo::wait(int seconds) {
    for (int i = 0; i < seconds; ++i) {
        if (count() >= kComplete) break;
        pause_ms(1000);  // records keep reaching the file meanwhile
    }
    return count() >= kComplete;
}

}  // namespace Velto

// The base information: facts about the product, installation and system that every record
// carries. One process-wide object, g_base_info, filled by data_init and data_base_info(2)/ext and
// copied by every record call; the configuration fetch and file uploads wait for it to be complete.
#ifndef VELTO_BASEINFO_H
#define VELTO_BASEINFO_H

#include <atomic>
#include <string>
#include <vector>

#include "OsApi.h"
#include "Util.h"

namespace Velto {

// The base fields rendered once for the record calls: every non-empty field as "key":"value",
// joined by commas in key order, with where each one lies, so that a record is the merge of this
// text with the call's own keys. Rebuilt when the store changes.
struct BaseView {
    struct Field {
        std::string key;
        size_t begin = 0;  // of "key":"value" in json
        size_t end = 0;
    };
    unsigned long long version = ~0ULL;
    size_t count = 0;  // fields in the store, empty ones included
    std::string json;
    std::vector<Field> fields;
};

class BaseInfo {
  public:
    static const size_t kComplete = 14;  // fields needed before records are accepted

    void init_mutex();  // creates the mutex on first use
    // Each of the following takes the store's lock, which is not recursive.
    void clear() EXCLUDES(m_);
    void set(const std::string& key, const std::string& value) EXCLUDES(m_);
    void copy(StrMap& out) EXCLUDES(m_);
    // A copy of the value; reading a missing key creates it empty (raising the count).
    std::string operator[](const std::string& key) EXCLUDES(m_);
    size_t count() EXCLUDES(m_);
    // Waits up to `seconds` one-second steps for the store to be complete; true when it is.
    bool wait(int seconds) EXCLUDES(m_);
    Mutex& mutex() RETURN_CAPABILITY(m_) { return m_; }
    // Brings view up to date with the store (cheap when nothing changed since it was last brought).
    void refresh(BaseView& view) EXCLUDES(m_);

  private:
    void changed() { version_.fetch_add(1, std::memory_order_release); }

    std::atomic<unsigned long long> version_{0};
    StrMap map_ GUARDED_BY(m_);
    Mutex m_;
    bool mutex_inited_ = false;
};

}  // namespace Velto

#endif

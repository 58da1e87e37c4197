// The base information: facts about the product, installation and system that every record
// carries. One process-wide object, g_base_info, filled by data_init and data_base_info(2)/ext and
// copied by every record call; the configuration fetch and file uploads wait for it to be complete.
#ifndef VELTO_BASEINFO_H
#define VELTO_BASEINFO_H

#include <string>

#include "OsApi.h"
#include "Util.h"

namespace Velto {

class BaseInfo {
public:
    static const size_t kComplete = 14;  // fields needed before records are accepted

    void init_mutex();  // creates the mutex on first use
    void clear();
    void set(const std::string& key, const std::string& value);
    void copy(StrMap& out);
    // A copy of the value; reading a missing key creates it empty (raising the count).
    std::string operator[](const std::string& key);
    size_t count();
    // Waits up to `seconds` one-second steps for the store to be complete; true when it is.
    bool wait(int seconds);
    Mutex& mutex() { return m_; }

private:
    StrMap map_;
    Mutex m_;
    bool mutex_inited_ = false;
};

}  // namespace Velto

#endif

// The pending queue: finished record texts handed from the host's threads (put) to the background
// loop (get), first in, first out. One process-wide object, Cache::obj_. Unbounded here; the record
// calls refuse new records while more than 1000 wait.
#ifndef VELTO_CACHE_H
#define VELTO_CACHE_H

#include <string>

#include "OsApi.h"
#include "Util.h"

namespace Velto {

class Cache {
public:
    static Cache* obj_;

    void reset();                      // empties the queue and creates the mutex (data_init)
    void put(const std::string& rec);  // never throws; an allocation failure loses the record
    void put(std::string&& rec);       // the same, taking the text over without a copy
    std::string get();                 // oldest record, or "" when empty
    long long count();                 // records waiting
    bool lock();
    void unlock();

private:
    Mutex m_;
    StrList items_;
    long long count_ = 0;
};

}  // namespace Velto

#endif

// The pending queue: finished record texts handed from the host's threads (put) to the background
// loop (get), first in, first out. One process-wide object, Cache::obj_. Unbounded here; the record
// calls refuse new records while more than 1000 wait. The texts sit in a ring that only grows, so
// that a record queued in steady state costs no allocation beyond its own text.
#ifndef VELTO_CACHE_H
#define VELTO_CACHE_H

#include <atomic>
#include <string>
#include <vector>

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
    long long count() const { return count_.load(std::memory_order_relaxed); }  // records waiting
    bool lock();
    void unlock();

  private:
    void grow();

    Mutex m_;
    std::vector<std::string> ring_;
    size_t head_ = 0;  // index of the oldest record
    size_t size_ = 0;
    std::atomic<long long> count_{0};
};

}  // namespace Velto

#endif

// The pending queue: finished record texts handed from the host's threads (put) to the background
// loop (get), first in, first out; put rings the loop's doorbell. One process-wide object,
// Cache::obj_. Unbounded here; the record calls refuse new records while more than 1000 wait. The texts sit
// in a ring that only grows, so that a record queued in steady state costs no allocation beyond its own text.
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

    // Each of these takes the queue's lock, which is not recursive.
    void reset() EXCLUDES(m_);                         // empties the queue and creates the mutex (data_init)
    void put(const std::string& rec) EXCLUDES(m_);     // never throws; an allocation failure loses the record
    void put(std::string&& rec) EXCLUDES(m_);          // the same, taking the text over without a copy
    std::string get() EXCLUDES(m_);                    // oldest record, or "" when empty
    long long count() const { return count_.load(); }  // records waiting
    // The queue's lock, held across fork.
    bool lock() ACQUIRE(m_);
    void unlock() RELEASE(m_);

  private:
    void grow() REQUIRES(m_);

    Mutex m_;
    std::vector<std::string> ring_ GUARDED_BY(m_);
    size_t head_ GUARDED_BY(m_) = 0;  // index of the oldest record
    size_t size_ GUARDED_BY(m_) = 0;
    std::atomic<long long> count_{0};
};

}  // namespace Velto

#endif

// Platform-neutral operating-system services: the mutex registry and Velto::Mutex, sleeps, process
// identity, renaming and listing files, GUIDs, the clock and the client identity. Each forwards to
// the platform implementation chosen by the build (OsImpl.h). Safe on any thread.
#ifndef VELTO_OSAPI_H
#define VELTO_OSAPI_H

#include <mutex>
#include <string>

#include "ThreadAnnotations.h"
#include "Util.h"

namespace Velto {

// Registry of mutexes: id -> mutex, ids dense from 0, never freed.
void mutex_init();
int new_mutex();
std::mutex* get_mutex(int id);  // null for an id not issued
// The registry's own lock, held across fork.
void mutex_registry_lock();
void mutex_registry_unlock();

// A handle on a registered, plain (non-recursive) mutex. A value inside every shared object;
// init() before first use, idempotent.
class CAPABILITY("mutex") Mutex {
  public:
    void init();
    bool lock() ACQUIRE();   // always true
    int unlock() RELEASE();  // 0
    int id() const { return id_; }
    bool created() const { return handle_ != nullptr; }

  private:
    int id_ = -1;
    std::mutex* handle_ = nullptr;
};

// Holds a Velto::Mutex for a scope.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& m) ACQUIRE(m) : m_(m) { m.lock(); }
    ~MutexLock() RELEASE() { m_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& m_;
};

// A std::mutex the analysis can see, for the locks that are not in the registry (the registry's own
// and the few allocated once inside a component).
class CAPABILITY("mutex") PlainMutex {
  public:
    void lock() ACQUIRE() { m_.lock(); }
    void unlock() RELEASE() { m_.unlock(); }

  private:
    std::mutex m_;
};

// Holds a PlainMutex for a scope.
class SCOPED_CAPABILITY PlainLock {
  public:
    explicit PlainLock(PlainMutex& m) ACQUIRE(m) : m_(m) { m.lock(); }
    ~PlainLock() RELEASE() { m_.unlock(); }
    PlainLock(const PlainLock&) = delete;
    PlainLock& operator=(const PlainLock&) = delete;

  private:
    PlainMutex& m_;
};

void os_sleep(unsigned int seconds);
void os_usleep(unsigned int microseconds);

// Seconds since the epoch. Every time stamp of the library comes from here, so that tests can move
// the clock with os_time_shift instead of waiting.
long long os_time();
void os_time_shift(long long seconds);  // test seam: adds to every later os_time()

int get_pid();
std::string get_pname();  // file name of the host executable, "" when unknown
// The name part of an executable path: what follows the last "/" (else the last "\\"), or the whole
// path when there is no separator or it stands among the last two bytes.
std::string pname_from_path(const std::string& path);
std::string get_sdk_version();  // "1.1.1.1113"
// Renames dir + old_name to dir + new_name (dir must end in a separator). On failure, error (when
// given) receives the system's reason, for the caller's "rename: " line.
bool rename_file(const std::string& dir, const std::string& old_name, const std::string& new_name,
                 std::string* error = nullptr);
// Names of every entry of dir except "." and "..", in directory order; empty for dir shorter than 3.
void get_files(const std::string& dir, StrList& out);
std::string get_guid();  // "{" + 32 lower-case hex digits + "}"

// Replaces the file at path with bytes so that a crash at any moment leaves either the old file or
// the new one, never a torn one: the bytes go to path + ".tmp", are flushed to the disk, and the
// temporary file is renamed over path. False (the old file untouched) when any step fails.
bool replace_file(const std::string& path, const std::string& bytes);
// Opens one of the library's own files with flags (O_CREAT, O_CLOEXEC and O_NOFOLLOW added),
// created owner-only (0600) when missing and never through a link: a link planted at the name is
// removed and the file made in its place. A descriptor, or -1.
int open_own_file(const std::string& path, int flags);
// The root directory's probe: opens (creating when missing, never truncating) the file at path.
bool probe_root(const std::string& path);
// The root's file of the TaskLock held by the one process, of those sharing the root, that fetches
// the configuration or uploads the log.
inline constexpr char kNetLockName[] = "sdk.net.lock";

// An advisory lock on a file of the root, for work that one process of those sharing the root
// does at a time (the configuration fetch, the log's upload); released with the object.
class TaskLock {
  public:
    explicit TaskLock(const std::string& path);
    ~TaskLock();
    TaskLock(const TaskLock&) = delete;
    TaskLock& operator=(const TaskLock&) = delete;
    // Takes the lock if no other process holds it; true when held (also when no lock file could be
    // made: the work then goes ahead unguarded rather than not at all).
    bool try_take();
    // Waits at most ms for the other holder, in short pauses that let queued records reach the file.
    bool take_within(unsigned int ms);

  private:
    int fd_;
    bool held_ = false;
};

// Makes sure one of the library's own files stands at path as open_own_file leaves it, so that a
// stream opened on the name next follows no link; truncate empties it. False when it cannot.
bool ensure_own_file(const std::string& path, bool truncate = false);

// Test seam of the file rewrites: every step of a rewrite that a crash could interrupt (a temporary
// file written, a rename done, a file emptied) calls fault_point with the step's name. Without a
// hook it does nothing; a test installs one to list the steps or to end the process at one of them.
typedef void (*FaultHook)(const char* step);
void set_fault_hook(FaultHook hook);
void fault_point(const char* step);

// The machine's client id for the product brand (the base field "BRAND") as stored in "did":
// braces around, control and non-ASCII bytes as "0".
std::string get_client_sign(const std::string& brand);

}  // namespace Velto

#endif

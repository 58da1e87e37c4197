// Portable side of the operating-system services: the mutex registry, sleeps, the clock, and the
// wrappers over the platform implementation (OsImpl.h) with their platform-free rules. Any thread.
#include "OsApi.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>

#include "ClientSign.h"
#include "OsImpl.h"
#include "Thread.h"

namespace Velto {

namespace {

// Registry of every mutex of the process. Mutexes are never freed: objects holding them live for the
// whole process, and a host may exit while the background thread still uses them.
struct MutexRegistry {
    PlainMutex guard;
    std::map<int, std::mutex*> mutexes GUARDED_BY(guard);
};

MutexRegistry& registry() {
    static MutexRegistry* r = new MutexRegistry();  // never destroyed, usable during static init
    return *r;
}

std::atomic<long long> g_time_shift{0};
std::atomic<FaultHook> g_fault_hook{nullptr};

}  // namespace

void mutex_init() {
    // The registry is ready from its first use; mutexes made at load time stay registered.
    registry();
}

int new_mutex() {
    MutexRegistry& r = registry();
    PlainLock hold(r.guard);
    int id = static_cast<int>(r.mutexes.size());
    r.mutexes[id] = new std::mutex();
    return id;
}

std::mutex* get_mutex(int id) {
    MutexRegistry& r = registry();
    PlainLock hold(r.guard);
    auto it = r.mutexes.find(id);
    return it == r.mutexes.end() ? nullptr : it->second;
}

// Taken by the fork prepare handler and released by the parent and child handlers: a lock held
// across functions, which the analysis cannot follow.
void mutex_registry_lock() NO_THREAD_SAFETY_ANALYSIS {
    registry().guard.lock();
}

void mutex_registry_unlock() NO_THREAD_SAFETY_ANALYSIS {
    registry().guard.unlock();
}

void Mutex::init() {
    if (id_ >= 0) return;
    id_ = new_mutex();
    handle_ = get_mutex(id_);
}

bool Mutex::lock() {
    if (handle_) handle_->lock();
    return true;
}

int Mutex::unlock() {
    if (handle_) handle_->unlock();
    return 0;
}

void os_sleep(unsigned int seconds) {
    sleep(seconds);
}

void os_usleep(unsigned int microseconds) {
    usleep(microseconds);
}

long long os_time() {
    return static_cast<long long>(time(nullptr)) + g_time_shift.load();
}

void os_time_shift(long long seconds) {
    g_time_shift.fetch_add(seconds);
    doorbell().ring();  // the loop sleeps until its next deadline, which the shift may have passed
}

void set_fault_hook(FaultHook hook) {
    g_fault_hook.store(hook);
}

void fault_point(const char* step) {
    FaultHook hook = g_fault_hook.load();
    if (hook) hook(step);
}

bool replace_file(const std::string& path, const std::string& bytes) {
    const std::string tmp = path + ".tmp";
    const std::string name = path.substr(path.rfind('/') + 1);
    if (!os_impl::write_file_synced_impl(tmp, bytes.data(), bytes.size())) {
        const int err = errno;  // the caller reports the write's reason, not the clean-up's
        std::remove(tmp.c_str());
        errno = err;
        return false;
    }
    fault_point((name + ": temporary file written").c_str());
    std::string error;
    if (!os_impl::rename_file_impl(tmp, path, error)) {
        const int err = errno;
        std::remove(tmp.c_str());
        errno = err;
        return false;
    }
    fault_point((name + ": replaced").c_str());
    return true;
}

int open_own_file(const std::string& path, int flags) {
    flags |= O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0 && errno == ELOOP && ::unlink(path.c_str()) == 0) fd = ::open(path.c_str(), flags, 0600);
    return fd;
}

TaskLock::TaskLock(const std::string& path) : fd_(open_own_file(path, O_RDWR)) {}

TaskLock::~TaskLock() {
    if (fd_ >= 0) ::close(fd_);  // releases the lock
}

bool TaskLock::try_take() {
    if (!held_) held_ = fd_ < 0 || ::flock(fd_, LOCK_EX | LOCK_NB) == 0;
    return held_;
}

bool TaskLock::take_within(unsigned int ms) {
    const unsigned int kStepMs = 50;
    for (unsigned int waited = 0; !try_take() && waited < ms; waited += kStepMs) pause_ms(kStepMs);
    return held_;
}

bool ensure_own_file(const std::string& path, bool truncate) {
    const int fd = open_own_file(path, truncate ? O_WRONLY | O_TRUNC : O_RDONLY);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

bool probe_root(const std::string& path) {
    return ensure_own_file(path);
}

int get_pid() {
    return os_impl::get_pid_impl();
}

std::string pname_from_path(const std::string& path) {
    if (path.empty()) return "";
    size_t sep = path.rfind('/');
    if (sep == std::string::npos) sep = path.rfind('\\');
    if (sep != std::string::npos && sep + 2 < path.size()) return path.substr(sep + 1);
    return path;
}

std::string get_pname() {
    return pname_from_path(os_impl::get_pname_impl());
}

std::string get_sdk_version() {
    return os_impl::get_sdk_version_impl();
}

bool rename_file(const std::string& dir, const std::string& old_name, const std::string& new_name,
                 std::string* error) {
    std::string reason;
    if (os_impl::rename_file_impl(dir + old_name, dir + new_name, reason)) return true;
    if (error) *error = reason;
    return false;
}

void get_files(const std::string& dir, StrList& out) {
    out.clear();
    if (dir.size() < 3) return;
    os_impl::get_files_impl(dir, out);
}

std::string get_guid() {
    return os_impl::get_guid_impl();
}

std::string get_client_sign(const std::string& brand) {
    try {
        return sanitize_client_sign(os_impl::get_client_sign_impl(brand));
    } catch (...) {
        return "";
    }
}

}  // namespace Velto

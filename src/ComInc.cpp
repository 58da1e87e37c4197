// The process-wide objects, constructed at load time in this order and never destroyed: a host may
// call exit() while the background thread still uses them, so no static destructor may run.
#include "ComInc.h"

#include <pthread.h>

#include "BackRun.h"
#include "BaseInfo.h"
#include "Cache.h"
#include "Config.h"
#include "Log.h"
#include "Session.h"

namespace Velto {

namespace {
// Marker object kept for the layout of the process-wide objects; it holds no state.
struct InitMutex {
    static InitMutex* obj_;
};
}  // namespace

Config* Config::obj_ = new Config();
BackRun& g_back_run = *new BackRun();  // takes the settings above
Cache* Cache::obj_ = new Cache();
Log* Log::obj_ = new Log();
std::string& g_test = *new std::string();
InitMutex* InitMutex::obj_ = new InitMutex();
BaseInfo& g_base_info = *new BaseInfo();
Session& g_session = *new Session();
Mutex& api_m = *new Mutex();

namespace {

// Every lock exists from load time, so that calls made before data_init (or from the background
// thread while data_init runs) never touch a mutex that is not there yet.
bool create_locks() {
    api_m.init();
    Config::obj_->init_mutex();
    Cache::obj_->reset();
    Log::obj_->mutex().init();
    g_back_run.mutex().init();
    g_base_info.init_mutex();
    return true;
}

// Around fork every lock of the library is taken, so that the child never inherits one held by a
// thread that does not exist there. The child has no background thread: it starts out stopped
// (record calls return 207, data_init 101 when the parent had initialised the library).
// The locks taken here are released by the other two handlers, which the analysis cannot follow.
void lock_all_for_fork() NO_THREAD_SAFETY_ANALYSIS {
    api_m.lock();
    g_back_run.mutex().lock();
    Log::obj_->mutex().lock();
    Config::obj_->mutex().lock();
    g_base_info.mutex().lock();
    Cache::obj_->lock();
    mutex_registry_lock();
}

void unlock_all_after_fork() NO_THREAD_SAFETY_ANALYSIS {
    mutex_registry_unlock();
    Cache::obj_->unlock();
    g_base_info.mutex().unlock();
    Config::obj_->mutex().unlock();
    Log::obj_->mutex().unlock();
    g_back_run.mutex().unlock();
    api_m.unlock();
}

void child_after_fork() {
    unlock_all_after_fork();
    g_back_run.after_fork_in_child();
}

const bool g_locks_ready = create_locks();
const bool g_fork_ready = pthread_atfork(lock_all_for_fork, unlock_all_after_fork, child_after_fork) == 0;

}  // namespace

}  // namespace Velto

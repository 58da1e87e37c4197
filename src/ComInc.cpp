// The process-wide objects, constructed at load time in this order and never destroyed: a host may
// call exit() while the background thread still uses them, so no static destructor may run.
#include "ComInc.h"

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

BackRun& g_back_run = *new BackRun();
Config* Config::obj_ = new Config();
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
    g_base_info.init_mutex();
    return true;
}

const bool g_locks_ready = create_locks();

}  // namespace

}  // namespace Velto

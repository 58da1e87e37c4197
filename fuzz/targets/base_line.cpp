// Fuzz target: data_base_info2, the exported call that takes the base information as one line of
// blank-separated values, through to the "init" record it queues. The library's state is set up as
// data_init leaves it, without the background thread (so nothing leaves the process).
// Every queued record must stay on one line: the message file holds one record per line.
#include <cstdlib>
#include <string>

#include "BaseInfo.h"
#include "Cache.h"
#include "ComInc.h"
#include "Config.h"
#include "OsApi.h"
#include "fuzz_support.h"
#include "velto.h"

namespace {

void start_library_once() {
    static bool started = false;
    if (started) return;
    Velto::mutex_init();
    Velto::api_m.init();
    Velto::Config::obj_->init_mutex();
    Velto::Config::obj_->load_default();
    Velto::g_base_info.init_mutex();
    Velto::Cache::obj_->reset();
    Velto::Config::obj_->set("ROOT_DIR", vfuzz::temp_root());
    started = true;
}

void drain_queue_checking_lines() {
    for (std::string rec = Velto::Cache::obj_->get(); !rec.empty(); rec = Velto::Cache::obj_->get()) {
        if (rec.find('\n') != std::string::npos || rec.find('\r') != std::string::npos) abort();
    }
}

}  // namespace

VELTO_FUZZ_TARGET {
    start_library_once();
    Velto::g_base_info.clear();
    const std::string line(reinterpret_cast<const char*>(data), size);
    data_base_info2(line.c_str());
    drain_queue_checking_lines();
    return 0;
}

// The background runner. For now the thread implements only the start and stop handshake with
// data_init/data_stop; moving records to the message file and uploading them comes with the
// delivery loop.
#include "BackRun.h"

#include "Log.h"

namespace Velto {

void BackRun::init() {
    m_.init();
    set_stop_flag(1);
}

void BackRun::set_running(int v) {
    MutexLock hold(m_);
    running_.store(v);
}

void BackRun::set_stop_flag(int v) {
    MutexLock hold(m_);
    stop_.store(v);
}

void BackRun::stop() {
    set_stop_flag(2);
    // Deliberately short: the host is never held up by a transfer in progress.
    for (int i = 0; i < 60 && stop_flag() != 0; ++i) os_usleep(50);
}

void BackRun::run() {
    try {
        LOGI << "back thread start ..." << LEND;
        while (stop_flag() != 2) os_usleep(500);
        set_running(0);
        LOGI << "back thread stop ..." << LEND;
    } catch (...) {
    }
    set_stop_flag(0);
}

}  // namespace Velto

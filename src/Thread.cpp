// Starting the library's one background thread (the runner) on a system thread, and the waits of
// that thread that keep records moving to disk while it waits.
#include "Thread.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace Velto {

namespace {

typedef std::chrono::steady_clock Clock;

thread_local WaitPump* t_pump = nullptr;
thread_local int t_wait_depth = 0;
thread_local bool t_pumping = false;
thread_local Clock::time_point t_wait_start;
thread_local Clock::time_point t_last_pump;

void* thread_entry(void* obj) {
    ThreadProc(static_cast<Thread*>(obj));
    return nullptr;
}

}  // namespace

int start_thread(Thread* obj) {
    pthread_t tid;
    // Nobody waits for the thread: it is detached so that its end releases its resources.
    if (pthread_create(&tid, nullptr, thread_entry, obj) == 0) pthread_detach(tid);
    return 0;
}

int ThreadProc(Thread* obj) {
    try {
        obj->run();
    } catch (...) {
        // run() catches everything itself; nothing may escape a thread.
    }
    return 0;
}

int thread_proc(Thread* obj) {
    return ThreadProc(obj);
}

PumpInstall::PumpInstall(WaitPump* pump) : prev_(t_pump) {
    t_pump = pump;
}

PumpInstall::~PumpInstall() {
    t_pump = prev_;
}

WaitScope::WaitScope() {
    if (t_wait_depth++ == 0) t_wait_start = t_last_pump = Clock::now();
}

WaitScope::~WaitScope() {
    --t_wait_depth;
}

void wait_tick() {
    if (t_pump == nullptr || t_wait_depth == 0 || t_pumping) return;
    const Clock::time_point now = Clock::now();
    if (now - t_wait_start < std::chrono::milliseconds(kPumpGraceMs)) return;
    if (now - t_last_pump < std::chrono::milliseconds(kPumpEveryMs)) return;
    t_last_pump = now;
    t_pumping = true;
    try {
        t_pump->pump();
    } catch (...) {
        // The pump is best effort; the wait goes on.
    }
    t_pumping = false;
}

void pause_ms(unsigned int ms) {
    WaitScope scope;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(ms);
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - now).count();
        usleep(static_cast<useconds_t>(std::min<long long>(left, 10000)));
        wait_tick();
    }
}

}  // namespace Velto

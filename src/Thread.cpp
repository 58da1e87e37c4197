// Starting the library's one background thread (the runner) on a system thread, the doorbell that
// wakes it, and the waits of that thread that keep records moving to disk while it waits.
#include "Thread.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace Velto {

namespace {

typedef std::chrono::steady_clock Clock;

thread_local WaitPump* t_pump = nullptr;
thread_local bool t_pumping = false;

void* thread_entry(void* obj) {
    // A write past a file-size limit (RLIMIT_FSIZE) then fails with EFBIG instead of killing the
    // host with SIGXFSZ; the thread handles the failed write like a full disk.
    sigset_t fsize;
    sigemptyset(&fsize);
    sigaddset(&fsize, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &fsize, nullptr);
    ThreadProc(static_cast<Thread*>(obj));
    return nullptr;
}

// Runs the calling thread's pump, unless it is the pump that waits (a wait inside pump()).
void run_pump() {
    if (t_pump == nullptr || t_pumping) return;
    t_pumping = true;
    try {
        t_pump->pump();
    } catch (...) {
        // The pump is best effort; the wait goes on.
    }
    t_pumping = false;
}

bool pump_pending() {
    return t_pump != nullptr && !t_pumping && t_pump->pending();
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

Doorbell::Doorbell() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Doorbell& doorbell() {
    static Doorbell* bell = new Doorbell();  // never destroyed: host threads may ring during exit
    return *bell;
}

// Pairs with arm(): the caller's work is stored before armed_ is read, and the sleeper arms before
// it looks for work, so either the ringer sees the sleeper armed or the sleeper sees the work.
void Doorbell::ring() {
    if (!armed_.load() || !armed_.exchange(false)) return;
    const uint64_t one = 1;
    ssize_t n;
    do {
        n = write(fd_, &one, sizeof one);
    } while (n < 0 && errno == EINTR);
}

void Doorbell::arm() {
    armed_.store(true);
}

void Doorbell::disarm() {
    if (armed_.exchange(false)) return;  // nobody rang
    uint64_t count;
    while (read(fd_, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

PumpInstall::PumpInstall(WaitPump* pump) : prev_(t_pump) {
    t_pump = pump;
}

PumpInstall::~PumpInstall() {
    t_pump = prev_;
}

PumpWait::PumpWait() {
    if (t_pump == nullptr || t_pumping) return;
    Doorbell& bell = doorbell();
    bell.arm();
    armed_ = true;
    fd_ = bell.fd();
    // A record queued before the bell was armed did not ring it.
    if (t_pump->pending()) run_pump();
}

PumpWait::~PumpWait() {
    if (!armed_) return;
    doorbell().disarm();
    if (pump_pending()) run_pump();
}

int PumpWait::cap(long long timeout_ms) const {
    long long ms = std::max(0LL, timeout_ms);
    if (armed_) {
        const long long own = t_pump->wake_within_ms();
        if (own >= 0) ms = std::min(ms, own);
        if (fd_ < 0) ms = std::min(ms, 10LL);  // no doorbell: look for records every 10 ms
    }
    return static_cast<int>(std::min(ms, static_cast<long long>(INT32_MAX)));
}

int wait_ready(int fd, short events, int timeout_ms) {
    PumpWait wait;
    pollfd p[2] = {{fd, events, 0}, {wait.fd(), POLLIN, 0}};
    const int ready = poll(p, 2, wait.cap(timeout_ms));
    if (ready < 0) return errno == EINTR ? 0 : -1;
    return ready > 0 ? p[0].revents : 0;
}

void pause_ms(unsigned int ms) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(ms);
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
        wait_ready(-1, 0, static_cast<int>(std::min<long long>(left + 1, 60000)));
    }
}

}  // namespace Velto

// Starting the library's one background thread (the runner) on a system thread.
#include "Thread.h"

#include <pthread.h>

namespace Velto {

namespace {

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

int thread_proc(Thread* obj) { return ThreadProc(obj); }

}  // namespace Velto

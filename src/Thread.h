// Base of the objects that own a thread (the background runner). start_thread runs obj->run() on a
// new system thread that is neither joined nor detached.
#ifndef VELTO_THREAD_H
#define VELTO_THREAD_H

namespace Velto {

class Thread {
public:
    virtual void init() = 0;
    virtual void run() = 0;

protected:
    ~Thread() = default;  // never deleted through the base
};

int start_thread(Thread* obj);  // 0 always; a failure to start is not reported
int ThreadProc(Thread* obj);    // calls obj->run(); returns 0
int thread_proc(Thread* obj);   // the same entry under its second name

}  // namespace Velto

#endif

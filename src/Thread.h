// Base of the objects that own a thread (the background runner). start_thread runs obj->run() on a
// new system thread that is neither joined nor detached.
//
// Waiting without holding records back: the background thread both moves records to the message
// file and waits on the network. While it waits (a transfer, a pause between attempts), the records
// the host queues meanwhile must still reach the file. The runner installs a WaitPump for its
// thread; every wait opens a WaitScope and calls wait_tick() as it polls, and pause_ms() sleeps in
// short steps that tick. Once a wait has lasted kPumpGraceMs, the pump runs every kPumpEveryMs.
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

class WaitPump {
  public:
    // Moves what is waiting to durable storage; never waits on the network itself.
    virtual void pump() = 0;

  protected:
    ~WaitPump() = default;
};

const int kPumpGraceMs = 40;  // a short transfer never triggers the pump
const int kPumpEveryMs = 20;

// Installs pump for the calling thread for the life of the object.
class PumpInstall {
  public:
    explicit PumpInstall(WaitPump* pump);
    ~PumpInstall();
    PumpInstall(const PumpInstall&) = delete;
    PumpInstall& operator=(const PumpInstall&) = delete;

  private:
    WaitPump* prev_;
};

// Marks a wait (nested scopes count as one, from the outermost).
class WaitScope {
  public:
    WaitScope();
    ~WaitScope();
    WaitScope(const WaitScope&) = delete;
    WaitScope& operator=(const WaitScope&) = delete;
};

void wait_tick();
void pause_ms(unsigned int ms);

}  // namespace Velto

#endif

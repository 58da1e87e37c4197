// The library's one background thread and its waits. start_thread runs obj->run() on a new system
// thread, detached: nobody joins it, and its end releases its resources.
//
// Waiting without holding records back or burning the host's battery: the background thread both
// moves records to the message file and waits on the network. It never polls. Host threads ring a
// doorbell (an eventfd) after queueing a record or asking to stop, but only while the thread has
// armed it before sleeping, so a busy thread costs the record calls no system call. The thread's
// idle sleep, every network wait and every pause wait on the doorbell beside their own descriptors:
// while the thread waits on the network, a record queued meanwhile is handed to the thread's
// WaitPump (which writes it to the file) within a poll's wake-up.
#ifndef VELTO_THREAD_H
#define VELTO_THREAD_H

#include <atomic>

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

// The background thread's doorbell. One process-wide object (doorbell()).
class Doorbell {
  public:
    // Any thread, after making work visible to the background thread (queueing a record, a stop
    // request, a moved clock): wakes it when it is asleep; costs one atomic load when it is not.
    void ring();
    // The background thread only. arm() before the last look for work, then sleep on fd();
    // disarm() after waking, which also empties the eventfd when the bell rang.
    void arm();
    void disarm();
    // The eventfd to poll for reading; -1 when none could be made (waits then simply time out).
    int fd() const { return fd_; }

    Doorbell();

  private:
    int fd_ = -1;
    std::atomic<bool> armed_{false};
};
Doorbell& doorbell();

class WaitPump {
  public:
    // Moves what is waiting to durable storage; never waits on the network itself.
    virtual void pump() = 0;
    // Whether pump() has something to do now (a record queued, a stop request not yet answered).
    virtual bool pending() const = 0;
    // Milliseconds until pump() has something to do without being woken (a hold it keeps runs
    // out); -1 for nothing. Every wait of the thread ends by then.
    virtual long long wake_within_ms() const = 0;

  protected:
    ~WaitPump() = default;
};

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

// One wait of a thread that may have a pump installed: pumps at once when work is pending, arms the
// doorbell for the wait (fd() is the descriptor to poll beside the caller's own, -1 on a thread
// without a pump), and pumps again when the wait ends with work pending.
class PumpWait {
  public:
    PumpWait();
    ~PumpWait();
    PumpWait(const PumpWait&) = delete;
    PumpWait& operator=(const PumpWait&) = delete;
    int fd() const { return fd_; }
    // timeout_ms shortened to the pump's own wake-up time.
    int cap(long long timeout_ms) const;

  private:
    bool armed_ = false;
    int fd_ = -1;
};

// Waits at most timeout_ms (>= 0) for fd to become ready for events (fd < 0: for nothing), waking
// early when a record is queued on a thread with a pump. The revents of fd; 0 when the wait ended
// for another reason (the caller checks its own bounds and waits again); -1 when poll failed.
int wait_ready(int fd, short events, int timeout_ms);
// Sleeps ms milliseconds; on a thread with a pump, queued records reach the file meanwhile.
void pause_ms(unsigned int ms);

}  // namespace Velto

#endif

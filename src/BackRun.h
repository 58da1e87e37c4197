// The background runner: the one thread of the library. It opens the message file, loads the
// configuration, moves records from the pending queue to the message file, uploads batches at
// thresholds (or each record at once in real-time mode), sends the log and mirrors records to a
// debug server. It sleeps until a record, a stop request or a deadline of its own wakes it. One
// process-wide object, g_back_run; data_init calls init() and starts it, data_stop calls stop().
#ifndef VELTO_BACKRUN_H
#define VELTO_BACKRUN_H

#include <atomic>
#include <chrono>
#include <string>

#include "MsgFile.h"
#include "OsApi.h"
#include "Thread.h"

namespace Velto {

class Config;
class Uploader;

class BackRun : public Thread {
  public:
    // The settings and the uploader of the loop and its message file. Without arguments: the
    // process-wide ones.
    BackRun();
    BackRun(Config& conf, Uploader& uploader);

    void init() override;  // creates the mutex, stop flag = 1
    void run() override;   // the thread body
    // Asks the loop to stop (stop flag 2), wakes it, and waits until every record queued before is
    // in the message file, or the thread has ended or given up: 100 ms at most, never for the
    // network (the end-of-run upload comes after).
    void stop() EXCLUDES(m_);
    // The loop's answer to a stop request: the queue is on disk (or the thread is ending).
    void answer_stop() { stop_answered_.store(true); }
    bool stop_answered() const { return stop_answered_.load(); }
    // When data_stop asked (meaningful once the stop flag is 2).
    std::chrono::steady_clock::time_point stop_requested_at() const {
        return std::chrono::steady_clock::time_point(
            std::chrono::steady_clock::duration(stop_requested_ns_.load()));
    }

    // Running flag: 1 while the library accepts records. Read without the lock by the API calls.
    int running() const { return running_.load(std::memory_order_relaxed); }
    void set_running(int v) EXCLUDES(m_);
    int stop_flag() const { return stop_.load(std::memory_order_relaxed); }
    void set_stop_flag(int v) EXCLUDES(m_);

    // Debug mirror: the first line of ROOT_DIR/DEBUG_MODE_SVR_ADDR, and one report row per answer
    // (DebugReport does both).
    std::string get_svrd();
    void save_debug_msg(std::string& answer);

    MsgFile& msg_file() { return msg_; }
    Config& settings() { return conf_; }
    Uploader& uploader() { return uploader_; }
    Mutex& mutex() RETURN_CAPABILITY(m_) { return m_; }
    // In a child process after fork: no thread runs there, so the library is stopped.
    void after_fork_in_child();

  private:
    Config& conf_;
    Uploader& uploader_;
    Mutex m_;
    MsgFile msg_;
    std::atomic<int> running_{1};
    std::atomic<int> stop_{0};
    std::atomic<bool> stop_answered_{false};
    std::atomic<long long> stop_requested_ns_{0};
};

}  // namespace Velto

#endif

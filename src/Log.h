// The library's own diagnostics log "sdk.log" in the root directory. One process-wide object,
// Log::obj_, written from every thread through the LOGI/LOGW/LOGE macros:
//     LOGW << "retry to open msg file, last ret: " << r << LEND;
// The insertions of a line gather in a buffer of the calling thread; LEND writes the whole line with
// one write(2) to a descriptor kept open in append mode, so lines of two threads never interleave
// and each line is in the file when LEND returns. The file is followed when somebody empties,
// moves or deletes it (a deleted or replaced file is created anew), rolled to its last 55 % at the
// size limit. Warn and error lines are counted here (error_count); the delivery loop carries the
// count into LOGERR_NUM, and LogUpload sends the log. The log depends on the platform layer only.
#ifndef VELTO_LOG_H
#define VELTO_LOG_H

#include <sys/types.h>

#include <atomic>
#include <string>
#include <type_traits>
#include <vector>

#include "OsApi.h"

namespace Velto {

class Log {
  public:
    enum LOG_LEVEL { LOG_ERROR = 1, LOG_WARN = 2, LOG_INFO = 3 };
    static const unsigned long long kDefaultLimit = 6291456;

    static Log* obj_;

    Log();
    virtual ~Log();

    // Registers the mutex; with a path, (re)opens it for appending and remembers it and the name
    // the log is uploaded under (data_init passes get_name_to_svr of the client id).
    void init(const char* path, const std::string& upname = "sdk.log") EXCLUDES(m_);

    // Begin a line of the given level; return *this for the insertions.
    Log& info();
    Log& warn();
    Log& error();

    // "\n" exactly ends the line and writes it; any other text is added as it stands.
    Log& operator<<(const char* text);
    Log& operator<<(const std::string& text);
    template <typename T, typename = typename std::enable_if<std::is_integral<T>::value>::type>
    Log& operator<<(T n) {
        return write_number(static_cast<long long>(n));
    }

    // Sets the size limit to bytes when 1025 <= bytes < 41943040; otherwise keeps it.
    void set_size_limit(unsigned long long bytes) EXCLUDES(m_);
    unsigned long long size_limit() EXCLUDES(m_);
    // Writes what the calling thread has inserted without ending the line. Ended lines are in the
    // file already.
    void flush();

    // While a batch is open, the calling thread's ended lines gather and go out together (in order,
    // rolled exactly as single lines) when it closes. The background loop writes a run of records
    // this way; it closes the batch before it next sleeps or waits.
    void begin_batch();
    void end_batch();

    // "sdk_" + the client id without braces and blanks + ".log".
    static std::string get_name_to_svr(const std::string& client_sign);

    // Warn and error lines written since the count was last taken.
    long long error_count() const { return errors_.load(std::memory_order_relaxed); }
    long long take_error_count() { return errors_.exchange(0, std::memory_order_relaxed); }

    // For the log's upload (LogUpload): the live log's size, -1 while it is closed.
    long long size_now() EXCLUDES(m_);
    // Copies the live log into backup_path (line breaks kept), empties it once the copy is whole
    // on disk, and returns its lines run together in upload. False when the log cannot be read,
    // the backup not written or the log not emptied. No line lands in a half-moved file.
    bool move_aside(const std::string& backup_path, std::string& upload) EXCLUDES(m_);
    // Opens the file anew (after an upload failed midway).
    void reopen() EXCLUDES(m_);

    std::string path() EXCLUDES(m_);
    Mutex& mutex() RETURN_CAPABILITY(m_) { return m_; }

    void reopen_file() REQUIRES(m_);
    void close_file() REQUIRES(m_);
    // The live log's size (from the file itself); -1 while it is closed.
    long long write_pos() REQUIRES(m_);

  private:
    // Holds the log's lock for a scope: the one way the log takes it (the fork handlers aside).
    // A line that the holding thread logs meanwhile is not written under the hold but as soon as
    // it ends, so the lock is never taken twice and no line lands amid what the hold protects (a
    // roll, the move aside for the upload).
    class SCOPED_CAPABILITY Hold {
      public:
        explicit Hold(Log& log) ACQUIRE(log.m_);
        ~Hold() RELEASE();
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

      private:
        Log& log_;
        // A hold of another log that this one is nested in, and the lines kept for it meanwhile.
        Log* outer_ = nullptr;
        std::string outer_text_;
        std::vector<size_t> outer_starts_;
    };

    Log& begin_line(int level);
    Log& write_number(long long n);
    Log& write_text(const char* text, size_t n);
    // Writes the lines that begin at the given offsets of text under a hold of its own; when the
    // calling thread holds the lock already, they are kept and written once that hold ends.
    void write_lines(const char* text, size_t n, const size_t* starts, size_t count);
    // The same with the lock held, rolling before any line that begins when the file holds the
    // limit.
    void write_lines_held(const char* text, size_t n, const size_t* starts, size_t count) REQUIRES(m_);

    void follow_file(bool force) REQUIRES(m_);
    void sync_size() REQUIRES(m_);
    void roll() REQUIRES(m_);
    bool append_bytes(const char* data, size_t n) REQUIRES(m_);

    Mutex m_;
    std::string path_ GUARDED_BY(m_);
    std::string upname_ GUARDED_BY(m_);
    int fd_ GUARDED_BY(m_);
    unsigned long long size_ GUARDED_BY(m_);  // the file's size as last seen plus what was written since
    dev_t dev_ GUARDED_BY(m_);
    ino_t ino_ GUARDED_BY(m_);
    long long checked_ns_ GUARDED_BY(m_);  // when the path was last compared with the descriptor
    unsigned long long lim_ GUARDED_BY(m_);
    unsigned long long fsize_cap_ GUARDED_BY(m_) = ~0ULL;  // below the process's file-size limit
    std::atomic<long long> errors_{0};                     // warn and error lines, see error_count
};

}  // namespace Velto

#define LOG_AT_(level) ::Velto::Log::obj_->level() << "- (" << __LINE__ << ") "
#define LOGI LOG_AT_(info)
#define LOGW LOG_AT_(warn)
#define LOGE LOG_AT_(error)
#define LEND "\n"

#endif

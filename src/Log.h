// The library's own diagnostics log "sdk.log" in the root directory. One process-wide object,
// Log::obj_, written from every thread through the LOGI/LOGW/LOGE macros:
//     LOGW << "retry to open msg file, last ret: " << r << LEND;
// Each line is reopened in append mode (the file may be emptied or removed underneath), rolled to
// its last 55 % at the size limit, and warn/error lines count into LOGERR_NUM for the log upload.
// Each call and each insertion takes the log's mutex by itself, so lines of two threads may interleave.
#ifndef VELTO_LOG_H
#define VELTO_LOG_H

#include <fstream>
#include <string>
#include <type_traits>

#include "OsApi.h"

namespace Velto {

class Log {
public:
    enum LOG_LEVEL { LOG_ERROR = 1, LOG_WARN = 2, LOG_INFO = 3 };
    static const unsigned long long kDefaultLimit = 6291456;

    static Log* obj_;

    Log();
    virtual ~Log();

    // Registers the mutex; with a path, (re)opens it for appending and remembers it.
    void init(const char* path);

    // Begin a line of the given level (rolling first); return *this for the insertions.
    Log& info();
    Log& warn();
    Log& error();

    // "\n" exactly ends the line and flushes; any other text is written as it stands.
    Log& operator<<(const char* text);
    Log& operator<<(const std::string& text);
    template <typename T, typename = typename std::enable_if<std::is_integral<T>::value>::type>
    Log& operator<<(T n) {
        return write_number(static_cast<long long>(n));
    }

    // Sets the size limit to bytes when 1025 <= bytes < 41943040; otherwise keeps it.
    void set_size_limit(unsigned long long bytes);
    unsigned long long size_limit() const { return lim_; }
    void flush();  // flushes the stream under the mutex

    // Moves the log aside and uploads it (background thread only). 0, -1 or -2.
    int send_log();
    // "sdk_" + the client id without braces and blanks + ".log".
    std::string get_name_to_svr();

    const std::string& path() const { return path_; }
    Mutex& mutex() { return m_; }

    // REQUIRES: mutex held.
    void log_head(int level);
    void reopen_file();
    void close_file();
    void chek_rolling();
    void ins_err();
    // The stream's write position, which is the live log's size; -1 while it is closed.
    long long write_pos();

private:
    Log& begin_line(int level);
    Log& write_number(long long n);
    Log& write_text(const char* text, size_t n);

    Mutex m_;
    std::string path_;
    std::string upname_;
    std::fstream fs_;
    bool open_;
    unsigned long long lim_;
};

}  // namespace Velto

#define LOG_AT_(level) ::Velto::Log::obj_->level() << "- (" << __LINE__ << ") "
#define LOGI LOG_AT_(info)
#define LOGW LOG_AT_(warn)
#define LOGE LOG_AT_(error)
#define LEND "\n"

#endif

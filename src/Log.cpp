// The library's diagnostics log "sdk.log", written by the host's threads and the background thread
// through Log::obj_. Every line reopens the file in append mode, so the log survives the file being
// emptied, moved aside for upload or deleted; the file is cut in place to its last 55 % at the size
// limit. Nothing here ever reports a failure or throws: a line that cannot be written is lost.
#include "Log.h"

#include <time.h>

#include <cstdio>

#include "Config.h"

namespace Velto {

namespace {

// The log whose mutex the current thread holds. Counting an error line calls the settings store,
// which may itself log on failure; such a nested line on the same log is dropped instead of locking
// the plain mutex a second time.
thread_local const Log* t_holder = nullptr;

// Holds the log's mutex for one operation unless this thread already holds it.
class LogHold {
  public:
    explicit LogHold(Log& log) : log_(log), prev_(t_holder), owned_(t_holder != &log) {
        if (!owned_) return;
        log_.mutex().lock();
        t_holder = &log_;
    }
    ~LogHold() {
        if (!owned_) return;
        t_holder = prev_;
        log_.mutex().unlock();
    }
    LogHold(const LogHold&) = delete;
    LogHold& operator=(const LogHold&) = delete;
    bool owned() const { return owned_; }

  private:
    Log& log_;
    const Log* prev_;
    bool owned_;
};

const char* level_tag(int level) {
    if (level < Log::LOG_WARN) return "[ERROR] ";
    if (level == Log::LOG_WARN) return "[WARN] ";
    return "[INFO] ";
}

// The last `keep` bytes of the file (all of it when shorter); "" when it cannot be read.
std::string read_tail(const std::string& path, unsigned long long keep) {
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open()) return std::string();
    in.seekg(0, std::ios::end);
    std::streamoff size = in.tellg();
    if (size <= 0) return std::string();
    std::streamoff from =
        static_cast<unsigned long long>(size) > keep ? size - static_cast<std::streamoff>(keep) : 0;
    in.seekg(from, std::ios::beg);
    std::string tail(static_cast<size_t>(size - from), '\0');
    in.read(&tail[0], static_cast<std::streamsize>(tail.size()));
    tail.resize(static_cast<size_t>(in.gcount()));
    return tail;
}

}  // namespace

Log::Log() : upname_("sdk.log"), open_(false), lim_(kDefaultLimit) {}

Log::~Log() {
    try {
        if (open_) fs_.close();
    } catch (...) {
    }
}

void Log::init(const char* path) {
    try {
        m_.init();
        if (!path) return;
        // Reading the client id may log, so it is done before the lock is taken.
        std::string name = get_name_to_svr();
        LogHold hold(*this);
        if (!hold.owned()) return;
        if (open_) close_file();
        fs_.clear();
        fs_.open(path, std::ios::out | std::ios::app);
        open_ = fs_.is_open();
        path_ = path;
        upname_ = name;
    } catch (...) {
    }
}

Log& Log::info() {
    return begin_line(LOG_INFO);
}
Log& Log::warn() {
    return begin_line(LOG_WARN);
}
Log& Log::error() {
    return begin_line(LOG_ERROR);
}

Log& Log::begin_line(int level) {
    try {
        LogHold hold(*this);
        if (!hold.owned()) return *this;
        chek_rolling();
        if (level <= LOG_WARN) ins_err();
        log_head(level);
    } catch (...) {
    }
    return *this;
}

Log& Log::operator<<(const char* text) {
    try {
        if (!text) return *this;
        LogHold hold(*this);
        if (!hold.owned()) return *this;
        if (text[0] == '\n' && text[1] == '\0') {
            fs_ << '\n';
            fs_.flush();
        } else {
            fs_ << text;
        }
    } catch (...) {
    }
    return *this;
}

Log& Log::operator<<(const std::string& text) {
    try {
        LogHold hold(*this);
        if (!hold.owned()) return *this;
        if (text == "\n") {
            fs_ << '\n';
            fs_.flush();
        } else {
            fs_ << text;
        }
    } catch (...) {
    }
    return *this;
}

Log& Log::write_number(long long n) {
    try {
        LogHold hold(*this);
        if (hold.owned()) fs_ << n;
    } catch (...) {
    }
    return *this;
}

void Log::set_size_limit(unsigned long long bytes) {
    // Below 1 KiB the log would roll on nearly every line; above 40 MiB the roll would hold too much.
    if (bytes < 1025 || bytes >= 41943040ULL) return;
    try {
        LogHold hold(*this);
        lim_ = bytes;
    } catch (...) {
    }
}

void Log::flush() {
    try {
        LogHold hold(*this);
        if (hold.owned()) fs_.flush();
    } catch (...) {
    }
}

std::string Log::get_name_to_svr() {
    try {
        std::string sign = get_client_sign();
        return "sdk_" + Util::trim(sign, '{', '}') + ".log";
    } catch (...) {
        return "sdk_.log";
    }
}

void Log::log_head(int level) {
    reopen_file();
    time_t now = static_cast<time_t>(os_time());
    struct tm local = {};
    localtime_r(&now, &local);
    char head[96];
    std::snprintf(head, sizeof(head), "[%04d-%02d-%02d %02d:%02d:%02d] ", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    fs_ << head << level_tag(level);
}

void Log::reopen_file() {
    if (path_.empty()) return;
    if (open_) close_file();
    for (int attempt = 0; attempt < 3 && !open_; ++attempt) {
        fs_.clear();
        fs_.open(path_, std::ios::out | std::ios::app);
        open_ = fs_.is_open();
    }
}

void Log::close_file() {
    fs_.clear();
    fs_.close();
    open_ = false;
}

void Log::chek_rolling() {
    try {
        if (path_.empty() || !open_) return;
        std::streamoff size = fs_.tellp();
        if (size < 0 || static_cast<unsigned long long>(size) < lim_) return;
        // The notice goes in before the cut, so the kept part ends with it.
        log_head(LOG_INFO);
        fs_ << "to roll file, cur size: " << static_cast<long long>(size) << '\n';
        fs_.flush();
        close_file();
        const unsigned long long keep = static_cast<unsigned long long>(static_cast<double>(lim_) * 0.55);
        std::string kept = read_tail(path_, keep);
        fs_.clear();
        fs_.open(path_, std::ios::out | std::ios::trunc);
        open_ = fs_.is_open();
        fs_.write(kept.data(), static_cast<std::streamsize>(kept.size()));
        fs_.flush();
    } catch (...) {
        // A failed roll leaves the file as it is; the next line reopens it in append mode.
    }
}

void Log::ins_err() {
    Config* conf = Config::obj_;
    if (conf && conf->get_int("LOGERR_SEND_LIM") > 0) conf->ins("LOGERR_NUM");
}

}  // namespace Velto

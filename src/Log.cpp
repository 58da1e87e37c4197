// The library's diagnostics log "sdk.log", written by the host's threads and the background thread
// through Log::obj_. Every line reopens the file in append mode, so the log survives the file being
// emptied, moved aside for upload or deleted; the file is cut in place to its last 55 % at the size
// limit. Nothing here ever reports a failure or throws: a line that cannot be written is lost.
//
// The upload of the diagnostics log, run by the background thread while SEND_LOG_ON is on. When the
// log has grown to half its maximum size, or more warnings and errors were counted than allowed, its
// text is moved aside into "sdk.log.bak" (under the log's mutex, so no line lands in a half-moved
// file), "sdk.log" starts afresh and the text is sent as a file upload. A failed upload leaves the
// text in "sdk.log.bak", which the next call sends first.
// The log's mutex is plain and the LOG macros take it, so no line is logged while it is held here.
#include "Log.h"

#include <time.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "Config.h"
#include "HttpClient.h"

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
    return text ? write_text(text, strlen(text)) : *this;
}

Log& Log::operator<<(const std::string& text) {
    return write_text(text.data(), text.size());
}

// Exactly "\n" ends the line and flushes it; anything else is written as it stands.
Log& Log::write_text(const char* text, size_t n) {
    try {
        LogHold hold(*this);
        if (!hold.owned()) return *this;
        if (n == 1 && text[0] == '\n') {
            fs_ << '\n';
            fs_.flush();
        } else {
            fs_.write(text, static_cast<std::streamsize>(n));
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

namespace {

const char kBackupName[] = "sdk.log.bak";
const char kUploadName[] = "log";
// A backup this short holds no complete log line; it is neither sent nor emptied.
const size_t kBackupMinBytes = 10;

void empty_file(const std::string& path) {
    std::ofstream f(path, std::ios::out | std::ios::trunc);
    f.close();
    fault_point("sdk.log.bak: emptied after its upload");
}

// The backup's lines, each followed by a line feed; "" when there is no backup.
std::string read_backup(const std::string& path) {
    std::fstream in(path, std::ios::in | std::ios::out);
    std::string text;
    if (!in.is_open()) return text;
    std::string line;
    while (std::getline(in, line)) {
        text += line;
        text += '\n';
    }
    return text;
}

// Half the configured maximum size in bytes, kept within the range of the 32-bit threshold.
long long size_threshold(long long max_log_kib) {
    const double half = static_cast<double>(max_log_kib) * 1024.0 * 0.5;
    if (half >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (half <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(half);
}

// Copies the live log into the backup (line breaks kept) and returns its lines run together for
// the upload; the live log is emptied only once the backup is whole on disk, so a crash or a full
// disk in between loses no line. False when the log cannot be read, the backup not written, or the
// log not emptied.
// REQUIRES: the log's stream closed and its mutex held; logs nothing.
bool move_log_aside(const std::string& log_path, const std::string& backup_path, std::string& upload) {
    upload.clear();
    std::string kept;
    {
        std::ifstream log_in(log_path);
        if (!log_in.is_open()) return false;
        std::string line;
        while (std::getline(log_in, line)) {
            upload += line;
            kept += line;
            kept += '\n';
        }
    }
    if (!replace_file(backup_path, kept)) return false;
    std::ofstream truncated(log_path, std::ios::out | std::ios::trunc);
    const bool emptied = truncated.is_open();
    truncated.close();
    fault_point("sdk.log: emptied into its backup");
    return emptied;
}

}  // namespace

long long Log::write_pos() {
    if (!open_) return -1;
    return static_cast<long long>(fs_.tellp());
}

int Log::send_log() {
    try {
        Config& conf = *Config::obj_;
        const std::string url = conf.get_str("CONF_URL") + "/v1/file";
        const std::string backup_path = conf.get_str("ROOT_DIR") + kBackupName;

        // The text of an earlier failed upload goes out before anything new.
        const std::string backup = read_backup(backup_path);
        if (backup.size() > kBackupMinBytes) {
            LOGI << "snd log" << LEND;
            if (send_file(backup, url.c_str(), kUploadName) != 0) {
                LOGE << "send bak log file" << LEND;
                return -1;
            }
            empty_file(backup_path);
        }

        const long long threshold = size_threshold(conf.get_int("MAX_LOG_SIZE"));
        const long long err_limit = conf.get_int("LOGERR_SEND_LIM");
        const long long err_count = conf.get_int("LOGERR_NUM");
        long long size = 0;
        {
            MutexLock hold(m_);
            size = write_pos();
        }
        const bool too_big = size >= threshold;
        const bool too_many_errors = err_limit > 0 && err_count > err_limit;
        if (!too_big && !too_many_errors) return 0;
        LOGI << "snd log lim_size: " << threshold << ", lim_err:" << err_limit << ", err:" << err_count
             << LEND;

        std::string upload;
        bool moved = false;
        {
            MutexLock hold(m_);
            close_file();
            moved = move_log_aside(path_, backup_path, upload);
            reopen_file();
        }
        if (!moved) return -1;

        if (send_file(upload, url.c_str(), kUploadName) != 0) {
            MutexLock hold(m_);
            reopen_file();
            return -2;
        }
        empty_file(backup_path);
        conf.set("LOGERR_NUM", "0");
        conf.save_conf(true);
        return 0;
    } catch (...) {
        LOGE << "Exception send_log" << LEND;
        try {
            MutexLock hold(m_);
            reopen_file();
        } catch (...) {
        }
        return -1;
    }
}

}  // namespace Velto

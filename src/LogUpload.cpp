// The upload of the diagnostics log, run by the background thread while SEND_LOG_ON is on. When the
// log has grown to half its maximum size, or more warnings and errors were counted than allowed, its
// text is moved aside into "sdk.log.bak" (under the log's mutex, so no line lands in a half-moved
// file), "sdk.log" starts afresh and the text is sent as a file upload. A failed upload leaves the
// text in "sdk.log.bak", which the next call sends first.
// The log's mutex is plain and the LOG macros take it, so no line is logged while it is held here.
#include <climits>
#include <fstream>
#include <string>

#include "Config.h"
#include "HttpClient.h"
#include "Log.h"

namespace Velto {

namespace {

const char kBackupName[] = "sdk.log.bak";
const char kUploadName[] = "log";
// A backup this short holds no complete log line; it is neither sent nor emptied.
const size_t kBackupMinBytes = 10;

void empty_file(const std::string& path) {
    std::ofstream f(path, std::ios::out | std::ios::trunc);
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
// the upload; the live log is emptied. False when either file cannot be opened or emptied.
// REQUIRES: the log's stream closed and its mutex held; logs nothing.
bool move_log_aside(const std::string& log_path, const std::string& backup_path, std::string& upload) {
    upload.clear();
    {
        std::fstream log_in(log_path, std::ios::in | std::ios::out);
        if (!log_in.is_open()) return false;
        std::fstream backup(backup_path, std::ios::in | std::ios::out | std::ios::trunc);
        if (!backup.is_open()) return false;
        std::string line;
        while (std::getline(log_in, line)) {
            upload += line;
            backup.write(line.data(), static_cast<std::streamsize>(line.size()));
            backup.put('\n');
        }
        backup.flush();
    }
    std::ofstream truncated(log_path, std::ios::out | std::ios::trunc);
    return truncated.is_open();
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

// The upload of the diagnostics log. When the log has grown to half its maximum size, or more
// warnings and errors were counted than allowed, its text is moved aside into "sdk.log.bak" (under
// the log's lock, so no line lands in a half-moved file), "sdk.log" starts afresh and the text is
// sent as a file upload. A failed upload leaves the text in "sdk.log.bak", which the next call
// sends first. Run by the delivery loop on the background thread.
#include "LogUpload.h"

#include <climits>
#include <fstream>
#include <string>

#include "OsApi.h"

namespace Velto {

namespace {

const char kBackupName[] = "sdk.log.bak";
const char kUploadName[] = "log";
// A backup this short holds no complete log line; it is neither sent nor emptied.
const size_t kBackupMinBytes = 10;

void empty_file(const std::string& path) {
    ensure_own_file(path, true);
    fault_point("sdk.log.bak: emptied after its upload");
}

// The backup's lines, each followed by a line feed; "" when there is no backup.
std::string read_backup(const std::string& path) {
    std::string text;
    std::ifstream in;
    if (ensure_own_file(path)) in.open(path);  // never the target of a link planted at the name
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

}  // namespace

void count_log_errors(Log& log, Config& conf) {
    const long long counted = log.take_error_count();
    if (counted <= 0 || conf.get_int("LOGERR_SEND_LIM") <= 0 || !conf.has("LOGERR_NUM")) return;
    conf.set("LOGERR_NUM", conf.get_int("LOGERR_NUM") + counted);
}

int LogUpload::send_log() {
    try {
        const std::string url = conf_.get_str("CONF_URL") + "/v1/file";
        const std::string backup_path = conf_.get_str("ROOT_DIR") + kBackupName;
        // Processes sharing the root write one log; while another of them uploads it, this one
        // leaves it alone.
        TaskLock upload_lock(conf_.get_str("ROOT_DIR") + kNetLockName);
        if (!upload_lock.try_take()) return 0;

        // The text of an earlier failed upload goes out before anything new.
        const std::string backup = read_backup(backup_path);
        if (backup.size() > kBackupMinBytes) {
            LOGI << "snd log" << LEND;
            if (uploader_.send_file(backup, url, kUploadName) != 0) {
                LOGE << "send bak log file" << LEND;
                return -1;
            }
            empty_file(backup_path);
        }

        const long long threshold = size_threshold(conf_.get_int("MAX_LOG_SIZE"));
        const long long err_limit = conf_.get_int("LOGERR_SEND_LIM");
        const long long err_count = conf_.get_int("LOGERR_NUM");
        const long long size = log_.size_now();
        const bool too_big = size >= threshold;
        const bool too_many_errors = err_limit > 0 && err_count > err_limit;
        if (!too_big && !too_many_errors) return 0;
        LOGI << "snd log lim_size: " << threshold << ", lim_err:" << err_limit << ", err:" << err_count
             << LEND;

        std::string upload;
        if (!log_.move_aside(backup_path, upload)) return -1;
        if (uploader_.send_file(upload, url, kUploadName) != 0) {
            log_.reopen();
            return -2;
        }
        empty_file(backup_path);
        conf_.set("LOGERR_NUM", "0");
        conf_.save_conf(true);
        return 0;
    } catch (...) {
        LOGE << "Exception send_log" << LEND;
        log_.reopen();
        return -1;
    }
}

}  // namespace Velto

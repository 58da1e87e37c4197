// The library's diagnostics log "sdk.log", written by the host's threads and the background thread
// through Log::obj_. A line is built in a buffer of the calling thread and written whole with one
// write(2) at LEND, to a descriptor kept open in append mode. The path is compared with the
// descriptor (device, inode, size) before a line when a millisecond has passed since the last
// comparison, and always before rolling, so the log follows a file that was emptied, moved aside or
// deleted: within a millisecond it is created anew (a burst of lines inside that millisecond may
// still reach the old file). The file is cut in place to its last 55 % at the size limit. Nothing
// here ever reports a failure or throws: a line that cannot be written is lost.
//
// The log's mutex is only ever held through Log::Hold; a line logged by the holding thread meanwhile
// is written right after the hold ends. Warn and error lines are counted in an atomic of the log
// (the delivery loop carries the count into the settings); moving the log aside for its upload is
// here, the upload itself in LogUpload.cpp.
#include "Log.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Common.h"
#include "OsApi.h"

namespace Velto {

namespace {

// How often the path is compared with the open descriptor while lines keep coming.
const long long kFollowEveryNs = 1000000;
// A batch writes early once it holds this much, so that a long run of records stays bounded.
const size_t kBatchFlushBytes = 64 * 1024;

// The line the calling thread is building, and its batch of ended lines.
struct LineState {
    Log* owner = nullptr;        // the log the text belongs to
    std::string text;            // ended lines of an open batch, then the line being built
    std::vector<size_t> starts;  // offsets of the lines in text
    size_t line_start = 0;       // offset of the line being built
    bool building = false;       // a line was begun or text inserted since the last end
    int batch = 0;               // depth of open batches
    Log* held = nullptr;         // the log whose lock this thread holds
    std::string held_text;       // lines that thread logged there meanwhile
    std::vector<size_t> held_starts;
    long long head_sec = LLONG_MIN;
    char head[32] = {};
    size_t head_len = 0;
};

// Each thread's state lives on the heap and is freed when the thread ends. A thread that logs
// after that (a destructor running at exit) gets a fresh one: the state of a thread is never used
// after it was freed.
thread_local LineState* t_state = nullptr;
thread_local bool t_reaped = false;

struct StateReaper {
    ~StateReaper() {
        delete t_state;
        t_state = nullptr;
        t_reaped = true;
    }
};

LineState& state() {
    if (t_state == nullptr) {
        t_state = new LineState();
        if (!t_reaped) {
            static thread_local StateReaper reaper;  // frees the state when the thread ends
            (void)reaper;
        }
    }
    return *t_state;
}

long long mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

const char* level_tag(int level) {
    if (level < Log::LOG_WARN) return "[ERROR] ";
    if (level == Log::LOG_WARN) return "[WARN] ";
    return "[INFO] ";
}

// "[YYYY-MM-DD hh:mm:ss] " of the current second, formatted once per second and thread.
void append_head(LineState& st, std::string& out) {
    const long long now = os_time();
    if (now != st.head_sec) {
        time_t t = static_cast<time_t>(now);
        struct tm local = {};
        localtime_r(&t, &local);
        const int n =
            std::snprintf(st.head, sizeof(st.head), "[%04d-%02d-%02d %02d:%02d:%02d] ", local.tm_year + 1900,
                          local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        st.head_len = n > 0 ? static_cast<size_t>(n) : 0;
        st.head_sec = now;
    }
    out.append(st.head, st.head_len);
}

int open_append(const std::string& path) {
    return open_own_file(path, O_WRONLY | O_APPEND);
}

// Under a file-size limit (RLIMIT_FSIZE) a write past it would kill the writing thread's process
// with SIGXFSZ, and the log is written from the host's threads: lines that would pass it are
// dropped instead.
unsigned long long file_size_cap() {
    struct rlimit r;
    if (getrlimit(RLIMIT_FSIZE, &r) != 0 || r.rlim_cur == RLIM_INFINITY) return ULLONG_MAX;
    const unsigned long long limit = r.rlim_cur;
    const unsigned long long margin = 64 * 1024;  // more than the longest line
    return limit > 2 * margin ? limit - margin : limit / 2;
}

}  // namespace

Log::Hold::Hold(Log& log) : log_(log) {
    LineState& st = state();  // may allocate: done before the lock is taken
    log.m_.lock();
    outer_ = st.held;
    st.held = &log;
    outer_text_.swap(st.held_text);
    outer_starts_.swap(st.held_starts);
}

Log::Hold::~Hold() {
    log_.m_.unlock();
    try {
        LineState& st = state();
        std::string text;
        std::vector<size_t> starts;
        text.swap(st.held_text);
        starts.swap(st.held_starts);
        st.held = outer_;
        st.held_text.swap(outer_text_);
        st.held_starts.swap(outer_starts_);
        if (!text.empty()) log_.write_lines(text.data(), text.size(), starts.data(), starts.size());
    } catch (...) {
    }
}

Log::Log() : upname_("sdk.log"), fd_(-1), size_(0), dev_(0), ino_(0), checked_ns_(0), lim_(kDefaultLimit) {}

Log::~Log() {
    if (fd_ >= 0) ::close(fd_);
    LineState& st = state();
    if (st.owner == this) {
        st.owner = nullptr;
        st.text.clear();
        st.starts.clear();
        st.building = false;
        st.batch = 0;
    }
}

void Log::init(const char* path, const std::string& upname) {
    try {
        m_.init();
        if (!path) return;
        Hold hold(*this);
        path_ = path;
        upname_ = upname;
        reopen_file();
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
    LineState& st = state();
    if (level <= LOG_WARN) errors_.fetch_add(1, std::memory_order_relaxed);
    try {
        // Text inserted without a line end goes out before the next line, as it was inserted.
        if (st.building && st.batch == 0) flush();
        if (st.owner != this) {
            if (!st.text.empty()) flush();
            st.owner = this;
        }
        st.line_start = st.text.size();
        append_head(st, st.text);
        st.text += level_tag(level);
        st.building = true;
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

// Exactly "\n" ends the line and writes it; anything else is added as it stands.
Log& Log::write_text(const char* text, size_t n) {
    LineState& st = state();
    try {
        if (st.owner != this) {
            if (!st.text.empty()) flush();
            st.owner = this;
            st.line_start = st.text.size();
        }
        if (!st.building) {
            st.line_start = st.text.size();
            st.building = true;
        }
        st.text.append(text, n);
        if (n != 1 || text[0] != '\n') return *this;
        st.building = false;
        if (st.batch > 0) {
            st.starts.push_back(st.line_start);
            if (st.text.size() < kBatchFlushBytes) return *this;
        } else {
            const size_t start = 0;
            write_lines(st.text.data(), st.text.size(), &start, 1);
            st.text.clear();
            return *this;
        }
        write_lines(st.text.data(), st.text.size(), st.starts.data(), st.starts.size());
        st.text.clear();
        st.starts.clear();
    } catch (...) {
    }
    return *this;
}

Log& Log::write_number(long long n) {
    char buf[24];
    std::to_chars_result r = std::to_chars(buf, buf + sizeof(buf), n);
    return write_text(buf, static_cast<size_t>(r.ptr - buf));
}

void Log::set_size_limit(unsigned long long bytes) {
    // Below 1 KiB the log would roll on nearly every line; above 40 MiB the roll would hold too much.
    if (bytes < 1025 || bytes >= 41943040ULL) return;
    try {
        Hold hold(*this);
        lim_ = bytes;
    } catch (...) {
    }
}

unsigned long long Log::size_limit() {
    Hold hold(*this);
    return lim_;
}

std::string Log::path() {
    Hold hold(*this);
    return path_;
}

void Log::flush() {
    LineState& st = state();
    if (st.owner == nullptr || st.text.empty()) return;
    try {
        // Ended lines of an open batch, then the unended rest as one more piece.
        std::vector<size_t> starts(st.starts);
        if (st.building && (starts.empty() || starts.back() != st.line_start))
            starts.push_back(st.line_start);
        if (starts.empty() || starts.front() != 0) starts.insert(starts.begin(), 0);
        st.owner->write_lines(st.text.data(), st.text.size(), starts.data(), starts.size());
    } catch (...) {
    }
    st.text.clear();
    st.starts.clear();
    st.line_start = 0;
    st.building = false;
}

void Log::begin_batch() {
    LineState& st = state();
    if (st.building && st.batch == 0) flush();
    ++st.batch;
}

void Log::end_batch() {
    LineState& st = state();
    if (st.batch == 0) return;
    if (--st.batch > 0 || st.owner == nullptr) return;
    if (!st.starts.empty()) {
        try {
            const size_t ended = st.building ? st.line_start : st.text.size();
            st.owner->write_lines(st.text.data(), ended, st.starts.data(), st.starts.size());
            st.text.erase(0, ended);
            if (st.building) st.line_start = 0;
        } catch (...) {
        }
        st.starts.clear();
    }
}
std::string Log::get_name_to_svr(const std::string& client_sign) {
    try {
        std::string sign = client_sign;
        return "sdk_" + Util::trim(sign, '{', '}') + ".log";
    } catch (...) {
        return "sdk_.log";
    }
}

void Log::write_lines(const char* text, size_t n, const size_t* starts, size_t count) {
    LineState& st = state();
    if (st.held != this) {
        Hold hold(*this);
        write_lines_held(text, n, starts, count);
        return;
    }
    const size_t base = st.held_text.size();
    for (size_t i = 0; i < count; ++i) {
        if (starts[i] <= n) st.held_starts.push_back(base + starts[i]);
    }
    st.held_text.append(text, n);
}

void Log::write_lines_held(const char* text, size_t n, const size_t* starts, size_t count) {
    if (path_.empty()) return;
    follow_file(false);
    if (fd_ < 0) return;
    size_t from = 0;
    for (size_t i = 0; i < count; ++i) {
        const size_t at = starts[i];
        if (at < from || at > n) continue;
        // A line that begins when the file holds the limit rolls it first.
        if (size_ + (at - from) < lim_) continue;
        append_bytes(text + from, at - from);
        from = at;
        sync_size();
        if (size_ >= lim_) roll();
    }
    append_bytes(text + from, n - from);
}

bool Log::append_bytes(const char* data, size_t n) {
    if (size_ + n > fsize_cap_) return false;  // the lines are dropped; the file keeps what it has
    if (fd_ < 0) return n == 0;
    // After a failed write the size is known again at the next comparison with the path.
    if (!write_all(fd_, data, n)) return false;
    size_ += n;
    return true;
}

// The path is compared with the descriptor every kFollowEveryNs of logging and whenever force is
// set: a file that is gone, has lost its last link or was replaced at the path is opened anew; an
// emptied or grown one is followed through its size (appends land at its end either way).
void Log::follow_file(bool force) {
    if (fd_ < 0) {
        reopen_file();
        return;
    }
    const long long now = mono_ns();
    if (!force && now - checked_ns_ < kFollowEveryNs) return;
    checked_ns_ = now;
    fsize_cap_ = file_size_cap();  // the host may lower its limit while it runs
    struct stat ps;
    if (::stat(path_.c_str(), &ps) != 0 || ps.st_ino != ino_ || ps.st_dev != dev_) {
        reopen_file();
        return;
    }
    size_ = static_cast<unsigned long long>(ps.st_size);
}

void Log::sync_size() {
    follow_file(true);
}

void Log::reopen_file() {
    if (path_.empty()) return;
    close_file();
    for (int attempt = 0; attempt < 3 && fd_ < 0; ++attempt) fd_ = open_append(path_);
    if (fd_ < 0) return;
    fsize_cap_ = file_size_cap();
    struct stat fs;
    if (::fstat(fd_, &fs) == 0) {
        dev_ = fs.st_dev;
        ino_ = fs.st_ino;
        size_ = static_cast<unsigned long long>(fs.st_size);
    }
    checked_ns_ = mono_ns();
}

void Log::close_file() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

// The notice goes in before the cut, so the kept part ends with it; the file is then cut in place
// to its last 55 % of the limit (at a byte, not a line).
void Log::roll() {
    LineState& st = state();
    std::string notice;
    append_head(st, notice);
    notice += level_tag(LOG_INFO);
    notice += "to roll file, cur size: ";
    notice += std::to_string(size_);
    notice += '\n';
    append_bytes(notice.data(), notice.size());
    sync_size();
    if (fd_ < 0) return;
    const unsigned long long keep = static_cast<unsigned long long>(static_cast<double>(lim_) * 0.55);
    const unsigned long long from = size_ > keep ? size_ - keep : 0;
    std::string kept(static_cast<size_t>(size_ - from), '\0');
    int in = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return;  // a failed roll leaves the file as it is
    size_t got = 0;
    while (got < kept.size()) {
        const ssize_t r = ::pread(in, &kept[got], kept.size() - got, static_cast<off_t>(from + got));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        got += static_cast<size_t>(r);
    }
    ::close(in);
    kept.resize(got);
    if (::ftruncate(fd_, 0) != 0) return;
    size_ = 0;
    append_bytes(kept.data(), kept.size());
}

namespace {

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
    const bool emptied = ensure_own_file(log_path, true);
    fault_point("sdk.log: emptied into its backup");
    return emptied;
}

}  // namespace

long long Log::write_pos() {
    if (fd_ < 0 || path_.empty()) return -1;
    sync_size();
    return fd_ < 0 ? -1 : static_cast<long long>(size_);
}

long long Log::size_now() {
    Hold hold(*this);
    return write_pos();
}

bool Log::move_aside(const std::string& backup_path, std::string& upload) {
    Hold hold(*this);
    close_file();
    const bool moved = move_log_aside(path_, backup_path, upload);
    reopen_file();
    return moved;
}

void Log::reopen() {
    try {
        Hold hold(*this);
        reopen_file();
    } catch (...) {
    }
}

}  // namespace Velto

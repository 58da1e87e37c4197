// The message file store and the upload of set-aside batches. "sdk.msg" holds one record a line,
// "<10-digit time>,<fencode of the record>", appended by the background loop; rewrites go through
// the journal "sdk.msg.bak" so that a crash in the middle of one loses nothing. Batches are renamed
// to "MSG_PRE_<guid><time>" and uploaded one file per request, deleted only once the server took
// them or once they are past the retention period. Used by the background thread only.
#include "MsgFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "ComInc.h"
#include "Common.h"
#include "Config.h"
#include "Consent.h"
#include "Log.h"
#include "OsApi.h"
#include "Uploader.h"

namespace Velto {

namespace {

const char kMsgName[] = "sdk.msg";
const char kJournalName[] = "sdk.msg.bak";
// A journal that cannot be trusted is kept under this name for a look, never restored.
const char kBadJournalName[] = "sdk.msg.bak.bad";
// Advisory locks of the processes that share the root.
const char kLockName[] = "sdk.lock";
// A journal shorter than this cannot hold a record line; it is left over from an emptied rewrite.
const std::streamoff kJournalMinBytes = 10;
const size_t kTimeFieldLen = 10;
const size_t kMinPayloadLen = 16;
const long long kSecondsPerDay = 86400;

const std::ios::openmode kAppendMode = std::ios::in | std::ios::out | std::ios::app;
const std::ios::openmode kRewriteMode = std::ios::in | std::ios::out | std::ios::trunc;

// Empties a file (creating it when missing); false when it cannot be opened.
bool truncate_file(const std::string& path) {
    return ensure_own_file(path, true);
}

// Every line followed by a line feed, in one string.
std::string joined_lines(const StrList& lines) {
    size_t total = 0;
    for (const std::string& line : lines) total += line.size() + 1;
    std::string text;
    text.reserve(total);
    for (const std::string& line : lines) {
        text += line;
        text += '\n';
    }
    return text;
}

long long stream_length(std::fstream& f) {
    f.seekg(0, std::ios::end);
    std::streamoff len = f.tellg();
    return len < 0 ? 0 : static_cast<long long>(len);
}

// A line is a record only with a 10-character time, a comma and a payload of 16 characters or more.
bool split_record_line(const std::string& line, long long& time, size_t& payload_pos) {
    const size_t comma = line.find(',');
    if (comma == std::string::npos || comma != kTimeFieldLen) return false;
    if (line.size() - comma - 1 < kMinPayloadLen) return false;
    time = std::strtoll(line.c_str(), nullptr, 10);  // stops at the comma at the latest
    payload_pos = comma + 1;
    return true;
}

// The record text of a payload; "" for a payload that does not decode (cipher errors included),
// and for one that is not a whole JSON object: a line cut short by a crash can still decode, to
// the first part of its record, which must not travel as a record of its own.
std::string decode_payload(const std::string& line, size_t payload_pos) {
    try {
        std::string record = Util::fdecode(line.substr(payload_pos));
        if (record.size() < 2 || record.front() != '{' || record.back() != '}') return std::string();
        return record;
    } catch (...) {
        return std::string();
    }
}

// True when the line is a record line whose payload decodes to a record.
bool is_record_line(const std::string& line) {
    long long time = 0;
    size_t payload_pos = 0;
    return split_record_line(line, time, payload_pos) && !decode_payload(line, payload_pos).empty();
}

int negated_count(long long dropped) {
    return dropped > INT_MAX ? -INT_MAX : -static_cast<int>(dropped);
}

void drop_oldest(StrList& records, StrList* raw_lines) {
    records.pop_front();
    if (raw_lines && !raw_lines->empty()) raw_lines->pop_front();
}

// Closes fs (whatever its state) and opens msg_path in the given mode; true when it is open.
bool reopen(std::fstream& fs, const std::string& msg_path, std::ios::openmode mode) {
    fs.clear();
    if (fs.is_open()) fs.close();
    fs.clear();
    fs.open(msg_path, mode);
    return fs.is_open();
}

// Reads up to n bytes at offset; the number read.
size_t read_at(int fd, long long offset, char* out, size_t n) {
    size_t got = 0;
    while (got < n) {
        const ssize_t r =
            ::pread(fd, out + got, n - got, static_cast<off_t>(offset + static_cast<long long>(got)));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        got += static_cast<size_t>(r);
    }
    return got;
}

// The line feeds in the first `end` bytes of fd, read in bounded pieces.
long long count_lines(int fd, long long end) {
    char buf[1 << 16];
    long long lines = 0;
    for (long long at = 0; at < end;) {
        const size_t got =
            read_at(fd, at, buf, static_cast<size_t>(std::min<long long>(sizeof buf, end - at)));
        if (got == 0) break;
        lines += std::count(buf, buf + got, '\n');
        at += static_cast<long long>(got);
    }
    return lines;
}

int open_for_append(const std::string& path) {
    return open_own_file(path, O_WRONLY | O_APPEND);
}

bool reopen_truncated(std::fstream& fs, const std::string& msg_path) {
    return ensure_own_file(msg_path, true) && reopen(fs, msg_path, kRewriteMode);
}

// The journal's whole text when it can be trusted: complete (every line ended) and every line a
// record. A journal is only ever renamed into place once complete, so anything else is damage,
// which must never replace the intact records of "sdk.msg".
bool read_trusted_journal(std::fstream& journal, std::string& text, long long& bad_line) {
    journal.clear();
    journal.seekg(0, std::ios::beg);
    text.clear();
    bad_line = 0;
    std::string line;
    long long number = 0;
    while (std::getline(journal, line)) {
        ++number;
        if (journal.eof() || !is_record_line(line)) {  // eof: the last line has no line feed
            bad_line = number;
            return false;
        }
        text += line;
        text += '\n';
    }
    return !text.empty();
}

// A journal of 10 bytes or more is a rewrite that did not finish: its lines replace "sdk.msg".
// REQUIRES: fs is open on "sdk.msg".
int restore_from_journal(std::fstream& fs, const std::string& path) {
    const std::string msg_path = path + kMsgName;
    const std::string journal_path = path + kJournalName;
    std::fstream journal;
    if (ensure_own_file(journal_path)) journal.open(journal_path, kAppendMode);
    if (!journal.is_open() || stream_length(journal) < kJournalMinBytes) return RES_OK;

    std::string text;
    long long bad_line = 0;
    const bool trusted = read_trusted_journal(journal, text, bad_line);
    journal.close();
    if (!trusted) {
        LOGW << "journal not restored, bad line: " << bad_line << LEND;
        if (std::rename(journal_path.c_str(), (path + kBadJournalName).c_str()) != 0)
            std::remove(journal_path.c_str());
        return RES_OK;
    }
    fs.close();
    if (!replace_file(msg_path, text)) {
        // The journal stays, so the next open tries again.
        LOGE << "open msg file: " << path << LEND;
        reopen(fs, msg_path, kAppendMode);
        return RES_FILE_OPEN;
    }
    if (!truncate_file(journal_path)) std::remove(journal_path.c_str());
    fault_point("sdk.msg.bak: restored and emptied");
    // Back to the usual mode, so that appends land at the end whatever is read in between.
    if (!reopen(fs, msg_path, kAppendMode)) {
        LOGE << "open msg file: " << path << LEND;
        return RES_FILE_OPEN;
    }
    return RES_OK;
}

// A last line without its line feed was cut short by a crash; ending it keeps the next record from
// being glued to the fragment (the fragment alone is dropped on reading).
// REQUIRES: fs is open on "sdk.msg" for appending.
void end_torn_line(std::fstream& fs) {
    fs.clear();
    fs.seekg(0, std::ios::end);
    if (fs.tellg() <= 0) return;
    fs.seekg(-1, std::ios::end);
    char last = '\n';
    fs.get(last);
    fs.clear();
    if (last != '\n') {
        fs.put('\n');
        fs.flush();
    }
}

}  // namespace

int MsgFile::open() {
    try {
        close();
        const std::string path = root();
        if (path.empty()) {
            LOGW << "null path, maybe exiting" << LEND;
            return RES_FILE_OPEN;
        }
        if (consent_declined()) return RES_FILE_OPEN;  // nothing is kept for a user who declined
        const std::string msg_path = path + kMsgName;
        RootLock hold(*this, true);  // the journal and the torn line belong to no other process now
        // Created owner-only, and never through a link planted at the name.
        fd_ = open_for_append(msg_path);
        if (fd_ >= 0) {
            fs_.clear();
            fs_.open(msg_path, kAppendMode);
        }
        if (!fs_.is_open()) {
            close();
            LOGE << "open msg file: " << path << LEND;
            return RES_FILE_OPEN;
        }
        const int restored = restore_from_journal(fs_, path);
        if (fs_.is_open()) end_torn_line(fs_);
        // The journal may have replaced the file: the appends follow the name.
        ::close(fd_);
        fd_ = fs_.is_open() ? open_for_append(msg_path) : -1;
        if (fd_ < 0) {
            close();
            return restored != RES_OK ? restored : RES_FILE_OPEN;
        }
        // A line begun in a file that is gone, or whose end was just added, is written whole again.
        unwritten_done_ = 0;
        write_out();
        return restored;
    } catch (...) {
        LOGE << "Exception open_msg_fp" << LEND;
        return RES_MSG_EXCEPTION;
    }
}

MsgFile::MsgFile() : MsgFile(*Config::obj_, Uploader::standard()) {}

MsgFile::MsgFile(Config& conf, Uploader& uploader) : conf_(conf), uploader_(uploader) {}

std::string MsgFile::root() const {
    return conf_.get_str("ROOT_DIR");
}

MsgFile::~MsgFile() {
    try {
        close();
    } catch (...) {
    }
    if (lock_fd_ >= 0) ::close(lock_fd_);
}

bool MsgFile::check_drop() {
    return check_cap(size_limit_);
}

bool MsgFile::check_cap(long long cap) {
    try {
        if (root().empty()) {
            LOGW << "null path, may init" << LEND;
            return false;
        }
        if (fd_ < 0 && open() != RES_OK) return false;
        // Lines gathered in an open batch count too: a burst drained from the queue in one batch
        // must not pass the cap by a queue's worth.
        const bool batching = batching_;
        end_batch();
        batching_ = batching;
        flush();
        RootLock hold(*this, true);
        follow_moved_file();
        struct stat st;
        if (::fstat(fd_, &st) != 0 || st.st_size <= std::min(cap, size_limit_)) return false;
        LOGW << "to del msg: " << static_cast<long long>(st.st_size) << LEND;
        // Far below the cap, so that the next trim is far away: the bytes written to the disk stay
        // within a small multiple of the records' own.
        trim_to(std::min(cap, size_limit_) * 2 / 5);
        return true;
    } catch (...) {
        open();
        return false;
    }
}

// Keeps the newest whole lines that fit in keep_bytes as they stand on disk, through a temporary
// file renamed over "sdk.msg"; the oldest go, counted in the log as a rewrite does.
void MsgFile::trim_to(long long keep_bytes) {
    const std::string msg_path = root() + kMsgName;
    const int in = ::open(msg_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (in < 0) return;
    struct stat st;
    if (::fstat(in, &st) != 0) {
        ::close(in);
        return;
    }
    const long long size = static_cast<long long>(st.st_size);
    // From one byte before the cut, so that a line starting right at it is seen whole.
    const long long from = std::max(0LL, size - keep_bytes - 1);
    std::string kept(static_cast<size_t>(size - from), '\0');
    kept.resize(read_at(in, from, &kept[0], kept.size()));
    long long keep_start = 0;
    if (from > 0) {  // the first line kept is the first whole one
        const size_t feed = kept.find('\n');
        const size_t cut = feed == std::string::npos ? kept.size() : feed + 1;
        kept.erase(0, cut);
        keep_start = from + static_cast<long long>(cut);
    }
    const long long dropped = count_lines(in, keep_start);
    ::close(in);
    LOGI << "roll_msg cnt: " << -dropped << LEND;
    close();
    if (!replace_file(msg_path, kept)) LOGE << "msg_fp open" << LEND;
    open();
}

int MsgFile::get_msg_list(long long begin, long long max_count, long long max_bytes, StrList& records,
                          long long& newest, StrList* raw_lines, std::fstream* stream) {
    long long dropped = 0;
    try {
        newest = 0;
        records.clear();
        if (raw_lines) raw_lines->clear();
        std::fstream& in = stream ? *stream : fs_;
        in.flush();
        in.clear();
        in.seekg(0, std::ios::beg);

        long long total_bytes = 0;
        std::string line;
        while (std::getline(in, line)) {
            long long time = 0;
            size_t payload_pos = 0;
            if (!split_record_line(line, time, payload_pos)) {
                ++dropped;
                continue;
            }
            newest = time;
            if (begin >= 1 && time < begin) {
                ++dropped;
                continue;
            }
            std::string record = decode_payload(line, payload_pos);
            if (record.empty()) {
                ++dropped;
                continue;
            }
            total_bytes += static_cast<long long>(record.size());
            records.push_back(std::move(record));
            if (raw_lines) raw_lines->push_back(std::move(line));
        }
        if (newest == 0) newest = os_time();

        // The oldest record that brings the total to max_bytes or below is kept on purpose.
        if (max_bytes >= 1) {
            while (!records.empty() &&
                   total_bytes - static_cast<long long>(records.front().size()) > max_bytes) {
                total_bytes -= static_cast<long long>(records.front().size());
                drop_oldest(records, raw_lines);
                ++dropped;
            }
        }
        if (max_count > 0) {
            while (static_cast<long long>(records.size()) > max_count) {
                drop_oldest(records, raw_lines);
                ++dropped;
            }
        }
        open();
        return negated_count(dropped);
    } catch (...) {
        // Half a list would make a rewrite lose records; nothing is reported instead.
        records.clear();
        if (raw_lines) raw_lines->clear();
        LOGE << "Exception get_msg_list" << LEND;
        open();
        return 0;
    }
}

std::string MsgFile::comb_msg(long long begin, long long max_count, long long max_bytes, long long& newest,
                              std::fstream* stream) {
    StrList records;
    get_msg_list(begin, max_count, max_bytes, records, newest, nullptr, stream);
    del_repeat(records);
    return joined_lines(records);
}

bool MsgFile::del_repeat(StrList& records) {
    // Views into the list's own nodes, which stay put while duplicates are erased around them.
    std::unordered_set<std::string_view> seen;
    seen.reserve(records.size());
    for (StrList::iterator it = records.begin(); it != records.end();) {
        if (seen.insert(std::string_view(*it)).second) {
            ++it;
        } else {
            LOGW << "repeat msg" << LEND;
            it = records.erase(it);
        }
    }
    return true;
}

bool MsgFile::roll_needed(long long begin, long long max_bytes) {
    try {
        flush();
        RootLock hold(*this, false);
        follow_moved_file();
        const int fd = ::open((root() + kMsgName).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) return true;
        struct stat st;
        char head[kTimeFieldLen + 1];
        const bool sized = ::fstat(fd, &st) == 0;
        const size_t got = sized && st.st_size > 0 ? read_at(fd, 0, head, sizeof head) : 0;
        ::close(fd);
        if (!sized || (max_bytes > 0 && st.st_size > max_bytes)) return true;
        if (st.st_size == 0) return false;
        if (got != sizeof head || head[kTimeFieldLen] != ',') return true;  // a damaged first line
        long long first = 0;
        for (size_t i = 0; i < kTimeFieldLen; ++i) {
            if (head[i] < '0' || head[i] > '9') return true;
            first = first * 10 + (head[i] - '0');
        }
        return first < begin;
    } catch (...) {
        return true;
    }
}

int MsgFile::roll_msg(long long begin, long long max_count, long long max_bytes, long long& newest) {
    try {
        flush();
        RootLock hold(*this, true);
        follow_moved_file();
        StrList records;
        StrList raw_lines;
        const int n = get_msg_list(begin, max_count, max_bytes, records, newest, &raw_lines, nullptr);
        if (n >= 0) return 0;
        LOGI << "roll_msg cnt: " << n << LEND;
        records.clear();

        const std::string path = root();
        const std::string msg_path = path + kMsgName;
        if (raw_lines.empty()) {
            LOGI << "roll_msg null" << LEND;
            unwritten_done_ = 0;
            return reopen_truncated(fs_, msg_path) ? 0 : -1;
        }
        // The journal appears only complete (written aside, flushed, renamed into place): from then
        // on a crash at any step below is repaired from it at the next open.
        const std::string journal_path = path + kJournalName;
        const std::string kept = joined_lines(raw_lines);
        if (!replace_file(journal_path, kept)) {
            LOGE << "fp_back open" << LEND;
            return -1;
        }
        if (!reopen_truncated(fs_, msg_path)) {
            LOGE << "msg_fp open" << LEND;
            return -1;
        }
        fault_point("sdk.msg: emptied for the rewrite");
        fs_.write(kept.data(), static_cast<std::streamsize>(kept.size()));
        fs_.flush();
        unwritten_done_ = 0;  // a line begun before the rewrite is not in the file any more
        fault_point("sdk.msg: rewritten");
        // An emptied journal is never restored; one that cannot be emptied must not stay either.
        if (!truncate_file(journal_path)) std::remove(journal_path.c_str());
        fault_point("sdk.msg.bak: emptied");
        return 0;
    } catch (...) {
        open();
        LOGE << "Exception roll_msg" << LEND;
        return RES_MSG_EXCEPTION;
    }
}

// Renames "sdk.msg" to a new set-aside name; new records go to a fresh "sdk.msg" from here on.
bool MsgFile::set_aside(const std::string& root, long long now) {
    RootLock hold(*this, true);
    const std::string name = set_aside_name(get_guid(), now);
    close();
    std::string error;
    const bool renamed = rename_file(root, kMsgName, name, &error);
    if (renamed) fault_point("sdk.msg: set aside");
    open();
    if (!renamed) {
        LOGE << "rename: " << error << LEND;
        LOGE << "rename: " << root << name << LEND;
        return false;
    }
    return true;
}

namespace {

// A set-aside batch held by this process alone while it uploads or expires it: an exclusive lock
// on the file itself, taken only if no other process holds it, and only while the name still
// belongs to the file locked (another process may have uploaded and deleted it meanwhile).
class BatchLock {
  public:
    explicit BatchLock(const std::string& path)
        : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {
        if (fd_ < 0 || ::flock(fd_, LOCK_EX | LOCK_NB) != 0) return;
        struct stat mine, named;
        held_ = ::fstat(fd_, &mine) == 0 && ::stat(path.c_str(), &named) == 0 &&
                mine.st_ino == named.st_ino && mine.st_dev == named.st_dev;
    }
    ~BatchLock() {
        if (fd_ >= 0) ::close(fd_);  // releases the lock
    }
    BatchLock(const BatchLock&) = delete;
    BatchLock& operator=(const BatchLock&) = delete;
    bool held() const { return held_; }

  private:
    int fd_;
    bool held_ = false;
};

// Uploads one set-aside file; it is deleted once the server took it, when it holds no record, or
// when its newest record is older than cutoff (a time in the future counts as now).
bool send_set_aside(MsgFile& store, Uploader& uploader, const std::string& path, const std::string& url,
                    const std::string& guid, long long now, long long cutoff) {
    std::string body;
    long long newest = 0;
    {
        std::fstream file(path, std::ios::in | std::ios::out);
        body = store.comb_msg(0, 0, 0, newest, &file);
    }
    if (body.empty()) {
        std::remove(path.c_str());
        return true;
    }
    if (std::min(newest, now) < cutoff) {
        LOGW << "msg file expired: " << path << LEND;
        std::remove(path.c_str());
        return true;
    }
    LOGI << "snd old msgs: " << path << LEND;
    // The delivery loop's pump appends to this store while the upload waits (see process_msgs).
    const int r = uploader.send_file(body, url, guid);
    if (r != 0) {
        LOGW << "snd old msgs: " << path << ", ret: " << r << LEND;
        return false;
    }
    fault_point("MSG_PRE_: uploaded");
    std::remove(path.c_str());
    return true;
}

struct SetAside {
    std::string name;
    std::string guid;
    long long time;
    long long bytes;
};

// The set-aside files of the root, oldest first by the time in their names.
std::vector<SetAside> set_aside_files(const std::string& root) {
    StrList names;
    get_files(root, names);
    std::vector<SetAside> files;
    for (const std::string& name : names) {
        std::string guid;
        long long time = 0;
        struct stat st;
        if (!starts_with(name, kSetAsidePrefix)) continue;
        if (!parse_set_aside_name(name, guid, time)) {
            LOGW << "msg file: " << name << LEND;
            continue;
        }
        if (::lstat((root + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        files.push_back({name, guid, time, static_cast<long long>(st.st_size)});
    }
    std::stable_sort(files.begin(), files.end(),
                     [](const SetAside& a, const SetAside& b) { return a.time < b.time; });
    return files;
}

// While the server does not take them, set-aside files could fill the disk: past the cap the
// oldest go (each under its own lock, so never one that another process is uploading).
// The files dropped leave the list.
void bound_set_aside(const std::string& root, std::vector<SetAside>& files, long long cap) {
    long long total = 0;
    for (const SetAside& f : files) total += f.bytes;
    for (auto it = files.begin(); it != files.end() && total > cap;) {
        const std::string path = root + it->name;
        BatchLock batch(path);
        if (!batch.held()) {
            ++it;
            continue;
        }
        LOGW << "msg file dropped over cap: " << path << LEND;
        std::remove(path.c_str());
        total -= it->bytes;
        it = files.erase(it);
    }
}

}  // namespace

// The cut-off of the retention period: records stamped before it have expired. Never later than
// the earliest time this run stamped, so that a clock set right during the run does not expire
// what the run itself wrote under the wrong clock.
long long MsgFile::expiry_cutoff(long long now, long long retention) const {
    long long cutoff = 0;
    if (__builtin_sub_overflow(now, retention, &cutoff)) cutoff = LLONG_MIN;
    return std::min(cutoff, run_floor_);
}

void MsgFile::note_clock(long long now) {
    run_floor_ = std::min(run_floor_, now);
}

bool MsgFile::process_msgs(bool has_new) {
    try {
        const std::string root = this->root();
        const std::string base = conf_.get_str("CONF_URL");
        if (root.empty()) {
            LOGW << "null path, maybe exiting" << LEND;
            return false;
        }
        LOGI << "process_msgs: " << (has_new ? 1 : 0) << LEND;
        const long long now = os_time();
        note_clock(now);
        if (has_new && !set_aside(root, now)) return false;
        std::vector<SetAside> files = set_aside_files(root);
        bound_set_aside(root, files, kSetAsideCap);

        const long long retention =
            static_cast<long long>(std::atoi(conf_.get_str("MAX_RESV_DAY").c_str())) * kSecondsPerDay;
        const long long cutoff = expiry_cutoff(now, retention);
        const std::string url = base + "/v1/file";
        for (const SetAside& file : files) {
            const std::string path = root + file.name;
            BatchLock batch(path);
            if (!batch.held()) continue;  // another process is on it, or it is gone
            if (!send_set_aside(*this, uploader_, path, url, file.guid, now, cutoff)) return false;
        }
        return true;
    } catch (...) {
        open();
        LOGE << "Exception process_msgs" << LEND;
        return false;
    }
}

bool MsgFile::append(long long time, const std::string& encoded) {
    try {
        char stamp[32];
        const int n = std::snprintf(stamp, sizeof(stamp), "%lld,", time);
        note_clock(time);
        std::string& lines = batching_ ? batch_ : unwritten_;
        lines.append(stamp, static_cast<size_t>(n));
        lines += encoded;
        lines += '\n';
        return batching_ || write_out();
    } catch (...) {
        return false;
    }
}

void MsgFile::begin_batch() {
    batching_ = true;
}

// The gathered lines go out whole, in one write, before the loop goes on.
bool MsgFile::end_batch() {
    batching_ = false;
    if (batch_.empty()) return true;
    try {
        unwritten_ += batch_;
        batch_.clear();
        return write_out();
    } catch (...) {
        batch_.clear();
        return false;
    }
}

// Writes the unwritten lines at the file's end. What a failed or partial write leaves stays, whole
// lines but for the one partly written, which is finished first next time (or written whole again
// once the file was reopened).
bool MsgFile::write_out() {
    if (unwritten_.empty()) return true;
    RootLock hold(*this, false);
    follow_moved_file();
    while (unwritten_done_ < unwritten_.size()) {
        if (fd_ < 0) {
            keep_unwritten_within_bound();
            return false;
        }
        const ssize_t n =
            ::write(fd_, unwritten_.data() + unwritten_done_, unwritten_.size() - unwritten_done_);
        if (n > 0) {
            unwritten_done_ += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        note_write_failure(n < 0 ? errno : ENOSPC);
        const size_t line_end = unwritten_.rfind('\n', unwritten_done_ == 0 ? 0 : unwritten_done_ - 1);
        if (unwritten_done_ > 0 && line_end != std::string::npos) {
            unwritten_.erase(0, line_end + 1);  // whole lines that made it
            unwritten_done_ -= line_end + 1;
        }
        keep_unwritten_within_bound();
        return false;
    }
    unwritten_.clear();
    unwritten_done_ = 0;
    if (failing_) {
        failing_ = false;
        LOGI << "msg file writable again" << LEND;
    }
    return true;
}

// Another process may have set "sdk.msg" aside or replaced it: the appends follow the name.
// REQUIRES: the root's lock held.
void MsgFile::follow_moved_file() {
    if (fd_ < 0) return;
    const std::string path = root() + kMsgName;
    struct stat mine, named;
    if (::fstat(fd_, &mine) == 0 && ::stat(path.c_str(), &named) == 0 && mine.st_ino == named.st_ino &&
        mine.st_dev == named.st_dev)
        return;
    ::close(fd_);
    fd_ = open_for_append(path);
    unwritten_done_ = 0;  // a line begun in the other file is written whole here
    reopen(fs_, path, kAppendMode);
}

MsgFile::RootLock::RootLock(MsgFile& store, bool exclusive) : store_(store) {
    if (store_.lock_depth_++ > 0) return;
    if (store_.lock_fd_ < 0) {
        const std::string root = store_.root();
        if (root.empty()) return;
        store_.lock_fd_ = open_own_file(root + kLockName, O_RDWR);
    }
    while (store_.lock_fd_ >= 0 && ::flock(store_.lock_fd_, exclusive ? LOCK_EX : LOCK_SH) != 0 &&
           errno == EINTR) {
    }
}

MsgFile::RootLock::~RootLock() {
    if (--store_.lock_depth_ > 0 || store_.lock_fd_ < 0) return;
    ::flock(store_.lock_fd_, LOCK_UN);
}

bool MsgFile::remove_line(const std::string& line) {
    try {
        flush();
        RootLock hold(*this, true);
        follow_moved_file();
        const std::string path = root() + kMsgName;
        std::ifstream in(path, std::ios::binary);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const std::string whole = line + "\n";
        size_t at = text.rfind(whole);
        while (at != std::string::npos && at > 0 && text[at - 1] != '\n')
            at = at == 0 ? std::string::npos : text.rfind(whole, at - 1);
        if (at == std::string::npos) return false;
        text.erase(at, whole.size());
        close();
        const bool replaced = replace_file(path, text);
        open();
        return replaced;
    } catch (...) {
        open();
        return false;
    }
}

void MsgFile::note_write_failure(int err) {
    if (failing_) return;
    failing_ = true;
    LOGW << "save msg to file failed, errno: " << err << LEND;
}

// Past the bound the oldest whole lines go (never the one partly written).
void MsgFile::keep_unwritten_within_bound() {
    if (unwritten_.size() <= kMaxUnwritten) return;
    const size_t keep_from = unwritten_done_ > 0 ? unwritten_.find('\n') + 1 : 0;
    size_t cut = keep_from;
    long long dropped = 0;
    while (unwritten_.size() - (cut - keep_from) > kMaxUnwritten) {
        const size_t end = unwritten_.find('\n', cut);
        if (end == std::string::npos) break;
        cut = end + 1;
        ++dropped;
    }
    unwritten_.erase(keep_from, cut - keep_from);
    LOGW << "msg lines dropped unwritten: " << dropped << LEND;
}

void MsgFile::flush() {
    if (!unwritten_.empty()) write_out();
}

void MsgFile::close() {
    if (batching_) end_batch();
    if (fd_ >= 0) {
        write_out();
        ::close(fd_);
        fd_ = -1;
    }
    fs_.clear();
    if (fs_.is_open()) fs_.close();
    fs_.clear();
}

void MsgFile::forget() {
    batching_ = false;
    batch_.clear();
    unwritten_.clear();
    unwritten_done_ = 0;
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    fs_.clear();
    if (fs_.is_open()) fs_.close();
    fs_.clear();
}

void MsgFile::erase_files(const std::string& root) {
    if (root.empty()) return;
    const int lock_fd = open_own_file(root + kLockName, O_RDWR);
    while (lock_fd >= 0 && ::flock(lock_fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    for (const char* name : {kMsgName, kJournalName, kBadJournalName}) std::remove((root + name).c_str());
    StrList names;
    get_files(root, names);
    for (const std::string& name : names) {
        if (starts_with(name, kSetAsidePrefix)) std::remove((root + name).c_str());
    }
    if (lock_fd >= 0) ::close(lock_fd);  // releases the lock
}

}  // namespace Velto

// The message file store: "sdk.msg" in the root directory holds the records not yet uploaded, one
// line each ("<10-digit time>,<fencode of the record>"), with the journal "sdk.msg.bak" that lets a
// rewrite survive a crash. Also sets batches aside as "MSG_PRE_" files and uploads them
// (process_msgs). Used by the background thread only.
//
// Several processes may share one root (an application started twice). They agree through
// advisory locks on "sdk.lock": appends hold it shared and first follow "sdk.msg" to whatever file
// has the name now; setting a batch aside, trimming, rewriting and restoring the journal hold it
// exclusively. So no record lands in a batch once it is set aside, and a batch never changes. Each
// batch is uploaded under a lock of its own, by one process at a time.
#ifndef VELTO_MSGFILE_H
#define VELTO_MSGFILE_H

#include <climits>
#include <fstream>
#include <string>

#include "Util.h"

namespace Velto {

class Config;
class Uploader;

class MsgFile {
  public:
    // The settings name the root directory ("ROOT_DIR"), the collector ("CONF_URL") and how long
    // records are kept ("MAX_RESV_DAY"), as they stand at each use; the uploader sends the set-aside
    // batches. Without arguments: the process-wide settings and uploader.
    MsgFile();
    MsgFile(Config& conf, Uploader& uploader);
    ~MsgFile();
    MsgFile(const MsgFile&) = delete;
    MsgFile& operator=(const MsgFile&) = delete;

    static const long long kDefaultLimit = 6291456;

    // (Re)opens "sdk.msg" for reading and appending, restoring it from a journal of 10 bytes or more.
    // 0, 203 (cannot open, or no root) or 210 (exception).
    int open();
    // When "sdk.msg" is larger on disk than the hard cap, drops its oldest lines down to 40 % of
    // the cap; true when it did.
    bool check_drop();
    // The same against cap (at most the hard cap).
    bool check_cap(long long cap);
    // Reads the valid records written at or after begin (begin < 1: all), keeping at most max_count
    // (> 0) newest and about max_bytes (>= 1). newest = time of the last valid line (now when none).
    // Returns minus the number of dropped lines. A null stream means the object's own.
    int get_msg_list(long long begin, long long max_count, long long max_bytes, StrList& records,
                     long long& newest, StrList* raw_lines, std::fstream* stream);
    // The records, de-duplicated, each followed by "\n".
    std::string comb_msg(long long begin, long long max_count, long long max_bytes, long long& newest,
                         std::fstream* stream);
    bool del_repeat(StrList& records);
    // Whether roll_msg(begin, 0, max_bytes) could drop a line, judged from the file's size on disk
    // and its first line's time (lines are appended in time order, so the first is the oldest),
    // without reading the file; true also when the first line is damaged.
    bool roll_needed(long long begin, long long max_bytes);
    // Rewrites the file through the journal keeping what get_msg_list keeps. 0, -1 or 210.
    int roll_msg(long long begin, long long max_count, long long max_bytes, long long& newest);
    // Sets "sdk.msg" aside (has_new) and uploads every set-aside file; true when none is left pending.
    // Re-entered: while an upload waits on the network, the delivery loop's pump (WaitPump) calls
    // append, begin_batch and end_batch on this same object, so that queued records reach the file
    // meanwhile. No member that an upload relies on across its wait may change under an append: the
    // batch being uploaded is a set-aside file, closed and locked, and appends go to "sdk.msg".
    bool process_msgs(bool has_new);

    // Appends one record line (the background loop's write). While a batch is open the lines
    // gather instead and end_batch writes them with one write. Lines that cannot be written (a
    // full disk, a file-size limit) are kept in memory, up to kMaxUnwritten bytes, and written
    // first at the next append or flush; the first failure of an episode is logged with its errno.
    // False when lines are left unwritten.
    bool append(long long time, const std::string& encoded);
    void begin_batch();
    bool end_batch();
    void flush();  // also tries the unwritten lines again
    // Takes the newest copy of line (without its line feed) out of "sdk.msg"; true when it did.
    bool remove_line(const std::string& line);
    void close();
    // The user declined: the lines not yet written are dropped and the file is closed unwritten.
    void forget();
    // Deletes "sdk.msg", its journals and every set-aside batch under root, under the root's lock
    // held exclusively (a lock of its own, so that any thread may call it); nothing for an empty root.
    static void erase_files(const std::string& root);
    bool is_open() const { return fd_ >= 0; }
    bool has_unwritten() const { return !unwritten_.empty(); }
    long long size_limit() const { return size_limit_; }

    static const size_t kMaxUnwritten = 4u << 20;
    // The bound of all set-aside batches together; past it the oldest are dropped.
    static const long long kSetAsideCap = kDefaultLimit;

    // The cut-off before which records have expired, given the retention period in seconds: never
    // later than the earliest time this run stamped a record or a batch.
    long long expiry_cutoff(long long now, long long retention) const;
    // Tells the store a time the clock showed during this run.
    void note_clock(long long now);

  private:
    // The root's lock, shared or exclusive, for the life of the object; nested holds of one
    // process count as one (an exclusive hold covers shared ones inside it).
    class RootLock {
      public:
        RootLock(MsgFile& store, bool exclusive);
        ~RootLock();
        RootLock(const RootLock&) = delete;
        RootLock& operator=(const RootLock&) = delete;

      private:
        MsgFile& store_;
    };
    std::string root() const;
    bool set_aside(const std::string& root, long long now);
    void follow_moved_file();
    void trim_to(long long keep_bytes);
    bool write_out();
    void note_write_failure(int err);
    void keep_unwritten_within_bound();

    Config& conf_;
    Uploader& uploader_;
    long long size_limit_ = kDefaultLimit;
    std::fstream fs_;  // reads and rewrites
    int fd_ = -1;      // appends (O_APPEND), opened beside fs_ on the same file
    bool batching_ = false;
    std::string batch_;
    int lock_fd_ = -1;  // "sdk.lock", kept open
    int lock_depth_ = 0;
    std::string unwritten_;            // whole lines not yet in the file, oldest first
    size_t unwritten_done_ = 0;        // bytes of its first line already in the current file
    bool failing_ = false;             // in an episode of failed writes
    long long run_floor_ = LLONG_MAX;  // the earliest time this run stamped
};

}  // namespace Velto

#endif

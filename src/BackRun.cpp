// The background runner: the library's one thread (g_back_run, started by data_init, asked to stop
// by data_stop). It opens "sdk.msg" first, loads the configuration, moves records from the pending
// queue into "sdk.msg" (also while it waits on the network, and before data_stop returns), sleeps
// until a record, the stop request or its earliest deadline wakes it, decides when batches are uploaded (at
// once in real-time mode, at thresholds of age, count or size, at start and at stop), sends the log and the
// current configuration on request, trims the message file, and mirrors each record to a debug server
// when a switch file asks for it (the report of the answers is DebugReport.cpp's).
#include "BackRun.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <deque>
#include <fstream>

#include "BaseInfo.h"
#include "Cache.h"
#include "ComInc.h"
#include "Common.h"
#include "Config.h"
#include "Consent.h"
#include "DebugReport.h"
#include "Log.h"
#include "LogUpload.h"
#include "OsApi.h"
#include "Uploader.h"

namespace Velto {

namespace {

const long long kRetryPause = 300;   // seconds without uploads after a failed one
const long long kTickWrap = 60000;   // the tick counter restarts at 1 past this
const long long kSkipEvery = 333;    // under constant traffic, idle work gets a turn this often
const long long kHousekeeping = 15;  // roll check and periodic save every this many ticks
// The longest idle sleep. Deadlines are kept in wall-clock seconds and slept in monotonic time, so
// a clock set forward (or a machine woken from suspend) is noticed within this.
const long long kMaxSleepMs = 60000;
// How soon a message file that could not be opened, or lines that could not be written, are tried
// again.
const long long kReopenPauseMs = 1000;
// The longest data_stop waits for the queue to reach the file.
const auto kStopBound = std::chrono::milliseconds(100);
const int kInitAttempts = 3;
const unsigned int kInitRetryPauseMs = 1000;
// Bounds of what a wait sets aside for later: records kept for a send of their own (the initial
// record, every record in real-time mode), and records the debug mirror has not seen yet. Past
// them, records simply go to the file unmirrored.
const size_t kMaxHeld = 1000;
const size_t kMaxMirrorBacklog = 1000;
// How long a real-time record waits for a send of its own while the loop is busy with another
// transfer before it goes to the file instead (data_stop writes it at once).
const auto kRealTimeHold = std::chrono::milliseconds(250);
// How long after data_stop a transfer in flight may still finish before its record goes to the
// file instead (data_stop waits 100 ms at most).
const auto kHoldWindow = std::chrono::milliseconds(40);

// ---------------------------------------------------------------------------------------------
// The loop of one run. Its members are the locals of the thread body; the settings are read once
// at start so that the per-record path does no settings look-ups. While the loop waits on the
// network, pump() keeps moving queued records into the file; once a stop is requested it also
// writes the records held back for a send of their own, so that data_stop can return.
class DeliveryLoop : public WaitPump {
  public:
    explicit DeliveryLoop(BackRun& owner)
        : owner_(owner), msg_(owner.msg_file()), conf_(owner.settings()), uploader_(owner.uploader()) {}

    void run();
    void pump() override;
    bool pending() const override;
    long long wake_within_ms() const override;

  private:
    // Writes a run of records to the file, and their log lines to the log, in one write each: the
    // records' lines are in the files when the batch ends, before the loop next sleeps or waits.
    class Batch {
      public:
        explicit Batch(DeliveryLoop& loop) : loop_(loop) { loop_.begin_batch(); }
        ~Batch() { loop_.end_batch(); }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

      private:
        DeliveryLoop& loop_;
    };
    void begin_batch();
    void end_batch();
    // A record that needs nothing but the file (no debug mirror, no real-time or initial send).
    bool file_only(const std::string& item) const;

    bool start_up();
    void read_settings();
    void count_pending();
    void send_old_at_start();
    void send_log_and_conf();
    int send_log();
    // Saves the settings with the log's warn/error count carried into them.
    void save_settings();
    void main_loop();
    std::string next_item();
    void mirror(const std::string& item);
    // One idle turn (no record taken). False when the loop has to end.
    // skipped: the turn was a deliberate skip, so the queue need not be empty.
    bool idle_turn(bool skipped, bool stop_seen);
    void sleep_until_due(long long now);
    long long next_deadline_ms(long long now) const;
    void handle_record(std::string& item);
    bool send_real_time(const std::string& item);
    bool send_initial(const std::string& item);
    bool pause_unless_saved(unsigned int ms);
    void save_to_file(const std::string& item, std::string* line = nullptr);
    void unfile_in_hand();
    long long file_cap() const;
    bool wants_own_send(const std::string& item) const { return real_time_ || is_initial(item); }
    void file_from_pump(std::string& item);
    void file_held(bool initial_too);
    bool file_in_hand();
    bool stop_requested() const { return owner_.stop_flag() == 2; }
    void end_of_run_upload();
    void shut_down();
    // The user declined: what the loop holds is dropped and the collected files are erased, once
    // per refusal (every time when again is set). sit_out_decline then waits, doing nothing else,
    // until consent is given again (true) or a stop is requested (false).
    void drop_collected(bool again);
    bool sit_out_decline();

    // Batch send: sets the pending records aside and uploads every set-aside file.
    bool upload_batch();
    void note_batch_sent();
    void take_future_times_as_now(long long now);
    bool threshold_passed(long long now) const;
    void mark_sent_now(long long now);

    BackRun& owner_;
    MsgFile& msg_;
    Config& conf_;
    Uploader& uploader_;

    std::string upload_base_;
    std::string data_url_;
    std::string debug_url_;
    bool real_time_ = false;
    bool begin_switch_ = false;
    bool end_switch_ = false;
    long long send_gap_ = 0;
    long long send_num_ = 0;
    long long send_size_ = 0;
    long long max_file_size_ = 0;
    long long max_log_size_ = 0;

    long long last_send_ = 0;
    long long error_time_ = 0;
    long long pending_count_ = 0;
    long long pending_bytes_ = 0;
    long long gap_ = 0;
    long long size_limit_ = 0;
    long long retention_ = 0;
    long long file_limit_ = 0;
    long long tick_ = 0;
    long long newest_ = 0;
    long long saved_since_cap_check_ = 0;
    long long batch_count_ = 0;  // pending when the batch in flight was set aside
    long long batch_bytes_ = 0;

    typedef std::chrono::steady_clock Clock;
    std::deque<std::string> held_;  // taken by a wait, waiting for a send of their own
    // When the oldest of them that is not an initial record goes to the file instead.
    Clock::time_point held_until_ = Clock::time_point::max();
    std::deque<std::string> mirror_backlog_;
    bool batching_ = false;
    // The record handle_record is working on (mirroring or sending it). When a stop request is
    // not answered within the hold window, it is written to the file; it is then not sent again.
    const std::string* in_hand_ = nullptr;
    bool in_hand_saved_ = false;
    std::string in_hand_line_;  // its line in the file, once written there
    Clock::time_point next_reopen_;
    unsigned dropped_round_ = 0;
};

void DeliveryLoop::begin_batch() {
    if (batching_) return;
    batching_ = true;
    Log::obj_->begin_batch();
    msg_.begin_batch();
}

void DeliveryLoop::end_batch() {
    if (!batching_) return;
    batching_ = false;
    msg_.end_batch();
    Log::obj_->end_batch();
}

bool DeliveryLoop::file_only(const std::string& item) const {
    return debug_url_.empty() && !real_time_ && !is_initial(item);
}

void DeliveryLoop::run() {
    PumpInstall install(this);
    if (!start_up()) return;
    main_loop();
    shut_down();
}

bool DeliveryLoop::pending() const {
    if (Cache::obj_->count() > 0) return true;
    if (consent_declined() && consent_round() != dropped_round_) return true;
    if (stop_requested()) return !owner_.stop_answered();
    return Clock::now() >= held_until_;
}

long long DeliveryLoop::wake_within_ms() const {
    Clock::time_point at;
    if (stop_requested() && in_hand_ != nullptr && !in_hand_saved_)
        at = owner_.stop_requested_at() + kHoldWindow;
    else if (!stop_requested() && held_until_ != Clock::time_point::max())
        at = held_until_;
    else
        return -1;
    return std::max(
        0LL, static_cast<long long>(std::chrono::ceil<std::chrono::milliseconds>(at - Clock::now()).count()));
}

// Runs inside the loop's waits: every record queued meanwhile goes to the file, but for those that
// want a send of their own, which wait for the end of the transfer within the hold window. Once a
// stop is requested, everything held goes to the file too, and the stop is answered as soon as the
// record in flight (if any) is sent, or written once the request has waited the hold window.
void DeliveryLoop::pump() {
    if (consent_declined()) {  // also inside a transfer: its batch goes, its result is ignored
        drop_collected(false);
        if (stop_requested()) {
            owner_.set_running(0);
            owner_.answer_stop();
        }
        return;
    }
    if (!msg_.is_open() && msg_.open() != RES_OK) return;
    // Read before the queue is emptied: every record queued before the request is then written.
    const bool stopping = stop_requested();
    bool answered;
    {
        Batch batch(*this);
        for (std::string item = Cache::obj_->get(); !item.empty(); item = Cache::obj_->get()) {
            if (!stopping && wants_own_send(item) && held_.size() < kMaxHeld) {
                if (!is_initial(item)) held_until_ = std::min(held_until_, Clock::now() + kRealTimeHold);
                held_.push_back(std::move(item));
                continue;
            }
            file_from_pump(item);
        }
        if (stopping || Clock::now() >= held_until_) file_held(stopping);
        answered = stopping && file_in_hand();
    }
    if (answered) {
        owner_.set_running(0);
        owner_.answer_stop();
    }
}

void DeliveryLoop::file_from_pump(std::string& item) {
    strip_initial(item);
    if (!debug_url_.empty() && mirror_backlog_.size() < kMaxMirrorBacklog) mirror_backlog_.push_back(item);
    save_to_file(item);
}

// The held records go out with the next batch instead. The initial record keeps waiting for its
// attempts, unless a stop is requested.
void DeliveryLoop::file_held(bool initial_too) {
    std::deque<std::string> kept;
    for (std::string& item : held_) {
        if (!initial_too && is_initial(item))
            kept.push_back(std::move(item));
        else
            file_from_pump(item);
    }
    held_.swap(kept);
    held_until_ = Clock::time_point::max();
}

// True when no record is in hand unwritten: a transfer still in flight once the stop request has
// waited the hold window leaves its record in the file (taken out again if the transfer succeeds
// while the process still lives).
bool DeliveryLoop::file_in_hand() {
    if (in_hand_ == nullptr || in_hand_saved_) return true;
    if (Clock::now() < owner_.stop_requested_at() + kHoldWindow) return false;
    save_to_file(*in_hand_, &in_hand_line_);
    in_hand_saved_ = true;
    return true;
}

// The record in hand went out after all: its line leaves the file, so that it is not sent twice.
void DeliveryLoop::unfile_in_hand() {
    if (!msg_.remove_line(in_hand_line_)) return;
    pending_bytes_ = std::max(0LL, pending_bytes_ - static_cast<long long>(in_hand_->size()));
    pending_count_ = std::max(0LL, pending_count_ - 1);
}

// Steps before the loop. False when the run gives up (running flag 0, stop flag left as it is).
bool DeliveryLoop::start_up() {
    LOGI << "back thread start ..." << LEND;
    LOGI << "sdk version: " << g_base_info["modver"] << LEND;
    // A refusal kept from an earlier run holds before any file or request.
    if (consent_declined() && !sit_out_decline()) {
        owner_.set_stop_flag(0);  // the loop has ended
        return false;
    }

    // The message file comes before anything that may wait on the network, so that the records
    // queued from the first call on reach the disk at once.
    int r = msg_.open();
    if (r != 0) {
        pause_ms(3000);
        LOGW << "retry to open msg file, last ret: " << r << LEND;
        r = msg_.open();
        if (r != 0) {
            owner_.set_running(0);
            LOGE << "open_msg_fp, ret: " << r << LEND;
            return false;
        }
    }

    r = conf_.init_conf();
    if (r == RES_EXCEPTION) {
        owner_.set_running(0);
        LOGE << "init_conf exception" << LEND;
        return false;
    }
    if (r != 0) LOGW << "init_conf ret: " << r << LEND;

    upload_base_ = conf_.get_str("CONF_URL");
    data_url_ = upload_base_ + "/v1/data";

    msg_.check_drop();

    read_settings();
    // Unsigned on purpose: a negative product wraps to a huge value and is refused.
    unsigned long long log_limit = static_cast<unsigned long long>(max_log_size_ * 1024);
    if (log_limit >= 1025 && log_limit <= 41943039ULL) Log::obj_->set_size_limit(log_limit);

    if (!conf_.on("COLLECT_ON")) {
        owner_.set_running(0);
        LOGI << "data sdk is not opened, to exit..." << r << LEND;
        return false;
    }

    debug_url_ = owner_.get_svrd();
    if (!debug_url_.empty()) debug_url_ += "/v1/data";

    count_pending();
    send_old_at_start();
    send_log_and_conf();
    LOGI << "back thread loop start ..." << LEND;
    return true;
}

// Later changes of these keys take effect at the next start.
void DeliveryLoop::read_settings() {
    real_time_ = conf_.get_str("COLLECT_WAY") == "REAL";
    begin_switch_ = conf_.on("SEND_BEGINPOINTS");
    end_switch_ = conf_.on("SEND_ENDPOINTS");
    send_gap_ = conf_.get_int("SEND_GAP");
    send_num_ = conf_.get_int("SEND_NUM");
    send_size_ = conf_.get_int("SEND_SIZE");
    long long resv_day = conf_.get_int("MAX_RESV_DAY");
    max_file_size_ = conf_.get_int("MAX_FILE_SIZE");
    max_log_size_ = conf_.get_int("MAX_LOG_SIZE");
    last_send_ = conf_.get_int("LAST_SEND");

    gap_ = send_gap_ * 60;
    size_limit_ = send_size_ * 1024;
    retention_ = resv_day * 86400;
    file_limit_ = max_file_size_ * 1024;
}

// What the file holds since the last successful batch, as the thresholds count it.
void DeliveryLoop::count_pending() {
    StrList records;
    msg_.get_msg_list(last_send_, 0, 0, records, newest_, nullptr, nullptr);
    pending_count_ = static_cast<long long>(records.size());
    pending_bytes_ = 0;
    for (const std::string& rec : records) pending_bytes_ += static_cast<long long>(rec.size());
}

void DeliveryLoop::send_old_at_start() {
    bool due;
    if (real_time_ || begin_switch_) {
        LOGI << "chk old msgs" << LEND;
        due = true;
    } else {
        due = threshold_passed(os_time());
    }
    if (!due) return;
    if (upload_batch()) {
        note_batch_sent();
        error_time_ = 0;
    } else {
        LOGW << "snd old msgs" << LEND;
        error_time_ = os_time();
    }
}

int DeliveryLoop::send_log() {
    count_log_errors(*Log::obj_, conf_);
    return LogUpload(*Log::obj_, conf_, uploader_).send_log();
}

void DeliveryLoop::save_settings() {
    count_log_errors(*Log::obj_, conf_);
    conf_.save_conf(true);
}

void DeliveryLoop::send_log_and_conf() {
    if (conf_.on("SEND_LOG_ON") && send_log() != 0) {
        error_time_ = os_time();
        LOGW << "snd log: " << error_time_ << LEND;
    }
    if (conf_.on("SEND_CUR_CONF")) {
        LOGI << "snd cur cnf" << LEND;
        std::string text = conf_.save_conf(false);
        if (uploader_.send_msg(text, data_url_, "conf") != 0) {
            error_time_ = os_time();
            LOGE << "send conf: " << error_time_ << LEND;
        }
    }
}

// Consecutive records that need only the file are written as one batch; the batch ends before
// anything else the loop does (an idle turn, a send, the mirror).
void DeliveryLoop::main_loop() {
    std::string item;
    while (owner_.stop_flag() != 0) {
        if (consent_declined()) {
            end_batch();
            if (!sit_out_decline()) return;
        }
        if (!msg_.is_open() && std::chrono::steady_clock::now() >= next_reopen_) {
            end_batch();
            if (msg_.open() != RES_OK)
                next_reopen_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReopenPauseMs);
        }
        if (tick_ > kTickWrap) tick_ = 1;
        // Read before the queue is looked at: every record queued before data_stop is then in the
        // queue the loop finds empty, and none queued in between is left behind.
        const bool stop_seen = owner_.stop_flag() == 2;
        bool skipped = tick_ % kSkipEvery == 0;
        if (skipped) {
            item.clear();
            ++tick_;
        } else {
            item = next_item();
        }
        if (item.empty()) {
            end_batch();
            if (!idle_turn(skipped, stop_seen)) return;
        } else if (file_only(item)) {
            begin_batch();
            handle_record(item);
        } else {
            end_batch();
            handle_record(item);
        }
    }
    end_batch();
}

// Records held back during a wait come first; they were queued before what is left.
std::string DeliveryLoop::next_item() {
    if (held_.empty()) return Cache::obj_->get();
    std::string item = std::move(held_.front());
    held_.pop_front();
    if (held_.empty()) held_until_ = Clock::time_point::max();
    return item;
}

bool DeliveryLoop::idle_turn(bool skipped, bool stop_seen) {
    // A stop request ends the loop once the queue is found empty after the request was seen. A
    // skipped turn has not looked at the queue: leaving then would lose the records still waiting
    // (also when the stop came before the first turn, which is always a skip).
    if (stop_seen && !skipped) {
        owner_.set_running(0);
        owner_.answer_stop();  // everything queued before the request is in the file
        if (end_switch_) end_of_run_upload();
        LOGI << "to exit" << LEND;
        return false;
    }

    if (!mirror_backlog_.empty()) {
        mirror(mirror_backlog_.front());
        mirror_backlog_.pop_front();
        return true;
    }

    if (msg_.has_unwritten()) msg_.flush();  // a full disk or a file-size limit may have eased
    if (msg_.check_cap(file_cap())) count_pending();

    long long now = os_time();
    take_future_times_as_now(now);
    if (threshold_passed(now) && pending_bytes_ > 0) {
        LOGI << "to send, err: " << error_time_ << ", gap: " << gap_ << ", ok: " << last_send_
             << ", send_n: " << send_num_ << ", msg_n: " << pending_count_ << ", send_s: " << size_limit_
             << ", msg_s: " << pending_bytes_ << ", tm: " << now << LEND;
        int sent = upload_batch() ? 1 : 0;
        if (sent) {
            note_batch_sent();
        } else {
            LOGW << "send ret: " << sent << LEND;
            error_time_ = now;
        }
        return true;  // straight on to the next turn, no sleep
    }

    if ((retention_ > 0 || max_file_size_ > 0) && tick_ % kHousekeeping == 5) {
        ++tick_;
        // Overwritten in place on purpose: successive checks alternate between a cut-off time and a
        // small number of seconds (the file format's history depends on it).
        if (retention_ > 0) retention_ = now - retention_;
        LOGI << "chk roll_msg size: " << file_limit_ << ", rev_tm: " << retention_ << LEND;
        msg_.note_clock(now);
        // Reading and deciphering the whole file to find nothing to drop would cost a record's
        // worth of work many times over; the cheap look decides whether the roll is worth it.
        const long long begin = std::min(retention_, msg_.expiry_cutoff(now, 0));
        if (msg_.roll_needed(begin, file_limit_)) msg_.roll_msg(begin, 0, file_limit_, newest_);
    }

    if (tick_ % kHousekeeping == 0) {
        ++tick_;
        save_settings();
        Log::obj_->flush();
        if (!real_time_) msg_.flush();
    } else {
        sleep_until_due(now);
    }
    return true;
}

// Nothing to do: sleeps until a record or the stop request rings the doorbell, or the earliest
// deadline of the loop's own comes.
void DeliveryLoop::sleep_until_due(long long now) {
    Doorbell& bell = doorbell();
    bell.arm();
    if (held_.empty() && Cache::obj_->count() == 0 && !stop_requested()) {
        pollfd p = {bell.fd(), POLLIN, 0};
        // Without a doorbell (no eventfd could be made) the loop falls back to polling.
        poll(&p, 1, bell.fd() >= 0 ? static_cast<int>(next_deadline_ms(now)) : 1);
    }
    bell.disarm();
}

// Milliseconds until the loop has something to do without being woken: a batch due by age, or
// due by count or size once the pause after a failed upload ends; another try at opening the file.
long long DeliveryLoop::next_deadline_ms(long long now) const {
    long long ms = kMaxSleepMs;
    if (!msg_.is_open() || msg_.has_unwritten()) ms = kReopenPauseMs;
    if (pending_bytes_ <= 0) return ms;
    const bool full =
        (send_num_ > 0 && pending_count_ >= send_num_) || (send_size_ > 0 && pending_bytes_ > size_limit_);
    long long due = full ? now : LLONG_MAX;  // seconds: the first one at which the batch is due
    if (send_gap_ > 0 && last_send_ <= LLONG_MAX - gap_ - 1) due = std::min(due, last_send_ + gap_ + 1);
    if (due == LLONG_MAX) return ms;
    if (error_time_ <= LLONG_MAX - kRetryPause - 1) due = std::max(due, error_time_ + kRetryPause + 1);
    if (due <= now) return 0;
    return std::min(ms, due - now > kMaxSleepMs / 1000 ? kMaxSleepMs : (due - now) * 1000);
}

void DeliveryLoop::handle_record(std::string& item) {
    ++tick_;
    const bool initial = strip_initial(item);

    in_hand_ = &item;
    in_hand_saved_ = false;
    if (!debug_url_.empty()) mirror(item);
    const bool sent = !in_hand_saved_ && (send_real_time(item) || (initial && send_initial(item)));
    if (sent && in_hand_saved_) unfile_in_hand();
    if (!sent && !in_hand_saved_) save_to_file(item);
    in_hand_ = nullptr;

    // The queue is still drained; the loop leaves on the next empty item.
    if (stop_requested()) owner_.set_running(0);
}

void DeliveryLoop::mirror(const std::string& item) {
    LOGI << "debug_svr: " << debug_url_ << ", msg: " << item << LEND;
    std::string reply = uploader_.send_msg_res(item, debug_url_, "data");
    if (!reply.empty()) owner_.save_debug_msg(reply);
}

// True when the record went out and need not be written to the file.
bool DeliveryLoop::send_real_time(const std::string& item) {
    long long now = os_time();
    take_future_times_as_now(now);
    if (!real_time_ || now - error_time_ <= kRetryPause) return false;
    LOGI << "snd real" << LEND;
    int r = uploader_.send_msg(item, data_url_, "data");
    if (r == 0) {
        mark_sent_now(now);
        return true;
    }
    LOGW << "snd real: " << r << LEND;
    error_time_ = now;
    return false;
}

// The initial event is wanted at the server at once: up to three attempts, a second apart.
bool DeliveryLoop::send_initial(const std::string& item) {
    LOGI << "addtional send" << LEND;
    // The records written to the file while the attempts ran are stamped from this second on; the
    // send is dated here so that they still count as newer than it and go out with the next batch.
    const long long started = os_time();
    int r = 0;
    for (int attempt = 0; attempt < kInitAttempts; ++attempt) {
        r = uploader_.send_msg(item, data_url_, "data");
        if (r == 0) {
            mark_sent_now(started);
            return true;
        }
        if (!pause_unless_saved(kInitRetryPauseMs)) break;
    }
    LOGW << "snd init: " << r << LEND;
    error_time_ = os_time();
    return false;
}

// Pauses between attempts; false (at once) when a stop request wrote the record to the file.
bool DeliveryLoop::pause_unless_saved(unsigned int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (auto now = std::chrono::steady_clock::now(); now < end && !in_hand_saved_;
         now = std::chrono::steady_clock::now()) {
        wait_ready(-1, 0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(end - now).count()));
    }
    return !in_hand_saved_;
}

void DeliveryLoop::save_to_file(const std::string& item, std::string* line) {
    LOGI << "save msg to file" << LEND;
    const long long now = os_time();
    std::string encoded = Util::fencode(item);
    if (line != nullptr) *line = Util::ltoa(now) + "," + encoded;
    msg_.append(now, encoded);
    pending_bytes_ += static_cast<long long>(item.size());
    ++pending_count_;
    // The file's size is bounded while records flow, not only in idle turns.
    if (++saved_since_cap_check_ < kSkipEvery) return;
    saved_since_cap_check_ = 0;
    if (msg_.check_cap(file_cap())) count_pending();
}

// MAX_FILE_SIZE as a bound of the file on disk (the message store holds it to its hard cap).
long long DeliveryLoop::file_cap() const {
    return file_limit_ > 0 ? file_limit_ : LLONG_MAX;
}

// At stop: the batch send without saving the configuration (the shutdown saves it).
void DeliveryLoop::end_of_run_upload() {
    LOGI << "end, to upload" << LEND;
    if (upload_batch()) {
        conf_.set("LAST_SEND", std::min(newest_, os_time()));
        LOGI << "upload ok" << LEND;
    } else {
        LOGW << "upload fail" << LEND;
    }
}

void DeliveryLoop::drop_collected(bool again) {
    const unsigned round = consent_round();
    if (!again && round == dropped_round_) return;
    held_.clear();
    held_until_ = Clock::time_point::max();
    mirror_backlog_.clear();
    while (!Cache::obj_->get().empty()) {
    }
    // The record in hand is neither written nor taken out of the file once its transfer ends.
    in_hand_saved_ = true;
    in_hand_line_.clear();
    pending_count_ = pending_bytes_ = 0;
    batch_count_ = batch_bytes_ = 0;
    msg_.forget();
    const std::string root = conf_.get_str("ROOT_DIR");
    MsgFile::erase_files(root);
    erase_collected_files(root);
    dropped_round_ = round;
    note_consent_honoured(round);
}

bool DeliveryLoop::sit_out_decline() {
    LOGI << "consent declined, nothing is collected" << LEND;
    drop_collected(true);
    Doorbell& bell = doorbell();
    while (consent_declined()) {
        if (stop_requested()) {
            owner_.set_running(0);
            owner_.answer_stop();
            return false;
        }
        bell.arm();
        if (consent_declined() && !stop_requested() && consent_round() == dropped_round_) {
            pollfd p = {bell.fd(), POLLIN, 0};
            poll(&p, 1, bell.fd() >= 0 ? static_cast<int>(kMaxSleepMs) : 1);
        }
        bell.disarm();
        drop_collected(false);
    }
    msg_.forget();  // a record that ended its transfer meanwhile is not kept
    LOGI << "consent given, collecting again" << LEND;
    return true;
}

void DeliveryLoop::shut_down() {
    LOGI << "back thread stop ..." << LEND;
    owner_.set_running(0);
    if (msg_.is_open()) msg_.close();
    save_settings();
    owner_.set_stop_flag(0);
}

// Every record in "sdk.msg" is unsent (a batch leaves it by a rename before its upload), whatever
// its time: another process on the root, or a clock set back, may have written it before LAST_SEND.
bool DeliveryLoop::upload_batch() {
    std::string pending = msg_.comb_msg(0, 0, 0, newest_, nullptr);
    batch_count_ = pending_count_;
    batch_bytes_ = pending_bytes_;
    return msg_.process_msgs(!pending.empty());
}

// The records written while the batch was in flight are in the fresh file and still pending.
void DeliveryLoop::note_batch_sent() {
    const long long now = os_time();
    take_future_times_as_now(now);
    last_send_ = std::min(newest_, now);
    conf_.set("LAST_SEND", last_send_);
    save_settings();
    pending_count_ = std::max(0LL, pending_count_ - batch_count_);
    pending_bytes_ = std::max(0LL, pending_bytes_ - batch_bytes_);
}

// A clock set back leaves times in the future; each counts as now, so that a pause after a
// failed upload, or the age threshold, is not stretched by the length of the jump.
void DeliveryLoop::take_future_times_as_now(long long now) {
    error_time_ = std::min(error_time_, now);
    last_send_ = std::min(last_send_, now);
}

bool DeliveryLoop::threshold_passed(long long now) const {
    if (now - error_time_ <= kRetryPause) return false;
    return (send_gap_ > 0 && now - last_send_ > gap_) || (send_num_ > 0 && pending_count_ >= send_num_) ||
           (send_size_ > 0 && pending_bytes_ > size_limit_);
}

void DeliveryLoop::mark_sent_now(long long now) {
    last_send_ = now;
    conf_.set("LAST_SEND", now);  // kept in the store only; saved with the next periodic save
}

}  // namespace

// ---------------------------------------------------------------------------------------------

void BackRun::init() {
    m_.init();
    stop_answered_.store(false);
    set_stop_flag(1);
    // A data_stop before the first data_init must not leave the library stopped.
    set_running(1);
}

void BackRun::after_fork_in_child() {
    if (stop_.load() == 0) return;  // no thread was started (or it has ended) in the parent
    running_.store(0);
    stop_.store(0);
}

void BackRun::set_running(int v) {
    MutexLock hold(m_);
    running_.store(v);
}

void BackRun::set_stop_flag(int v) {
    MutexLock hold(m_);
    stop_.store(v);
}

BackRun::BackRun() : BackRun(*Config::obj_, Uploader::standard()) {}

BackRun::BackRun(Config& conf, Uploader& uploader) : conf_(conf), uploader_(uploader), msg_(conf, uploader) {}

void BackRun::stop() {
    const bool thread_runs = stop_flag() != 0;
    stop_requested_ns_.store(std::chrono::steady_clock::now().time_since_epoch().count());
    set_stop_flag(2);
    if (!thread_runs) return;  // never started, or already ended
    doorbell().ring();
    // The host waits for the file, never for a transfer in progress; the loop answers between any
    // two steps of a wait. Short sleeps growing to a millisecond: a stop usually takes a few.
    const auto end = std::chrono::steady_clock::now() + kStopBound;
    for (useconds_t step = 20; !stop_answered() && stop_flag() != 0 && std::chrono::steady_clock::now() < end;
         step = std::min<useconds_t>(step * 2, 1000))
        usleep(step);
}

void BackRun::run() {
    try {
        DeliveryLoop loop(*this);
        loop.run();
    } catch (...) {
        // Nothing may leave the thread. The library stops taking records and a waiting stop() is
        // released.
        try {
            LOGE << "Exception, BackRun::run" << LEND;
            set_running(0);
            set_stop_flag(0);
        } catch (...) {
        }
    }
    answer_stop();  // the thread ends (or gave up at start): nobody is left to write
}

std::string BackRun::get_svrd() {
    return DebugReport(conf_.get_str("ROOT_DIR")).server_address();
}

void BackRun::save_debug_msg(std::string& answer) {
    DebugReport(conf_.get_str("ROOT_DIR")).save(answer);
}

}  // namespace Velto

// The exported functions of libVelto: start and stop, the base information, the five record calls,
// foreground/background changes, the user's consent and the two test entry points. They run on the host's
// threads; the API lock serialises them, and none lets an exception out (every failure is a result code).
#include "velto.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "BackRun.h"
#include "BaseInfo.h"
#include "Cache.h"
#include "ComInc.h"
#include "Common.h"
#include "Config.h"
#include "Consent.h"
#include "Log.h"
#include "OsApi.h"
#include "Session.h"
#include "Thread.h"
#include "Util.h"
#include "velto_test.h"

namespace {

using Velto::api_m;
using Velto::BaseInfo;
using Velto::BaseView;
using Velto::Cache;
using Velto::Config;
using Velto::g_back_run;
using Velto::g_base_info;
using Velto::g_session;
using Velto::MutexLock;
using Velto::RecordKind;
using Velto::StrMap;
namespace Util = Velto::Util;

const size_t kMaxName = 64;          // categories, actions, labels, base fields
const size_t kMaxStack = 2048;       // data_err_trace stack
const size_t kMaxProperties = 1024;  // data_experience properties
const size_t kMaxBaseLine = 1024;    // data_base_info2 line
const long long kMaxPending = 1000;  // queued records before record calls refuse

// Set by the first data_init that gets that far, so libcurl is initialised once per process even
// when a data_init fails after it and is called again. Read and written under the API lock.
bool g_curl_ready GUARDED_BY(api_m) = false;

// The user's choice given before data_init (0 declined, 1 granted), applied there; -1: none, the
// marker file in the root directory decides.
int g_consent_choice GUARDED_BY(api_m) = -1;
// How long data_consent(0) waits for the background thread to drop what it holds.
const auto kConsentBound = std::chrono::milliseconds(100);

void log_exception(const char* name) noexcept {
    try {
        LOGE << "Exception, " << name << LEND;
    } catch (...) {
        // Nothing more can be done: the host must still get its result code.
    }
}

// The one catch-all of the exported calls: any exception becomes 301 and "Exception, <name>".
template <typename Body>
int guarded(const char* name, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        log_exception(name);
        return Velto::RES_EXCEPTION;
    }
}

// True when text is non-null and its length in bytes lies in [min, max]. Never reads past max + 1
// bytes, so a huge host text costs nothing.
bool length_in(const char* text, size_t min, size_t max) {
    if (text == nullptr) return false;
    size_t n = strnlen(text, max + 1);
    return n >= min && n <= max;
}

bool is_initialised() {
    return Config::obj_->has("ROOT_DIR");
}

bool is_running() {
    return g_back_run.running() == 1;
}

// Stamps a record with one clock reading (session id and time) and renders it.
std::string stamp_and_render(StrMap& rec) REQUIRES(api_m) {
    long long now = Velto::os_time();
    rec["sid"] = g_session.GetSID(now);
    rec["ostime"] = Util::ltoa(now);
    return Util::to_json(rec);
}

// ---------------------------------------------------------------------------------------------
// The record calls' own path: the base fields are rendered once per change of the base information
// (BaseView), and a record is that text merged with the call's few own keys, written straight into
// the record's one buffer. The result is byte for byte to_json of the merged map: keys in ascending
// byte order, a call's key replacing a base field of the same name, empty values left out.

// The base fields as last rendered. Used under the API lock only; allocated once and never
// destroyed, since host threads may still record while the process exits.
BaseView& g_view GUARDED_BY(api_m) = *new BaseView();

// One key of the call's own; its value is given raw (escaped on the way) or as it stands.
struct OwnKey {
    std::string_view key;
    std::string_view value;
    bool escape = false;
};

class OwnKeys {
  public:
    void text(const char* key, const char* value) { add(key, value, strlen(value), true); }
    void literal(const char* key, std::string_view value) { add(key, value.data(), value.size(), false); }
    void number(const char* key, long long n) {
        char* at = numbers_ + used_;
        std::to_chars_result r = std::to_chars(at, at + 24, n);
        add(key, at, static_cast<size_t>(r.ptr - at), false);
        used_ += 24;
    }
    // The keys in ascending byte order.
    void sort() {
        std::sort(keys_, keys_ + n_, [](const OwnKey& a, const OwnKey& b) { return a.key < b.key; });
    }
    const OwnKey* begin() const { return keys_; }
    const OwnKey* end() const { return keys_ + n_; }
    size_t room() const {
        size_t bytes = 0;
        for (size_t i = 0; i < n_; ++i)
            bytes += keys_[i].key.size() + 6 + keys_[i].value.size() * (keys_[i].escape ? 2 : 1);
        return bytes;
    }

  private:
    void add(const char* key, const char* value, size_t n, bool escape) {
        if (n_ < kMax) keys_[n_++] = OwnKey{key, std::string_view(value, n), escape};
    }
    static const size_t kMax = 8;
    OwnKey keys_[kMax];
    size_t n_ = 0;
    char numbers_[4 * 24];
    size_t used_ = 0;
};

// The record: base fields and own keys merged in key order.
std::string render_record(const BaseView& view, OwnKeys& own, const char* prefix) {
    own.sort();
    std::string out;
    out.reserve(strlen(prefix) + view.json.size() + own.room() + 2);
    out += prefix;
    out += '{';
    bool first = true;
    size_t next = 0;  // the first base field not yet written
    const size_t fields = view.fields.size();
    auto write_base_until = [&](size_t stop) {
        if (stop <= next) return;
        if (!first) out += ',';
        out.append(view.json, view.fields[next].begin, view.fields[stop - 1].end - view.fields[next].begin);
        first = false;
        next = stop;
    };
    for (const OwnKey& k : own) {
        size_t stop = next;
        while (stop < fields && std::string_view(view.fields[stop].key) < k.key) ++stop;
        write_base_until(stop);
        if (next < fields && std::string_view(view.fields[next].key) == k.key) ++next;  // the call's key wins
        const size_t mark = out.size();
        if (!first) out += ',';
        out += '"';
        out += k.key;
        out += "\":\"";
        const size_t value_at = out.size();
        if (k.escape) {
            Util::append_trim_json(out, k.value.data(), k.value.size());
        } else {
            out += k.value;
        }
        if (out.size() == value_at) {
            out.resize(mark);  // an empty value is left out
            continue;
        }
        out += '"';
        first = false;
    }
    write_base_until(fields);
    out += '}';
    return out;
}

// Refusals of a record call once the API lock is held, in their fixed order.
int record_gate(RecordKind kind) REQUIRES(api_m) {
    if (Config::obj_->kind_off(kind)) return Velto::RES_KIND_OFF;
    g_base_info.refresh(g_view);
    if (g_view.count < BaseInfo::kComplete) return Velto::RES_BASE_INCOMPLETE;
    if (Cache::obj_->count() > kMaxPending) return Velto::RES_QUEUE_FULL;
    return Velto::RES_OK;
}

// The frame shared by the five record calls. The exported name is the kind's switch key;
// fill_own_keys checks the call's arguments and sets its own keys, false on a bad argument.
template <typename Fill>
int record_call(const char* name, RecordKind kind, const char* log_name, const char* dtype,
                Fill&& fill_own_keys) {
    return guarded(name, [&]() -> int {
        if (!is_running()) return Velto::RES_STOPPED;
        if (Velto::consent_declined()) return Velto::RES_DECLINED;
        LOGI << log_name << LEND;
        MutexLock hold(api_m);
        int refusal = record_gate(kind);
        if (refusal != Velto::RES_OK) return refusal;
        OwnKeys own;
        own.literal("dtype", dtype);
        if (!fill_own_keys(own)) return Velto::RES_BAD_ARG;
        const long long now = Velto::os_time();
        const std::string sid = g_session.GetSID(now);
        own.literal("sid", sid);
        own.number("ostime", now);
        Cache::obj_->put(render_record(g_view, own, ""));
        return Velto::RES_OK;
    });
}

// The call's text under key when its length is in [min, max].
bool own_text(OwnKeys& own, const char* key, const char* text, size_t min, size_t max) {
    if (!length_in(text, min, max)) return false;
    own.text(key, text);
    return true;
}

// Like own_text, but a null text is accepted and leaves the key out.
bool own_optional_text(OwnKeys& own, const char* key, const char* text, size_t min, size_t max) {
    return text == nullptr || own_text(own, key, text, min, max);
}

// The cheap tests of data_base_info(2) that need no lock and log nothing.
int base_info_precheck() {
    if (!is_initialised()) return Velto::RES_NOT_INIT;
    if (!is_running()) return Velto::RES_STOPPED;
    return Velto::RES_OK;
}

void queue_init_record() REQUIRES(api_m) {
    if (Velto::consent_declined()) return;
    StrMap rec;
    g_base_info.copy(rec);
    rec["dtype"] = "init";
    std::string text = Velto::kInitPrefix;
    text += stamp_and_render(rec);
    Cache::obj_->put(std::move(text));
}

// data_base_info after its lock: checks, stores and queues the "init" record. A bad psource or uid
// is found only after the fields before it were stored; they stay stored (the stores are kept
// in this order on purpose).
int store_base_info(const char* tid, long long pid, const char* pver, int oszone, const char* uip,
                    const char* plang, const char* ostype, const char* osver, int osbit, const char* oslang,
                    long long tinstall, const char* psource, const char* uid) REQUIRES(api_m) {
    const char* required[] = {tid, pver, uip, plang, ostype, osver, oslang};
    for (const char* text : required) {
        if (!length_in(text, 1, kMaxName)) return Velto::RES_BAD_ARG;
    }
    if (osbit != 64 && osbit != 32) return Velto::RES_BAD_ARG;

    std::string escaped_tid = Util::trim_json(tid);
    g_base_info.set("tid", escaped_tid);
    g_base_info.set("pid", Util::ltoa(pid));
    LOGI << "client_sign: " << g_base_info["did"] << LEND;
    g_base_info.set("pver", Util::trim_json(pver));
    g_base_info.set("uip", Util::trim_json(uip));
    g_base_info.set("plang", Util::trim_json(plang));
    g_base_info.set("ostype", Util::trim_json(ostype));
    g_base_info.set("osver", Util::trim_json(osver));
    g_base_info.set("osbit", Util::ltoa(osbit));
    g_base_info.set("oslang", Util::trim_json(oslang));
    g_base_info.set("oszone", Util::ltoa(oszone));

    if (psource != nullptr && !length_in(psource, 0, kMaxName)) return Velto::RES_BAD_ARG;
    g_base_info.set("psource", psource ? Util::trim_json(psource) : std::string());
    // The transport and the configuration fetch identify the product by it.
    Config::obj_->set("tid", escaped_tid);
    if (tinstall > 0) g_base_info.set("tinstall", Util::ltoa(tinstall));
    if (uid != nullptr && !length_in(uid, 0, kMaxName)) return Velto::RES_BAD_ARG;
    g_base_info.set("uid", uid ? Util::trim_json(uid) : std::string());

    queue_init_record();
    return Velto::RES_OK;
}

// The thirteen values of a data_base_info2 line, as data_base_info takes them.
struct BaseInfoArgs {
    std::string text[13];  // tid, pid, pver, oszone, uip, plang, ostype, osver, osbit, oslang,
                           // tinstall, psource, uid
    bool has_uid = false;  // a line of twelve pieces gives no uid

    const char* optional(int i) const { return text[i] == "NULL" ? nullptr : text[i].c_str(); }
};

long long to_long(const std::string& s) {
    return strtoll(s.c_str(), nullptr, 10);
}
int to_int(const std::string& s) {
    return static_cast<int>(strtol(s.c_str(), nullptr, 10));
}

// Splits the line at single spaces; false when it is too short, has fewer than twelve pieces, or
// a piece is longer than a base field may be. Pieces after the thirteenth are ignored.
bool parse_base_line(const char* line, BaseInfoArgs& args) {
    if (!length_in(line, 1, kMaxBaseLine)) return false;
    Velto::StrList pieces;
    Util::splits(line, pieces, " ", false);
    if (pieces.size() < 12) return false;
    int i = 0;
    for (auto it = pieces.begin(); it != pieces.end() && i < 13; ++it, ++i) {
        if (it->empty() || it->size() > kMaxName) return false;
        args.text[i].swap(*it);
    }
    args.has_uid = i == 13;
    return true;
}

// At data_init: a choice given before it is kept in the root directory; else the marker decides.
void apply_consent_at_init(const std::string& root) REQUIRES(api_m) {
    if (g_consent_choice < 0) {
        Velto::set_consent_declined(Velto::consent_marker_present(root));
    } else if (!Velto::keep_consent_choice(root, g_consent_choice == 0)) {
        LOGW << "consent not kept: " << root << LEND;
    }
}

// The user declined after data_init: the queue and the files go now, and the background thread
// drops what it holds (also inside a transfer); waited for within a bound, never for the network.
void erase_collected(const std::string& root) REQUIRES(api_m) {
    const unsigned round = Velto::consent_round();
    while (!Cache::obj_->get().empty()) {
    }
    Velto::MsgFile::erase_files(root);
    Velto::erase_collected_files(root);
    Velto::doorbell().ring();
    const auto end = std::chrono::steady_clock::now() + kConsentBound;
    while (Velto::consent_honoured() != round && !g_back_run.stop_answered() &&
           std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

}  // namespace

extern "C" {

int data_init(const char* root, const char* brand) {
    return guarded("data_init", [&]() -> int {
        Velto::mutex_init();
        api_m.init();
        MutexLock hold(api_m);
        Config::obj_->init_mutex();
        g_base_info.init_mutex();
        if (is_initialised()) return Velto::RES_ALREADY_INIT;
        if (root == nullptr || brand == nullptr || strnlen(brand, 3) < 3) return Velto::RES_BAD_ARG;

        // Every file name of the library is appended to this prefix, so it always ends in "/".
        std::string prefix = std::string(root) + "/";
        if (prefix.size() < 4) return Velto::RES_BAD_ROOT;
        // The probe is the only test of the root directory; the empty file is left in place.
        if (!Velto::probe_root(prefix + "tmp")) return Velto::RES_BAD_ROOT;

        long long start = Velto::os_time();
        Cache::obj_->reset();
        g_back_run.init();

        g_base_info.clear();
        g_base_info.set("tstart", Util::ltoa(start));
        // Escaped like every host text, so that each record stays one valid JSON object on one line.
        const std::string brand_field = Util::trim_json(brand);
        const std::string client_sign = Velto::get_client_sign(brand_field);
        g_base_info.set("BRAND", brand_field);
        g_base_info.set("did", Util::trim_json(client_sign));
        g_base_info.set("procname", Util::trim_json(Velto::get_pname()));
        g_base_info.set("procid", Util::ltoa(Velto::get_pid()));
        g_base_info.set("modver", Velto::get_sdk_version());

        Velto::Log::obj_->init((std::string(root) + "/sdk.log").c_str(),
                               Velto::Log::get_name_to_svr(client_sign));
        Velto::read_collect_host_env();
        if (!g_curl_ready) {
            curl_global_init(CURL_GLOBAL_ALL);
            g_curl_ready = true;
        }
        apply_consent_at_init(prefix);
        LOGI << "data_init to start thread" << LEND;
        // From here on the library counts as initialised; it cannot be initialised again.
        Config::obj_->set("ROOT_DIR", prefix);
        Velto::start_thread(&g_back_run);
        LOGI << "data_init end" << LEND;
        return Velto::RES_OK;
    });
}

void data_stop(void) {
    guarded("data_stop", []() -> int {
        MutexLock hold(api_m);
        if (is_initialised()) LOGI << "data_stop" << LEND;
        g_back_run.set_running(0);
        g_back_run.stop();
        // libcurl is not cleaned up: the background thread may still be inside a transfer (stop
        // does not wait for it), and a cleanup under it crashes the host. The process's end frees it.
        return 0;
    });
}

int data_base_info(const char* tid, long long pid, const char* pver, int oszone, const char* uip,
                   const char* plang, const char* ostype, const char* osver, int osbit, const char* oslang,
                   long long tinstall, const char* psource, const char* uid) {
    return guarded("data_base_info", [&]() -> int {
        int refusal = base_info_precheck();
        if (refusal != Velto::RES_OK) return refusal;
        LOGI << "base_info" << LEND;
        MutexLock hold(api_m);
        return store_base_info(tid, pid, pver, oszone, uip, plang, ostype, osver, osbit, oslang, tinstall,
                               psource, uid);
    });
}

int data_base_info2(const char* line) {
    return guarded("data_base_info2", [&]() -> int {
        int refusal = base_info_precheck();
        if (refusal != Velto::RES_OK) return refusal;
        LOGI << "base_info2" << LEND;
        MutexLock hold(api_m);
        BaseInfoArgs a;
        if (!parse_base_line(line, a)) return Velto::RES_BAD_ARG;

        // Runs data_base_info under the lock already held (the lock is not recursive).
        refusal = base_info_precheck();
        if (refusal != Velto::RES_OK) return refusal;
        LOGI << "base_info" << LEND;
        long long tinstall = a.text[10] == "NULL" ? 0 : to_long(a.text[10]);
        return store_base_info(a.text[0].c_str(), to_long(a.text[1]), a.text[2].c_str(), to_int(a.text[3]),
                               a.text[4].c_str(), a.text[5].c_str(), a.text[6].c_str(), a.text[7].c_str(),
                               to_int(a.text[8]), a.text[9].c_str(), tinstall, a.optional(11),
                               a.has_uid ? a.optional(12) : nullptr);
    });
}

int data_base_ext(const char* key, const char* value) {
    return guarded("data_base_ext", [&]() -> int {
        MutexLock hold(api_m);
        LOGI << "base_ext" << LEND;
        g_base_info.init_mutex();
        // Completeness is tested before the running flag here, unlike the record calls.
        if (g_base_info.count() < BaseInfo::kComplete) return Velto::RES_BASE_INCOMPLETE;
        if (!is_running()) return Velto::RES_STOPPED;
        if (!length_in(key, 1, kMaxName) || !length_in(value, 1, kMaxName)) return Velto::RES_BAD_ARG;
        g_base_info.set(Util::trim_json(key), Util::trim_json(value));
        return Velto::RES_OK;
    });
}

// Takes the API lock, which is not recursive: data_changestate calls it only after its own hold ends.
int data_event(const char* category, const char* action, const char* label, long long value) EXCLUDES(api_m) {
    return record_call("data_event", Velto::KIND_EVENT, "event", "event", [&](OwnKeys& own) {
        if (!own_text(own, "category", category, 1, kMaxName)) return false;
        if (!own_text(own, "act", action, 1, kMaxName)) return false;
        if (!own_optional_text(own, "label", label, 0, kMaxName)) return false;
        if (value != 0) own.number("dvalue", value);
        return true;
    });
}

int data_screen(const char* name) {
    return record_call("data_screen", Velto::KIND_SCREEN, "screen", "screenview",
                       [&](OwnKeys& own) { return own_text(own, "category", name, 1, kMaxName); });
}

int data_count(const char* category, long long duration, const char* label) {
    return record_call("data_count", Velto::KIND_COUNT, "count", "timing", [&](OwnKeys& own) {
        if (!own_text(own, "category", category, 1, kMaxName)) return false;
        if (duration <= 0) return false;
        own.number("ttime", duration);
        // Unlike the other calls, an empty label is refused here.
        return own_optional_text(own, "label", label, 1, kMaxName);
    });
}

int data_err_trace(const char* desc, int fatal, const char* label, const char* stack) {
    return record_call("data_err_trace", Velto::KIND_ERR_TRACE, "err_trace", "exception", [&](OwnKeys& own) {
        if (!own_text(own, "desc", desc, 1, kMaxName)) return false;
        // Tested as unsigned, so a negative level is refused too.
        if (static_cast<unsigned int>(fatal) > 2) return false;
        own.number("fatal", fatal);
        if (!own_optional_text(own, "label", label, 0, kMaxName)) return false;
        return own_optional_text(own, "stack", stack, 0, kMaxStack);
    });
}

int data_experience(const char* category, const char* action, const char* properties) {
    return record_call("data_experience", Velto::KIND_EXPERIENCE, "experience", "experience",
                       [&](OwnKeys& own) {
                           if (!own_text(own, "category", category, 1, kMaxName)) return false;
                           if (!own_text(own, "act", action, 1, kMaxName)) return false;
                           return own_optional_text(own, "properties", properties, 0, kMaxProperties);
                       });
}

int data_changestate(int foreground) {
    return guarded("data_changestate", [&]() -> int {
        bool changed;
        {
            MutexLock hold(api_m);
            changed = g_session.ChangeState(foreground);
        }
        if (!changed) return Velto::RES_OK;
        // The state has changed even when the event is refused (stopped, switched off, ...).
        return data_event("default", foreground != 0 ? "fg" : "bg", "", 0);
    });
}

int data_consent(int granted) {
    return guarded("data_consent", [&]() -> int {
        if (granted != 0 && granted != 1) return Velto::RES_BAD_ARG;
        MutexLock hold(api_m);
        const bool declined = granted == 0;
        Velto::set_consent_declined(declined);
        if (!is_initialised()) {
            g_consent_choice = granted;
            return Velto::RES_OK;
        }
        LOGI << "consent: " << granted << LEND;
        const std::string root = Config::obj_->get_str("ROOT_DIR");
        const bool kept = Velto::keep_consent_choice(root, declined);
        if (declined) {
            erase_collected(root);
        } else {
            Velto::doorbell().ring();
        }
        return kept ? Velto::RES_OK : Velto::RES_BAD_ROOT;
    });
}

int call_test(int n, char* buf) {
    return guarded("call_test", [&]() -> int {
        if (buf == nullptr) return Velto::RES_EXCEPTION;
        // The host's buffer must hold 21 bytes (the longest number it can get).
        sprintf(buf, "api get: %d", n);
        printf("api get: %d\n", n);
        fflush(stdout);
        return Velto::RES_OK;
    });
}

}  // extern "C"

int call_test3(int n, char* buf) {
    (void)n;
    if (buf != nullptr) {
        buf[0] = 'y';
        buf[1] = '\0';
    }
    return 5;
}

// The settings store: typed access to the text-valued settings, the built-in defaults and the
// configuration endpoint. Read and written by the host's threads (record calls) and the background
// thread at the same time; every access holds the store's mutex for that access only, and the store
// never calls into another component (in particular never logs) while holding it: a warning or error
// line counts itself in the store through ins(), which would take the store's lock a second time.
//
// Loading, validating, saving and fetching: at start-up the background thread runs init_conf: the
// built-in defaults, then the enciphered file "sdk.cf" in the root directory, then the collection
// server's "/v1/conf" answer when the file is unusable or older than CONF_UPD_GAP hours. Every value
// from the file or the server passes ana_conf's rules before it reaches the store; a value outside
// its range is dropped and the previous one stays.
#include "Config.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <string>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Consent.h"
#include "HttpClient.h"
#include "Log.h"
#include "OsApi.h"
#include "Util.h"

namespace Velto {

void Config::init_mutex() {
    if (mutex_inited_) return;
    m_.init();
    mutex_inited_ = true;
}

std::string Config::get_str(const std::string& key) {
    MutexLock hold(m_);
    auto it = map_.find(key);
    return it == map_.end() ? std::string() : it->second;
}

long long Config::get_int(const std::string& key) {
    MutexLock hold(m_);
    auto it = map_.find(key);
    if (it == map_.end() || it->second.empty()) return 0;
    // Leading digits only, like atol, but 64-bit on every target.
    return std::strtoll(it->second.c_str(), nullptr, 10);
}

const char* Config::kind_key(RecordKind kind) {
    static const char* const kKeys[KIND_COUNT_] = {"data_event", "data_screen", "data_count",
                                                   "data_err_trace", "data_experience"};
    return kind >= 0 && kind < KIND_COUNT_ ? kKeys[kind] : "";
}

// Keys are never removed from the store, so a flag once raised stays raised.
void Config::note_kind(const std::string& key) {
    if (key.size() < 10 || key.compare(0, 5, "data_") != 0) return;
    for (int kind = 0; kind < KIND_COUNT_; ++kind) {
        if (key == kind_key(static_cast<RecordKind>(kind))) {
            kinds_off_.fetch_or(1u << kind, std::memory_order_release);
            return;
        }
    }
}

void Config::set(const std::string& key, long long value) {
    if (key.empty()) return;
    std::string text = Util::ltoa(value);
    MutexLock hold(m_);
    map_[key] = std::move(text);
    note_kind(key);
}

void Config::set(const std::string& key, const std::string& value) {
    if (key.empty()) return;
    MutexLock hold(m_);
    map_[key] = value;
    note_kind(key);
}

bool Config::has(const std::string& key) {
    MutexLock hold(m_);
    return map_.find(key) != map_.end();
}

bool Config::on(const std::string& key) {
    if (!has(key)) return false;
    std::string value = get_str(key);
    Util::upper(value);
    return value == "ON";
}

long long Config::ins(const std::string& key) {
    try {
        // Three separate lock periods: a concurrent set of the same key may be lost, which the
        // error counter tolerates.
        if (!has(key)) return 0;
        long long next = get_int(key) + 1;
        set(key, next);
        return next;
    } catch (...) {
        LOGE << "ins" << LEND;  // no store lock is held here
        return 0;
    }
}

int Config::load_default() {
    static const char* const kDefaults[][2] = {
        {"CONF_UPD_TIME", "0"},    {"CONF_UPD_GAP", "24"},    {"COLLECT_ON", "ON"},
        {"COLLECT_WAY", "NOREAL"}, {"SEND_ENDPOINTS", "ON"},  {"SEND_BEGINPOINTS", "ON"},
        {"SEND_GAP", "120"},       {"SEND_NUM", "200"},       {"SEND_SIZE", "200"},
        {"MAX_RESV_DAY", "7"},     {"MAX_FILE_SIZE", "2000"}, {"MAX_LOG_SIZE", "4000"},
        {"LOGERR_SEND_LIM", "50"}, {"LOGERR_NUM", "0"},       {"SEND_LOG_ON", "OFF"},
        {"SEND_CUR_CONF", "OFF"},  {"ZIP_DATA", "ON"},        {"CON_TIMEOUT", "3000"},
        {"DATA_RANGE", ""},        {"LAST_SEND", "0"},        {"CONF_URL", nullptr},
        {"ENABLE_HTTPS", "ON"},    {"SESSION_TMOUT", "1800"},
    };
    const std::string url = default_conf_url();
    for (const auto& entry : kDefaults) {
        set(entry[0], entry[1] ? std::string(entry[1]) : url);
    }
    return 0;
}

StrMap Config::snapshot() {
    MutexLock hold(m_);
    return map_;
}

namespace {

// Where the configuration request goes. Allocated once and never freed: the background thread may
// still read it while the host exits.
struct ConfEndpoint {
    PlainMutex guard;
    std::string host GUARDED_BY(guard);  // empty: the built-in collection host
};

ConfEndpoint& endpoint() {
    static ConfEndpoint* e = new ConfEndpoint();
    return *e;
}

}  // namespace

std::string collect_host() {
    ConfEndpoint& e = endpoint();
    std::string host;
    {
        PlainLock hold(e.guard);
        host = e.host;
    }
    return host.empty() ? std::string(VELTO_COLLECT_HOST) : host;
}

std::string default_conf_url() {
    return "https://" + collect_host();
}

std::string conf_endpoint() {
    return "https://" + collect_host() + "/v1/conf";
}

bool valid_collect_host(const std::string& host) {
    const size_t colon = host.find(':');
    const std::string name = host.substr(0, colon);
    if (name.empty() || name.size() > 253) return false;
    for (unsigned char c : name) {
        if (!isalnum(c) && c != '.' && c != '-') return false;
    }
    if (colon == std::string::npos) return true;
    const std::string port = host.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const long n = std::strtol(port.c_str(), nullptr, 10);
    return n >= 1 && n <= 65535;
}

void read_collect_host_env() {
    const char* value = getenv("VELTO_COLLECT_HOST");
    if (value == nullptr) return;
    const std::string host(value, strnlen(value, 300));
    if (!valid_collect_host(host)) {
        LOGW << "VELTO_COLLECT_HOST ignored: " << host << LEND;
        return;
    }
    set_conf_endpoint_host(host);
    LOGI << "collect host: " << host << LEND;
}

void set_conf_endpoint_host(const std::string& host) {
    ConfEndpoint& e = endpoint();
    PlainLock hold(e.guard);
    e.host = host;
}

namespace {

const char kConfFileName[] = "sdk.cf";
// The collection host the saved configuration was fetched from, beside it. A configuration from
// another host (the built-in one, or another VELTO_COLLECT_HOST) is fetched afresh at start; a file
// without this companion (an older installation) counts as fetched from the current host.
const char kConfHostName[] = "sdk.cf.host";
// How long a start waits for another process's fetch before it fetches itself.
const unsigned int kFetchWaitMs = 10000;

// A real configuration file holds a few hundred bytes. A longer token can only be damage or a foreign
// file; reading it whole would let a stray file make us allocate without bound, so a token above this
// size is treated like an unusable file (the server is asked instead).
const std::streamsize kMaxTokenBytes = 1 << 20;

// Fewer items than this is not a configuration (a truncated file, a half-filled reply).
const size_t kMinConfItems = 10;
// Fewer saved keys than this means the store was never loaded (the process is going down early);
// writing it would replace a good file with a poor one.
const size_t kMinSavedItems = 20;
// The shortest "conf" member that can hold an item.
const size_t kMinConfText = 3;
// The largest valid CON_TIMEOUT; the transport doubles it, so a larger value must never get there.
const long long kMaxTimeoutMs = 59999;

// The keys written to "sdk.cf". ROOT_DIR, TID and the record-kind switches belong to this run only.
const char* const kSavedKeys[] = {
    "CONF_UPD_TIME",   "CONF_UPD_GAP", "COLLECT_WAY", "COLLECT_ON",    "SEND_ENDPOINTS", "SEND_BEGINPOINTS",
    "SEND_GAP",        "SEND_NUM",     "SEND_SIZE",   "MAX_RESV_DAY",  "MAX_FILE_SIZE",  "MAX_LOG_SIZE",
    "LOGERR_SEND_LIM", "LOGERR_NUM",   "SEND_LOG_ON", "SEND_CUR_CONF", "ZIP_DATA",       "CON_TIMEOUT",
    "DATA_RANGE",      "LAST_SEND",    "CONF_URL",    "ENABLE_HTTPS",  "SESSION_TMOUT",
};

enum ValueForm {
    kNumber,      // decimal within [min, max], stored re-formatted ("0012" -> "12")
    kSwitch,      // "ON" or "OFF"
    kCollectWay,  // "REAL" or "NOREAL"
    kUpperText,   // anything, stored upper-cased
    kLowerText,   // anything, stored lower-cased
    kKindList,    // "&"-separated record kinds to switch off
};

struct ConfRule {
    const char* key;
    ValueForm form;
    long long min;
    long long max;
};

const ConfRule kConfRules[] = {
    {"CONF_UPD_TIME", kNumber, 0, LLONG_MAX},
    {"CONF_UPD_GAP", kNumber, 1, 719},
    {"COLLECT_ON", kSwitch, 0, 0},
    {"COLLECT_WAY", kCollectWay, 0, 0},
    {"SEND_BEGINPOINTS", kSwitch, 0, 0},
    {"SEND_ENDPOINTS", kSwitch, 0, 0},
    {"SEND_GAP", kNumber, 1, 10079},
    {"SEND_NUM", kNumber, 1, 99999},
    {"SEND_SIZE", kNumber, 1, 20479},
    {"MAX_RESV_DAY", kNumber, 0, 29},
    {"MAX_FILE_SIZE", kNumber, 1, 20479},
    {"MAX_LOG_SIZE", kNumber, 1, 20479},
    {"LOGERR_SEND_LIM", kNumber, 0, 9999},
    {"LOGERR_NUM", kNumber, 0, 9999},
    {"SEND_LOG_ON", kSwitch, 0, 0},
    {"SEND_CUR_CONF", kSwitch, 0, 0},
    {"ZIP_DATA", kSwitch, 0, 0},
    {"CON_TIMEOUT", kNumber, 1, 59999},
    {"TID", kUpperText, 0, 0},
    {"CONF_URL", kLowerText, 0, 0},
    {"ENABLE_HTTPS", kSwitch, 0, 0},
    {"SESSION_TMOUT", kNumber, 30, 3599},
    {"DATA_RANGE", kKindList, 0, 0},
    {"LAST_SEND", kNumber, 0, LLONG_MAX},
};

const ConfRule* find_rule(const std::string& key) {
    for (const ConfRule& rule : kConfRules) {
        if (key == rule.key) return &rule;
    }
    return nullptr;
}

// Leading blanks, a sign and digits, like atoi/atol, but defined for every input: a number too large
// for 64 bits saturates and so falls outside every range but the open-ended ones.
long long parse_number(const std::string& text) {
    return std::strtoll(text.c_str(), nullptr, 10);
}

// The named kinds are switched off for the rest of the run; a kind left out of a later list stays off,
// because a record call treats a kind as off as soon as its key exists.
void apply_data_range(Config& conf, std::string value) {
    Util::lower(value);
    StrList names;
    Util::splits(value, names, "&");
    conf.set("DATA_RANGE", value);
    for (int k = 0; k < KIND_COUNT_; ++k) {
        const char* kind = Config::kind_key(static_cast<RecordKind>(k));
        for (const std::string& name : names) {
            if (name == kind) {
                conf.set(kind, std::string("OFF"));
                break;
            }
        }
    }
}

// Applies one item if its value passes the key's rule; otherwise the store keeps its value.
void apply_conf_item(Config& conf, std::string key, std::string value) {
    Util::upper(key);
    Util::upper(value);
    const ConfRule* rule = find_rule(key);
    if (rule == nullptr) {
        LOGW << "upexpect conf: " << key << ":" << value << LEND;
        return;
    }
    switch (rule->form) {
        case kNumber: {
            long long n = parse_number(value);
            if (n >= rule->min && n <= rule->max) conf.set(key, n);
            break;
        }
        case kSwitch:
            if (value == "ON" || value == "OFF") conf.set(key, value);
            break;
        case kCollectWay:
            if (value == "REAL" || value == "NOREAL") conf.set(key, value);
            break;
        case kUpperText:
            conf.set(key, value);
            break;
        case kLowerText:
            Util::lower(value);
            conf.set(key, value);
            break;
        case kKindList:
            apply_data_range(conf, value);
            break;
    }
}

// A server may hand out a bare host; the scheme then follows ENABLE_HTTPS.
void complete_conf_url(Config& conf) {
    std::string url = conf.get_str("CONF_URL");
    std::string head = url.substr(0, 4);
    if (head == "http" || head == "HTTP") return;
    conf.set("CONF_URL", (conf.on("ENABLE_HTTPS") ? "https://" : "http://") + url);
}

// The stored values are validated, but the store can be written directly; keep the arithmetic
// defined for any content.
bool refresh_due(long long gap_hours, long long last_fetch, long long now) {
    long long gap_seconds = 0;
    long long age = 0;
    if (__builtin_mul_overflow(gap_hours, 3600LL, &gap_seconds)) return false;
    if (__builtin_sub_overflow(now, last_fetch, &age)) return last_fetch < 0;
    return gap_seconds < age;
}

}  // namespace

bool read_conf_token(const std::string& path, std::string& token, int& err) {
    token.clear();
    std::fstream file;
    if (ensure_own_file(path)) file.open(path, std::ios::in | std::ios::out);
    if (!file.is_open()) {
        err = errno;
        return false;
    }
    file >> std::setw(kMaxTokenBytes + 1) >> token;
    if (token.size() > static_cast<size_t>(kMaxTokenBytes)) token.clear();
    return true;
}

namespace {

void set_aside_conf_file(const std::string& path) {
    const std::string bad = path + ".bad";
    if (std::rename(path.c_str(), bad.c_str()) == 0) LOGW << "conf file set aside: " << bad << LEND;
}

StrMap saved_items(const StrMap& store) {
    StrMap saved;
    for (const char* key : kSavedKeys) {
        auto it = store.find(key);
        if (it != store.end()) saved.emplace(it->first, it->second);
    }
    return saved;
}

// The client's identity as the configuration endpoint expects it, every value form-encoded. Missing
// fields are sent empty.
std::string conf_request_body(const StrMap& base) {
    static const char* const kFields[][2] = {
        {"uid=", "uid"},        {"&pid=", "pid"},     {"&client_sign=", "did"},    {"&pver=", "pver"},
        {"&tid=", "tid"},       {"&brand=", "BRAND"}, {"&sdkver=", "modver"},      {"&plang=", "plang"},
        {"&osname=", "ostype"}, {"&osver=", "osver"}, {"&installtm=", "tinstall"},
    };
    std::string body;
    for (const auto& field : kFields) {
        body += field[0];
        auto it = base.find(field[1]);
        if (it != base.end()) body += UrlEncode(it->second);
    }
    return body;
}

bool fetched_from_another_host(const std::string& root) {
    std::ifstream in(root + kConfHostName);
    std::string host;
    if (!in.is_open() || !std::getline(in, host)) return false;
    return host != collect_host();
}

// The size of the file at path, -1 when it cannot be read.
long long file_bytes(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

unsigned int request_timeout_ms(long long configured) {
    if (configured < 0) return 0;
    if (configured > kMaxTimeoutMs) return static_cast<unsigned int>(kMaxTimeoutMs);
    return static_cast<unsigned int>(configured);
}

}  // namespace

// The saved configuration over the defaults. RES_OK with loaded (a configuration was read) and
// other_host (it came from another collection host); RES_FILE_OPEN. Throws for a token that does
// not decode to whole cipher blocks, which ends the run as 301; the file is set aside first, so
// that the next start fetches afresh instead of failing the same way for ever.
int Config::load_saved(bool& loaded, bool& other_host) {
    load_default();
    const std::string root = get_str("ROOT_DIR");
    const std::string path = root + kConfFileName;
    std::string token;
    int err = 0;
    if (!read_conf_token(path, token, err)) {
        LOGE << "to open: " << path << ", errno: " << err << LEND;
        return RES_FILE_OPEN;
    }
    std::string text;
    try {
        text = Util::fdecode(token);
    } catch (...) {
        set_aside_conf_file(path);
        throw;
    }
    loaded = ana_conf(text);
    other_host = loaded && fetched_from_another_host(root);
    return RES_OK;
}

bool Config::saved_is_fresh(bool loaded, bool other_host) {
    return loaded && !other_host &&
           !refresh_due(get_int("CONF_UPD_GAP"), get_int("CONF_UPD_TIME"), os_time());
}

int Config::init_conf() {
    try {
        bool loaded = false, other_host = false;
        int ret = load_saved(loaded, other_host);
        if (ret != RES_OK || saved_is_fresh(loaded, other_host)) return ret;
        // Processes that share the root fetch one at a time; one that waited reads what the other
        // saved, and fetches itself only when that is not fresh either.
        TaskLock fetch_lock(get_str("ROOT_DIR") + kNetLockName);
        if (!fetch_lock.try_take()) {
            fetch_lock.take_within(kFetchWaitMs);
            ret = load_saved(loaded, other_host);
            if (ret != RES_OK || saved_is_fresh(loaded, other_host)) return ret;
        }
        LOGI << "update conf from svr" << LEND;
        std::string conf;
        ret = get_conf_frm_svr(conf);
        // Uploads never go to the host of a configuration the current host did not hand out.
        if (ret != RES_OK && other_host) set("CONF_URL", default_conf_url());
        if (ret != RES_OK) {
            LOGE << "svr ret: " << ret << LEND;
            return RES_SVR_REJECT;
        }
        if (!ana_conf(conf)) {
            LOGE << "ana conf2" << LEND;
            return RES_CONF_REJECT;
        }
        save_conf(true);
        if (!consent_declined()) replace_file(get_str("ROOT_DIR") + kConfHostName, collect_host() + "\n");
        LOGI << "update conf from svr end" << LEND;
        return RES_OK;
    } catch (...) {
        LOGE << "init_conf exception" << LEND;
        return RES_EXCEPTION;
    }
}

bool Config::ana_conf(const std::string& text) {
    if (text.empty()) return false;
    StrMap items;
    Util::json2map(text, items);
    if (items.size() < kMinConfItems) {
        LOGW << "conf item num: " << items.size() << LEND;
        return false;
    }
    for (const auto& item : items) apply_conf_item(*this, item.first, item.second);
    complete_conf_url(*this);
    return true;
}

std::string Config::save_conf(bool write) {
    try {
        LOGI << "save cnf:" << (write ? 1 : 0) << LEND;
        StrMap saved = saved_items(snapshot());
        if (saved.size() < kMinSavedItems) {
            LOGW << "lack of conf items, maybe exiting" << LEND;
            return std::string();
        }
        std::string text = Util::to_json(saved);
        if (!write || consent_declined()) return text;  // nothing is kept for a user who declined
        std::string sealed = Util::fencode(text);
        std::string root = get_str("ROOT_DIR");
        if (root.empty()) {
            LOGW << "null conf path, maybe exiting" << LEND;
            return std::string();
        }
        // Replaced whole: a crash leaves the old file or the new one, never a torn one. The loop
        // saves every few turns; a file that already holds these very bytes is left as it is, so
        // that an unchanged configuration costs no rewrite and no flush to the disk.
        const std::string path = root + kConfFileName;
        if (sealed == written_ && file_bytes(path) == static_cast<long long>(sealed.size())) return text;
        errno = 0;
        if (!replace_file(path, sealed)) {
            int err = errno;
            LOGE << "to open: " << path << ", errno: " << err << LEND;
            written_.clear();
        } else {
            written_ = sealed;
        }
        return text;
    } catch (...) {
        LOGE << "exception save_conf" << LEND;
        return std::string();
    }
}

int Config::get_conf_frm_svr(std::string& conf) {
    conf.clear();
    try {
        LOGI << "get svr cnf" << LEND;
        g_base_info.wait(30);
        // Stamped before sending: a failed fetch waits for the next refresh period like a good one.
        set("CONF_UPD_TIME", os_time());

        StrMap base;
        g_base_info.copy(base);
        const std::string body = conf_request_body(base);
        RequestParam param;
        param.post = true;
        param.body = body.c_str();
        param.body_len = static_cast<int>(body.size());
        param.block = false;
        param.timeout_ms = request_timeout_ms(get_int("CON_TIMEOUT"));

        // The endpoint is built in: CONF_URL steers only the uploads, so a bad CONF_URL handed out
        // once can always be corrected by the next fetch.
        long status = 0;
        const std::string reply = curl_http_post(conf_endpoint(), param, 1, &status);
        if (reply.empty()) {
            LOGE << "http_client" << LEND;
            return RES_NO_REPLY;
        }
        return judge_conf_reply(status, reply, conf);
    } catch (...) {
        LOGE << "exception get_conf_frm_svr" << LEND;
        return RES_EXCEPTION;
    }
}

int judge_conf_reply(long status, const std::string& reply, std::string& conf) {
    conf.clear();
    if (status < 200 || status > 299 || Util::json_item(reply, "status") != "0") {
        LOGE << "get_conf_frm_svr" << LEND;
        return RES_SVR_REJECT;
    }
    conf = Util::json_item(reply, "conf");
    if (conf.size() < kMinConfText) {
        conf.clear();
        return RES_SVR_REJECT;
    }
    return RES_OK;
}

}  // namespace Velto

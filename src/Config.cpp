// The settings store: typed access to the text-valued settings, the built-in defaults and the
// configuration endpoint. Read and written by the host's threads (record calls) and the background
// thread at the same time; every access holds the store's mutex for that access only, and the store
// never calls into another component (in particular never logs) while holding it: the log calls ins()
// with its own lock held. Loading, saving and fetching the configuration are implemented separately.
#include "Config.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "Log.h"

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

void Config::set(const std::string& key, long long value) {
    if (key.empty()) return;
    std::string text = Util::ltoa(value);
    MutexLock hold(m_);
    map_[key] = std::move(text);
}

void Config::set(const std::string& key, const std::string& value) {
    if (key.empty()) return;
    MutexLock hold(m_);
    map_[key] = value;
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
    std::mutex guard;
    std::string host;  // empty: the built-in collection host
};

ConfEndpoint& endpoint() {
    static ConfEndpoint* e = new ConfEndpoint();
    return *e;
}

}  // namespace

std::string default_conf_url() {
    return std::string("https://") + VELTO_COLLECT_HOST;
}

std::string conf_endpoint() {
    ConfEndpoint& e = endpoint();
    std::string host;
    {
        std::lock_guard<std::mutex> hold(e.guard);
        host = e.host;
    }
    if (host.empty()) host = VELTO_COLLECT_HOST;
    return "https://" + host + "/v1/conf";
}

void set_conf_endpoint_host(const std::string& host) {
    ConfEndpoint& e = endpoint();
    std::lock_guard<std::mutex> hold(e.guard);
    e.host = host;
}

}  // namespace Velto

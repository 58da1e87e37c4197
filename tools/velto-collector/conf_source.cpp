// The configuration replies of velto-collector (conf_source.h).
#include "conf_source.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Util.h"
#include "log_lines.h"
#include "terminal.h"

namespace vcollect {

namespace {

const size_t kMaxConfFile = 1u << 20;
const size_t kMaxBrand = 128;

// A brand that can name a file in the directory: letters, digits, "-", "_", "." (not first).
bool usable_brand(const std::string& brand) {
    if (brand.empty() || brand.size() > kMaxBrand || brand[0] == '.') return false;
    return brand.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
           std::string::npos;
}

bool read_small_file(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    text.assign(kMaxConfFile + 1, '\0');
    in.read(&text[0], static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    return text.size() <= kMaxConfFile;
}

}  // namespace

std::string builtin_conf_reply(const std::string& host, int https_port) {
    return "{\"status\":0,\"conf\":{"
           "\"CONF_URL\":\"https://" +
           host + ":" + std::to_string(https_port) +
           "\",\"ENABLE_HTTPS\":\"ON\",\"CONF_UPD_GAP\":1,\"COLLECT_ON\":\"ON\",\"COLLECT_WAY\":\"NOREAL\","
           "\"SEND_ENDPOINTS\":\"ON\",\"SEND_BEGINPOINTS\":\"ON\",\"SEND_GAP\":1,\"SEND_NUM\":10,"
           "\"SEND_SIZE\":16,"
           "\"MAX_RESV_DAY\":7,\"MAX_FILE_SIZE\":2000,\"MAX_LOG_SIZE\":4000,\"LOGERR_SEND_LIM\":50,"
           "\"SEND_LOG_ON\":\"OFF\",\"SEND_CUR_CONF\":\"OFF\",\"ZIP_DATA\":\"ON\",\"CON_TIMEOUT\":3000,"
           "\"SESSION_TMOUT\":1800}}";
}

bool conf_reply_from_text(std::string text, std::string& reply, std::string& why) {
    Velto::Util::trim(text);
    if (text.size() < 2 || text.front() != '{' || text.back() != '}') {
        why = "does not hold a JSON object";
        return false;
    }
    const bool whole = !Velto::Util::json_item(text, "status").empty();
    reply = whole ? text : "{\"status\":0,\"conf\":" + text + "}";
    Velto::StrMap items;
    Velto::Util::json2map(whole ? Velto::Util::json_item(text, "conf") : text, items);
    why = items.size() < 10
              ? "gives " + std::to_string(items.size()) + " settings; the library ignores fewer than 10"
              : "";
    return true;
}

ConfSource::ConfSource(std::string builtin, std::string file, std::string dir)
    : builtin_(std::move(builtin)), file_(std::move(file)), dir_(std::move(dir)) {}

bool ConfSource::check() {
    if (!dir_.empty()) {
        struct stat st;
        if (stat(dir_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            log_start_problem("error", dir_ + " is not a directory");
            return false;
        }
        return true;
    }
    if (file_.empty()) return true;
    std::string text, reply, why;
    if (!read_small_file(file_, text)) {
        log_start_problem("error", "cannot read " + file_);
        return false;
    }
    if (!conf_reply_from_text(text, reply, why)) {
        log_start_problem("error", file_ + " " + why);
        return false;
    }
    if (!why.empty()) log_start_problem("warn", "warning: " + file_ + " " + why);
    return !load(file_).empty();
}

// The reply of one file, read again when its time or size changed; "" when it is missing or unusable.
const std::string& ConfSource::load(const std::string& path) {
    Cached& c = cache_[path];
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        c = Cached();
        return c.reply;
    }
    if (st.st_mtim.tv_sec == c.mtime && st.st_mtim.tv_nsec == c.mtime_ns && st.st_size == c.size)
        return c.reply;
    c.mtime = st.st_mtim.tv_sec;
    c.mtime_ns = st.st_mtim.tv_nsec;
    c.size = st.st_size;
    std::string text, why;
    c.reply.clear();
    if (!read_small_file(path, text) || !conf_reply_from_text(text, c.reply, why)) {
        c.reply.clear();
        log_note("warn", "conf_unusable",
                 "configuration " + printable(path, 200) + " is unusable; serving the next one instead");
    }
    return c.reply;
}

std::string ConfSource::reply(const std::string& brand) {
    std::lock_guard<std::mutex> hold(m_);
    if (!dir_.empty()) {
        if (usable_brand(brand)) {
            const std::string& own = load(dir_ + "/" + brand + ".json");
            if (!own.empty()) return own;
        }
        const std::string& fallback = load(dir_ + "/default.json");
        return fallback.empty() ? builtin_ : fallback;
    }
    if (!file_.empty()) {
        const std::string& given = load(file_);
        if (!given.empty()) return given;
    }
    return builtin_;
}

}  // namespace vcollect

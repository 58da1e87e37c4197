// Fuzz target: the configuration file "sdk.cf" as the library reads it at start-up: the token read
// from the file, the envelope around it, and the validation of the decoded items (ana_conf), then the
// rendering of the store that the next save would write. The raw input also goes to ana_conf directly,
// since a server's "conf" member reaches it without an envelope. The ranged settings must stay in
// their ranges whatever the input. Then init_conf reads the same file as a whole, and may only end
// in one of the results its callers handle.
#include <cstdlib>
#include <string>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "Util.h"
#include "fuzz_support.h"

namespace {

// Complete base information, so that the fetch init_conf starts for an unusable or stale file never
// waits for it, and a configuration endpoint on a loopback port where nothing listens, so that the
// fetch fails at once and sends nothing anywhere. Set for every input: the replay test runs other
// targets in the same process, and one of them clears the base information.
void prepare_fetch() {
    static const char* const kFields[][2] = {
        {"uid", "u"},      {"pid", "1"},      {"did", "{d}"},      {"pver", "1.0"},     {"tid", "t"},
        {"BRAND", "b"},    {"modver", "1.1"}, {"plang", "en"},     {"ostype", "linux"}, {"osver", "6"},
        {"tinstall", "1"}, {"osbit", "64"},   {"oslang", "en-US"}, {"oszone", "0"},     {"procname", "p"},
    };
    for (const auto& f : kFields) Velto::g_base_info.set(f[0], f[1]);
    Velto::set_conf_endpoint_host("127.0.0.1:1");
}

Velto::Config& store() {
    static bool ready = false;
    if (!ready) {
        Velto::Config::obj_->init_mutex();
        Velto::g_base_info.init_mutex();
        ready = true;
    }
    return *Velto::Config::obj_;
}

// The store as init_conf leaves it before it reads the file: the defaults only.
void start_fresh(Velto::Config& conf) {
    conf.load_default();
    conf.set("ROOT_DIR", vfuzz::temp_root());
}

struct Range {
    const char* key;
    long long min, max;
};

// Settings whose range the rest of the library relies on (the transport doubles CON_TIMEOUT, the loop
// sleeps SEND_GAP minutes, ...). A value outside its range is never taken; the previous one stays.
const Range kRanges[] = {
    {"CON_TIMEOUT", 1, 59999}, {"SEND_GAP", 1, 10079},   {"SEND_NUM", 1, 99999},
    {"SEND_SIZE", 1, 20479},   {"CONF_UPD_GAP", 1, 719}, {"SESSION_TMOUT", 30, 3599},
};

void check_store(Velto::Config& conf) {
    for (const Range& r : kRanges) {
        const long long v = conf.get_int(r.key);
        if (v < r.min || v > r.max) abort();
    }
    if (conf.get_str("CONF_URL").compare(0, 4, "http") != 0) abort();  // a scheme is always added
    const std::string zip = conf.get_str("ZIP_DATA");
    if (zip != "ON" && zip != "OFF") abort();
}

// Loaded (0), fetch refused (204) or its answer refused (206), or a token that does not decode
// (301); the file was just written, so it always opens.
void check_init_result(int r) {
    if (r != Velto::RES_OK && r != Velto::RES_SVR_REJECT && r != Velto::RES_CONF_REJECT &&
        r != Velto::RES_EXCEPTION)
        abort();
}

}  // namespace

VELTO_FUZZ_TARGET {
    Velto::Config& conf = store();
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string path = vfuzz::temp_root() + "sdk.cf";
    if (!vfuzz::write_file(path, input)) return 0;

    start_fresh(conf);
    std::string token;
    int err = 0;
    if (Velto::read_conf_token(path, token, err)) {
        std::string text;
        try {
            text = Velto::Util::fdecode(token);
        } catch (...) {
            text.clear();  // a token of partial cipher blocks: init_conf sets the file aside
        }
        if (conf.ana_conf(text)) conf.save_conf(false);
        check_store(conf);
    }

    start_fresh(conf);
    if (conf.ana_conf(input)) conf.save_conf(false);
    check_store(conf);

    if (!vfuzz::write_file(path, input)) return 0;
    prepare_fetch();
    check_init_result(conf.init_conf());
    check_store(conf);
    return 0;
}

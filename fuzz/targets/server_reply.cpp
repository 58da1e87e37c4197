// Fuzz target: the judging of the collection server's replies: the status line of a raw-socket
// reply, whether an upload was accepted, the "data" answer of send_msg_res, and whether a
// configuration reply is usable (its "conf" member then goes through ana_conf like a fetched one).
// Input: the reply text as received.
#include <string>

#include "ComInc.h"
#include "Config.h"
#include "HttpClient.h"
#include "fuzz_support.h"

namespace {

Velto::Config& store() {
    static bool ready = false;
    if (!ready) {
        Velto::Config::obj_->init_mutex();
        ready = true;
    }
    return *Velto::Config::obj_;
}

}  // namespace

VELTO_FUZZ_TARGET {
    const std::string reply(reinterpret_cast<const char*>(data), size);
    const long raw_status = Velto::http_status_of(reply);
    if (raw_status < 0 || raw_status > 999) abort();  // three digits at most

    for (long status : {raw_status, 200L}) {
        Velto::upload_accepted(reply, status);
        Velto::upload_reply_data(reply, status);
        std::string conf;
        const int verdict = Velto::judge_conf_reply(status, reply, conf);
        if (verdict != Velto::RES_OK && !conf.empty()) abort();  // a refused reply hands out nothing
        if (verdict == Velto::RES_OK) {
            Velto::Config& store_ = store();
            store_.load_default();
            store_.ana_conf(conf);
        }
    }
    return 0;
}

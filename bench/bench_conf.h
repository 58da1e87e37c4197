// The saved configuration the benchmarks start the library with: no fetch, no upload (port 9 on
// loopback refuses at once, thresholds are out of reach). Used by backrun_bench, stop_bench and
// wait_bench.
#ifndef VELTO_BENCH_CONF_H
#define VELTO_BENCH_CONF_H

#include <fstream>
#include <string>

#include "OsApi.h"
#include "Util.h"

namespace vbench {

// changes: settings that replace or add to these.
inline void write_quiet_conf(const std::string& root, const Velto::StrMap& changes = {}) {
    const std::string now = Velto::Util::ltoa(Velto::os_time());
    Velto::StrMap conf = {
        {"CONF_UPD_TIME", now},     {"CONF_UPD_GAP", "24"},
        {"COLLECT_ON", "ON"},       {"COLLECT_WAY", "NOREAL"},
        {"SEND_ENDPOINTS", "OFF"},  {"SEND_BEGINPOINTS", "OFF"},
        {"SEND_GAP", "10079"},      {"SEND_NUM", "99999"},
        {"SEND_SIZE", "20479"},     {"MAX_RESV_DAY", "7"},
        {"MAX_FILE_SIZE", "20479"}, {"MAX_LOG_SIZE", "4000"},
        {"LOGERR_SEND_LIM", "0"},   {"LOGERR_NUM", "0"},
        {"SEND_LOG_ON", "OFF"},     {"SEND_CUR_CONF", "OFF"},
        {"ZIP_DATA", "ON"},         {"CON_TIMEOUT", "1000"},
        {"LAST_SEND", now},         {"CONF_URL", "http://127.0.0.1:9"},
        {"ENABLE_HTTPS", "OFF"},    {"SESSION_TMOUT", "1800"},
    };
    for (const auto& change : changes) conf[change.first] = change.second;
    std::ofstream(root + "/sdk.cf") << Velto::Util::fencode(Velto::Util::to_json(conf));
}

}  // namespace vbench

#endif

// Benchmarks of the background loop and of what a record costs the host: how fast the loop moves a
// backlog from the pending queue into "sdk.msg", and one data_event on the host's thread next to one
// diagnostics log line. The library is started once for the process against a root directory of
// its own, with a saved configuration that makes no fetch and no threshold upload.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "BackRun.h"
#include "BaseInfo.h"
#include "Cache.h"
#include "ComInc.h"
#include "Log.h"
#include "OsApi.h"
#include "Util.h"
#include "velto.h"

namespace {

using Velto::Cache;
namespace Util = Velto::Util;

bool wait_for(bool (*pred)(), int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

bool queue_empty() {
    return Cache::obj_->count() == 0;
}
bool queue_low() {
    return Cache::obj_->count() < 100;
}
bool loop_ended() {
    return Velto::g_back_run.stop_flag() == 0;
}

// The running library, started on first use and stopped (its directory removed) at process exit.
class Library {
  public:
    static Library& get() {
        static Library lib;
        return lib;
    }
    bool ok() const { return ok_; }
    const std::string& record() const { return record_; }

    ~Library() {
        data_stop();
        wait_for(loop_ended, 10000);
        std::error_code ec;
        if (!root_.empty()) std::filesystem::remove_all(root_, ec);
    }

  private:
    Library() {
        char tmpl[] = "/tmp/velto-bench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        root_ = tmpl;
        write_conf();
        if (data_init(root_.c_str(), "bench") != 0) return;
        if (data_base_info("tid1", 42, "1.0", 8, "uip1", "en", "mac", "10.15", 64, "en-US", 0, "src", "u1") !=
            0)
            return;
        // The initial event goes to an unreachable server: three attempts a second apart, then
        // the file. Start measuring once it is out of the way.
        if (!wait_for(queue_empty, 10000)) return;
        std::this_thread::sleep_for(std::chrono::seconds(4));
        record_ = make_record();
        ok_ = true;
    }

    // Port 9 on loopback refuses at once; thresholds are out of reach.
    void write_conf() {
        std::string now = Util::ltoa(Velto::os_time());
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
        std::ofstream(root_ + "/sdk.cf") << Util::fencode(Util::to_json(conf));
    }

    // A record as data_event makes it: the base fields plus the call's own.
    static std::string make_record() {
        Velto::StrMap rec;
        Velto::g_base_info.copy(rec);
        rec["dtype"] = "event";
        rec["category"] = "menu";
        rec["act"] = "click";
        rec["label"] = "file/open";
        rec["sid"] = "{0123456789abcdef0123456789abcdef}";
        rec["ostime"] = Util::ltoa(Velto::os_time());
        return Util::to_json(rec);
    }

    std::string root_;
    std::string record_;
    bool ok_ = false;
};

// Records per second from the pending queue into "sdk.msg" (one fencode, one append and flush, one
// log line each). The clock runs from the first put until the loop has taken the last record.
void BM_LoopBacklog(benchmark::State& state) {
    Library& lib = Library::get();
    if (!lib.ok()) {
        state.SkipWithError("library did not start");
        return;
    }
    const long long batch = state.range(0);
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        for (long long i = 0; i < batch; ++i) Cache::obj_->put(lib.record());
        if (!wait_for(queue_empty, 60000)) {
            state.SkipWithError("the loop did not drain the queue");
            return;
        }
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(took.count());
    }
    state.SetItemsProcessed(state.iterations() * batch);
    state.counters["record_bytes"] = static_cast<double>(lib.record().size());
}
BENCHMARK(BM_LoopBacklog)->Arg(5000)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

// One accepted data_event on the host's thread. The queue is let drain (untimed) before it could
// refuse records.
void BM_DataEvent(benchmark::State& state) {
    if (!Library::get().ok()) {
        state.SkipWithError("library did not start");
        return;
    }
    long long refused = 0, n = 0;
    for (auto _ : state) {
        if (data_event("menu", "click", "file/open", 0) != 0) ++refused;
        if (++n % 500 == 0) {
            state.PauseTiming();
            wait_for(queue_low, 60000);
            state.ResumeTiming();
        }
    }
    state.counters["refused"] = static_cast<double>(refused);
}
BENCHMARK(BM_DataEvent);

// One info line of the diagnostics log, for comparison.
void BM_LogLine(benchmark::State& state) {
    if (!Library::get().ok()) {
        state.SkipWithError("library did not start");
        return;
    }
    for (auto _ : state) LOGI << "event" << LEND;
}
BENCHMARK(BM_LogLine);

}  // namespace

// Benchmarks of the message file's whole-file work on 1 000, 10 000 and 50 000 records: reading the
// valid records (get_msg_list), rewriting the file through the journal (roll_msg) and removing the
// duplicates of a batch (del_repeat). Each reports its cost per record and Google Benchmark's fit
// against O(N): the cost must grow linearly with the number of records.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "Config.h"
#include "Log.h"
#include "MsgFile.h"
#include "OsApi.h"
#include "Util.h"

namespace {

using Velto::MsgFile;
using Velto::StrList;
namespace Util = Velto::Util;

// A root directory with its own settings store entry and log, removed at exit.
struct Root {
    std::string dir;
    Root() {
        char tmpl[] = "/tmp/velto-msgbench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        dir = std::string(tmpl) + "/";
        setenv("HOME", tmpl, 1);
        Velto::Config::obj_->init_mutex();
        Velto::Config::obj_->load_default();
        Velto::Config::obj_->set("ROOT_DIR", dir);
        Velto::Log::obj_->init((dir + "sdk.log").c_str());
    }
    ~Root() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
};

Root& root() {
    static Root r;
    return r;
}

std::string record(long long i) {
    return "{\"act\":\"click\",\"category\":\"menu\",\"dtype\":\"event\",\"dvalue\":\"" + Util::ltoa(i) +
           "\",\"label\":\"file/open\",\"ostime\":\"1700000000\",\"tid\":\"tid1\",\"uid\":\"u1\"}";
}

// "sdk.msg" with n record lines, written directly.
void write_msg_file(long long n) {
    static std::string cached;
    static long long cached_n = -1;
    if (cached_n != n) {
        cached.clear();
        const long long now = Velto::os_time();
        for (long long i = 0; i < n; ++i) cached += Util::ltoa(now) + "," + Util::fencode(record(i)) + "\n";
        cached_n = n;
    }
    Velto::replace_file(root().dir + "sdk.msg", cached);
}

void BM_GetMsgList(benchmark::State& state) {
    const long long n = state.range(0);
    root();
    write_msg_file(n);
    MsgFile msg;
    msg.open();
    StrList records;
    long long newest = 0;
    for (auto _ : state) {
        msg.get_msg_list(0, 0, 0, records, newest, nullptr, nullptr);
        if (static_cast<long long>(records.size()) != n) state.SkipWithError("records lost");
    }
    msg.close();
    state.SetComplexityN(n);
    state.counters["ns_per_record"] = benchmark::Counter(
        static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GetMsgList)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(50000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

// A roll that keeps all but the oldest tenth of the records (so the file is rewritten).
void BM_RollMsg(benchmark::State& state) {
    const long long n = state.range(0);
    root();
    MsgFile msg;
    long long newest = 0;
    for (auto _ : state) {
        state.PauseTiming();
        write_msg_file(n);
        msg.open();
        state.ResumeTiming();
        msg.roll_msg(0, n - n / 10, 0, newest);
        state.PauseTiming();
        msg.close();
        state.ResumeTiming();
    }
    state.SetComplexityN(n);
    state.counters["ns_per_record"] = benchmark::Counter(
        static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_RollMsg)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(50000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

// A batch in which every tenth record repeats an earlier one (one "repeat msg" warning each).
void BM_DelRepeat(benchmark::State& state) {
    const long long n = state.range(0);
    root();
    StrList batch;
    for (long long i = 0; i < n; ++i) batch.push_back(record(i % 10 == 9 ? i - 5 : i));
    MsgFile msg;
    for (auto _ : state) {
        state.PauseTiming();
        StrList records = batch;
        state.ResumeTiming();
        msg.del_repeat(records);
        if (static_cast<long long>(records.size()) != n - n / 10) state.SkipWithError("wrong result");
    }
    state.SetComplexityN(n);
    state.counters["ns_per_record"] = benchmark::Counter(
        static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_DelRepeat)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(50000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

}  // namespace

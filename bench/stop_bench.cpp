// How long data_stop holds the host: from the call until it returns, with 0 and with 1000 records
// still queued, and how many of them were in "sdk.msg" when it returned. data_init works once per
// process, so every measurement runs in a child process of its own (forked before the library was
// ever started in this one) that reports over a pipe.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_conf.h"
#include "velto.h"

namespace {

namespace Util = Velto::Util;

struct StopFigures {
    double stop_us = -1;
    double on_disk = 0;
};

size_t lines_in(const std::string& path) {
    std::ifstream in(path);
    return static_cast<size_t>(
        std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n'));
}

// In the child: starts the library, lets it settle, queues `queued` records and times data_stop.
StopFigures measure_in_child(int queued) {
    StopFigures f;
    char tmpl[] = "/tmp/velto-stop-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return f;
    const std::string root = tmpl;
    vbench::write_quiet_conf(root);
    if (data_init(root.c_str(), "bench") == 0 && data_base_info("tid1", 42, "1.0", 8, "uip1", "en", "mac",
                                                                "10.15", 64, "en-US", 0, "src", "u1") == 0) {
        usleep(3500 * 1000);  // the initial record's three refused attempts are over
        const size_t before = lines_in(root + "/sdk.msg");
        for (int i = 0; i < queued; ++i) data_event("menu", "click", "file/open", i + 1);
        const auto t0 = std::chrono::steady_clock::now();
        data_stop();
        f.stop_us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
        f.on_disk = static_cast<double>(lines_in(root + "/sdk.msg") - before);
    }
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return f;
}

StopFigures measure(int queued) {
    int fds[2];
    StopFigures f;
    if (pipe(fds) != 0) return f;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        StopFigures child = measure_in_child(queued);
        (void)!write(fds[1], &child, sizeof child);
        _exit(0);
    }
    close(fds[1]);
    if (pid > 0 && read(fds[0], &f, sizeof f) != static_cast<ssize_t>(sizeof f)) f = StopFigures();
    close(fds[0]);
    if (pid > 0) waitpid(pid, nullptr, 0);
    return f;
}

void BM_DataStop(benchmark::State& state) {
    const int queued = static_cast<int>(state.range(0));
    std::vector<double> us;
    double on_disk = 0;
    for (auto _ : state) {
        StopFigures f = measure(queued);
        if (f.stop_us < 0) {
            state.SkipWithError("the child could not start the library");
            return;
        }
        state.SetIterationTime(f.stop_us / 1e6);
        us.push_back(f.stop_us);
        on_disk += f.on_disk;
    }
    std::sort(us.begin(), us.end());
    state.counters["median_us"] = us[us.size() / 2];
    state.counters["max_us"] = us.back();
    state.counters["target_max_us"] = 100000;
    state.counters["on_disk_at_return"] = on_disk / static_cast<double>(us.size());
    state.counters["queued"] = queued;
}
BENCHMARK(BM_DataStop)->Arg(0)->Arg(1000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

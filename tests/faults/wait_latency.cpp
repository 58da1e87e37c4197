// Measures how soon a record reaches "sdk.msg" while the background thread waits on a server that
// never answers (the start-up upload of a set-aside batch is held open): 200 records, one at a time,
// each timed from the record call until the file grows. Prints the median, 99th percentile and
// maximum. Run by hand: build/tests/faults/wait_latency
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "delivery.h"
#include "velto.h"

int main() {
    using namespace std::chrono;
    vtest::TempDir root, home;
    setenv("HOME", home.path().c_str(), 1);
    vcollect::RawServer silent(vcollect::RawMode::kSilent);
    const long long now = Velto::os_time();
    vtest::write_file(root.path() + "/MSG_PRE_{a}" + Velto::Util::ltoa(now),
                      vtest::msg_line(now, "{\"a\":\"b\"}"));
    vtest::write_conf(root.path(), silent.url(), {{"CON_TIMEOUT", "59999"}, {"SEND_BEGINPOINTS", "ON"}});
    if (data_init(root.path().c_str(), "brand") != 0 ||
        data_base_info("tid1", 42, "1.0", 8, "uip1", "en", "mac", "10.15", 64, "en-US", 0, "src", "u1") !=
            0 ||
        !vtest::wait_until([&] { return silent.open_connections() > 0; }, 20000)) {
        fprintf(stderr, "wait_latency: the library did not start its upload\n");
        return 1;
    }
    const std::string msg = root.path() + "/sdk.msg";
    std::vector<double> ms;
    for (int i = 0; i < 200; ++i) {
        const long long before = vtest::file_size(msg);
        const auto start = steady_clock::now();
        data_event("latency", "act", nullptr, i + 1);
        // Looked at every 20 microseconds: the figure is the library's, not the poll's.
        while (vtest::file_size(msg) == before && steady_clock::now() - start < seconds(5))
            std::this_thread::sleep_for(microseconds(20));
        if (vtest::file_size(msg) == before) break;
        ms.push_back(duration<double, std::milli>(steady_clock::now() - start).count());
        std::this_thread::sleep_for(milliseconds(7 + i % 13));  // arrivals at varied phases of the wait
    }
    std::sort(ms.begin(), ms.end());
    const bool held = silent.open_connections() == 1;
    if (ms.size() < 200 || !held) {
        fprintf(stderr, "wait_latency: %zu of 200 records reached the file, upload %s\n", ms.size(),
                held ? "still held" : "not held");
        return 1;
    }
    printf("record to file while the loop waits: median %.1f ms, p99 %.1f ms, max %.1f ms (200 records)\n",
           ms[100], ms[198], ms[199]);
    fflush(stdout);
    _exit(0);  // the background thread is still held by the silent server
}

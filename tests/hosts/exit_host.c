/*
 * A host that leaves at a chosen moment, for the exit-safety test (tests/exit_test.cpp).
 *
 *   exit_host ROOT MODE DELAY_US [EVENTS]
 *
 * Starts the library on ROOT, describes the installation and records EVENTS events (default 5,
 * category "exit", action "before", value 1..EVENTS); then, for modes
 * starting with "stop-", calls data_stop. It then keeps recording one event about every millisecond
 * for DELAY_US microseconds (refused once stopped) and ends with status 3: by leaving main
 * ("return", "stop-return") or by exit() ("exit", "stop-exit"). The library's background thread may
 * be anywhere at that moment, in particular inside a transfer; the process must still end with 3.
 * Status 2: bad arguments or a call that failed before the exit.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "velto.h"

enum { kExitStatus = 3, kUsage = 2 };

static long long now_us(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000 + ts.tv_nsec / 1000;
}

static void sleep_us(long long us) {
    struct timespec ts;
    ts.tv_sec = (time_t)(us / 1000000);
    ts.tv_nsec = (long)(us % 1000000) * 1000;
    nanosleep(&ts, NULL);
}

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        fprintf(stderr, "usage: exit_host ROOT return|exit|stop-return|stop-exit DELAY_US [EVENTS]\n");
        return kUsage;
    }
    const char* mode = argv[2];
    const int stop = strncmp(mode, "stop-", 5) == 0;
    const char* how = stop ? mode + 5 : mode;
    const int by_exit = strcmp(how, "exit") == 0;
    if (!by_exit && strcmp(how, "return") != 0) return kUsage;
    const long long delay_us = atoll(argv[3]);
    const int events = argc == 5 ? atoi(argv[4]) : 5;

    if (data_init(argv[1], "exithost") != 0) return kUsage;
    if (data_base_info("exithost-linux", 7, "1.0.0", 0, "127.0.0.1", "en-US", "Linux", "Debian 12", 64,
                       "en_US", 0, NULL, NULL) != 0)
        return kUsage;
    for (int i = 0; i < events; ++i) {
        if (data_event("exit", "before", "seq", i + 1) != 0) return kUsage;
    }
    if (stop) data_stop();

    const long long end = now_us() + delay_us;
    for (long long i = 0; now_us() < end; ++i) {
        data_event("exit", "during", "seq", i + 1);
        long long left = end - now_us();
        sleep_us(left < 1000 ? (left > 0 ? left : 0) : 1000);
    }
    if (by_exit) exit(kExitStatus);
    return kExitStatus;
}

/*
 * A host that streams labelled events for the kill -9 durability harness (tests/faults/killrun.cpp).
 *
 *   flow_host ROOT N RATE RUN            sends N events "flow"/"seq"/"<RUN>-<6-digit n>" at RATE a second,
 *                                        printing "A <label>" for each accepted one (result 0) and
 *                                        "R <label> <code>" for each refused one, then idles until killed
 *   flow_host ROOT 0 0 RUN recover       sends nothing, stops the library and waits (bounded) until every
 *                                        record left in ROOT went out: no "MSG_PRE_" file, "sdk.msg" and
 *                                        its journal empty. Exits 0 when drained, 3 when not.
 *
 * Lines go out with write(2), unbuffered, so a SIGKILL loses nothing that was already printed.
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "velto.h"

enum { kDrainSeconds = 15, kIdleSeconds = 60 };

static double now_s(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void sleep_s(double s) {
    if (s <= 0) return;
    struct timespec ts;
    ts.tv_sec = (time_t)s;
    ts.tv_nsec = (long)((s - (double)ts.tv_sec) * 1e9);
    nanosleep(&ts, NULL);
}

static void say(const char* line) {
    size_t left = strlen(line);
    while (left > 0) {
        ssize_t n = write(1, line, left);
        if (n <= 0) return;
        line += n;
        left -= (size_t)n;
    }
}

static long long size_of(const char* root, const char* name) {
    char path[4096];
    struct stat st;
    snprintf(path, sizeof path, "%s/%s", root, name);
    return stat(path, &st) == 0 ? (long long)st.st_size : 0;
}

/* True when ROOT holds nothing left to upload. A journal under 10 bytes holds no record line. */
static int drained(const char* root) {
    if (size_of(root, "sdk.msg") > 0 || size_of(root, "sdk.msg.bak") >= 10) return 0;
    DIR* dir = opendir(root);
    if (dir == NULL) return 0;
    int clean = 1;
    struct dirent* e;
    while ((e = readdir(dir)) != NULL) {
        if (strncmp(e->d_name, "MSG_PRE_", 8) == 0) clean = 0;
    }
    closedir(dir);
    return clean;
}

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: %s ROOT N RATE RUN [recover]\n", argv[0]);
        return 2;
    }
    const char* root = argv[1];
    long n = strtol(argv[2], NULL, 10);
    double rate = strtod(argv[3], NULL);
    const char* run = argv[4];
    int recover = argc > 5 && strcmp(argv[5], "recover") == 0;

    int r = data_init(root, "flowhost");
    if (r != 0) {
        fprintf(stderr, "data_init: %d\n", r);
        return 1;
    }
    r = data_base_info("flowhost-tid", 4242, "1.0.0", 0, "127.0.0.1", "en-US", "Linux", "Debian 12", 64,
                       "en_US", 0, NULL, NULL);
    if (r != 0) {
        fprintf(stderr, "data_base_info: %d\n", r);
        return 1;
    }

    if (recover) {
        data_stop();
        double end = now_s() + kDrainSeconds;
        while (!drained(root)) {
            if (now_s() >= end) return 3;
            sleep_s(0.01);
        }
        return 0;
    }

    double start = now_s();
    char label[96], line[160];
    for (long i = 0; i < n; ++i) {
        if (rate > 0) sleep_s(start + (double)i / rate - now_s());
        snprintf(label, sizeof label, "%s-%06ld", run, i);
        r = data_event("flow", "seq", label, 0);
        if (r == 0)
            snprintf(line, sizeof line, "A %s\n", label);
        else
            snprintf(line, sizeof line, "R %s %d\n", label, r);
        say(line);
    }
    /* Keeps the library working until the harness kills the process; bounded all the same. */
    sleep_s(kIdleSeconds);
    return 0;
}

/*
 * velto-example-c: the smallest useful host in C. Starts the library in a root directory, describes
 * the installation, records a few things, and stops. Every call returns a result code; none blocks
 * on the network, so the host never waits for the collection server.
 *
 *   velto-example-c ROOT_DIR [declined]
 *
 * With "declined" the example acts for a user who said no to analytics: nothing is collected or
 * sent, what earlier runs left in ROOT_DIR is erased, and later runs keep honouring the refusal
 * until a run without "declined" gives consent again.
 */
#define _POSIX_C_SOURCE 200809L /* mkdir, sleep */
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <velto.h>

/* What a host would log for a refused call. */
static const char* result_text(int code) {
    switch (code) {
        case VELTO_OK:
            return "ok";
        case VELTO_ALREADY_INIT:
            return "already initialised";
        case VELTO_BAD_ROOT:
            return "root directory not writable";
        case VELTO_BAD_ARG:
            return "bad argument";
        case VELTO_NOT_INIT:
            return "data_init not called";
        case VELTO_BASE_INCOMPLETE:
            return "data_base_info not called";
        case VELTO_STOPPED:
            return "stopped";
        case VELTO_QUEUE_FULL:
            return "too many records waiting";
        case VELTO_KIND_OFF:
            return "this kind of record is switched off";
        case VELTO_DECLINED:
            return "the user declined analytics";
        default:
            return "internal failure";
    }
}

static void check(const char* call, int code) {
    if (code != VELTO_OK) fprintf(stderr, "%s: %d (%s)\n", call, code, result_text(code));
}

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: velto-example-c ROOT_DIR [declined]\n");
        return 2;
    }
    mkdir(argv[1], 0700); /* the library needs an existing, writable directory */
    printf("libVelto %s, root %s\n", VELTO_VERSION_STRING, argv[1]);

    /* The user's choice, as the application keeps it; it may be given before data_init. */
    int declined = argc == 3 && strcmp(argv[2], "declined") == 0;
    check("data_consent", data_consent(declined ? 0 : 1));

    int code = data_init(argv[1], "example");
    if (code != VELTO_OK) {
        /* The application goes on without analytics. */
        check("data_init", code);
        return 1;
    }
    /* The thirteen facts about the installation; tinstall 0 = unknown, psource and uid may be NULL. */
    check("data_base_info", data_base_info("example-linux", 1001, "1.0.0", 0, "127.0.0.1", "en-US", "Linux",
                                           "Debian 12", 64, "en_US", 0, NULL, NULL));
    check("data_screen", data_screen("MainWindow"));
    check("data_event", data_event("file", "open", "recent", 0));
    check("data_count", data_count("startup", 840 /* ms */, NULL));
    check("data_err_trace", data_err_trace("config unreadable", 0, "settings", NULL));
    data_stop();
    /* data_stop does not wait for the background thread. Records still in memory when the process
     * ends are lost, so give the thread a moment to append them to sdk.msg; whatever is on disk is
     * uploaded now or at the next start. */
    sleep(1);
    if (declined)
        printf("nothing collected; %s holds only the refusal and the log\n", argv[1]);
    else
        printf("recorded; see %s/sdk.msg (velto-decode %s)\n", argv[1], argv[1]);
    return 0;
}

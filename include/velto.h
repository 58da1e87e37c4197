/*
 * Velto: client-side usage analytics for desktop applications.
 *
 * A host links libVelto, calls data_init() once with a writable root directory, describes the
 * installation with data_base_info() (or data_base_info2()), and then records what happens with the
 * record calls. Records are queued in memory and a background thread appends them, enciphered, to a
 * message file under the root directory and uploads them to the collection server. No call blocks on
 * the network, and no call throws: every failure is one of the result codes below.
 *
 * Threads: every function may be called from any thread; the calls are serialised by one lock inside
 * the library. Texts are zero-terminated byte strings passed on as they are; length limits are in bytes.
 */
#ifndef VELTO_H
#define VELTO_H

/* The library's version: the same as the file version of libVelto.so and the version of its CMake
 * and pkg-config packages. */
#define VELTO_VERSION_MAJOR 1
#define VELTO_VERSION_MINOR 1
#define VELTO_VERSION_PATCH 1
#define VELTO_VERSION_STRING "1.1.1"

#if defined(__GNUC__)
#define VELTO_API __attribute__((visibility("default")))
#else
#define VELTO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
enum {
    VELTO_OK = 0,                /* done */
    VELTO_ALREADY_INIT = 101,    /* data_init was called before (also after data_stop) */
    VELTO_BAD_ROOT = 102,        /* root directory shorter than 3 bytes, or no file can be created in it */
    VELTO_BAD_ARG = 104,         /* an argument is null, empty, too long or out of range */
    VELTO_NOT_INIT = 105,        /* base information given before data_init */
    VELTO_BASE_INCOMPLETE = 106, /* fewer than 14 base fields stored: call data_base_info first */
    VELTO_STOPPED = 207,         /* data_stop was called (or the library gave up) */
    VELTO_QUEUE_FULL = 208,      /* more than 1000 records wait in memory */
    VELTO_KIND_OFF = 209,        /* this kind of record is switched off by the server's configuration */
    VELTO_DECLINED = 211,        /* the user declined collection (data_consent(0)) */
    VELTO_EXCEPTION = 301        /* an internal failure was caught */
};

/**
 * Starts the library once per process: probes `root` by creating the empty file "tmp" in it, opens the
 * diagnostics log root/sdk.log and starts the background thread. `brand` names the product family
 * (at least 3 bytes). Does not read any file nor touch the network itself.
 * Returns 0, 101 (already initialised, also after data_stop), 102 (bad root), 104 (null argument or
 * short brand), 301.
 */
VELTO_API int data_init(const char* root, const char* brand);

/**
 * Stops accepting records and asks the background thread to write what is queued and upload it.
 * Waits at most about 3 ms for the thread to acknowledge; it never waits for a network transfer.
 * The library cannot be started again in the same process.
 */
VELTO_API void data_stop(void);

/**
 * Describes the installation; every later record carries these fields. Texts tid, pver, uip, plang,
 * ostype, osver and oslang: 1 to 64 bytes each. osbit: 32 or 64. tinstall is stored only when above 0.
 * psource and uid may be null (stored empty), else at most 64 bytes. Queues one "init" record.
 * Returns 0, 104, 105 (before data_init), 207, 301. A 104 for psource or uid leaves the fields before
 * them stored.
 */
VELTO_API int data_base_info(const char* tid, long long pid, const char* pver, int oszone, const char* uip,
                             const char* plang, const char* ostype, const char* osver, int osbit,
                             const char* oslang, long long tinstall, const char* psource, const char* uid);

/**
 * data_base_info with its thirteen values in one line separated by single spaces (at most 1024 bytes,
 * at least 12 values, each 1 to 64 bytes). The word "NULL" stands for no tinstall, psource or uid.
 * Returns as data_base_info.
 */
VELTO_API int data_base_info2(const char* line);

/**
 * Adds or replaces one base field of the host's own (key and value 1 to 64 bytes each).
 * Returns 0, 104, 106 (before data_base_info), 207, 301.
 */
VELTO_API int data_base_ext(const char* key, const char* value);

/**
 * Records a user action. category and action: 1 to 64 bytes; label: null or at most 64 bytes;
 * value: recorded when not 0.
 * Returns 0, 104, 106, 207, 208 (queue full), 209 (kind switched off), 211 (the user declined), 301.
 */
VELTO_API int data_event(const char* category, const char* action, const char* label, long long value);

/** Records a screen shown (name 1 to 64 bytes). Returns as data_event. */
VELTO_API int data_screen(const char* name);

/**
 * Records a timed activity: category 1 to 64 bytes, duration above 0, label null or 1 to 64 bytes.
 * Returns as data_event.
 */
VELTO_API int data_count(const char* category, long long duration, const char* label);

/**
 * Records an error: description 1 to 64 bytes, fatal level 0, 1 or 2, label null or at most 64 bytes,
 * stack null or at most 2048 bytes. Returns as data_event.
 */
VELTO_API int data_err_trace(const char* desc, int fatal, const char* label, const char* stack);

/**
 * Records an experience report: category and action 1 to 64 bytes, properties null or at most
 * 1024 bytes. Returns as data_event.
 */
VELTO_API int data_experience(const char* category, const char* action, const char* properties);

/**
 * Tells the library that the application went to the background (0) or came to the foreground
 * (non-zero). A change is recorded as an event "default"/"bg" or "default"/"fg"; returning to the
 * foreground after the session time-out starts a new session. Returns 0 when nothing changed,
 * otherwise the result of the event.
 */
VELTO_API int data_changestate(int foreground);

/**
 * Records the user's choice about collection. May be called at any time, also before data_init
 * (the choice then takes effect there) and after data_stop.
 *
 * granted = 0: from this call on nothing is collected or sent for this installation. The queue is
 * dropped; the message file, its journal, the batches set aside for upload, the configuration file
 * and the debug report are deleted unsent; no request leaves the process (no configuration fetch,
 * no upload at stop, no log upload, no debug mirror), and an upload in flight has its batch deleted
 * and its result ignored. Record calls return 211; data_base_info still stores the fields (in
 * memory) but queues no "init" record. The choice is kept in the root directory as the file
 * "sdk.declined", so that later starts honour it from data_init on: data_init succeeds, nothing is
 * fetched or sent, and record calls return 211. When it returns, the files are gone (it waits for
 * the background thread 100 ms at most). Only the log "sdk.log" and the empty lock file "sdk.lock"
 * stay; after this call the host may remove the root directory.
 *
 * granted = 1: removes "sdk.declined"; collection resumes with the records made from then on.
 *
 * Returns 0, 102 (the choice holds for this process but could not be kept in the root directory),
 * 104 (granted neither 0 nor 1), 301.
 */
VELTO_API int data_consent(int granted);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VELTO_H */

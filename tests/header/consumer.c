/* Compiled (not linked) as C99 and C11 by run.sh: the public headers stand on their own, declare what
 * the documentation promises, and carry the project's version. */
#include <velto.h>
#include <velto.h> /* a second inclusion is harmless */
#include <velto_test.h>

#if VELTO_VERSION_MAJOR != EXPECT_MAJOR || VELTO_VERSION_MINOR != EXPECT_MINOR || \
    VELTO_VERSION_PATCH != EXPECT_PATCH
#error "the version macros of velto.h differ from the project's version"
#endif

/* Exact types: a changed signature (an incompatible library) fails to compile. */
int (*const init_fn)(const char*, const char*) = data_init;
void (*const stop_fn)(void) = data_stop;
int (*const base_info_fn)(const char*, long long, const char*, int, const char*, const char*, const char*,
                          const char*, int, const char*, long long, const char*,
                          const char*) = data_base_info;
int (*const base_info2_fn)(const char*) = data_base_info2;
int (*const base_ext_fn)(const char*, const char*) = data_base_ext;
int (*const event_fn)(const char*, const char*, const char*, long long) = data_event;
int (*const screen_fn)(const char*) = data_screen;
int (*const count_fn)(const char*, long long, const char*) = data_count;
int (*const err_trace_fn)(const char*, int, const char*, const char*) = data_err_trace;
int (*const experience_fn)(const char*, const char*, const char*) = data_experience;
int (*const changestate_fn)(int) = data_changestate;
int (*const call_test_fn)(int, char*) = call_test;

const char version_text[] = VELTO_VERSION_STRING;
const int ok_code = VELTO_OK;

/*
 * Velto's two test entry points. They touch no state of the library (nothing is started), so a host's
 * build or installer can check that it finds libVelto and can call into it, with C and with C++
 * linkage. Applications do not need them.
 */
#ifndef VELTO_TEST_H
#define VELTO_TEST_H

#include "velto.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Writes "api get: <n>" into buf (at least 21 bytes) and prints the same line on standard output.
 * Returns 0, or 301 for a null buffer. */
VELTO_API int call_test(int n, char* buf);

#ifdef __cplusplus
} /* extern "C" */

/** The entry point with a C++ name: stores "y" at buf (at least 2 bytes, may be null) and returns 5. */
VELTO_API int call_test3(int n, char* buf);
#endif

#endif /* VELTO_TEST_H */

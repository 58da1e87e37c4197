// The result codes passed between the library's components. The ones a host sees are the public
// VELTO_* codes of velto.h under internal names; the static_asserts below keep the two lists equal.
// The others (203-206, 210) stay inside the library: file, server and message-store failures.
#ifndef VELTO_RESULT_H
#define VELTO_RESULT_H

#include "velto.h"

namespace Velto {

enum ResultCode {
    RES_OK = 0,
    RES_ALREADY_INIT = 101,
    RES_BAD_ROOT = 102,
    RES_BAD_ARG = 104,
    RES_NOT_INIT = 105,
    RES_BASE_INCOMPLETE = 106,
    RES_FILE_OPEN = 203,
    RES_SVR_REJECT = 204,
    RES_NO_REPLY = 205,
    RES_CONF_REJECT = 206,
    RES_STOPPED = 207,
    RES_QUEUE_FULL = 208,
    RES_KIND_OFF = 209,
    RES_MSG_EXCEPTION = 210,
    RES_DECLINED = 211,
    RES_EXCEPTION = 301,
};

static_assert(static_cast<int>(RES_OK) == static_cast<int>(VELTO_OK), "RES_OK is VELTO_OK");
static_assert(static_cast<int>(RES_ALREADY_INIT) == static_cast<int>(VELTO_ALREADY_INIT),
              "RES_ALREADY_INIT is VELTO_ALREADY_INIT");
static_assert(static_cast<int>(RES_BAD_ROOT) == static_cast<int>(VELTO_BAD_ROOT),
              "RES_BAD_ROOT is VELTO_BAD_ROOT");
static_assert(static_cast<int>(RES_BAD_ARG) == static_cast<int>(VELTO_BAD_ARG),
              "RES_BAD_ARG is VELTO_BAD_ARG");
static_assert(static_cast<int>(RES_NOT_INIT) == static_cast<int>(VELTO_NOT_INIT),
              "RES_NOT_INIT is VELTO_NOT_INIT");
static_assert(static_cast<int>(RES_BASE_INCOMPLETE) == static_cast<int>(VELTO_BASE_INCOMPLETE),
              "RES_BASE_INCOMPLETE is VELTO_BASE_INCOMPLETE");
static_assert(static_cast<int>(RES_STOPPED) == static_cast<int>(VELTO_STOPPED),
              "RES_STOPPED is VELTO_STOPPED");
static_assert(static_cast<int>(RES_QUEUE_FULL) == static_cast<int>(VELTO_QUEUE_FULL),
              "RES_QUEUE_FULL is VELTO_QUEUE_FULL");
static_assert(static_cast<int>(RES_KIND_OFF) == static_cast<int>(VELTO_KIND_OFF),
              "RES_KIND_OFF is VELTO_KIND_OFF");
static_assert(static_cast<int>(RES_DECLINED) == static_cast<int>(VELTO_DECLINED),
              "RES_DECLINED is VELTO_DECLINED");
static_assert(static_cast<int>(RES_EXCEPTION) == static_cast<int>(VELTO_EXCEPTION),
              "RES_EXCEPTION is VELTO_EXCEPTION");

}  // namespace Velto

#endif

// The process-wide objects of the library, constructed at load time in a fixed order and never
// destroyed (the background thread may still run while the host exits), the API lock that
// serialises the exported calls, and the result codes shared by the components.
#ifndef VELTO_COMINC_H
#define VELTO_COMINC_H

#include <string>

#include "OsApi.h"

namespace Velto {

class BackRun;
class BaseInfo;
class Session;

// Result codes used between components (the public ones are also in velto.h).
enum ResultCode {
    R_OK = 0,
    R_ALREADY_INIT = 101,
    R_BAD_ROOT = 102,
    R_BAD_ARG = 104,
    R_NOT_INIT = 105,
    R_BASE_INCOMPLETE = 106,
    R_FILE_OPEN = 203,
    R_SVR_REJECT = 204,
    R_NO_REPLY = 205,
    R_CONF_REJECT = 206,
    R_STOPPED = 207,
    R_QUEUE_FULL = 208,
    R_KIND_OFF = 209,
    R_MSG_EXCEPTION = 210,
    R_EXCEPTION = 301,
};

extern BackRun& g_back_run;
extern std::string& g_test;
extern BaseInfo& g_base_info;
extern Session& g_session;
extern Mutex& api_m;

}  // namespace Velto

#endif

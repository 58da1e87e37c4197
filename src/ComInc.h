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

extern Mutex& api_m;
extern BackRun& g_back_run;
extern std::string& g_test;
extern BaseInfo& g_base_info;
extern Session& g_session GUARDED_BY(api_m);

}  // namespace Velto

#endif

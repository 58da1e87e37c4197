// The process-wide objects of the library, constructed at load time in a fixed order and never
// destroyed (the background thread may still run while the host exits), the API lock that
// serialises the exported calls. The result codes shared by the components are in Result.h.
#ifndef VELTO_COMINC_H
#define VELTO_COMINC_H

#include <string>

#include "OsApi.h"
#include "Result.h"

namespace Velto {

class BackRun;
class BaseInfo;
class Session;

extern Mutex& api_m;
extern BackRun& g_back_run;
extern std::string& g_test;
extern BaseInfo& g_base_info;
extern Session& g_session GUARDED_BY(api_m);

}  // namespace Velto

#endif

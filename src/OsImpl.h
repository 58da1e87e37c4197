// The platform contract: what each operating system supplies, written once. The build compiles
// exactly one implementation file (LinuxFun.cpp on Linux) and names its namespace through
// VELTO_PLATFORM_NS; the portable wrappers of OsApi.h reach it as os_impl::.
#ifndef VELTO_OSIMPL_H
#define VELTO_OSIMPL_H

#include <string>

#include "Util.h"

#ifndef VELTO_PLATFORM_NS
#error "VELTO_PLATFORM_NS must name the platform namespace (set by the build)"
#endif

namespace VELTO_PLATFORM_NS {

int get_pid_impl();
std::string get_pname_impl();  // full path of the executable, "" when unknown
std::string get_sdk_version_impl();
bool rename_file_impl(const std::string& from, const std::string& to, std::string& error);
void get_files_impl(const std::string& dir, Velto::StrList& out);
std::string get_guid_impl();
// Writes the whole of data to path (created or emptied first) and flushes it to the disk.
bool write_file_synced_impl(const std::string& path, const char* data, size_t len);
// The client id, always wrapped in braces. brand is not used.
std::string get_client_sign_impl(const std::string& brand);

}  // namespace VELTO_PLATFORM_NS

namespace os_impl = VELTO_PLATFORM_NS;

#endif

// Fuzz target: the preferences file that holds the client id ("client ID" in a property list, XML or
// binary, parsed with libplist): reading the id, and setting it in an existing file while keeping its
// other keys. Whatever the file held, the id just stored must be the one read back, or the client
// would get a new identity at every start. HOME points into the process's scratch directory.
// Input: the preferences file's content.
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "ClientSign.h"
#include "fuzz_support.h"

namespace {

const char kNewId[] = "{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}";

const std::string& prefs_path() {
    static std::string path;
    if (path.empty()) {
        const std::string home = vfuzz::temp_root() + "home";
        setenv("HOME", home.c_str(), 1);
        mkdir(home.c_str(), 0700);
        mkdir((home + "/Library").c_str(), 0700);
        mkdir((home + "/Library/Preferences").c_str(), 0700);
        path = home + "/Library/Preferences/com.orvexa.helper_compact.plist";
    }
    return path;
}

}  // namespace

VELTO_FUZZ_TARGET {
    const std::string& path = prefs_path();
    if (!vfuzz::write_file(path, std::string(reinterpret_cast<const char*>(data), size))) return 0;
    Velto::ClientIdLeaves& leaves = Velto::platform_client_id_leaves();
    const std::string stored = leaves.prefs_client_id();
    Velto::sanitize_client_sign(Velto::wrap_client_id(stored));

    leaves.prefs_set_client_id(kNewId);
    if (leaves.prefs_client_id() != kNewId) abort();
    return 0;
}

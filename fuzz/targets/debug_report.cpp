// Fuzz target: the debug report "debug_msg_to_svr.html": the answer of the debug server that
// save_debug_msg turns into a row, and the report left by earlier runs (which the user may have
// edited) from which it keeps the rows. The report is rewritten every time, so it is put back to the
// input's version before each call; it must always come out whole, ending with the page's end.
// Input: the answer, optionally followed by a NUL and the report's previous content.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "BackRun.h"
#include "ComInc.h"
#include "Config.h"
#include "fuzz_support.h"

namespace {

const std::string& report_path() {
    static bool ready = false;
    static std::string path;
    if (!ready) {
        Velto::Config::obj_->init_mutex();
        Velto::Config::obj_->set("ROOT_DIR", vfuzz::temp_root());
        path = vfuzz::temp_root() + "debug_msg_to_svr.html";
        ready = true;
    }
    return path;
}

std::string read_all(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool ends_with(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

VELTO_FUZZ_TARGET {
    std::vector<std::string> pieces = vfuzz::split_input(data, size, 2);
    const std::string& path = report_path();
    if (pieces[1].empty()) {
        std::remove(path.c_str());
    } else {
        vfuzz::write_file(path, pieces[1]);
    }
    Velto::g_back_run.save_debug_msg(pieces[0]);
    if (!ends_with(read_all(path), "</table></body></html>\n")) abort();
    return 0;
}

// Fuzz target: velto-decode's readers of the root-directory files: a message file (or journal, or
// set-aside batch) rendered line by line, and the configuration file. Every output line must be a
// complete JSON line: the tool's users feed it to grep and jq.
// Input: a message file's content, optionally followed by a NUL and a configuration file's content.
#include <cstdlib>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "root_files.h"

namespace {

// Each line of the output is "{...}" (values may hold braces, so only the ends are checked).
bool all_lines_are_objects(const std::string& text) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() < 2 || line.front() != '{' || line.back() != '}') return false;
    }
    return true;
}

}  // namespace

VELTO_FUZZ_TARGET {
    std::vector<std::string> pieces = vfuzz::split_input(data, size, 2);
    std::ostringstream out;
    vcollect::FileStats st = vcollect::print_messages("sdk.msg", pieces[0], out);
    if (st.records < 0 || st.invalid < 0 || st.oldest > st.newest) abort();
    Velto::StrMap conf;
    vcollect::print_config(pieces[1], conf, out);
    if (!all_lines_are_objects(out.str())) abort();
    return 0;
}

// velto-decode: shows what the library left in its root directory, as JSON lines.
//
//   velto-decode ROOT_DIR          every known file of the directory, then a summary
//   velto-decode FILE...           sdk.cf, sdk.msg, sdk.msg.bak or a MSG_PRE_ batch
//   velto-decode --help | --version
//
// Each record of a message file becomes one line {"file":..,"line":N,"time":T,"record":{..}}; a line
// the library would skip becomes {"file":..,"line":N,"invalid":"reason"}. The configuration becomes
// {"file":"sdk.cf","config":{..}}. A directory ends with {"summary":{..}}. Output is meant for grep
// and jq. Exit status: 0, or 1 when a path cannot be read.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Util.h"
#include "payload.h"
#include "root_files.h"
#include "velto.h"

namespace {

using Velto::StrMap;

std::string base_name(const std::string& path) {
    size_t sep = path.rfind('/');
    return sep == std::string::npos ? path : path.substr(sep + 1);
}

bool read_all(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

using vcollect::FileStats;

FileStats print_messages(const std::string& path) {
    std::string data;
    if (!read_all(path, data)) return FileStats();
    return vcollect::print_messages(base_name(path), data, std::cout);
}

bool print_config(const std::string& path, StrMap& conf) {
    std::string data;
    if (!read_all(path, data)) return false;
    vcollect::print_config(data, conf, std::cout);
    return true;
}

bool is_batch(const std::string& name) {
    return name.compare(0, 8, "MSG_PRE_") == 0;
}

// The set-aside time written behind the GUID of a batch name, 0 when malformed.
long long batch_time(const std::string& name) {
    size_t brace = name.find('}');
    if (brace == std::string::npos || brace < 9) return 0;
    return atoll(name.c_str() + brace + 1);
}

int decode_dir(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (!d) {
        std::cerr << "velto-decode: cannot open " << dir << "\n";
        return 1;
    }
    std::vector<std::string> batches;
    while (dirent* e = readdir(d))
        if (is_batch(e->d_name)) batches.push_back(e->d_name);
    closedir(d);

    StrMap conf;
    bool have_conf = print_config(dir + "/sdk.cf", conf);
    FileStats pending = print_messages(dir + "/sdk.msg");
    FileStats journal = print_messages(dir + "/sdk.msg.bak");
    long long now = time(nullptr), batch_records = 0;
    std::string batch_list;
    for (const std::string& b : batches) {
        FileStats st = print_messages(dir + "/" + b);
        batch_records += st.records;
        long long t = batch_time(b);
        if (!batch_list.empty()) batch_list += ",";
        batch_list += "{\"name\":" + vcollect::json_quote(b) + ",\"records\":" + std::to_string(st.records) +
                      ",\"age_s\":" + (t ? std::to_string(now - t) : std::string("null")) + "}";
    }
    std::cout << "{\"summary\":{\"pending_records\":" << pending.records
              << ",\"invalid_lines\":" << pending.invalid + journal.invalid
              << ",\"journal_records\":" << journal.records << ",\"batches\":[" << batch_list
              << "],\"batch_records\":" << batch_records << ",\"config\":";
    if (!have_conf) {
        std::cout << "null";
    } else {
        std::cout << "{";
        const char* keys[] = {"CONF_URL", "COLLECT_ON", "COLLECT_WAY", "SEND_GAP",
                              "SEND_NUM", "SEND_SIZE",  "LAST_SEND",   "DATA_RANGE"};
        bool first = true;
        for (const char* k : keys) {
            auto it = conf.find(k);
            if (it == conf.end()) continue;
            std::cout << (first ? "" : ",") << vcollect::json_quote(k) << ":"
                      << vcollect::json_quote(it->second);
            first = false;
        }
        std::cout << "}";
    }
    std::cout << "}}\n";
    return 0;
}

int decode_file(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        std::cerr << "velto-decode: cannot read " << path << "\n";
        return 1;
    }
    if (S_ISDIR(st.st_mode)) return decode_dir(path);
    StrMap conf;
    if (base_name(path) == "sdk.cf") return print_config(path, conf) ? 0 : 1;
    print_messages(path);
    return 0;
}

const char kUsage[] =
    "usage: velto-decode ROOT_DIR | FILE...\n"
    "  ROOT_DIR   every file the library keeps in its root directory, then a summary line\n"
    "  FILE       sdk.cf, sdk.msg, sdk.msg.bak or a MSG_PRE_ batch\n"
    "Prints JSON lines; exit status 1 when a path cannot be read.\n"
    "  --help     this text;  --version  its version, which is the library's\n";

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        std::cout << kUsage;
        return 0;
    }
    if (argc == 2 && std::string(argv[1]) == "--version") {
        std::cout << "velto-decode " << VELTO_VERSION_STRING << "\n";
        return 0;
    }
    if (argc < 2) {
        std::cerr << kUsage;
        return 2;
    }
    int rc = 0;
    for (int i = 1; i < argc; ++i) rc |= decode_file(argv[i]);
    return rc;
}

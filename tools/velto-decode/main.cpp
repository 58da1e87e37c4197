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
#include "velto.h"

namespace {

using Velto::StrMap;

// The record as a JSON value: the library's records are flat objects already; anything else is
// shown as a string.
std::string record_value(const std::string& rec) {
    if (rec.size() >= 2 && rec.front() == '{' && rec.back() == '}') return rec;
    return vcollect::json_quote(rec);
}

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

bool decode_token(const std::string& token, std::string& text) {
    try {
        text = Velto::Util::fdecode(token);
        return !text.empty();
    } catch (...) {
        return false;
    }
}

// Why the library would skip this message-file line, or "" when it is a valid record.
std::string check_line(const std::string& line, long long& time, std::string& record) {
    size_t comma = line.find(',');
    if (comma == std::string::npos) return "no comma";
    std::string stamp = line.substr(0, comma), payload = line.substr(comma + 1);
    if (stamp.size() != 10 || stamp.find_first_not_of("0123456789") != std::string::npos)
        return "time stamp is not 10 digits";
    if (payload.size() <= 15) return "payload of 15 characters or fewer";
    if (!decode_token(payload, record)) return "payload does not decode";
    time = std::stoll(stamp);
    return "";
}

struct FileStats {
    long long records = 0, invalid = 0, oldest = 0, newest = 0;
};

FileStats print_messages(const std::string& path) {
    FileStats st;
    std::string data;
    if (!read_all(path, data)) return st;
    std::istringstream in(data);
    std::string line, name = base_name(path);
    for (long long n = 1; std::getline(in, line); ++n) {
        long long time = 0;
        std::string record;
        std::string why = check_line(line, time, record);
        if (!why.empty()) {
            ++st.invalid;
            std::cout << "{\"file\":" << vcollect::json_quote(name) << ",\"line\":" << n
                      << ",\"invalid\":" << vcollect::json_quote(why) << "}\n";
            continue;
        }
        ++st.records;
        if (st.oldest == 0 || time < st.oldest) st.oldest = time;
        if (time > st.newest) st.newest = time;
        std::cout << "{\"file\":" << vcollect::json_quote(name) << ",\"line\":" << n << ",\"time\":" << time
                  << ",\"record\":" << record_value(record) << "}\n";
    }
    return st;
}

bool print_config(const std::string& path, StrMap& conf) {
    std::string data, token, text;
    if (!read_all(path, data)) return false;
    std::istringstream(data) >> token;
    if (token.empty() || !decode_token(token, text)) {
        std::cout << "{\"file\":\"sdk.cf\",\"invalid\":"
                  << vcollect::json_quote(token.empty() ? "empty" : "does not decode") << "}\n";
        return true;
    }
    Velto::Util::json2map(text, conf);
    std::cout << "{\"file\":\"sdk.cf\",\"config\":" << record_value(text) << "}\n";
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

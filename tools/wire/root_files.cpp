// Readers of the library's root-directory files for velto-decode: the same line and token rules the
// library applies, so that what is shown as valid is what the library would upload.
#include "root_files.h"

#include <algorithm>
#include <sstream>

#include "payload.h"

namespace vcollect {

std::string record_value(const std::string& rec) {
    // The library escapes every control byte of a record, so one with a raw control byte (a damaged or
    // foreign line that still decodes) is shown quoted: raw, it could break the output's one line.
    const bool has_control = std::any_of(
        rec.begin(), rec.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
    if (!has_control && rec.size() >= 2 && rec.front() == '{' && rec.back() == '}') return rec;
    return json_quote(rec);
}

bool decode_token(const std::string& token, std::string& text) {
    try {
        text = Velto::Util::fdecode(token);
        return !text.empty();
    } catch (...) {
        return false;
    }
}

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

FileStats print_messages(const std::string& name, const std::string& content, std::ostream& out) {
    FileStats st;
    std::istringstream in(content);
    std::string line;
    for (long long n = 1; std::getline(in, line); ++n) {
        long long time = 0;
        std::string record;
        std::string why = check_line(line, time, record);
        if (!why.empty()) {
            ++st.invalid;
            out << "{\"file\":" << json_quote(name) << ",\"line\":" << n << ",\"invalid\":" << json_quote(why)
                << "}\n";
            continue;
        }
        ++st.records;
        if (st.oldest == 0 || time < st.oldest) st.oldest = time;
        if (time > st.newest) st.newest = time;
        out << "{\"file\":" << json_quote(name) << ",\"line\":" << n << ",\"time\":" << time
            << ",\"record\":" << record_value(record) << "}\n";
    }
    return st;
}

void print_config(const std::string& content, Velto::StrMap& conf, std::ostream& out) {
    std::string token, text;
    std::istringstream(content) >> token;
    if (token.empty() || !decode_token(token, text)) {
        out << "{\"file\":\"sdk.cf\",\"invalid\":" << json_quote(token.empty() ? "empty" : "does not decode")
            << "}\n";
        return;
    }
    Velto::Util::json2map(text, conf);
    out << "{\"file\":\"sdk.cf\",\"config\":" << record_value(text) << "}\n";
}

}  // namespace vcollect

// The debug report "debug_msg_to_svr.html" and the switch file that turns the debug mirror on. The
// report's page (style sheet, heading in its GB2312 bytes, column layout) is what the users of the
// debug mode open in a browser, so it is written byte for byte as they know it. Background thread.
#include "DebugReport.h"

#include <time.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <utility>

#include "Common.h"
#include "Consent.h"
#include "Log.h"
#include "OsApi.h"
#include "Util.h"

namespace Velto {

namespace {

const char kReportName[] = "debug_msg_to_svr.html";
const char kSwitchName[] = "DEBUG_MODE_SVR_ADDR";

const char kStyleSheet[] =
    "#customers{font-family:\"Trebuchet MS\", Arial, Helvetica, sans-serif;width:100%;border-collapse:"
    "collapse;}#customers td, #customers th {font-size:1em;border:1px solid #98bf21;padding:3px 7px 2px "
    "7px;}#customers th {font-size:1.1em;text-align:center;padding-top:5px;padding-bottom:4px;background-"
    "color:#A7C942;color:#ffffff;}#customers tr.alt td {color:#000000;background-color:#EAF2D3;}";
static_assert(sizeof(kStyleSheet) - 1 == 385, "the report's style sheet is 385 characters");

// The heading stays in its legacy GB2312 encoding; the page declares no character set.
const char kBodyStart[] =
    "</head><body><h1 style=\"text-align:center\">"
    "\xCA\xFD\xBE\xDD\xB2\xC9\xBC\xAF"
    "SDK "
    "\xB5\xF7\xCA\xD4\xCF\xFB\xCF\xA2"
    "</h1><table id=\"customers\">";
static_assert(sizeof(kBodyStart) - 1 == 90, "the report's heading line is 90 bytes");

const char kHeaderRow[] =
    "<tr><th style=\"width:150\">time</th><th>type</th><th>extend info</th><th>common info</th></tr>";
const char kRowsBegin[] = "<!--you can delete table rows in this area begin-->";
const char kRowsEnd[] = "<!--you can delete table rows in this area end-->";
const char kRowPlain[] = "<tr><td>";
const char kRowAlt[] = "<tr class=\"alt\"><td>";
const char kRowEnd[] = "</td></tr>";

struct CommonKey {
    const char* key;
    const char* label;
    const char* after;
};

// The common information cell, in this order; a line break inside the cell after "plang".
const CommonKey kCommonKeys[] = {
    {"tid", "tid:", ", "},           {"pid", "pid:", ", "},           {"pver", "pver:", ", "},
    {"oszone", "oszone:", ", "},     {"procname", "procname:", ", "}, {"procid", "procid:", ", "},
    {"plang", "plang:", ",<br/>"},   {"uip", "uip:", ", "},           {"ostype", "ostype:", ", "},
    {"osver", "osver:", ", "},       {"osbit", "osbit:", ", "},       {"oslang", "oslang:", ", "},
    {"tinstall", "tinstall:", ", "}, {"psource", "psource:", ", "},   {"uid", "uid:", ""},
};

// A row the report wrote earlier and the user left intact.
bool is_kept_row(const std::string& line) {
    if (line.size() <= 20) return false;
    size_t end = line.find(kRowEnd);
    if (end == std::string::npos || end + sizeof(kRowEnd) - 1 != line.size()) return false;
    return starts_with(line, kRowPlain) || starts_with(line, kRowAlt);
}

// The rows between the first header row and the next one (or the table's end).
std::string read_kept_rows(std::fstream& report, long long& kept) {
    std::string rows, line;
    int headers = 0;
    kept = 0;
    while (std::getline(report, line) && line != "</table>") {
        if (line == kHeaderRow) ++headers;
        if (headers == 1 && is_kept_row(line)) {
            rows += line;
            rows += '\n';
            ++kept;
        }
    }
    return rows;
}

std::string local_time_text(long long now) {
    time_t t = static_cast<time_t>(now);
    struct tm parts = {};
    localtime_r(&t, &parts);
    char buf[64];
    snprintf(buf, sizeof(buf), "%d-%02d-%02d %02d:%02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1,
             parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return buf;
}

std::string make_row(const std::string& answer, long long kept) {
    StrMap fields;
    Util::json2map(Util::trim_json2(answer), fields);

    std::string type = fields["dtype"];
    fields.erase("dtype");
    std::string common;
    for (const CommonKey& k : kCommonKeys) {
        auto it = fields.find(k.key);
        common += k.label;
        if (it != fields.end()) {
            common += it->second;
            fields.erase(it);
        }
        common += k.after;
    }
    std::string extended = Util::to_key_val(fields);

    std::string row = kept % 2 == 0 ? kRowPlain : kRowAlt;
    row += local_time_text(os_time());
    row += "</td><td>";
    row += type;
    row += "</td><td>";
    row += extended;
    row += "</td><td>";
    row += common;
    row += kRowEnd;
    return row;
}

void write_report(std::fstream& report, const std::string& kept_rows, const std::string& new_row) {
    report << "<html><head><title>debug_msg_to_svr</title>\n"
           << "<style type=\"text/css\">\n"
           << kStyleSheet << "\n"
           << "</style>\n";
    report.write(kBodyStart, sizeof(kBodyStart) - 1);
    report << "\n"
           << kHeaderRow << "\n"
           << "\n"
           << kRowsBegin << "\n"
           << kept_rows << new_row << "\n"
           << kRowsEnd << "\n"
           << "</table></body></html>\n";
}

}  // namespace

std::string DebugReport::server_address() {
    try {
        if (root_.empty()) return "";
        std::ifstream in(root_ + kSwitchName);
        if (!in.is_open()) return "";
        std::string line;
        if (std::getline(in, line)) return line;
        LOGW << "can not get svrd" << LEND;
    } catch (...) {
        LOGE << "Exception get_svrd" << LEND;
    }
    return "";
}

void DebugReport::save(const std::string& answer) {
    std::fstream report;
    try {
        if (consent_declined() || root_.empty()) return;
        const std::string path = root_ + kReportName;
        if (ensure_own_file(path)) report.open(path, std::ios::in);

        long long kept = 0;
        std::string kept_rows = read_kept_rows(report, kept);
        std::string new_row = make_row(answer, kept);
        report.close();

        if (ensure_own_file(path, true)) report.open(path, std::ios::out | std::ios::trunc);
        if (!report.is_open()) {
            LOGE << "create debug msg file" << LEND;
            return;
        }
        write_report(report, kept_rows, new_row);
        report.close();
    } catch (...) {
        if (report.is_open()) report.close();
        // The same text as get_svrd's on purpose.
        LOGE << "Exception get_svrd" << LEND;
    }
}

}  // namespace Velto

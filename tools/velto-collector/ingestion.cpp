// Decoding of the library's requests into rows, terminal lines and JSON lines (ingestion.h).
#include "ingestion.h"

#include <sstream>
#include <utility>

#include "json_text.h"
#include "terminal.h"
#include "upload.h"

namespace vcollect {

namespace {

// The database row of a record: the fields the page filters and shows, decoded from their JSON
// escapes, and the whole record written again as valid JSON.
RecordRow record_row(const FlatMembers& rec, const Received& from) {
    const auto field = [&rec](const char* key) {
        const std::string* v = member(rec, key);
        return v ? json_unescape(*v) : std::string();
    };
    RecordRow row;
    row.kind = field("dtype");
    row.category = field("category");
    row.action = field("act");
    row.label = field("label");
    row.sid = field("sid");
    row.cid = field("did");
    row.brand = field("BRAND");
    row.pver = field("pver");
    row.batch = from.upload;
    row.record = clean_json_object(rec);
    return row;
}

void take_record(const std::string& text, const Received& from, Output& out) {
    FlatMembers rec;
    if (!read_flat_object(text, rec)) {
        ++out.unreadable;
        out.warnings += clock_text(from.at) + " " + from.endpoint +
                        ": a record that is not a flat JSON object: " + printable(text, 200) + "\n";
        out.add_json(from, "\"invalid\":" + json_quote(text));
        // Kept in the database too, so that the page shows what the library sent.
        RecordRow row;
        row.batch = from.upload;
        row.record = "{\"invalid\":" + json_string(text) + "}";
        out.rows.push_back(std::move(row));
        return;
    }
    const std::string* kind = member(rec, "dtype");
    ++out.kinds[kind ? *kind : "(no dtype)"];
    out.show(readable_line(rec, from.at));
    out.add_json(from, "\"record\":" + text);
    out.rows.push_back(record_row(rec, from));
}

// The library's current configuration, sent when it is asked to report it.
void take_config(const std::string& text, const Received& from, Output& out) {
    FlatMembers conf;
    const bool flat = read_flat_object(text, conf);
    out.show(clock_text(from.at) + " config  " + std::to_string(conf.size()) + " settings from the library");
    out.add_json(from, flat ? "\"config\":" + text : "\"config_text\":" + json_quote(text));
}

void take_log(const std::string& text, const Received& from, Output& out) {
    out.show(clock_text(from.at) + " log upload  " + std::to_string(text.size()) +
             " bytes of the library's log");
    out.add_json(from, "\"log\":" + json_quote(text));
}

void take_conf_request(const std::string& body, const Received& from, Output& out) {
    const FormFields form = parse_form(body);
    out.show(clock_text(from.at) + " conf request  brand=" + printable(form_value(form, "brand")) +
             "  pver=" + printable(form_value(form, "pver")) +
             "  client_sign=" + printable(form_value(form, "client_sign")));
}

void take_data(const std::string& body, const Received& from, Output& out) {
    const FormFields form = parse_form(body);
    if (form.empty()) throw BadRequest("the body is not a form (expected data=... or conf=...)");
    const std::string& field = form.front().first;
    if (field != "data" && field != "conf")
        throw BadRequest("unknown form field \"" + printable(field) + "\"");
    std::string text;
    const std::string& payload = form.front().second;
    if (!is_base64_text(payload) || !decode_form_payload(payload, text))
        throw BadRequest(why_form_payload_fails(payload));
    if (field == "conf")
        take_config(text, from, out);
    else
        take_record(text, from, out);
}

void take_file(bool multipart, const std::vector<FormPart>& parts, const Received& from_request,
               Output& out) {
    if (!multipart) throw BadRequest("expected a multipart/form-data upload");
    const Upload up = decode_upload(parts);
    Received from = from_request;
    from.upload = up.name;
    if (up.name == "log") return take_log(up.data, from, out);
    out.batch = up.name;

    std::vector<std::string> lines;
    std::istringstream in(up.data);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    out.show(clock_text(from.at) + " upload " + printable(up.name) + "  " + std::to_string(lines.size()) +
             " records");
    for (const std::string& line : lines) take_record(line, from, out);
}

}  // namespace

Output ingest(const std::string& path, const std::string& body, bool multipart,
              const std::vector<FormPart>& parts, const Received& from) {
    Output out;
    if (path == "/v1/conf")
        take_conf_request(body, from, out);
    else if (path == "/v1/data")
        take_data(body, from, out);
    else
        take_file(multipart, parts, from, out);
    return out;
}

}  // namespace vcollect

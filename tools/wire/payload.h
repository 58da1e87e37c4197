// Decoders for what the library puts on the wire: URL-encoded forms, multipart bodies (the library's
// own raw layout and libcurl's), the Base64 form payload and the binary file payload, both optionally
// deflated. Used by the tests and the collector tool to turn captured requests back into records.
// Stateless; safe on any thread. Nothing here trusts its input: bad input gives false or empty results.
#ifndef VELTO_WIRE_PAYLOAD_H
#define VELTO_WIRE_PAYLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vcollect {

// A JSON string literal of arbitrary bytes (control bytes escaped, the rest passed through).
std::string json_quote(const std::string& s);
// Appends byte c as it stands inside a JSON string literal (quote, backslash and control bytes escaped).
void append_json_escaped(std::string& out, unsigned char c);

// One part of a multipart body.
struct FormPart {
    std::string name;
    std::string filename;      // "" for a text field
    std::string content_type;  // "" when the part carries none
    std::string data;          // the bytes between the part's blank line and the next boundary
};

typedef std::vector<std::pair<std::string, std::string>> FormFields;

// "a=1&b=2" -> {("a","1"),("b","2")}, names and values URL-decoded, order kept.
FormFields parse_form(const std::string& body);
// The first value of name, "" when absent.
std::string form_value(const FormFields& fields, const std::string& name);

// The boundary parameter of a multipart content type, with or without blanks ("" when absent).
std::string boundary_of(const std::string& content_type);
// Splits a multipart body; stops at the closing boundary or at the first malformed part.
std::vector<FormPart> parse_multipart(const std::string& body, const std::string& boundary);
// The first part called name, or null.
const FormPart* find_part(const std::vector<FormPart>& parts, const std::string& name);
// A text field's value: data without the CRLF CRLF that the library's raw layout adds after it.
std::string field_text(const FormPart& part);

enum class Zipped { kNo, kYes, kDetect };

// True when bytes start with a zlib stream header.
bool looks_zlib(const std::string& bytes);
// Inflates one zlib stream (bytes after its end are ignored); false on a broken stream or when the
// result would pass limit bytes.
bool inflate_bytes(const std::string& in, std::string& out, size_t limit = 64u << 20);

// The Base64 text of a form field (already URL-decoded) back to the record text. Unzipped payloads
// lose their padding the way the library's own reader strips it.
bool decode_form_payload(const std::string& text, std::string& out, Zipped zipped = Zipped::kDetect);

struct FilePayload {
    uint32_t length = 0;  // the big-endian prefix: length of the original data
    std::string data;     // the original data
};
// A file upload's "file" part: 4-byte length prefix, then raw AES-256-CBC bytes of the (optionally
// deflated) data.
bool decode_file_payload(const std::string& payload, FilePayload& out, Zipped zipped = Zipped::kDetect);

}  // namespace vcollect

#endif

// Decoders of the library's upload formats, built on the library's own codecs (Zip.h) so that the
// collector reads exactly what the library writes.
#include "payload.h"

#include <zlib.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <vector>

#include "HttpClient.h"
#include "Zip.h"

namespace vcollect {

void append_json_escaped(std::string& out, unsigned char c) {
    switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20 || c == 0x7f) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
    }
}

std::string json_quote(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) append_json_escaped(out, c);
    return out + "\"";
}

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

std::string unquote(const std::string& s) {
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') return s.substr(1, s.size() - 2);
    return s;
}

// Fills name and filename from a Content-Disposition value: form-data; name="x"; filename="y".
void parse_disposition(const std::string& value, FormPart& part) {
    size_t pos = 0;
    while (pos <= value.size()) {
        size_t end = value.find(';', pos);
        if (end == std::string::npos) end = value.size();
        const std::string param = trim(value.substr(pos, end - pos));
        const size_t eq = param.find('=');
        if (eq != std::string::npos) {
            const std::string key = lower(trim(param.substr(0, eq)));
            const std::string val = unquote(trim(param.substr(eq + 1)));
            if (key == "name") part.name = val;
            if (key == "filename") part.filename = val;
        }
        pos = end + 1;
    }
}

void parse_part_headers(const std::string& headers, FormPart& part) {
    size_t pos = 0;
    while (pos < headers.size()) {
        size_t end = headers.find("\r\n", pos);
        if (end == std::string::npos) end = headers.size();
        const std::string line = headers.substr(pos, end - pos);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            const std::string key = lower(trim(line.substr(0, colon)));
            const std::string val = trim(line.substr(colon + 1));
            if (key == "content-disposition") parse_disposition(val, part);
            if (key == "content-type") part.content_type = val;
        }
        pos = end + 2;
    }
}

// Base64 -> raw AES-256-CBC plaintext (padding left in place); false unless it is whole blocks.
bool decipher_base64(const std::string& text, std::string& plain) {
    if (text.empty() || text.size() % 4 != 0 || text.find('\0') != std::string::npos) return false;
    std::vector<unsigned char> buf(3 * (text.size() / 4) + 1, 0);
    const int m = Velto::base64_decode(text.c_str(), buf.data());
    if (m <= 0 || m % 16 != 0) return false;
    try {
        if (Velto::AES_Decode(text.c_str(), buf.data()) != 0) return false;
    } catch (...) {
        return false;
    }
    plain.assign(reinterpret_cast<const char*>(buf.data()), static_cast<size_t>(m));
    return true;
}

// The library's reader: text up to the first zero byte, then trailing bytes that read as a signed
// char of at most 15 dropped (padding, and on purpose the tail of a trailing non-ASCII character).
std::string strip_like_reader(const std::string& plain) {
    std::string text(plain.c_str());
    while (text.size() > 1 && static_cast<signed char>(text.back()) <= 15) text.pop_back();
    return text;
}

bool use_zip(Zipped zipped, const std::string& plain) {
    return zipped == Zipped::kYes || (zipped == Zipped::kDetect && looks_zlib(plain));
}

}  // namespace

FormFields parse_form(const std::string& body) {
    FormFields fields;
    size_t pos = 0;
    while (pos < body.size()) {
        size_t end = body.find('&', pos);
        if (end == std::string::npos) end = body.size();
        const std::string item = body.substr(pos, end - pos);
        if (!item.empty()) {
            const size_t eq = item.find('=');
            const std::string name = item.substr(0, eq);
            const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
            fields.emplace_back(Velto::UrlDecode(name), Velto::UrlDecode(value));
        }
        pos = end + 1;
    }
    return fields;
}

std::string form_value(const FormFields& fields, const std::string& name) {
    for (const auto& f : fields)
        if (f.first == name) return f.second;
    return "";
}

std::string boundary_of(const std::string& content_type) {
    const std::string lowered = lower(content_type);
    const size_t at = lowered.find("boundary=");
    if (at == std::string::npos) return "";
    std::string value = content_type.substr(at + 9);
    const size_t end = value.find_first_of("; \r\n");
    if (end != std::string::npos) value = value.substr(0, end);
    return unquote(value);
}

std::vector<FormPart> parse_multipart(const std::string& body, const std::string& boundary) {
    std::vector<FormPart> parts;
    if (boundary.empty()) return parts;
    const std::string delim = "--" + boundary;
    const std::string next_delim = "\r\n" + delim;
    size_t pos = body.find(delim);
    while (pos != std::string::npos) {
        pos += delim.size();
        if (body.compare(pos, 2, "\r\n") != 0) break;  // "--" closes the body; anything else is junk
        pos += 2;
        const size_t headers_end = body.find("\r\n\r\n", pos);
        if (headers_end == std::string::npos) break;
        const size_t data_start = headers_end + 4;
        const size_t data_end = body.find(next_delim, data_start);
        if (data_end == std::string::npos) break;
        FormPart part;
        parse_part_headers(body.substr(pos, headers_end - pos), part);
        part.data = body.substr(data_start, data_end - data_start);
        parts.push_back(std::move(part));
        pos = data_end + 2;
    }
    return parts;
}

const FormPart* find_part(const std::vector<FormPart>& parts, const std::string& name) {
    for (const auto& p : parts)
        if (p.name == name) return &p;
    return nullptr;
}

std::string field_text(const FormPart& part) {
    const std::string& d = part.data;
    if (d.size() >= 4 && d.compare(d.size() - 4, 4, "\r\n\r\n") == 0) return d.substr(0, d.size() - 4);
    return d;
}

bool looks_zlib(const std::string& bytes) {
    if (bytes.size() < 2) return false;
    const unsigned b0 = static_cast<unsigned char>(bytes[0]), b1 = static_cast<unsigned char>(bytes[1]);
    return (b0 & 0x0F) == 8 && (b0 >> 4) <= 7 && ((b0 << 8) | b1) % 31 == 0;
}

bool inflate_bytes(const std::string& in, std::string& out, size_t limit) {
    out.clear();
    z_stream zs;
    memset(&zs, 0, sizeof zs);
    if (inflateInit(&zs) != Z_OK) return false;
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    zs.avail_in = static_cast<uInt>(in.size());
    char chunk[16384];
    int rc = Z_OK;
    while (rc == Z_OK) {
        zs.next_out = reinterpret_cast<Bytef*>(chunk);
        zs.avail_out = sizeof chunk;
        rc = inflate(&zs, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END) break;
        out.append(chunk, sizeof chunk - zs.avail_out);
        if (out.size() > limit) rc = Z_MEM_ERROR;
        if (rc == Z_OK && zs.avail_in == 0 && zs.avail_out != 0) rc = Z_DATA_ERROR;  // truncated stream
    }
    inflateEnd(&zs);
    return rc == Z_STREAM_END;
}

bool decode_form_payload(const std::string& text, std::string& out, Zipped zipped) {
    out.clear();
    std::string plain;
    if (!decipher_base64(text, plain)) return false;
    if (use_zip(zipped, plain)) return inflate_bytes(plain, out);
    out = strip_like_reader(plain);
    return true;
}

bool decode_file_payload(const std::string& payload, FilePayload& out, Zipped zipped) {
    out = FilePayload();
    if (payload.size() < 4 + 16 || (payload.size() - 4) % 16 != 0) return false;
    for (int i = 0; i < 4; ++i) out.length = (out.length << 8) | static_cast<unsigned char>(payload[i]);
    const std::string sealed = payload.substr(4);
    const std::string b64 = Velto::base64_encode(reinterpret_cast<const unsigned char*>(sealed.data()),
                                                 static_cast<unsigned>(sealed.size()));
    std::string plain;
    if (!decipher_base64(b64, plain)) return false;
    if (use_zip(zipped, plain)) return inflate_bytes(plain, out.data);
    if (out.length > plain.size()) return false;
    out.data = plain.substr(0, out.length);
    return true;
}

}  // namespace vcollect

// Fuzz target: the collector's decoding of upload requests: URL-encoded forms, the multipart
// boundary and body (the library's raw layout and libcurl's), the Base64 form payload and the binary
// file payload with their envelopes, and the inflater (payload.h); and velto-collector's checks on
// top of them (upload.h): the form payload's Base64 test and the reason it gives for a refusal, the
// file part's length prefix, the choice of the upload's parts. These parse whatever a client sends.
// Input: a content type, a NUL, then the request body. The body is also taken as a form payload and
// as a file payload on its own, so that mutations reach the envelopes without the framing around them.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Zip.h"
#include "fuzz_support.h"
#include "payload.h"
#include "upload.h"

namespace {

// The field of the library's form uploads and the part of its file uploads.
const char kFormField[] = "sdk_msg";
// What decode_form_payload inflates to at most (its default limit).
const size_t kMaxFormText = 64u << 20;

void check(bool ok) {
    if (!ok) abort();
}

// The number in "... (N bytes)" of a refusal, or -1.
long long bytes_in(const std::string& why) {
    const size_t open = why.rfind('(');
    return open == std::string::npos ? -1 : atoll(why.c_str() + open + 1);
}

// What the library's strict Base64 decoder (the one beneath the cipher) makes of text.
long long decoded_size(const std::string& text) {
    std::vector<unsigned char> out((text.size() + 3) / 4 * 3 + 1);
    return Velto::base64_decode(text.c_str(), out.data());
}

// A /v1/data field as velto-collector takes it: the payload decodes, or the refusal says why, and a
// refusal for partial cipher blocks counts the bytes the Base64 really holds.
void check_form_payload(const std::string& payload) {
    std::string text;
    const bool decoded = vcollect::decode_form_payload(payload, text);
    check(text.size() <= kMaxFormText);
    const bool base64 = vcollect::is_base64_text(payload);
    if (base64 && decoded) return;
    const std::string why = vcollect::why_form_payload_fails(payload);
    check(!why.empty());
    if (base64 && why.find("AES blocks") != std::string::npos) check(bytes_in(why) == decoded_size(payload));
}

uint32_t length_prefix(const std::string& payload) {
    uint32_t length = 0;
    for (size_t i = 0; i < 4 && i < payload.size(); ++i)
        length = (length << 8) | static_cast<unsigned char>(payload[i]);
    return length;
}

// A file part as velto-collector takes it: only BadRequest (with a reason) may escape; a decoded
// content is as long as its prefix says, bounded, and what the tests' decoder reads from it too.
void check_file_content(const std::string& payload) {
    vcollect::FilePayload file;
    const bool read = vcollect::decode_file_payload(payload, file);
    std::string data;
    try {
        data = vcollect::decode_file_content(payload);
    } catch (const vcollect::BadRequest& e) {
        check(*e.what() != '\0');
        return;
    } catch (...) {
        abort();
    }
    check(!data.empty() && data.size() == length_prefix(payload) && data.size() <= vcollect::kMaxFileContent);
    check(read && file.data == data);
}

// A whole /v1/file form: decoded only when it has a "file" part that decodes.
void check_upload(const std::vector<vcollect::FormPart>& parts) {
    try {
        const vcollect::Upload up = vcollect::decode_upload(parts);
        check(vcollect::find_part(parts, "file") != nullptr && !up.data.empty());
    } catch (const vcollect::BadRequest& e) {
        check(*e.what() != '\0');
    } catch (...) {
        abort();
    }
}

void decode_form(const std::string& body) {
    const vcollect::FormFields form = vcollect::parse_form(body);
    for (const auto& field : form) check_form_payload(field.second);
    std::string record;
    vcollect::decode_form_payload(vcollect::form_value(form, kFormField), record, vcollect::Zipped::kYes);
}

void decode_multipart(const std::string& content_type, const std::string& body) {
    const std::vector<vcollect::FormPart> parts =
        vcollect::parse_multipart(body, vcollect::boundary_of(content_type));
    for (const vcollect::FormPart& part : parts) {
        check_file_content(part.data);
        vcollect::FilePayload file;
        vcollect::decode_file_payload(part.data, file, vcollect::Zipped::kNo);
        std::string text = vcollect::field_text(part);
        vcollect::json_quote(text);
    }
    check_upload(parts);
}

}  // namespace

VELTO_FUZZ_TARGET {
    std::vector<std::string> pieces = vfuzz::split_input(data, size, 2);
    const std::string& content_type = pieces[0];
    const std::string& body = pieces[1];
    decode_form(body);
    decode_multipart(content_type, body);
    check_form_payload(body);
    check_file_content(body);
    std::string inflated;
    if (vcollect::looks_zlib(body)) vcollect::inflate_bytes(body, inflated, 1 << 20);
    return 0;
}

// velto-collector's checks of what an upload request carries: whether a form payload is Base64 and
// why it did not decode, and the file upload's "file" part (length prefix, whole AES blocks,
// inflating) with its "sdk_log" name. Used by velto-collector to answer 400 with a reason, and by the
// fuzz targets. Stateless; safe on any thread. Bad input throws BadRequest and nothing else.
#ifndef VELTO_WIRE_UPLOAD_H
#define VELTO_WIRE_UPLOAD_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "payload.h"

namespace vcollect {

// A request the collector cannot take; the text goes into the 400 reply and the log line.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The most a file upload's content may inflate to.
const size_t kMaxFileContent = 64u << 20;

// True for whole groups of four Base64 characters with at most two "=" at the end only.
bool is_base64_text(const std::string& s);
// Why a form field's payload (Base64 of AES, maybe deflated) did not decode.
std::string why_form_payload_fails(const std::string& text);

// The content of a file upload's "file" part: inflated when it was deflated, else cut to the length
// prefix. Throws BadRequest unless the prefix matches what arrived (a cut or padded upload is caught
// rather than half read) and the content is not empty.
std::string decode_file_content(const std::string& payload);

struct Upload {
    std::string name;  // the "sdk_log" field: a batch's GUID, or "log"
    std::string data;  // the decoded file content
};

// The upload of a multipart form; throws BadRequest when it has no "file" part or that part does not
// decode.
Upload decode_upload(const std::vector<FormPart>& parts);

}  // namespace vcollect

#endif

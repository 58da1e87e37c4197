// The collector's upload checks, built on the library's own codecs (Zip.h) and the decoders of
// payload.h, so that what velto-collector refuses is what the library could not have written.
#include "upload.h"

#include <cstdint>

#include "Zip.h"

namespace vcollect {

namespace {

// The deciphered bytes of a file upload's payload behind its length prefix, padding kept.
std::string decipher_file_payload(const std::string& payload) {
    if (payload.size() < 4 + 16)
        throw BadRequest("the file payload holds " + std::to_string(payload.size()) +
                         " bytes, less than a length prefix and one AES block");
    if ((payload.size() - 4) % 16 != 0)
        throw BadRequest("the file payload is not a length prefix and whole AES blocks");
    const std::string sealed = payload.substr(4);
    const std::string b64 = Velto::base64_encode(reinterpret_cast<const unsigned char*>(sealed.data()),
                                                 static_cast<unsigned>(sealed.size()));
    std::vector<unsigned char> plain(sealed.size() + 4, 0);
    if (Velto::AES_Decode(b64.c_str(), plain.data()) != 0)
        throw BadRequest("the file payload does not decipher");
    return std::string(reinterpret_cast<const char*>(plain.data()), sealed.size());
}

// The big-endian length in the first four bytes; the caller has checked that they are there.
uint32_t length_prefix(const std::string& payload) {
    uint32_t length = 0;
    for (int i = 0; i < 4; ++i) length = (length << 8) | static_cast<unsigned char>(payload[i]);
    return length;
}

}  // namespace

bool is_base64_text(const std::string& s) {
    if (s.empty() || s.size() % 4 != 0) return false;
    const size_t pad = s.find('=');
    if (pad != std::string::npos &&
        (pad + 2 < s.size() || s.find_first_not_of('=', pad) != std::string::npos))
        return false;
    return s.find_first_not_of(Velto::base64_chars + "=") == std::string::npos;
}

std::string why_form_payload_fails(const std::string& text) {
    if (!is_base64_text(text)) return "the payload is not Base64";
    const size_t raw = text.size() / 4 * 3 - (text.size() - text.find_last_not_of('=') - 1);
    if (raw == 0 || raw % 16 != 0)
        return "the payload is not whole AES blocks (" + std::to_string(raw) + " bytes)";
    return "the payload does not inflate (broken zlib stream)";
}

std::string decode_file_content(const std::string& payload) {
    const std::string plain = decipher_file_payload(payload);
    const uint32_t length = length_prefix(payload);
    std::string data;
    if (looks_zlib(plain)) {
        if (!inflate_bytes(plain, data, kMaxFileContent))
            throw BadRequest("the file payload does not inflate (broken zlib stream)");
    } else if ((static_cast<uint64_t>(length) + 15) / 16 * 16 == plain.size()) {
        data = plain.substr(0, length);
    }
    if (data.size() != length || length == 0)
        throw BadRequest("the length prefix says " + std::to_string(length) + " bytes, the payload holds " +
                         std::to_string(data.empty() ? plain.size() : data.size()));
    return data;
}

Upload decode_upload(const std::vector<FormPart>& parts) {
    const FormPart* file = find_part(parts, "file");
    if (!file) throw BadRequest("the multipart form has no \"file\" part");
    Upload up;
    if (const FormPart* name = find_part(parts, "sdk_log")) up.name = field_text(*name);
    up.data = decode_file_content(file->data);
    return up;
}

}  // namespace vcollect

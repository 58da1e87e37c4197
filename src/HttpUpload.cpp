// The uploads built on the two HTTP clients: the payload envelopes (Base64 form field, length-
// prefixed file payload, each deflated first when the context asks), the multipart body the raw
// client sends, the URL encoding, and the judging of the server's reply. The wire format (envelope,
// form field, multipart layout with its doubled CRLFs) is what the collection server parses, so it
// is kept byte for byte. Background thread; no shared state.
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Common.h"
#include "HttpClient.h"
#include "Log.h"
#include "Result.h"
#include "Util.h"
#include "Zip.h"

namespace Velto {

namespace {

const char kMultipartHeader[] = "Content-Type:multipart/form-data;boundary=70db372eb000e2ax\r\n";
const char kPartOpen[] = "\r\n--70db372eb000e2ax\r\nContent-Disposition: form-data; name=\"";
const char kPartsClose[] = "\r\n--70db372eb000e2ax--\r\n";

// Upload bodies are bounded by the configured size limits long before this; beyond it the scratch
// sizes below would overflow an int.
const size_t kMaxPayload = 256u << 20;

// The scratch size of the envelope for an input of len bytes (it bounds the deflated and the
// enciphered text alike).
int scratch_size(size_t len) {
    return static_cast<int>(static_cast<double>(len) * 1.2 + 100);
}

// Deflates data (up to its first zero byte, as Zip does) into out; false when Zip fails.
bool zip_into(const std::string& data, std::vector<unsigned char>& out) {
    int cap = scratch_size(data.size());
    out.assign(static_cast<size_t>(cap) + 1, 0);
    int len = cap;
    if (Zip(data.c_str(), out.data(), len) < 0) return false;
    out.resize(static_cast<size_t>(len));
    return true;
}

// The Base64 form-field text of data, zipped first when ZIP_DATA is on. False when Zip fails.
bool encode_form_payload(const std::string& data, bool zip, std::string& text) {
    if (data.size() > kMaxPayload) return false;
    if (!zip) {
        text = Util::fencode(data);
        return true;
    }
    std::vector<unsigned char> zipped;
    if (!zip_into(data, zipped)) return false;
    text = Util::fencode(reinterpret_cast<const char*>(zipped.data()), static_cast<long long>(zipped.size()));
    return true;
}

// The file payload: the unencoded length as 4 big-endian bytes, then the enciphered (and, with
// ZIP_DATA on, deflated) data. False when Zip fails or nothing was enciphered.
bool encode_file_payload(const std::string& data, bool zip, std::string& payload) {
    if (data.size() > kMaxPayload) return false;
    std::vector<unsigned char> zipped;
    const unsigned char* plain = reinterpret_cast<const unsigned char*>(data.data());
    size_t plain_len = data.size();
    if (zip) {
        if (!zip_into(data, zipped)) return false;
        plain = zipped.data();
        plain_len = zipped.size();
    }
    std::vector<unsigned char> sealed(static_cast<size_t>(scratch_size(plain_len)) + 1, 0);
    int sealed_len = 0;
    if (plain_len > 0) AES_Encode2(plain, static_cast<int>(plain_len), sealed.data(), sealed_len);
    if (sealed_len < 1) return false;
    const uint32_t n = static_cast<uint32_t>(data.size());
    payload.reserve(4 + static_cast<size_t>(sealed_len));
    payload.assign(1, static_cast<char>((n >> 24) & 0xFF));
    payload += static_cast<char>((n >> 16) & 0xFF);
    payload += static_cast<char>((n >> 8) & 0xFF);
    payload += static_cast<char>(n & 0xFF);
    payload.append(reinterpret_cast<const char*>(sealed.data()), static_cast<size_t>(sealed_len));
    return true;
}

// Text values are joined as zero-terminated strings, so a value is cut at a zero byte.
void append_text_part(std::string& body, const char* name, const std::string& value) {
    body += kPartOpen;
    body += name;
    body += "\"\r\n\r\n";
    body += value.c_str();
    // The doubled CRLF reaches the server as part of the value; the server strips it.
    body += "\r\n\r\n";
}

std::string multipart_body(const std::string& name, const std::string& payload, const UploadContext& ctx) {
    std::string body;
    body.reserve(payload.size() + 512);
    append_text_part(body, "sdk_log", name);
    append_text_part(body, "proc_name", ctx.procname);
    append_text_part(body, "tid", ctx.tid);
    append_text_part(body, "client_sign", ctx.did);
    body += kPartOpen;
    body += "file\"; filename=\"";
    body += name.c_str();
    body += "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    body += payload;
    body += kPartsClose;
    return body;
}

RequestParam upload_param(const std::string& body, const UploadContext& ctx) {
    RequestParam param;
    param.post = true;
    param.body = body.c_str();
    param.body_len = static_cast<int>(body.size());
    param.block = false;
    param.timeout_ms = ctx.timeout_ms;
    param.declined = ctx.declined;
    param.form = &ctx;
    return param;
}

enum class PostResult { kEncodeFailed, kNoReply, kReplied };

// Steps shared by send_msg and send_msg_res: envelope, form body, one POST. status = the reply's
// HTTP status code (0 when it has none).
PostResult post_form(const std::string& data, const char* url, const std::string& field,
                     const UploadContext& ctx, std::string& reply, long& status) {
    std::string text;
    if (!encode_form_payload(data, ctx.zip, text) || text.empty()) return PostResult::kEncodeFailed;
    const std::string body = field + "=" + UrlEncode(text);
    RequestParam param = upload_param(body, ctx);
    if (starts_with(url, "https://")) {
        reply = curl_http_post(url, param, 1, &status);
        return reply.empty() ? PostResult::kNoReply : PostResult::kReplied;
    }
    if (!http_client(url, reply, &param)) return PostResult::kNoReply;
    status = http_status_of(reply);
    return PostResult::kReplied;
}

}  // namespace

// A reply counts only with a 2xx status; a server in trouble may still send a body that looks like
// success.
bool upload_accepted(const std::string& reply, long status) {
    return status >= 200 && status <= 299 && Util::json_item(reply, "status") == "0";
}

std::string upload_reply_data(const std::string& reply, long status) {
    if (reply.size() <= 2 || status < 200 || status > 299) return "";
    return Util::json_item(reply, "data");
}

std::string UrlEncode(const std::string& text) {
    std::string out;
    out.reserve(text.size() * 3);
    for (unsigned char c : text) {
        if (isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else if (c == ' ') {
            out += '+';
        } else {
            out += '%';
            out += static_cast<char>(ToHex(c >> 4));
            out += static_cast<char>(ToHex(c & 0x0F));
        }
    }
    return out;
}

std::string UrlDecode(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    const size_t n = text.size();
    for (size_t i = 0; i < n; ++i) {
        const char c = text[i];
        if (c == '+') {
            out += ' ';
        } else if (c == '%' && i + 2 < n) {
            const unsigned char high = FromHex(static_cast<unsigned char>(text[++i]));
            const unsigned char low = FromHex(static_cast<unsigned char>(text[++i]));
            out += static_cast<char>(high * 16 + low);
        } else {
            // A "%" without two characters after it once stopped the process on an assertion; a
            // library must not take its host down, so it is copied through as it stands.
            out += c;
        }
    }
    return out;
}

unsigned char ToHex(unsigned char x) {
    return static_cast<unsigned char>(x > 9 ? x + 55 : x + 48);
}

unsigned char FromHex(unsigned char c) {
    // Letters past F give values above 15 (part of the decoding, kept on purpose); any other character
    // counts as 0 rather than aborting the host.
    if (c >= 'A' && c <= 'Z') return static_cast<unsigned char>(c - 55);
    if (c >= 'a' && c <= 'z') return static_cast<unsigned char>(c - 87);
    if (c >= '0' && c <= '9') return static_cast<unsigned char>(c - '0');
    return 0;
}

int send_msg(const std::string& data, const char* url, const std::string& field, const UploadContext& ctx) {
    try {
        std::string reply;
        long status = 0;
        switch (post_form(data, url, field, ctx, reply, status)) {
            case PostResult::kEncodeFailed:
                return -1;
            case PostResult::kNoReply:
                // The line reads "ret: 0" whatever the transport returned; the server side reads it so.
                LOGE << "msg http_client ret: " << 0 << LEND;
                return RES_NO_REPLY;
            case PostResult::kReplied:
                break;
        }
        if (reply.size() <= 2) return RES_SVR_REJECT;
        if (upload_accepted(reply, status)) return RES_OK;
        LOGE << "http_client" << LEND;
        return RES_SVR_REJECT;
    } catch (...) {
        LOGE << "Exception, send_msg" << LEND;
        return -1;
    }
}

int send_file(const std::string& data, const char* url, const std::string& name, const UploadContext& ctx) {
    try {
        std::string payload;
        if (!encode_file_payload(data, ctx.zip, payload)) return -1;
        RequestParam param = upload_param(payload, ctx);
        param.upname = name.c_str();
        std::string reply;
        bool replied = false;
        long status = 0;
        if (starts_with(url, "https://")) {
            reply = curl_http_post(url, param, 2, &status);
            replied = !reply.empty();
        } else {
            const std::string body = multipart_body(name, payload, ctx);
            param.body = body.c_str();
            param.body_len = static_cast<int>(body.size());
            param.header = kMultipartHeader;
            replied = http_client(url, reply, &param);
            status = http_status_of(reply);
        }
        if (!replied) {
            LOGE << "file http_client ret: " << 0 << LEND;
            return RES_NO_REPLY;
        }
        if (reply.size() <= 2) return RES_SVR_REJECT;
        if (upload_accepted(reply, status)) return RES_OK;
        LOGE << "http response: " << reply << LEND;
        return RES_SVR_REJECT;
    } catch (...) {
        LOGE << "Exception, send_file" << LEND;
        return -1;
    }
}

std::string send_msg_res(const std::string& data, const char* url, const std::string& field,
                         const UploadContext& ctx) {
    try {
        std::string reply;
        long status = 0;
        switch (post_form(data, url, field, ctx, reply, status)) {
            case PostResult::kEncodeFailed:
                return "";
            case PostResult::kNoReply:
                LOGE << "http_client" << LEND;
                return "";
            case PostResult::kReplied:
                break;
        }
        return upload_reply_data(reply, status);
    } catch (...) {
        LOGE << "Exception, send_msg_res" << LEND;
        return "";
    }
}

}  // namespace Velto

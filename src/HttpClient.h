// Transport: one HTTP request over libcurl (every "https://" URL) or the library's own raw-socket
// client (plain "http://"), and the upload requests built on them (send_msg, send_file,
// send_msg_res) with the payload envelope and the reply judging. Called from the background thread;
// no shared state: what a request needs from the settings and the base information comes in with
// it (RequestParam, UploadContext), so the transport depends on the log and the platform only.
// The raw-socket client is in HttpRaw.cpp, the libcurl client in HttpCurl.cpp, the uploads in
// HttpUpload.cpp.
#ifndef VELTO_HTTPCLIENT_H
#define VELTO_HTTPCLIENT_H

#include <cstddef>
#include <string>

namespace Velto {

// What an upload needs from its caller: the transfer's time-out (CON_TIMEOUT), whether the payload
// is deflated first (ZIP_DATA), the identity fields of a file upload's form, and the consent check.
struct UploadContext {
    unsigned int timeout_ms = 0;
    bool zip = false;
    std::string tid;
    std::string procname;
    std::string did;
    bool (*declined)() = nullptr;  // while it answers true, no request leaves
};

// Request descriptor handed to the HTTP functions.
struct RequestParam {
    bool post = true;
    const char* body = nullptr;
    int body_len = 0;
    int unused_int = 0;                   // kept for layout; never read
    void* unused_ptr = nullptr;           // kept for layout; never read
    const char* header = nullptr;         // a whole "Content-Type:...\r\n" line, or null
    bool block = false;                   // true: blocking socket and plain connect
    unsigned int timeout_ms = 0;          // from CON_TIMEOUT
    const char* upname = nullptr;         // name of the multipart "sdk_log" field and file part
    bool (*declined)() = nullptr;         // while it answers true, no request leaves
    const UploadContext* form = nullptr;  // the multipart upload's "proc_name", "tid", "client_sign"
};

// Raw-socket HTTP/1.1 request to an "http://" URL; true when the request went out and the reply was
// read until the server closed. reply holds everything received (status line, headers, body).
bool http_client(const char* url, std::string& reply, RequestParam* param);
// The status code of a raw reply's status line ("HTTP/1.1 200 OK" gives 200); 0 when it has none.
long http_status_of(const std::string& reply);
// Splits an "http://" URL into host, port and path. False (and a log line) for any other scheme.
bool parse_http_url(const std::string& url, std::string& host, int& port, std::string& path);

// libcurl POST. mode 1: URL-encoded body; 2: multipart file upload; 3: form "reqformat"="plain".
// Returns the reply with its headers, "" on failure.
// http_status, when given, receives the final response's status code (0 without a response).
std::string curl_http_post(const std::string& url, RequestParam& param, int mode,
                           long* http_status = nullptr);
std::string curl_http_get(const std::string& url, RequestParam& param);
// libcurl write callback: appends at most size * count bytes (up to a zero byte) to *reply.
size_t curl_recv_data(void* ptr, size_t size, size_t count, void* reply);
// libcurl debug callback (not installed by default): prints each chunk after a tag.
int curl_debug(void* handle, int type, char* text, size_t size, void* user);

// ip = host; a host that is not a dotted address is resolved to its first IPv4 address.
bool GetRealIP(const std::string& host, std::string& ip);
std::string UrlEncode(const std::string& text);
std::string UrlDecode(const std::string& text);
unsigned char ToHex(unsigned char x);
unsigned char FromHex(unsigned char c);

// The judging of an upload's reply (status = its HTTP status code, 0 when it has none): accepted when
// the status is 2xx and the body's "status" member is 0.
bool upload_accepted(const std::string& reply, long status);
// send_msg_res's answer: the reply's raw "data" member, "" unless the reply is 2xx and longer than 2.
std::string upload_reply_data(const std::string& reply, long status);

// Uploads one payload as the form field `field`. 0 success; -1 nothing to send; 204 a reply that is
// not 2xx or has no "status" 0; 205 no reply.
int send_msg(const std::string& data, const char* url, const std::string& field, const UploadContext& ctx);
// Uploads a file as a multipart form under the upload name `name`. 0, -1, 204 or 205. The form
// carries ctx's identity fields as they are: a caller that needs them complete waits for them.
int send_file(const std::string& data, const char* url, const std::string& name, const UploadContext& ctx);
// As send_msg, returning the reply's raw "data" member ("" on any failure).
std::string send_msg_res(const std::string& data, const char* url, const std::string& field,
                         const UploadContext& ctx);

}  // namespace Velto

#endif

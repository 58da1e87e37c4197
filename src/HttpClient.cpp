// Transport: one HTTP request over libcurl (every "https://" URL) or the library's own raw-socket
// client (plain "http://"), and the uploads built on them: send_msg, send_msg_res (one URL-encoded
// form field) and send_file (a multipart file upload). Runs on the background thread (uploads, the
// configuration fetch); every call owns its socket or libcurl handle, so nothing is shared.
//
// Neither client interprets the HTTP status line or headers: the reply text is searched for its JSON
// members. The wire format of the uploads (envelope, form field, multipart layout with its doubled
// CRLFs) is what the collection server parses, so it is kept byte for byte.

// The multipart upload is built with libcurl's form API (curl_formadd), which the server side has
// always seen; keep it without the deprecation warnings.
#define CURL_DISABLE_DEPRECATION 1

#include "HttpClient.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "Common.h"
#include "Log.h"
#include "OsApi.h"
#include "Result.h"
#include "Thread.h"
#include "Util.h"
#include "Zip.h"

namespace Velto {

namespace {

// OpenSSL frees its global state from an atexit handler by default. A host that leaves main while
// the background thread is inside a TLS transfer would have that state freed under the thread and
// crash at exit. Asked before OpenSSL is set up (at load time), it leaves its state to the end of
// the process instead.
const bool g_openssl_kept_at_exit = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

const char kMultipartHeader[] = "Content-Type:multipart/form-data;boundary=70db372eb000e2ax\r\n";
const char kFormHeader[] = "Content-Type:application/x-www-form-urlencoded\r\n";
const char kPartOpen[] = "\r\n--70db372eb000e2ax\r\nContent-Disposition: form-data; name=\"";
const char kPartsClose[] = "\r\n--70db372eb000e2ax--\r\n";

// Replies are small JSON objects; a server that keeps streaming must not grow the reply without end.
const size_t kMaxReply = 8u << 20;
// Upload bodies are bounded by the configured size limits long before this; beyond it the scratch
// sizes below would overflow an int.
const size_t kMaxPayload = 256u << 20;

const size_t kRecvChunk = 2048;
// No transfer may hold the background thread for ever, whatever CON_TIMEOUT says.
const long long kMinTransferMs = 1000;
const long kMaxRedirects = 3;

long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

long long phase_limit_ms(unsigned int timeout_ms) {
    return std::max(kMinTransferMs, static_cast<long long>(timeout_ms));
}

// A phase (connecting, sending, a pause in the reply) may be quiet for CON_TIMEOUT, at least a second.
bool timed_out(long long since, unsigned int timeout_ms) {
    return now_ms() - since >= phase_limit_ms(timeout_ms);
}

// The hard bound of one whole transfer (connect, send and receive together): twice the configured
// time-out, as libcurl's whole-transfer time-out has always been, and never less than a second.
class Deadline {
  public:
    explicit Deadline(unsigned int timeout_ms)
        : end_(std::chrono::steady_clock::now() +
               std::chrono::milliseconds(std::max(kMinTransferMs, 2LL * timeout_ms))) {}
    bool passed() const { return std::chrono::steady_clock::now() >= end_; }
    long long left_ms() const {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
        return std::max(0LL, static_cast<long long>(left.count()));
    }

  private:
    std::chrono::steady_clock::time_point end_;
};

// How long the next wait of a phase that began at since may last: until the phase's quiet time or
// the transfer's deadline, whichever comes first.
int wait_budget_ms(long long since, unsigned int timeout_ms, const Deadline& deadline) {
    const long long phase_left = since + phase_limit_ms(timeout_ms) - now_ms();
    return static_cast<int>(std::max(0LL, std::min(phase_left, deadline.left_ms())));
}

class Socket {
  public:
    Socket() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

struct CurlDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct FormDeleter {
    void operator()(curl_httppost* f) const { curl_formfree(f); }
};
typedef std::unique_ptr<CURL, CurlDeleter> CurlPtr;
typedef std::unique_ptr<curl_httppost, FormDeleter> FormPtr;

// ---- raw-socket client ----

bool set_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL, 0);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Waits for the connection in short steps; readiness counts as connected (a refused connection
// shows up at the first send). poll rather than select: a host with many open files may hand us a
// descriptor beyond FD_SETSIZE, which select cannot take.
bool connect_nonblocking(int fd, const sockaddr_in& addr, unsigned int timeout_ms, const Deadline& deadline) {
    int ret = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    if (ret != 0 && errno != EINPROGRESS) {
        LOGE << "unblock connect server failed: " << errno_text(errno) << ", errno: " << ret << LEND;
        return false;
    }
    const long long start = now_ms();
    for (;;) {
        const int ready = wait_ready(fd, POLLIN | POLLOUT, wait_budget_ms(start, timeout_ms, deadline));
        if (ready < 0) {
            LOGE << "(select) connect server failed!" << LEND;
            return false;
        }
        if (ready > 0) return true;
        if (timed_out(start, timeout_ms) || deadline.passed()) break;
    }
    LOGE << "(select) connect server timeout!" << LEND;
    return false;
}

bool connect_blocking(int fd, const sockaddr_in& addr) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return true;
    LOGE << "block connect server failed!" << LEND;
    return false;
}

// The request head. When the body text runs past body_len, the whole text goes into the head and
// send_body is cleared (older callers relied on it); otherwise body_len bytes follow separately.
// REQUIRES: a body of that kind is zero-terminated; any other body has body_len + 1 readable bytes.
std::string build_head(const std::string& host, const std::string& path, const RequestParam* param,
                       bool& send_body) {
    send_body = false;
    std::string head;
    head.reserve(384);
    head += (param && param->post) ? "POST " : "GET ";
    head += path;
    head += " HTTP/1.1\r\nhost:";
    head += host;
    head += "\r\nUser-Agent:Mozilla/5.0 (compatible; MSIE 9.0; Windows NT 6.1; Trident/5.0)\r\n";
    if (param && param->header && starts_with(param->header, "Content-Type:"))
        head += param->header;
    else
        head += kFormHeader;
    head += "Accept:text/html,application/xhtml+xml,*/*\r\nConnection:close\r\n";
    if (param == nullptr) return head + "\r\n";
    char length[48];
    snprintf(length, sizeof length, "Content-Length:%d\r\n\r\n", param->body_len);
    head += length;
    if (param->body) {
        size_t len = param->body_len > 0 ? static_cast<size_t>(param->body_len) : 0;
        if (strnlen(param->body, len + 1) > len)
            head += param->body;
        else
            send_body = len > 0;
    }
    return head;
}

struct SendTexts {
    const char* timeout;
    const char* failed_errno;
    const char* failed;
};
const SendTexts kHeadTexts = {"send head timeout! error: EWOULDBLOCK",
                              "send head failed! error: ", "send head failed!"};
const SendTexts kDataTexts = {"send data timeout! error: 10035",
                              "send data failed! error: ", "send data failed!"};

bool send_all(int fd, const char* data, size_t len, unsigned int timeout_ms, const Deadline& deadline,
              const SendTexts& texts) {
    size_t sent = 0;
    long long last = now_ms();
    while (sent < len) {
        ssize_t n = send(fd, data + sent, len - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            last = now_ms();
            continue;
        }
        if (n == 0) {
            LOGE << texts.failed << LEND;
            return false;
        }
        int err = errno;
        if (err == EINTR) continue;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            LOGE << texts.failed_errno << errno_text(err) << LEND;
            return false;
        }
        if (timed_out(last, timeout_ms) || deadline.passed()) {
            LOGE << texts.timeout << LEND;
            return false;
        }
        wait_ready(fd, POLLOUT, wait_budget_ms(last, timeout_ms, deadline));
    }
    return true;
}

// Reads until the server closes. Each chunk is taken as text (a zero byte cuts that chunk). A chunk
// restarts the quiet-time timer, but not the deadline: a server that drips bytes is cut off too.
bool recv_all(int fd, std::string& reply, const RequestParam* param, const Deadline& deadline) {
    reply.clear();
    char buf[kRecvChunk + 1];
    long long last = now_ms();
    for (;;) {
        ssize_t n = recv(fd, buf, kRecvChunk, 0);
        if (n > 0) {
            buf[n] = 0;
            reply += buf;
            if (reply.size() > kMaxReply) {
                LOGE << "recv failed! reply larger than " << kMaxReply << LEND;
                return false;
            }
            last = now_ms();
            if (deadline.passed()) {
                LOGE << "recv timeout! error: " << errno_text(ETIMEDOUT) << LEND;
                return false;
            }
            continue;
        }
        if (n == 0) return true;
        int err = errno;
        if (err == EINTR) continue;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            // The text is fixed whatever the error; the server side reads these lines as they are.
            LOGE << "recv failed! error: EWOULDBLOCK" << LEND;
            return false;
        }
        if ((param && timed_out(last, param->timeout_ms)) || deadline.passed()) {
            LOGE << "recv timeout! error: " << errno_text(err) << LEND;
            return false;
        }
        wait_ready(
            fd, POLLIN,
            param ? wait_budget_ms(last, param->timeout_ms, deadline) : static_cast<int>(deadline.left_ms()));
    }
}

// Connects, sends the head (and the body), and reads the reply until the server closes.
bool exchange(int fd, const std::string& host, int port, const std::string& path, const RequestParam* param,
              std::string& reply) {
    std::string ip;
    GetRealIP(host, ip);
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(ip.c_str());
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const unsigned int timeout_ms = param ? param->timeout_ms : 0;
    const Deadline deadline(timeout_ms);
    const bool connected = (param && param->block) ? connect_blocking(fd, addr)
                                                   : connect_nonblocking(fd, addr, timeout_ms, deadline);
    if (!connected) return false;
    bool send_body = false;
    const std::string head = build_head(host, path, param, send_body);
    if (!send_all(fd, head.data(), head.size(), timeout_ms, deadline, kHeadTexts)) return false;
    if (send_body &&
        !send_all(fd, param->body, static_cast<size_t>(param->body_len), timeout_ms, deadline, kDataTexts))
        return false;
    return recv_all(fd, reply, param, deadline);
}

// ---- libcurl client ----

// Whether the server's certificate is checked is chosen when the library is built (CMake option
// VELTO_TLS_VERIFY). Off, any certificate is taken, so collectors with self-signed certificates work
// without set-up. On, the certificate must be valid for the host and chain to a trusted authority:
// the CA bundle named by the environment variable VELTO_CA_BUNDLE, else the bundle chosen at build
// time, else libcurl's default store. A named bundle is the only trust: the default directory of
// certificates is not consulted next to it. A certificate that does not verify fails the transfer.
#ifndef VELTO_TLS_VERIFY
#define VELTO_TLS_VERIFY 0
#endif
#ifndef VELTO_CA_BUNDLE
#define VELTO_CA_BUNDLE ""
#endif

void set_common_options(CURL* curl, const std::string& url, const RequestParam& param, std::string* reply) {
    if (url.compare(0, 8, "https://") == 0) {
        const bool verify = VELTO_TLS_VERIFY;
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);
        const char* bundle = verify ? getenv("VELTO_CA_BUNDLE") : nullptr;
        if (verify && (bundle == nullptr || *bundle == '\0')) bundle = VELTO_CA_BUNDLE;
        if (bundle != nullptr && *bundle != '\0') {
            curl_easy_setopt(curl, CURLOPT_CAINFO, bundle);
            curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
        }
    }
    curl_easy_setopt(curl, CURLOPT_HEADER, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    // A few redirects, and only to the web: a server (or anyone on the path) must not send the
    // library round in circles or to another protocol's port.
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &curl_recv_data);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, reply);
    curl_easy_setopt(curl, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    // The same bounds as the socket client's, never below a second (0 would mean "no limit").
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::max(kMinTransferMs, static_cast<long long>(param.timeout_ms))));
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(std::max(kMinTransferMs, 2LL * param.timeout_ms)));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
}

struct MultiDeleter {
    void operator()(CURLM* m) const { curl_multi_cleanup(m); }
};
typedef std::unique_ptr<CURLM, MultiDeleter> MultiPtr;

// Waits for libcurl's sockets, its own timers or the doorbell, at most until the deadline.
void poll_transfer(CURLM* multi, const Deadline& deadline) {
    PumpWait wait;
    curl_waitfd bell = {wait.fd(), CURL_WAIT_POLLIN, 0};
    curl_multi_poll(multi, wait.fd() >= 0 ? &bell : nullptr, wait.fd() >= 0 ? 1 : 0,
                    wait.cap(deadline.left_ms()), nullptr);
}

// curl_easy_perform, driven step by step so that records queued meanwhile reach the file between
// the steps and no transfer outlives its deadline, whatever libcurl's own time-outs do.
CURLcode perform_bounded(CURL* easy, unsigned int timeout_ms) {
    const Deadline deadline(timeout_ms);
    MultiPtr multi(curl_multi_init());
    if (!multi || curl_multi_add_handle(multi.get(), easy) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
    CURLcode result = CURLE_OPERATION_TIMEDOUT;
    for (;;) {
        int running = 0;
        if (curl_multi_perform(multi.get(), &running) != CURLM_OK) {
            result = CURLE_FAILED_INIT;
            break;
        }
        if (running == 0) {
            int left = 0;
            while (CURLMsg* msg = curl_multi_info_read(multi.get(), &left)) {
                if (msg->msg == CURLMSG_DONE) result = msg->data.result;
            }
            break;
        }
        if (deadline.passed()) break;
        poll_transfer(multi.get(), deadline);
    }
    curl_multi_remove_handle(multi.get(), easy);
    return result;
}

void add_text_field(curl_httppost** first, curl_httppost** last, const char* name, const std::string& value) {
    curl_formadd(first, last, CURLFORM_COPYNAME, name, CURLFORM_COPYCONTENTS, value.c_str(), CURLFORM_END);
}

FormPtr upload_form(const RequestParam& param) {
    curl_httppost* first = nullptr;
    curl_httppost* last = nullptr;
    const char* name = param.upname ? param.upname : "";
    const UploadContext none;
    const UploadContext& form = param.form ? *param.form : none;
    add_text_field(&first, &last, "sdk_log", name);
    add_text_field(&first, &last, "proc_name", form.procname);
    add_text_field(&first, &last, "tid", form.tid);
    add_text_field(&first, &last, "client_sign", form.did);
    curl_formadd(&first, &last, CURLFORM_COPYNAME, "file", CURLFORM_BUFFER, name, CURLFORM_BUFFERPTR,
                 param.body ? param.body : "", CURLFORM_BUFFERLENGTH,
                 static_cast<long>(param.body_len > 0 ? param.body_len : 0), CURLFORM_CONTENTTYPE,
                 "application/octet-stream", CURLFORM_END);
    return FormPtr(first);
}

FormPtr plain_form() {
    curl_httppost* first = nullptr;
    curl_httppost* last = nullptr;
    add_text_field(&first, &last, "reqformat", "plain");
    return FormPtr(first);
}

// ---- uploads ----

// The scratch size the envelope has always used for an input of len bytes.
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

long http_status_of(const std::string& reply) {
    // "HTTP/1.1 200 OK": the three digits after the first blank of the status line.
    if (reply.compare(0, 5, "HTTP/") != 0) return 0;
    const size_t blank = reply.find(' ');
    if (blank == std::string::npos || blank > 16 || reply.size() < blank + 4) return 0;
    long code = 0;
    for (size_t i = blank + 1; i < blank + 4; ++i) {
        if (reply[i] < '0' || reply[i] > '9') return 0;
        code = code * 10 + (reply[i] - '0');
    }
    return code;
}

bool parse_http_url(const std::string& url, std::string& host, int& port, std::string& path) {
    static const size_t kScheme = 7;  // "http://"
    if (url.compare(0, kScheme, "http://") != 0) {
        LOGE << "err url head: " << url << LEND;
        return false;
    }
    // The search starts one byte into the host, so the host is never empty.
    const size_t colon = url.find(':', kScheme + 1);
    const size_t slash = url.find('/', kScheme + 1);
    port = 80;
    path = "/";
    if (colon == std::string::npos && slash == std::string::npos) {
        host = url.substr(kScheme);
    } else if (slash == std::string::npos) {
        host = url.substr(kScheme, colon - kScheme);
        port = atoi(url.c_str() + colon + 1);
    } else if (colon == std::string::npos || colon > slash) {
        host = url.substr(kScheme, slash - kScheme);
        path = url.substr(slash);
    } else {
        host = url.substr(kScheme, colon - kScheme);
        port = atoi(url.substr(colon + 1, slash - colon - 1).c_str());
        path = url.substr(slash);
    }
    return true;
}

bool http_client(const char* url, std::string& reply, RequestParam* param) {
    try {
        if (param && param->declined && param->declined())
            return false;  // no request for a user who declined
        if (url == nullptr) {
            LOGE << "null url" << LEND;
            return false;
        }
        Socket sock;
        if (sock.fd() < 0) {
            LOGE << "create socket" << LEND;
            return false;
        }
        if (param && !param->block) set_nonblocking(sock.fd());
        std::string host, path;
        int port = 0;
        if (!parse_http_url(url, host, port, path)) return false;
        return exchange(sock.fd(), host, port, path, param, reply);
    } catch (...) {
        LOGE << "Exception, http_client" << LEND;
        return false;
    }
}

std::string curl_http_post(const std::string& url, RequestParam& param, int mode, long* http_status) {
    std::string reply;
    if (http_status) *http_status = 0;
    try {
        if (param.declined && param.declined()) return reply;
        FormPtr form;  // declared first: freed after the handle that points into it
        CurlPtr curl(curl_easy_init());
        if (!curl) {
            LOGE << "curl init failed" << LEND;
            return reply;
        }
        set_common_options(curl.get(), url, param, &reply);
        if (mode == 1) {
            curl_easy_setopt(curl.get(), CURLOPT_POST, 1L);
            // Never a null body: libcurl would then read the body from standard input.
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, param.body ? param.body : "");
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE,
                             static_cast<long>(param.body_len > 0 ? param.body_len : 0));
        } else if (mode == 2 || mode == 3) {
            form = mode == 2 ? upload_form(param) : plain_form();
            curl_easy_setopt(curl.get(), CURLOPT_HTTPPOST, form.get());
        }
        CURLcode rc = perform_bounded(curl.get(), param.timeout_ms);
        if (rc != CURLE_OK) LOGE << "curl_easy_perform() failed: " << curl_easy_strerror(rc) << LEND;
        if (http_status) curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, http_status);
    } catch (...) {
        LOGE << "Exception, curl_http_post" << LEND;
    }
    return reply;
}

std::string curl_http_get(const std::string& url, RequestParam& param) {
    std::string reply;
    try {
        if (param.declined && param.declined()) return reply;
        CurlPtr curl(curl_easy_init());
        if (!curl) {
            LOGE << "curl init failed: " << LEND;
            return reply;
        }
        set_common_options(curl.get(), url, param, &reply);
        CURLcode rc = perform_bounded(curl.get(), param.timeout_ms);
        if (rc != CURLE_OK) LOGE << "curl_easy_perform failed: " << curl_easy_strerror(rc) << LEND;
    } catch (...) {
        LOGE << "Exception, curl_http_get" << LEND;
    }
    return reply;
}

// Called by libcurl: nothing may escape. Returning less than size * count stops the transfer, which
// is what happens to a reply that grows past kMaxReply.
size_t curl_recv_data(void* ptr, size_t size, size_t count, void* reply) {
    const size_t n = size * count;
    if (ptr == nullptr || reply == nullptr) return n;
    try {
        std::string* out = static_cast<std::string*>(reply);
        const size_t text_len = strnlen(static_cast<const char*>(ptr), n);
        if (out->size() + text_len > kMaxReply) return 0;
        out->append(static_cast<const char*>(ptr), text_len);
        return n;
    } catch (...) {
        return 0;
    }
}

int curl_debug(void* /*handle*/, int type, char* text, size_t size, void* /*user*/) {
    const char* tag = nullptr;
    switch (type) {
        case CURLINFO_TEXT:
            tag = "[TEXT]:";
            break;
        case CURLINFO_HEADER_IN:
            tag = "[HEADER_IN]:\r\n";
            break;
        case CURLINFO_HEADER_OUT:
            tag = "[HEADER_OUT]:\r\n";
            break;
        case CURLINFO_DATA_IN:
            tag = "[DATA_IN]:\r\n";
            break;
        case CURLINFO_DATA_OUT:
            tag = "[DATA_OUT]:\r\n";
            break;
        default:
            return 0;
    }
    fputs(tag, stdout);
    if (text && size > 0) fwrite(text, 1, size, stdout);
    return 0;
}

bool GetRealIP(const std::string& host, std::string& ip) {
    ip = host;
    if (inet_addr(host.c_str()) != INADDR_NONE) return true;
    // getaddrinfo instead of gethostbyname: same first IPv4 address, without the shared result.
    addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return false;
    char text[INET_ADDRSTRLEN] = {0};
    const sockaddr_in* addr = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    const bool ok = inet_ntop(AF_INET, &addr->sin_addr, text, sizeof text) != nullptr;
    freeaddrinfo(found);
    if (ok) ip = text;
    return ok;
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
    // Letters past F give values above 15, as they always did. Any other character once failed an
    // assertion; it now counts as 0 rather than aborting the host.
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
                // The number has always been printed as 0, whatever the transport returned.
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

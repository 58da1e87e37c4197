// The transport's libcurl client, for every "https://" URL (and plain ones a test hands it): one
// POST (URL-encoded body, multipart file upload or the plain form) or GET, driven step by step so
// that queued records reach the file meanwhile and no transfer outlives its deadline, with the TLS
// checking chosen at build time. Background thread; every call owns its handle.

// The multipart upload is built with libcurl's form API (curl_formadd), the layout the collection
// server parses; it is kept without the deprecation warnings.
#define CURL_DISABLE_DEPRECATION 1

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "HttpClient.h"
#include "HttpLimits.h"
#include "Log.h"
#include "Thread.h"

namespace Velto {

using namespace http;

namespace {

// OpenSSL frees its global state from an atexit handler by default. A host that leaves main while
// the background thread is inside a TLS transfer would have that state freed under the thread and
// crash at exit. Asked before OpenSSL is set up (at load time), it leaves its state to the end of
// the process instead.
const bool g_openssl_kept_at_exit = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

const long kMaxRedirects = 3;

struct CurlDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct FormDeleter {
    void operator()(curl_httppost* f) const { curl_formfree(f); }
};
typedef std::unique_ptr<CURL, CurlDeleter> CurlPtr;
typedef std::unique_ptr<curl_httppost, FormDeleter> FormPtr;

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
}  // namespace

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

}  // namespace Velto

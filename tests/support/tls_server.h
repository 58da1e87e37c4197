// A loopback HTTPS collector for the tests: cpp-httplib's SSL server on
// 127.0.0.1 (ephemeral port) with a self-signed certificate made at start-up. It answers
// "/v1/data", "/v1/file" and "/v1/conf" with a configurable reply and records every request
// (method, path, headers, body, multipart parts in order). Requests are served on httplib's worker
// threads; every accessor is thread-safe. stop() (and the destructor) waits for handlers in flight.
#ifndef VELTO_TESTS_TLS_SERVER_H
#define VELTO_TESTS_TLS_SERVER_H

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "payload.h"
#include "self_signed_cert.h"

namespace vcollect {

struct TlsRequest {
    std::string method;
    std::string path;
    std::multimap<std::string, std::string> headers;  // names as sent
    std::string body;                                 // empty for a multipart request
    std::vector<FormPart> parts;                      // multipart requests only, in the order sent

    std::string header(const std::string& name) const;  // case-insensitive; "" when absent
};

class TlsServer {
  public:
    TlsServer();
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    bool ok() const { return port_ > 0; }  // certificate made and listening
    int port() const { return port_; }
    std::string url(const std::string& path = "") const { return "https://" + host_port() + path; }
    // The host:port form the configuration endpoint setting takes.
    std::string host_port() const { return "127.0.0.1:" + std::to_string(port_); }
    // The PEM file of the server's self-signed certificate, for clients that verify it.
    std::string cert_path() const { return cert_path_; }

    void set_reply(const std::string& body);                           // every path
    void set_reply(const std::string& path, const std::string& body);  // one path
    void set_delay_ms(int ms);                                         // before each answer
    // Answers path with "302 Found" and this Location instead of the reply ("" ends it).
    void set_redirect(const std::string& path, const std::string& location);

    std::vector<TlsRequest> requests() const;
    bool wait_for_requests(size_t n, int timeout_ms) const;

    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int port_ = -1;
    std::string cert_path_;
};

}  // namespace vcollect

#endif

// A self-signed certificate for a loopback HTTPS server: velto-collector's default for development
// (--cert-dir) and the tests' HTTPS collector. Stateless; safe on any thread.
#ifndef VELTO_WIRE_SELF_SIGNED_CERT_H
#define VELTO_WIRE_SELF_SIGNED_CERT_H

#include <string>

namespace vcollect {

// Writes a fresh self-signed certificate for 127.0.0.1 (EC P-256, SHA-256) and its key as PEM files.
bool make_self_signed_cert(const std::string& cert_path, const std::string& key_path);

}  // namespace vcollect

#endif

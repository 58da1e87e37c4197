// The self-signed certificate of a loopback HTTPS server: an EC P-256 key and a certificate for
// 127.0.0.1 and localhost, written as PEM files (the key readable by its owner only).
#include "self_signed_cert.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace vcollect {

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
    void operator()(X509* x) const { X509_free(x); }
};
struct FileClose {
    void operator()(FILE* f) const { fclose(f); }
};

EVP_PKEY* make_p256_key() {
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
    EVP_PKEY* key = nullptr;
    if (ctx && EVP_PKEY_keygen_init(ctx) > 0 &&
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx, NID_X9_62_prime256v1) > 0)
        EVP_PKEY_keygen(ctx, &key);
    EVP_PKEY_CTX_free(ctx);
    return key;
}

bool add_alt_names(X509* cert) {
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext =
        X509V3_EXT_conf_nid(nullptr, &v3, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    if (!ext) return false;
    const bool ok = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

X509* make_cert(EVP_PKEY* key) {
    std::unique_ptr<X509, CertFree> cert(X509_new());
    if (!cert) return nullptr;
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(time(nullptr) & 0x7FFFFFFF));
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"),
                               -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    if (!add_alt_names(cert.get()) || X509_sign(cert.get(), key, EVP_sha256()) <= 0) return nullptr;
    return cert.release();
}

FILE* open_private(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, "w");
    if (!f) close(fd);
    return f;
}

}  // namespace

bool make_self_signed_cert(const std::string& cert_path, const std::string& key_path) {
    std::unique_ptr<EVP_PKEY, KeyFree> key(make_p256_key());
    if (!key) return false;
    std::unique_ptr<X509, CertFree> cert(make_cert(key.get()));
    if (!cert) return false;
    std::unique_ptr<FILE, FileClose> key_file(open_private(key_path));
    if (!key_file ||
        PEM_write_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return false;
    std::unique_ptr<FILE, FileClose> cert_file(fopen(cert_path.c_str(), "w"));
    return cert_file && PEM_write_X509(cert_file.get(), cert.get()) == 1;
}

}  // namespace vcollect

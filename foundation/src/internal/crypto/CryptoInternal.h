#pragma once

// Native handles behind the foundation's certificate and key objects, for the foundation's own
// XML-signature and TLS code. Never included from a public header.

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include <basalt/Crypto.h>

namespace Basalt {
namespace Crypto {

struct X509Deleter {
    void operator()(X509* p) const { X509_free(p); }
};
struct EvpPkeyDeleter {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
using X509Ptr = std::unique_ptr<X509, X509Deleter>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyDeleter>;

// The X509 of a certificate made by this library (owned by the certificate).
X509* NativeCertificate(const Certificate& certificate);
// The EVP_PKEY of a private key made by this library (owned by the key).
EVP_PKEY* NativePrivateKey(const PrivateKey& key);
// Wraps a native certificate, taking ownership.
void WrapCertificate(X509Ptr x509, Ref<Certificate>& certificate);
// The text of OpenSSL's error queue (emptying it), or fallback when it is empty.
std::string TakeOpenSslErrors(const char* fallback);
// EVP_MD of a digest algorithm.
const EVP_MD* DigestMethod(DigestAlgorithm algorithm);

}  // namespace Crypto
}  // namespace Basalt

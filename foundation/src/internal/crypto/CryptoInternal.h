#pragma once

// Native handles behind the foundation's certificate and key objects, for the foundation's own
// XML-signature and TLS code. Never included from a public header.

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <string>
#include <string_view>

#include <basalt/Crypto.h>
#include "internal/system/UniquePtr.h"

namespace Basalt {

BASALT_DELETER(BIO, BIO_free);
BASALT_DELETER(BIGNUM, BN_free);
BASALT_DELETER(EVP_MD, EVP_MD_free);
BASALT_DELETER(EVP_MD_CTX, EVP_MD_CTX_free);
BASALT_DELETER(EVP_PKEY, EVP_PKEY_free);
BASALT_DELETER(EVP_PKEY_CTX, EVP_PKEY_CTX_free);
BASALT_DELETER(X509, X509_free);
BASALT_DELETER(X509_STORE, X509_STORE_free);
// Output OpenSSL allocated for the caller (i2d_* encodings, BN_bn2dec text).
BASALT_TAGGED_DELETER(OpenSslBytes, unsigned char*, OPENSSL_free);
BASALT_TAGGED_DELETER(OpenSslChars, char*, OPENSSL_free);

namespace Crypto {

// The X509 of a certificate made by this library (owned by the certificate).
X509* NativeCertificate(const Certificate& certificate);
// The EVP_PKEY of a private key made by this library (owned by the key).
EVP_PKEY* NativePrivateKey(const PrivateKey& key);
// Wraps a native certificate, taking ownership.
void WrapCertificate(UniquePtr<X509> x509, Ref<Certificate>& certificate);
// A read-only memory BIO over data (which must outlive it).
UniquePtr<BIO> MemoryBio(std::string_view data);
// The text of OpenSSL's error queue (emptying it), or fallback when it is empty.
std::string TakeOpenSslErrors(const char* fallback);
// EVP_MD of a digest algorithm.
const EVP_MD* DigestMethod(DigestAlgorithm algorithm);

}  // namespace Crypto
}  // namespace Basalt

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <climits>

#include "internal/jwt/JwtInternal.h"

namespace Basalt {
namespace Jwt {

namespace {

enum class Padding { None, Pkcs1, Pss };

// The allow-list. Anything not named here ("none", HS256, ...) never verifies.
struct Algorithm {
    const char* name;
    KeyKind kind;
    const EVP_MD* (*digest)();
    Padding padding;
    size_t coordinateBytes;  // ES: the size of r and of s in the raw signature
};

const Algorithm kAlgorithms[] = {
    {"RS256", KeyKind::Rsa, EVP_sha256, Padding::Pkcs1, 0},
    {"RS384", KeyKind::Rsa, EVP_sha384, Padding::Pkcs1, 0},
    {"RS512", KeyKind::Rsa, EVP_sha512, Padding::Pkcs1, 0},
    {"PS256", KeyKind::Rsa, EVP_sha256, Padding::Pss, 0},
    {"PS384", KeyKind::Rsa, EVP_sha384, Padding::Pss, 0},
    {"PS512", KeyKind::Rsa, EVP_sha512, Padding::Pss, 0},
    {"ES256", KeyKind::EcP256, EVP_sha256, Padding::None, 32},
    {"ES384", KeyKind::EcP384, EVP_sha384, Padding::None, 48},
    {"ES512", KeyKind::EcP521, EVP_sha512, Padding::None, 66},
    {"EdDSA", KeyKind::Ed25519, nullptr, Padding::None, 0},
};

const Algorithm* FindAlgorithm(const std::string& name) {
    for (const auto& algorithm : kAlgorithms) {
        if (name == algorithm.name) {
            return &algorithm;
        }
    }
    return nullptr;
}

// JOSE carries ECDSA signatures as r||s, each exactly the curve's size; OpenSSL wants DER.
bool RawToDer(const std::string& raw, size_t coordinateBytes, std::string& der) {
    if (raw.size() != 2 * coordinateBytes) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(raw.data());
    const int size = static_cast<int>(coordinateBytes);
    UniquePtr<BIGNUM> r(BN_bin2bn(bytes, size, nullptr));
    UniquePtr<BIGNUM> s(BN_bin2bn(bytes + coordinateBytes, size, nullptr));
    UniquePtr<ECDSA_SIG> signature(ECDSA_SIG_new());
    if (!r || !s || !signature || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1) {
        return false;
    }
    r.release();  // now owned by the signature
    s.release();
    unsigned char* out = nullptr;
    const int length = i2d_ECDSA_SIG(signature.get(), &out);
    const UniquePtr<OpenSslBytes> owned(out);
    if (length <= 0) {
        return false;
    }
    der.assign(reinterpret_cast<const char*>(out), static_cast<size_t>(length));
    return true;
}

bool Verify(const Algorithm& algorithm, EVP_PKEY* key, std::string_view input,
            const std::string& signature) {
    UniquePtr<EVP_MD_CTX> context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* keyContext = nullptr;
    const EVP_MD* digest = algorithm.digest ? algorithm.digest() : nullptr;
    if (!context || EVP_DigestVerifyInit(context.get(), &keyContext, digest, nullptr, key) != 1) {
        return false;
    }
    if (algorithm.padding == Padding::Pss &&
        (EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) != 1 ||
         EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) != 1)) {
        return false;
    }
    return EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                            signature.size(), reinterpret_cast<const unsigned char*>(input.data()),
                            input.size()) == 1;
}

}  // namespace

bool VerifyJws(const std::string& alg, const ParsedKey& key, std::string_view input,
               const std::string& signature) {
    const Algorithm* algorithm = FindAlgorithm(alg);
    if (!algorithm || algorithm->kind != key.kind || !key.key || signature.size() > INT_MAX) {
        return false;
    }
    std::string der;
    if (algorithm->coordinateBytes != 0 && !RawToDer(signature, algorithm->coordinateBytes, der)) {
        return false;
    }
    const bool verified =
        Verify(*algorithm, key.key.get(), input, algorithm->coordinateBytes ? der : signature);
    ERR_clear_error();  // a refused signature leaves reasons that are nobody else's business
    return verified;
}

}  // namespace Jwt
}  // namespace Basalt

#pragma once

// The pieces behind Basalt::Jwt::Decoder: strict base64url and JSON decoding, the shared cache of
// parsed signing keys and signature verification over OpenSSL EVP.

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>
#include <string_view>

#include <basalt/Jwt.h>

namespace Basalt {
namespace Jwt {

// Owners of the OpenSSL handles used here, kept in one block.
struct EvpPkeyFree {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
    void operator()(X509* p) const { X509_free(p); }
};
struct BioFree {
    void operator()(BIO* p) const { BIO_free(p); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct EcdsaSigFree {
    void operator()(ECDSA_SIG* p) const { ECDSA_SIG_free(p); }
};
struct BignumFree {
    void operator()(BIGNUM* p) const { BN_free(p); }
};
struct OpenSslFree {
    void operator()(unsigned char* p) const { OPENSSL_free(p); }
};
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, EcdsaSigFree>;
using BignumPtr = std::unique_ptr<BIGNUM, BignumFree>;
using OpenSslBytes = std::unique_ptr<unsigned char, OpenSslFree>;

// Unpadded base64url into out; false on any other character, an impossible length or non-zero
// trailing bits.
bool Base64UrlDecode(std::string_view text, std::string& out);

// Parses text as one JSON object into out; false for anything else, for a member name repeated
// within an object, or for nesting deeper than Decoder::kMaxJsonDepth.
bool ParseJsonObject(std::string_view text, nlohmann::json& out);

// What a parsed key can verify.
enum class KeyKind { Unusable, Rsa, EcP256, EcP384, EcP521, Ed25519 };

struct ParsedKey {
    EvpPkeyPtr key;  // null when the text did not parse
    KeyKind kind = KeyKind::Unusable;
};

// The parsed form of a key text, from the process-wide cache; parsed on first use. Thread-safe.
std::shared_ptr<const ParsedKey> LookUpKey(std::string_view text);

// Verifies signature over input with the JWS algorithm alg and the key; false for an algorithm
// outside the allow-list or a key of another family.
bool VerifyJws(const std::string& alg, const ParsedKey& key, std::string_view input,
               const std::string& signature);

}  // namespace Jwt
}  // namespace Basalt

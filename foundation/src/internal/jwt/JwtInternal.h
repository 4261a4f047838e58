#pragma once

// The pieces behind Basalt::Jwt::Decoder: strict base64url and JSON decoding, the shared cache of
// parsed signing keys and signature verification over OpenSSL EVP.

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

#include <basalt/Jwt.h>

#include "internal/crypto/CryptoInternal.h"

namespace Basalt {

BASALT_DELETER(ECDSA_SIG, ECDSA_SIG_free);

namespace Jwt {

// Unpadded base64url into out; false on any other character, an impossible length or non-zero
// trailing bits.
bool Base64UrlDecode(std::string_view text, std::string& out);

// Parses text as one JSON object into out; false for anything else, for a member name repeated
// within an object, or for nesting deeper than Decoder::kMaxJsonDepth.
bool ParseJsonObject(std::string_view text, nlohmann::json& out);

// What a parsed key can verify.
enum class KeyKind { Unusable, Rsa, EcP256, EcP384, EcP521, Ed25519 };

struct ParsedKey {
    UniquePtr<EVP_PKEY> key;  // null when the text did not parse
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

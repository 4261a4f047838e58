#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <basalt/Export.h>

namespace Basalt {
namespace Jwt {

// Signing keys as configured: each a PEM public key ("BEGIN PUBLIC KEY") or a PEM certificate.
using SigningKeys = std::list<std::shared_ptr<const std::string>>;

// Decodes a compact JWS (three base64url segments: header, payload, signature) and answers
// questions about its claims. Decoding never throws: input that is not a well-formed token leaves
// the decoder without a token (IsDecoded() false), and every other operation then throws
// InvalidStateException. Refused as malformed:
//   - more than kMaxTokenBytes of text;
//   - any number of segments but three (a JWE has five);
//   - padding, white space or any character outside the base64url alphabet, a segment of
//     impossible length, non-zero trailing bits;
//   - a header or payload that is not a JSON object, JSON nested deeper than kMaxJsonDepth, a
//     member name repeated within one object at any level;
//   - a "crit" or "zip" header (no extension or compression is understood).
// A decoder is used by one thread at a time; it keeps its own copy of the token.
class BASALT_API Decoder {
  public:
    static constexpr size_t kMaxTokenBytes = 64 * 1024;
    // Objects and arrays, counting the header or payload object itself.
    static constexpr size_t kMaxJsonDepth = 16;

    explicit Decoder(const std::string& token);
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    // Whether the text was a well-formed token; test this before any other call.
    bool IsDecoded() const;

    // True when the signature verifies with one of keys. Only RS256/384/512, PS256/384/512,
    // ES256/384/512 (raw r||s of the curve's size) and EdDSA (Ed25519) are accepted; "none" and
    // every HMAC algorithm are refused whatever the key. A key counts only for its own family: RSA
    // for RS and PS, EC on the algorithm's curve for ES, Ed25519 for EdDSA. Key texts that do not
    // parse, and null entries, are skipped. Parsed keys are cached process-wide (see
    // GetKeyCacheStatistics), so the same text is parsed once.
    bool ValidateSignature(const SigningKeys& keys) const;

    // The first audience of the "aud" claim (a string or an array of strings) that is one of
    // audiences; empty when none is, or when the claim is absent or of another type.
    std::string GetAudience(const std::vector<std::string>& audiences) const;
    // The "jti", "iss" and "sub" claims; empty when absent or not a string.
    std::string GetId() const;
    std::string GetIssuer() const;
    std::string GetSubject() const;
    // The user name: the "preferred_username" claim; empty when absent or not a string.
    std::string GetUsername() const;
    // The "exp", "iat" and "nbf" claims in seconds since the epoch; a fraction is truncated toward
    // zero. 0 when absent, negative, not a number or beyond the int64 range.
    int64_t GetExpirationTime() const;
    int64_t GetIssuedAt() const;
    int64_t GetNotBefore() const;
    // Replaces groups with the "groups" claim. True when the claim is an array of strings or
    // absent (no groups); false, with groups empty, for any other value.
    bool GetGroups(std::vector<std::string>& groups) const;

  private:
    struct Decoded;
    BASALT_LOCAL static std::unique_ptr<Decoded> Decode(const std::string& token);
    BASALT_LOCAL const Decoded& Token() const;

    std::unique_ptr<Decoded> m_decoded;  // null when the text was not a well-formed token
};

// Bound of the process-wide cache of parsed signing keys (keyed by the SHA-256 of the key text);
// beyond it the least recently used key is dropped.
inline constexpr size_t kKeyCacheCapacity = 128;

// Diagnostics of the key cache.
struct KeyCacheStatistics {
    uint64_t parses = 0;  // key texts parsed (or found unparseable) since the process started
    size_t entries = 0;   // keys held now
};
BASALT_API KeyCacheStatistics GetKeyCacheStatistics();

}  // namespace Jwt
}  // namespace Basalt

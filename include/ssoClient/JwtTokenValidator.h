#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <basalt/Object.h>

#include <ssoClient/Export.h>
#include <ssoClient/TokenValidator.h>

namespace SsoClient {

// A validator of JWT bearer tokens (compact JWS) for a service that accepts the given audiences
// and trusts the given signing keys.
//
//   Basalt::Ref<SsoClient::TokenValidator> validator;
//   SsoClient::CreateJwtTokenValidator({"https://api.example.test"},
//                                      {std::make_shared<const std::string>(issuerCertPem)},
//                                      600, validator);
//   std::shared_ptr<const SsoClient::SamlToken> token = validator->Validate(bearer, "");
//   token->GetSubject()->name;   // "alice" for a "sub" of "alice@example.test"
//
// signingKeys: each a PEM public key or a PEM certificate; texts that do not parse, and null
// entries, are skipped (the process parses each distinct text once). Accepted algorithms: RS256,
// RS384, RS512, PS256, PS384, PS512, ES256, ES384, ES512 and EdDSA (Ed25519); "none" and the HMAC
// algorithms never verify. clockToleranceSec: the allowed skew between the issuer's clock and
// ours, in seconds. The validator keeps its own copies of audiences and keys; "now" is the
// system clock.
//
// Validate(token, second) checks, in this order, and throws InvalidTokenException with the
// message shown (InvalidSignatureException for the signature):
//   the text is a well-formed compact JWS      "Token decoding failed"
//   the signature verifies with a signing key  "Token signature validation failed"
//   "jti" is present                           "Missing token id"
//   "aud" names one of audiences               "Missing or incorrect audience"
//   "iss" is present                           "Missing issuer"
//   "exp" is present                           "Missing expiration time"
//   now <= exp + tolerance, and exp <= 2147483647 - tolerance
//                                              "Token has already expired"
//   "iat" is present                           "Missing 'issued at' time"
//   iat <= now + tolerance                     "Token 'issued at' time is in the future"
//   nbf, when present, <= now + tolerance      "Token 'not before' time is in the future"
//   "sub" is present                           "Mising subject"
//   "sub" is name@domain                       "Invalid subject"
//   "groups", when present, is a string array  "Incorrect groups format"
//   each group is name@domain                  "Incorrect group format"
// Times are whole seconds since the epoch; a fraction is dropped, and a value that is not a
// non-negative number counts as absent. The returned token (type JWT_Bearer) has: the subject and
// groups split at their last "@"; start time nbf, or iat without nbf; the matched audience; a
// person name from "preferred_username" split at its last space into given name and surname (both
// left empty when it has no inner space); GetXml() the token text; GetUnsupportedInfo() returns
// second; no delegation chain, advice, signature object or holder-of-key certificate, and the
// collection getters for those leave the caller's container as it was. It may outlive the
// validator.
SSOCLIENT_API void CreateJwtTokenValidator(
    const std::vector<std::string>& audiences,
    const std::list<std::shared_ptr<const std::string>>& signingKeys, int64_t clockToleranceSec,
    Basalt::Ref<TokenValidator>& validator);

}  // namespace SsoClient

#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include <boost/optional.hpp>

#include <basalt/DateTime.h>
#include <basalt/Object.h>

#include <ssoClient/Export.h>
#include <ssoClient/SamlToken.h>
#include <ssoClient/SamlTokenFactory.h>
#include <ssoClient/TokenValidator.h>

namespace SsoClient {

// What a relying party demands of a token beyond its well-formedness, validity window and
// signature: that it was issued for this service, by an issuer it trusts, confirmed the way it
// expects, and valid within a clock skew it chooses. The same policy applies to SAML tokens and
// JWTs. A resource server that accepts SAML tokens from one STS:
//
//   SsoClient::TokenPolicy policy;
//   policy.expectedAudiences = {"https://api.example.test"};
//   policy.acceptedIssuers = {"https://sts.example.test/sts"};
//   policy.maxClockToleranceSec = 60;
//   policy.confirmation = SsoClient::RequiredConfirmation::HolderOfKey;
//   auto factory = SsoClient::CreatePolicyTokenFactory(
//       SsoClient::CreateSamlTokenFactory(resolver), policy);
//   auto token = factory->CreateSamlToken(xml);   // or InvalidTokenException, e.g.
//   // "Token issuer 'https://evil' is not among the accepted issuers
//   'https://sts.example.test/sts'"
//
// Every rule left at its default accepts any token.

enum class RequiredConfirmation { Any, Bearer, HolderOfKey };

struct TokenPolicy {
    // The token must name at least one of these among its audiences; empty: any audience.
    std::set<std::string> expectedAudiences;
    // The token's issuer must be one of these, compared byte for byte; empty: any issuer.
    std::set<std::string> acceptedIssuers;
    // When set, "now" must lie within [start - tolerance, expiration + tolerance): a tighter skew
    // than the one the token was created with.
    boost::optional<int64_t> maxClockToleranceSec;
    // Holder-of-key: a SAML holder-of-key token; bearer: a SAML bearer token or a JWT.
    RequiredConfirmation confirmation = RequiredConfirmation::Any;
    // Where "now" comes from; null means the system clock.
    std::shared_ptr<const Basalt::System::Clock> clock;
};

// Returns when token satisfies policy; otherwise throws InvalidTokenException naming the claim,
// the token's value and the policy's, checking issuer, audience, confirmation and time in that
// order:
//   "Token issuer 'I' is not among the accepted issuers 'A', 'B'"
//   "Token audience 'X' is not among the expected audiences 'A', 'B'"
//   "Token confirmation type 'bearer' is not the required confirmation type 'holder-of-key'"
//   "Token start time 'T' is beyond the maximum clock tolerance of 60 s from the current time 'N'"
//   "Token expiration time 'T' is beyond the maximum clock tolerance of 60 s from the current
//    time 'N'"
// Times are printed as DateTime::ToString; a token with several audiences lists them all.
SSOCLIENT_API void CheckTokenPolicy(const SamlToken& token, const TokenPolicy& policy);

// A SamlTokenFactory that creates tokens with inner (all of its checks and exceptions first),
// then applies CheckTokenPolicy. Throws Basalt::InvalidArgumentException for a null inner.
SSOCLIENT_API std::shared_ptr<SamlTokenFactory> CreatePolicyTokenFactory(
    std::shared_ptr<SamlTokenFactory> inner, const TokenPolicy& policy);

// A TokenValidator (e.g. of JWTs) that validates with inner, then applies CheckTokenPolicy.
// Throws Basalt::InvalidArgumentException for a null inner.
SSOCLIENT_API void CreatePolicyTokenValidator(const Basalt::Ref<TokenValidator>& inner,
                                              const TokenPolicy& policy,
                                              Basalt::Ref<TokenValidator>& validator);

}  // namespace SsoClient

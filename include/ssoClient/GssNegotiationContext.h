#pragma once

// A GSS/SPNego negotiation with the token service driven one leg at a time: the caller's own GSS
// mechanism produces the legs, each step sends one and returns the service's answer, and the last
// step returns the issued token, its signature verified with the configured keyInfoResolver.
//
//   auto context = SsoClient::InternalApi::CreateGssNegotiationContext(config, spec);
//   std::vector<unsigned char> leg = mechanism.FirstLeg();
//   for (;;) {
//       SsoClient::InternalApi::GssLegResult result = context->Step(leg);
//       if (result.token) {
//           return result.token;
//       }
//       leg = mechanism.NextLeg(*result.serverLeg);
//   }

#include <memory>
#include <vector>

#include <basalt/Object.h>

#include <ssoClient/Export.h>
#include <ssoClient/SamlToken.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/Types.h>

namespace SsoClient {
namespace InternalApi {

// What the service answered to one leg.
struct GssLegResult {
    // The service's leg, decoded; empty when the reply carried none. Never null after a step.
    std::shared_ptr<std::vector<unsigned char>> serverLeg;
    // The issued token; null until the service issues it.
    std::shared_ptr<const SamlToken> token;
};

// One negotiation: all legs go over one HTTP session, so the service's cookies persist. Used by
// one caller at a time. Held through the shared_ptr of its factory (take no Basalt::Ref on it).
class SSOCLIENT_API GssNegotiationContext : public virtual Basalt::Object {
  public:
    // Sends leg (the first one as a new request with a fresh context, later ones in the
    // service's latest context; a reply without a context starts over) and returns the answer.
    // Throws what the exchange raises, unchanged: Basalt::InvalidArgumentException for a spec
    // the request checks refuse, CommunicationException when the exchange fails,
    // InvalidCredentialsException / PasswordExpiredException / SsoException for the service's
    // faults and unexpected replies, ParseException / InvalidSignatureException for an issued
    // token that does not validate. A failed step leaves the context id as it was.
    virtual GssLegResult Step(const std::vector<unsigned char>& leg) = 0;

  protected:
    ~GssNegotiationContext() override;
};

// A context for the service of config (url, sslContext, sslParameter, holderOfKey and
// keyInfoResolver are used; connections are not kept alive) asking for the token that spec
// describes. Throws Basalt::InvalidArgumentException for an https URL without an SSL context; URL
// parse errors pass through.
SSOCLIENT_API std::shared_ptr<GssNegotiationContext> CreateGssNegotiationContext(
    const SecurityTokenServiceConfig& config, const TokenSpec& spec);

}  // namespace InternalApi
}  // namespace SsoClient

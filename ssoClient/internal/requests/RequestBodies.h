#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <ssoClient/Types.h>

#include "internal/xml/XmlBuilders.h"

namespace SsoClient {

// Builders of the WS-Trust request bodies and their fragments. Nothing here checks the TokenSpec:
// the request builder does that before any body is made.

// wst:RequestSecurityToken asking for a SAML token (bearer or holder-of-key).
std::shared_ptr<XMLCompositeBuilder> BuildIssueRequest(bool holderOfKey, const TokenSpec& spec);
// The issue body, ending in wst:UseKey naming the proof signature when a holder-of-key token is
// asked for without a delegate.
std::shared_ptr<XMLCompositeBuilder> BuildIssueRequestWithUseKey(bool holderOfKey,
                                                                 const TokenSpec& spec);
std::shared_ptr<XMLCompositeBuilder> BuildRenewRequest(const SamlToken& token,
                                                       int64_t lifetimeSeconds);
std::shared_ptr<XMLCompositeBuilder> BuildValidateRequest(const SamlToken& token);
// wst:Lifetime from now to lifetimeSeconds later.
std::shared_ptr<XMLCompositeBuilder> BuildLifetime(int64_t lifetimeSeconds);
std::shared_ptr<XMLCompositeBuilder> BuildUsernameToken(const std::string& userName);
std::shared_ptr<XMLCompositeBuilder> BuildUsernamePasswordToken(const std::string& userName,
                                                                const std::string& password);
std::shared_ptr<XMLCompositeBuilder> BuildParticipants(const std::set<std::string>& audience);
std::shared_ptr<XMLCompositeBuilder> BuildParticipant(const std::string& address);
std::shared_ptr<XMLCompositeBuilder> BuildAdvice(const Advice& advice);
std::shared_ptr<XMLCompositeBuilder> BuildAdviceAttribute(const AdviceAttribute& attribute);
// wst:BinaryExchange carrying a GSS token in Base64.
XMLBuilderPtr BuildBinaryExchange(const std::vector<unsigned char>& data);

}  // namespace SsoClient

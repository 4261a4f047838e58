// A resource server accepting SAML tokens and JWTs: policy checks and validated-token caches.
#include <ssoClient/JwtTokenValidator.h>
#include <ssoClient/SamlTokenFactory.h>
#include <ssoClient/TokenPolicy.h>
#include <ssoClient/ValidatedTokenCache.h>

namespace Guide {

std::shared_ptr<SsoClient::SamlTokenFactory> SamlFactory(
    const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    // [snippet:policy_saml]
    SsoClient::TokenPolicy policy;
    policy.expectedAudiences = {"https://api.example.test"};
    policy.acceptedIssuers = {"https://sts.example.test/sts"};
    policy.maxClockToleranceSec = 60;
    policy.confirmation = SsoClient::RequiredConfirmation::HolderOfKey;
    // Checked innermost first: parse, signature, window, then the policy; then cached.
    auto factory = SsoClient::CreateCachingSamlTokenFactory(
        SsoClient::CreatePolicyTokenFactory(SsoClient::CreateSamlTokenFactory(resolver), policy));
    // [/snippet]
    return factory;
}

std::shared_ptr<const SsoClient::SamlToken> ValidateJwt(const std::string& issuerCertPem,
                                                        const std::string& bearer) {
    // [snippet:jwt]
    Basalt::Ref<SsoClient::TokenValidator> jwt;
    SsoClient::CreateJwtTokenValidator({"https://api.example.test"},
                                       {std::make_shared<const std::string>(issuerCertPem)}, 60,
                                       jwt);
    std::shared_ptr<const SsoClient::SamlToken> token = jwt->Validate(bearer, "");
    // token->GetTokenType() == SsoClient::JWT_Bearer; token->GetSubject()->name == "alice"
    // [/snippet]
    // [snippet:policy_jwt]
    SsoClient::TokenPolicy policy;
    policy.acceptedIssuers = {"https://sts.example.test/sts"};
    Basalt::Ref<SsoClient::TokenValidator> checked, cached;
    SsoClient::CreatePolicyTokenValidator(jwt, policy, checked);
    SsoClient::CreateCachingTokenValidator(checked, {}, cached);
    token = cached->Validate(bearer, "");  // the same checks, then the policy; or the exception
    // [/snippet]
    return token;
}

}  // namespace Guide

#include <ssoClient/TokenPolicy.h>

#include <algorithm>

#include <basalt/Exception.h>
#include <ssoClient/Exceptions.h>

namespace SsoClient {

namespace {

// 'a', 'b', 'c'
std::string QuotedList(const std::set<std::string>& values) {
    std::string text;
    for (const std::string& value : values) {
        text += (text.empty() ? "'" : ", '") + value + "'";
    }
    return text.empty() ? "''" : text;
}

const char* ConfirmationName(bool holderOfKey) {
    return holderOfKey ? "holder-of-key" : "bearer";
}

void CheckIssuer(const SamlToken& token, const TokenPolicy& policy) {
    if (!policy.acceptedIssuers.empty() && policy.acceptedIssuers.count(token.GetIssuer()) == 0) {
        throw InvalidTokenException("Token issuer '" + token.GetIssuer() +
                                    "' is not among the accepted issuers " +
                                    QuotedList(policy.acceptedIssuers));
    }
}

void CheckAudience(const SamlToken& token, const TokenPolicy& policy) {
    if (policy.expectedAudiences.empty()) {
        return;
    }
    std::set<std::string> audience;
    token.GetAudience(audience);
    const bool expected = std::any_of(audience.begin(), audience.end(), [&](const auto& entry) {
        return policy.expectedAudiences.count(entry) != 0;
    });
    if (!expected) {
        throw InvalidTokenException("Token audience " + QuotedList(audience) +
                                    " is not among the expected audiences " +
                                    QuotedList(policy.expectedAudiences));
    }
}

void CheckConfirmation(const SamlToken& token, const TokenPolicy& policy) {
    if (policy.confirmation == RequiredConfirmation::Any) {
        return;
    }
    const bool holderOfKey = token.GetTokenType() == TokenType::Saml_HOK;
    const bool wanted = policy.confirmation == RequiredConfirmation::HolderOfKey;
    if (holderOfKey != wanted) {
        throw InvalidTokenException(
            std::string("Token confirmation type '") + ConfirmationName(holderOfKey) +
            "' is not the required confirmation type '" + ConfirmationName(wanted) + "'");
    }
}

[[noreturn]] void ThrowBeyondTolerance(const char* claim, const Basalt::System::DateTime& time,
                                       int64_t toleranceSec, const Basalt::System::DateTime& now) {
    throw InvalidTokenException(std::string("Token ") + claim + " '" + time.ToString() +
                                "' is beyond the maximum clock tolerance of " +
                                std::to_string(toleranceSec) + " s from the current time '" +
                                now.ToString() + "'");
}

// The same window as the token's own check: start - tolerance <= now < expiration + tolerance.
void CheckTime(const SamlToken& token, const TokenPolicy& policy) {
    if (!policy.maxClockToleranceSec) {
        return;
    }
    const int64_t toleranceSec = *policy.maxClockToleranceSec;
    const int64_t tolerance = toleranceSec * 1000000;
    const Basalt::System::DateTime now =
        (policy.clock ? *policy.clock : Basalt::System::SystemClock()).Now();
    if (token.GetStartTime().GetUtcTime() - tolerance > now.GetUtcTime()) {
        ThrowBeyondTolerance("start time", token.GetStartTime(), toleranceSec, now);
    }
    if (token.GetExpirationTime().GetUtcTime() + tolerance <= now.GetUtcTime()) {
        ThrowBeyondTolerance("expiration time", token.GetExpirationTime(), toleranceSec, now);
    }
}

class PolicyTokenFactory final : public SamlTokenFactory {
  public:
    PolicyTokenFactory(std::shared_ptr<SamlTokenFactory> inner, TokenPolicy policy)
        : m_inner(std::move(inner)), m_policy(std::move(policy)) {}

    std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml,
                                                     long clockToleranceSec) const override {
        return Checked(m_inner->CreateSamlToken(xml, clockToleranceSec));
    }
    std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode* element,
                                                            long clockToleranceSec) const override {
        return Checked(m_inner->CreateSamlTokenFromDom(element, clockToleranceSec));
    }

  private:
    std::shared_ptr<const SamlToken> Checked(std::shared_ptr<const SamlToken> token) const {
        CheckTokenPolicy(*token, m_policy);
        return token;
    }

    const std::shared_ptr<SamlTokenFactory> m_inner;
    const TokenPolicy m_policy;
};

class PolicyTokenValidator final : public virtual TokenValidator,
                                   public virtual Basalt::ObjectImpl {
  public:
    PolicyTokenValidator(Basalt::Ref<TokenValidator> inner, TokenPolicy policy)
        : m_inner(std::move(inner)), m_policy(std::move(policy)) {}

    std::shared_ptr<const SamlToken> Validate(std::string_view token,
                                              std::string_view second) const override {
        std::shared_ptr<const SamlToken> validated = m_inner->Validate(token, second);
        CheckTokenPolicy(*validated, m_policy);
        return validated;
    }

  private:
    const Basalt::Ref<TokenValidator> m_inner;
    const TokenPolicy m_policy;
};

}  // namespace

void CheckTokenPolicy(const SamlToken& token, const TokenPolicy& policy) {
    CheckIssuer(token, policy);
    CheckAudience(token, policy);
    CheckConfirmation(token, policy);
    CheckTime(token, policy);
}

std::shared_ptr<SamlTokenFactory> CreatePolicyTokenFactory(std::shared_ptr<SamlTokenFactory> inner,
                                                           const TokenPolicy& policy) {
    if (!inner) {
        throw Basalt::InvalidArgumentException("A policy factory needs a factory to wrap");
    }
    return std::make_shared<PolicyTokenFactory>(std::move(inner), policy);
}

void CreatePolicyTokenValidator(const Basalt::Ref<TokenValidator>& inner, const TokenPolicy& policy,
                                Basalt::Ref<TokenValidator>& validator) {
    if (!inner) {
        throw Basalt::InvalidArgumentException("A policy validator needs a validator to wrap");
    }
    validator = new PolicyTokenValidator(inner, policy);
}

}  // namespace SsoClient

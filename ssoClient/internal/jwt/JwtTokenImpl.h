#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/DateTime.h>
#include <basalt/Jwt.h>

#include <ssoClient/SamlToken.h>

namespace SsoClient {

// A validated JWT bearer token, fully built by its constructor or not at all.
class JwtTokenImpl final : public SamlToken {
  public:
    // Keeps copies of jwt and context, then runs every check of a JWT bearer token against the
    // audiences and keys with "now" from clock; throws InvalidTokenException (or
    // InvalidSignatureException) at the first that fails.
    JwtTokenImpl(std::string_view jwt, std::string_view context,
                 const std::vector<std::string>& audiences, const Basalt::Jwt::SigningKeys& keys,
                 int64_t clockToleranceSec,
                 const Basalt::System::Clock& clock = Basalt::System::SystemClock());

    JwtTokenImpl(const JwtTokenImpl&) = delete;
    JwtTokenImpl& operator=(const JwtTokenImpl&) = delete;

    const std::string& GetId() const override { return m_id; }
    const Basalt::System::DateTime& GetStartTime() const override { return m_startTime; }
    const Basalt::System::DateTime& GetExpirationTime() const override { return m_expirationTime; }
    Basalt::System::DateTime GetExpirationTimeWithTolerance() const override;
    const PrincipalId* GetSubject() const override { return m_subject.get(); }
    bool IsRenewable() const override { return false; }
    int32_t GetRenewCount() const override { return 0; }
    bool IsDelegable() const override { return false; }
    int32_t GetDelegableCount() const override { return 0; }
    bool IsSolution() const override { return false; }
    TokenType GetTokenType() const override { return JWT_Bearer; }
    void GetPersonName(PersonName& name) const override { name = m_personName; }
    void GetGroups(std::vector<PrincipalId>& groups) const override { groups = m_groups; }
    // A JWT carries no delegation chain and no advice: the caller's container is left untouched.
    void GetDelegationChain(std::vector<Delegate>&) const override {}
    void GetAudience(std::set<std::string>& audience) const override;
    void GetAdvice(std::vector<Advice>&) const override {}
    Basalt::Crypto::Certificate* GetHolderOfKeyCertificate() const override { return nullptr; }
    const std::string& GetIssuer() const override { return m_issuer; }
    Basalt::Xml::Security::Signature* GetSignature() const override { return nullptr; }
    const std::string& GetXml() const override { return m_jwt; }
    // Unlike a SAML token's, returns normally: the second argument of Validate.
    const std::string& GetUnsupportedInfo() const override { return m_context; }

  private:
    void CheckClaims(const Basalt::Jwt::Decoder& decoder,
                     const std::vector<std::string>& audiences);
    void CheckTimes(const Basalt::Jwt::Decoder& decoder, int64_t now);
    void ReadPrincipals(const Basalt::Jwt::Decoder& decoder);

    std::string m_id;
    std::string m_jwt;
    std::string m_context;
    std::string m_audience;
    std::string m_issuer;
    Basalt::System::DateTime m_expirationTime;
    Basalt::System::DateTime m_startTime;
    std::unique_ptr<PrincipalId> m_subject;
    std::vector<PrincipalId> m_groups;
    PersonName m_personName;
    int64_t m_clockToleranceSec;
};

namespace Jwt {
// Splits text at its last separator into before and after; false when there is none, or when it
// is the first or the last character.
bool SplitAtLast(const std::string& text, char separator, std::string& before, std::string& after);
}  // namespace Jwt

}  // namespace SsoClient

#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/DateTime.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>

#include <ssoClient/SamlToken.h>

namespace SsoClient {
namespace Saml {
struct ParsedAssertion;
}

// A SAML token, fully built by its constructor or not at all.
class SamlTokenImpl final : public SamlToken {
  public:
    // From assertion text (copied byte for byte). Verifies the signature with resolver when
    // verify is set; the validity window is checked against clock. Throws as the
    // SamlTokenFactory entry points document.
    SamlTokenImpl(std::string_view xml, bool verify,
                  const Basalt::Xml::Security::KeyInfoResolver* resolver, long clockToleranceSec,
                  const Basalt::System::Clock& clock = Basalt::System::SystemClock());
    // From an Assertion element; the token keeps its inclusive canonical form as text.
    SamlTokenImpl(Basalt::Xml::ElementNode& assertion, bool verify,
                  const Basalt::Xml::Security::KeyInfoResolver* resolver, long clockToleranceSec,
                  const Basalt::System::Clock& clock = Basalt::System::SystemClock());
    ~SamlTokenImpl();

    SamlTokenImpl(const SamlTokenImpl&) = delete;
    SamlTokenImpl& operator=(const SamlTokenImpl&) = delete;

    const std::string& GetId() const override { return m_id; }
    const Basalt::System::DateTime& GetStartTime() const override { return m_startTime; }
    const Basalt::System::DateTime& GetExpirationTime() const override { return m_expirationTime; }
    Basalt::System::DateTime GetExpirationTimeWithTolerance() const override;
    const PrincipalId* GetSubject() const override { return m_subject.get(); }
    bool IsRenewable() const override { return m_renewCount > 0; }
    int32_t GetRenewCount() const override { return m_renewCount; }
    bool IsDelegable() const override { return m_delegableCount > 0; }
    int32_t GetDelegableCount() const override { return m_delegableCount; }
    bool IsSolution() const override { return m_isSolution; }
    TokenType GetTokenType() const override { return m_tokenType; }
    void GetPersonName(PersonName& name) const override;
    void GetGroups(std::vector<PrincipalId>& groups) const override { groups = m_groups; }
    void GetDelegationChain(std::vector<Delegate>& chain) const override {
        chain = m_delegationChain;
    }
    void GetAudience(std::set<std::string>& audience) const override { audience = m_audience; }
    void GetAdvice(std::vector<Advice>& advice) const override { advice = m_advice; }
    Basalt::Crypto::Certificate* GetHolderOfKeyCertificate() const override {
        return m_holderOfKeyCertificate.Get();
    }
    const std::string& GetIssuer() const override { return m_issuer; }
    // A token made from text keeps no DOM: the signature object is built again from the text
    // on the first call, once, whichever thread makes it.
    Basalt::Xml::Security::Signature* GetSignature() const override;
    const std::string& GetXml() const override { return m_xml; }
    [[noreturn]] const std::string& GetUnsupportedInfo() const override;

  private:
    void Initialize(const Basalt::Ref<Basalt::Xml::ElementNode>& assertion, bool verify,
                    const Basalt::System::Clock& clock,
                    const Basalt::Xml::Security::KeyInfoResolver* resolver);
    void InterpretAttributes(const Saml::ParsedAssertion& parsed);

    std::string m_xml;
    std::string m_id;
    Basalt::System::DateTime m_startTime;
    Basalt::System::DateTime m_expirationTime;
    long m_clockToleranceSec;
    std::unique_ptr<PrincipalId> m_subject;
    int32_t m_renewCount = 0;
    int32_t m_delegableCount = 0;
    bool m_isSolution = false;
    std::string m_givenName;
    std::string m_surname;
    std::vector<PrincipalId> m_groups;
    std::vector<Delegate> m_delegationChain;
    std::set<std::string> m_audience;
    std::vector<Advice> m_advice;
    TokenType m_tokenType = Saml_Bearer;
    Basalt::Ref<Basalt::Crypto::Certificate> m_holderOfKeyCertificate;
    std::string m_issuer;
    mutable std::once_flag m_signatureBuilt;
    mutable Basalt::Ref<Basalt::Xml::Security::Signature> m_signature;
};

namespace Saml {
// "name@domain" split at the last at sign; the format must be the UPN claim. Throws
// ParseException.
PrincipalId ParseUpn(const std::string& format, const std::string& value);
// "domain\name" split at the first backslash. Throws ParseException.
PrincipalId ParseGroupIdentity(const std::string& value);
// True when the single value spells "true" in any case. Throws ParseException unless there is
// exactly one value.
bool ParseIsSolution(const std::vector<std::string>& values);
}  // namespace Saml

}  // namespace SsoClient

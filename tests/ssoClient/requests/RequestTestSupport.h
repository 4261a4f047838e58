#pragma once

#include <basalt/DateTime.h>
#include <basalt/Xml.h>
#include <ssoClient/SamlToken.h>

#include <string>
#include <vector>

namespace RequestTest {

// A token standing in for a parsed one: request construction reads only its XML, ID and type.
// Everything else is empty (no subject), which descriptions show as such.
class TextToken final : public SsoClient::SamlToken {
  public:
    TextToken(std::string xml, std::string id, SsoClient::TokenType type)
        : m_xml(std::move(xml)), m_id(std::move(id)), m_type(type) {}
    const std::string& GetId() const override { return m_id; }
    const Basalt::System::DateTime& GetStartTime() const override { return m_time; }
    const Basalt::System::DateTime& GetExpirationTime() const override { return m_time; }
    Basalt::System::DateTime GetExpirationTimeWithTolerance() const override { return m_time; }
    const SsoClient::PrincipalId* GetSubject() const override { return nullptr; }
    bool IsRenewable() const override { return false; }
    int32_t GetRenewCount() const override { return 0; }
    bool IsDelegable() const override { return false; }
    int32_t GetDelegableCount() const override { return 0; }
    bool IsSolution() const override { return false; }
    SsoClient::TokenType GetTokenType() const override { return m_type; }
    void GetPersonName(SsoClient::PersonName&) const override {}
    void GetGroups(std::vector<SsoClient::PrincipalId>&) const override {}
    void GetDelegationChain(std::vector<SsoClient::Delegate>&) const override {}
    void GetAudience(std::set<std::string>&) const override {}
    void GetAdvice(std::vector<SsoClient::Advice>&) const override {}
    Basalt::Crypto::Certificate* GetHolderOfKeyCertificate() const override { return nullptr; }
    const std::string& GetIssuer() const override { return m_id; }
    Basalt::Xml::Security::Signature* GetSignature() const override { return nullptr; }
    const std::string& GetXml() const override { return m_xml; }
    const std::string& GetUnsupportedInfo() const override { return m_xml; }

  private:
    std::string m_xml, m_id;
    SsoClient::TokenType m_type;
    Basalt::System::DateTime m_time;
};

// The holder-of-key assertion of tests/data/requests (with a comment that must travel verbatim).
TextToken DataToken(SsoClient::TokenType type = SsoClient::Saml_HOK);

// Parses text with the foundation's parser; the root element keeps the document alive.
Basalt::Ref<Basalt::Xml::ElementNode> Parse(const std::string& text);
std::vector<Basalt::Ref<Basalt::Xml::ElementNode>> Children(
    const Basalt::Xml::ElementNode& element);
// The qualified names of the element children, in order, separated by blanks.
std::string Names(const Basalt::Xml::ElementNode& element);
// Follows "A/B/C", local names each naming exactly one child (the test fails otherwise).
Basalt::Ref<Basalt::Xml::ElementNode> Path(const Basalt::Xml::ElementNode& element,
                                           const std::string& path);
// The text at a path, or the attribute its last step names as "@name".
std::string Value(const Basalt::Xml::ElementNode& element, const std::string& path);
// Seconds from the path's Created to its Expires.
int64_t Span(const Basalt::Xml::ElementNode& element, const std::string& path);

}  // namespace RequestTest

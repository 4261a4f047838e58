#pragma once

#include <basalt/DateTime.h>
#include <basalt/Xml.h>
#include <ssoClient/SamlToken.h>

#include <string>
#include <vector>

namespace RequestTest {

// A token standing in for a parsed one: request construction reads only its XML, ID and type.
class TextToken : public SsoClient::SamlToken {
  public:
    TextToken(std::string xml, std::string id, SsoClient::TokenType type)
        : m_xml(std::move(xml)), m_id(std::move(id)), m_type(type) {}
    virtual ~TextToken() = default;
    const std::string& GetId() const override { return m_id; }
    const Basalt::System::DateTime& GetStartTime() const override { return m_time; }
    const Basalt::System::DateTime& GetExpirationTime() const override { return m_time; }
    Basalt::System::DateTime GetExpirationTimeWithTolerance() const override { return m_time; }
    const SsoClient::PrincipalId* GetSubject() const override { return &m_subject; }
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
    void GetUnsupportedInfo() const override {}

  private:
    std::string m_xml;
    std::string m_id;
    SsoClient::TokenType m_type;
    Basalt::System::DateTime m_time;
    SsoClient::PrincipalId m_subject;
};

// Parses text with the foundation's parser; the root element keeps the document alive.
Basalt::Ref<Basalt::Xml::ElementNode> Parse(const std::string& text);
// The element children of element, in order.
std::vector<Basalt::Ref<Basalt::Xml::ElementNode>> ChildElements(
    const Basalt::Xml::ElementNode& element);
// "{namespace}local" of each child element, for comparing shapes in one assertion.
std::vector<std::string> ChildNames(const Basalt::Xml::ElementNode& element);
// The one child element with that local name; fails the test if there is not exactly one.
Basalt::Ref<Basalt::Xml::ElementNode> Child(const Basalt::Xml::ElementNode& element,
                                            const std::string& localName);
// Follows a path of local names, e.g. {"Header", "Security", "Timestamp"}.
Basalt::Ref<Basalt::Xml::ElementNode> Path(const Basalt::Xml::ElementNode& element,
                                           const std::vector<std::string>& localNames);
std::string Attribute(const Basalt::Xml::ElementNode& element, const std::string& name);
std::string Serialize(const Basalt::Xml::ElementNode& element);

}  // namespace RequestTest

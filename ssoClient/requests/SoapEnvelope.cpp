#include "internal/requests/SoapEnvelope.h"

#include <basalt/DateTime.h>
#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>

#include "internal/requests/WsTrustNames.h"
#include "internal/xml/XmlUtils.h"

namespace SsoClient {

using namespace WsTrust;

namespace {

// Generated element ids start with an underscore so that they are NCNames whatever the UUID.
constexpr char kGeneratedIdPrefix[] = "_";

std::shared_ptr<XMLCompositeBuilder> Composite(const std::string& prefix, const std::string& name,
                                               const AttributeList& attributes = {}) {
    return std::make_shared<XMLCompositeBuilder>(
        CreateElementBuilder(prefix, name, ToAttributeMap(attributes)));
}

Basalt::Ref<Basalt::Xml::ElementNode> RequiredChild(const Basalt::Xml::ElementNode& parent,
                                                    const char* namespaceUri,
                                                    const char* localName) {
    Basalt::Ref<Basalt::Xml::ElementNode> child = parent.FindChildElement(namespaceUri, localName);
    if (!child) {
        throw Basalt::InvalidStateException(std::string("Signed envelope has no ") + localName +
                                            " element");
    }
    return child;
}

// The element's wsu:Id, given one first if it has none.
std::string EnsureWsuId(Basalt::Xml::ElementNode& element) {
    std::string id;
    if (!element.GetAttributeNS(Xmlns::kWsu, "Id", id)) {
        id = kGeneratedIdPrefix + Basalt::StringUtil::GenerateUuid();
        element.SetAttribute("xmlns:wsu", Xmlns::kWsu);
        element.SetAttribute("wsu:Id", id);
    }
    return id;
}

}  // namespace

std::shared_ptr<XMLCompositeBuilder> BuildSecurityHeader(int32_t timestampMinutes) {
    const Basalt::System::DateTime now = Basalt::System::GetUtcDateTime();
    const Basalt::System::DateTime expires = AddMinutes(now, timestampMinutes);
    auto timestamp = Composite("wsu", "Timestamp", {{"xmlns:wsu", Xmlns::kWsu}});
    timestamp->Add(CreateTextElementBuilder("wsu", "Created", FormatXmlDateTime(now)))
        .Add(CreateTextElementBuilder("wsu", "Expires", FormatXmlDateTime(expires)));
    auto security = Composite("wsse", "Security", {{"xmlns:wsse", Xmlns::kWsse}});
    security->Add(timestamp);
    return security;
}

std::shared_ptr<XMLCompositeBuilder> BuildEnvelope(const XMLBuilderPtr& header,
                                                   const XMLBuilderPtr& body) {
    auto soapHeader = Composite("soapenv", "Header");
    soapHeader->Add(header);
    auto soapBody = Composite("soapenv", "Body", {{"xmlns:wst", Xmlns::kWsTrust}});
    soapBody->Add(body);
    auto envelope = Composite("soapenv", "Envelope", {{"xmlns:soapenv", Xmlns::kSoapEnv}});
    envelope->Add(soapHeader).Add(soapBody);
    return envelope;
}

XMLBuilderPtr BuildCertificateToken(const Basalt::Crypto::Certificate& certificate) {
    const std::vector<unsigned char>& der = certificate.GetDer();
    std::string encoded(Basalt::Base64_EncodedLength(der.size()), '\0');
    encoded.resize(Basalt::Base64_Encode(der.data(), der.size(), encoded.data()));
    return CreateTextElementBuilder("wsse", "BinarySecurityToken",
                                    ToAttributeMap({{"EncodingType", kBase64Binary},
                                                    {"ValueType", kX509v3},
                                                    {"xmlns:wsu", Xmlns::kWsu},
                                                    {"wsu:Id", kCertificateTokenId}}),
                                    encoded);
}

XMLBuilderPtr BuildCertificateReference() {
    auto reference = Composite("wsse", "SecurityTokenReference", {{"xmlns:wsse", Xmlns::kWsse}});
    reference->Add(CreateElementBuilder(
        "wsse", "Reference",
        AttributeMap{{"URI", std::string("#") + kCertificateTokenId}, {"ValueType", kX509v3}}));
    return reference;
}

XMLBuilderPtr BuildSamlTokenReference(const std::string& assertionId) {
    auto reference = Composite("wsse", "SecurityTokenReference",
                               {{"xmlns:wsse", Xmlns::kWsse},
                                {"xmlns:wsse11", Xmlns::kWsse11},
                                {"wsse11:TokenType", kSamlV2TokenType}});
    reference->Add(CreateTextElementBuilder(
        "wsse", "KeyIdentifier", ToAttributeMap({{"ValueType", kSamlIdValueType}}), assertionId));
    return reference;
}

XMLSignedSoapBuilder::XMLSignedSoapBuilder(XMLBuilderPtr header, XMLBuilderPtr body,
                                           HolderOfKeyConfig holderOfKey, XMLBuilderPtr keyInfo)
    : m_header(std::move(header)),
      m_body(std::move(body)),
      m_holderOfKey(std::move(holderOfKey)),
      m_keyInfo(std::move(keyInfo)) {}

void XMLSignedSoapBuilder::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    Basalt::Ref<Basalt::Xml::ElementNode> envelope;
    BuildEnvelope(m_header, m_body)->Build(envelope);

    Basalt::Ref<Basalt::Xml::ElementNode> body = RequiredChild(*envelope, Xmlns::kSoapEnv, "Body");
    Basalt::Ref<Basalt::Xml::ElementNode> header =
        RequiredChild(*envelope, Xmlns::kSoapEnv, "Header");
    Basalt::Ref<Basalt::Xml::ElementNode> security =
        RequiredChild(*header, Xmlns::kWsse, "Security");
    Basalt::Ref<Basalt::Xml::ElementNode> timestamp =
        RequiredChild(*security, Xmlns::kWsu, "Timestamp");

    Basalt::Ref<Basalt::Xml::Security::Signature> signature;
    Basalt::Xml::Security::CreateBlankSignature(security.Get(), kExcC14n, kRsaSha256, "ds",
                                                signature);
    for (Basalt::Xml::ElementNode* signed_ : {body.Get(), timestamp.Get()}) {
        signature->AddReference("#" + EnsureWsuId(*signed_), kSha256, kExcC14n);
    }
    signature->SetId(kProofSignatureId);
    Basalt::Ref<Basalt::Xml::ElementNode> keyInfo;
    m_keyInfo->Build(keyInfo);
    signature->AddKeyInfoContent(keyInfo);
    signature->Sign(*m_holderOfKey.privateKey);
    out = std::move(envelope);
}

}  // namespace SsoClient

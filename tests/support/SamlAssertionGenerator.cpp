#include "support/SamlAssertionGenerator.h"

#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include <basalt/Xml.h>

#include "internal/saml/SamlNames.h"
#include "internal/xml/XmlUtils.h"

namespace TestSupport {

namespace {

using namespace SsoClient;
using Basalt::Ref;

// The instant a document is being built at, so that equal offsets give equal times.
thread_local int64_t t_buildMicros = 0;

std::string At(int64_t offsetSec) {
    const int64_t micros = t_buildMicros + offsetSec * 1000000;
    // Whole milliseconds, as issuers write them.
    return Basalt::System::DateTimeFromUtc(static_cast<long>(micros - micros % 1000), false)
        .ToString();
}

std::string NameId(const std::string& upn) {
    return "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">" + upn +
           "</saml2:NameID>";
}

std::string Attributes(const std::vector<SamlAttribute>& attributes, bool typed) {
    std::string xml;
    for (const auto& attribute : attributes) {
        xml += "<saml2:Attribute Name=\"" + attribute.name +
               "\" NameFormat=\"urn:oasis:names:tc:SAML:2.0:attrname-format:uri\">";
        for (const auto& value : attribute.values) {
            xml += std::string("<saml2:AttributeValue") + (typed ? " xsi:type=\"xs:string\"" : "") +
                   ">" + value + "</saml2:AttributeValue>";
        }
        xml += "</saml2:Attribute>";
    }
    return xml;
}

const char kDsig[] = " xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"";

std::string X509Data(const std::string& pemFile, const std::string& declarations = "") {
    return "<ds:X509Data" + declarations + "><ds:X509Certificate>" +
           Basalt::StringUtil::Base64Encode(TestData::LoadCertificate(pemFile)->GetDer()) +
           "</ds:X509Certificate></ds:X509Data>";
}

std::string SubjectConfirmation(const AssertionSpec& spec) {
    std::string xml = std::string("<saml2:SubjectConfirmation Method=\"") +
                      (spec.holderOfKey ? Saml::kHolderOfKeyMethod : Saml::kBearerMethod) + "\">" +
                      (spec.delegates.empty() ? "" : NameId(spec.delegates.back().upn));
    if (!spec.holderOfKey) {
        return xml + "<saml2:SubjectConfirmationData NotOnOrAfter=\"" +
               At(spec.notOnOrAfterOffsetSec) + "\"/></saml2:SubjectConfirmation>";
    }
    return xml +
           "<saml2:SubjectConfirmationData xsi:type=\"saml2:KeyInfoConfirmationDataType\">"
           "<ds:KeyInfo" +
           kDsig + ">" + X509Data("certs/user-ec.pem") +
           "</ds:KeyInfo></saml2:SubjectConfirmationData></saml2:SubjectConfirmation>";
}

std::string Conditions(const AssertionSpec& spec) {
    std::string xml = "<saml2:Conditions NotBefore=\"" + At(spec.notBeforeOffsetSec) +
                      "\" NotOnOrAfter=\"" + At(spec.notOnOrAfterOffsetSec) + "\">";
    const auto count = [](const std::optional<std::string>& value) {
        return value->empty() ? std::string() : " Count=\"" + *value + "\"";
    };
    if (!spec.delegates.empty()) {
        xml += std::string("<saml2:Condition xmlns:del=\"") + Xmlns::kSamlDelegation +
               "\" xsi:type=\"del:DelegationRestrictionType\">";
        for (const auto& delegate : spec.delegates) {
            xml += "<del:Delegate DelegationInstant=\"" + At(delegate.instantOffsetSec) + "\">" +
                   NameId(delegate.upn) + "</del:Delegate>";
        }
        xml += "</saml2:Condition>";
    }
    if (spec.renewCount) {
        xml += std::string("<saml2:Condition xmlns:rsa=\"") + Xmlns::kSamlAdviceExtension +
               "\" xsi:type=\"rsa:RenewRestrictionType\"" + count(spec.renewCount) +
               " Postdatable=\"false\" RenewExpired=\"false\"/>";
    }
    if (spec.proxyCount) {
        xml += "<saml2:ProxyRestriction" + count(spec.proxyCount) + "/>";
    }
    if (!spec.audiences.empty()) {
        xml += "<saml2:AudienceRestriction>";
        for (const auto& audience : spec.audiences) {
            xml += "<saml2:Audience>" + audience + "</saml2:Audience>";
        }
        xml += "</saml2:AudienceRestriction>";
    }
    return xml + "</saml2:Conditions>";
}

std::string Advice(const AssertionSpec& spec) {
    std::string xml;
    for (const auto& advice : spec.advice) {
        xml += std::string("<rsa:RSAAdvice xmlns:rsa=\"") + Xmlns::kSamlAdviceExtension +
               "\" AdviceSource=\"" + advice.source + "\">" + Attributes(advice.attributes, false) +
               "</rsa:RSAAdvice>";
    }
    return xml.empty() ? xml : "<saml2:Advice>" + xml + "</saml2:Advice>";
}

}  // namespace

std::string BuildAssertionXml(const AssertionSpec& spec, bool withSignatureTemplate) {
    t_buildMicros = (spec.clock ? *spec.clock : Basalt::System::SystemClock()).Now().GetUtcTime();
    const std::string id = spec.id.empty() ? "_" + Basalt::StringUtil::GenerateUuid() : spec.id;
    std::string xml =
        std::string("<saml2:Assertion xmlns:saml2=\"") + Xmlns::kSamlAssertion + "\" xmlns:xsi=\"" +
        Xmlns::kXsi + "\" xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" ID=\"" + id +
        "\" IssueInstant=\"" + At(-5) + "\" Version=\"" + spec.version +
        "\"><saml2:Issuer Format=\"urn:oasis:names:tc:SAML:2.0:nameid-format:entity\">"
        "https://sts.example.test/sts</saml2:Issuer>" +
        (withSignatureTemplate
             ? ReplaceOnce(TestData::Read("saml/signature-template.xml"), "#ID", "#" + id)
             : "") +
        "<saml2:Subject>" + NameId(spec.subjectUpn) + SubjectConfirmation(spec) +
        "</saml2:Subject>" + Conditions(spec) + Advice(spec) +
        "<saml2:AuthnStatement AuthnInstant=\"" + At(-5) +
        "\"><saml2:AuthnContext><saml2:AuthnContextClassRef>"
        "urn:oasis:names:tc:SAML:2.0:ac:classes:PasswordProtectedTransport"
        "</saml2:AuthnContextClassRef></saml2:AuthnContext></saml2:AuthnStatement>";
    if (!spec.attributes.empty()) {
        xml += "<saml2:AttributeStatement>" + Attributes(spec.attributes, true) +
               "</saml2:AttributeStatement>";
    }
    xml += "</saml2:Assertion>";
    for (const auto& [from, to] : spec.edits) {
        xml = ReplaceOnce(xml, from, to);
    }
    return xml;
}

std::string SignAssertion(const std::string& unsignedXml,
                          const std::optional<std::string>& referenceUri) {
    static const Ref<Basalt::Crypto::PrivateKey> key =
        TestData::LoadPrivateKey("certs/sts-rsa.key");
    Ref<Basalt::Xml::Document> document, keyInfo;
    ParseXmlText(unsignedXml, document);
    const auto assertion = document->GetDocumentElement();
    std::string id;
    assertion->GetAttribute("ID", id);
    // The signature must follow the Issuer, but a blank signature is appended last: move
    // everything after the Issuer behind it.
    std::vector<Ref<Basalt::Xml::Node>> children;
    assertion->GetChildren(children);
    Ref<Basalt::Xml::Security::Signature> signature;
    Basalt::Xml::Security::CreateBlankSignature(
        assertion.Get(), "http://www.w3.org/2001/10/xml-exc-c14n#",
        "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256", "ds", signature);
    for (size_t i = 1; i < children.size(); ++i) {
        assertion->AppendChild(children[i]);
    }
    signature->AddReference(
        referenceUri.value_or("#" + id), "http://www.w3.org/2001/04/xmlenc#sha256",
        std::vector<std::string>{"http://www.w3.org/2000/09/xmldsig#enveloped-signature",
                                 "http://www.w3.org/2001/10/xml-exc-c14n#"});
    ParseXmlText(X509Data("certs/sts-rsa.pem", kDsig), keyInfo);
    signature->AddKeyInfoContent(keyInfo->GetDocumentElement());
    signature->Sign(*key);
    Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    assertion->Serialize(writer.Get());
    return writer->TakeString();
}

std::string MakeSignedAssertion(const AssertionSpec& spec) {
    return SignAssertion(BuildAssertionXml(spec));
}

}  // namespace TestSupport

#include "support/SamlAssertionGenerator.h"

#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include <basalt/DateTime.h>
#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include <basalt/Xml.h>

#include "TestData.h"
#include "internal/saml/SamlNames.h"
#include "internal/xml/XmlUtils.h"

namespace TestSupport {

namespace {

using namespace SsoClient::Saml;

const char kUpn[] = "http://schemas.xmlsoap.org/claims/UPN";

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '"' ? "&quot;" : std::string(1, c);
    }
    return out;
}

// The instant a document is being built at, so that equal offsets give equal times.
thread_local int64_t t_buildMicros = 0;

std::string At(int64_t offsetSec) {
    const int64_t micros = t_buildMicros + offsetSec * 1000000;
    // Whole milliseconds, as issuers write them.
    return Basalt::System::DateTimeFromUtc(static_cast<long>(micros - micros % 1000), false)
        .ToString();
}

std::string UpnNameId(const std::string& upn) {
    return std::string("<saml2:NameID Format=\"") + kUpn + "\">" + Escape(upn) + "</saml2:NameID>";
}

std::string Attributes(const std::vector<SamlAttribute>& attributes, bool typed) {
    std::string xml;
    for (const auto& attribute : attributes) {
        xml += "<saml2:Attribute Name=\"" + Escape(attribute.name) +
               "\" NameFormat=\"urn:oasis:names:tc:SAML:2.0:attrname-format:uri\">";
        for (const auto& value : attribute.values) {
            xml += std::string("<saml2:AttributeValue") + (typed ? " xsi:type=\"xs:string\"" : "") +
                   ">" + Escape(value) + "</saml2:AttributeValue>";
        }
        xml += "</saml2:Attribute>";
    }
    return xml;
}

Basalt::Ref<Basalt::Crypto::Certificate> LoadCertificate(const std::string& pem) {
    Basalt::Ref<Basalt::Crypto::Certificate> certificate;
    Basalt::Crypto::CreateCertificateFromPem(pem, certificate);
    return certificate;
}

std::string CertificateBase64(const Basalt::Crypto::Certificate& certificate) {
    return Basalt::StringUtil::Base64Encode(certificate.GetDer());
}

std::string SubjectConfirmation(const AssertionSpec& spec) {
    std::string xml = std::string("<saml2:SubjectConfirmation Method=\"") +
                      (spec.holderOfKey ? kHolderOfKeyMethod : kBearerMethod) + "\">";
    if (spec.delegateId && !spec.omitDelegateId) {
        xml += UpnNameId(*spec.delegateId);
    } else if (!spec.delegates.empty() && !spec.omitDelegateId) {
        xml += UpnNameId(spec.delegates.back().upn);
    }
    if (spec.holderOfKey) {
        const std::string pem = spec.holderOfKeyCertificatePem.empty()
                                    ? TestData::Read("certs/user-ec.pem")
                                    : spec.holderOfKeyCertificatePem;
        const std::string notOnOrAfter =
            spec.confirmationNotOnOrAfterOffsetSec
                ? " NotOnOrAfter=\"" + At(*spec.confirmationNotOnOrAfterOffsetSec) + "\""
                : std::string();
        xml += "<saml2:SubjectConfirmationData xsi:type=\"saml2:KeyInfoConfirmationDataType\"" +
               notOnOrAfter +
               ">"
               "<ds:KeyInfo xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"><ds:X509Data>"
               "<ds:X509Certificate>" +
               CertificateBase64(*LoadCertificate(pem)) +
               "</ds:X509Certificate></ds:X509Data></ds:KeyInfo></saml2:SubjectConfirmationData>";
    } else {
        xml += "<saml2:SubjectConfirmationData NotOnOrAfter=\"" +
               At(spec.confirmationNotOnOrAfterOffsetSec.value_or(spec.notOnOrAfterOffsetSec)) +
               "\"/>";
    }
    return xml + "</saml2:SubjectConfirmation>";
}

std::string Conditions(const AssertionSpec& spec) {
    std::string xml = "<saml2:Conditions NotBefore=\"" + At(spec.notBeforeOffsetSec) +
                      "\" NotOnOrAfter=\"" + At(spec.notOnOrAfterOffsetSec) + "\">";
    const auto count = [](const std::optional<std::string>& value) {
        return value->empty() ? std::string() : " Count=\"" + Escape(*value) + "\"";
    };
    if (!spec.delegates.empty()) {
        xml += std::string("<saml2:Condition xmlns:del=\"") + SsoClient::Xmlns::kSamlDelegation +
               "\" xsi:type=\"del:DelegationRestrictionType\">";
        for (const auto& delegate : spec.delegates) {
            xml += "<del:Delegate DelegationInstant=\"" + At(delegate.instantOffsetSec) + "\">" +
                   UpnNameId(delegate.upn) + "</del:Delegate>";
        }
        xml += "</saml2:Condition>";
    }
    if (spec.renewCount) {
        xml += std::string("<saml2:Condition xmlns:rsa=\"") +
               SsoClient::Xmlns::kSamlAdviceExtension + "\" xsi:type=\"rsa:RenewRestrictionType\"" +
               count(spec.renewCount) + " Postdatable=\"false\" RenewExpired=\"false\"/>";
    }
    if (spec.proxyCount) {
        xml += "<saml2:ProxyRestriction" + count(spec.proxyCount) + "/>";
    }
    if (!spec.audiences.empty()) {
        xml += "<saml2:AudienceRestriction>";
        for (const auto& audience : spec.audiences) {
            xml += "<saml2:Audience>" + Escape(audience) + "</saml2:Audience>";
        }
        xml += "</saml2:AudienceRestriction>";
    }
    return xml + "</saml2:Conditions>";
}

std::string Advice(const AssertionSpec& spec) {
    if (spec.advice.empty()) {
        return "";
    }
    std::string xml = "<saml2:Advice>";
    for (const auto& advice : spec.advice) {
        xml += std::string("<rsa:RSAAdvice xmlns:rsa=\"") + SsoClient::Xmlns::kSamlAdviceExtension +
               "\" AdviceSource=\"" + Escape(advice.source) + "\">" +
               Attributes(advice.attributes, false) + "</rsa:RSAAdvice>";
    }
    return xml + "</saml2:Advice>";
}

std::string SignatureTemplate(const std::string& id) {
    return "<ds:Signature xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"><ds:SignedInfo>"
           "<ds:CanonicalizationMethod Algorithm=\"http://www.w3.org/2001/10/xml-exc-c14n#\"/>"
           "<ds:SignatureMethod Algorithm=\"http://www.w3.org/2001/04/xmldsig-more#rsa-sha256\"/>"
           "<ds:Reference URI=\"#" +
           id +
           "\"><ds:Transforms>"
           "<ds:Transform Algorithm=\"http://www.w3.org/2000/09/xmldsig#enveloped-signature\"/>"
           "<ds:Transform Algorithm=\"http://www.w3.org/2001/10/xml-exc-c14n#\"/>"
           "</ds:Transforms>"
           "<ds:DigestMethod Algorithm=\"http://www.w3.org/2001/04/xmlenc#sha256\"/>"
           "<ds:DigestValue/></ds:Reference></ds:SignedInfo><ds:SignatureValue/>"
           "<ds:KeyInfo><ds:X509Data><ds:X509Certificate/></ds:X509Data></ds:KeyInfo>"
           "</ds:Signature>";
}

Basalt::Ref<Basalt::Xml::Document> Parse(const std::string& xml) {
    Basalt::Ref<Basalt::Xml::Document> document;
    SsoClient::ParseXmlText(xml, document);
    return document;
}

Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> ResolverOf(
    const Basalt::Ref<Basalt::Crypto::Certificate>& certificate) {
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver({certificate}, resolver);
    return resolver;
}

}  // namespace

const Basalt::Ref<Basalt::Crypto::PrivateKey>& StsKey() {
    static const Basalt::Ref<Basalt::Crypto::PrivateKey> key = [] {
        Basalt::Ref<Basalt::Crypto::PrivateKey> loaded;
        Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read("certs/sts-rsa.key"), loaded);
        return loaded;
    }();
    return key;
}

const Basalt::Ref<Basalt::Crypto::Certificate>& StsCertificate() {
    static const auto certificate = LoadCertificate(TestData::Read("certs/sts-rsa.pem"));
    return certificate;
}

const Basalt::Ref<Basalt::Crypto::Certificate>& OtherCertificate() {
    static const auto certificate = LoadCertificate(TestData::Read("certs/other-rsa.pem"));
    return certificate;
}

Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> StsResolver() {
    return ResolverOf(StsCertificate());
}

Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> OtherResolver() {
    return ResolverOf(OtherCertificate());
}

std::string BuildAssertionXml(const AssertionSpec& spec, bool withSignatureTemplate) {
    t_buildMicros = (spec.clock ? *spec.clock : Basalt::System::SystemClock()).Now().GetUtcTime();
    const std::string id = spec.id.empty() ? "_" + Basalt::StringUtil::GenerateUuid() : spec.id;
    std::string xml =
        std::string("<saml2:Assertion xmlns:saml2=\"") + SsoClient::Xmlns::kSamlAssertion +
        "\" xmlns:xsi=\"" + SsoClient::Xmlns::kXsi +
        "\" xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" ID=\"" + Escape(id) +
        "\" IssueInstant=\"" + At(-5) + "\" Version=\"" + Escape(spec.version) + "\">";
    xml += "<saml2:Issuer Format=\"urn:oasis:names:tc:SAML:2.0:nameid-format:entity\">" +
           Escape(spec.issuer) + "</saml2:Issuer>";
    if (withSignatureTemplate) {
        xml += SignatureTemplate(id);
    }
    xml += "<saml2:Subject>" + UpnNameId(spec.subjectUpn) + SubjectConfirmation(spec) +
           "</saml2:Subject>";
    xml += Conditions(spec);
    xml += Advice(spec);
    xml += "<saml2:AuthnStatement AuthnInstant=\"" + At(-5) +
           "\"><saml2:AuthnContext><saml2:AuthnContextClassRef>"
           "urn:oasis:names:tc:SAML:2.0:ac:classes:PasswordProtectedTransport"
           "</saml2:AuthnContextClassRef></saml2:AuthnContext></saml2:AuthnStatement>";
    if (!spec.attributes.empty()) {
        xml += "<saml2:AttributeStatement>" + Attributes(spec.attributes, true) +
               "</saml2:AttributeStatement>";
    }
    return xml + "</saml2:Assertion>";
}

std::string SignAssertion(const std::string& unsignedXml,
                          const std::optional<std::string>& referenceUri,
                          const Basalt::Crypto::PrivateKey& key,
                          const Basalt::Ref<Basalt::Crypto::Certificate>& certificate) {
    const auto document = Parse(unsignedXml);
    const auto assertion = document->GetDocumentElement();
    std::string id;
    assertion->GetAttribute("ID", id);

    // The signature must follow the Issuer, but a blank signature is appended last: move
    // everything after the Issuer behind it.
    std::vector<Basalt::Ref<Basalt::Xml::Node>> children;
    assertion->GetChildren(children);
    Basalt::Ref<Basalt::Xml::Security::Signature> signature;
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
    // The certificate in KeyInfo, from a parsed fragment.
    const auto keyInfo = Parse(
        "<ds:X509Data xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\">"
        "<ds:X509Certificate>" +
        CertificateBase64(*certificate) + "</ds:X509Certificate></ds:X509Data>");
    signature->AddKeyInfoContent(keyInfo->GetDocumentElement());
    signature->Sign(key);

    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    assertion->Serialize(writer.Get());
    return writer->TakeString();
}

std::string MakeSignedAssertion(const AssertionSpec& spec) {
    return SignAssertion(BuildAssertionXml(spec));
}

std::string ReplaceOnce(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::logic_error("test mutation does not apply: " + from);
    }
    return text.replace(at, from.size(), to);
}

std::pair<int, std::string> RunCommand(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    if (!pipe) {
        throw std::runtime_error("cannot run: " + command);
    }
    std::string output;
    char buffer[4096];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0) {
        output.append(buffer, n);
    }
    const int status = pclose(pipe.release());
    return {WEXITSTATUS(status), output};
}

}  // namespace TestSupport

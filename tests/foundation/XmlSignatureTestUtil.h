#pragma once

#include <string>
#include <vector>

#include "TestData.h"
#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>
#include "foundation/XmlTestUtil.h"

namespace XmlTest {

constexpr const char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";
constexpr const char kExcC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
constexpr const char kInclC14n[] = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315";
constexpr const char kEnveloped[] = "http://www.w3.org/2000/09/xmldsig#enveloped-signature";
constexpr const char kRsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
constexpr const char kEcdsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256";
constexpr const char kSha256[] = "http://www.w3.org/2001/04/xmlenc#sha256";
constexpr const char kSamlNs[] = "urn:oasis:names:tc:SAML:2.0:assertion";
constexpr const char kWsuNs[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";

// A small SAML-shaped assertion with the id "_a1".
inline std::string AssertionText(const std::string& id = "_a1") {
    return "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\" ID=\"" + id +
           "\" IssueInstant=\"2024-01-05T03:04:05.006Z\" Version=\"2.0\">"
           "<saml2:Issuer>https://sts.example.test</saml2:Issuer>"
           "<saml2:Subject><saml2:NameID Format=\"urn:upn\">user@example.test</saml2:NameID>"
           "</saml2:Subject>"
           "<saml2:Conditions NotBefore=\"2024-01-05T03:04:05Z\" "
           "NotOnOrAfter=\"2124-01-05T03:04:05Z\"/></saml2:Assertion>";
}

inline Basalt::Ref<Basalt::Crypto::Certificate> LoadCertificate(const std::string& path) {
    Basalt::Ref<Basalt::Crypto::Certificate> certificate;
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read(path), certificate);
    return certificate;
}

inline Basalt::Ref<Basalt::Crypto::PrivateKey> LoadKey(const std::string& path) {
    Basalt::Ref<Basalt::Crypto::PrivateKey> key;
    Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read(path), key);
    return key;
}

inline Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> TrustOnly(
    const std::vector<std::string>& certificatePaths) {
    std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> trusted;
    for (const auto& path : certificatePaths) {
        trusted.push_back(LoadCertificate(path));
    }
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(trusted, resolver);
    return resolver;
}

// <ds:X509Data><ds:X509Certificate>...</ds:X509Certificate></ds:X509Data> for a certificate.
inline Basalt::Ref<Basalt::Xml::ElementNode> X509DataElement(
    const Basalt::Crypto::Certificate& certificate) {
    Basalt::Ref<Basalt::Xml::ElementNode> data;
    Basalt::Xml::CreateElementNode("ds", "X509Data", data);
    Basalt::Ref<Basalt::Xml::ElementNode> value;
    Basalt::Xml::CreateElementNode("ds", "X509Certificate", value);
    Basalt::Ref<Basalt::Xml::TextNode> text;
    Basalt::Xml::CreateTextNode(text);
    text->SetValue(Basalt::StringUtil::Base64Encode(certificate.GetDer()));
    value->AppendChild(text);
    data->AppendChild(value);
    return data;
}

// Signs the assertion's root (enveloped, exclusive c14n, RSA-SHA256 unless given) and returns
// the serialised result.
inline std::string SignAssertion(const std::string& text, const std::string& keyPath,
                                 const std::string& certificatePath,
                                 const char* method = kRsaSha256) {
    auto document = Parse(text);
    auto root = document->GetDocumentElement();
    std::string id;
    root->GetAttribute("ID", id);
    Basalt::Ref<Basalt::Xml::Security::Signature> signature;
    Basalt::Xml::Security::CreateBlankSignature(root.Get(), kExcC14n, method, "ds", signature);
    signature->AddReference("#" + id, kSha256, std::vector<std::string>{kEnveloped, kExcC14n});
    signature->AddKeyInfoContent(X509DataElement(*LoadCertificate(certificatePath)));
    signature->Sign(*LoadKey(keyPath));
    return Serialize(*root);
}

// The ds:Signature child of element, or null.
inline Basalt::Ref<Basalt::Xml::ElementNode> SignatureChild(
    const Basalt::Xml::ElementNode& element) {
    return element.FindChildElement(kDsigNs, "Signature");
}

// Reads the signature of signedElement (its ds:Signature child unless signatureElement is
// given) and verifies it with resolver.
inline bool VerifyElement(Basalt::Xml::ElementNode* signedElement,
                          const Basalt::Xml::Security::KeyInfoResolver* resolver,
                          Basalt::Xml::ElementNode* signatureElement = nullptr) {
    Basalt::Ref<Basalt::Xml::ElementNode> own = SignatureChild(*signedElement);
    Basalt::Ref<Basalt::Xml::Security::Signature> signature;
    Basalt::Xml::Security::CreateSignatureFromDom(
        signedElement, signatureElement ? signatureElement : own.Get(), signature);
    return signature->Verify(resolver);
}

inline bool VerifyText(const std::string& text,
                       const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    auto root = ParseRoot(text);
    return VerifyElement(root.Get(), resolver);
}

// text with the first occurrence of from replaced by to (which must be there).
inline std::string Replace(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::runtime_error("not found: " + from);
    }
    return text.replace(at, from.size(), to);
}

// The "<ds:Signature ...</ds:Signature>" part of a serialised signed element.
inline std::string SignaturePart(const std::string& text) {
    size_t begin = text.find("<ds:Signature");
    size_t end = text.find("</ds:Signature>") + std::string("</ds:Signature>").size();
    return text.substr(begin, end - begin);
}

}  // namespace XmlTest

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include "TestData.h"
#include "foundation/XmlTestUtil.h"

namespace XmlTest {

using namespace Basalt;
using namespace Basalt::Xml;
using namespace Basalt::Xml::Security;

constexpr const char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";
constexpr const char kExcC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
constexpr const char kEnveloped[] = "http://www.w3.org/2000/09/xmldsig#enveloped-signature";
constexpr const char kRsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
constexpr const char kEcdsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256";
constexpr const char kSha256[] = "http://www.w3.org/2001/04/xmlenc#sha256";
constexpr const char kWsuNs[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";

// A small SAML-shaped assertion with the id "_a1".
inline std::string AssertionText() {
    return "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\" ID=\"_a1\" "
           "IssueInstant=\"2024-01-05T03:04:05.006Z\" Version=\"2.0\">"
           "<saml2:Issuer>https://sts.example.test</saml2:Issuer>"
           "<saml2:Subject><saml2:NameID Format=\"urn:upn\">user@example.test</saml2:NameID>"
           "</saml2:Subject><saml2:Conditions NotBefore=\"2024-01-05T03:04:05Z\" "
           "NotOnOrAfter=\"2124-01-05T03:04:05Z\"/></saml2:Assertion>";
}

inline Ref<Crypto::Certificate> LoadCertificate(const std::string& path) {
    Ref<Crypto::Certificate> certificate;
    Crypto::CreateCertificateFromPem(TestData::Read(path), certificate);
    return certificate;
}

inline Ref<Crypto::PrivateKey> LoadKey(const std::string& path) {
    Ref<Crypto::PrivateKey> key;
    Crypto::CreatePrivateKeyFromPem(TestData::Read(path), key);
    return key;
}

inline Ref<KeyInfoResolver> TrustOnly(const std::vector<std::string>& certificatePaths) {
    std::vector<Ref<Crypto::Certificate>> trusted;
    for (const auto& path : certificatePaths) {
        trusted.push_back(LoadCertificate(path));
    }
    Ref<KeyInfoResolver> resolver;
    CreateTrustedCertificateResolver(trusted, resolver);
    return resolver;
}

// <ds:X509Data><ds:X509Certificate>...</ds:X509Certificate></ds:X509Data> for a certificate.
inline Ref<ElementNode> X509DataElement(const std::string& certificatePath) {
    Ref<ElementNode> data = Element("ds", "X509Data");
    data->AppendChild(
        Element("ds", "X509Certificate",
                StringUtil::Base64Encode(LoadCertificate(certificatePath)->GetDer())));
    return data;
}

// Signs the assertion's root (enveloped, exclusive c14n, RSA-SHA256 unless given) and returns
// the serialised result.
inline std::string SignAssertion(const std::string& keyPath, const std::string& certificatePath,
                                 const char* method = kRsaSha256) {
    auto root = ParseRoot(AssertionText());
    Ref<Signature> signature;
    CreateBlankSignature(root.Get(), kExcC14n, method, "ds", signature);
    signature->AddReference("#_a1", kSha256, std::vector<std::string>{kEnveloped, kExcC14n});
    signature->AddKeyInfoContent(X509DataElement(certificatePath));
    signature->Sign(*LoadKey(keyPath));
    return Serialize(*root);
}

using Select = std::function<Ref<ElementNode>(const Ref<ElementNode>&)>;

// What reading and verifying the signature of the element that select picks (the root by
// default) does: "verified", "rejected", or the class and message of the failure.
inline std::string Check(const std::string& text, const KeyInfoResolver* resolver,
                         const Select& select = nullptr) {
    Ref<ElementNode> root = ParseRoot(text);
    Ref<ElementNode> signedElement = select ? select(root) : root, signatureElement;
    for (const auto& child : ChildElements(*signedElement)) {
        if (!signatureElement && child->GetLocalName().rfind("Signatur", 0) == 0) {
            signatureElement = child;
        }
    }
    try {
        Ref<Signature> signature;
        CreateSignatureFromDom(signedElement.Get(), signatureElement.Get(), signature);
        return signature->Verify(resolver) ? "verified" : "rejected";
    } catch (const SignatureSyntaxException& e) {
        return std::string("syntax: ") + e.what();
    } catch (const XmlSecurityException& e) {
        return std::string("security: ") + e.what();
    }
}

// text with the first occurrence of from replaced by to (which must be there).
inline std::string Replace(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::runtime_error("not found: " + from);
    }
    return text.replace(at, from.size(), to);
}

}  // namespace XmlTest

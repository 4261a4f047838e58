#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/XmlSecurity.h>
#include "foundation/XmlSignatureTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace Basalt::Xml::Security;
using namespace XmlTest;

namespace {

const char kStsKey[] = "certs/sts-rsa.key";
const char kStsCert[] = "certs/sts-rsa.pem";

class XmlSignatureTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { s_signed = SignAssertion(AssertionText(), kStsKey, kStsCert); }

    Ref<KeyInfoResolver> m_trusted = TrustOnly({kStsCert});
    static std::string s_signed;
};
std::string XmlSignatureTest::s_signed;

enum class Outcome { Verified, Rejected, SyntaxError, SecurityError };

const char* Name(Outcome outcome) {
    switch (outcome) {
        case Outcome::Verified:
            return "verified";
        case Outcome::Rejected:
            return "rejected";
        case Outcome::SyntaxError:
            return "SignatureSyntaxException";
        case Outcome::SecurityError:
            return "XmlSecurityException";
    }
    return "?";
}

// What reading and verifying the signature of the element that select picks does.
Outcome Check(const std::string& text, const KeyInfoResolver* resolver,
              const std::function<Ref<ElementNode>(const Ref<ElementNode>&)>& select = nullptr,
              std::string* message = nullptr) {
    Ref<ElementNode> root = ParseRoot(text);
    Ref<ElementNode> signedElement = select ? select(root) : root;
    try {
        return VerifyElement(signedElement.Get(), resolver) ? Outcome::Verified : Outcome::Rejected;
    } catch (const SignatureSyntaxException& e) {
        if (message) {
            *message = e.what();
        }
        return Outcome::SyntaxError;
    } catch (const XmlSecurityException& e) {
        if (message) {
            *message = e.what();
        }
        return Outcome::SecurityError;
    }
}

Ref<ElementNode> FirstChildElement(const Ref<ElementNode>& element) {
    for (Ref<Node> child = element->GetFirstChild(); child; child = child->GetNextSibling()) {
        if (auto* found = dynamic_cast<ElementNode*>(child.Get())) {
            return Ref<ElementNode>(found);
        }
    }
    return nullptr;
}

}  // namespace

TEST_F(XmlSignatureTest, SignedAssertionVerifiesAndListsItsReferences) {
    Ref<ElementNode> root = ParseRoot(s_signed);
    Ref<Signature> signature;
    CreateSignatureFromDom(root.Get(), SignatureChild(*root).Get(), signature);
    EXPECT_EQ(kExcC14n, signature->GetCanonicalizationMethod());
    EXPECT_EQ(kRsaSha256, signature->GetSignatureMethod());
    std::vector<SignatureReference> references;
    signature->GetReferences(references);
    ASSERT_EQ(1u, references.size());
    EXPECT_EQ("#_a1", references[0].uri);
    EXPECT_EQ(kSha256, references[0].digestMethod);
    EXPECT_EQ((std::vector<std::string>{kEnveloped, kExcC14n}), references[0].transforms);
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));  // repeatable: nothing left behind

    // The signature still verifies after the assertion moved into another document.
    Ref<ElementNode> holder;
    CreateElementNode("w", "Holder", holder);
    holder->SetAttribute("xmlns:w", "urn:w");
    holder->AppendChild(root);
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));

    EXPECT_EQ(Outcome::Rejected, Check(s_signed, TrustOnly({"certs/other-rsa.pem"}).Get()));
    EXPECT_EQ(Outcome::Verified,
              Check(s_signed, TrustOnly({"certs/other-rsa.pem", kStsCert}).Get()));
}

TEST_F(XmlSignatureTest, AnyOneByteChangeFailsVerification) {
    std::string signatureValue = s_signed.substr(s_signed.find("<ds:SignatureValue>") + 19, 40);
    std::string digestValue = s_signed.substr(s_signed.find("<ds:DigestValue>") + 16, 10);
    auto flip = [](std::string text) {
        text[5] = text[5] == 'A' ? 'B' : 'A';
        return text;
    };
    const std::pair<const char*, std::string> changes[] = {
        {"signed content", Replace(s_signed, "user@example.test", "user@example.tesu")},
        {"signed attribute", Replace(s_signed, "Version=\"2.0\"", "Version=\"2.1\"")},
        {"digest value in SignedInfo", Replace(s_signed, digestValue, flip(digestValue))},
        {"attribute added in SignedInfo",
         Replace(s_signed, "<ds:Reference URI=\"#_a1\">", "<ds:Reference URI=\"#_a1\" Id=\"x\">")},
        {"signature value", Replace(s_signed, signatureValue, flip(signatureValue))},
    };
    for (const auto& [what, text] : changes) {
        EXPECT_EQ(Outcome::Rejected, Check(text, m_trusted.Get())) << what;
    }
    EXPECT_EQ(Outcome::Verified, Check(s_signed, m_trusted.Get()));
}

TEST_F(XmlSignatureTest, KeysComeOnlyFromTheResolver) {
    // Signed by an attacker whose certificate copies the trusted one's subject, issuer and
    // serial, and carried in KeyInfo.
    std::string forged =
        SignAssertion(AssertionText(), "xml/attacker-rsa.key", "xml/attacker-rsa.pem");
    EXPECT_EQ(Outcome::Rejected, Check(forged, m_trusted.Get()));
    std::string asIssuerSerial = Replace(
        forged, SignaturePart(forged).substr(SignaturePart(forged).find("<ds:KeyInfo>")),
        "<ds:KeyInfo><ds:X509Data><ds:X509IssuerSerial><ds:X509IssuerName>CN=Test STS Signing, "
        "O=Example Test, C=US</ds:X509IssuerName><ds:X509SerialNumber>4660"
        "</ds:X509SerialNumber></ds:X509IssuerSerial></ds:X509Data></ds:KeyInfo></ds:Signature>");
    EXPECT_EQ(Outcome::Rejected, Check(asIssuerSerial, m_trusted.Get()));

    EXPECT_THROW(VerifyText(s_signed, nullptr), XmlSecurityException);

    class NoKeys final : public ObjectImpl, public KeyInfoResolver {
      public:
        void Resolve(const ElementNode*, std::vector<Ref<Crypto::Certificate>>& c) const override {
            c.clear();
        }
    };
    Ref<KeyInfoResolver> none(new NoKeys());
    EXPECT_THROW(VerifyText(s_signed, none.Get()), XmlSecurityException);
}

TEST_F(XmlSignatureTest, ResolverNarrowsToTheCertificateKeyInfoNames) {
    Ref<KeyInfoResolver> resolver = TrustOnly({"certs/other-rsa.pem", kStsCert});
    Ref<ElementNode> root = ParseRoot(s_signed);
    Ref<ElementNode> keyInfo = SignatureChild(*root)->FindChildElement(kDsigNs, "KeyInfo");
    std::vector<Ref<Crypto::Certificate>> candidates;
    resolver->Resolve(keyInfo.Get(), candidates);
    ASSERT_EQ(1u, candidates.size());
    EXPECT_TRUE(candidates[0]->Equals(*LoadCertificate(kStsCert)));

    Ref<ElementNode> issuerSerial = ParseRoot(
        "<ds:KeyInfo xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"><ds:X509Data>"
        "<ds:X509IssuerSerial><ds:X509IssuerName>cn=Test STS Signing,o=Example Test,c=US"
        "</ds:X509IssuerName><ds:X509SerialNumber>04660</ds:X509SerialNumber>"
        "</ds:X509IssuerSerial></ds:X509Data></ds:KeyInfo>");
    resolver->Resolve(issuerSerial.Get(), candidates);
    ASSERT_EQ(1u, candidates.size());
    EXPECT_TRUE(candidates[0]->Equals(*LoadCertificate(kStsCert)));

    resolver->Resolve(nullptr, candidates);
    EXPECT_EQ(2u, candidates.size());
}

TEST_F(XmlSignatureTest, SignatureWrappingShapesAreRefused) {
    const std::string signature = SignaturePart(s_signed);
    const std::string original = s_signed;
    const std::string open =
        "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\"";
    const std::string close = "</saml2:Assertion>";
    auto secondChild = [](const Ref<ElementNode>& root) {
        return Ref<ElementNode>(
            dynamic_cast<ElementNode*>(FirstChildElement(root)->GetNextSibling().Get()));
    };
    struct Case {
        const char* name;
        std::string text;
        std::function<Ref<ElementNode>(const Ref<ElementNode>&)> select;
        Outcome expected;
    };
    const Case cases[] = {
        {"signed element wrapped inside a forged one with its id",
         open + " ID=\"_a1\"><saml2:Issuer>evil</saml2:Issuer>" + signature + "<saml2:Advice>" +
             original + "</saml2:Advice>" + close,
         nullptr, Outcome::SecurityError},
        {"forged copy before the signed element, same id",
         "<r>" + open + " ID=\"_a1\"><saml2:Issuer>evil</saml2:Issuer>" + signature + close +
             original + "</r>",
         FirstChildElement, Outcome::SecurityError},
        {"the genuine element when a forged copy precedes it",
         "<r>" + open + " ID=\"_a1\"/>" + original + "</r>", secondChild, Outcome::SecurityError},
        {"xml:id shadowing the id", "<r><evil xml:id=\"_a1\"/>" + original + "</r>", secondChild,
         Outcome::SecurityError},
        {"wsu:Id shadowing the id",
         "<r><evil xmlns:wsu=\"" + std::string(kWsuNs) + "\" wsu:Id=\"_a1\"/>" + original + "</r>",
         secondChild, Outcome::SecurityError},
        {"signed element moved under an extension element",
         open + " ID=\"_evil\"><saml2:Issuer>evil</saml2:Issuer>" + signature + "<saml2:Advice>" +
             Replace(original, signature, "") + "</saml2:Advice>" + close,
         nullptr, Outcome::SecurityError},
        {"reference to another element",
         "<r>" + Replace(original, "ID=\"_a1\"", "ID=\"_a2\"") + "<x ID=\"_a1\"/></r>",
         FirstChildElement, Outcome::SecurityError},
        {"empty reference from an element that is not the document element",
         "<r>" + Replace(original, "URI=\"#_a1\"", "URI=\"\"") + "</r>", FirstChildElement,
         Outcome::SecurityError},
        {"genuine element inside a wrapper verifies", "<r>" + original + "</r>", FirstChildElement,
         Outcome::Verified},
    };
    for (const auto& c : cases) {
        std::string message;
        Outcome outcome = Check(c.text, m_trusted.Get(), c.select, &message);
        EXPECT_EQ(c.expected, outcome) << c.name << ": " << Name(outcome) << " " << message;
    }
}

TEST_F(XmlSignatureTest, ForbiddenReferencesTransformsAndAlgorithmsAreSyntaxErrors) {
    const std::string transforms = "<ds:Transforms>\n<ds:Transform Algorithm=\"" +
                                   std::string(kEnveloped) + "\"/>\n<ds:Transform Algorithm=\"" +
                                   kExcC14n + "\"/>\n</ds:Transforms>";
    auto withTransform = [&](const std::string& transform) {
        return Replace(s_signed, transforms,
                       "<ds:Transforms>" + transform + "<ds:Transform Algorithm=\"" +
                           std::string(kEnveloped) + "\"/></ds:Transforms>");
    };
    auto withAlgorithm = [&](const std::string& from, const std::string& to) {
        return Replace(s_signed, "Algorithm=\"" + from + "\"", "Algorithm=\"" + to + "\"");
    };
    const std::string secret = std::string(SSOCLIENT_TEST_DATA_DIR) + "/xml/secret.txt";
    const std::pair<const char*, std::string> cases[] = {
        {"#xpointer(/)", Replace(s_signed, "URI=\"#_a1\"", "URI=\"#xpointer(/)\"")},
        {"#xpointer(id())", Replace(s_signed, "URI=\"#_a1\"", "URI=\"#xpointer(id('_a1'))\"")},
        {"external file", Replace(s_signed, "URI=\"#_a1\"", "URI=\"file://" + secret + "\"")},
        {"network", Replace(s_signed, "URI=\"#_a1\"", "URI=\"http://127.0.0.1:1/x\"")},
        {"missing URI", Replace(s_signed, " URI=\"#_a1\"", "")},
        {"XPath transform",
         withTransform("<ds:Transform Algorithm=\"http://www.w3.org/TR/1999/REC-xpath-19991116\">"
                       "<ds:XPath>not(ancestor-or-self::ds:Signature)</ds:XPath></ds:Transform>")},
        {"XPath 2 transform",
         withTransform("<ds:Transform Algorithm=\"http://www.w3.org/2002/06/xmldsig-filter2\"/>")},
        {"XSLT transform",
         withTransform(
             "<ds:Transform Algorithm=\"http://www.w3.org/TR/1999/REC-xslt-19991116\"/>")},
        {"Base64 transform",
         withTransform("<ds:Transform Algorithm=\"http://www.w3.org/2000/09/xmldsig#base64\"/>")},
        {"XPointer transform",
         withTransform(
             "<ds:Transform Algorithm=\"http://www.w3.org/2001/04/xmldsig-more/xptr\"/>")},
        {"Manifest", Replace(s_signed, "</ds:Signature>",
                             "<ds:Object><ds:Manifest><ds:Reference URI=\"file://" + secret +
                                 "\"/></ds:Manifest></ds:Object></ds:Signature>")},
        {"RSA-SHA1", withAlgorithm(kRsaSha256, "http://www.w3.org/2000/09/xmldsig#rsa-sha1")},
        {"SHA-1 digest", withAlgorithm(kSha256, "http://www.w3.org/2000/09/xmldsig#sha1")},
        {"RSA-MD5", withAlgorithm(kRsaSha256, "http://www.w3.org/2001/04/xmldsig-more#rsa-md5")},
        {"MD5 digest", withAlgorithm(kSha256, "http://www.w3.org/2001/04/xmldsig-more#md5")},
        {"truncated HMAC",
         Replace(s_signed, "<ds:SignatureMethod Algorithm=\"" + std::string(kRsaSha256) + "\"/>",
                 "<ds:SignatureMethod Algorithm=\"http://www.w3.org/2000/09/xmldsig#hmac-sha1\">"
                 "<ds:HMACOutputLength>8</ds:HMACOutputLength></ds:SignatureMethod>")},
        {"HMAC-SHA256",
         withAlgorithm(kRsaSha256, "http://www.w3.org/2001/04/xmldsig-more#hmac-sha256")},
        {"unknown c14n", withAlgorithm(kExcC14n, "http://www.w3.org/2006/12/xml-c14n11")},
        {"not a signature", Replace(Replace(s_signed, "<ds:Signature ", "<ds:Signatur "),
                                    "</ds:Signature>", "</ds:Signatur>")},
        {"text inside SignedInfo",
         Replace(s_signed, "<ds:SignatureMethod", "x<ds:SignatureMethod")},
    };
    for (const auto& [name, text] : cases) {
        Ref<ElementNode> root = ParseRoot(text);
        Ref<ElementNode> element = FirstChildElement(root);
        for (; element && element->GetLocalName().find("Signatur") != 0;
             element =
                 Ref<ElementNode>(dynamic_cast<ElementNode*>(element->GetNextSibling().Get()))) {
        }
        ASSERT_TRUE(element) << name;
        Ref<Signature> signature;
        EXPECT_THROW(CreateSignatureFromDom(root.Get(), element.Get(), signature),
                     SignatureSyntaxException)
            << name;
    }
}

TEST_F(XmlSignatureTest, SigningRefusesWhatVerificationWould) {
    Ref<ElementNode> root = ParseRoot(AssertionText());
    Ref<Signature> signature;
    EXPECT_THROW(
        CreateBlankSignature(root.Get(), kExcC14n, "http://www.w3.org/2000/09/xmldsig#rsa-sha1",
                             "ds", signature),
        XmlSecurityException);
    EXPECT_THROW(CreateBlankSignature(root.Get(), "urn:c14n", kRsaSha256, "ds", signature),
                 XmlSecurityException);
    CreateBlankSignature(root.Get(), kExcC14n, kRsaSha256, "ds", signature);
    EXPECT_THROW(
        signature->AddReference("#_a1", "http://www.w3.org/2000/09/xmldsig#sha1", kExcC14n),
        XmlSecurityException);
    EXPECT_THROW(signature->AddReference("#xpointer(/)", kSha256, kExcC14n), XmlSecurityException);
    EXPECT_THROW(
        signature->AddReference("#_a1", kSha256, "http://www.w3.org/TR/1999/REC-xslt-19991116"),
        XmlSecurityException);
    EXPECT_THROW(signature->Sign(*LoadKey(kStsKey)), XmlSecurityException);  // no reference
    signature->AddReference("#_nowhere", kSha256, kExcC14n);
    EXPECT_THROW(signature->Sign(*LoadKey(kStsKey)), XmlSecurityException);
    EXPECT_THROW(signature->Sign(*LoadKey("certs/user-ec.key")), XmlSecurityException);
    EXPECT_THROW(signature->Verify(m_trusted.Get()), XmlSecurityException);
}

TEST_F(XmlSignatureTest, EcdsaSignaturesVerify) {
    std::string text =
        SignAssertion(AssertionText(), "certs/user-ec.key", "certs/user-ec.pem", kEcdsaSha256);
    EXPECT_EQ(Outcome::Verified, Check(text, TrustOnly({"certs/user-ec.pem"}).Get()));
    EXPECT_EQ(Outcome::Rejected, Check(text, TrustOnly({kStsCert}).Get()));
}

TEST_F(XmlSignatureTest, IndependentDocumentsVerifyConcurrentlyWithOneResolver) {
    std::vector<std::thread> threads;
    std::atomic<int> verified{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5; ++i) {
                verified += Check(s_signed, m_trusted.Get()) == Outcome::Verified ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(20, verified.load());
}

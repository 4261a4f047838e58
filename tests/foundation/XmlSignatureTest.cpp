#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/XmlSignatureTestUtil.h"
#include "support/ExpectThrow.h"

using namespace XmlTest;

namespace {

const char kStsKey[] = "certs/sts-rsa.key";
const char kStsCert[] = "certs/sts-rsa.pem";
const char kAlgorithm[] = "http://www.w3.org/2000/09/xmldsig#";
const char kMore[] = "http://www.w3.org/2001/04/xmldsig-more#";

using Select = std::function<Ref<ElementNode>(const Ref<ElementNode>&)>;
const Select kFirst = [](const Ref<ElementNode>& root) { return ChildElements(*root).at(0); };
const Select kSecond = [](const Ref<ElementNode>& root) { return ChildElements(*root).at(1); };

// What reading and verifying the signature of the element that select picks (the root by
// default) does: "verified", "rejected", or the class and message of the failure.
std::string Check(const std::string& text, const KeyInfoResolver* resolver,
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

// The "<ds:Signature ...</ds:Signature>" part of a serialised signed element.
std::string SignaturePart(const std::string& text) {
    size_t begin = text.find("<ds:Signature");
    return text.substr(begin, text.find("</ds:Signature>") + 15 - begin);
}

class XmlSignatureTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { s_signed = SignAssertion(kStsKey, kStsCert); }

    Ref<KeyInfoResolver> m_trusted = TrustOnly({kStsCert});
    static std::string s_signed;
};
std::string XmlSignatureTest::s_signed;

}  // namespace

TEST_F(XmlSignatureTest, SignedAssertionVerifiesAndListsItsReferences) {
    Ref<ElementNode> root = ParseRoot(s_signed);
    Ref<Signature> signature;
    CreateSignatureFromDom(root.Get(), root->FindChildElement(kDsigNs, "Signature").Get(),
                           signature);
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
    Ref<ElementNode> holder = Element("w", "Holder");
    holder->SetAttribute("xmlns:w", "urn:w");
    holder->AppendChild(root);
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));

    EXPECT_EQ("rejected", Check(s_signed, TrustOnly({"certs/other-rsa.pem"}).Get()));
    EXPECT_EQ("verified", Check(s_signed, TrustOnly({"certs/other-rsa.pem", kStsCert}).Get()));
    std::string ecdsa = SignAssertion("certs/user-ec.key", "certs/user-ec.pem", kEcdsaSha256);
    EXPECT_EQ("verified", Check(ecdsa, TrustOnly({"certs/user-ec.pem"}).Get()));
    EXPECT_EQ("rejected", Check(ecdsa, m_trusted.Get()));
}

TEST_F(XmlSignatureTest, AnyOneByteChangeFailsVerification) {
    std::string signatureValue = s_signed.substr(s_signed.find("<ds:SignatureValue>") + 19, 40);
    std::string digestValue = s_signed.substr(s_signed.find("<ds:DigestValue>") + 16, 10);
    auto flip = [](std::string text) {
        text[5] = text[5] == 'A' ? 'B' : 'A';
        return text;
    };
    const std::string changes[] = {
        Replace(s_signed, "user@example.test", "user@example.tesu"),
        Replace(s_signed, "Version=\"2.0\"", "Version=\"2.1\""),
        Replace(s_signed, digestValue, flip(digestValue)),
        Replace(s_signed, "<ds:Reference URI=\"#_a1\">", "<ds:Reference URI=\"#_a1\" Id=\"x\">"),
        Replace(s_signed, signatureValue, flip(signatureValue)),
    };
    for (const auto& text : changes) {
        EXPECT_EQ("rejected", Check(text, m_trusted.Get())) << text;
    }
}

TEST_F(XmlSignatureTest, KeysComeOnlyFromTheTrustedResolver) {
    // Signed by an attacker whose certificate copies the trusted one's subject, issuer and
    // serial, carried in KeyInfo as the certificate or as issuer and serial.
    std::string forged = SignAssertion("xml/attacker-rsa.key", "xml/attacker-rsa.pem");
    EXPECT_EQ("rejected", Check(forged, m_trusted.Get()));
    std::string keyInfo = SignaturePart(forged).substr(SignaturePart(forged).find("<ds:KeyInfo>"));
    EXPECT_EQ("rejected",
              Check(Replace(forged, keyInfo,
                            "<ds:KeyInfo><ds:X509Data><ds:X509IssuerSerial><ds:X509IssuerName>CN="
                            "Test STS Signing, O=Example Test, C=US</ds:X509IssuerName>"
                            "<ds:X509SerialNumber>4660</ds:X509SerialNumber></ds:X509IssuerSerial>"
                            "</ds:X509Data></ds:KeyInfo></ds:Signature>"),
                    m_trusted.Get()));
    EXPECT_EQ("security: No key resolver to verify the signature with", Check(s_signed, nullptr));
    class NoKeys final : public ObjectImpl, public KeyInfoResolver {
      public:
        void Resolve(const ElementNode*, std::vector<Ref<Crypto::Certificate>>& c) const override {
            c.clear();
        }
    };
    Ref<KeyInfoResolver> none(new NoKeys());
    EXPECT_EQ("security: No trusted key to verify the signature with", Check(s_signed, none.Get()));

    // The resolver narrows its certificates to the one KeyInfo names, by certificate or by
    // issuer and serial (names compared as DNs, serials as numbers); no KeyInfo gives them all.
    Ref<KeyInfoResolver> resolver = TrustOnly({"certs/other-rsa.pem", kStsCert});
    Ref<ElementNode> root = ParseRoot(s_signed);
    std::vector<Ref<Crypto::Certificate>> candidates;
    resolver->Resolve(
        root->FindChildElement(kDsigNs, "Signature")->FindChildElement(kDsigNs, "KeyInfo").Get(),
        candidates);
    ASSERT_EQ(1u, candidates.size());
    EXPECT_TRUE(candidates[0]->Equals(*LoadCertificate(kStsCert)));
    resolver->Resolve(
        ParseRoot("<ds:KeyInfo xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\">"
                  "<ds:X509Data><ds:X509IssuerSerial><ds:X509IssuerName>cn=Test STS "
                  "Signing,o=Example Test,c=US</ds:X509IssuerName><ds:X509SerialNumber>"
                  "04660</ds:X509SerialNumber></ds:X509IssuerSerial></ds:X509Data>"
                  "</ds:KeyInfo>")
            .Get(),
        candidates);
    ASSERT_EQ(1u, candidates.size());
    EXPECT_TRUE(candidates[0]->Equals(*LoadCertificate(kStsCert)));
    resolver->Resolve(nullptr, candidates);
    EXPECT_EQ(2u, candidates.size());
}

TEST_F(XmlSignatureTest, SignatureWrappingShapesAreRefused) {
    const std::string signature = SignaturePart(s_signed), original = s_signed;
    const std::string open =
                          "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\"",
                      close = "</saml2:Assertion>", evil = "<saml2:Issuer>evil</saml2:Issuer>";
    const struct {
        const char* name;
        std::string text;
        Select select;
        const char* expected;
    } cases[] = {
        {"signed element wrapped inside a forged one with its id",
         open + " ID=\"_a1\">" + evil + signature + "<saml2:Advice>" + original +
             "</saml2:Advice>" + close,
         nullptr, "security: The id '_a1' appears on more than one element of the document"},
        {"forged copy before the signed element, same id",
         "<r>" + open + " ID=\"_a1\">" + evil + signature + close + original + "</r>", kFirst,
         "security: The id '_a1' appears on more than one element of the document"},
        {"the genuine element when a forged copy precedes it",
         "<r>" + open + " ID=\"_a1\"/>" + original + "</r>", kSecond,
         "security: The id '_a1' appears on more than one element of the document"},
        {"xml:id shadowing the id", "<r><evil xml:id=\"_a1\"/>" + original + "</r>", kSecond,
         "security: The id '_a1' appears on more than one element of the document"},
        {"wsu:Id shadowing the id",
         "<r><evil xmlns:wsu=\"" + std::string(kWsuNs) + "\" wsu:Id=\"_a1\"/>" + original + "</r>",
         kSecond, "security: The id '_a1' appears on more than one element of the document"},
        {"signed element moved under an extension element",
         open + " ID=\"_evil\">" + evil + signature + "<saml2:Advice>" +
             Replace(original, signature, "") + "</saml2:Advice>" + close,
         nullptr, "security: The reference '#_a1' does not name the signed element"},
        {"reference to another element",
         "<r>" + Replace(original, "ID=\"_a1\"", "ID=\"_a2\"") + "<x ID=\"_a1\"/></r>", kFirst,
         "security: The reference '#_a1' does not name the signed element"},
        {"empty reference from an element that is not the document element",
         "<r>" + Replace(original, "URI=\"#_a1\"", "URI=\"\"") + "</r>", kFirst,
         "security: An empty reference URI is only allowed when the signed element is the document "
         "element"},
        {"genuine element inside a wrapper", "<r>" + original + "</r>", kFirst, "verified"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Check(c.text, m_trusted.Get(), c.select)) << c.name;
    }
}

TEST_F(XmlSignatureTest, ForbiddenReferencesTransformsAndAlgorithmsAreSyntaxErrors) {
    const std::string transforms = "<ds:Transforms>\n<ds:Transform Algorithm=\"" +
                                   std::string(kEnveloped) + "\"/>\n<ds:Transform Algorithm=\"" +
                                   kExcC14n + "\"/>\n</ds:Transforms>";
    auto transform = [&](const std::string& algorithm) {
        return Replace(s_signed, transforms,
                       "<ds:Transforms><ds:Transform Algorithm=\"" + algorithm +
                           "\"/><ds:Transform Algorithm=\"" + kEnveloped + "\"/></ds:Transforms>");
    };
    auto uri = [&](const std::string& to) { return Replace(s_signed, "URI=\"#_a1\"", to); };
    using Case = std::pair<std::string, std::string>;
    auto badUri = [&](const std::string& to) -> Case {
        return {uri("URI=\"" + to + "\""), "The reference URI '" + to +
                                               "' is not allowed: only \"\" and same-document "
                                               "\"#id\" references are"};
    };
    // Every algorithm slot refuses what is not on its list.
    auto refused = [&](const std::string& slot, const std::string& from,
                       const std::string& to) -> Case {
        return {slot == "Transform"
                    ? transform(to)
                    : Replace(s_signed, "Algorithm=\"" + from + "\"", "Algorithm=\"" + to + "\""),
                "The algorithm '" + to + "' of ds:" + slot + " is not allowed"};
    };
    const std::string secret = std::string(SSOCLIENT_TEST_DATA_DIR) + "/xml/secret.txt";
    const std::string dsig = kAlgorithm, more = kMore;
    const Case cases[] = {
        badUri("#xpointer(/)"),
        badUri("#xpointer(id('_a1'))"),
        badUri("file://" + secret),
        badUri("http://127.0.0.1:1/x"),
        {uri(""), "A ds:Reference without URI is not allowed"},
        refused("Transform", "", "http://www.w3.org/TR/1999/REC-xpath-19991116"),
        refused("Transform", "", "http://www.w3.org/2002/06/xmldsig-filter2"),
        refused("Transform", "", "http://www.w3.org/TR/1999/REC-xslt-19991116"),
        refused("Transform", "", dsig + "base64"),
        refused("Transform", "", more + "xptr"),
        refused("SignatureMethod", kRsaSha256, dsig + "rsa-sha1"),
        refused("SignatureMethod", kRsaSha256, more + "rsa-md5"),
        refused("SignatureMethod", kRsaSha256, more + "hmac-sha256"),
        refused("DigestMethod", kSha256, dsig + "sha1"),
        refused("DigestMethod", kSha256, more + "md5"),
        refused("CanonicalizationMethod", kExcC14n, "http://www.w3.org/2006/12/xml-c14n11"),
        {Replace(s_signed, "<ds:SignatureMethod Algorithm=\"" + std::string(kRsaSha256) + "\"/>",
                 "<ds:SignatureMethod Algorithm=\"" + dsig +
                     "hmac-sha1\"><ds:HMACOutputLength>8</ds:HMACOutputLength>"
                     "</ds:SignatureMethod>"),
         "The algorithm '" + dsig + "hmac-sha1' of ds:SignatureMethod is not allowed"},
        {Replace(s_signed, "</ds:Signature>",
                 "<ds:Object><ds:Manifest><ds:Reference URI=\"file://" + secret +
                     "\"/></ds:Manifest></ds:Object></ds:Signature>"),
         "Unexpected ds:Object in ds:Signature"},
        {Replace(Replace(s_signed, "<ds:Signature ", "<ds:Signatur "), "</ds:Signature>",
                 "</ds:Signatur>"),
         "Expected ds:Signature, found ds:Signatur"},
        {Replace(s_signed, "<ds:SignatureMethod", "x<ds:SignatureMethod"),
         "Unexpected text in ds:SignedInfo"},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_EQ("syntax: " + message, Check(text, m_trusted.Get()));
    }
}

TEST_F(XmlSignatureTest, SigningRefusesWhatVerificationWould) {
    Ref<ElementNode> root = ParseRoot(AssertionText());
    Ref<Signature> signature;
    auto throws = [](const std::function<void()>& action, const std::string& message) {
        return TestSupport::Throws<XmlSecurityException>(action, message);
    };
    EXPECT_TRUE(throws(
        [&] {
            CreateBlankSignature(root.Get(), kExcC14n, std::string(kAlgorithm) + "rsa-sha1", "ds",
                                 signature);
        },
        "Unsupported signature method 'http://www.w3.org/2000/09/xmldsig#rsa-sha1'"));
    EXPECT_TRUE(
        throws([&] { CreateBlankSignature(root.Get(), "urn:c14n", kRsaSha256, "ds", signature); },
               "Unsupported canonicalisation method 'urn:c14n'"));
    CreateBlankSignature(root.Get(), kExcC14n, kRsaSha256, "ds", signature);
    EXPECT_TRUE(
        throws([&] { signature->AddReference("#_a1", std::string(kAlgorithm) + "sha1", kExcC14n); },
               "Unsupported digest method 'http://www.w3.org/2000/09/xmldsig#sha1'"));
    EXPECT_TRUE(throws([&] { signature->AddReference("#xpointer(/)", kSha256, kExcC14n); },
                       "The reference URI '#xpointer(/)' is not allowed"));
    EXPECT_TRUE(throws(
        [&] {
            signature->AddReference("#_a1", kSha256, "http://www.w3.org/TR/1999/REC-xslt-19991116");
        },
        "Unsupported transform 'http://www.w3.org/TR/1999/REC-xslt-19991116'"));
    EXPECT_TRUE(throws([&] { signature->Sign(*LoadKey(kStsKey)); },
                       "A signature needs at least one reference"));
    signature->AddReference("#_nowhere", kSha256, kExcC14n);
    EXPECT_TRUE(
        throws([&] { signature->Sign(*LoadKey(kStsKey)); }, "No element has the id '_nowhere'"));
    EXPECT_TRUE(throws([&] { signature->Sign(*LoadKey("certs/user-ec.key")); },
                       "The key does not fit the signature method "
                       "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256"));
    EXPECT_TRUE(throws([&] { signature->Verify(m_trusted.Get()); },
                       "Only a signature read from a document can be verified"));
}

TEST_F(XmlSignatureTest, IndependentDocumentsVerifyConcurrentlyWithOneResolver) {
    std::vector<std::thread> threads;
    std::atomic<int> verified{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5; ++i) {
                verified += Check(s_signed, m_trusted.Get()) == "verified" ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(20, verified.load());
}

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "foundation/XmlSignatureTestUtil.h"
#include "support/ExpectThrow.h"

using namespace XmlTest;

namespace {

const char kStsKey[] = "certs/sts-rsa.key";
const char kStsCert[] = "certs/sts-rsa.pem";
const std::string kDsig = "http://www.w3.org/2000/09/xmldsig#";
const std::string kMore = "http://www.w3.org/2001/04/xmldsig-more#";

const Select kFirst = [](const Ref<ElementNode>& root) { return ChildElements(*root).at(0); };
const Select kSecond = [](const Ref<ElementNode>& root) { return ChildElements(*root).at(1); };

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

TEST_F(XmlSignatureTest, OnlyTrustedKeysVerifyAgainAndAfterAMove) {
    Ref<ElementNode> root = ParseRoot(s_signed);
    Ref<Signature> signature;
    CreateSignatureFromDom(root.Get(), root->FindChildElement(kDsigNs, "Signature").Get(),
                           signature);
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
    auto flip = [](std::string text) { return text.replace(5, 1, text[5] == 'A' ? "B" : "A"); };
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"user@example.test", "user@example.tesu"},
             {"Version=\"2.0\"", "Version=\"2.1\""},
             {digestValue, flip(digestValue)},
             {"<ds:Reference URI=\"#_a1\">", "<ds:Reference URI=\"#_a1\" Id=\"x\">"},
             {signatureValue, flip(signatureValue)}}) {
        EXPECT_EQ("rejected", Check(Replace(s_signed, from, to), m_trusted.Get())) << to;
    }
}

TEST_F(XmlSignatureTest, KeysComeOnlyFromTheTrustedResolver) {
    // Signed by an attacker whose certificate copies the trusted one's subject, issuer and
    // serial, carried in KeyInfo as the certificate or as issuer and serial.
    std::string forged = SignAssertion("xml/attacker-rsa.key", "xml/attacker-rsa.pem");
    EXPECT_EQ("rejected", Check(forged, m_trusted.Get()));
    const std::string issuerSerial =
        "<ds:KeyInfo><ds:X509Data><ds:X509IssuerSerial><ds:X509IssuerName>CN=Test STS Signing, "
        "O=Example Test, C=US</ds:X509IssuerName><ds:X509SerialNumber>4660</ds:X509SerialNumber>"
        "</ds:X509IssuerSerial></ds:X509Data></ds:KeyInfo>";
    const std::string keyInfo = SignaturePart(forged).substr(SignaturePart(forged).find("<ds:K"));
    EXPECT_EQ("rejected",
              Check(Replace(forged, keyInfo, issuerSerial + "</ds:Signature>"), m_trusted.Get()));
    EXPECT_EQ("security: No key resolver to verify the signature with", Check(s_signed, nullptr));
    class NoKeys final : public ObjectImpl, public KeyInfoResolver {
        void Resolve(const ElementNode*, std::vector<Ref<Crypto::Certificate>>& c) const override {
            c.clear();
        }
    };
    Ref<KeyInfoResolver> none(new NoKeys());
    EXPECT_EQ("security: No trusted key to verify the signature with", Check(s_signed, none.Get()));

    // The resolver narrows its certificates to the one KeyInfo names, by certificate or by
    // issuer and serial (names compared as DNs, serials as numbers); no KeyInfo gives them all.
    Ref<KeyInfoResolver> resolver = TrustOnly({"certs/other-rsa.pem", kStsCert});
    std::string genuine = SignaturePart(s_signed).substr(SignaturePart(s_signed).find("<ds:K"));
    genuine.resize(genuine.size() - 15);  // without </ds:Signature>
    const std::string ds = " xmlns:ds=\"" + kDsig + "\">";
    for (const std::string& text :
         {Replace(genuine, ">", ds),
          Replace(Replace(Replace(issuerSerial, ">", ds), "4660", "04660"),
                  "CN=Test STS Signing, O=Example Test, C=US",
                  "cn=Test STS Signing,o=Example Test,c=US")}) {
        std::vector<Ref<Crypto::Certificate>> candidates;
        resolver->Resolve(ParseRoot(text).Get(), candidates);
        ASSERT_EQ(1u, candidates.size()) << text;
        EXPECT_TRUE(candidates[0]->Equals(*LoadCertificate(kStsCert)));
    }
    std::vector<Ref<Crypto::Certificate>> all;
    resolver->Resolve(nullptr, all);
    EXPECT_EQ(2u, all.size());
}

TEST_F(XmlSignatureTest, SignatureWrappingShapesAreRefused) {
    const std::string signature = SignaturePart(s_signed), original = s_signed;
    const std::string open = original.substr(0, original.find(" ID=")),
                      close = "</saml2:Assertion>", evil = "<saml2:Issuer>evil</saml2:Issuer>";
    const std::string twice =
                          "security: The id '_a1' appears on more than one element of the document",
                      elsewhere = "security: The reference '#_a1' does not name the signed element";
    const struct {
        std::string text;
        Select select;
        std::string expected;
    } cases[] = {
        // The signed element wrapped inside a forged one with its id; a forged copy before it,
        // chosen or not; xml:id and wsu:Id shadowing the id.
        {open + " ID=\"_a1\">" + evil + signature + "<saml2:Advice>" + original +
             "</saml2:Advice>" + close,
         nullptr, twice},
        {"<r>" + open + " ID=\"_a1\">" + evil + signature + close + original + "</r>", kFirst,
         twice},
        {"<r>" + open + " ID=\"_a1\"/>" + original + "</r>", kSecond, twice},
        {"<r><evil xml:id=\"_a1\"/>" + original + "</r>", kSecond, twice},
        {"<r><evil xmlns:wsu=\"" + std::string(kWsuNs) + "\" wsu:Id=\"_a1\"/>" + original + "</r>",
         kSecond, twice},
        // The signed element moved under an extension element; a reference to another element.
        {open + " ID=\"_evil\">" + evil + signature + "<saml2:Advice>" +
             Replace(original, signature, "") + "</saml2:Advice>" + close,
         nullptr, elsewhere},
        {"<r>" + Replace(original, "ID=\"_a1\"", "ID=\"_a2\"") + "<x ID=\"_a1\"/></r>", kFirst,
         elsewhere},
        {"<r>" + Replace(original, "URI=\"#_a1\"", "URI=\"\"") + "</r>", kFirst,
         "security: An empty reference URI is only allowed when the signed element is the "
         "document element"},
        {"<r>" + original + "</r>", kFirst, "verified"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Check(c.text, m_trusted.Get(), c.select)) << c.text;
    }
}

TEST_F(XmlSignatureTest, ForbiddenReferencesTransformsAndAlgorithmsAreSyntaxErrors) {
    using Case = std::pair<std::string, std::string>;
    auto uri = [&](const std::string& to) { return Replace(s_signed, "URI=\"#_a1\"", to); };
    auto badUri = [&](const std::string& to) -> Case {
        return {uri("URI=\"" + to + "\""), "The reference URI '" + to +
                                               "' is not allowed: only \"\" and same-document "
                                               "\"#id\" references are"};
    };
    // Every algorithm slot refuses what is not on its list.
    auto refused = [&](const std::string& slot, const std::string& from,
                       const std::string& to) -> Case {
        const std::string first = "Algorithm=\"" + (from.empty() ? kEnveloped : from) + "\"";
        return {Replace(s_signed, first, "Algorithm=\"" + to + "\""),
                "The algorithm '" + to + "' of ds:" + slot + " is not allowed"};
    };
    const std::string secret = std::string(SSOCLIENT_TEST_DATA_DIR) + "/xml/secret.txt";
    const std::string rsaSha256 = kRsaSha256, sha256 = kSha256;
    const Case cases[] = {
        badUri("#xpointer(/)"),
        badUri("#xpointer(id('_a1'))"),
        badUri("file://" + secret),
        badUri("http://127.0.0.1:1/x"),
        {uri(""), "A ds:Reference without URI is not allowed"},
        refused("Transform", "", "http://www.w3.org/TR/1999/REC-xpath-19991116"),
        refused("Transform", "", "http://www.w3.org/2002/06/xmldsig-filter2"),
        refused("Transform", "", "http://www.w3.org/TR/1999/REC-xslt-19991116"),
        refused("Transform", "", kDsig + "base64"),
        refused("Transform", "", kMore + "xptr"),
        refused("SignatureMethod", rsaSha256, kDsig + "rsa-sha1"),
        refused("SignatureMethod", rsaSha256, kMore + "rsa-md5"),
        refused("SignatureMethod", rsaSha256, kMore + "hmac-sha256"),
        refused("DigestMethod", sha256, kDsig + "sha1"),
        refused("DigestMethod", sha256, kMore + "md5"),
        refused("CanonicalizationMethod", kExcC14n, "http://www.w3.org/2006/12/xml-c14n11"),
        {Replace(s_signed, "Algorithm=\"" + rsaSha256 + "\"/>",
                 "Algorithm=\"" + kDsig +
                     "hmac-sha1\"><ds:HMACOutputLength>8"
                     "</ds:HMACOutputLength></ds:SignatureMethod>"),
         "The algorithm '" + kDsig + "hmac-sha1' of ds:SignatureMethod is not allowed"},
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
    auto blank = [&](const std::string& c14n, const std::string& method) {
        return
            [&, c14n, method] { CreateBlankSignature(root.Get(), c14n, method, "ds", signature); };
    };
    auto add = [&](const std::string& uri, const std::string& digest,
                   const std::string& transform) {
        return [&, uri, digest, transform] { signature->AddReference(uri, digest, transform); };
    };
    auto sign = [&](const char* key) { return [&, key] { signature->Sign(*LoadKey(key)); }; };
    const std::string xslt = "http://www.w3.org/TR/1999/REC-xslt-19991116";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {blank(kExcC14n, kDsig + "rsa-sha1"),
         "Unsupported signature method '" + kDsig + "rsa-sha1'"},
        {blank("urn:c14n", kRsaSha256), "Unsupported canonicalisation method 'urn:c14n'"},
        {blank(kExcC14n, kRsaSha256), ""},
        {add("#_a1", kDsig + "sha1", kExcC14n), "Unsupported digest method '" + kDsig + "sha1'"},
        {add("#xpointer(/)", kSha256, kExcC14n), "The reference URI '#xpointer(/)' is not allowed"},
        {add("#_a1", kSha256, xslt), "Unsupported transform '" + xslt + "'"},
        {sign(kStsKey), "A signature needs at least one reference"},
        {add("#_nowhere", kSha256, kExcC14n), ""},
        {sign(kStsKey), "No element has the id '_nowhere'"},
        {sign("certs/user-ec.key"),
         "The key does not fit the signature method " + std::string(kRsaSha256)},
        {[&] { signature->Verify(m_trusted.Get()); },
         "Only a signature read from a document can be verified"},
    };
    for (const auto& [action, message] : cases) {
        if (message.empty()) {
            action();
        } else {
            EXPECT_TRUE(TestSupport::Throws<XmlSecurityException>(action, message));
        }
    }
}

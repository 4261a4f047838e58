#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include "TestData.h"
#include "foundation/XmlTestUtil.h"
#include "support/ExpectThrow.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace Basalt::Xml::Security;
using namespace XmlTest;

namespace {

const std::string kDsig = "http://www.w3.org/2000/09/xmldsig#",
                  kMore = "http://www.w3.org/2001/04/xmldsig-more#",
                  kExcC14n = "http://www.w3.org/2001/10/xml-exc-c14n#",
                  kEnveloped = kDsig + "enveloped-signature", kRsaSha256 = kMore + "rsa-sha256",
                  kSha256 = "http://www.w3.org/2001/04/xmlenc#sha256";

// A small SAML-shaped assertion with the id "_a1".
std::string AssertionText() {
    return "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\" ID=\"_a1\" "
           "IssueInstant=\"2024-01-05T03:04:05.006Z\" Version=\"2.0\">"
           "<saml2:Issuer>https://sts.example.test</saml2:Issuer>"
           "<saml2:Subject><saml2:NameID Format=\"urn:upn\">user@example.test</saml2:NameID>"
           "</saml2:Subject><saml2:Conditions NotBefore=\"2024-01-05T03:04:05Z\" "
           "NotOnOrAfter=\"2124-01-05T03:04:05Z\"/></saml2:Assertion>";
}

Ref<Crypto::Certificate> LoadCertificate(const std::string& path) {
    Ref<Crypto::Certificate> certificate;
    Crypto::CreateCertificateFromPem(TestData::Read(path), certificate);
    return certificate;
}

Ref<Crypto::PrivateKey> LoadKey(const std::string& path) {
    Ref<Crypto::PrivateKey> key;
    Crypto::CreatePrivateKeyFromPem(TestData::Read(path), key);
    return key;
}

Ref<KeyInfoResolver> TrustOnly(const std::vector<std::string>& certificatePaths) {
    std::vector<Ref<Crypto::Certificate>> trusted;
    for (const auto& path : certificatePaths) {
        trusted.push_back(LoadCertificate(path));
    }
    Ref<KeyInfoResolver> resolver;
    CreateTrustedCertificateResolver(trusted, resolver);
    return resolver;
}

// Signs the assertion's root (enveloped, exclusive c14n, RSA-SHA256 unless given) and returns
// the serialised result.
std::string SignAssertion(const std::string& keyPath, const std::string& certificatePath,
                          const std::string& method = kRsaSha256) {
    auto root = ParseRoot(AssertionText());
    Ref<Signature> signature;
    CreateBlankSignature(root.Get(), kExcC14n, method, "ds", signature);
    signature->AddReference("#_a1", kSha256, std::vector<std::string>{kEnveloped, kExcC14n});
    Ref<ElementNode> data = Element("ds", "X509Data");
    data->AppendChild(
        Element("ds", "X509Certificate",
                StringUtil::Base64Encode(LoadCertificate(certificatePath)->GetDer())));
    signature->AddKeyInfoContent(data);
    signature->Sign(*LoadKey(keyPath));
    return Serialize(*root);
}

using Select = std::function<Ref<ElementNode>(const Ref<ElementNode>&)>;

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

// text with the first occurrence of from replaced by to (which must be there).
std::string Replace(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::runtime_error("not found: " + from);
    }
    return text.replace(at, from.size(), to);
}

const char kStsKey[] = "certs/sts-rsa.key";
const char kStsCert[] = "certs/sts-rsa.pem";

const Select kFirst = [](const Ref<ElementNode>& root) { return ChildElements(*root).at(0); };
const Select kSecond = [](const Ref<ElementNode>& root) { return ChildElements(*root).at(1); };

// The "<ds:Signature ...</ds:Signature>" part of a serialised signed element.
std::string SignaturePart(const std::string& text) {
    size_t begin = text.find("<ds:Signature");
    return text.substr(begin, text.find("</ds:Signature>") + 15 - begin);
}

// The exit status of a shell command, its output discarded.
int Shell(const std::string& command) {
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
    CreateSignatureFromDom(root.Get(), root->FindChildElement(kDsig, "Signature").Get(), signature);
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));  // repeatable: nothing left behind
    // The signature still verifies after the assertion moved into another document.
    Ref<ElementNode> holder = Element("w", "Holder");
    holder->SetAttribute("xmlns:w", "urn:w");
    holder->AppendChild(root);
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));

    EXPECT_EQ("rejected", Check(s_signed, TrustOnly({"certs/other-rsa.pem"}).Get()));
    EXPECT_EQ("verified", Check(s_signed, TrustOnly({"certs/other-rsa.pem", kStsCert}).Get()));
    std::string ecdsa =
        SignAssertion("certs/user-ec.key", "certs/user-ec.pem", kMore + "ecdsa-sha256");
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
        {"<r><evil xmlns:wsu=\"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-"
         "utility-1.0.xsd\" wsu:Id=\"_a1\"/>" +
             original + "</r>",
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
        refused("SignatureMethod", kRsaSha256, kDsig + "rsa-sha1"),
        refused("SignatureMethod", kRsaSha256, kMore + "rsa-md5"),
        refused("SignatureMethod", kRsaSha256, kMore + "hmac-sha256"),
        refused("DigestMethod", kSha256, kDsig + "sha1"),
        refused("DigestMethod", kSha256, kMore + "md5"),
        refused("CanonicalizationMethod", kExcC14n, "http://www.w3.org/2006/12/xml-c14n11"),
        {Replace(s_signed, "Algorithm=\"" + kRsaSha256 + "\"/>",
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
        {sign("certs/user-ec.key"), "The key does not fit the signature method " + kRsaSha256},
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

// Independent implementations: Santuario's xsec-checksig verifies our enveloped signature (our
// signed requests are checked the same way in the request tests), and we verify what xmlsec1
// signs with ECDSA, whose signature value encoding differs from RSA's.
TEST_F(XmlSignatureTest, InteroperatesWithIndependentImplementations) {
    TestData::TempDir dir("xmlinterop");
    EXPECT_EQ(0, Shell("xsec-checksig --id ID " + dir.Write("signed.xml", s_signed)));
    EXPECT_EQ(1, Shell("xsec-checksig --id ID " +
                       dir.Write("tampered.xml", Replace(s_signed, "user@", "uber@"))));
    const std::string data = SSOCLIENT_TEST_DATA_DIR;
    ASSERT_EQ(0, Shell("xmlsec1 sign --privkey-pem " + data + "/certs/user-ec.key," + data +
                       "/certs/user-ec.pem --id-attr:ID "
                       "urn:oasis:names:tc:SAML:2.0:assertion:Assertion --output " +
                       dir.File("ecdsa.xml") + " " + data + "/xml/ecdsa-template.xml"));
    std::ifstream in(dir.File("ecdsa.xml"), std::ios::binary);
    const std::string ecdsa{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    EXPECT_EQ("verified", Check(ecdsa, TrustOnly({"certs/user-ec.pem"}).Get()));
    EXPECT_EQ("rejected", Check(ecdsa, m_trusted.Get()));
}

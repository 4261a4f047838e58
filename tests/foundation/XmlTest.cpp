// The foundation's XML: the hardened parser, the DOM, canonicalisation, and XML signatures.

#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "TestData.h"
#include "support/ExpectThrow.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace Basalt::Xml::Security;
using TestData::LoadCertificate;
using TestData::TrustOnly;
const auto Replace = &TestData::ReplaceOnce;
using TestSupport::Throws;

namespace {

Ref<Document> Parse(const std::string& text, const ParserLimits& limits = {}) {
    Ref<StringReader> reader;
    CreateStringReader(text, reader);
    Ref<XMLHandler> handler;
    CreateXMLDocumentHandler(handler);
    Ref<XMLParser> parser;
    CreateXMLParser(handler.Get(), limits, parser);
    parser->Parse(reader.Get());
    return Ref<Document>(dynamic_cast<Document*>(handler->GetResult().Get()));
}

Ref<ElementNode> ParseRoot(const std::string& text) {
    return Parse(text)->GetDocumentElement();
}

std::string Serialize(const Node& node) {
    Ref<StringWriter> writer;
    CreateStringWriter(writer);
    node.Serialize(writer.Get());
    return writer->TakeString();
}

// <prefix:name>text</prefix:name>, with no text node when text is empty.
Ref<ElementNode> Element(const std::string& prefix, const std::string& name,
                         const std::string& text = "") {
    Ref<ElementNode> element;
    CreateElementNode(prefix, name, element);
    if (!text.empty()) {
        Ref<TextNode> node;
        CreateTextNode(node);
        node->SetValue(text);
        element->AppendChild(node);
    }
    return element;
}

// The child elements of element, in document order.
std::vector<Ref<ElementNode>> ChildElements(const ElementNode& element) {
    std::vector<Ref<ElementNode>> elements;
    for (auto child = element.GetFirstChild(); child; child = child->GetNextSibling()) {
        if (auto* found = dynamic_cast<ElementNode*>(child.Get())) {
            elements.emplace_back(found);
        }
    }
    return elements;
}

const std::string kSecretPath = std::string(SSOCLIENT_TEST_DATA_DIR) + "/xml/secret.txt";
const std::string kDsig = "http://www.w3.org/2000/09/xmldsig#",
                  kMore = "http://www.w3.org/2001/04/xmldsig-more#",
                  kExcC14n = "http://www.w3.org/2001/10/xml-exc-c14n#",
                  kEnveloped = kDsig + "enveloped-signature", kRsaSha256 = kMore + "rsa-sha256",
                  kSha256 = "http://www.w3.org/2001/04/xmlenc#sha256";

std::string Nested(size_t depth) {
    std::string open, close;
    for (size_t i = 0; i < depth; ++i) {
        open += "<e>";
        close += "</e>";
    }
    return open + close;
}

std::string ManyAttributes(size_t count) {
    std::string text = "<e";
    for (size_t i = 0; i < count; ++i) {
        text += " a" + std::to_string(i) + "=\"\"";
    }
    return text + "/>";
}

std::string Big(size_t bytes) {
    std::string big = "<r>";
    while (big.size() < bytes) {
        big += "<item a=\"value\">some text of a typical length</item>\n";
    }
    return big + "</r>";
}

using L = ParserLimits;

TEST(XmlParserTest, RefusesHostileInputWithAClearMessageAndAdmitsWhatIsAtEachLimit) {
    const std::string doctype = ": A DOCTYPE declaration is not allowed",
                      attributes = ": A start tag has more than ";
    // Each row: input, limits, and the message after "XML parse error at line ".
    const std::tuple<std::string, ParserLimits, std::string> cases[] = {
        // No DOCTYPE at all: an external entity reading a local file, an external DTD, an entity
        // expansion bomb, an ATTLIST declaring ids.
        {"<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + kSecretPath + "\">]><r>&x;</r>", L{},
         "1, column 13" + doctype},
        {"<!DOCTYPE r SYSTEM \"file://" + kSecretPath + "\"><r/>", L{},
         "1, column " + std::to_string(kSecretPath.size() + 29) + doctype},
        {"<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
         "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">]><r>&c;</r>",
         L{}, "1, column 13" + doctype},
        {"<!DOCTYPE r [<!ATTLIST e AssertionID ID #IMPLIED>]><r><e AssertionID=\"x\"/></r>", L{},
         "1, column 13" + doctype},
        {"<r>&x;</r>", L{}, "1, column 7: Entity 'x' not defined"},
        {"<r>\n  <a>\n</r>", L{}, "3, column 5: Opening and ending tag mismatch: a line 2 and r"},
        // XInclude is not processed: the prefix must be declared, and nothing is included.
        {"<r><xi:include href=\"file:///etc/passwd\"/></r>", L{},
         "1, column 41: Namespace prefix xi on include is not defined"},
        {"", L{}, "1, column 1: The document is empty"},
        // Every cap, by default and as configured; the attribute flood would be quadratic in
        // libxml2, so it is counted before parsing.
        {Nested(129), L{}, "1, column 387: Elements are nested deeper than 128 levels"},
        {ManyAttributes(257), L{}, "1, column 1949" + attributes + "256 attributes"},
        {ManyAttributes(50000), L{}, "1, column 1" + attributes + "256 attributes"},
        {Big(8 * 1024 * 1024), L{}, "158276, column 31: The document is larger than 8388608 bytes"},
        {Big(600 * 1024), L{1000, 128, 256},
         "19, column 44: The document is larger than 1000 bytes"},
        {Nested(4), L{1000, 3, 256}, "1, column 12: Elements are nested deeper than 3 levels"},
        {ManyAttributes(3), L{1000, 128, 2}, "1, column 21" + attributes + "2 attributes"},
        // Each limit admits what is exactly at it.
        {Nested(128), L{}, ""},
        {ManyAttributes(256), L{}, ""},
        {Big(600 * 1024), L{}, ""},
        {Nested(3), L{21, 3, 256}, ""},
        {ManyAttributes(2), L{1000, 128, 2}, ""},
    };
    for (const auto& [text, limits, message] : cases) {
        if (message.empty()) {
            EXPECT_NO_THROW(Parse(text, limits));
        } else {
            EXPECT_TRUE(Throws<XMLParseException>([&] { Parse(text, limits); },
                                                  "XML parse error at line " + message));
        }
    }
}

TEST(XmlParserTest, AcceptsWhatLooksHostileButIsNotAndKeepsLibraryMessagesToItself) {
    // XInclude elements are plain elements: nothing is fetched.
    Ref<Document> document =
        Parse("<r xmlns:xi=\"http://www.w3.org/2001/XInclude\"><xi:include href=\"" + kSecretPath +
              "\" parse=\"text\"/></r>");
    EXPECT_EQ("", document->GetDocumentElement()->GetTextContent());
    // libxml2's own messages (here about a hostile encoding) go to the foundation's logger, never
    // to the host's standard error.
    testing::internal::CaptureStderr();
    EXPECT_THROW(Parse("<?xml version=\"1.0\" encoding=\"EUC-JP\"?><r>\x8e\xff</r>"),
                 XMLParseException);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

const std::string kIncl = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315",
                  kInclHash = kIncl + "#", kInclComments = kIncl + "#WithComments",
                  kExcComments = kExcC14n + "WithComments";

std::string Canonical(const std::string& algorithm, const ElementNode& element) {
    Ref<Canonicalizer> canonicalizer;
    CreateCanonicalizer(algorithm, canonicalizer);
    Ref<StringWriter> writer;
    CreateStringWriter(writer);
    canonicalizer->Canonicalize(&element, writer.Get());
    return writer->TakeString();
}

const char kScoped[] =
    "<a:root xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" xmlns=\"urn:d\"><a:child b:attr=\"1\"><x/>"
    "</a:child></a:root>";

// Name, document, whether the apex is the root's first child element (else the root), algorithm,
// and the canonical form.
const std::tuple<const char*, const char*, bool, std::string, const char*> kVectors[] = {
    {"inclusive: the apex carries every namespace in scope", kScoped, true, kIncl,
     "<a:child xmlns=\"urn:d\" xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" b:attr=\"1\"><x></x></a:child>"},
    {"exclusive: only visibly used namespaces, where they are used", kScoped, true, kExcC14n,
     "<a:child xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" b:attr=\"1\"><x xmlns=\"urn:d\"></x></a:child>"},
    {"undeclared default namespace", "<r xmlns=\"urn:d\"><e xmlns=\"\"><f/></e></r>", true, kIncl,
     "<e><f></f></e>"},
    {"attributes by namespace URI, then name; declarations first",
     "<r xmlns:z=\"urn:a\" z:c=\"3\" b=\"2\" xmlns:y=\"urn:b\" y:a=\"4\" a=\"1\"/>", false,
     kExcC14n, "<r xmlns:y=\"urn:b\" xmlns:z=\"urn:a\" a=\"1\" b=\"2\" z:c=\"3\" y:a=\"4\"></r>"},
    {"comments dropped", "<r><!--c-->t</r>", false, kExcC14n, "<r>t</r>"},
    {"comments kept, exclusive", "<r><!--c-->t</r>", false, kExcComments, "<r><!--c-->t</r>"},
    {"comments kept, inclusive", "<r><!--c-->t</r>", false, kInclComments, "<r><!--c-->t</r>"},
    {"trailing # names inclusive c14n", "<r xmlns:u=\"urn:u\"><!--c--></r>", false, kInclHash,
     "<r xmlns:u=\"urn:u\"></r>"},
};

// Then the refusals: unresolved prefixes, unknown algorithms and relative URIs.
TEST(XmlCanonicalizerTest, VectorsAndRefusals) {
    for (const auto& [name, document, child, algorithm, expected] : kVectors) {
        Ref<ElementNode> root = ParseRoot(document);
        Ref<ElementNode> apex = child ? ChildElements(*root).at(0) : root;
        EXPECT_EQ(expected, Canonical(algorithm, *apex)) << name;
    }

    Ref<Canonicalizer> canonicalizer;
    for (const char* algorithm :
         {"http://www.w3.org/2006/12/xml-c14n11", "http://www.w3.org/2001/10/xml-exc-c14n",
          "http://www.w3.org/TR/2001/REC-xml-c14n-20010315##", ""}) {
        EXPECT_THROW(CreateCanonicalizer(algorithm, canonicalizer), XmlSecurityException)
            << algorithm;
    }
    EXPECT_TRUE(Throws<XmlSecurityException>(
        [] { Canonical(kExcC14n, *ParseRoot("<p:r xmlns:p=\"relative/uri\"/>")); },
        "Canonicalisation failed: Relative namespace", true));
}

// A small SAML-shaped assertion with the id "_a1".
const std::string kAssertion =
    "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\" ID=\"_a1\" "
    "IssueInstant=\"2024-01-05T03:04:05.006Z\" Version=\"2.0\">"
    "<saml2:Issuer>https://sts.example.test</saml2:Issuer>"
    "<saml2:Subject><saml2:NameID Format=\"urn:upn\">user@example.test</saml2:NameID>"
    "</saml2:Subject><saml2:Conditions NotBefore=\"2024-01-05T03:04:05Z\" "
    "NotOnOrAfter=\"2124-01-05T03:04:05Z\"/></saml2:Assertion>";

// Signs the assertion's root (enveloped, exclusive c14n, RSA-SHA256 unless given) and returns
// the serialised result.
std::string SignAssertion(const std::string& keyPath, const std::string& certificatePath,
                          const std::string& method = kRsaSha256) {
    auto root = ParseRoot(kAssertion);
    Ref<Signature> signature;
    CreateBlankSignature(root.Get(), kExcC14n, method, "ds", signature);
    signature->AddReference("#_a1", kSha256, std::vector<std::string>{kEnveloped, kExcC14n});
    Ref<ElementNode> data = Element("ds", "X509Data");
    data->AppendChild(
        Element("ds", "X509Certificate",
                StringUtil::Base64Encode(LoadCertificate(certificatePath)->GetDer())));
    signature->AddKeyInfoContent(data);
    signature->Sign(*TestData::LoadPrivateKey(keyPath));
    return Serialize(*root);
}

// What reading and verifying the signature of the root's child element at index child (of the
// root when negative) does: "verified", "rejected", or the class and message of the failure.
std::string Check(const std::string& text, const KeyInfoResolver* resolver, int child = -1) {
    Ref<ElementNode> root = ParseRoot(text);
    Ref<ElementNode> signedElement = child < 0 ? root : ChildElements(*root).at(child),
                     signatureElement;
    for (const auto& element : ChildElements(*signedElement)) {
        if (!signatureElement && element->GetLocalName().rfind("Signatur", 0) == 0) {
            signatureElement = element;
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

const char kStsKey[] = "certs/sts-rsa.key";
const char kStsCert[] = "certs/sts-rsa.pem";

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

TEST_F(XmlSignatureTest, OnlyTrustedKeysVerifyAgainAfterAMoveAndNeverAfterAnyChange) {
    Ref<ElementNode> root = ParseRoot(s_signed), holder = Element("w", "Holder");
    Ref<Signature> signature;
    CreateSignatureFromDom(root.Get(), root->FindChildElement(kDsig, "Signature").Get(), signature);
    // Repeatable (nothing left behind), and still after the assertion moved into another document.
    EXPECT_TRUE(signature->Verify(m_trusted.Get()) && signature->Verify(m_trusted.Get()));
    holder->SetAttribute("xmlns:w", "urn:w");
    holder->AppendChild(root);
    EXPECT_TRUE(signature->Verify(m_trusted.Get()));

    EXPECT_EQ("rejected", Check(s_signed, TrustOnly({"certs/other-rsa.pem"}).Get()));
    EXPECT_EQ("verified", Check(s_signed, TrustOnly({"certs/other-rsa.pem", kStsCert}).Get()));
    std::string ecdsa =
        SignAssertion("certs/user-ec.key", "certs/user-ec.pem", kMore + "ecdsa-sha256");
    EXPECT_EQ("verified", Check(ecdsa, TrustOnly({"certs/user-ec.pem"}).Get()));
    EXPECT_EQ("rejected", Check(ecdsa, m_trusted.Get()));
    // A key of another kind than the method cannot sign.
    EXPECT_TRUE(Throws<XmlSecurityException>(
        [] { SignAssertion("certs/user-ec.key", "certs/user-ec.pem"); },
        "The key does not fit the signature method " + kRsaSha256));
    // Any one-byte change fails verification (of the content: on tokens, at every entry point).
    std::string signatureValue = s_signed.substr(s_signed.find("<ds:SignatureValue>") + 19, 40);
    std::string digestValue = s_signed.substr(s_signed.find("<ds:DigestValue>") + 16, 10);
    auto flip = [](std::string text) { return text.replace(5, 1, text[5] == 'A' ? "B" : "A"); };
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
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
    EXPECT_EQ("security: No trusted key to verify the signature with",
              Check(s_signed, TrustOnly({}).Get()));

    // The resolver narrows its certificates to the one KeyInfo names, by certificate, by issuer
    // and serial (names compared as DNs, serials as numbers) or by subject key identifier; no
    // KeyInfo gives them all.
    Ref<KeyInfoResolver> resolver = TrustOnly({"certs/other-rsa.pem", kStsCert});
    std::string genuine = SignaturePart(s_signed).substr(SignaturePart(s_signed).find("<ds:K"));
    genuine.resize(genuine.size() - 15);  // without </ds:Signature>
    const std::string ds = " xmlns:ds=\"" + kDsig + "\">";
    for (const std::string& text :
         {Replace(genuine, ">", ds),
          // An item of a kind it does not read names nothing.
          Replace(Replace(genuine, ">", ds), "<ds:X509Data>",
                  "<ds:X509Data><ds:X509SubjectName>CN=x</ds:X509SubjectName>"),
          Replace(Replace(Replace(issuerSerial, ">", ds), "4660", "04660"),
                  "CN=Test STS Signing, O=Example Test, C=US",
                  "cn=Test STS Signing,o=Example Test,c=US"),
          // The STS certificate's subject key identifier.
          "<ds:KeyInfo" + ds +
              "<ds:X509Data><ds:X509SKI>MeTb4UvOMOlsihl9RxuywTu3pEY=</ds:X509SKI>"
              "</ds:X509Data></ds:KeyInfo>"}) {
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
    // The document, the signed element (as for Check), and the outcome.
    const std::tuple<std::string, int, std::string> cases[] = {
        // The signed element wrapped inside a forged one with its id; a forged copy before it,
        // chosen or not; xml:id and wsu:Id shadowing the id.
        {open + " ID=\"_a1\">" + evil + signature + "<saml2:Advice>" + original +
             "</saml2:Advice>" + close,
         -1, twice},
        {"<r>" + open + " ID=\"_a1\">" + evil + signature + close + original + "</r>", 0, twice},
        {"<r>" + open + " ID=\"_a1\"/>" + original + "</r>", 1, twice},
        {"<r><evil xml:id=\"_a1\"/>" + original + "</r>", 1, twice},
        {"<r><evil xmlns:wsu=\"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-"
         "utility-1.0.xsd\" wsu:Id=\"_a1\"/>" +
             original + "</r>",
         1, twice},
        // An Id in any other namespace names nothing; a one-character id is still an id.
        {"<r><evil xmlns:o=\"urn:other\" o:Id=\"_a1\"/>" + original + "</r>", 1, "verified"},
        {"<r>" + Replace(Replace(original, "ID=\"_a1\"", "ID=\"a\""), "#_a1", "#a") + "</r>", 0,
         "rejected"},
        // The signed element moved under an extension element; a reference to another element.
        {open + " ID=\"_evil\">" + evil + signature + "<saml2:Advice>" +
             Replace(original, signature, "") + "</saml2:Advice>" + close,
         -1, elsewhere},
        {"<r>" + Replace(original, "ID=\"_a1\"", "ID=\"_a2\"") + "<x ID=\"_a1\"/></r>", 0,
         elsewhere},
        {"<r>" + Replace(original, "URI=\"#_a1\"", "URI=\"\"") + "</r>", 0,
         "security: An empty reference URI is only allowed when the signed element is the "
         "document element"},
        {"<r>" + original + "</r>", 0, "verified"},
    };
    for (const auto& [text, child, expected] : cases) {
        EXPECT_EQ(expected, Check(text, m_trusted.Get(), child)) << text;
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
    const Case cases[] = {
        badUri("#xpointer(/)"),
        badUri("#xpointer(id('_a1'))"),
        badUri("file://" + kSecretPath),
        badUri("http://127.0.0.1:1/x"),
        {uri(""), "A ds:Reference without URI is not allowed"},
        {[&] {  // the Reference ends after its Transforms
             std::string text = s_signed;
             const size_t at = text.find("<ds:DigestMethod");
             return text.erase(at, text.find("</ds:Reference>") - at);
         }(),
         "ds:Reference has no ds:DigestMethod"},
        {Replace(s_signed, " Algorithm=\"" + kSha256 + "\"", ""),
         "ds:DigestMethod has no Algorithm"},
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
        // A canonicalization is a transform, never a signature or digest method.
        refused("SignatureMethod", kRsaSha256, kExcC14n),
        refused("DigestMethod", kSha256, kExcC14n),
        refused("CanonicalizationMethod", kExcC14n, "http://www.w3.org/2006/12/xml-c14n11"),
        {Replace(s_signed, "Algorithm=\"" + kRsaSha256 + "\"/>",
                 "Algorithm=\"" + kDsig +
                     "hmac-sha1\"><ds:HMACOutputLength>8"
                     "</ds:HMACOutputLength></ds:SignatureMethod>"),
         "The algorithm '" + kDsig + "hmac-sha1' of ds:SignatureMethod is not allowed"},
        {Replace(s_signed, "Algorithm=\"" + kExcC14n + "\"/>",
                 "Algorithm=\"" + kExcC14n + "\"><ds:X/></ds:CanonicalizationMethod>"),
         "Unexpected ds:X in ds:CanonicalizationMethod"},
        {Replace(s_signed, "</ds:Signature>",
                 "<ds:Object><ds:Manifest><ds:Reference URI=\"file://" + kSecretPath +
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

// Independent implementations: Santuario's xsec-checksig verifies our enveloped signature (our
// signed requests are checked the same way in the request tests), and we verify what xmlsec1
// signs with ECDSA, whose signature value encoding differs from RSA's.
TEST_F(XmlSignatureTest, InteroperatesWithIndependentImplementations) {
    TestData::TempDir dir("xmlinterop");
    const auto checksig = [&](const std::string& name, const std::string& text) {
        return TestData::RunCommand("xsec-checksig --id ID " + dir.Write(name, text)).first;
    };
    EXPECT_EQ(0, checksig("signed.xml", s_signed));
    EXPECT_EQ(1, checksig("tampered.xml", Replace(s_signed, "user@", "uber@")));
    const std::string data = SSOCLIENT_TEST_DATA_DIR;
    const auto [status, ecdsa] = TestData::RunCommand(
        "xmlsec1 sign --privkey-pem " + data + "/certs/user-ec.key," + data +
        "/certs/user-ec.pem --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion " + data +
        "/xml/ecdsa-template.xml");
    ASSERT_EQ(0, status);
    EXPECT_EQ("verified", Check(ecdsa, TrustOnly({"certs/user-ec.pem"}).Get()));
}

}  // namespace

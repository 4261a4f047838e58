// Signatures: tokens signed by an independent signer, tampering, coverage and wrapping attacks,
// and the parser's refusal of DTDs.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <basalt/Xml.h>

#include "TestData.h"
#include "internal/xml/XmlUtils.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

const char kTampered[] = "Failed to verify signature: token might have been tampered with.";

Basalt::Ref<Basalt::Xml::Document> ParseDocument(const std::string& xml) {
    Basalt::Ref<Basalt::Xml::Document> document;
    SsoClient::ParseXmlText(xml, document);
    return document;
}

// A scratch directory removed at the end of the test.
class ScratchDir {
  public:
    ScratchDir() {
        char pattern[] = "/tmp/saml-test-XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        m_path = made;
    }
    ~ScratchDir() { RunCommand("rm -rf '" + m_path + "'"); }
    std::string Write(const std::string& name, const std::string& content) const {
        const std::string path = m_path + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    const std::string& Path() const { return m_path; }

  private:
    std::string m_path;
};

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Signs the template with the xmlsec1 command-line tool and the STS key.
std::string SignWithXmlsec1Tool(const AssertionSpec& spec) {
    const ScratchDir dir;
    const std::string in = dir.Write("in.xml", BuildAssertionXml(spec, true));
    const std::string out = dir.Path() + "/out.xml";
    const std::string certs = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/";
    const auto [status, output] = RunCommand(
        "xmlsec1 --sign --privkey-pem " + certs + "sts-rsa.key," + certs +
        "sts-rsa.pem --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion --output " + out +
        " " + in + " 2>&1");
    if (status != 0) {
        throw std::runtime_error("xmlsec1 failed: " + output);
    }
    return ReadFile(out);
}

// Signs with Apache Santuario's xsec-templatesign: a whole-document reference, the certificate
// added to a KeyInfo of its own.
std::string SignWithSantuario(const AssertionSpec& spec) {
    const ScratchDir dir;
    std::string xml = BuildAssertionXml(spec, true);
    const size_t uri = xml.find("URI=\"#");
    xml.replace(uri, xml.find('"', uri + 5) + 1 - uri, "URI=\"\"");
    xml = ReplaceOnce(xml, "<ds:DigestValue/>", "<ds:DigestValue>A</ds:DigestValue>");
    xml = ReplaceOnce(xml, "<ds:SignatureValue/>", "<ds:SignatureValue>A</ds:SignatureValue>");
    xml = ReplaceOnce(
        xml, "<ds:KeyInfo><ds:X509Data><ds:X509Certificate/></ds:X509Data></ds:KeyInfo>", "");
    const std::string in = dir.Write("in.xml", xml);
    const std::string certs = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/";
    const auto [status, output] =
        RunCommand("xsec-templatesign --rsakey " + certs + "sts-rsa.key '' --x509cert " + certs +
                   "sts-rsa.pem " + in);
    if (status != 0) {
        throw std::runtime_error("xsec-templatesign failed: " + output);
    }
    return output;
}

TEST(SamlSignatureTest, AcceptsTokensSignedByIndependentSignersOnlyWithTheRightKey) {
    AssertionSpec bearer;
    bearer.delegates = {{"bob@example.test", -60}};
    bearer.attributes = {{"urn:x", {"1"}}};
    AssertionSpec holderOfKey;
    holderOfKey.holderOfKey = true;
    for (const auto& spec : {bearer, holderOfKey}) {
        for (const std::string& xml : {SignWithXmlsec1Tool(spec), SignWithSantuario(spec)}) {
            const auto token = CreateSamlToken(xml, StsResolver().Get());
            EXPECT_EQ(token->GetSubject()->name, "alice");
            EXPECT_EQ(token->GetXml(), xml);
            EXPECT_TRUE(Throws<InvalidSignatureException>(
                [&] { CreateSamlToken(xml, OtherResolver().Get()); }, kTampered));
            EXPECT_TRUE(Throws<InvalidSignatureException>(
                [&] { CreateSamlToken(ReplaceOnce(xml, "alice@", "alicf@"), StsResolver().Get()); },
                kTampered));
        }
    }
}

TEST(SamlSignatureTest, ForeignSignersCheckOurTokens) {
    // The reverse direction: xmlsec1 verifies what the foundation signed for these tests, so the
    // generator's tokens are standard signatures and not just self-consistent.
    const ScratchDir dir;
    const std::string path = dir.Write("token.xml", MakeSignedAssertion(AssertionSpec{}));
    const std::string certs = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/";
    const auto [status, output] =
        RunCommand("xmlsec1 --verify --pubkey-cert-pem " + certs +
                   "sts-rsa.pem --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion " +
                   path + " 2>&1");
    EXPECT_EQ(status, 0) << output;
}

TEST(SamlSignatureTest, DetectsTamperingAnywhereInTheToken) {
    AssertionSpec spec;
    spec.id = "_tamper";
    spec.audiences = {"urn:audience"};
    spec.proxyCount = "1";
    spec.attributes = {{"urn:role", {"reader"}}};
    const std::string xml = MakeSignedAssertion(spec);
    ASSERT_NO_THROW(CreateSamlToken(xml, StsResolver().Get()));
    const std::pair<const char*, const char*> edits[] = {
        {"alice@", "root@"},
        {"urn:audience", "urn:audiencf"},
        {"Count=\"1\"", "Count=\"9\""},
        {">reader<", ">writer<"},
        {"https://sts.example.test/sts", "https://evil.example/sts"},
    };
    for (const auto& [from, to] : edits) {
        const std::string edited = ReplaceOnce(xml, from, to);
        EXPECT_TRUE(Throws<InvalidSignatureException>(
            [&] { CreateSamlToken(edited, StsResolver().Get()); }, kTampered))
            << from;
    }
    // A signature value that is no longer Base64 of the right length cannot be checked at all.
    const size_t value = xml.find("<ds:SignatureValue>") + 19;
    std::string broken = xml;
    broken[value] = broken[value] == 'A' ? 'B' : 'A';
    EXPECT_THROW(CreateSamlToken(broken, StsResolver().Get()), InvalidSignatureException);
}

TEST(SamlSignatureTest, SignatureMustCoverTheWholeToken) {
    AssertionSpec spec;
    spec.id = "_covered";
    const std::string unsignedXml = BuildAssertionXml(spec);
    // Whole-document reference: covers the token.
    EXPECT_NO_THROW(
        CreateSamlToken(SignAssertion(unsignedXml, std::string()), StsResolver().Get()));
    // A reference to another ID does not.
    const std::string other =
        ReplaceOnce(MakeSignedAssertion(spec), "URI=\"#_covered\"", "URI=\"#_elsewhere\"");
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(other); },
                                       "Token's signature must cover the entire token"));
}

TEST(SamlSignatureTest, RefusesSignatureWrapping) {
    AssertionSpec genuine;
    genuine.id = "_genuine";
    const std::string original = MakeSignedAssertion(genuine);
    const size_t sigBegin = original.find("<ds:Signature");
    const size_t sigEnd = original.find("</ds:Signature>") + 15;
    const std::string signature = original.substr(sigBegin, sigEnd - sigBegin);

    AssertionSpec forged;
    forged.subjectUpn = "mallory@example.test";

    // 1. A forged assertion with its own ID carrying the genuine signature: the reference names
    //    another element, so the signature does not cover the token.
    forged.id = "_forged";
    {
        std::string xml = BuildAssertionXml(forged);
        xml = ReplaceOnce(xml, "</saml2:Issuer>", "</saml2:Issuer>" + signature);
        EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml, StsResolver().Get()); },
                                           "Token's signature must cover the entire token"));
    }
    // 2. The forged assertion takes the genuine ID and hides the genuine assertion inside the
    //    signature: the signature may not carry anything of the kind.
    forged.id = "_genuine";
    const std::string forgedWithGenuineId =
        ReplaceOnce(BuildAssertionXml(forged), "</saml2:Issuer>", "</saml2:Issuer>" + signature);
    {
        const std::string xml =
            ReplaceOnce(forgedWithGenuineId, "</ds:Signature>",
                        "<ds:Object>" + original + "</ds:Object></ds:Signature>");
        EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml, StsResolver().Get()); },
                                           "Signature syntax error: ", true));
    }
    // 2b. The same ID twice in one SOAP message, the genuine assertion in a header: the reference
    //     no longer names exactly one element.
    {
        const auto document = ParseDocument(
            "<env:Envelope xmlns:env='http://schemas.xmlsoap.org/soap/envelope/'><env:Header>" +
            original + "</env:Header><env:Body>" + forgedWithGenuineId +
            "</env:Body></env:Envelope>");
        const auto assertion =
            document->GetDocumentElement()
                ->FindChildElement("http://schemas.xmlsoap.org/soap/envelope/", "Body")
                ->FindChildElement("urn:oasis:names:tc:SAML:2.0:assertion", "Assertion");
        ASSERT_TRUE(assertion);
        EXPECT_TRUE(Throws<InvalidSignatureException>(
            [&] { CreateSamlTokenFromDom(assertion.Get(), StsResolver().Get()); },
            "Signature verification error. ", true));
    }
    // 3. The genuine signature on the forged content with the same ID: digest mismatch.
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] { CreateSamlToken(forgedWithGenuineId, StsResolver().Get()); }, kTampered));
}

TEST(SamlSignatureTest, MalformedSignaturesAreSyntaxErrors) {
    AssertionSpec spec;
    const std::string xml = MakeSignedAssertion(spec);
    const std::pair<std::string, std::string> edits[] = {
        // A transform outside the allowed set (XPath could select nothing at all).
        {"Algorithm=\"http://www.w3.org/2000/09/xmldsig#enveloped-signature\"",
         "Algorithm=\"http://www.w3.org/TR/1999/REC-xpath-19991116\""},
        // A reference to another document.
        {"URI=\"#", "URI=\"http://evil.example/doc#"},
        // No signature element where one must be.
        {"<ds:Signature", "<ds:Signatur"},
    };
    for (const auto& [from, to] : edits) {
        std::string edited = ReplaceOnce(xml, from, to);
        if (to == "<ds:Signatur") {
            edited = ReplaceOnce(edited, "</ds:Signature>", "</ds:Signatur>");
        }
        EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(edited); },
                                           "Signature syntax error: ", true))
            << from;
    }
}

TEST(SamlSignatureTest, NeverLoadsDocumentTypesOrEntities) {
    const std::string xml = MakeSignedAssertion(AssertionSpec{});
    const std::string withDtd =
        "<!DOCTYPE saml2:Assertion [<!ENTITY upn SYSTEM \"file:///etc/hostname\">]>" +
        ReplaceOnce(xml, "alice@example.test", "&upn;");
    EXPECT_THROW(CreateSamlToken(withDtd, StsResolver().Get()), Basalt::Xml::XMLParseException);
    EXPECT_THROW(CreateSamlToken("not xml", StsResolver().Get()), Basalt::Xml::XMLParseException);
}

}  // namespace

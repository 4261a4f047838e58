// Signatures: tokens signed by independent signers, tampering, coverage and wrapping attacks.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <basalt/Xml.h>

#include "TestData.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

const char kTampered[] = "Failed to verify signature: token might have been tampered with.";
const std::string kCerts = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/";

std::string Run(const std::string& command) {
    const auto [status, output] = RunCommand(command);
    return status == 0 ? output : throw std::runtime_error(command + ": " + output);
}

// xmlsec1 fills the template: reference "#ID", the certificate in the template's KeyInfo.
std::string SignWithXmlsec1(const AssertionSpec& spec) {
    const TestData::TempDir dir("saml-xmlsec1");
    const std::string in = dir.Write("in.xml", BuildAssertionXml(spec, true));
    return Run("xmlsec1 --sign --privkey-pem " + kCerts + "sts-rsa.key," + kCerts +
               "sts-rsa.pem --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion " + in);
}

// Santuario's xsec-templatesign: a whole-document reference, the certificate in a KeyInfo of its
// own.
std::string SignWithSantuario(const AssertionSpec& spec) {
    const TestData::TempDir dir("saml-santuario");
    std::string xml = BuildAssertionXml(spec, true);
    xml = ReplaceOnce(xml, "URI=\"#" + spec.id + "\"", "URI=\"\"");
    xml = ReplaceOnce(xml, "<ds:DigestValue/>", "<ds:DigestValue>A</ds:DigestValue>");
    xml = ReplaceOnce(xml, "<ds:SignatureValue/>", "<ds:SignatureValue>A</ds:SignatureValue>");
    xml = ReplaceOnce(
        xml, "<ds:KeyInfo><ds:X509Data><ds:X509Certificate/></ds:X509Data></ds:KeyInfo>", "");
    return Run("xsec-templatesign --rsakey " + kCerts + "sts-rsa.key '' --x509cert " + kCerts +
               "sts-rsa.pem " + dir.Write("in.xml", xml));
}

TEST(SamlSignatureTest, AcceptsTokensSignedByIndependentSignersOnlyWithTheRightKey) {
    AssertionSpec bearer, holderOfKey;
    bearer.id = "_bearer";
    bearer.delegates = {{"bob@example.test", -60}};
    holderOfKey.id = "_hok";
    holderOfKey.holderOfKey = true;
    for (const auto& spec : {bearer, holderOfKey}) {
        for (const std::string& xml : {SignWithXmlsec1(spec), SignWithSantuario(spec)}) {
            EXPECT_EQ(CreateSamlToken(xml, StsResolver().Get())->GetXml(), xml);
            EXPECT_TRUE(Throws<InvalidSignatureException>(
                [&] { CreateSamlToken(xml, OtherResolver().Get()); }, kTampered));
            // A reference by id or to the whole document leaves comments out of the digest.
            const std::string noted =
                ReplaceOnce(xml, "<saml2:Subject>", "<!--n--><saml2:Subject>");
            EXPECT_EQ(CreateSamlToken(noted, StsResolver().Get())->GetXml(), noted);
            const std::string tampered = ReplaceOnce(xml, "alice@", "alicf@");
            EXPECT_TRUE(Throws<InvalidSignatureException>(
                [&] { CreateSamlToken(tampered, StsResolver().Get()); }, kTampered));
        }
    }
}

// How the foundation's refusals reach the user (every wrapping shape, reference, transform and
// algorithm has its case in the foundation's tables), and the one rule of the token itself: its
// signature covers the whole assertion.
TEST(SamlSignatureTest, FoundationRefusalsReachTheUserAndTheSignatureCoversTheToken) {
    AssertionSpec genuine, forged;
    genuine.id = "_genuine";
    forged.id = "_forged";
    forged.subjectUpn = "mallory@example.test";
    const std::string xml = MakeSignedAssertion(genuine);
    const size_t begin = xml.find("<ds:Signature");
    const std::string signature = xml.substr(begin, xml.find("</ds:Signature>") + 15 - begin);
    // The genuine signature on a forged assertion with its own ID covers another element (a
    // whole-document reference is accepted, as Santuario signs).
    const std::string wrapped =
        ReplaceOnce(BuildAssertionXml(forged), "</saml2:Issuer>", "</saml2:Issuer>" + signature);
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(wrapped, StsResolver().Get()); },
                                       "Token's signature must cover the entire token"));
    // A transform outside the allowed set (XPath could select nothing at all).
    const std::string xpath =
        ReplaceOnce(xml, "xmldsig#enveloped-signature\"", "TR/1999/REC-xpath-19991116\"");
    EXPECT_TRUE(
        Throws<ParseException>([&] { CreateSamlToken(xpath); }, "Signature syntax error: ", true));
    // A signature value that no longer decodes to the right length cannot be checked at all.
    std::string broken = xml;
    const size_t value = xml.find("<ds:SignatureValue>") + 19;
    broken[value] = broken[value] == 'A' ? 'B' : 'A';
    EXPECT_THROW(CreateSamlToken(broken, StsResolver().Get()), InvalidSignatureException);
    EXPECT_THROW(CreateSamlToken("not xml", StsResolver().Get()), Basalt::Xml::XMLParseException);
}

}  // namespace

// Interoperability with independent XML-signature implementations: Apache Santuario C++
// (xsec-checksig, xsec-templatesign) and the xmlsec1 command-line tool.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <string>

#include "foundation/XmlSignatureTestUtil.h"

using namespace XmlTest;

namespace {

const std::string kData = SSOCLIENT_TEST_DATA_DIR;
const std::string kStsKey = kData + "/certs/sts-rsa.key", kStsCert = kData + "/certs/sts-rsa.pem";
const std::string kSamlId = " --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion ";
const std::string kWsuId = std::string(" --idns ") + kWsuNs + " Id ";

// The exit status of a shell command; its standard output goes to output.
int Shell(const std::string& command, const std::string& output = "/dev/null") {
    int status = std::system((command + " >'" + output + "' 2>/dev/null").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A SOAP request signed the way the holder-of-key request builder signs it: the signature sits
// in the security header and covers the Body and the Timestamp by their wsu:Id.
std::string SignedEnvelope() {
    Ref<ElementNode> envelope = Element("soapenv", "Envelope"),
                     header = Element("soapenv", "Header"), security = Element("wsse", "Security"),
                     timestamp = Element("wsu", "Timestamp"), body = Element("soapenv", "Body"),
                     request = Element("wst", "RequestSecurityToken");
    envelope->SetAttribute("xmlns:soapenv", "http://schemas.xmlsoap.org/soap/envelope/");
    security->SetAttribute(
        "xmlns:wsse",
        "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd");
    body->SetAttribute("xmlns:wst", "http://docs.oasis-open.org/ws-sx/ws-trust/200512");
    timestamp->AppendChild(Element("wsu", "Created", "2024-01-05T03:04:05.006Z"));
    timestamp->AppendChild(Element("wsu", "Expires", "2024-01-05T03:14:05.006Z"));
    request->AppendChild(Element("wst", "RequestType", "urn:issue"));
    security->AppendChild(timestamp);
    header->AppendChild(security);
    body->AppendChild(request);
    envelope->AppendChild(header);
    envelope->AppendChild(body);
    Ref<Signature> signature;
    CreateBlankSignature(security.Get(), kExcC14n, kRsaSha256, "ds", signature);
    for (const auto& [element, id] :
         {std::make_pair(body, "_body-1"), std::make_pair(timestamp, "_ts-1")}) {
        element->SetAttribute("xmlns:wsu", kWsuNs);
        element->SetAttribute("wsu:Id", id);
        signature->AddReference(std::string("#") + id, kSha256, kExcC14n);
    }
    signature->SetId("holderOfKeyProofSignature");
    signature->AddKeyInfoContent(X509DataElement("certs/sts-rsa.pem"));
    signature->Sign(*LoadKey("certs/sts-rsa.key"));
    return Serialize(*envelope);
}

}  // namespace

TEST(XmlSignatureInteropTest, SantuarioVerifiesWhatWeSign) {
    TestData::TempDir dir("xmlinterop");
    std::string assertion = SignAssertion("certs/sts-rsa.key", "certs/sts-rsa.pem");
    EXPECT_EQ(0, Shell("xsec-checksig --id ID " + dir.Write("assertion.xml", assertion)));
    EXPECT_EQ(1, Shell("xsec-checksig --id ID " +
                       dir.Write("tampered.xml", Replace(assertion, "user@", "uber@"))));
    std::string envelope = SignedEnvelope();
    EXPECT_NE(std::string::npos, envelope.find("Id=\"holderOfKeyProofSignature\""));
    EXPECT_EQ(0, Shell("xsec-checksig" + kWsuId + dir.Write("envelope.xml", envelope)));
    EXPECT_EQ(
        1, Shell("xsec-checksig" + kWsuId +
                 dir.Write("tampered-envelope.xml", Replace(envelope, "urn:issue", "urn:renew"))));
}

TEST(XmlSignatureInteropTest, WeVerifyWhatSantuarioAndXmlsecSign) {
    TestData::TempDir dir("xmlinterop");
    ASSERT_EQ(0, Shell("xsec-templatesign --rsakey " + kStsKey + " '' --x509cert " + kStsCert +
                           " " + kData + "/xml/santuario-template.xml",
                       dir.File("santuario.xml")));
    std::string santuario = ReadFile(dir.File("santuario.xml"));
    Ref<KeyInfoResolver> sts = TrustOnly({"certs/sts-rsa.pem"});
    EXPECT_EQ("verified", Check(santuario, sts.Get()));
    EXPECT_EQ("rejected", Check(santuario, TrustOnly({"certs/other-rsa.pem"}).Get()));
    EXPECT_EQ("rejected",
              Check(Replace(santuario, "<saml2:NameID>u<", "<saml2:NameID>v<"), sts.Get()));

    ASSERT_EQ(0, Shell("xmlsec1 sign --privkey-pem " + kData + "/certs/user-ec.key," + kData +
                       "/certs/user-ec.pem" + kSamlId + "--output " + dir.File("ecdsa.xml") + " " +
                       kData + "/xml/ecdsa-template.xml"));
    const std::string ecdsa = ReadFile(dir.File("ecdsa.xml"));
    EXPECT_EQ("verified", Check(ecdsa, TrustOnly({"certs/user-ec.pem"}).Get()));
    EXPECT_EQ("rejected", Check(ecdsa, sts.Get()));
}

TEST(XmlSignatureInteropTest, GenuineSha1SignatureIsRefusedBeforeAnyWork) {
    TestData::TempDir dir("xmlinterop");
    ASSERT_EQ(
        0, Shell("xmlsec1 sign --privkey-pem " + kStsKey + "," + kStsCert + kSamlId + "--output " +
                 dir.File("sha1.xml") + " " + kData + "/xml/sha1-template.xml"));
    // xmlsec1 itself accepts it: the signature is genuine, only its algorithms are refused.
    ASSERT_EQ(
        0, Shell("xmlsec1 verify --pubkey-cert-pem " + kStsCert + kSamlId + dir.File("sha1.xml")));
    EXPECT_EQ(Check(ReadFile(dir.File("sha1.xml")), nullptr),
              "syntax: The algorithm 'http://www.w3.org/2000/09/xmldsig#rsa-sha1' of "
              "ds:SignatureMethod is not allowed");
}

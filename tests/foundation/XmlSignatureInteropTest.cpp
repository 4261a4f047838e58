// Interoperability with independent XML-signature implementations: Apache Santuario C++
// (xsec-checksig, xsec-templatesign) and the xmlsec1 command-line tool.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include "foundation/XmlSignatureTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace Basalt::Xml::Security;
using namespace XmlTest;

namespace {

const std::string kData = SSOCLIENT_TEST_DATA_DIR;
const char kSoapNs[] = "http://schemas.xmlsoap.org/soap/envelope/";
const char kWsseNs[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd";

class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/xmlinterop-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TempDir() { std::system(("rm -rf '" + m_path + "'").c_str()); }
    std::string Write(const std::string& name, const std::string& content) const {
        std::string path = m_path + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    std::string Read(const std::string& name) const {
        std::ifstream in(m_path + "/" + name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

// The exit status of a shell command; its standard output goes to output (discarded if empty).
int RunCommand(const std::string& command, const std::string& output = "/dev/null") {
    int status = std::system((command + " >'" + output + "' 2>/dev/null").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Ref<ElementNode> Element(const std::string& prefix, const std::string& name) {
    Ref<ElementNode> element;
    CreateElementNode(prefix, name, element);
    return element;
}

Ref<ElementNode> TextElement(const std::string& prefix, const std::string& name,
                             const std::string& value) {
    Ref<ElementNode> element = Element(prefix, name);
    Ref<TextNode> text;
    CreateTextNode(text);
    text->SetValue(value);
    element->AppendChild(text);
    return element;
}

// A SOAP request signed the way the holder-of-key request builder signs it: the signature sits
// in the security header and covers the Body and the Timestamp by their wsu:Id.
std::string SignedEnvelope() {
    Ref<ElementNode> envelope = Element("soapenv", "Envelope");
    envelope->SetAttribute("xmlns:soapenv", kSoapNs);
    Ref<ElementNode> header = Element("soapenv", "Header");
    Ref<ElementNode> security = Element("wsse", "Security");
    security->SetAttribute("xmlns:wsse", kWsseNs);
    Ref<ElementNode> timestamp = Element("wsu", "Timestamp");
    timestamp->SetAttribute("xmlns:wsu", kWsuNs);
    timestamp->AppendChild(TextElement("wsu", "Created", "2024-01-05T03:04:05.006Z"));
    timestamp->AppendChild(TextElement("wsu", "Expires", "2024-01-05T03:14:05.006Z"));
    security->AppendChild(timestamp);
    header->AppendChild(security);
    Ref<ElementNode> body = Element("soapenv", "Body");
    body->SetAttribute("xmlns:wst", "http://docs.oasis-open.org/ws-sx/ws-trust/200512");
    Ref<ElementNode> request = Element("wst", "RequestSecurityToken");
    request->AppendChild(TextElement("wst", "RequestType", "urn:issue"));
    body->AppendChild(request);
    envelope->AppendChild(header);
    envelope->AppendChild(body);

    Ref<Signature> signature;
    CreateBlankSignature(security.Get(), kExcC14n, kRsaSha256, "ds", signature);
    for (const auto& [element, id] : {std::make_pair(body, std::string("_body-1")),
                                      std::make_pair(timestamp, std::string("_ts-1"))}) {
        element->SetAttribute("xmlns:wsu", kWsuNs);
        element->SetAttribute("wsu:Id", id);
        signature->AddReference("#" + id, kSha256, kExcC14n);
    }
    signature->SetId("holderOfKeyProofSignature");
    signature->AddKeyInfoContent(X509DataElement(*LoadCertificate("certs/sts-rsa.pem")));
    signature->Sign(*LoadKey("certs/sts-rsa.key"));
    return Serialize(*envelope);
}

const std::string kWsuIdOption = std::string("--idns ") + kWsuNs + " Id";

}  // namespace

TEST(XmlSignatureInteropTest, SantuarioVerifiesWhatWeSign) {
    TempDir dir;
    std::string assertion =
        SignAssertion(AssertionText(), "certs/sts-rsa.key", "certs/sts-rsa.pem");
    EXPECT_EQ(0, RunCommand("xsec-checksig --id ID " + dir.Write("assertion.xml", assertion)));
    EXPECT_EQ(1, RunCommand("xsec-checksig --id ID " +
                            dir.Write("tampered.xml", Replace(assertion, "user@", "uber@"))));

    std::string envelope = SignedEnvelope();
    EXPECT_NE(std::string::npos, envelope.find("Id=\"holderOfKeyProofSignature\""));
    EXPECT_EQ(
        0, RunCommand("xsec-checksig " + kWsuIdOption + " " + dir.Write("envelope.xml", envelope)));
    EXPECT_EQ(1, RunCommand("xsec-checksig " + kWsuIdOption + " " +
                            dir.Write("tampered-envelope.xml",
                                      Replace(envelope, "urn:issue", "urn:renew"))));
}

TEST(XmlSignatureInteropTest, WeVerifyWhatSantuarioAndXmlsecSign) {
    TempDir dir;
    const std::string key = kData + "/certs/sts-rsa.key";
    const std::string cert = kData + "/certs/sts-rsa.pem";
    ASSERT_EQ(0, RunCommand("xsec-templatesign --rsakey " + key + " '' --x509cert " + cert + " " +
                                kData + "/xml/santuario-template.xml",
                            dir.Path("santuario.xml")));
    std::string santuario = dir.Read("santuario.xml");
    Ref<KeyInfoResolver> sts = TrustOnly({"certs/sts-rsa.pem"});
    EXPECT_TRUE(VerifyText(santuario, sts.Get()));
    EXPECT_FALSE(VerifyText(santuario, TrustOnly({"certs/other-rsa.pem"}).Get()));
    EXPECT_FALSE(VerifyText(Replace(santuario, "<saml2:NameID>u<", "<saml2:NameID>v<"), sts.Get()));

    const std::string ecKey = kData + "/certs/user-ec.key";
    const std::string ecCert = kData + "/certs/user-ec.pem";
    ASSERT_EQ(0,
              RunCommand("xmlsec1 sign --privkey-pem " + ecKey + "," + ecCert +
                         " --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion --output " +
                         dir.Path("ecdsa.xml") + " " + kData + "/xml/ecdsa-template.xml"));
    EXPECT_TRUE(VerifyText(dir.Read("ecdsa.xml"), TrustOnly({"certs/user-ec.pem"}).Get()));
    EXPECT_FALSE(VerifyText(dir.Read("ecdsa.xml"), sts.Get()));
}

TEST(XmlSignatureInteropTest, GenuineSha1SignatureIsRefusedBeforeAnyWork) {
    TempDir dir;
    const std::string key = kData + "/certs/sts-rsa.key";
    const std::string cert = kData + "/certs/sts-rsa.pem";
    const std::string idOption = " --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion ";
    ASSERT_EQ(0,
              RunCommand("xmlsec1 sign --privkey-pem " + key + "," + cert + idOption + "--output " +
                         dir.Path("sha1.xml") + " " + kData + "/xml/sha1-template.xml"));
    // xmlsec1 itself accepts it: the signature is genuine, only its algorithms are refused.
    ASSERT_EQ(0, RunCommand("xmlsec1 verify --pubkey-cert-pem " + cert + idOption +
                            dir.Path("sha1.xml")));
    Ref<ElementNode> root = ParseRoot(dir.Read("sha1.xml"));
    Ref<Signature> signature;
    try {
        CreateSignatureFromDom(root.Get(), SignatureChild(*root).Get(), signature);
        FAIL() << "SHA-1 accepted";
    } catch (const SignatureSyntaxException& e) {
        EXPECT_NE(std::string::npos, std::string(e.what()).find("rsa-sha1")) << e.what();
    }
}

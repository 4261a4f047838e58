// Parse, canonicalise and parse+verify of a typical signed SAML assertion (RSA-2048, about
// 6 KB) through the foundation, next to a raw loop that calls libxml2 and xmlsec directly with
// the verification key loaded once outside the loop.

#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/valid.h>
#include <xmlsec/crypto.h>
#include <xmlsec/keys.h>
#include <xmlsec/openssl/app.h>
#include <xmlsec/xmldsig.h>
#include <xmlsec/xmltree.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>
#include "TestData.h"

using namespace Basalt;
using namespace Basalt::Xml;

namespace {

const char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";
const char kExcC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";

Ref<Document> ParseText(const std::string& text) {
    Ref<StringReader> reader;
    CreateStringReader(text, reader);
    Ref<XMLHandler> handler;
    CreateXMLDocumentHandler(handler);
    Ref<XMLParser> parser;
    CreateXMLParser(handler.Get(), parser);
    parser->Parse(reader.Get());
    return Ref<Document>(dynamic_cast<Document*>(handler->GetResult().Get()));
}

std::string Serialize(const Node& node) {
    Ref<StringWriter> writer;
    CreateStringWriter(writer);
    node.Serialize(writer.Get());
    return writer->TakeString();
}

// An assertion shaped like an STS's: subject, conditions with a delegation chain, an
// authentication statement and a handful of attributes with group lists.
std::string UnsignedAssertion() {
    std::string groups;
    for (int i = 0; i < 24; ++i) {
        groups += "<saml2:AttributeValue xsi:type=\"xs:string\">example.test\\Group-" +
                  std::to_string(i) + "</saml2:AttributeValue>";
    }
    return "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\" "
           "xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" "
           "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
           "ID=\"_8f2c5b1e-4d7a-4b7e-9a51-3c2f0e6d9a11\" IssueInstant=\"2024-01-05T03:04:05.006Z\" "
           "Version=\"2.0\"><saml2:Issuer "
           "Format=\"urn:oasis:names:tc:SAML:2.0:nameid-format:entity\">"
           "https://sts.example.test/sts/STSService</saml2:Issuer><saml2:Subject>"
           "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">user@example.test"
           "</saml2:NameID><saml2:SubjectConfirmation "
           "Method=\"urn:oasis:names:tc:SAML:2.0:cm:bearer\">"
           "<saml2:SubjectConfirmationData NotOnOrAfter=\"2124-01-05T03:14:05.006Z\"/>"
           "</saml2:SubjectConfirmation></saml2:Subject><saml2:Conditions "
           "NotBefore=\"2024-01-05T03:04:05.006Z\" NotOnOrAfter=\"2124-01-05T03:14:05.006Z\">"
           "<saml2:ProxyRestriction Count=\"10\"/><saml2:Condition "
           "xmlns:del=\"http://example.test/delegation\" "
           "xsi:type=\"del:DelegationRestrictionType\">"
           "<del:Delegate DelegationInstant=\"2024-01-05T03:04:05.006Z\"><saml2:NameID "
           "Format=\"http://schemas.xmlsoap.org/claims/UPN\">service@example.test</saml2:NameID>"
           "</del:Delegate></saml2:Condition></saml2:Conditions><saml2:AuthnStatement "
           "AuthnInstant=\"2024-01-05T03:04:05.006Z\"><saml2:AuthnContext><saml2:"
           "AuthnContextClassRef>"
           "urn:oasis:names:tc:SAML:2.0:ac:classes:PasswordProtectedTransport"
           "</saml2:AuthnContextClassRef></saml2:AuthnContext></saml2:AuthnStatement>"
           "<saml2:AttributeStatement><saml2:Attribute FriendlyName=\"Groups\" "
           "Name=\"http://example.test/claims/Groups\" "
           "NameFormat=\"urn:oasis:names:tc:SAML:2.0:attrname-format:uri\">" +
           groups +
           "</saml2:Attribute><saml2:Attribute FriendlyName=\"givenName\" "
           "Name=\"http://schemas.xmlsoap.org/ws/2005/05/identity/claims/givenname\" "
           "NameFormat=\"urn:oasis:names:tc:SAML:2.0:attrname-format:uri\"><saml2:AttributeValue "
           "xsi:type=\"xs:string\">Example</saml2:AttributeValue></saml2:Attribute>"
           "<saml2:Attribute FriendlyName=\"surname\" "
           "Name=\"http://schemas.xmlsoap.org/ws/2005/05/identity/claims/surname\" "
           "NameFormat=\"urn:oasis:names:tc:SAML:2.0:attrname-format:uri\"><saml2:AttributeValue "
           "xsi:type=\"xs:string\">User</saml2:AttributeValue></saml2:Attribute>"
           "</saml2:AttributeStatement></saml2:Assertion>";
}

struct Fixture {
    std::string signedText;
    Ref<Crypto::Certificate> certificate;
    Ref<Security::KeyInfoResolver> resolver;

    Fixture() {
        Crypto::CreateCertificateFromPem(TestData::Read("certs/sts-rsa.pem"), certificate);
        Ref<Crypto::PrivateKey> key;
        Crypto::CreatePrivateKeyFromPem(TestData::Read("certs/sts-rsa.key"), key);
        Ref<ElementNode> root = ParseText(UnsignedAssertion())->GetDocumentElement();
        std::string id;
        root->GetAttribute("ID", id);
        Ref<Security::Signature> signature;
        Security::CreateBlankSignature(root.Get(), kExcC14n,
                                       "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256", "ds",
                                       signature);
        signature->AddReference(
            "#" + id, "http://www.w3.org/2001/04/xmlenc#sha256",
            std::vector<std::string>{"http://www.w3.org/2000/09/xmldsig#enveloped-signature",
                                     kExcC14n});
        Ref<ElementNode> data;
        CreateElementNode("ds", "X509Data", data);
        Ref<ElementNode> value;
        CreateElementNode("ds", "X509Certificate", value);
        Ref<TextNode> text;
        CreateTextNode(text);
        text->SetValue(StringUtil::Base64Encode(certificate->GetDer()));
        value->AppendChild(text);
        data->AppendChild(value);
        signature->AddKeyInfoContent(data);
        signature->Sign(*key);
        signedText = Serialize(*root);
        Security::CreateTrustedCertificateResolver({certificate}, resolver);
    }
};

const Fixture& GetFixture() {
    static const Fixture fixture;
    return fixture;
}

void FoundationParse(benchmark::State& state) {
    const Fixture& fixture = GetFixture();
    for (auto _ : state) {
        benchmark::DoNotOptimize(ParseText(fixture.signedText));
    }
    state.counters["bytes"] = static_cast<double>(fixture.signedText.size());
}

void FoundationCanonicalize(benchmark::State& state) {
    const Fixture& fixture = GetFixture();
    Ref<ElementNode> root = ParseText(fixture.signedText)->GetDocumentElement();
    Ref<Security::Canonicalizer> canonicalizer;
    Security::CreateCanonicalizer(kExcC14n, canonicalizer);
    for (auto _ : state) {
        Ref<StringWriter> writer;
        CreateStringWriter(writer);
        canonicalizer->Canonicalize(root.Get(), writer.Get());
        benchmark::DoNotOptimize(writer->GetString().size());
    }
}

void FoundationParseVerify(benchmark::State& state) {
    const Fixture& fixture = GetFixture();
    for (auto _ : state) {
        Ref<ElementNode> root = ParseText(fixture.signedText)->GetDocumentElement();
        Ref<Security::Signature> signature;
        Security::CreateSignatureFromDom(
            root.Get(), root->FindChildElement(kDsigNs, "Signature").Get(), signature);
        if (!signature->Verify(fixture.resolver.Get())) {
            state.SkipWithError("verification failed");
            break;
        }
    }
}

// --- the raw loop: libxml2 and xmlsec with nothing in between ----------------------------------

constexpr int kRawOptions = XML_PARSE_NONET | XML_PARSE_NODICT;

void RawParse(benchmark::State& state) {
    const Fixture& fixture = GetFixture();
    for (auto _ : state) {
        xmlDoc* doc =
            xmlReadMemory(fixture.signedText.data(), static_cast<int>(fixture.signedText.size()),
                          nullptr, nullptr, kRawOptions);
        benchmark::DoNotOptimize(doc);
        xmlFreeDoc(doc);
    }
}

void RawParseVerify(benchmark::State& state) {
    const Fixture& fixture = GetFixture();
    // xmlsec is initialised by the foundation (GetFixture signed through it); the key is made
    // once, here, outside the loop.
    const std::string certificatePath = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/sts-rsa.pem";
    xmlSecKey* key = xmlSecOpenSSLAppKeyLoad(certificatePath.c_str(), xmlSecKeyDataFormatCertPem,
                                             nullptr, nullptr, nullptr);
    if (!key) {
        state.SkipWithError("the key could not be loaded");
        return;
    }
    for (auto _ : state) {
        xmlDoc* doc =
            xmlReadMemory(fixture.signedText.data(), static_cast<int>(fixture.signedText.size()),
                          nullptr, nullptr, kRawOptions);
        xmlNode* root = xmlDocGetRootElement(doc);
        xmlAttr* id = xmlHasProp(root, reinterpret_cast<const xmlChar*>("ID"));
        xmlChar* value = xmlNodeListGetString(doc, id->children, 1);
        xmlAddID(nullptr, doc, value, id);
        xmlFree(value);
        xmlNode* signatureNode = xmlSecFindNode(root, xmlSecNodeSignature, xmlSecDSigNs);
        xmlSecDSigCtx ctx;
        xmlSecDSigCtxInitialize(&ctx, nullptr);
        ctx.signKey = key;
        int result = xmlSecDSigCtxVerify(&ctx, signatureNode);
        bool ok = result == 0 && ctx.status == xmlSecDSigStatusSucceeded;
        ctx.signKey = nullptr;  // kept for the next round
        xmlSecDSigCtxFinalize(&ctx);
        xmlFreeDoc(doc);
        if (!ok) {
            state.SkipWithError("verification failed");
            break;
        }
    }
    xmlSecKeyDestroy(key);
}

}  // namespace

BENCHMARK(FoundationParse);
BENCHMARK(RawParse);
BENCHMARK(FoundationCanonicalize);
BENCHMARK(FoundationParseVerify);
BENCHMARK(RawParseVerify);

BENCHMARK_MAIN();

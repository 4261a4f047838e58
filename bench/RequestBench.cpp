// Building WS-Trust requests: an unsigned user-name request and a holder-of-key request signed
// with RSA-2048, beside a baseline that signs a comparable envelope with libxml2 and xmlsec
// directly (template parsed once, key loaded once, outside the loop).
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <openssl/pem.h>
#include <xmlsec/crypto.h>
#include <xmlsec/templates.h>
#include <xmlsec/xmldsig.h>
#include <xmlsec/xmlsec.h>
#include <xmlsec/xmltree.h>

#include <basalt/Crypto.h>

#include "TestData.h"
#include "internal/requests/RequestBuilder.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;

TokenSpec Spec() {
    TokenSpec spec;
    spec.tokenLifetimeSec = 3600;
    spec.audienceRestriction = {"urn:service:a", "urn:service:b"};
    return spec;
}

void BM_UnsignedUserNameRequest(benchmark::State& state) {
    RequestBuilderImpl builder(boost::none);
    TokenSpec spec = Spec();
    size_t bytes = 0;
    for (auto _ : state) {
        SoapRequest request =
            builder.BuildAcquireTokenRequest("alice@EXAMPLE.TEST", "secret", spec);
        bytes = request.envelope.size();
        benchmark::DoNotOptimize(request.envelope.data());
    }
    state.counters["envelope_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_UnsignedUserNameRequest)->Unit(benchmark::kMicrosecond);

void BM_SignedCertificateRequest(benchmark::State& state) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TokenSpec spec = Spec();
    size_t bytes = 0;
    for (auto _ : state) {
        SoapRequest request = builder.BuildAcquireTokenByCertificateRequest(spec);
        bytes = request.envelope.size();
        benchmark::DoNotOptimize(request.envelope.data());
    }
    state.counters["envelope_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_SignedCertificateRequest)->Unit(benchmark::kMicrosecond);

// The raw loop: parse a ready envelope with its signature template, sign it, serialise it.
void BM_RawXmlsecSign(benchmark::State& state) {
    xmlInitParser();
    xmlSecInit();
    xmlSecCryptoAppInit(nullptr);
    xmlSecCryptoInit();
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    // A real signed envelope of ours, stripped of its signature values, is the template.
    std::string envelope = builder.BuildAcquireTokenByCertificateRequest(Spec()).envelope;
    std::string keyPem = TestData::Read("certs/sts-rsa.key");
    xmlSecKeyPtr key = xmlSecCryptoAppKeyLoadMemory(
        reinterpret_cast<const xmlSecByte*>(keyPem.data()), keyPem.size(), xmlSecKeyDataFormatPem,
        nullptr, nullptr, nullptr);
    const xmlChar* wsuNs = BAD_CAST
        "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";
    size_t bytes = 0;
    for (auto _ : state) {
        xmlDocPtr doc = xmlReadMemory(envelope.data(), static_cast<int>(envelope.size()), nullptr,
                                      nullptr, XML_PARSE_NONET);
        // Register the two wsu:Id values as ids, as a verifier or signer must.
        for (xmlNodePtr node :
             {xmlSecFindNode(xmlDocGetRootElement(doc), BAD_CAST "Body",
                             BAD_CAST "http://schemas.xmlsoap.org/soap/envelope/"),
              xmlSecFindNode(xmlDocGetRootElement(doc), BAD_CAST "Timestamp", wsuNs)}) {
            xmlAttrPtr id = xmlHasNsProp(node, BAD_CAST "Id", wsuNs);
            xmlChar* value = xmlNodeListGetString(doc, id->children, 1);
            xmlAddID(nullptr, doc, value, id);
            xmlFree(value);
        }
        xmlNodePtr signature =
            xmlSecFindNode(xmlDocGetRootElement(doc), xmlSecNodeSignature, xmlSecDSigNs);
        xmlSecDSigCtxPtr ctx = xmlSecDSigCtxCreate(nullptr);
        ctx->signKey = xmlSecKeyDuplicate(key);
        if (xmlSecDSigCtxSign(ctx, signature) < 0) {
            state.SkipWithError("xmlsec signing failed");
        }
        xmlChar* out = nullptr;
        int size = 0;
        xmlDocDumpMemory(doc, &out, &size);
        bytes = static_cast<size_t>(size);
        xmlFree(out);
        xmlSecDSigCtxDestroy(ctx);
        xmlFreeDoc(doc);
    }
    state.counters["envelope_bytes"] = static_cast<double>(bytes);
    xmlSecKeyDestroy(key);
}
BENCHMARK(BM_RawXmlsecSign)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

// Cost of turning a signed assertion into a token, next to the raw libxml2 + xmlsec parse and
// verify of the same text that it is measured against. Also reports the heap held by one live
// token (heap_bytes_per_token).
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <xmlsec/crypto.h>
#include <xmlsec/keys.h>
#include <xmlsec/xmldsig.h>
#include <xmlsec/xmlsec.h>
#include <xmlsec/xmltree.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <basalt/IO.h>
#include <basalt/Xml.h>
#include <ssoClient/Description.h>
#include <ssoClient/SamlTokenFactory.h>

#include "CountingMalloc.h"
#include "HeapPerToken.h"
#include "TestData.h"
#include "TypicalToken.h"
#include "internal/saml/SamlNames.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace TestSupport;

// Argument 0 of the benchmarks is the bearer token, 1 the holder-of-key token (which adds the
// parse of the confirmation certificate). On two threads both share one resolver, as the users
// of one token factory do: items_per_second should double.
void BM_CreateSamlTokenVerified(benchmark::State& state) {
    const std::string& xml = TypicalToken(state.range(0));
    static const auto resolver = StsResolver();
    for (auto _ : state) {
        benchmark::DoNotOptimize(SsoClient::CreateSamlToken(xml, resolver.Get()));
    }
    state.counters["token_bytes"] =
        benchmark::Counter(static_cast<double>(xml.size()), benchmark::Counter::kAvgThreads);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CreateSamlTokenVerified)->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();

void BM_CreateSamlTokenUnverified(benchmark::State& state) {
    const std::string& xml = TypicalToken(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(SsoClient::CreateSamlToken(xml));
    }
}
BENCHMARK(BM_CreateSamlTokenUnverified)->Arg(0)->Arg(1);

// For the breakdown: the foundation's parse of the same text into a DOM, nothing else.
void BM_FoundationParseOnly(benchmark::State& state) {
    const std::string& xml = TypicalToken(state.range(0));
    for (auto _ : state) {
        Basalt::Ref<Basalt::StringReader> reader;
        Basalt::CreateStringReader(xml, reader);
        Basalt::Ref<Basalt::Xml::XMLHandler> handler;
        Basalt::Xml::CreateXMLDocumentHandler(handler);
        Basalt::Ref<Basalt::Xml::XMLParser> parser;
        Basalt::Xml::CreateXMLParser(handler.Get(), parser);
        parser->Parse(reader.Get());
        benchmark::DoNotOptimize(handler->GetResult());
    }
}
BENCHMARK(BM_FoundationParseOnly)->Arg(0)->Arg(1);

void BM_CreateSamlTokenDescription(benchmark::State& state) {
    const auto token = SsoClient::CreateSamlToken(TypicalToken());
    for (auto _ : state) {
        benchmark::DoNotOptimize(SsoClient::CreateSamlTokenDescription(*token));
    }
}
BENCHMARK(BM_CreateSamlTokenDescription);

// The baseline, as in the foundation's XML benchmark: libxml2 parse, ID registration and xmlsec
// verification with a key made once outside the loop. xmlsec and its OpenSSL backend were
// initialised by the foundation when the token was signed.
using RawKey = std::unique_ptr<xmlSecKey, void (*)(xmlSecKeyPtr)>;

RawKey LoadRawKey() {
    const std::string certificate = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/sts-rsa.pem";
    return RawKey(xmlSecCryptoAppKeyLoad(certificate.c_str(), xmlSecKeyDataFormatCertPem, nullptr,
                                         nullptr, nullptr),
                  &xmlSecKeyDestroy);
}

bool RawParseAndVerify(const std::string& xml, xmlSecKey* key) {
    std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> doc(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                      XML_PARSE_NONET | XML_PARSE_NODICT),
        &xmlFreeDoc);
    xmlNodePtr root = xmlDocGetRootElement(doc.get());
    xmlAttrPtr id = xmlHasProp(root, BAD_CAST "ID");
    xmlChar* value = xmlNodeListGetString(doc.get(), id->children, 1);
    xmlAddID(nullptr, doc.get(), value, id);
    xmlFree(value);
    xmlNodePtr signature = xmlSecFindNode(root, xmlSecNodeSignature, xmlSecDSigNs);
    xmlSecDSigCtx context;
    xmlSecDSigCtxInitialize(&context, nullptr);
    context.signKey = key;
    const bool verified = xmlSecDSigCtxVerify(&context, signature) == 0 &&
                          context.status == xmlSecDSigStatusSucceeded;
    context.signKey = nullptr;  // kept for the next round
    xmlSecDSigCtxFinalize(&context);
    return verified;
}

void BM_RawLibxml2XmlsecParseAndVerify(benchmark::State& state) {
    const std::string& xml = TypicalToken(state.range(0));
    static const RawKey key = LoadRawKey();
    if (!key) {
        state.SkipWithError("cannot load the verification key");
        return;
    }
    for (auto _ : state) {
        if (!RawParseAndVerify(xml, key.get())) {
            state.SkipWithError("baseline verification failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
// On two threads as well: what the machine gives two verifying threads at best.
BENCHMARK(BM_RawLibxml2XmlsecParseAndVerify)->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();

// Heap allocations (malloc, calloc, realloc of every library) per verified token, ours (/0
// bearer, /1 holder-of-key) and the raw loop's (/2 bearer, /3 holder-of-key). With a second
// thread each allocation may contend for the allocator, so fewer is better beyond its own cost.
void BM_AllocationsPerToken(benchmark::State& state) {
    const bool raw = state.range(0) >= 2;
    const std::string& xml = TypicalToken(state.range(0) % 2);
    static const auto resolver = StsResolver();
    static const RawKey key = LoadRawKey();
    // One round outside the count: first-use caches (decoded certificates, names) are not per
    // token.
    benchmark::DoNotOptimize(SsoClient::CreateSamlToken(xml, resolver.Get()));
    RawParseAndVerify(xml, key.get());
    long allocations = 0;
    for (auto _ : state) {
        AllocationCount::CountAllocations count;
        if (raw) {
            benchmark::DoNotOptimize(RawParseAndVerify(xml, key.get()));
        } else {
            benchmark::DoNotOptimize(SsoClient::CreateSamlToken(xml, resolver.Get()));
        }
        allocations += count.Count();
    }
    state.counters["allocations_per_token"] =
        static_cast<double>(allocations) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_AllocationsPerToken)->DenseRange(0, 3)->Iterations(50);

// Heap held by one live token.
void BM_HeapBytesPerToken(benchmark::State& state) {
    const std::string& xml = TypicalToken();
    const auto resolver = StsResolver();
    MeasureHeapPerObject(state, [&] { return SsoClient::CreateSamlToken(xml, resolver.Get()); });
}
BENCHMARK(BM_HeapBytesPerToken)->Iterations(3);

}  // namespace

// With --in_worker the benchmarks run on a thread of their own, as a server's validating threads
// do: a one-thread run then allocates from a thread arena like each thread of a two-thread run,
// instead of from the main thread's heap.
int main(int argc, char** argv) {
    const bool inWorker = argc > 1 && std::string(argv[argc - 1]) == "--in_worker";
    argc -= inWorker ? 1 : 0;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    if (inWorker) {
        std::thread([] { benchmark::RunSpecifiedBenchmarks(); }).join();
    } else {
        benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    return 0;
}

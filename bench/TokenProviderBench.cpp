// What a caller pays once the token lifecycle is warm: GetToken() on a provider that holds a
// token, and a repeat validation of a typical 6-7 KB signed assertion through the caching
// factory next to the full parse and verify it saves. Each with 1 and 2 threads.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include <ssoClient/SamlTokenFactory.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/TokenProvider.h>
#include <ssoClient/ValidatedTokenCache.h>

#include "TestData.h"
#include "TypicalToken.h"
#include "internal/saml/SamlNames.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace TestSupport;

const std::shared_ptr<SsoClient::SamlTokenFactory>& Factory() {
    static const auto resolver = StsResolver();
    static const auto factory = SsoClient::CreateSamlTokenFactory(resolver.Get());
    return factory;
}

// A provider whose recipe makes the token without a network call; warmed by one GetToken().
SsoClient::TokenProvider& WarmProvider() {
    static const std::unique_ptr<SsoClient::TokenProvider> provider = [] {
        SsoClient::SecurityTokenServiceConfig config;
        config.url = "http://127.0.0.1:9/sts/STSService";  // never contacted
        config.tokenFactory = Factory();
        SsoClient::TokenSpec spec;
        spec.tokenLifetimeSec = 24 * 3600;
        auto made = SsoClient::CreateTokenProvider(
            SsoClient::CreateSecurityTokenService(config),
            SsoClient::TokenRecipe(
                [](const SsoClient::SecurityTokenService&, const SsoClient::TokenSpec&) {
                    return Factory()->CreateSamlToken(TypicalToken());
                }),
            spec);
        made->GetToken();
        return made;
    }();
    return *provider;
}

void BM_GetTokenWarm(benchmark::State& state) {
    SsoClient::TokenProvider& provider = WarmProvider();
    for (auto _ : state) {
        benchmark::DoNotOptimize(provider.GetToken());
    }
}
BENCHMARK(BM_GetTokenWarm)->Threads(1)->Threads(2)->UseRealTime();

void BM_ValidateUncached(benchmark::State& state) {
    const std::string& xml = TypicalToken();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Factory()->CreateSamlToken(xml));
    }
    state.counters["token_bytes"] = static_cast<double>(xml.size());
}
BENCHMARK(BM_ValidateUncached)->Threads(1)->Threads(2)->UseRealTime();

void BM_ValidateCached(benchmark::State& state) {
    static const auto cached = SsoClient::CreateCachingSamlTokenFactory(Factory());
    const std::string& xml = TypicalToken();
    cached->CreateSamlToken(xml);
    for (auto _ : state) {
        benchmark::DoNotOptimize(cached->CreateSamlToken(xml));
    }
}
BENCHMARK(BM_ValidateCached)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

// Whole token-service calls against the loopback test STS: AcquireToken by password and by
// certificate, one thread and eight concurrent asynchronous calls, with a new connection per call
// and with connections kept alive. Client CPU per call is reported beside wall time.
#include <benchmark/benchmark.h>

#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/SecurityTokenService.h>

#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "TestData.h"
#include "sts/WsTrustSts.h"

namespace {

using namespace SsoClient;

TestSts::WsTrustSts& Sts() {
    static TestSts::WsTrustSts sts;
    return sts;
}

std::shared_ptr<SecurityTokenService> MakeService(bool reuse) {
    static Basalt::Ref<Basalt::Ssl::SSLContext> ssl = [] {
        Basalt::Ssl::SSLContextOptions options;
        options.trustedCaPem = TestData::Read("sts/ca.pem");
        Basalt::Ref<Basalt::Ssl::SSLContext> context;
        Basalt::Ssl::CreateSSLContext(options, context);
        return context;
    }();
    static Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver = [] {
        std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> signing(1);
        Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/signing.pem"), signing[0]);
        Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> made;
        Basalt::Xml::Security::CreateTrustedCertificateResolver(signing, made);
        return made;
    }();
    SecurityTokenServiceConfig config;
    config.url = Sts().Url();
    config.tokenFactory = CreateSamlTokenFactory(resolver.Get());
    config.sslContext = ssl.Get();
    config.connectionFlag = reuse;
    HolderOfKeyConfig client;
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/client.pem"), client.certificate);
    Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read("sts/client.key"), client.privateKey);
    config.holderOfKey = client;
    return CreateSecurityTokenService(config);
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TokenSpec Spec() {
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    return spec;
}

// state.range(0): 0 by password, 1 by certificate; state.range(1): reuse connections.
void BM_AcquireTokenSync(benchmark::State& state) {
    auto service = MakeService(state.range(1) != 0);
    const bool byCertificate = state.range(0) != 0;
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        auto token = byCertificate ? service->AcquireTokenByCertificate(Spec())
                                   : service->AcquireToken("alice", "alice-password", Spec());
        benchmark::DoNotOptimize(token.get());
    }
    state.counters["calls_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                       benchmark::Counter::kIsRate);
    state.counters["client_cpu_us_per_call"] =
        (CpuSeconds() - cpuStart) * 1e6 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_AcquireTokenSync)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->ArgNames({"by_certificate", "reuse"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Eight asynchronous calls in flight at a time.
void BM_AcquireTokenAsync8(benchmark::State& state) {
    auto service = MakeService(state.range(1) != 0);
    const bool byCertificate = state.range(0) != 0;
    constexpr int kInFlight = 8;
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable done;
        int remaining = kInFlight;
        auto callback = [&](const std::shared_ptr<const SamlToken>& token, const Basalt::Exception* error) {
            if (!token || error) {
                state.SkipWithError("a call failed");
            }
            std::lock_guard<std::mutex> lock(mutex);
            if (--remaining == 0) {
                done.notify_all();
            }
        };
        for (int i = 0; i < kInFlight; ++i) {
            if (byCertificate) {
                service->AcquireTokenByCertificateAsync(Spec(), callback);
            } else {
                service->AcquireTokenAsync("alice", "alice-password", Spec(), callback);
            }
        }
        std::unique_lock<std::mutex> lock(mutex);
        done.wait(lock, [&] { return remaining == 0; });
    }
    const double calls = static_cast<double>(state.iterations()) * kInFlight;
    state.counters["calls_per_s"] = benchmark::Counter(calls, benchmark::Counter::kIsRate);
    state.counters["client_cpu_us_per_call"] = (CpuSeconds() - cpuStart) * 1e6 / calls;
}
BENCHMARK(BM_AcquireTokenAsync8)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->ArgNames({"by_certificate", "reuse"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

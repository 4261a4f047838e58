// Whole token-service calls against the loopback test STS: AcquireToken by password and by
// certificate, one thread and eight concurrent asynchronous calls, with a new connection per call
// and with connections kept alive. Client CPU per call is reported beside wall time.
#include <benchmark/benchmark.h>

#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/SecurityTokenService.h>

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

#include "TestData.h"
#include "sts/TestServer.h"

namespace {

using namespace SsoClient;

// Two server processes, so that the STS has a core's worth of workers whatever the client does.
TestSts::WsTrustSts& Sts() {
    static TestSts::WsTrustSts sts({"--workers", "2"});
    return sts;
}

// CPU seconds used so far by the STS processes (found by their command line).
double StsCpuSeconds() {
    double seconds = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    for (dirent* entry; proc && (entry = readdir(proc.get())) != nullptr;) {
        std::string dir = std::string("/proc/") + entry->d_name;
        std::ifstream cmdline(dir + "/cmdline");
        std::string command((std::istreambuf_iterator<char>(cmdline)),
                            std::istreambuf_iterator<char>());
        if (command.find("wstrust_sts.py") == std::string::npos) {
            continue;
        }
        std::ifstream statFile(dir + "/stat");
        std::string stat((std::istreambuf_iterator<char>(statFile)),
                         std::istreambuf_iterator<char>());
        std::istringstream fields(stat.substr(stat.rfind(')') + 2));
        std::string field;
        double utime = 0, stime = 0;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14) {
                utime = std::stod(field);
            } else if (i == 15) {
                stime = std::stod(field);
            }
        }
        seconds += (utime + stime) / ticks;
    }
    return seconds;
}

// Password requests go without a holder-of-key identity (bearer, unsigned); certificate
// requests need one (signed).
std::shared_ptr<SecurityTokenService> MakeService(bool reuse, bool holderOfKey) {
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
    config.allowPlainHttp = true;  // the loopback STS
    if (holderOfKey) {
        HolderOfKeyConfig client;
        Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/client.pem"),
                                                 client.certificate);
        Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read("sts/client.key"),
                                                client.privateKey);
        config.holderOfKey = client;
    }
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
// Per-call figures shared by both benchmarks.
void ReportPerCall(benchmark::State& state, double calls, double cpuStart, double stsCpuStart) {
    state.counters["calls_per_s"] = benchmark::Counter(calls, benchmark::Counter::kIsRate);
    state.counters["client_cpu_us_per_call"] = (CpuSeconds() - cpuStart) * 1e6 / calls;
    state.counters["sts_cpu_us_per_call"] = (StsCpuSeconds() - stsCpuStart) * 1e6 / calls;
}

void BM_AcquireTokenSync(benchmark::State& state) {
    const bool byCertificate = state.range(0) != 0;
    auto service = MakeService(state.range(1) != 0, byCertificate);
    const double cpuStart = CpuSeconds();
    const double stsCpuStart = StsCpuSeconds();
    for (auto _ : state) {
        auto token = byCertificate ? service->AcquireTokenByCertificate(Spec())
                                   : service->AcquireToken("alice", "alice-password", Spec());
        benchmark::DoNotOptimize(token.get());
    }
    ReportPerCall(state, static_cast<double>(state.iterations()), cpuStart, stsCpuStart);
}
BENCHMARK(BM_AcquireTokenSync)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->ArgNames({"by_certificate", "reuse"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Eight asynchronous calls in flight at a time.
void BM_AcquireTokenAsync8(benchmark::State& state) {
    const bool byCertificate = state.range(0) != 0;
    auto service = MakeService(state.range(1) != 0, byCertificate);
    constexpr int kInFlight = 8;
    const double cpuStart = CpuSeconds();
    const double stsCpuStart = StsCpuSeconds();
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable done;
        int remaining = kInFlight;
        auto callback = [&](const std::shared_ptr<const SamlToken>& token,
                            const Basalt::Exception* error) {
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
    ReportPerCall(state, static_cast<double>(state.iterations()) * kInFlight, cpuStart,
                  stsCpuStart);
}
BENCHMARK(BM_AcquireTokenAsync8)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->ArgNames({"by_certificate", "reuse"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

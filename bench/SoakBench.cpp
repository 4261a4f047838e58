// Long runs that must leave nothing behind. BM_FaultLoad: thousands of asynchronous acquisitions,
// hundreds in flight, against loopback servers that stop, hang, send garbage, truncate and fault
// in turns (tests/support/FaultLoad.h), with the heap in use before and after. BM_ValidationSoak:
// a million verified CreateSamlToken calls on the typical token with the resident set sampled
// every 100k. Fewer for a quick check: --waves=N (of 250 calls), --validations=N.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "TypicalToken.h"
#include "support/FaultLoad.h"

namespace {

long g_waves = 40;
long g_validations = 1000000;

constexpr int kInFlight = 250;
constexpr int64_t kWaitMicros = 1000 * 1000;
constexpr double kHeapToleranceKb = 512;
constexpr double kResidentToleranceKb = 2048;

double HeapInUseKb() {
    return static_cast<double>(mallinfo2().uordblks) / 1024;
}

double ResidentKb() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident * sysconf(_SC_PAGESIZE)) / 1024;
}

void BM_FaultLoad(benchmark::State& state) {
    // A first wave builds what lives for the process (parser tables, the connection pool).
    TestSupport::RunFaultLoad(1, kInFlight, kWaitMicros);
    const double before = HeapInUseKb();
    TestSupport::FaultLoadReport report;
    for (auto _ : state) {
        report = TestSupport::RunFaultLoad(static_cast<int>(g_waves), kInFlight, kWaitMicros);
    }
    const double after = HeapInUseKb();
    state.counters["calls"] = report.calls;
    state.counters["in_flight"] = kInFlight;
    state.counters["not_called_once"] = report.notCalledOnce;
    state.counters["waves_without_token"] = report.wavesWithoutToken;
    state.counters["slowest_wave_s"] = report.slowestWaveSeconds;
    state.counters["heap_before_kb"] = before;
    state.counters["heap_after_kb"] = after;
    for (const auto& [kind, outcomes] : report.outcomes) {
        for (const auto& [outcome, count] : outcomes) {
            std::string name = kind.substr(1) + "_" + outcome.substr(outcome.rfind(':') + 1);
            std::replace(name.begin(), name.end(), ' ', '_');
            state.counters[name] = count;
        }
    }
    if (report.notCalledOnce != 0 || report.wavesWithoutToken != 0 ||
        after - before > kHeapToleranceKb) {
        state.SkipWithError("a callback was lost, a restart not recovered or heap left behind");
    }
}
BENCHMARK(BM_FaultLoad)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ValidationSoak(benchmark::State& state) {
    const std::string& xml = TypicalToken();
    const auto resolver = TestSupport::StsResolver();
    const long every = std::max(1L, std::min(100000L, g_validations / 10));
    std::vector<double> resident;
    for (auto _ : state) {
        for (long i = 1; i <= g_validations; ++i) {
            benchmark::DoNotOptimize(SsoClient::CreateSamlToken(xml, resolver.Get()));
            if (i % every == 0) {
                resident.push_back(ResidentKb());
            }
        }
    }
    // The first sample follows the first 100k, past whatever the first calls build once.
    const double first = resident.front(), last = resident.back();
    state.counters["validations"] = static_cast<double>(g_validations);
    state.counters["rss_first_kb"] = first;
    state.counters["rss_max_kb"] = *std::max_element(resident.begin(), resident.end());
    state.counters["rss_last_kb"] = last;
    state.counters["rss_growth_kb"] = last - first;
    if (last - first > kResidentToleranceKb) {
        state.SkipWithError("the resident set grew");
    }
}
BENCHMARK(BM_ValidationSoak)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--waves=", 8) == 0) {
            g_waves = std::stol(argv[i] + 8);
        } else if (std::strncmp(argv[i], "--validations=", 14) == 0) {
            g_validations = std::stol(argv[i] + 14);
        } else {
            rest.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

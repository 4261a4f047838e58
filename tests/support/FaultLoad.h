#pragma once

// Many asynchronous acquisitions at once against loopback servers (tests/sts/serve.py) that
// misbehave on purpose: an STS that answers tokens and SOAP faults and is stopped in the middle
// of every wave and restarted for the next, and a rogue one that sends garbage, a truncated reply
// or nothing at all. Shared by the short load test and the long-running benchmark.

#include <basalt/Exception.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TestData.h"
#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/HttpsClient.h"
#include "sts/TestServer.h"
#include "support/FakeTransport.h"
#include "support/SamlAssertionGenerator.h"

namespace TestSupport {

struct FaultLoadReport {
    int calls = 0;
    int notCalledOnce = 0;  // calls whose callback ran other than exactly once
    // Waves in which no call got a token: all but the first begin right after a restart.
    int wavesWithoutToken = 0;
    double slowestWaveSeconds = 0;
    std::map<std::string, std::map<std::string, int>> outcomes;  // kind -> outcome -> count
};

// waves of perWave AcquireTokenAsync calls, all queued at once: the first of each wave to
// "/hang", the rest in turn to "/ok", "/fault", "/garbage" and "/truncated". The STS stops when
// half a wave has been called back and restarts before the next; outcomes called back from the
// stop to the restart are counted under the kind followed by " stopped". A wave whose callbacks
// take longer than the wait timeout plus a minute counts its missing ones as not called once and
// ends the run.
inline FaultLoadReport RunFaultLoad(int waves, int perWave, int64_t waitMicros) {
    using namespace SsoClient;
    const TestData::TempDir replies("fault-load");
    TestSts::TestServer sts, rogue;
    const std::string ok = IssueReply(MakeSignedAssertion({}));
    const std::string fault = SoapFault("wst:FailedAuthentication", "Invalid credentials");
    const std::map<std::string, std::string> urls = {
        {"/ok", sts.Url("/status?code=200&file=" + replies.Write("ok", ok))},
        {"/fault", sts.Url("/status?code=500&file=" + replies.Write("fault", fault))},
        {"/garbage", rogue.Url("/_fault/garbage")},
        {"/truncated", rogue.Url("/_fault/truncated")},
        {"/hang", rogue.Url("/_fault/hang")}};
    auto factory = CreateSamlTokenFactory(StsResolver().Get());
    std::map<std::string, std::shared_ptr<SecurityTokenService>> services;
    for (const auto& [kind, url] : urls) {
        services[kind] = std::make_shared<SecurityTokenServiceImpl>(
            std::make_shared<RequestBuilderImpl>(boost::none),
            std::make_shared<HttpsClient>(url, nullptr, "", waitMicros, true),
            std::make_shared<ResponseHandlerImpl>(), factory);
    }
    struct Shared {  // outlives the run if a callback never comes
        std::mutex mutex;
        std::condition_variable changed;
        FaultLoadReport report;
        std::vector<int> called;
        int done = 0, tokens = 0;
        bool stopping = false;  // the STS may be down
    };
    auto shared = std::make_shared<Shared>();
    shared->called.resize(static_cast<size_t>(waves) * perWave);
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    for (int wave = 0; wave < waves; ++wave) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < perWave; ++i) {
            static const char* const kTurns[] = {"/ok", "/fault", "/garbage", "/truncated"};
            const char* kind = i == 0 ? "/hang" : kTurns[i % 4];
            const size_t id = static_cast<size_t>(wave) * perWave + i;
            services[kind]->AcquireTokenAsync(
                "user", "password", spec,
                [shared, kind, id](const std::shared_ptr<const SamlToken>& result,
                                   const Basalt::Exception* error) {
                    std::lock_guard<std::mutex> lock(shared->mutex);
                    ++shared->called[id];
                    shared->tokens += result ? 1 : 0;
                    const std::string label =
                        kind + std::string(shared->stopping ? " stopped" : "");
                    ++shared->report.outcomes[label][error ? Basalt::DemangledName(typeid(*error))
                                                     : result ? "token"
                                                              : "null"];
                    ++shared->done;
                    shared->changed.notify_all();
                });
        }
        std::unique_lock<std::mutex> lock(shared->mutex);
        const auto bound = start + std::chrono::microseconds(waitMicros) + std::chrono::minutes(1);
        shared->changed.wait_until(lock, bound, [&] { return shared->done >= perWave / 2; });
        shared->stopping = true;
        lock.unlock();
        sts.Command("stop");
        lock.lock();
        const bool finished =
            shared->changed.wait_until(lock, bound, [&] { return shared->done >= perWave; });
        shared->report.wavesWithoutToken += shared->tokens == 0 ? 1 : 0;
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        shared->report.slowestWaveSeconds =
            std::max(shared->report.slowestWaveSeconds, took.count());
        lock.unlock();
        sts.Command("start");
        std::lock_guard<std::mutex> restarted(shared->mutex);
        shared->stopping = false;
        shared->done = shared->tokens = 0;
        if (!finished) {
            break;
        }
    }
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->report.calls = static_cast<int>(shared->called.size());
    shared->report.notCalledOnce = static_cast<int>(
        std::count_if(shared->called.begin(), shared->called.end(), [](int n) { return n != 1; }));
    return shared->report;
}

}  // namespace TestSupport

// A service's time limits and retries over loopback servers, and the warning line a failed
// operation leaves.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>

#include <atomic>
#include <chrono>
#include <future>

#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/LogCapture.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace std::chrono_literals;
using Check = ::testing::AssertionResult (*)(const std::function<void()>&, const std::string&,
                                             bool);
template <class E>
constexpr Check kThrows = &TestSupport::Throws<E, const std::function<void()>&>;

const char* const kPassword = "alice-secret-pw";

// Counts the retries it is told of.
struct RetryCounter : ServiceObserver {
    void RetryScheduled(int, std::chrono::microseconds) override { ++retries; }
    std::atomic<int> retries{0};
};

// Asks url for a token with these limits, waiting for it or (async) for the callback, which
// throws the failure again here.
void Acquire(const std::string& url, const ServiceLimits& limits, bool async = false,
             std::shared_ptr<ServiceObserver> observer = nullptr) {
    SecurityTokenServiceConfig config = TestSupport::LoopbackStsConfig(url);
    config.limits = limits;
    config.observer = std::move(observer);
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    auto service = CreateSecurityTokenService(config);
    if (!async) {
        service->AcquireToken("alice", kPassword, spec);
        return;
    }
    std::promise<std::shared_ptr<Basalt::Exception>> outcome;
    service->AcquireTokenAsync("alice", kPassword, spec, [&](auto&, const Basalt::Exception* e) {
        outcome.set_value(std::shared_ptr<Basalt::Exception>(e ? e->Clone() : nullptr));
    });
    if (auto failure = outcome.get_future().get()) {
        failure->Throw();
    }
}

TEST(ServiceLimits, AServerThatNeverAnswersCostsAtMostTheLimit) {
    TestSts::TestServer silent({"--silent"});
    const std::string host = "127.0.0.1:" + std::to_string(silent.Port());
    ServiceLimits deadline, connect, both;
    deadline.deadline = 1s;
    connect.connectTimeout = 1s;  // the TLS handshake never completes
    both.connectTimeout = 1s;
    both.deadline = 1500ms;
    both.retry = RetryPolicy{3, 100ms, 100ms};
    const std::tuple<const char*, ServiceLimits, std::string> cases[] = {
        {"http", deadline, "deadline of 1 s exceeded"},
        {"https", connect, "connect timeout of 1 s exceeded connecting to " + host},
        // Tried again after the connect timeout, until the deadline ends the second try.
        {"https", both, "deadline of 1500 ms exceeded"},
    };
    for (bool async : {false, true}) {
        for (const auto& [scheme, limits, message] : cases) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(TestSupport::Throws<CommunicationException>(
                [&, &limits = limits] {
                    Acquire(std::string(scheme) + "://" + host + "/sts", limits, async);
                },
                message));
            EXPECT_LT(std::chrono::steady_clock::now() - start, 5s) << message;
        }
    }
}

TEST(ServiceLimits, RetriesWhatIsSafeAndLogsWhatTheExceptionDoesNotCarry) {
    TestSts::TestServer server;
    TestSts::RefusedPort refused;
    const std::string fault =
        "%3Cs:Envelope%20xmlns:s=%27http://schemas.xmlsoap.org/soap/envelope/%27%3E%3Cs:Body%3E"
        "%3Cs:Fault%3E%3Cfaultcode%3Es:Server%3C/faultcode%3E%3Cfaultstring%3ESTS%20down%0Afor%20"
        "repairs%3C/faultstring%3E%3C/s:Fault%3E%3C/s:Body%3E%3C/s:Envelope%3E";
    const std::string refusedUrl = "http://127.0.0.1:" + std::to_string(refused.Port()) + "/sts";
    struct Case {
        std::string url;
        Check check;
        std::string message;
        int requests;
        std::string notes;  // of the warning line
    };
    // Each pass has flaky replies of its own: the server counts them by query.
    bool async = false;
    const auto flaky = [&](const std::string& query) {
        return server.Url("/flaky?" + query + (async ? "&pass=2" : ""));
    };
    const std::string unexpected = "Unexpected response format: missing SAOP Body.";
    const auto cases = [&] {
        return std::vector<Case>{
            {flaky("fail=2&code=503&body=%3Cx/%3E"), kThrows<SsoException>, unexpected, 3,
             "; HTTP status 200; attempts 3"},
            {flaky("fail=1&code=502&body=%3Cx/%3E"), kThrows<SsoException>, unexpected, 2,
             "; HTTP status 200; attempts 2"},
            {flaky("fail=9&code=504"), kThrows<CommunicationException>,
             "Server returned error: 504 Gateway Timeout", 3,
             "; HTTP status 504; reply 'try later '; attempts 3"},
            // Neither a SOAP fault nor another status is tried again.
            {server.Url("/status?code=500&body=" + fault), kThrows<SsoException>,
             "Unexpected SOAP fault: s:Server; request failed.", 1,
             "; HTTP status 500; SOAP fault 'STS down for repairs'"},
            {flaky("fail=9&code=404"), kThrows<CommunicationException>,
             "Server returned error: 404 Not Found", 1, "; HTTP status 404; reply 'try later '"},
            {refusedUrl, kThrows<CommunicationException>, "Cannot connect to " + refusedUrl, 0,
             "; attempts 3"},
        };
    };
    ServiceLimits limits;
    limits.retry = RetryPolicy{3, 10ms, 20ms};
    // The plain-HTTP opt-in warns once per process: before the capture.
    CreateSecurityTokenService(TestSupport::LoopbackStsConfig(refusedUrl));
    TestSupport::LogCapture log(Basalt::Service::Logger::LL_Warning);
    // The asynchronous call sends its retries from the pool's timer, with the same outcome.
    for (async = false;; async = true) {
        for (const Case& c : cases()) {
            server.Command("reset");
            auto counter = std::make_shared<RetryCounter>();
            EXPECT_TRUE(c.check([&] { Acquire(c.url, limits, async, counter); }, c.message, true))
                << c.url;
            EXPECT_EQ(server.Stats()["requests"], c.requests) << c.url;
            EXPECT_EQ(counter->retries, c.url == refusedUrl ? 2 : c.requests - 1) << c.url;
            const std::string exception =
                c.check == kThrows<SsoException> ? "SsoException" : "CommunicationException";
            EXPECT_EQ(log.Take(),
                      std::vector<std::string>{
                          "4 SecurityTokenServiceImpl::AcquireToken failed (SsoClient::" +
                          exception + "): url " + c.url + c.notes});
        }
        if (async) {
            break;
        }
    }
}

}  // namespace

// The paths a user runs, end to end against the loopback test STS (an independent implementation
// in Python, lxml and xmlsec): its tokens parse and verify here, our requests verify there. Time
// limits and retries over loopback servers, with the warning line a failed operation leaves, and
// many asynchronous calls against misbehaving ones (the long run is bench/SoakBench).
#include <basalt/Crypto.h>
#include <basalt/Http.h>
#include <basalt/Ssl.h>
#include <basalt/Thread.h>
#include <gtest/gtest.h>
#include <ssoClient/ConnectionSpec.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/TokenProvider.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "TestData.h"
#include "internal/saml/Descriptions.h"
#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/LimitedTransport.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/FaultLoad.h"
#include "support/LogCapture.h"
#include "support/TestCredentials.h"
#include "support/TestGssMechanism.h"

namespace {

using namespace SsoClient;
using TestSupport::kThrows;
using TestSupport::Spec;
using TestSupport::StsTrust;
using TestSupport::ThrowCheck;
using namespace std::chrono_literals;

// The description without its times.
std::string Described(const SamlToken& token) {
    std::string text = CreateSamlTokenDescription(token);
    const size_t from = text.find(", startTime=");
    return text.erase(from, text.find(", renewCount=") - from);
}

int64_t LifetimeSeconds(const SamlToken& token) {
    return (token.GetExpirationTime().GetUtcTime() - token.GetStartTime().GetUtcTime()) / 1000000;
}

class SecurityTokenServiceTest : public ::testing::Test {
  protected:
    // A service for the STS, with the client identity if withHolderOfKey.
    std::shared_ptr<SecurityTokenService> Service(bool withHolderOfKey = true) {
        SecurityTokenServiceConfig config = TestSupport::LoopbackStsConfig(m_sts.Url());
        if (withHolderOfKey) {
            config.holderOfKey = Trust().client;
        }
        return CreateSecurityTokenService(config);
    }
    static const StsTrust& Trust() {
        static const StsTrust trust;
        return trust;
    }

    TestSts::WsTrustSts m_sts;
};

TEST_F(SecurityTokenServiceTest, PasswordTokenCarriesWhatWasAskedFor) {
    TokenSpec spec = Spec(1200);
    spec.renewable = spec.delegable = true;
    spec.audienceRestriction = {"urn:service:b", "urn:service:a"};
    spec.advice = {{"urn:advice:source", {{"colour", {"red", "green"}}}}};
    auto token = Service(false)->AcquireToken("alice", "alice-password", spec);
    ASSERT_TRUE(token);
    EXPECT_EQ(Described(*token),
              "SamlToken [subject={Name: alice; Domain:example.test}, groups=[{Name: Users; "
              "Domain:example.test}, {Name: Readers; Domain:example.test}], delegationChain=[], "
              "renewCount=10, delegableCount=10, isSolution=false, type=Saml_Bearer]");
    EXPECT_EQ(LifetimeSeconds(*token), 1200);
    std::set<std::string> audience;
    token->GetAudience(audience);
    EXPECT_EQ(audience, spec.audienceRestriction);
    std::vector<Advice> advice;
    token->GetAdvice(advice);
    EXPECT_EQ(JoinDescriptions(advice, {DescribeAdvice}),
              "Advice [source=urn:advice:source, attributes=[[source=colour, attributes=[red, "
              "green]]]]");
    PersonName name;
    token->GetPersonName(name);
    EXPECT_EQ(name.givenName + " " + name.surname, "Alice Liddell");
    // A wrong password is refused. (An untrusted server: the transport's and the TLS tests.)
    EXPECT_TRUE(TestSupport::Throws<InvalidCredentialsException>(
        [&] { Service(false)->AcquireToken("alice", "wrong", spec); },
        "Authentication failed: Invalid user name or password"));
    // Callers of a provider who find no token share one request.
    auto provider = CreateTokenProvider(Service(false),
                                        TokenRecipe::ByPassword("alice", "alice-password"), Spec());
    std::vector<std::future<std::shared_ptr<const SamlToken>>> callers(8);
    for (auto& caller : callers) {
        caller = std::async(std::launch::async, [&] { return provider->GetToken(); });
    }
    const auto shared = provider->GetToken();
    for (auto& caller : callers) {
        EXPECT_EQ(caller.get(), shared);
    }
    EXPECT_EQ(m_sts.Stats()["requests"], 3);
}

TEST_F(SecurityTokenServiceTest, HolderOfKeyOperationsChainTogether) {
    auto service = Service();
    TokenSpec spec = Spec(900);
    spec.renewable = spec.delegable = true;
    auto byCertificate = service->AcquireTokenByCertificate(spec);
    ASSERT_TRUE(byCertificate);
    EXPECT_EQ(Described(*byCertificate),
              "SamlToken [subject={Name: client-solution; Domain:example.test}, groups=[{Name: "
              "Solutions; Domain:example.test}], delegationChain=[], renewCount=10, "
              "delegableCount=10, isSolution=true, type=Saml_HOK]");
    ASSERT_NE(byCertificate->GetHolderOfKeyCertificate(), nullptr);
    EXPECT_TRUE(byCertificate->GetHolderOfKeyCertificate()->Equals(*Trust().client.certificate));

    auto byToken = service->AcquireTokenByToken(*byCertificate, Spec(300));
    ASSERT_TRUE(byToken);
    EXPECT_EQ(*byToken->GetSubject(), *byCertificate->GetSubject());
    EXPECT_NE(byToken->GetId(), byCertificate->GetId());

    auto renewed = service->RenewToken(*byCertificate, 1800);
    ASSERT_TRUE(renewed);
    EXPECT_NE(renewed->GetId(), byCertificate->GetId());
    EXPECT_EQ(LifetimeSeconds(*renewed), 1800);

    EXPECT_TRUE(service->ValidateToken(*renewed));
    EXPECT_EQ(m_sts.Command("revoke " + renewed->GetId()), "OK");
    EXPECT_FALSE(service->ValidateToken(*renewed));

    // A signed password request carrying a token as ActAs: the STS must find both the request
    // signature and the embedded token's signature intact.
    spec.actAsToken = byCertificate;
    auto acting = service->AcquireToken("alice", "alice-password", spec);
    ASSERT_TRUE(acting);
    EXPECT_EQ(acting->GetTokenType(), Saml_HOK);
    EXPECT_EQ(acting->GetSubject()->name, "client-solution");
    std::vector<Delegate> chain;
    acting->GetDelegationChain(chain);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].principal, (PrincipalId{"alice", "example.test"}));
}

// GSS over several legs, waiting on a service made from a caller-supplied user agent, and
// asynchronously (each leg sent from the pool, in the same session). The STS's session cookie
// lands in the agent's store. On an agent the URL is the request target as it stands, a path or
// an absolute URL; anything else fails as the transport does. One deadline covers all legs.
TEST_F(SecurityTokenServiceTest, GssNegotiationOverSeveralLegsAndServicesOnAUserAgent) {
    Basalt::Ref<Basalt::Http::ConnectionSpec> spec;
    CreateSsoSSLConnectionSpec("localhost", m_sts.Port(), Trust().sslContext.Get(), "", false,
                               spec);
    Basalt::Ref<Basalt::Http::CookieStore> cookies;
    Basalt::Http::CreateCookieStore("", cookies);
    SecurityTokenServiceConfigEx config;
    Basalt::Http::CreateHttpUserAgent(spec.Get(), cookies.Get(), nullptr, config.userAgent);
    config.url = "/sts/STSService";
    config.tokenFactory = CreateSamlTokenFactory(Trust().resolver.Get());
    for (bool async : {false, true}) {
        auto handler = std::make_shared<TestSupport::TestGssMechanism>("alice@example.test",
                                                                       "alice-password", 2);
        std::promise<std::shared_ptr<const SamlToken>> issued;
        if (async) {
            Service(false)->AcquireTokenByGSSAsync(
                Spec(), handler, [&](const auto& token, auto*) { issued.set_value(token); });
        } else {
            issued.set_value(
                CreateSecurityTokenService(config)->AcquireTokenByGSS(Spec(), *handler));
            EXPECT_FALSE(cookies->GetCookieLines().empty());
        }
        auto token = issued.get_future().get();
        ASSERT_TRUE(token);
        EXPECT_EQ(token->GetSubject()->name, "alice");
        EXPECT_EQ(m_sts.Stats()["requests"], async ? 6 : 3);
    }
    config.url = m_sts.Url();
    ASSERT_TRUE(CreateSecurityTokenService(config)->AcquireToken("bob", "bob-password", Spec()));
    config.url = "sts/STSService";
    EXPECT_TRUE(TestSupport::Throws<CommunicationException>(
        [&] { CreateSecurityTokenService(config)->AcquireToken("bob", "bob-password", Spec()); },
        "Invalid HTTP request path 'sts/STSService'"));
    // A clock two seconds later at each reading (when the session opens, then before each leg)
    // leaves no time for a third leg within five seconds.
    struct SteppingClock : Basalt::System::Clock {
        Basalt::System::DateTime Now() const override {
            return Basalt::System::DateTimeFromUtc(readings++ * 2000000, false);
        }
        mutable long readings = 0;
    } clock;
    SessionLimits limits;
    limits.deadline = 5000000;
    auto client =
        std::make_shared<HttpsClient>(m_sts.Url(), Trust().sslContext.Get(), "", 240000000, false);
    SecurityTokenServiceImpl service(std::make_shared<RequestBuilderImpl>(boost::none),
                                     std::make_shared<LimitedTransport>(client, limits, clock),
                                     std::make_shared<ResponseHandlerImpl>(),
                                     CreateSamlTokenFactory(Trust().resolver.Get()));
    TestSupport::TestGssMechanism handler("alice@example.test", "alice-password", 3);
    EXPECT_TRUE(TestSupport::Throws<CommunicationException>(
        [&] { service.AcquireTokenByGSS(Spec(), handler); },
        "deadline of 5 s exceeded after 2 legs"));
    EXPECT_EQ(m_sts.Stats()["requests"], 9);  // two more
}

// Calls and providers waiting on a server that never answers hold no thread: with more of them
// connected than the pool has threads, a pooled task and a call to the STS complete at once.
// Cancelled, each call ends exactly once, promptly, however often it is cancelled.
TEST_F(SecurityTokenServiceTest, HungCallsHoldNoThreadAndEndOnceWhenCancelled) {
    constexpr int kHung = 64;
    const auto pool = Basalt::System::GetThreadPool();
    const int providers = static_cast<int>(pool->GetThreadCount()) + 4;
    TestSts::TestServer silent({"--silent"});
    auto hung = CreateSecurityTokenService(TestSupport::LoopbackStsConfig(silent.Url("/sts")));
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> outcomes;
    std::vector<std::shared_ptr<AsyncOperation>> calls;
    for (int i = 0; i < kHung; ++i) {
        calls.push_back(hung->AcquireTokenAsync(
            "alice", "alice-password", Spec(), [&](const auto& token, const Basalt::Exception* e) {
                std::lock_guard<std::mutex> lock(mutex);
                outcomes.push_back(std::string(token ? "token " : "") +
                                   (e ? Basalt::DemangledName(typeid(*e)) + ": " + e->what() : ""));
                changed.notify_all();
            }));
    }
    std::vector<std::unique_ptr<TokenProvider>> waiting;
    for (int i = 0; i < providers; ++i) {
        waiting.push_back(
            CreateTokenProvider(hung, TokenRecipe::ByPassword("alice", "alice-password"), Spec()));
        waiting.back()->GetTokenAsync([](const auto&, auto*) {});
    }
    for (int polls = 0; silent.Stats()["connections"] < kHung + providers && polls < 100000;
         ++polls) {
    }
    ASSERT_EQ(silent.Stats()["connections"], kHung + providers);
    EXPECT_EQ(pool->GetWorkQueue()->Submit([] { return true; }).wait_for(5s),
              std::future_status::ready);
    std::promise<bool> good;
    const auto start = std::chrono::steady_clock::now();
    Service(false)->AcquireTokenAsync("alice", "alice-password", Spec(),
                                      [&](const auto& token, auto*) { good.set_value(!!token); });
    EXPECT_TRUE(good.get_future().get());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    for (int round = 0; round < 2; ++round) {
        for (const auto& call : calls) {
            call->Cancel();
        }
    }
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 5s, [&] { return outcomes.size() >= kHung; }));
    EXPECT_EQ(outcomes, std::vector<std::string>(
                            kHung, "SsoClient::OperationCancelledException: Operation cancelled"));
    lock.unlock();
    // A cancelled call lets go of its connection; the providers' calls keep theirs.
    for (int polls = 0; silent.Stats()["closed"] < kHung && polls < 100000; ++polls) {
    }
    EXPECT_EQ(silent.Stats()["closed"], kHung);
}

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
    auto service = CreateSecurityTokenService(config);
    if (!async) {
        service->AcquireToken("alice", kPassword, Spec());
        return;
    }
    std::promise<std::shared_ptr<Basalt::Exception>> outcome;
    service->AcquireTokenAsync("alice", kPassword, Spec(), [&](auto&, const Basalt::Exception* e) {
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
    TestSts::TestServer server, refused;
    refused.Command("stop");
    const std::string fault =
        "%3Cs:Envelope%20xmlns:s=%27http://schemas.xmlsoap.org/soap/envelope/%27%3E%3Cs:Body%3E"
        "%3Cs:Fault%3E%3Cfaultcode%3Es:Server%3C/faultcode%3E%3Cfaultstring%3ESTS%20down%0Afor%20"
        "repairs%3C/faultstring%3E%3C/s:Fault%3E%3C/s:Body%3E%3C/s:Envelope%3E";
    const std::string refusedUrl = "http://127.0.0.1:" + std::to_string(refused.Port()) + "/sts";
    const std::string unexpected = "Unexpected response format: missing SAOP Body.";
    ServiceLimits limits;
    limits.retry = RetryPolicy{3, 10ms, 20ms};
    // The plain-HTTP opt-in warns once per process: before the capture.
    CreateSecurityTokenService(TestSupport::LoopbackStsConfig(refusedUrl));
    TestSupport::LogCapture log(Basalt::Service::Logger::LL_Warning);
    // The asynchronous call sends its retries from the pool's timer, with the same outcome.
    for (const bool async : {false, true}) {
        // Each pass has flaky replies of its own: the server counts them by query.
        const auto flaky = [&](const std::string& query) {
            return server.Url("/flaky?" + query + (async ? "&pass=2" : ""));
        };
        // The url, the failure, the requests the server sees, the notes of the warning line.
        const std::tuple<std::string, ThrowCheck, std::string, int, std::string> cases[] = {
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
        for (const auto& [url, check, message, requests, notes] : cases) {
            server.Command("reset");
            auto counter = std::make_shared<RetryCounter>();
            EXPECT_TRUE(
                check([&, &url = url] { Acquire(url, limits, async, counter); }, message, true))
                << url;
            EXPECT_EQ(server.Stats()["requests"], requests) << url;
            EXPECT_EQ(counter->retries, url == refusedUrl ? 2 : requests - 1) << url;
            const std::string exception =
                check == kThrows<SsoException> ? "SsoException" : "CommunicationException";
            EXPECT_EQ(log.Take(),
                      std::vector<std::string>{
                          "4 SecurityTokenServiceImpl::AcquireToken failed (SsoClient::" +
                          exception + "): url " + url + notes});
        }
    }
}

// Each callback comes exactly once, no call outlives its wait, every failure has its exception
// class and the service recovers when the STS comes back.
TEST(FaultLoadTest, EveryCallIsAnsweredOnceWithItsOwnOutcomeWhateverTheServerDoes) {
    const auto report = TestSupport::RunFaultLoad(3, 60, 1000 * 1000);
    EXPECT_EQ(report.calls, 180);
    EXPECT_EQ(report.notCalledOnce, 0);
    EXPECT_EQ(report.wavesWithoutToken, 0);
    // Each kind ends in its own outcome; while the STS is stopped, a failed exchange is allowed.
    const std::string failed = "SsoClient::CommunicationException";
    const std::map<std::string, std::string> own = {
        {"/ok", "token"},     {"/fault", "SsoClient::InvalidCredentialsException"},
        {"/garbage", failed}, {"/truncated", failed},
        {"/hang", failed},
    };
    for (const auto& [label, outcomes] : report.outcomes) {
        const bool stopped = label.find(" stopped") != std::string::npos;
        for (const auto& [outcome, count] : outcomes) {
            EXPECT_TRUE(outcome == own.at(label.substr(0, label.find(' '))) ||
                        (stopped && outcome == failed))
                << label << ": " << outcome << " x" << count;
        }
    }
}

}  // namespace

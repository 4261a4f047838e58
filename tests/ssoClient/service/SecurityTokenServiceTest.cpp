// The paths a user runs, end to end against the loopback test STS (an independent implementation
// in Python, lxml and xmlsec): its tokens parse and verify here, our requests verify there.
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

#include <condition_variable>
#include <future>
#include <mutex>

#include "TestData.h"
#include "internal/saml/Descriptions.h"
#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/LimitedTransport.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/TestCredentials.h"
#include "support/TestGssMechanism.h"

namespace {

using namespace SsoClient;
using TestSupport::Spec;
using TestSupport::StsTrust;

// The description without its times.
std::string Described(const SamlToken& token) {
    std::string text = CreateSamlTokenDescription(token);
    const size_t from = text.find(", startTime=");
    return text.erase(from, text.find(", renewCount=") - from);
}

int64_t LifetimeSeconds(const SamlToken& token) {
    return (token.GetExpirationTime().GetUtcTime() - token.GetStartTime().GetUtcTime()) / 1000000;
}

// The STS's test GSS mechanism as a negotiation handler.
class TestGssHandler : public NegotiationHandler, public TestSupport::TestGssMechanism {
  public:
    using TestGssMechanism::TestGssMechanism;
    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override {
        return std::make_shared<std::vector<unsigned char>>(Answer(serverLeg));
    }
};

class SecurityTokenServiceTest : public ::testing::Test {
  protected:
    // A service for the STS with this trust (and the client identity if withHolderOfKey).
    std::shared_ptr<SecurityTokenService> Service(bool withHolderOfKey = true,
                                                  const StsTrust& trust = Trust()) {
        SecurityTokenServiceConfig config;
        config.url = m_sts.Url();
        config.keyInfoResolver = trust.resolver;
        config.tokenFactory = CreateSamlTokenFactory(trust.resolver.Get());
        config.sslContext = trust.sslContext.Get();
        config.allowPlainHttp = true;
        if (withHolderOfKey) {
            config.holderOfKey = trust.client;
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
    EXPECT_EQ(m_sts.Stats()["requests"], 1);
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

    // Asynchronously too, through the thread pool and the real transport.
    std::promise<std::shared_ptr<const SamlToken>> delivered;
    service->AcquireTokenByCertificateAsync(
        Spec(), [&](const std::shared_ptr<const SamlToken>& token, const Basalt::Exception* error) {
            delivered.set_value(error ? nullptr : token);
        });
    auto async = delivered.get_future().get();
    ASSERT_TRUE(async);
    EXPECT_EQ(async->GetSubject()->name, "client-solution");
}

// A signed password request carrying another token as ActAs: the STS must find both the request
// signature and the embedded token's signature intact.
TEST_F(SecurityTokenServiceTest, ActingForAnotherExtendsTheDelegationChain) {
    auto service = Service();
    TokenSpec actAs = Spec();
    actAs.delegable = true;
    actAs.actAsToken = service->AcquireTokenByCertificate(actAs);
    ASSERT_TRUE(actAs.actAsToken);
    auto acting = service->AcquireToken("alice", "alice-password", actAs);
    ASSERT_TRUE(acting);
    EXPECT_EQ(acting->GetTokenType(), Saml_HOK);
    EXPECT_EQ(acting->GetSubject()->name, "client-solution");
    std::vector<Delegate> chain;
    acting->GetDelegationChain(chain);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].principal, (PrincipalId{"alice", "example.test"}));
}

// Waiting, and asynchronously (each leg sent from the pool, in the same session).
TEST_F(SecurityTokenServiceTest, GssNegotiationOverSeveralLegs) {
    for (bool async : {false, true}) {
        auto handler = std::make_shared<TestGssHandler>("alice@example.test", "alice-password", 2);
        std::promise<std::shared_ptr<const SamlToken>> issued;
        if (async) {
            Service(false)->AcquireTokenByGSSAsync(
                Spec(), handler, [&](const auto& token, auto*) { issued.set_value(token); });
        } else {
            issued.set_value(Service(false)->AcquireTokenByGSS(Spec(), *handler));
        }
        auto token = issued.get_future().get();
        ASSERT_TRUE(token);
        EXPECT_EQ(token->GetSubject()->name, "alice");
        // Empty first leg, two challenges, then the final WELCOME handed to the handler again.
        ASSERT_EQ(handler->serverLegs.size(), 4u);
        EXPECT_EQ(handler->serverLegs[0], "");
        EXPECT_EQ(handler->serverLegs[3], "WELCOME alice@example.test");
        EXPECT_EQ(m_sts.Stats()["requests"], async ? 6 : 3);
    }
}

// One deadline over all legs of a negotiation: a clock two seconds later at each reading (when the
// session opens, then before each leg) leaves no time for a third leg within five seconds.
TEST_F(SecurityTokenServiceTest, GssNegotiationHasOneDeadlineOverAllLegs) {
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
    TestGssHandler handler("alice@example.test", "alice-password", 3);
    EXPECT_TRUE(TestSupport::Throws<CommunicationException>(
        [&] { service.AcquireTokenByGSS(Spec(), handler); },
        "deadline of 5 s exceeded after 2 legs"));
    EXPECT_EQ(m_sts.Stats()["requests"], 2);
}

// A service made from a caller-supplied user agent: the STS's GSS session cookie lands in the
// agent's store, and another service on that agent sends it along. The URL is the request target
// as it stands, a path or an absolute URL; anything else fails as the transport does.
TEST_F(SecurityTokenServiceTest, ServicesFromOneUserAgentShareItsCookies) {
    Basalt::Ref<Basalt::Http::ConnectionSpec> spec;
    CreateSsoSSLConnectionSpec("localhost", m_sts.Port(), Trust().sslContext.Get(), "", false,
                               spec);
    Basalt::Ref<Basalt::Http::CookieStore> cookies;
    Basalt::Http::CreateCookieStore("", cookies);
    SecurityTokenServiceConfigEx config;
    Basalt::Http::CreateHttpUserAgent(spec.Get(), cookies.Get(), nullptr, config.userAgent);
    config.url = "/sts/STSService";
    config.tokenFactory = CreateSamlTokenFactory(Trust().resolver.Get());
    auto first = CreateSecurityTokenService(config);
    TestGssHandler handler("bob@example.test", "bob-password");
    ASSERT_TRUE(first->AcquireTokenByGSS(Spec(), handler));
    EXPECT_FALSE(cookies->GetCookieLines().empty());
    config.url = "https://localhost:" + std::to_string(m_sts.Port()) + "/sts/STSService";
    ASSERT_TRUE(CreateSecurityTokenService(config)->AcquireToken("bob", "bob-password", Spec()));
    config.url = "sts/STSService";
    EXPECT_TRUE(TestSupport::Throws<CommunicationException>(
        [&] { CreateSecurityTokenService(config)->AcquireToken("bob", "bob-password", Spec()); },
        "Invalid HTTP request path 'sts/STSService'"));
}

// A wrong password is refused; TLS verification is on: a server certificate from another CA is
// refused, also after a context that trusts the server's CA has been used in this process (every
// context keeps its own trust).
TEST_F(SecurityTokenServiceTest, FailuresReachTheCaller) {
    EXPECT_TRUE(TestSupport::Throws<InvalidCredentialsException>(
        [&] { Service(false)->AcquireToken("alice", "wrong", Spec()); },
        "Authentication failed: Invalid user name or password"));
    EXPECT_THROW(
        Service(false, StsTrust("tls/ca.pem"))->AcquireToken("alice", "alice-password", Spec()),
        CommunicationException);
    EXPECT_EQ(m_sts.Stats()["requests"], 1);
}

// Callers of a provider who find no token share one request.
TEST_F(SecurityTokenServiceTest, ManyConcurrentProviderCallersCauseOneRequest) {
    auto provider = CreateTokenProvider(Service(false),
                                        TokenRecipe::ByPassword("alice", "alice-password"), Spec());
    std::vector<std::future<std::shared_ptr<const SamlToken>>> callers(8);
    for (auto& caller : callers) {
        caller = std::async(std::launch::async, [&] { return provider->GetToken(); });
    }
    const auto token = provider->GetToken();
    for (auto& caller : callers) {
        EXPECT_EQ(caller.get(), token);
    }
    EXPECT_EQ(m_sts.Stats()["requests"], 1);
}

// Calls waiting on a server that never answers hold no thread: with 64 of them connected, a call
// to the STS completes at once. Cancelled, each ends exactly once, promptly, however often it is
// cancelled.
TEST_F(SecurityTokenServiceTest, HungCallsHoldNoThreadAndEndOnceWhenCancelled) {
    using namespace std::chrono_literals;
    constexpr int kHung = 64;
    TestSts::TestServer silent({"--silent"});
    auto hung = CreateSecurityTokenService(TestSupport::LoopbackStsConfig(
        "http://127.0.0.1:" + std::to_string(silent.Port()) + "/sts"));
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
    for (int polls = 0; silent.Stats()["connections"] < kHung && polls < 100000; ++polls) {
    }
    ASSERT_EQ(silent.Stats()["connections"], kHung);
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
}

// Providers acquiring from a server that never answers hold no pool thread: with more of them
// waiting than the pool has threads, each has its connection and a pooled task runs at once.
TEST_F(SecurityTokenServiceTest, HungProvidersHoldNoPoolThread) {
    const auto pool = Basalt::System::GetThreadPool();
    const int hung = static_cast<int>(pool->GetThreadCount()) + 4;
    TestSts::TestServer silent({"--silent"});
    auto service = CreateSecurityTokenService(TestSupport::LoopbackStsConfig(
        "http://127.0.0.1:" + std::to_string(silent.Port()) + "/sts"));
    std::vector<std::unique_ptr<TokenProvider>> providers;
    for (int i = 0; i < hung; ++i) {
        providers.push_back(CreateTokenProvider(
            service, TokenRecipe::ByPassword("alice", "alice-password"), Spec()));
        providers.back()->GetTokenAsync([](const auto&, auto*) {});
    }
    for (int polls = 0; silent.Stats()["connections"] < hung && polls < 100000; ++polls) {
    }
    EXPECT_EQ(silent.Stats()["connections"], hung);
    auto ran = pool->GetWorkQueue()->Submit([] { return true; });
    EXPECT_EQ(ran.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

}  // namespace

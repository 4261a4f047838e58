// The token provider over a scripted service and a hand-set clock (single flight, refresh,
// renewal, back-off, failures, Invalidate, the asynchronous form), and once end to end against
// the loopback STS, which counts the requests it gets.
#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/TokenProvider.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

#include "TestData.h"
#include "internal/service/SecurityTokenServiceImpl.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using Token = std::shared_ptr<const SamlToken>;
constexpr int64_t kSec = 1000000;
const std::string kDown = "Server returned error: 503 Service Unavailable";

class ManualClock final : public Basalt::System::Clock {
  public:
    Basalt::System::DateTime Now() const override {
        return Basalt::System::DateTimeFromUtc(micros.load(), false);
    }
    std::atomic<long> micros{0};
};

// Signed assertion texts, each made once: valid from a minute ago until lifetimeSec from now.
const std::string& Xml(int64_t lifetimeSec, bool holderOfKey = false, bool renewable = false) {
    static std::mutex mutex;
    static std::map<std::tuple<int64_t, bool, bool>, std::string> made;
    std::lock_guard<std::mutex> lock(mutex);
    std::string& xml = made[{lifetimeSec, holderOfKey, renewable}];
    if (xml.empty()) {
        AssertionSpec spec;
        spec.notOnOrAfterOffsetSec = lifetimeSec;
        spec.holderOfKey = holderOfKey;
        if (renewable) {  // a token's renew count is its proxy count
            spec.renewCount = spec.proxyCount = "5";
        }
        xml = MakeSignedAssertion(spec);
    }
    return xml;
}
Token Parse(const std::string& xml) {
    return CreateSamlToken(xml);
}
Token Short() {
    return Parse(Xml(600));
}
Token Long() {
    return Parse(Xml(7200));
}
Token Down() {
    throw CommunicationException(kDown);
}
int64_t Expiry(const Token& token) {
    return token->GetExpirationTime().GetUtcTime();
}

// Answers acquisitions ("acquire") and renewals ("renew <seconds>") from a script (its last
// entry repeats), recording them; while held, calls wait for Release. The provider uses no
// other operation.
class FakeService final : public SecurityTokenServiceImpl {
  public:
    explicit FakeService(std::vector<std::function<Token()>> script)
        : SecurityTokenServiceImpl(nullptr, nullptr, nullptr, nullptr),
          m_script(std::move(script)) {}
    Token AcquireToken(const std::string&, const std::string&, const TokenSpec&) const override {
        return Call("acquire");
    }
    Token RenewToken(const SamlToken&, long seconds) const override {
        return Call("renew " + std::to_string(seconds));
    }

    std::vector<std::string> Calls() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    void Hold(bool held) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_held = held;
        m_changed.notify_all();
    }
    void WaitForCalls(size_t count) const {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_calls.size() >= count; });
    }

  private:
    Token Call(const std::string& name) const {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_calls.push_back(name);
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return !m_held; });
        const auto& answer = m_script.at(std::min(m_calls.size(), m_script.size()) - 1);
        lock.unlock();
        return answer();
    }

    const std::vector<std::function<Token()>> m_script;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    mutable std::vector<std::string> m_calls;
    bool m_held = false;
};

class TokenProviderTest : public ::testing::Test {
  protected:
    std::unique_ptr<TokenProvider> Provider(std::vector<std::function<Token()>> script,
                                            TokenProviderOptions options = {}) {
        m_service = std::make_shared<FakeService>(std::move(script));
        options.clock = m_clock;
        TokenSpec spec;
        spec.tokenLifetimeSec = 600;
        return CreateTokenProvider(m_service, TokenRecipe::ByPassword("alice", "pw"), spec,
                                   options);
    }
    size_t Calls() const { return m_service->Calls().size(); }
    void At(int64_t micros) { m_clock->micros = micros; }

    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
    std::shared_ptr<FakeService> m_service;
};

// Without refresh: a token is handed out while it stays valid for the 30 s margin; then a
// renewable holder-of-key token is renewed until it has expired, any other acquired again.
TEST_F(TokenProviderTest, ReplacesATokenOnlyOnceItMissesTheMargin) {
    TokenProviderOptions noRefresh;
    noRefresh.refreshFraction = 0;
    noRefresh.refreshBeforeSec = 0;
    const struct {
        bool renewable;
        int64_t sinceMargin;
        std::vector<std::string> calls;
    } cases[] = {{false, -1, {"acquire"}},
                 {false, 0, {"acquire", "acquire"}},
                 {true, 30 * kSec - 1, {"acquire", "renew 600"}},
                 {true, 30 * kSec, {"acquire", "acquire"}}};
    for (const auto& c : cases) {
        const std::string& xml = Xml(600, c.renewable, c.renewable);
        auto provider = Provider({[&] { return Parse(xml); }, Long}, noRefresh);
        const int64_t margin = Expiry(Parse(xml)) - 30 * kSec;
        At(margin - 1);
        const Token first = provider->GetToken();
        At(margin + c.sinceMargin);
        EXPECT_EQ(provider->GetToken() == first, c.calls.size() == 1);
        EXPECT_EQ(m_service->Calls(), c.calls);
    }
}

// Many callers finding no token share one call and its outcome, held in flight until all wait.
TEST_F(TokenProviderTest, ManyConcurrentCallersCauseOneCall) {
    for (const bool fails : {false, true}) {
        auto provider = Provider({fails ? Down : Short});
        m_service->Hold(true);
        At(Expiry(Short()) - 600 * kSec);
        std::vector<std::future<std::string>> callers;
        for (int i = 0; i < 16; ++i) {
            callers.push_back(std::async(std::launch::async, [&] {
                try {
                    return provider->GetToken()->GetXml();
                } catch (const CommunicationException& e) {
                    return std::string(e.what());
                }
            }));
        }
        m_service->WaitForCalls(1);
        m_service->Hold(false);
        for (auto& caller : callers) {
            EXPECT_EQ(caller.get(), fails ? kDown : Xml(600));
        }
        EXPECT_EQ(Calls(), 1u) << fails;
    }
}

// Renewable holder-of-key tokens are renewed for the spec's lifetime, others acquired again;
// the refresh starts in the last fifth of the lifetime or 5 minutes before expiry, whichever
// is earlier, but not in the first half.
TEST_F(TokenProviderTest, RefreshesInTheBackgroundBeforeExpiry) {
    struct Case {
        int64_t lifetimeSec;
        bool holderOfKey, renewable;
        int64_t leadSec;
        std::string call;
    } cases[] = {
        {600, false, false, 300, "acquire"},  {600, true, true, 300, "renew 600"},
        {600, true, false, 300, "acquire"},   {600, false, true, 300, "acquire"},
        {3600, false, false, 732, "acquire"}, {300, false, false, 180, "acquire"},
    };
    for (const Case& c : cases) {
        const std::string& xml = Xml(c.lifetimeSec, c.holderOfKey, c.renewable);
        auto provider = Provider({[&] { return Parse(xml); }, Long});
        const Token first = Parse(xml);
        At(Expiry(first) - c.leadSec * kSec - 1);
        EXPECT_EQ(provider->GetToken()->GetXml(), xml);
        EXPECT_EQ(provider->GetToken()->GetXml(), xml);
        EXPECT_EQ(Calls(), 1u) << c.lifetimeSec;
        At(Expiry(first) - c.leadSec * kSec);
        EXPECT_EQ(provider->GetToken()->GetXml(), xml);  // while the refresh runs
        At(Expiry(first) - 30 * kSec);                   // joins the refresh or finds its token
        EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));
        EXPECT_EQ(m_service->Calls(), (std::vector<std::string>{"acquire", c.call}));
    }
}

// After the nth failure in a row nothing is tried for between half and all of
// min(2^(n-1), 60) seconds; the failure is thrown again meanwhile.
TEST_F(TokenProviderTest, BacksOffExponentiallyAfterFailures) {
    std::vector<std::function<Token()>> script(8, Down);
    script.insert(script.end(), {Long, Down});
    auto provider = Provider(script);
    int64_t now = Expiry(Short());
    for (size_t n = 1; n <= 8; ++n) {
        At(now);
        EXPECT_TRUE(Throws<CommunicationException>([&] { provider->GetToken(); }, kDown));
        const int64_t full = std::min<int64_t>(int64_t{1} << (n - 1), 60) * kSec;
        At(now + full / 2 - 1);
        EXPECT_TRUE(Throws<CommunicationException>([&] { provider->GetToken(); }, kDown));
        EXPECT_EQ(Calls(), n);
        now += full;
    }
    At(now);
    EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));  // a success starts the count afresh
    now = Expiry(Long()) - 30 * kSec;
    At(now);
    EXPECT_THROW(provider->GetToken(), CommunicationException);
    At(now + kSec);
    EXPECT_THROW(provider->GetToken(), CommunicationException);
    EXPECT_EQ(Calls(), 11u);
}

// A failed refresh leaves the token in use; once it is no longer usable the failure surfaces
// until the back-off has passed.
TEST_F(TokenProviderTest, FailedRefreshKeepsTheTokenThenSurfacesTheFailure) {
    TokenProviderOptions slow;
    slow.initialBackoffSec = slow.maxBackoffSec = 3600;
    auto provider = Provider({Short, Down, Long}, slow);
    const int64_t expiry = Expiry(Short());
    At(expiry - 300 * kSec);
    const Token first = provider->GetToken();
    EXPECT_EQ(provider->GetToken(), first);  // starts the refresh, which fails
    At(expiry - 299 * kSec);
    EXPECT_EQ(provider->GetToken(), first);
    At(expiry - 30 * kSec);
    EXPECT_TRUE(Throws<CommunicationException>([&] { provider->GetToken(); }, kDown));
    EXPECT_EQ(Calls(), 2u);
    At(expiry - 30 * kSec + 3600 * kSec);
    EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));
    EXPECT_EQ(Calls(), 3u);
}

TEST_F(TokenProviderTest, ThrowsTheServiceFailureWithItsClass) {
    At(Expiry(Short()) - 600 * kSec);
    auto provider = Provider({[]() -> Token { throw InvalidCredentialsException("bad"); }});
    EXPECT_TRUE(Throws<InvalidCredentialsException>([&] { provider->GetToken(); }, "bad"));
    provider = Provider({[] { return Token(); }});
    EXPECT_TRUE(
        Throws<SsoException>([&] { provider->GetToken(); }, "The token service returned no token"));
    At(Short()->GetExpirationTimeWithTolerance().GetUtcTime());
    provider = Provider({Short});
    EXPECT_TRUE(Throws<InvalidTokenException>([&] { provider->GetToken(); },
                                              "The token service returned an expired token"));
}

TEST_F(TokenProviderTest, InvalidateReacquiresAndForgetsTheBackoff) {
    auto provider = Provider({Short, Down, Long});
    At(Expiry(Short()) - 600 * kSec);
    EXPECT_EQ(provider->GetToken()->GetXml(), Xml(600));
    provider->Invalidate();
    EXPECT_THROW(provider->GetToken(), CommunicationException);
    EXPECT_THROW(provider->GetToken(), CommunicationException);
    EXPECT_EQ(Calls(), 2u);
    provider->Invalidate();
    EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));
    EXPECT_EQ(Calls(), 3u);
}

// Records every call of a callback; the first one fulfils the future.
struct Outcome {
    TokenCallback Callback() {
        return [this](const Token& token, const Basalt::Exception* e) {
            if (++calls == 1) {
                done.set_value(token ? token->GetXml() : e ? e->what() : "neither");
            }
        };
    }
    std::atomic<int> calls{0};
    std::promise<std::string> done;
};

// On a pool thread after an acquisition, at once with a token or a back-off failure at hand.
TEST_F(TokenProviderTest, AsyncCallsBackExactlyOnce) {
    auto provider = Provider({Short, Down});
    At(Expiry(Short()) - 600 * kSec);
    const struct {
        bool invalidateFirst;
        std::string expected;
    } cases[] = {{false, Xml(600)}, {false, Xml(600)}, {true, kDown}, {false, kDown}};
    for (const auto& c : cases) {
        if (c.invalidateFirst) {
            provider->Invalidate();
        }
        Outcome outcome;
        provider->GetTokenAsync(outcome.Callback());
        EXPECT_EQ(outcome.done.get_future().get(), c.expected);
        EXPECT_EQ(outcome.calls, 1);
    }
    EXPECT_EQ(Calls(), 2u);
}

// The refresh in flight owns what it touches: the provider may go first.
TEST_F(TokenProviderTest, MayBeDestroyedWhileAnAcquisitionIsInFlight) {
    auto provider = Provider({Short});
    At(Expiry(Short()) - 600 * kSec);
    m_service->Hold(true);
    Outcome outcome;
    provider->GetTokenAsync(outcome.Callback());
    m_service->WaitForCalls(1);
    provider.reset();
    m_service->Hold(false);
    EXPECT_EQ(outcome.done.get_future().get(), Xml(600));
}

TEST(TokenProviderStsTest, ManyConcurrentCallersCauseOneStsRequest) {
    TestSts::WsTrustSts sts;
    Basalt::Ssl::SSLContextOptions tls;
    tls.trustedCaPem = TestData::Read("sts/ca.pem");
    Basalt::Ref<Basalt::Ssl::SSLContext> sslContext;
    Basalt::Ssl::CreateSSLContext(tls, sslContext);
    std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> signing(1);
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/signing.pem"), signing[0]);
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(signing, resolver);
    SecurityTokenServiceConfig config;
    config.url = sts.Url();
    config.tokenFactory = CreateSamlTokenFactory(resolver.Get());
    config.sslContext = sslContext.Get();
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    auto provider = CreateTokenProvider(CreateSecurityTokenService(config),
                                        TokenRecipe::ByPassword("alice", "alice-password"), spec);
    std::vector<std::future<Token>> callers;
    for (int i = 0; i < 8; ++i) {
        callers.push_back(std::async(std::launch::async, [&] { return provider->GetToken(); }));
    }
    const Token token = provider->GetToken();
    for (auto& caller : callers) {
        EXPECT_EQ(caller.get(), token);
    }
    EXPECT_EQ(provider->GetToken(), token);
    EXPECT_EQ(sts.Stats()["requests"], 1);
}

}  // namespace

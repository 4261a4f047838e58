// The token provider over a scripted service and a hand-set clock (end to end in
// SecurityTokenServiceTest).
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/TokenProvider.h>
#include <ssoClient/ValidatedTokenCache.h>

#include <future>
#include <mutex>

#include "internal/service/SecurityTokenServiceImpl.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using Token = std::shared_ptr<const SamlToken>;
using Answer = std::function<Token()>;
using Calls = std::vector<std::string>;
constexpr int64_t kSec = 1000000;
const std::string kDown = "Server returned error: 503 Service Unavailable";

// Signed assertions valid from a minute before the suite started until lifetimeSec after it, the
// same text for the same arguments. A token's renew count is its proxy count.
std::string Xml(int64_t lifetimeSec, bool holderOfKey = false, bool renewable = false) {
    static const ManualClock made(Basalt::System::GetUtcDateTime().GetUtcTime());
    AssertionSpec spec;
    spec.id = "_provided";
    spec.clock = &made;
    spec.notOnOrAfterOffsetSec = lifetimeSec;
    spec.holderOfKey = holderOfKey;
    spec.renewCount = spec.proxyCount = renewable ? std::optional<std::string>("5") : std::nullopt;
    return MakeSignedAssertion(spec);
}
const Answer Short = [] { return CreateSamlToken(Xml(600)); };
const Answer Long = [] { return CreateSamlToken(Xml(7200)); };
const Answer Down = []() -> Token { throw CommunicationException(kDown); };
const auto Expiry = [](const Token& token) { return token->GetExpirationTime().GetUtcTime(); };

// Renewals go to renew; a provider asks its service for nothing else (acquisitions go through
// its recipe).
struct RenewingService final : SecurityTokenServiceImpl {
    explicit RenewingService(std::function<Token(long)> answer)
        : SecurityTokenServiceImpl(nullptr, nullptr, nullptr, nullptr), renew(std::move(answer)) {}
    Token RenewToken(const SamlToken&, long seconds) const override { return renew(seconds); }
    std::shared_ptr<AsyncOperation> RenewTokenAsync(const Token&, long seconds,
                                                    const TokenCallback& done) const override {
        return RunBlocking(
            "RenewToken", [renew = renew, seconds] { return renew(seconds); }, done);
    }
    const std::function<Token(long)> renew;
};

// Providers whose acquisitions and renewals are answered from a script (its last entry
// repeats) and recorded, on a hand-set clock.
class TokenProviderTest : public ::testing::Test {
  protected:
    std::unique_ptr<TokenProvider> Provider(std::vector<Answer> script,
                                            TokenProviderOptions options = {}) {
        m_script = std::move(script);  // no call of an earlier provider is left running
        m_calls.clear();
        options.clock = m_clock;
        const auto service = std::make_shared<RenewingService>(
            [this](long seconds) { return Call("renew " + std::to_string(seconds)); });
        return CreateTokenProvider(service,
                                   TokenRecipe([this](auto&, auto&) { return Call("acquire"); }),
                                   Spec(), options);
    }
    Token Call(const std::string& name) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_calls.push_back(name);
        const Answer answer = m_script.at(std::min(m_calls.size(), m_script.size()) - 1);
        lock.unlock();
        return answer();
    }
    Calls Made() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    size_t Count() { return Made().size(); }
    // answer, once the test has seen the call and let it go on.
    Answer Held(Answer answer) {
        m_called = {};
        m_release = {};
        return [this, answer] {
            m_called.set_value();
            m_release.get_future().wait();
            return answer();
        };
    }
    // GetTokenAsync's outcome: the token's XML or the failure's message. The callback runs once.
    static std::future<std::string> Async(TokenProvider& provider) {
        auto done = std::make_shared<std::promise<std::string>>();
        provider.GetTokenAsync([done, calls = std::make_shared<std::atomic<int>>(0)](
                                   const Token& token, const Basalt::Exception* e) {
            EXPECT_EQ(++*calls, 1);
            if (*calls == 1) {
                done->set_value(token ? token->GetXml() : e ? e->what() : "neither");
            }
        });
        return done->get_future();
    }
    void At(int64_t micros) { m_clock->micros = micros; }
    testing::AssertionResult Fails(TokenProvider& provider) {
        return Throws<CommunicationException>([&] { provider.GetToken(); }, kDown);
    }

    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
    std::mutex m_mutex;
    std::vector<Answer> m_script;
    Calls m_calls;
    std::promise<void> m_called, m_release;
};

// A token is handed out while it stays valid for the 30 s margin. Without refresh it is then
// replaced on the spot; with it, a refresh starts in the last fifth of the lifetime (counted
// from a minute ago) or 5 minutes before expiry, whichever is earlier, but not in the first
// half. Renewable holder-of-key tokens are renewed for the requested lifetime until they have
// expired, others acquired again.
TEST_F(TokenProviderTest, ReplacesOrRefreshesATokenOnTime) {
    TokenProviderOptions noRefresh;
    noRefresh.refreshFraction = 0;
    noRefresh.refreshBeforeSec = 0;
    const struct {
        int64_t lifetimeSec;
        bool holderOfKey, renewable, refresh;
        int64_t sinceExpiry;
        std::string call;
    } cases[] = {
        {600, false, false, false, -30 * kSec, "acquire"},
        {600, true, true, false, -1, "renew 600"},
        {600, true, true, false, 0, "acquire"},
        {600, false, false, true, -300 * kSec, "acquire"},
        {600, true, true, true, -300 * kSec, "renew 600"},
        {600, true, false, true, -300 * kSec, "acquire"},
        {600, false, true, true, -300 * kSec, "acquire"},
        {3600, false, false, true, -732 * kSec, "acquire"},
        {300, false, false, true, -180 * kSec, "acquire"},
    };
    for (const auto& c : cases) {
        const std::string xml = Xml(c.lifetimeSec, c.holderOfKey, c.renewable);
        auto provider = Provider({[&] { return CreateSamlToken(xml); }, Long},
                                 c.refresh ? TokenProviderOptions() : noRefresh);
        const int64_t at = Expiry(CreateSamlToken(xml)) + c.sinceExpiry;
        const int64_t margin = Expiry(CreateSamlToken(xml)) - 30 * kSec;
        At(std::min(at, margin) - 1);
        EXPECT_EQ(provider->GetToken()->GetXml(), xml);
        EXPECT_EQ(provider->GetToken()->GetXml(), xml);
        EXPECT_EQ(Count(), 1u) << c.lifetimeSec << c.sinceExpiry;
        At(at);
        EXPECT_EQ(provider->GetToken()->GetXml(), c.refresh ? xml : Xml(7200));
        At(std::max(at, margin));  // joins the refresh or finds its token
        EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));
        EXPECT_EQ(Made(), (Calls{"acquire", c.call}));
    }
}

// Callers finding no token share one call and its outcome, held in flight until all wait.
TEST_F(TokenProviderTest, ManyConcurrentCallersCauseOneCall) {
    for (const bool fails : {false, true}) {
        auto provider = Provider({Held(fails ? Down : Short)});
        std::vector<std::future<bool>> callers;
        for (int i = 0; i < 16; ++i) {
            callers.push_back(std::async(std::launch::async, [&] {
                return fails ? bool(Fails(*provider)) : provider->GetToken()->GetXml() == Xml(600);
            }));
        }
        m_called.get_future().wait();
        m_release.set_value();
        for (auto& caller : callers) {
            EXPECT_TRUE(caller.get()) << fails;
        }
        EXPECT_EQ(Count(), 1u);
    }
}

// After the nth failure in a row nothing is tried for between half and all of
// min(2^(n-1), 60) seconds, the failure thrown again meanwhile; a success starts afresh.
TEST_F(TokenProviderTest, BacksOffExponentiallyAfterFailures) {
    std::vector<Answer> script(8, Down);
    script.insert(script.end(), {Long, Down});
    auto provider = Provider(script);
    int64_t now = Expiry(Short());
    for (size_t n = 1; n <= 8; ++n) {
        At(now);
        EXPECT_TRUE(Fails(*provider));
        const int64_t full = std::min<int64_t>(int64_t{1} << (n - 1), 60) * kSec;
        At(now + full / 2 - 1);
        EXPECT_TRUE(Fails(*provider));
        EXPECT_EQ(Count(), n);
        now += full;
    }
    At(now);
    EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));
    At(now = Expiry(Long()) - 30 * kSec);
    EXPECT_TRUE(Fails(*provider));
    At(now + kSec);
    EXPECT_TRUE(Fails(*provider));
    EXPECT_EQ(Count(), 11u);
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
    EXPECT_TRUE(Fails(*provider));
    EXPECT_EQ(Count(), 2u);
    At(expiry - 30 * kSec + 3600 * kSec);
    EXPECT_EQ(provider->GetToken()->GetXml(), Xml(7200));
    EXPECT_EQ(Count(), 3u);
}

TEST_F(TokenProviderTest, RefusesWhatTheServiceShouldNotHaveReturned) {
    auto provider = Provider({[] { return Token(); }});
    EXPECT_TRUE(
        Throws<SsoException>([&] { provider->GetToken(); }, "The token service returned no token"));
    At(Short()->GetExpirationTimeWithTolerance().GetUtcTime());
    provider = Provider({Short});
    EXPECT_TRUE(Throws<InvalidTokenException>([&] { provider->GetToken(); },
                                              "The token service returned an expired token"));
    // Recipes that could only fail later fail at once, or with a clear message.
    EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(
        [] { TokenRecipe::ByToken(nullptr); }, "TokenRecipe::ByToken: the token may not be null"));
    provider = CreateTokenProvider(std::make_shared<RenewingService>(nullptr),
                                   TokenRecipe::ByGss([] { return nullptr; }), TokenSpec{});
    EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(
        [&] { provider->GetToken(); }, "TokenRecipe::ByGss: the factory returned no handler"));
    // Every option rule, and the caches' own.
    const std::string range = "Token provider options out of range";
    const std::pair<std::function<void(TokenProviderOptions&)>, std::string> misuses[] = {
        {[](auto& o) { o.refreshFraction = -0.01; }, range},
        {[](auto& o) { o.refreshFraction = 1.01; }, range},
        {[](auto& o) { o.refreshBeforeSec = -1; }, range},
        {[](auto& o) { o.minValiditySec = -1; }, range},
        {[](auto& o) { o.initialBackoffSec = -1; }, range},
        {[](auto& o) { o.maxBackoffSec = o.initialBackoffSec - 1; }, range},
        {[](auto&) { CreateCachingSamlTokenFactory(nullptr); },
         "A caching factory needs a factory to wrap"},
        {[](auto&) {
             CreateCachingSamlTokenFactory(CreateSamlTokenFactory(nullptr), {0, {}});
         },
         "A token cache needs room for one entry"},
        {[](auto&) {
             Basalt::Ref<TokenValidator> validator;
             CreateCachingTokenValidator(nullptr, {}, validator);
         },
         "A caching validator needs a validator to wrap"},
    };
    for (const auto& [misuse, message] : misuses) {
        EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(
            [&] {
                TokenProviderOptions options;
                misuse(options);
                Provider({Long}, options);
            },
            message));
    }
    TokenProviderOptions edges;  // every bound is inclusive
    edges.refreshFraction = 1;
    edges.refreshBeforeSec = edges.minValiditySec = edges.initialBackoffSec = edges.maxBackoffSec =
        0;
    EXPECT_NO_THROW(Provider({Long}, edges));
}

// On a pool thread after an acquisition, at once with a token or a back-off failure at hand.
// Invalidate drops both the token and the back-off.
TEST_F(TokenProviderTest, AsyncCallsBackExactlyOnceAndInvalidateStartsAfresh) {
    auto provider = Provider({Short, Down, Long});
    At(Expiry(Short()) - 600 * kSec);
    const std::pair<bool, std::string> cases[] = {
        {false, Xml(600)}, {false, Xml(600)}, {true, kDown}, {false, kDown}, {true, Xml(7200)}};
    for (const auto& [invalidateFirst, expected] : cases) {
        if (invalidateFirst) {
            provider->Invalidate();
        }
        EXPECT_EQ(Async(*provider).get(), expected);
    }
    EXPECT_EQ(Count(), 3u);
}

// The acquisition in flight owns what it touches: the provider may go first.
TEST_F(TokenProviderTest, MayBeDestroyedWhileAnAcquisitionIsInFlight) {
    auto provider = Provider({Held(Short)});
    auto outcome = Async(*provider);
    m_called.get_future().wait();
    provider.reset();
    m_release.set_value();
    EXPECT_EQ(outcome.get(), Xml(600));
}

}  // namespace

// The validated-token caches, SAML factory and token validator alike, over counting inner
// validators and a hand-set clock; and the SAML one over the real factory.
#include <basalt/Object.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/ValidatedTokenCache.h>

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using Token = std::shared_ptr<const SamlToken>;
const std::string kRejected = "Signature validation failed";

class ManualClock final : public Basalt::System::Clock {
  public:
    Basalt::System::DateTime Now() const override {
        return Basalt::System::DateTimeFromUtc(micros.load(), false);
    }
    std::atomic<long> micros{0};
};

const std::string& Assertion() {
    static const std::string xml = MakeSignedAssertion({});
    return xml;
}

// A new token object for every text but those starting "bad", which it rejects; counts calls.
Token Answer(std::atomic<int>& calls, std::string_view text, long toleranceSec) {
    ++calls;
    if (text.substr(0, 3) == "bad") {
        throw InvalidSignatureException(kRejected);
    }
    return CreateSamlToken(Assertion(), toleranceSec);
}

class CountingFactory final : public SamlTokenFactory {
  public:
    Token CreateSamlToken(const std::string& xml, long toleranceSec) const override {
        return Answer(calls, xml, toleranceSec);
    }
    Token CreateSamlTokenFromDom(Basalt::Xml::ElementNode*, long) const override {
        throw std::logic_error("not used");
    }
    mutable std::atomic<int> calls{0};
};

class CountingValidator final : public virtual TokenValidator, public virtual Basalt::ObjectImpl {
  public:
    Token Validate(std::string_view token, std::string_view) const override {
        return Answer(calls, token, 600);
    }
    mutable std::atomic<int> calls{0};
};

// A decorator under test: validate(text, variant) passes variant as the clock tolerance (SAML)
// or as the second argument (validator), both of which decide the token object.
struct Cached {
    std::function<Token(const std::string&, int)> validate;
    std::function<int()> calls;
};

Cached SamlCache(const ValidatedTokenCacheOptions& options) {
    auto inner = std::make_shared<CountingFactory>();
    auto cached = CreateCachingSamlTokenFactory(inner, options);
    return {[cached](const std::string& text, int variant) {
                return cached->CreateSamlToken(text, 600 + variant);
            },
            [inner] { return inner->calls.load(); }};
}

Cached ValidatorCache(const ValidatedTokenCacheOptions& options) {
    Basalt::Ref<CountingValidator> inner = new CountingValidator;
    Basalt::Ref<TokenValidator> cached;
    CreateCachingTokenValidator(inner, options, cached);
    return {[cached](const std::string& text, int variant) {
                return cached->Validate(text, variant ? std::to_string(variant) : "");
            },
            [inner] { return inner->calls.load(); }};
}

class ValidatedTokenCacheTest
    : public ::testing::TestWithParam<Cached (*)(const ValidatedTokenCacheOptions&)> {
  protected:
    Cached Make(size_t maxEntries = 1024) {
        ValidatedTokenCacheOptions options;
        options.maxEntries = maxEntries;
        options.clock = m_clock;
        m_clock->micros = Basalt::System::GetUtcDateTime().GetUtcTime();
        return GetParam()(options);
    }
    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
};

// Keyed by every byte of the text and by what else decides the token.
TEST_P(ValidatedTokenCacheTest, SameObjectForTheSameBytesOnly) {
    const std::string text = "token text";
    const struct {
        std::string text;
        int variant;
    } others[] = {{"Token text", 0}, {"token texT", 0}, {"token tex", 0}, {text, 1}};
    auto cache = Make();
    const Token first = cache.validate(text, 0);
    for (const auto& other : others) {
        EXPECT_EQ(cache.validate(text, 0), first);
        EXPECT_NE(cache.validate(other.text, other.variant), first) << other.text;
    }
    EXPECT_EQ(cache.calls(), 5);
}

TEST_P(ValidatedTokenCacheTest, EntryExpiresWithTheTokensTolerance) {
    auto cache = Make();
    const Token first = cache.validate("text", 0);
    const int64_t end = first->GetExpirationTimeWithTolerance().GetUtcTime();
    m_clock->micros = end - 1;
    EXPECT_EQ(cache.validate("text", 0), first);
    m_clock->micros = end;
    EXPECT_NE(cache.validate("text", 0), first);
    EXPECT_EQ(cache.calls(), 2);
}

TEST_P(ValidatedTokenCacheTest, RejectionIsNeverCached) {
    auto cache = Make();
    for (int i = 1; i <= 2; ++i) {
        EXPECT_TRUE(
            Throws<InvalidSignatureException>([&] { cache.validate("bad", 0); }, kRejected));
        EXPECT_EQ(cache.calls(), i);
    }
}

TEST_P(ValidatedTokenCacheTest, HoldsItsBoundDroppingTheLeastRecentlyUsed) {
    auto cache = Make(2);
    const Token a = cache.validate("a", 0);
    const Token b = cache.validate("b", 0);
    EXPECT_EQ(cache.validate("a", 0), a);
    cache.validate("c", 0);
    EXPECT_EQ(cache.validate("a", 0), a);
    EXPECT_EQ(cache.calls(), 3);
    EXPECT_NE(cache.validate("b", 0), b);
    EXPECT_EQ(cache.calls(), 4);
}

// Run under TSan: hits, misses and evictions from several threads at once.
TEST_P(ValidatedTokenCacheTest, ServesConcurrentCallers) {
    auto cache = Make(4);
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(std::async(std::launch::async, [&, t] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_TRUE(cache.validate(std::to_string((i + t) % 6), 0));
            }
        }));
    }
    for (auto& thread : threads) {
        thread.get();
    }
    const Token kept = cache.validate("0", 0);
    EXPECT_EQ(cache.validate("0", 0), kept);
}

INSTANTIATE_TEST_SUITE_P(, ValidatedTokenCacheTest, ::testing::Values(&SamlCache, &ValidatorCache),
                         [](const auto& p) { return p.index == 0 ? "SamlFactory" : "Validator"; });

// Over the real factory a tampered copy is verified afresh and rejected.
TEST(ValidatedSamlCacheTest, CachesTheRealFactorysTokens) {
    auto factory = CreateCachingSamlTokenFactory(CreateSamlTokenFactory(StsResolver().Get()));
    const Token first = factory->CreateSamlToken(Assertion());
    EXPECT_EQ(factory->CreateSamlToken(Assertion()), first);
    const std::string tampered = ReplaceOnce(Assertion(), "alice@", "alicf@");
    EXPECT_THROW(factory->CreateSamlToken(tampered), InvalidSignatureException);
}

}  // namespace

// The validated-token caches, SAML factory and token validator alike, over counting inner
// validators and a hand-set clock.

#include <basalt/Object.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/ValidatedTokenCache.h>

#include <future>
#include <string>
#include <vector>

#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using Token = std::shared_ptr<const SamlToken>;
const std::string kRejected = "Signature validation failed";

// A new token object for every text but those starting "bad", which it rejects; counts calls.
Token Answer(std::atomic<int>& calls, std::string_view text, long toleranceSec) {
    static const std::string xml = TestSupport::MakeSignedAssertion({});
    ++calls;
    if (text.substr(0, 3) == "bad") {
        throw InvalidSignatureException(kRejected);
    }
    return CreateSamlToken(xml, toleranceSec);
}

struct CountingFactory final : SamlTokenFactory {
    explicit CountingFactory(std::atomic<int>& counter) : calls(counter) {}
    Token CreateSamlToken(const std::string& xml, long toleranceSec) const override {
        return Answer(calls, xml, toleranceSec);
    }
    Token CreateSamlTokenFromDom(Basalt::Xml::ElementNode*, long) const override { return {}; }
    std::atomic<int>& calls;
};

struct CountingValidator final : virtual TokenValidator, virtual Basalt::ObjectImpl {
    explicit CountingValidator(std::atomic<int>& counter) : calls(counter) {}
    Token Validate(std::string_view token, std::string_view) const override {
        return Answer(calls, token, 600);
    }
    std::atomic<int>& calls;
};

// A cache under test over an inner validator counting into calls: validate(text, variant)
// passes variant as the clock tolerance (SAML) or as the second argument (validator), either
// of which decides the token object.
using Validate = std::function<Token(const std::string&, int)>;

Validate SamlCache(const ValidatedTokenCacheOptions& options, std::atomic<int>& calls) {
    auto cached = CreateCachingSamlTokenFactory(std::make_shared<CountingFactory>(calls), options);
    return [cached](const std::string& text, int variant) {
        return cached->CreateSamlToken(text, 600 + variant);
    };
}

Validate ValidatorCache(const ValidatedTokenCacheOptions& options, std::atomic<int>& calls) {
    Basalt::Ref<TokenValidator> cached;
    CreateCachingTokenValidator(new CountingValidator(calls), options, cached);
    return [cached](const std::string& text, int variant) {
        return cached->Validate(text, variant ? std::to_string(variant) : "");
    };
}

class ValidatedTokenCacheTest : public ::testing::TestWithParam<Validate (*)(
                                    const ValidatedTokenCacheOptions&, std::atomic<int>&)> {
  protected:
    Validate Make(size_t maxEntries = 1024) {
        ValidatedTokenCacheOptions options;
        options.maxEntries = maxEntries;
        options.clock = m_clock;
        return GetParam()(options, m_calls);
    }
    std::shared_ptr<TestSupport::ManualClock> m_clock =
        std::make_shared<TestSupport::ManualClock>(Basalt::System::GetUtcDateTime().GetUtcTime());
    std::atomic<int> m_calls{0};
};

// Keyed by every byte of the text and by what else decides the token; a rejection is not kept.
TEST_P(ValidatedTokenCacheTest, SameObjectForTheSameBytesOnly) {
    const std::string text = "token text";
    const std::pair<std::string, int> others[] = {{"Token text", 0}, {"token texT", 0}, {text, 1}};
    const Validate validate = Make();
    const Token first = validate(text, 0);
    for (const auto& [other, variant] : others) {
        EXPECT_EQ(validate(text, 0), first);
        EXPECT_NE(validate(other, variant), first) << other;
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(
            TestSupport::Throws<InvalidSignatureException>([&] { validate("bad", 0); }, kRejected));
    }
    EXPECT_EQ(m_calls, 6);
}

// Entries go when the token's tolerance has passed, and beyond the bound the least recently used.
TEST_P(ValidatedTokenCacheTest, DropsExpiredAndLeastRecentlyUsedEntries) {
    const Validate validate = Make(2);
    const Token a = validate("a", 0);
    const Token b = validate("b", 0);
    m_clock->micros = a->GetExpirationTimeWithTolerance().GetUtcTime() - 1;
    EXPECT_EQ(validate("a", 0), a);
    validate("c", 0);
    EXPECT_EQ(validate("a", 0), a);
    EXPECT_EQ(m_calls, 3);
    EXPECT_NE(validate("b", 0), b);
    EXPECT_EQ(m_calls, 4);
    ++m_clock->micros;
    EXPECT_NE(validate("a", 0), a);
    EXPECT_EQ(m_calls, 5);
}

// Run under TSan: hits, misses and evictions from several threads at once.
TEST_P(ValidatedTokenCacheTest, ServesConcurrentCallers) {
    const Validate validate = Make(4);
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(std::async(std::launch::async, [&, t] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_TRUE(validate(std::to_string((i + t) % 6), 0));
            }
        }));
    }
    for (auto& thread : threads) {
        thread.get();
    }
}

INSTANTIATE_TEST_SUITE_P(, ValidatedTokenCacheTest, ::testing::Values(&SamlCache, &ValidatorCache),
                         [](const auto& p) { return p.index == 0 ? "SamlFactory" : "Validator"; });

}  // namespace

#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/JwtTokenValidator.h>

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/JwtTestSupport.h"
#include "internal/jwt/JwtTokenImpl.h"
#include "internal/jwt/JwtTokenValidator.h"
#include "support/ExpectThrow.h"

using namespace SsoClient;
using Basalt::System::DateTime;
using Basalt::System::DateTimeFromUtc;
using JwtTest::Key;
using TestSupport::Throws;

namespace {

constexpr int64_t kNow = 1700000100;
constexpr int64_t kMax32 = 2147483647;
const char kAudience[] = "https://api.example.test";

class FixedClock final : public Basalt::System::Clock {
  public:
    explicit FixedClock(int64_t seconds, int64_t micros = 0)
        : m_now(DateTimeFromUtc(seconds * 1000000 + micros, false)) {}
    DateTime Now() const override { return m_now; }

  private:
    DateTime m_now;
};

DateTime At(int64_t seconds) {
    return DateTimeFromUtc(seconds * 1000000, false);
}

// Claims as raw JSON values, in order; an empty value leaves the claim out.
using Claims = std::vector<std::pair<std::string, std::string>>;

Claims BaseClaims() {
    return {{"jti", R"("id-1")"},
            {"aud", R"("https://api.example.test")"},
            {"iss", R"("https://sts.example.test")"},
            {"exp", std::to_string(kNow + 3600)},
            {"iat", std::to_string(kNow - 100)},
            {"nbf", ""},
            {"sub", R"("alice@example.test")"},
            {"groups", R"(["Users@example.test"])"},
            {"preferred_username", R"("Alice Liddell")"}};
}

Claims With(Claims claims, const std::string& name, const std::string& value) {
    for (auto& claim : claims) {
        if (claim.first == name) {
            claim.second = value;
        }
    }
    return claims;
}

std::string Payload(const Claims& claims) {
    std::string payload;
    for (const auto& [name, value] : claims) {
        if (!value.empty()) {
            payload += (payload.empty() ? "{\"" : ",\"") + name + "\":" + value;
        }
    }
    return payload + "}";
}

std::string Token(const Claims& claims) {
    return JwtTest::SignRs256(Payload(claims));
}

Basalt::Ref<JwtTokenValidator> Validator(const Basalt::System::Clock& clock,
                                         int64_t tolerance = 600) {
    // Every fixture key but other-rsa; the first is tried and skipped for most tokens.
    const Basalt::Jwt::SigningKeys keys = {Key("ed25519.pub"), Key("rsa.pem"),   Key("rsa.pub"),
                                           Key("ec256.pub"),   Key("ec384.pub"), Key("ec521.pub")};
    return new JwtTokenValidator({"urn:other", kAudience}, keys, tolerance, clock);
}

}  // namespace

TEST(JwtTokenValidatorTest, IndependentProducersAreAcceptedForEveryAlgorithm) {
    const FixedClock clock(kNow);
    const auto validator = Validator(clock);
    for (const char* alg : {"RS256", "RS384", "RS512", "PS256", "PS384", "PS512", "ES256", "ES384",
                            "ES512", "EdDSA"}) {
        for (const std::string producer : {"-pyjwt", "-jwcrypto"}) {
            SCOPED_TRACE(alg + producer);
            const std::string text = JwtTest::Fixture(alg + producer);
            const auto token = validator->Validate(text, "ctx");
            EXPECT_EQ("jwt-0001", token->GetId());
            EXPECT_EQ("https://sts.example.test", token->GetIssuer());
            EXPECT_EQ((PrincipalId{"alice", "example.test"}), *token->GetSubject());
            std::vector<PrincipalId> groups;
            token->GetGroups(groups);
            EXPECT_EQ(
                (std::vector<PrincipalId>{{"Users", "example.test"}, {"Readers", "example.test"}}),
                groups);
            EXPECT_EQ(At(1700000000), token->GetStartTime());
            EXPECT_EQ(At(2147000000), token->GetExpirationTime());
            PersonName name;
            token->GetPersonName(name);
            EXPECT_EQ("Alice", name.givenName);
            EXPECT_EQ("Liddell", name.surname);
            EXPECT_EQ(text, token->GetXml());
        }
    }
}

TEST(JwtTokenValidatorTest, ChecksRunInOrderWithTheirMessages) {
    // Each row breaks its own check and every later one, so only the order gives its message.
    const std::pair<std::string, std::string> breakers[] = {
        {"jti", ""},
        {"aud", R"(["urn:unknown"])"},
        {"iss", ""},
        {"exp", ""},
        {"exp", std::to_string(kNow - 601)},
        {"iat", ""},
        {"iat", std::to_string(kNow + 601)},
        {"nbf", std::to_string(kNow + 601)},
        {"sub", ""},
        {"sub", R"("alice")"},
        {"groups", R"("Users@example.test")"},
        {"groups", R"(["Users@example.test","Users"])"},
    };
    const char* messages[] = {"Missing token id",
                              "Missing or incorrect audience",
                              "Missing issuer",
                              "Missing expiration time",
                              "Token has already expired",
                              "Missing 'issued at' time",
                              "Token 'issued at' time is in the future",
                              "Token 'not before' time is in the future",
                              "Mising subject",
                              "Invalid subject",
                              "Incorrect groups format",
                              "Incorrect group format"};
    const FixedClock clock(kNow);
    const auto validator = Validator(clock);
    const size_t count = std::size(breakers);
    for (size_t row = 0; row < count; ++row) {
        SCOPED_TRACE(messages[row]);
        Claims claims = BaseClaims();
        for (size_t i = count; i-- > row;) {
            claims = With(claims, breakers[i].first, breakers[i].second);
        }
        EXPECT_TRUE(Throws<InvalidTokenException>([&] { validator->Validate(Token(claims), ""); },
                                                  messages[row]));
    }
    // Decoding and the signature come before every claim.
    Claims broken = BaseClaims();
    for (const auto& [name, value] : breakers) {
        broken = With(broken, name, value);
    }
    const std::string good = Token(BaseClaims());
    const size_t dot = good.find('.');
    const std::string payload = good.substr(dot, good.rfind('.') - dot);  // with its leading dot
    const std::pair<const char*, std::string> signatureCases[] = {
        {"untrusted key", JwtTest::Sign(R"({"alg":"RS256"})", Payload(broken), "other-rsa.key")},
        {"tampered payload", good.substr(0, dot + 1) + JwtTest::Base64Url(R"({"sub":"eve@x"})") +
                                 good.substr(good.rfind('.'))},
        {"alg none", JwtTest::Base64Url(R"({"alg":"none"})") + payload + "."},
        {"HS256 keyed with a trusted PEM", JwtTest::Fixture("HS256-keyed-with-rsa.pub")},
    };
    for (const auto& [name, token] : signatureCases) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(Throws<InvalidSignatureException>([&] { validator->Validate(token, ""); },
                                                      "Token signature validation failed"));
    }
    EXPECT_TRUE(Throws<InvalidTokenException>(
        [&] { validator->Validate(good.substr(0, good.rfind('.')), ""); },
        "Token decoding failed"));
}

TEST(JwtTokenValidatorTest, TimeRulesAtTheirEdges) {
    struct Case {
        const char* name;
        int64_t now;
        int64_t tolerance;
        int64_t exp;
        int64_t iat;
        int64_t nbf;        // 0: absent
        const char* error;  // null: accepted
        int64_t start;
    };
    const int64_t n = kNow;
    const char* expired = "Token has already expired";
    const Case cases[] = {
        {"expired exactly the tolerance ago", n, 600, n - 600, n - 900, 0, nullptr, n - 900},
        {"a second more", n, 600, n - 601, n - 900, 0, expired, 0},
        {"no tolerance", n, 0, n - 1, n - 900, 0, expired, 0},
        {"last expiry the 32-bit guard allows", n, 600, kMax32 - 600, n, 0, nullptr, n},
        {"one beyond it, at any time", n, 600, kMax32 - 599, n, 0, expired, 0},
        {"present beyond the guard", kMax32 - 599, 600, kMax32 - 600, n, 0,
         "Token 'issued at' time is in the future", 0},
        {"issued the tolerance ahead", n, 600, n + 60, n + 600, 0, nullptr, n + 600},
        {"issued a second more ahead", n, 600, n + 60, n + 601, 0,
         "Token 'issued at' time is in the future", 0},
        {"valid from the tolerance ahead", n, 600, n + 60, n, n + 600, nullptr, n + 600},
        {"valid from a second more ahead", n, 600, n + 60, n, n + 601,
         "Token 'not before' time is in the future", 0},
        {"not before in the past is the start", n, 600, n + 60, n - 90, n - 50, nullptr, n - 50},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const FixedClock clock(c.now);
        const auto validator = Validator(clock, c.tolerance);
        Claims claims = With(BaseClaims(), "exp", std::to_string(c.exp));
        claims = With(claims, "iat", std::to_string(c.iat));
        claims = With(claims, "nbf", c.nbf ? std::to_string(c.nbf) : "");
        const std::string token = Token(claims);
        if (c.error) {
            EXPECT_TRUE(
                Throws<InvalidTokenException>([&] { validator->Validate(token, ""); }, c.error));
            continue;
        }
        const auto validated = validator->Validate(token, "");
        EXPECT_EQ(At(c.start), validated->GetStartTime());
        EXPECT_EQ(At(c.exp), validated->GetExpirationTime());
        EXPECT_EQ(At(c.exp + c.tolerance), validated->GetExpirationTimeWithTolerance());
    }
    // "Now" is whole seconds, truncated.
    const FixedClock late(kNow + 3600 + 600, 999999);
    EXPECT_NO_THROW(Validator(late)->Validate(Token(BaseClaims()), ""));
}

TEST(JwtTokenValidatorTest, PrincipalsAndNamesAreSplitAtTheLastSeparator) {
    struct Case {
        const char* claim;
        const char* value;
        std::vector<PrincipalId> principals;  // subject, or groups
        const char* error;
    };
    const Case cases[] = {
        {"sub", R"("alice@sales")", {{"alice", "sales"}}, nullptr},
        {"sub", R"("a@b@c")", {{"a@b", "c"}}, nullptr},
        {"sub", R"("@sales")", {}, "Invalid subject"},
        {"sub", R"("alice@")", {}, "Invalid subject"},
        {"groups",
         R"(["Users@example.test","a@b@c"])",
         {{"Users", "example.test"}, {"a@b", "c"}},
         nullptr},
        {"groups", "", {}, nullptr},
        {"groups", R"(["@sales"])", {}, "Incorrect group format"},
        {"groups", R"(["Users@"])", {}, "Incorrect group format"},
    };
    const FixedClock clock(kNow);
    const auto validator = Validator(clock);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const std::string token = Token(With(BaseClaims(), c.claim, c.value));
        if (c.error) {
            EXPECT_TRUE(
                Throws<InvalidTokenException>([&] { validator->Validate(token, ""); }, c.error));
            continue;
        }
        const auto validated = validator->Validate(token, "");
        std::vector<PrincipalId> groups;
        validated->GetGroups(groups);
        EXPECT_EQ(c.principals, std::string(c.claim) == "sub"
                                    ? std::vector<PrincipalId>{*validated->GetSubject()}
                                    : groups);
    }

    const std::pair<const char*, PersonName> names[] = {
        {R"("John Smith")", {"John", "Smith"}},
        {R"("Mary Ann Lee")", {"Mary Ann", "Lee"}},
        {R"("alice")", {"", ""}},
        {R"("Smith ")", {"", ""}},
        {"", {"", ""}},
    };
    for (const auto& [value, expected] : names) {
        SCOPED_TRACE(value);
        PersonName name{"stale", "stale"};
        validator->Validate(Token(With(BaseClaims(), "preferred_username", value)), "")
            ->GetPersonName(name);
        EXPECT_EQ(expected.givenName, name.givenName);
        EXPECT_EQ(expected.surname, name.surname);
    }
}

TEST(JwtTokenValidatorTest, TokenAnswersLikeABearerTokenWithoutExtras) {
    const FixedClock clock(kNow);
    const std::string text = Token(BaseClaims());
    const auto token = Validator(clock)->Validate(text, "request 42");
    std::vector<Delegate> chain = {{{"kept", "x"}, DateTime()}};
    token->GetDelegationChain(chain);
    EXPECT_EQ(1u, chain.size());
    std::vector<Advice> advice = {{"kept", {}}};
    token->GetAdvice(advice);
    EXPECT_EQ(1u, advice.size());
    std::set<std::string> audience = {"stale"};
    token->GetAudience(audience);
    EXPECT_EQ(std::set<std::string>{kAudience}, audience);
    EXPECT_FALSE(token->IsRenewable() || token->IsDelegable() || token->IsSolution());
    EXPECT_EQ(0, token->GetRenewCount() + token->GetDelegableCount());
    EXPECT_EQ(nullptr, token->GetHolderOfKeyCertificate());
    EXPECT_EQ(nullptr, token->GetSignature());
    EXPECT_EQ(text, token->GetXml());
    token->GetUnsupportedInfo();  // returns, unlike a SAML token's
    EXPECT_EQ("request 42", dynamic_cast<const JwtTokenImpl&>(*token).GetContext());
    EXPECT_EQ(
        "SamlToken [subject={Name: alice; Domain:example.test}, groups=[{Name: Users; "
        "Domain:example.test}], delegationChain=[], startTime=2023-11-14T22:13:20.000000Z, "
        "endTime=2023-11-14T23:15:00.000000Z, renewCount=0, delegableCount=0, isSolution=false, "
        "type=JWT_Bearer]",
        CreateSamlTokenDescription(*token));
}

TEST(JwtTokenValidatorTest, FactoryKeepsItsOwnCopiesAndUsesTheSystemClock) {
    Basalt::Ref<TokenValidator> validator;
    {
        const std::vector<std::string> audiences = {kAudience};
        const std::list<std::shared_ptr<const std::string>> keys = {nullptr, Key("rsa.pub")};
        CreateJwtTokenValidator(audiences, keys, 600, validator);
    }
    // The fixture expires in 2038; a fixed clock is not needed to accept it today.
    EXPECT_EQ("jwt-0001", validator->Validate(JwtTest::Fixture("PS256-pyjwt"), "")->GetId());
}

TEST(JwtTokenValidatorTest, OneValidatorServesManyThreads) {
    const FixedClock clock(kNow);
    const auto validator = Validator(clock);
    const std::vector<std::string> tokens = {
        JwtTest::Fixture("RS256-pyjwt"), JwtTest::Fixture("ES256-jwcrypto"),
        JwtTest::Fixture("EdDSA-pyjwt"), JwtTest::Fixture("PS512-jwcrypto")};
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                const auto token = validator->Validate(tokens[(t + i) % tokens.size()], "");
                accepted += token->GetSubject()->name == "alice" ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(80, accepted.load());
}

#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/JwtTokenValidator.h>

#include <atomic>
#include <thread>
#include <vector>

#include "foundation/JwtTestSupport.h"
#include "internal/jwt/JwtTokenImpl.h"
#include "internal/jwt/JwtTokenValidator.h"
#include "support/ExpectThrow.h"

using namespace SsoClient;
using Basalt::System::DateTime;
using TestSupport::Throws;

namespace {

constexpr int64_t kNow = 1700000100;
constexpr int64_t kMax32 = 2147483647;
const char kAudience[] = "https://api.example.test";
const char kSignatureFailed[] = "Token signature validation failed";

DateTime At(int64_t seconds, int64_t micros = 0) {
    return Basalt::System::DateTimeFromUtc(seconds * 1000000 + micros, false);
}

class FixedClock final : public Basalt::System::Clock {
  public:
    explicit FixedClock(DateTime now) : m_now(now) {}
    DateTime Now() const override { return m_now; }

  private:
    DateTime m_now;
};

// Every public key but other-rsa's unless told otherwise; the first is skipped for most tokens.
Basalt::Ref<JwtTokenValidator> Validator(const Basalt::System::Clock& clock,
                                         int64_t tolerance = 600,
                                         const std::vector<std::string>& keys = {
                                             "ed25519.pub", "rsa.pem", "ec256.pub", "ec384.pub",
                                             "ec521.pub"}) {
    return new JwtTokenValidator({"urn:other", kAudience}, JwtTest::Keys(keys), tolerance, clock);
}

// Claims as raw JSON values, in order; an empty value leaves the claim out.
using Claims = std::vector<std::pair<std::string, std::string>>;

Claims BaseClaims(const Claims& changes = {}) {
    Claims claims = {{"jti", R"("id-1")"},
                     {"aud", R"("https://api.example.test")"},
                     {"iss", R"("https://sts.example.test")"},
                     {"exp", std::to_string(kNow + 3600)},
                     {"iat", std::to_string(kNow - 100)},
                     {"nbf", ""},
                     {"sub", R"("alice@example.test")"},
                     {"groups", R"(["Users@example.test"])"},
                     {"preferred_username", R"("Alice Liddell")"}};
    for (const auto& [name, value] : changes) {
        for (auto& claim : claims) {
            claim.second = claim.first == name ? value : claim.second;
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

std::string Token(const Claims& changes = {}) {
    return JwtTest::SignRs256(Payload(BaseClaims(changes)));
}

}  // namespace

TEST(JwtTokenValidatorTest, IndependentProducersAreAcceptedForEveryAlgorithmAndOwnKeyOnly) {
    const FixedClock clock(At(kNow));
    const auto validator = Validator(clock);
    const std::pair<const char*, const char*> cases[] = {
        {"RS256", "rsa.pem"},     {"RS384", "rsa.pem"},   {"RS512", "rsa.pem"},
        {"PS256", "rsa.pem"},     {"PS384", "rsa.pem"},   {"PS512", "rsa.pem"},
        {"ES256", "ec256.pub"},   {"ES384", "ec384.pub"}, {"ES512", "ec521.pub"},
        {"EdDSA", "ed25519.pub"},
    };
    for (const auto& [alg, ownKey] : cases) {
        std::vector<std::string> foreign;  // every other key (rsa.pub is rsa.pem's key too)
        for (const auto& file : JwtTest::kPublicKeys) {
            if (file.substr(0, 4) != std::string(ownKey).substr(0, 4)) {
                foreign.push_back(file);
            }
        }
        const auto foreignValidator = Validator(clock, 600, foreign);
        for (const std::string producer : {"-pyjwt", "-jwcrypto"}) {
            SCOPED_TRACE(alg + producer);
            const std::string text = JwtTest::Fixture(alg + producer);
            const auto token = validator->Validate(text, "");
            EXPECT_EQ("jwt-0001 https://sts.example.test",
                      token->GetId() + " " + token->GetIssuer());
            EXPECT_EQ(
                "SamlToken [subject={Name: alice; Domain:example.test}, groups=[{Name: Users; "
                "Domain:example.test}, {Name: Readers; Domain:example.test}], delegationChain=[], "
                "startTime=2023-11-14T22:13:20.000000Z, endTime=2038-01-13T12:53:20.000000Z, "
                "renewCount=0, delegableCount=0, isSolution=false, type=JWT_Bearer]",
                CreateSamlTokenDescription(*token));
            EXPECT_TRUE(Throws<InvalidSignatureException>(
                [&] { foreignValidator->Validate(text, ""); }, kSignatureFailed));
        }
    }
}

TEST(JwtTokenValidatorTest, ChecksRunInOrderWithTheirMessages) {
    // Each row breaks its own check and every later one, so only the order gives its message.
    const struct {
        const char* claim;
        std::string value;
        const char* message;
    } rows[] = {
        {"jti", "", "Missing token id"},
        {"aud", R"(["urn:unknown"])", "Missing or incorrect audience"},
        {"iss", "", "Missing issuer"},
        {"exp", "", "Missing expiration time"},
        {"exp", std::to_string(kNow - 601), "Token has already expired"},
        {"iat", "", "Missing 'issued at' time"},
        {"iat", std::to_string(kNow + 601), "Token 'issued at' time is in the future"},
        {"nbf", std::to_string(kNow + 601), "Token 'not before' time is in the future"},
        {"sub", "", "Mising subject"},
        {"sub", "7", "Mising subject"},
        {"sub", R"("alice")", "Invalid subject"},
        {"groups", R"("Users@example.test")", "Incorrect groups format"},
        {"groups", R"(["Users@example.test","Users"])", "Incorrect group format"},
    };
    const FixedClock clock(At(kNow));
    const auto validator = Validator(clock);
    Claims allBroken;
    for (size_t row = std::size(rows); row-- > 0;) {
        allBroken.emplace_back(rows[row].claim, rows[row].value);  // the last change wins
        SCOPED_TRACE(rows[row].message);
        EXPECT_TRUE(Throws<InvalidTokenException>(
            [&] { validator->Validate(Token(allBroken), ""); }, rows[row].message));
    }
    // Decoding and the signature come before every claim.
    const std::string good = Token();
    const size_t dot = good.find('.');
    const std::pair<const char*, std::string> signatureCases[] = {
        {"untrusted key",
         JwtTest::Sign(R"({"alg":"RS256"})", Payload(BaseClaims(allBroken)), "other-rsa.key")},
        {"tampered payload", good.substr(0, dot + 1) + JwtTest::Base64Url(R"({"sub":"eve@x"})") +
                                 good.substr(good.rfind('.'))},
        {"alg none",
         JwtTest::Base64Url(R"({"alg":"none"})") + good.substr(dot, good.rfind('.') - dot) + "."},
        {"HS256 keyed with a trusted PEM", JwtTest::Fixture("HS256-keyed-with-rsa.pub")},
    };
    for (const auto& [name, token] : signatureCases) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(Throws<InvalidSignatureException>([&] { validator->Validate(token, ""); },
                                                      kSignatureFailed));
    }
    EXPECT_TRUE(Throws<InvalidTokenException>(
        [&] { validator->Validate(good.substr(0, good.rfind('.')), ""); },
        "Token decoding failed"));
}

TEST(JwtTokenValidatorTest, TimeRulesAtTheirEdges) {
    const int64_t n = kNow;
    const char* expired = "Token has already expired";
    const char* issuedLater = "Token 'issued at' time is in the future";
    const struct {
        const char* name;
        int64_t now, tolerance, exp, iat, nbf;  // nbf 0: absent
        const char* error;                      // null: accepted, starting at start
        int64_t start;
    } cases[] = {
        {"expired exactly the tolerance ago", n, 600, n - 600, n - 900, 0, nullptr, n - 900},
        {"a second more", n, 600, n - 601, n - 900, 0, expired, 0},
        {"no tolerance", n, 0, n - 1, n - 900, 0, expired, 0},
        {"last expiry the 32-bit guard allows", n, 600, kMax32 - 600, n, 0, nullptr, n},
        {"one beyond it, at any time", n, 600, kMax32 - 599, n, 0, expired, 0},
        {"present beyond the guard", kMax32 - 599, 600, kMax32 - 600, n, 0, issuedLater, 0},
        {"issued the tolerance ahead", n, 600, n + 60, n + 600, 0, nullptr, n + 600},
        {"issued a second more ahead", n, 600, n + 60, n + 601, 0, issuedLater, 0},
        {"valid from the tolerance ahead", n, 600, n + 60, n, n + 600, nullptr, n + 600},
        {"valid from a second more ahead", n, 600, n + 60, n, n + 601,
         "Token 'not before' time is in the future", 0},
        {"valid from the past", n, 600, n + 60, n - 90, n - 50, nullptr, n - 50},
        {"valid from the first second", n, 600, n + 60, n - 90, 1, nullptr, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const FixedClock clock(At(c.now));
        const auto validator = Validator(clock, c.tolerance);
        const std::string token = Token({{"exp", std::to_string(c.exp)},
                                         {"iat", std::to_string(c.iat)},
                                         {"nbf", c.nbf ? std::to_string(c.nbf) : ""}});
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
    const FixedClock late(At(kNow + 3600 + 600, 999999));
    EXPECT_NO_THROW(Validator(late)->Validate(Token(), ""));
}

TEST(JwtTokenValidatorTest, NamesAreSplitAtTheLastSeparator) {
    const FixedClock clock(At(kNow));
    const auto validator = Validator(clock);
    const struct {
        const char* claim;
        const char* value;
        std::vector<PrincipalId> principals;  // the subject, or the groups
        const char* error;
    } cases[] = {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const std::string token = Token({{c.claim, c.value}});
        if (c.error) {
            EXPECT_TRUE(
                Throws<InvalidTokenException>([&] { validator->Validate(token, ""); }, c.error));
            continue;
        }
        const auto validated = validator->Validate(token, "");
        std::vector<PrincipalId> principals = {*validated->GetSubject()};
        if (std::string(c.claim) == "groups") {
            validated->GetGroups(principals);
        }
        EXPECT_EQ(c.principals, principals);
    }
    const std::pair<const char*, const char*> names[] = {
        {R"("John Smith")", "John|Smith"},
        {R"("Mary Ann Lee")", "Mary Ann|Lee"},
        {R"("alice")", "|"},
        {R"("Smith ")", "|"},
        {"", "|"},
    };
    for (const auto& [value, expected] : names) {
        SCOPED_TRACE(value);
        PersonName name{"stale", "stale"};
        validator->Validate(Token({{"preferred_username", value}}), "")->GetPersonName(name);
        EXPECT_EQ(expected, name.givenName + "|" + name.surname);
    }
}

TEST(JwtTokenValidatorTest, TokenAnswersLikeABearerTokenWithoutExtras) {
    const FixedClock clock(At(kNow));
    const std::string text = Token();
    const auto token = Validator(clock)->Validate(text, "request 42");
    std::vector<Delegate> chain = {{{"kept", "x"}, DateTime()}};
    token->GetDelegationChain(chain);
    std::vector<Advice> advice = {{"kept", {}}};
    token->GetAdvice(advice);
    EXPECT_EQ(2u, chain.size() + advice.size());
    std::set<std::string> audience = {"stale"};
    token->GetAudience(audience);
    EXPECT_EQ(std::set<std::string>{kAudience}, audience);
    EXPECT_FALSE(token->IsRenewable() || token->IsDelegable() || token->IsSolution());
    EXPECT_EQ(nullptr, token->GetHolderOfKeyCertificate());
    EXPECT_EQ(nullptr, token->GetSignature());
    EXPECT_EQ(text, token->GetXml());
    EXPECT_EQ("request 42", token->GetUnsupportedInfo());  // returns, unlike a SAML token's
}

TEST(JwtTokenValidatorTest, FactoryKeepsItsOwnCopiesAndUsesTheSystemClock) {
    Basalt::Ref<TokenValidator> validator;
    {
        const std::vector<std::string> audiences = {kAudience};
        Basalt::Jwt::SigningKeys keys = JwtTest::Keys({"rsa.pub"});
        keys.push_front(nullptr);
        CreateJwtTokenValidator(audiences, keys, 600, validator);
    }
    // The fixture expires in 2038: no fixed clock is needed to accept it today.
    EXPECT_EQ("jwt-0001", validator->Validate(JwtTest::Fixture("PS256-pyjwt"), "")->GetId());
}

TEST(JwtTokenValidatorTest, OneValidatorServesManyThreads) {
    const FixedClock clock(At(kNow));
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

#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/JwtTokenValidator.h>

#include <future>
#include <map>
#include <tuple>

#include "foundation/JwtTestSupport.h"
#include "internal/jwt/JwtTokenValidator.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

using namespace SsoClient;
using Basalt::System::DateTime;
using TestSupport::Throws;

namespace {

constexpr int64_t kNow = 1700000100;
constexpr int64_t kMax32 = 2147483647;
const char kAudience[] = "https://api.example.test";
// The first is skipped by every token but EdDSA.
const std::vector<std::string> kKeys = {"ed25519.pub", "rsa.pem", "ec256.pub", "ec384.pub",
                                        "ec521.pub"};

DateTime At(int64_t seconds) {
    return Basalt::System::DateTimeFromUtc(seconds * 1000000, false);
}

Basalt::Ref<JwtTokenValidator> Validator(const Basalt::System::Clock& clock) {
    return new JwtTokenValidator({"urn:other", kAudience}, JwtTest::Keys(kKeys), 600, clock);
}

// Claim changes as raw JSON values, applied in order; an empty value leaves the claim out.
using Claims = std::vector<std::pair<std::string, std::string>>;

std::string Token(const Claims& changes = {}, const std::string& keyFile = "rsa.key") {
    std::map<std::string, std::string> claims = {{"jti", R"("id-1")"},
                                                 {"aud", R"("https://api.example.test")"},
                                                 {"iss", R"("https://sts")"},
                                                 {"exp", std::to_string(kNow + 3600)},
                                                 {"iat", std::to_string(kNow)},
                                                 {"sub", R"("alice@x")"},
                                                 {"groups", R"(["U@x","a@b@c"])"},
                                                 {"preferred_username", R"("Alice Liddell")"}};
    for (const auto& [name, value] : changes) {
        claims[name] = value;
    }
    std::string payload;
    for (const auto& [name, value] : claims) {
        payload += value.empty() ? "" : (payload.empty() ? "{\"" : ",\"") + name + "\":" + value;
    }
    return JwtTest::Sign(payload + "}", R"({"alg":"RS256"})", keyFile);
}

void Rejects(const JwtTokenValidator& validator, const std::string& token, const char* message) {
    EXPECT_TRUE(Throws<InvalidTokenException>([&] { validator.Validate(token, ""); }, message));
}

}  // namespace

// Through the factory, which copies what it is given, skips null keys and reads the system clock
// (the fixtures expire in 2038); one validator on three threads at once.
TEST(JwtTokenValidatorTest, IndependentProducersAreAcceptedForEveryAlgorithmOnManyThreads) {
    Basalt::Jwt::SigningKeys keys = JwtTest::Keys(kKeys);
    keys.push_front(nullptr);
    Basalt::Ref<TokenValidator> validator;
    CreateJwtTokenValidator({"urn:other", kAudience}, keys, 600, validator);
    const auto validateAll = [&validator] {
        for (const std::string name :
             {"RS256-pyjwt", "RS384-jwcrypto", "RS512-pyjwt", "PS256-jwcrypto", "PS384-pyjwt",
              "PS512-jwcrypto", "ES256-pyjwt", "ES384-jwcrypto", "ES512-pyjwt", "EdDSA-jwcrypto"}) {
            SCOPED_TRACE(name);
            const std::string text = JwtTest::Fixture(name);
            const auto token = validator->Validate(text, name);
            std::set<std::string> audience = {"stale"};
            token->GetAudience(audience);
            EXPECT_EQ(std::set<std::string>{kAudience}, audience);
            // The chain's and the advice's destinations are left as they were, not cleared.
            std::vector<Delegate> chain(1);
            std::vector<Advice> advice(1);
            token->GetDelegationChain(chain);
            token->GetAdvice(advice);
            EXPECT_EQ(name + " 1 1 jwt-0001 https://sts.example.test " + text,
                      token->GetUnsupportedInfo() + " " + std::to_string(chain.size()) + " " +
                          std::to_string(advice.size()) + " " + token->GetId() + " " +
                          token->GetIssuer() + " " + token->GetXml());
            EXPECT_EQ(
                "SamlToken [subject={Name: alice; Domain:example.test}, groups=[{Name: Users; "
                "Domain:example.test}, {Name: Readers; Domain:example.test}], delegationChain=[], "
                "startTime=2023-11-14T22:13:20.000000Z, endTime=2038-01-13T12:53:20.000000Z, "
                "renewCount=0, delegableCount=0, isSolution=false, type=JWT_Bearer]",
                CreateSamlTokenDescription(*token));
        }
    };
    const auto first = std::async(std::launch::async, validateAll);
    const auto second = std::async(std::launch::async, validateAll);
    validateAll();
}

TEST(JwtTokenValidatorTest, ChecksRunInOrderWithTheirMessagesAndNamesSplitAtTheLastSeparator) {
    // Each row breaks its own check and every later one, so only the order gives its message.
    const std::tuple<const char*, std::string, const char*> rows[] = {
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
        {"sub", R"("@sales")", "Invalid subject"},
        {"sub", R"("alice@")", "Invalid subject"},
        {"groups", R"("Users@x")", "Incorrect groups format"},
        {"groups", R"(["Users@x","Users"])", "Incorrect group format"},
    };
    const TestSupport::ManualClock clock(kNow * 1000000);
    const auto validator = Validator(clock);
    Claims allBroken;
    for (size_t row = std::size(rows); row-- > 0;) {
        const auto& [claim, value, message] = rows[row];
        allBroken.emplace_back(claim, value);
        SCOPED_TRACE(message);
        Rejects(*validator, Token(allBroken), message);
    }
    // Decoding and the signature come before every claim.
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] { validator->Validate(Token(allBroken, "other-rsa.key"), ""); },
        "Token signature validation failed"));
    Rejects(*validator, Token(allBroken) + ".AAAA", "Token decoding failed");

    // Names are split at the last separator.
    const auto token = validator->Validate(
        Token({{"sub", R"("a@b@c")"}, {"preferred_username", R"("Mary Ann Lee")"}}), "");
    std::vector<PrincipalId> principals;
    token->GetGroups(principals);
    principals.insert(principals.begin(), *token->GetSubject());
    EXPECT_EQ(std::vector<PrincipalId>({{"a@b", "c"}, {"U", "x"}, {"a@b", "c"}}), principals);
    PersonName person;
    token->GetPersonName(person);
    EXPECT_EQ("Mary Ann|Lee", person.givenName + "|" + person.surname);
    // A user name without an inner space is no person's name.
    person = {"stale", "stale"};
    validator->Validate(Token({{"preferred_username", R"("Smith ")"}}), "")->GetPersonName(person);
    EXPECT_EQ("|", person.givenName + "|" + person.surname);
}

TEST(JwtTokenValidatorTest, TimeRulesAtTheirEdges) {
    const int64_t n = kNow;
    // name, now, exp, iat, nbf (0: absent), the error, or null when accepted from start
    const std::tuple<const char*, int64_t, int64_t, int64_t, int64_t, const char*, int64_t>
        cases[] = {
            {"expired exactly the tolerance ago", n, n - 600, n - 900, 0, nullptr, n - 900},
            {"last expiry the 32-bit guard allows", n, kMax32 - 600, n, 0, nullptr, n},
            {"one beyond it, at any time", n, kMax32 - 599, n, 0, "Token has already expired", 0},
            {"present beyond the guard", kMax32 - 599, kMax32 - 600, n, 0,
             "Token 'issued at' time is in the future", 0},
            {"issued the tolerance ahead", n, n + 60, n + 600, 0, nullptr, n + 600},
            {"valid from the tolerance ahead", n, n + 60, n, n + 600, nullptr, n + 600},
        };
    for (const auto& [name, now, exp, iat, nbf, error, start] : cases) {
        SCOPED_TRACE(name);
        const TestSupport::ManualClock clock(now * 1000000);
        const auto validator = Validator(clock);
        const std::string token = Token({{"exp", std::to_string(exp)},
                                         {"iat", std::to_string(iat)},
                                         {"nbf", nbf ? std::to_string(nbf) : ""}});
        if (error) {
            Rejects(*validator, token, error);
            continue;
        }
        const auto validated = validator->Validate(token, "");
        EXPECT_EQ(At(start), validated->GetStartTime());
        EXPECT_EQ(At(exp + 600), validated->GetExpirationTimeWithTolerance());
    }
}

#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/TokenPolicy.h>

#include <functional>
#include <iterator>
#include <sstream>

#include "foundation/JwtTestSupport.h"
#include "internal/jwt/JwtTokenValidator.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

using namespace SsoClient;
using Confirmation = RequiredConfirmation;

std::set<std::string> Words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// A SAML bearer token and a JWT that agree on issuer, audience and window [t0, t0 + 3600), each
// through its policy decorator after the wrapped checks (tolerance 600).
TEST(TokenPolicyTest, EachRuleAcceptsAndRejectsSamlAndJwtAlike) {
    const long t0 = Basalt::System::GetUtcDateTime().GetUtcTime() / 1000000, second = 1000000;
    const auto at = [&](long offset) {
        return Basalt::System::DateTimeFromUtc((t0 + offset) * second, false).ToString();
    };
    TestSupport::ManualClock clock(t0 * second);
    TestSupport::AssertionSpec spec;
    spec.notBeforeOffsetSec = 0;
    spec.audiences = {"https://api.example.test"};
    spec.edits = {{"https://sts.example.test/sts<", "https://sts<"}};
    spec.clock = &clock;
    const std::string saml = TestSupport::MakeSignedAssertion(spec);
    const std::string jwt = JwtTest::Sign(
        R"({"jti":"id-1","aud":"https://api.example.test","iss":"https://sts","exp":)" +
        std::to_string(t0 + 3600) + R"(,"iat":)" + std::to_string(t0) + R"(,"sub":"alice@x"})");
    const Basalt::Ref<TokenValidator> jwtValidator =
        new JwtTokenValidator(spec.audiences, JwtTest::Keys({"rsa.pem"}), 600, clock);

    const std::string beyond =
        "' is beyond the maximum clock tolerance of 60 s from the current time '";
    const Confirmation any = Confirmation::Any;
    // Accepted issuers, expected audiences (each a list of words), confirmation, maximum tolerance
    // (0: none), now, and the rejection (empty: accepted).
    const std::tuple<std::string, std::string, Confirmation, int64_t, long, std::string> cases[] = {
        {"urn:x https://sts", "", any, 0, 0, ""},
        {"urn:x urn:y", "", any, 0, 0,
         "Token issuer 'https://sts' is not among the accepted issuers 'urn:x', 'urn:y'"},
        {"", "urn:b https://api.example.test", any, 0, 0, ""},
        {"", "urn:b urn:c", any, 0, 0,
         "Token audience 'https://api.example.test' is not among the expected audiences 'urn:b', "
         "'urn:c'"},
        {"", "", Confirmation::Bearer, 0, 0, ""},
        {"", "", Confirmation::HolderOfKey, 0, 0,
         "Token confirmation type 'bearer' is not the required confirmation type 'holder-of-key'"},
        {"", "", any, 60, 3659, ""},
        {"", "", any, 60, 3660, "Token expiration time '" + at(3600) + beyond + at(3660) + "'"},
        {"", "", any, 60, -61, "Token start time '" + at(0) + beyond + at(-61) + "'"},
    };
    for (const auto& [issuers, audiences, confirmation, tolerance, now, rejection] : cases) {
        SCOPED_TRACE(rejection.empty() ? std::to_string(now) : rejection);
        const TokenPolicy policy{
            Words(audiences), Words(issuers), boost::make_optional(tolerance != 0, tolerance),
            confirmation, std::shared_ptr<const Basalt::System::Clock>(&clock, [](auto*) {})};
        clock.micros = (t0 + now) * second;
        Basalt::Ref<TokenValidator> validator;
        CreatePolicyTokenValidator(jwtValidator, policy, validator);
        const auto factory = CreatePolicyTokenFactory(
            CreateSamlTokenFactory(TestSupport::StsResolver().Get()), policy);
        const std::function<void()> paths[] = {[&] { factory->CreateSamlToken(saml); },
                                               [&] { validator->Validate(jwt, ""); }};
        for (const auto& path : paths) {
            if (rejection.empty()) {
                EXPECT_NO_THROW(path());
            } else {
                EXPECT_TRUE(TestSupport::Throws<InvalidTokenException>(path, rejection));
            }
        }
    }
}

#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/TokenPolicy.h>

#include <functional>

#include "foundation/JwtTestSupport.h"
#include "internal/jwt/JwtTokenValidator.h"
#include "internal/saml/SamlTokenImpl.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

using namespace SsoClient;
using TestSupport::Throws;

namespace {

constexpr long kNow = 1700000100;
constexpr long kSecond = 1000000;
const char kAudience[] = "https://api.example.test";

// Creates SAML tokens whose validity window is checked against the test's clock.
struct ClockedFactory final : SamlTokenFactory {
    explicit ClockedFactory(const Basalt::System::Clock& now) : clock(now) {}
    std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml,
                                                     long tolerance) const override {
        return std::make_shared<SamlTokenImpl>(xml, false, nullptr, tolerance, clock);
    }
    std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode*,
                                                            long) const override {
        return nullptr;
    }
    const Basalt::System::Clock& clock;
};

}  // namespace

// A SAML bearer token and a JWT that agree on issuer, audience and window [kNow, kNow + 3600),
// each through its policy decorator after the wrapped checks (tolerance 600).
TEST(TokenPolicyTest, EachRuleAcceptsAndRejectsSamlAndJwtAlike) {
    TestSupport::ManualClock clock(kNow * kSecond);
    TestSupport::AssertionSpec spec;
    spec.notBeforeOffsetSec = 0;
    spec.audiences = {kAudience};
    spec.edits = {{"https://sts.example.test/sts<", "https://sts<"}};
    spec.clock = &clock;
    const std::string saml = TestSupport::MakeSignedAssertion(spec);
    const std::string jwt = JwtTest::Sign(
        R"({"jti":"id-1","aud":"https://api.example.test","iss":"https://sts","exp":)" +
        std::to_string(kNow + 3600) + R"(,"iat":)" + std::to_string(kNow) + R"(,"sub":"alice@x"})");
    const Basalt::Ref<TokenValidator> jwtValidator =
        new JwtTokenValidator({kAudience}, JwtTest::Keys({"rsa.pem"}), 600, clock);

    const std::string expiry = "2023-11-14T23:15:00.000000Z", start = "2023-11-14T22:15:00.000000Z";
    const struct {
        std::function<void(TokenPolicy&)> rule;
        long now;
        std::string rejection;  // empty: accepted
    } cases[] = {
        {[](auto& p) {
             p.acceptedIssuers = {"urn:x", "https://sts"};
         },
         kNow, ""},
        {[](auto& p) {
             p.acceptedIssuers = {"urn:x", "urn:y"};
         },
         kNow, "Token issuer 'https://sts' is not among the accepted issuers 'urn:x', 'urn:y'"},
        {[](auto& p) {
             p.expectedAudiences = {"urn:b", kAudience};
         },
         kNow, ""},
        {[](auto& p) {
             p.expectedAudiences = {"urn:b", "urn:c"};
         },
         kNow,
         "Token audience 'https://api.example.test' is not among the expected audiences 'urn:b', "
         "'urn:c'"},
        {[](auto& p) { p.confirmation = RequiredConfirmation::Bearer; }, kNow, ""},
        {[](auto& p) { p.confirmation = RequiredConfirmation::HolderOfKey; }, kNow,
         "Token confirmation type 'bearer' is not the required confirmation type "
         "'holder-of-key'"},
        {[](auto& p) { p.maxClockToleranceSec = 60; }, kNow + 3659, ""},
        {[](auto& p) { p.maxClockToleranceSec = 60; }, kNow + 3660,
         "Token expiration time '" + expiry +
             "' is beyond the maximum clock tolerance of 60 s from the current time "
             "'2023-11-14T23:16:00.000000Z'"},
        {[](auto& p) { p.maxClockToleranceSec = 60; }, kNow - 61,
         "Token start time '" + start +
             "' is beyond the maximum clock tolerance of 60 s from the current time "
             "'2023-11-14T22:13:59.000000Z'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rejection.empty() ? std::to_string(c.now) : c.rejection);
        TokenPolicy policy;
        c.rule(policy);
        policy.clock.reset(&clock, [](const Basalt::System::Clock*) {});
        clock.micros = c.now * kSecond;
        Basalt::Ref<TokenValidator> validator;
        CreatePolicyTokenValidator(jwtValidator, policy, validator);
        const auto factory =
            CreatePolicyTokenFactory(std::make_shared<ClockedFactory>(clock), policy);
        const std::vector<std::function<void()>> paths = {[&] { factory->CreateSamlToken(saml); },
                                                          [&] { validator->Validate(jwt, ""); }};
        for (const auto& path : paths) {
            if (c.rejection.empty()) {
                EXPECT_NO_THROW(path());
            } else {
                EXPECT_TRUE(Throws<InvalidTokenException>(path, c.rejection));
            }
        }
    }
}

// Version, ID, validity window with clock tolerance, subject validity and delegation rules, checked
// against a fixed present so that every boundary is exact.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>

#include <climits>

#include "internal/saml/SamlTokenImpl.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

const FixedClock kNow("2030-01-01T00:00:00Z");

std::string At(int64_t offsetSec) {
    const int64_t micros = kNow.Now().GetUtcTime() + offsetSec * 1000000;
    return Basalt::System::DateTimeFromUtc(static_cast<long>(micros), false).ToString();
}

// Builds and verifies a token at kNow; an empty message means it is accepted.
void Expect(const std::string& xml, long tolerance, const std::string& message) {
    const auto build = [&] { SamlTokenImpl(xml, true, StsResolver().Get(), tolerance, kNow); };
    if (message.empty()) {
        EXPECT_NO_THROW(build()) << tolerance;
    } else {
        EXPECT_TRUE(Throws<ParseException>(build, message)) << tolerance;
    }
}

AssertionSpec AtNow() {
    AssertionSpec spec;
    spec.clock = &kNow;
    return spec;
}

TEST(SamlValidationTest, ValidityWindowWidenedByTheToleranceOnBothSides) {
    const std::string future = "Token start date is in the future: ";
    const std::string expired = "The token has expired at: ";
    struct Window {
        int64_t notBefore, notOnOrAfter;
        long tolerance;
        std::string message;
    };
    const Window windows[] = {
        {100, 100, LONG_MAX,
         "Unsatisfiable token validity conditions: NotBefore must be less than NotOnOrAfter."},
        {599, 3600, 600, ""},
        {600, 3600, 600, ""},
        {601, 3600, 600, future + At(601)},
        {-5, 3600, -10, future + At(-5)},  // a negative tolerance narrows the window
        {-3600, -599, 600, ""},
        {-3600, -600, 600, expired + At(-600)},
        {-3600, -1800, LONG_MAX, ""},             // saturates instead of overflowing
        {-60, 3600, LONG_MIN, future + At(-60)},  // saturates the other way
    };
    for (const auto& w : windows) {
        AssertionSpec spec = AtNow();
        spec.notBeforeOffsetSec = w.notBefore;
        spec.notOnOrAfterOffsetSec = w.notOnOrAfter;
        Expect(MakeSignedAssertion(spec), w.tolerance, w.message);
    }
}

TEST(SamlValidationTest, VersionIdSubjectValidityAndDelegation) {
    const std::string mismatch =
        "The SubjectConfirmation delegate id does not match the id of the last delegate";
    const SamlDelegate bob{"bob@example.test"}, carol{"carol@example.test"};
    const std::pair<std::function<void(AssertionSpec&)>, std::string> rules[] = {
        {[](AssertionSpec&) {}, ""},
        {[](AssertionSpec& s) { s.version = "2.00"; }, "Invalid token version"},
        {[](AssertionSpec& s) { s.version = " 2.0"; }, "Invalid token version"},
        {[](AssertionSpec& s) { s.id = "abc"; }, "Invalid token ID"},
        {[](AssertionSpec& s) { s.confirmationNotOnOrAfterOffsetSec = 3599; },
         "Invalid token subject validity"},
        {[](AssertionSpec& s) { s.confirmationNotOnOrAfterOffsetSec = 3601; }, ""},
        {[](AssertionSpec& s) { s.holderOfKey = true, s.confirmationNotOnOrAfterOffsetSec = 3599; },
         ""},
        {[&](AssertionSpec& s) {
             s.delegates = {bob, carol};
         },
         ""},
        {[&](AssertionSpec& s) { s.delegates = {bob}, s.omitDelegateId = true; },
         "Token has delegation restriction, but no delegate id is present in the "
         "SubjectConfirmation"},
        {[&](AssertionSpec& s) { s.delegateId = bob.upn; },
         "Token SubjectConfirmation contains delegate id, but no delegation restriction is "
         "present"},
        {[&](AssertionSpec& s) {
             s.delegates = {bob, carol}, s.delegateId = bob.upn;
         },
         mismatch},
        {[&](AssertionSpec& s) { s.delegates = {bob}, s.delegateId = "Bob@example.test"; },
         mismatch},
    };
    for (const auto& [change, message] : rules) {
        AssertionSpec spec = AtNow();
        change(spec);
        Expect(MakeSignedAssertion(spec), 600, message);
    }

    // The same delegate id in another Format does not match either.
    AssertionSpec delegated = AtNow();
    delegated.delegates = {bob};
    Expect(ReplaceOnce(MakeSignedAssertion(delegated), "UPN\">bob@", "emailAddress\">bob@"), 600,
           mismatch);
    // An empty ID, signed over the whole document.
    AssertionSpec placeholder = AtNow();
    placeholder.id = "_placeholder";
    const std::string noId =
        ReplaceOnce(BuildAssertionXml(placeholder), "ID=\"_placeholder\"", "ID=\"\"");
    Expect(SignAssertion(noId, std::string()), 600, "Invalid token ID");
}

}  // namespace

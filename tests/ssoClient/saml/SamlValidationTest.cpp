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
    return Basalt::System::DateTimeFromUtc(kNow.Now().GetUtcTime() + offsetSec * 1000000, false)
        .ToString();
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

TEST(SamlValidationTest, ValidityWindowWidenedByTheToleranceOnBothSides) {
    const std::string future = "Token start date is in the future: ";
    const std::string expired = "The token has expired at: ";
    const std::tuple<int64_t, int64_t, long, std::string> windows[] = {
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
    for (const auto& [notBefore, notOnOrAfter, tolerance, message] : windows) {
        AssertionSpec spec;
        spec.clock = &kNow;
        spec.notBeforeOffsetSec = notBefore;
        spec.notOnOrAfterOffsetSec = notOnOrAfter;
        Expect(MakeSignedAssertion(spec), tolerance, message);
    }
}

TEST(SamlValidationTest, VersionIdSubjectValidityAndDelegation) {
    const std::string mismatch =
        "The SubjectConfirmation delegate id does not match the id of the last delegate";
    const std::string bob =
        "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">"
        "bob@example.test</saml2:NameID>";
    const std::string data = "Data NotOnOrAfter=\"", hok = "KeyInfoConfirmationDataType\"";
    using Edits = std::vector<std::pair<std::string, std::string>>;
    // Version, holder-of-key, delegates, edits of the text (the SubjectConfirmation comes first).
    const std::tuple<std::string, bool, std::vector<SamlDelegate>, Edits, std::string> rules[] = {
        {"2.0", false, {}, {}, ""},
        {"2.00", false, {}, {}, "Invalid token version"},
        {" 2.0", false, {}, {}, "Invalid token version"},
        {"2.0", false, {}, {{"ID=\"_", "ID=\"a"}}, "Invalid token ID"},
        {"2.0", false, {}, {{data + At(3600), data + At(3599)}}, "Invalid token subject validity"},
        {"2.0", false, {}, {{data + At(3600), data + At(3601)}}, ""},
        {"2.0", true, {}, {{hok, hok + " NotOnOrAfter=\"" + At(3599) + "\""}}, ""},
        {"2.0", false, {{"bob@example.test"}, {"carol@example.test"}}, {}, ""},
        {"2.0",
         false,
         {{"bob@example.test"}},
         {{bob, ""}},
         "Token has delegation restriction, but no delegate id is present in the "
         "SubjectConfirmation"},
        {"2.0",
         false,
         {},
         {{"<saml2:SubjectConfirmationData", bob + "<saml2:SubjectConfirmationData"}},
         "Token SubjectConfirmation contains delegate id, but no delegation restriction is "
         "present"},
        {"2.0",
         false,
         {{"bob@example.test"}, {"carol@example.test"}},
         {{">carol@", ">bob@"}},
         mismatch},
        {"2.0", false, {{"bob@example.test"}}, {{">bob@", ">Bob@"}}, mismatch},
        // The same delegate id in another Format does not match either.
        {"2.0", false, {{"bob@example.test"}}, {{"UPN\">bob@", "emailAddress\">bob@"}}, mismatch},
    };
    for (const auto& [version, holderOfKey, delegates, edits, message] : rules) {
        AssertionSpec spec;
        spec.clock = &kNow;
        spec.version = version;
        spec.holderOfKey = holderOfKey;
        spec.delegates = delegates;
        spec.edits = edits;
        Expect(MakeSignedAssertion(spec), 600, message);
    }
    // An empty ID, signed over the whole document.
    AssertionSpec noId;
    noId.clock = &kNow;
    noId.id = "_placeholder";
    noId.edits = {{"ID=\"_placeholder\"", "ID=\"\""}};
    Expect(SignAssertion(BuildAssertionXml(noId), std::string()), 600, "Invalid token ID");
}

}  // namespace

// Version, ID, validity window with clock tolerance, subject validity and delegation rules.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <climits>

#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

struct ValidityCase {
    const char* what;
    AssertionSpec spec;
    long tolerance;
    std::string message;  // empty: accepted
    bool prefixOnly = false;
};

AssertionSpec With(void (*change)(AssertionSpec&)) {
    AssertionSpec spec;
    change(spec);
    return spec;
}

TEST(SamlValidationTest, VersionIdTimesAndSubjectValidity) {
    const ValidityCase cases[] = {
        {"valid", {}, 600, ""},
        {"version 2.00", With([](AssertionSpec& s) { s.version = "2.00"; }), 600,
         "Invalid token version"},
        {"version with a blank", With([](AssertionSpec& s) { s.version = " 2.0"; }), 600,
         "Invalid token version"},
        {"ID starting with a letter", With([](AssertionSpec& s) { s.id = "abc"; }), 600,
         "Invalid token ID"},
        {"ID starting with a digit", With([](AssertionSpec& s) { s.id = "1abc"; }), 600,
         "Invalid token ID"},
        {"ID with an underscore", With([](AssertionSpec& s) { s.id = "_abc"; }), 600, ""},
        {"empty window, large tolerance", With([](AssertionSpec& s) {
             s.notBeforeOffsetSec = 100;
             s.notOnOrAfterOffsetSec = 100;
         }),
         1000000,
         "Unsatisfiable token validity conditions: NotBefore must be less than NotOnOrAfter."},
        {"starts 599 s ahead", With([](AssertionSpec& s) { s.notBeforeOffsetSec = 599; }), 600, ""},
        {"starts 601 s ahead", With([](AssertionSpec& s) { s.notBeforeOffsetSec = 601; }), 600,
         "Token start date is in the future: ", true},
        {"starts 1 s ahead, no tolerance", With([](AssertionSpec& s) { s.notBeforeOffsetSec = 1; }),
         0, "Token start date is in the future: ", true},
        {"expired 599 s ago", With([](AssertionSpec& s) {
             s.notBeforeOffsetSec = -3600;
             s.notOnOrAfterOffsetSec = -599;
         }),
         600, ""},
        {"expired exactly 600 s ago", With([](AssertionSpec& s) {
             s.notBeforeOffsetSec = -3600;
             s.notOnOrAfterOffsetSec = -600;
         }),
         600, "The token has expired at: ", true},
        {"expired long ago, huge tolerance saturates", With([](AssertionSpec& s) {
             s.notBeforeOffsetSec = -3600;
             s.notOnOrAfterOffsetSec = -1800;
         }),
         LONG_MAX, ""},
        {"negative tolerance narrows the window",
         With([](AssertionSpec& s) { s.notBeforeOffsetSec = -5; }), -10,
         "Token start date is in the future: ", true},
        {"bearer confirmation ends 1 s early",
         With([](AssertionSpec& s) { s.confirmationNotOnOrAfterOffsetSec = 3599; }), 600,
         "Invalid token subject validity"},
        {"bearer confirmation ends with the token",
         With([](AssertionSpec& s) { s.confirmationNotOnOrAfterOffsetSec = 3600; }), 600, ""},
        {"holder-of-key confirmation ends early", With([](AssertionSpec& s) {
             s.holderOfKey = true;
             s.confirmationNotOnOrAfterOffsetSec = 3599;
         }),
         600, ""},
    };
    for (const auto& c : cases) {
        const std::string xml = MakeSignedAssertion(c.spec);
        if (c.message.empty()) {
            EXPECT_NO_THROW(CreateSamlToken(xml, StsResolver().Get(), c.tolerance)) << c.what;
        } else {
            EXPECT_TRUE(Throws<ParseException>(
                [&] { CreateSamlToken(xml, StsResolver().Get(), c.tolerance); }, c.message,
                c.prefixOnly))
                << c.what;
        }
    }
}

TEST(SamlValidationTest, TimeMessagesShowTheInstant) {
    AssertionSpec spec;
    spec.notBeforeOffsetSec = 7200;
    spec.notOnOrAfterOffsetSec = 9000;
    const auto future = MakeSignedAssertion(spec);
    try {
        CreateSamlToken(future);
        FAIL();
    } catch (const ParseException& e) {
        const std::string what = e.what();
        const std::string prefix = "Token start date is in the future: ";
        ASSERT_EQ(what.rfind(prefix, 0), 0u) << what;
        // The instant in its full form, e.g. 2024-01-05T03:04:05.006000Z.
        const Basalt::System::DateTime shown(what.substr(prefix.size()));
        EXPECT_NEAR(shown.GetUtcTime() - Basalt::System::GetUtcDateTime().GetUtcTime(),
                    7200 * 1000000LL, 5 * 1000000LL);
    }
}

TEST(SamlValidationTest, EmptyIdIsRefused) {
    AssertionSpec spec;
    spec.id = "_placeholder";
    const std::string xml = SignAssertion(
        ReplaceOnce(BuildAssertionXml(spec), "ID=\"_placeholder\"", "ID=\"\""), std::string());
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml, StsResolver().Get()); },
                                       "Invalid token ID"));
}

TEST(SamlValidationTest, DelegationChainMustEndWithTheDelegateId) {
    const std::vector<SamlDelegate> chain = {{"bob@example.test", -600},
                                             {"carol@example.test", -300}};
    struct Case {
        const char* what;
        AssertionSpec spec;
        std::string message;
    };
    const Case cases[] = {
        {"chain ending with the delegate id", With([](AssertionSpec& s) {
             s.delegates = {{"bob@example.test", -600}, {"carol@example.test", -300}};
         }),
         ""},
        {"restriction without delegate id", With([](AssertionSpec& s) {
             s.delegates = {{"bob@example.test", -600}};
             s.omitDelegateId = true;
         }),
         "Token has delegation restriction, but no delegate id is present in the "
         "SubjectConfirmation"},
        {"delegate id without restriction",
         With([](AssertionSpec& s) { s.delegateId = "bob@example.test"; }),
         "Token SubjectConfirmation contains delegate id, but no delegation restriction is "
         "present"},
        {"delegate id naming the first delegate", With([](AssertionSpec& s) {
             s.delegates = {{"bob@example.test", -600}, {"carol@example.test", -300}};
             s.delegateId = "bob@example.test";
         }),
         "The SubjectConfirmation delegate id does not match the id of the last delegate"},
        {"delegate id differing in case", With([](AssertionSpec& s) {
             s.delegates = {{"bob@example.test", -600}};
             s.delegateId = "Bob@example.test";
         }),
         "The SubjectConfirmation delegate id does not match the id of the last delegate"},
    };
    for (const auto& c : cases) {
        const std::string xml = MakeSignedAssertion(c.spec);
        if (c.message.empty()) {
            EXPECT_NO_THROW(CreateSamlToken(xml, StsResolver().Get())) << c.what;
        } else {
            EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml, StsResolver().Get()); },
                                               c.message))
                << c.what;
        }
    }

    // Same value, other Format: the delegate id is the first UPN NameID naming bob after the
    // subject.
    AssertionSpec spec;
    spec.delegates = {{"bob@example.test", -600}};
    const std::string xml = ReplaceOnce(
        MakeSignedAssertion(spec),
        "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">bob@example.test",
        "<saml2:NameID Format=\"urn:oasis:names:tc:SAML:1.1:nameid-format:emailAddress\">"
        "bob@example.test");
    EXPECT_TRUE(Throws<ParseException>(
        [&] { CreateSamlToken(xml); },
        "The SubjectConfirmation delegate id does not match the id of the last delegate"));
}

}  // namespace

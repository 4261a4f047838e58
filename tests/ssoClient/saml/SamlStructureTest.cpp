// The assertion walk is strict: each case changes one thing in a signed token and expects the walk
// to refuse it with its exact message. Tokens are created without verification, so the failures
// come from the walk itself, not from the broken signature. Then the validity rules.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <climits>

#include "internal/saml/SamlNames.h"
#include "internal/saml/SamlTokenImpl.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using S = std::string;

const S kNameId = "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">";
const S kAudience =
    "<saml2:AudienceRestriction><saml2:Audience>urn:audience:a</saml2:Audience>"
    "</saml2:AudienceRestriction>";
const S kProxy = "<saml2:ProxyRestriction ";
// A second renew restriction and a second (empty) delegation restriction.
const S kRenew = "<saml2:Condition xmlns:r=\"" + S(Xmlns::kSamlAdviceExtension) +
                 "\" xsi:type=\"r:RenewRestrictionType\"/>";
const S kDelegation = "<saml2:Condition xmlns:d=\"" + S(Xmlns::kSamlDelegation) +
                      "\" xsi:type=\"d:DelegationRestrictionType\"/>";
const S kXsiType = "xsi:type=\"saml2:KeyInfoConfirmationDataType\"";

S Signed(bool holderOfKey) {
    AssertionSpec spec;
    spec.id = "_structure-test";
    spec.holderOfKey = holderOfKey;
    if (!holderOfKey) {
        spec.delegates = {{"bob@example.test", -300}};
        spec.audiences = {"urn:audience:a"};
        spec.proxyCount = "2";
        spec.renewCount = "1";
        spec.advice = {{"urn:advice:source", {{"colour", {"blue"}}}}};
        spec.attributes = {{Saml::kGivenNameAttribute, {"Alice"}}};
    }
    return MakeSignedAssertion(spec);
}

// Replaces the last occurrence, so that the subject's KeyInfo is meant rather than the signature's;
// a replacement starting with "+" goes after what it names, one ending with "+" before it.
S Mutate(S xml, const S& from, const S& to) {
    const size_t at = xml.rfind(from);
    const bool after = to.rfind('+', 0) == 0, before = !after && !to.empty() && to.back() == '+';
    const S with = after ? from + to.substr(1) : before ? to.substr(0, to.size() - 1) + from : to;
    return at == S::npos ? throw std::logic_error("no " + from)
                         : xml.replace(at, from.size(), with);
}

// The walk's messages, by kind.
const auto Attrs = [](const S& e) { return "Unexpected attributes on element '" + e + "'"; };
const auto Attr = [](const S& a, const S& e) {
    return "Unexpected attribute '" + a + "' on element '" + e + "'";
};
const auto Ns = [](const S& e) { return "Element '" + e + "' has unexpected namespace"; };
const auto Missing = [](const S& e, const S& a) {
    return "Node '" + e + " is missing required attribute '" + a + "'";
};
const auto TextOnly = [](const S& e) {
    return "Element '" + e +
           "' must only have textual content (but has extra children or is empty).";
};
const auto Restriction = [](const S& e) {
    return "Unknown or duplicate restriction node under Conditions" + e;
};
const auto After = [](const S& e) { return "Unexpected elements after " + e; };
const auto Expected = [](const S& e) { return "Expected element '" + e + "' not found."; };
const auto NotCount = [](const S& e) { return e + "/@Count is not a non-negative integer."; };
const auto Empty = [](const S& e) { return "Element '" + e + "' must be empty"; };
const auto NotDate = [](const S& a) { return a + " is not a date"; };
const auto BadType = [](const S& t) { return "Invalid SubjectConfirmationData type: '" + t + "'"; };

TEST(SamlStructureTest, RefusesEveryStructuralDeviationWithItsMessageAndIgnoresTheHarmless) {
    const S r = Signed(false), h = Signed(true), stray = "+<saml2:X/>",
            data = "SubjectConfirmationData";
    // The audience restriction first.
    const S moved = Mutate(Mutate(r, kAudience, ""), "<saml2:Condition ", kAudience + "+");
    const S xs = "xs:KeyInfoConfirmationDataType", plain = "saml2:SubjectConfirmationDataType";
    // Token, fragment, replacement, message (empty: accepted).
    const std::tuple<const S&, S, S, S> cases[] = {
        {r, "</saml2:Issuer>", "+\n  <!-- signed below -->\n  ", ""},
        {r, "<saml2:Subject>", "+\n\t<!--x-->\r\n", ""},
        {r, "Version=\"2.0\"", "+ xmlns=\"urn:default\" xmlns:e=\"urn:e\"", ""},
        {r, ">Alice</", ">Alice<!-- given name --></", ""},  // one text node remains
        {r, "NameFormat=", "FriendlyName=\"f\" NameFormat=", ""},
        {r, "Count=\"2\"", "Count=\"+02\"", ""},
        {moved, kAudience, kAudience, ""},
        {h, kXsiType,
         "xmlns:a=\"" + S(Xmlns::kSamlAssertion) + "\" xsi:type=\"a:KeyInfoConfirmationDataType\"",
         ""},
        {r, "Version=\"2.0\"", "+ Extra=\"x\"", Attrs("Assertion")},
        {r, "ID=\"_structure-test\"", "", Missing("Assertion", "ID")},
        {r, "IssueInstant=\"", "+x", NotDate("Assertion/@IssueInstant")},
        {r, "<saml2:Issuer ", "<saml2:Subject/>+", Expected("Issuer")},
        {r, "<saml2:Issuer ", "+xmlns:saml2=\"urn:evil\" ", Ns("Issuer")},
        {r, "</saml2:Issuer>", "+text", "Expected element ds:Signature not found"},
        {r, kNameId + "alice@", kNameId + "alice<!---->@", TextOnly("NameID")},
        {r, kNameId + "alice@", kNameId + "<x/>alice@", TextOnly("NameID")},
        {r, kNameId, "<saml2:NameID SPProvidedID=\"x\">", Attrs("NameID")},
        {r, "UPN\">alice", "emailAddress\">alice",
         "Invalid or unsupported NameId format 'http://schemas.xmlsoap.org/claims/emailAddress'"},
        {r, "Method=\"", "Way=\"", Missing("SubjectConfirmation", "Method")},
        {r, "cm:bearer", "cm:sender-vouches",
         "Unknown subject confirmation method: 'urn:oasis:names:tc:SAML:2.0:cm:sender-vouches'"},
        {r, "Data NotOnOrAfter", "Data Recipient=\"r\" NotOnOrAfter", Attrs(data)},
        {r, "Data NotOnOrAfter=", "Data NotOnOrAfterX=", Attrs(data)},
        {r, "Data NotOnOrAfter=", "Data/><saml2:X NotOnOrAfter=", NotDate(data + "/@NotOnOrAfter")},
        {r, "\"/></saml2:SubjectConfirmation>",
         "\"><saml2:X/></saml2:SubjectConfirmationData></saml2:SubjectConfirmation>", Empty(data)},
        {r, "</saml2:SubjectConfirmation>", stray, After("SubjectConfirmation")},
        {r, "<saml2:Subject>", "<saml2:Subject Id=\"s\">", Attrs("Subject")},
        {r, "NotBefore=\"", "+x", NotDate("Conditions/@NotBefore")},
        {r, "</saml2:Subject>", "+x", Expected("Conditions")},
        {r, kAudience, kAudience + kAudience, Restriction(": AudienceRestriction")},
        {r, kProxy, "<saml2:ProxyRestriction/>+", Restriction(": ProxyRestriction")},
        {r, kProxy, kRenew + "+", Restriction(": Condition")},
        {r, kProxy, kDelegation + "+", Restriction(": Condition")},
        {r, "</saml2:Conditions>", "<saml2:OneTimeUse/>+", Restriction(": OneTimeUse")},
        {r, "</saml2:Conditions>", "x+", Restriction("")},
        {r, "Count=\"2\"", "Count=\"-1\"", NotCount("ProxyRestriction")},
        {r, "Count=\"2\"", "Count=\"x\"", NotCount("ProxyRestriction")},
        {r, "Count=\"2\"", "Count=\"2\" Extra=\"1\"", Attrs("ProxyRestriction")},
        {r, "Count=\"2\"/>", "Count=\"2\"><saml2:X/></saml2:ProxyRestriction>",
         Empty("ProxyRestriction")},
        {r, "Count=\"1\"", "Count=\"99999999999999999999\"", NotCount("Condition")},
        {r, "RenewExpired=\"false\"", "+ Extra=\"1\"", Attr("Extra", "Condition")},
        {r, "\"del:DelegationRestrictionType\"", "+ xsi:nil=\"true\"",
         Attr("xsi:nil", "Condition")},
        {r, "<del:Delegate DelegationInstant=", "<del:Delegate When=", Attrs("Delegate")},
        {r, "<del:Delegate ", "+xmlns:del=\"" + S(Xmlns::kSamlAssertion) + "\" ", Ns("Delegate")},
        {r, "</del:Delegate>", "<saml2:X/>+", After("Delegate/NameID")},
        {r, "<rsa:RSAAdvice xmlns:rsa=\"", "+urn:x\" xmlns:old=\"", Ns("RSAAdvice")},
        {r, "AdviceSource=", "Source=", Missing("RSAAdvice", "AdviceSource")},
        {r, "<saml2:Advice>", "<saml2:Advice Id=\"a\">", Attrs("Advice")},
        {r, "<saml2:AuthnContext>", "<saml2:AuthnContext Id=\"c\">", Attrs("AuthnContext")},
        {r, ">Alice</", "></", TextOnly("AttributeValue")},
        {r, ">Alice</", "><x/></", TextOnly("AttributeValue")},
        {r, ">Alice</", "> \n\t</", TextOnly("AttributeValue")},
        {r, "</saml2:AuthnContextClassRef>", stray, After("AuthnContextClassRef")},
        {r, "</saml2:AuthnContext>", stray, After("AuthnContext")},
        {r, "<saml2:AuthnStatement ", "+SessionIndex=\"1\" ", Attrs("AuthnStatement")},
        {r, "<saml2:AuthnStatement ", "<saml2:AttributeStatement/>+", Expected("AuthnStatement")},
        {r, "</saml2:Assertion>", "<saml2:AttributeStatement/>+",
         "Unexpected elements under Assertion"},
        {r, "SAML:2.0:assertion\"", "SAML:1.0:assertion\"", Ns("Assertion")},
        {h, kXsiType, "xsi:type=\"" + xs + "\"", BadType(xs)},
        {h, kXsiType, "xsi:type=\"" + plain + "\"", BadType(plain)},
        {h, kXsiType, "", Missing(data, "xsi:type")},
        {h, kXsiType, kXsiType.substr(4), Missing(data, "xsi:type")},
        {h, kXsiType, "+ Address=\"a\"", Attr("Address", data)},
        {h, kXsiType, "+ NotOnOrAfter=\"2000-01-01T00:00:00Z\"", ""},
        {r, "del:DelegationRestrictionType\"", "+ Count=\"1\"", Attr("Count", "Condition")},
        // A restriction's name in another namespace is no restriction.
        {r, kProxy, "<x:ProxyRestriction xmlns:x=\"urn:x\" ", Restriction(": ProxyRestriction")},
        {h, "</ds:X509Certificate>", "+<ds:X/>", After("X509Certificate")},
        {h, "</ds:X509Data>", "+<ds:X/>", After("X509Data")},
        {h, "</ds:KeyInfo>", stray, After(data + "/KeyInfo")},
        {h, "<ds:KeyInfo ", "+Id=\"k\" ", Attrs("KeyInfo")},
        {h, "<ds:X509Data>", "<ds:X509Data Id=\"d\">", Attrs("X509Data")},
        {h, "<ds:X509Certificate>", "<ds:X509Certificate Id=\"c\">", Attrs("X509Certificate")},
        {h, "</saml2:SubjectConfirmationData>", stray, After(data)},
    };
    for (const auto& [token, from, to, message] : cases) {
        const S xml = Mutate(token, from, to);
        if (message.empty()) {
            EXPECT_NO_THROW(CreateSamlToken(xml)) << to;
        } else {
            EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml); }, message)) << to;
        }
    }
    const S unbound = Mutate(r, "\"del:Delegation", "\"nope:Delegation");
    EXPECT_TRUE(
        Throws<ParseException>([&] { CreateSamlToken(unbound); }, "Element Conditionat ", true));
    // A holder-of-key certificate that is not Base64 is the foundation's error.
    EXPECT_THROW(CreateSamlToken(Mutate(h, "<ds:X509Certificate>M", "<ds:X509Certificate>*")),
                 Basalt::Base64FormatException);
}

// Version, ID, validity window with clock tolerance, subject validity and delegation rules, checked
// against a fixed present so that every boundary is exact.
const ManualClock kNow("2030-01-01T00:00:00Z");

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
    const S mismatch =
        "The SubjectConfirmation delegate id does not match the id of the last delegate";
    const S noDelegateId =
        "Token has delegation restriction, but no delegate id is present in the "
        "SubjectConfirmation";
    const S noDelegation =
        "Token SubjectConfirmation contains delegate id, but no delegation restriction is present";
    const S bob = kNameId + "bob@example.test</saml2:NameID>", data = "Data NotOnOrAfter=\"";
    const S hok = "KeyInfoConfirmationDataType\"", version = "Version=\"2.0\"";
    const std::vector<SamlDelegate> one = {{"bob@example.test"}},
                                    two = {{"bob@example.test"}, {"carol@example.test"}};
    // Edits of the text (the SubjectConfirmation's NameID comes first), the message; delegates,
    // holder-of-key.
    const std::tuple<std::vector<std::pair<S, S>>, S, std::vector<SamlDelegate>, bool> rules[] = {
        {{}, "", {}, false},
        {{{version, "Version=\"2.00\""}}, "Invalid token version", {}, false},
        {{{version, "Version=\" 2.0\""}}, "Invalid token version", {}, false},
        {{{"ID=\"_", "ID=\"a"}}, "Invalid token ID", {}, false},
        {{{data + At(3600), data + At(3599)}}, "Invalid token subject validity", {}, false},
        {{{data + At(3600), data + At(3601)}}, "", {}, false},
        {{{hok, hok + " NotOnOrAfter=\"" + At(3599) + "\""}}, "", {}, true},
        {{}, "", two, false},
        {{},
         "Failed to parse the UPN NameID: `bob'; name or domain part is missing.",
         {{"bob"}},
         false},
        {{{bob, ""}}, noDelegateId, one, false},
        {{{"<saml2:SubjectConfirmationData", bob + "<saml2:SubjectConfirmationData"}},
         noDelegation,
         {},
         false},
        {{{">carol@", ">bob@"}}, mismatch, two, false},
        {{{">bob@", ">Bob@"}}, mismatch, one, false},
        // The same delegate id in another Format does not match either.
        {{{"UPN\">bob@", "emailAddress\">bob@"}}, mismatch, one, false},
    };
    for (const auto& [edits, message, delegates, holderOfKey] : rules) {
        AssertionSpec spec;
        spec.clock = &kNow;
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

// The assertion walk is strict: each case changes one thing in a signed token and expects the walk
// to refuse it with its exact message. Tokens are created without verification, so the failures
// come from the walk itself, not from the broken signature.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include "internal/saml/SamlNames.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

const std::string kNameId = "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">";
const std::string kAudience =
    "<saml2:AudienceRestriction><saml2:Audience>urn:audience:a</saml2:Audience>"
    "</saml2:AudienceRestriction>";
// A second renew restriction and a second (empty) delegation restriction.
const std::string kRenew = "<saml2:Condition xmlns:r=\"" +
                           std::string(Xmlns::kSamlAdviceExtension) +
                           "\" xsi:type=\"r:RenewRestrictionType\"/>";
const std::string kDelegation = "<saml2:Condition xmlns:d=\"" +
                                std::string(Xmlns::kSamlDelegation) +
                                "\" xsi:type=\"d:DelegationRestrictionType\"/>";
const std::string kXsiType = "xsi:type=\"saml2:KeyInfoConfirmationDataType\"";

const std::string& Rich() {
    static const std::string xml = [] {
        AssertionSpec spec;
        spec.id = "_structure-test";
        spec.delegates = {{"bob@example.test", -300}};
        spec.audiences = {"urn:audience:a"};
        spec.proxyCount = "2";
        spec.renewCount = "1";
        spec.advice = {{"urn:advice:source", {{"colour", {"blue"}}}}};
        spec.attributes = {{Saml::kGivenNameAttribute, {"Alice"}}};
        return MakeSignedAssertion(spec);
    }();
    return xml;
}

const std::string& HolderOfKey() {
    static const std::string xml = [] {
        AssertionSpec spec;
        spec.holderOfKey = true;
        return MakeSignedAssertion(spec);
    }();
    return xml;
}

// Replaces the last occurrence, so that the subject's KeyInfo is meant rather than the signature's.
std::string Mutate(std::string xml, const std::string& from, const std::string& to) {
    const size_t at = xml.rfind(from);
    return at == std::string::npos ? throw std::logic_error("no " + from)
                                   : xml.replace(at, from.size(), to);
}

using S = std::string;

// The walk's messages, by kind.
class SamlStructureTest : public ::testing::Test {
  protected:
    static S Attrs(const S& e) { return "Unexpected attributes on element '" + e + "'"; }
    static S Attr(const S& a, const S& e) {
        return "Unexpected attribute '" + a + "' on element '" + e + "'";
    }
    static S Ns(const S& e) { return "Element '" + e + "' has unexpected namespace"; }
    static S Missing(const S& e, const S& a) {
        return "Node '" + e + " is missing required attribute '" + a + "'";
    }
    static S TextOnly(const S& e) {
        return "Element '" + e +
               "' must only have textual content (but has extra children or is empty).";
    }
    static S Restriction(const S& e) {
        return "Unknown or duplicate restriction node under Conditions" + e;
    }
    static S After(const S& e) { return "Unexpected elements after " + e; }
    static S Expected(const S& e) { return "Expected element '" + e + "' not found."; }
    static S NotCount(const S& e) { return e + "/@Count is not a non-negative integer."; }
};

struct Case {
    const std::string& token;
    std::string from, to, message;
    bool prefixOnly = false;
};

TEST_F(SamlStructureTest, RefusesEveryStructuralDeviationWithItsMessage) {
    const std::string &r = Rich(), &h = HolderOfKey();
    const std::string invalidType = "Invalid SubjectConfirmationData type: '";
    const Case cases[] = {
        {r, "Version=\"2.0\"", "Version=\"2.0\" Extra=\"x\"", Attrs("Assertion")},
        {r, "ID=\"_structure-test\"", "", Missing("Assertion", "ID")},
        {r, "IssueInstant=\"", "IssueInstant=\"x", "Assertion/@IssueInstant is not a date"},
        {r, "<saml2:Issuer ", "<saml2:Subject/><saml2:Issuer ", Expected("Issuer")},
        {r, "<saml2:Issuer ", "<saml2:Issuer xmlns:saml2=\"urn:evil\" ", Ns("Issuer")},
        {r, "</saml2:Issuer>", "</saml2:Issuer>text", "Expected element ds:Signature not found"},
        {r, kNameId + "alice@", kNameId + "alice<!---->@", TextOnly("NameID")},
        {r, kNameId + "alice@", kNameId + "<x/>alice@", TextOnly("NameID")},
        {r, kNameId, "<saml2:NameID SPProvidedID=\"x\">", Attrs("NameID")},
        {r, "Method=\"", "Way=\"", Missing("SubjectConfirmation", "Method")},
        {r, "cm:bearer", "cm:sender-vouches",
         "Unknown subject confirmation method: 'urn:oasis:names:tc:SAML:2.0:cm:sender-vouches'"},
        {r, "Data NotOnOrAfter", "Data Recipient=\"r\" NotOnOrAfter",
         Attrs("SubjectConfirmationData")},
        {r, "Data NotOnOrAfter=", "Data NotOnOrAfterX=", Attrs("SubjectConfirmationData")},
        {r, "<saml2:SubjectConfirmationData NotOnOrAfter=",
         "<saml2:SubjectConfirmationData/><saml2:X NotOnOrAfter=",
         "SubjectConfirmationData/@NotOnOrAfter is not a date"},
        {r, "\"/></saml2:SubjectConfirmation>",
         "\"><saml2:X/></saml2:SubjectConfirmationData></saml2:SubjectConfirmation>",
         "Element 'SubjectConfirmationData' must be empty"},
        {r, "</saml2:SubjectConfirmation>", "</saml2:SubjectConfirmation><saml2:X/>",
         After("SubjectConfirmation")},
        {r, "<saml2:Subject>", "<saml2:Subject Id=\"s\">", Attrs("Subject")},
        {r, "NotBefore=\"", "NotBefore=\"x", "Conditions/@NotBefore is not a date"},
        {r, "</saml2:Subject>", "</saml2:Subject>x", Expected("Conditions")},
        {r, kAudience, kAudience + kAudience, Restriction(": AudienceRestriction")},
        {r, "<saml2:ProxyRestriction ", "<saml2:ProxyRestriction/><saml2:ProxyRestriction ",
         Restriction(": ProxyRestriction")},
        {r, "<saml2:ProxyRestriction ", kRenew + "<saml2:ProxyRestriction ",
         Restriction(": Condition")},
        {r, "<saml2:ProxyRestriction ", kDelegation + "<saml2:ProxyRestriction ",
         Restriction(": Condition")},
        {r, "</saml2:Conditions>", "<saml2:OneTimeUse/></saml2:Conditions>",
         Restriction(": OneTimeUse")},
        {r, "</saml2:Conditions>", "x</saml2:Conditions>", Restriction("")},
        {r, "Count=\"2\"", "Count=\"-1\"", NotCount("ProxyRestriction")},
        {r, "Count=\"2\"", "Count=\"x\"", NotCount("ProxyRestriction")},
        {r, "Count=\"2\"/>", "Count=\"2\"><saml2:X/></saml2:ProxyRestriction>",
         "Element 'ProxyRestriction' must be empty"},
        {r, "Count=\"1\"", "Count=\"99999999999999999999\"", NotCount("Condition")},
        {r, "RenewExpired=\"false\"", "RenewExpired=\"false\" Extra=\"1\"",
         Attr("Extra", "Condition")},
        {r, "\"del:Delegation", "\"nope:Delegation", "Element Conditionat ", true},
        {r, "<del:Delegate DelegationInstant=", "<del:Delegate When=", Attrs("Delegate")},
        {r, "<del:Delegate ",
         "<del:Delegate xmlns:del=\"" + std::string(Xmlns::kSamlAssertion) + "\" ", Ns("Delegate")},
        {r, "</saml2:NameID></del:Delegate>", "</saml2:NameID><saml2:X/></del:Delegate>",
         After("Delegate/NameID")},
        {r, "<rsa:RSAAdvice xmlns:rsa=\"", "<rsa:RSAAdvice xmlns:rsa=\"urn:x\" xmlns:old=\"",
         Ns("RSAAdvice")},
        {r, "AdviceSource=", "Source=", Missing("RSAAdvice", "AdviceSource")},
        {r, "<saml2:Advice>", "<saml2:Advice Id=\"a\">", Attrs("Advice")},
        {r, "<saml2:AuthnContext>", "<saml2:AuthnContext Id=\"c\">", Attrs("AuthnContext")},
        {r, ">Alice</", "></", TextOnly("AttributeValue")},
        {r, ">Alice</", "><x/></", TextOnly("AttributeValue")},
        {r, ">Alice</", "> \n\t</", TextOnly("AttributeValue")},
        {r, "</saml2:AuthnContextClassRef>", "</saml2:AuthnContextClassRef><saml2:X/>",
         After("AuthnContextClassRef")},
        {r, "</saml2:AuthnContext>", "</saml2:AuthnContext><saml2:X/>", After("AuthnContext")},
        {r, "<saml2:AuthnStatement ", "<saml2:AuthnStatement SessionIndex=\"1\" ",
         Attrs("AuthnStatement")},
        {r, "<saml2:AuthnStatement ", "<saml2:AttributeStatement/><saml2:AuthnStatement ",
         Expected("AuthnStatement")},
        {r, "</saml2:Assertion>", "<saml2:AttributeStatement/></saml2:Assertion>",
         "Unexpected elements under Assertion"},
        {r, "SAML:2.0:assertion\"", "SAML:1.0:assertion\"", Ns("Assertion")},
        {h, kXsiType, "xsi:type=\"xs:KeyInfoConfirmationDataType\"",
         invalidType + "xs:KeyInfoConfirmationDataType'"},
        {h, kXsiType, "xsi:type=\"saml2:SubjectConfirmationDataType\"",
         invalidType + "saml2:SubjectConfirmationDataType'"},
        {h, kXsiType, "", Missing("SubjectConfirmationData", "xsi:type")},
        {h, kXsiType, "type=\"saml2:KeyInfoConfirmationDataType\"",
         Missing("SubjectConfirmationData", "xsi:type")},
        {h, kXsiType, kXsiType + " Address=\"a\"", Attr("Address", "SubjectConfirmationData")},
        {h, "</ds:X509Certificate>", "</ds:X509Certificate><ds:X/>", After("X509Certificate")},
        {h, "</ds:X509Data>", "</ds:X509Data><ds:X/>", After("X509Data")},
        {h, "</ds:KeyInfo>", "</ds:KeyInfo><saml2:X/>", After("SubjectConfirmationData/KeyInfo")},
        {h, "<ds:KeyInfo ", "<ds:KeyInfo Id=\"k\" ", Attrs("KeyInfo")},
        {h, "<ds:X509Data>", "<ds:X509Data Id=\"d\">", Attrs("X509Data")},
        {h, "<ds:X509Certificate>", "<ds:X509Certificate Id=\"c\">", Attrs("X509Certificate")},
        {h, "</saml2:SubjectConfirmationData>", "</saml2:SubjectConfirmationData><saml2:X/>",
         After("SubjectConfirmationData")},
    };
    for (const auto& c : cases) {
        const std::string xml = Mutate(c.token, c.from, c.to);
        EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml); }, c.message, c.prefixOnly))
            << c.from << " -> " << c.to;
    }
}

TEST_F(SamlStructureTest, IgnoresCommentsBlanksAndDeclarationsAndAcceptsAnyConditionOrder) {
    const std::string &r = Rich(), &h = HolderOfKey();
    const std::string accepted[] = {
        Mutate(r, "</saml2:Issuer>", "</saml2:Issuer>\n  <!-- signed below -->\n  "),
        Mutate(r, "<saml2:Subject>", "<saml2:Subject>\n\t<!--x-->\r\n"),
        Mutate(r, "Version=\"2.0\"", "Version=\"2.0\" xmlns=\"urn:default\" xmlns:e=\"urn:e\""),
        Mutate(r, ">Alice</", ">Alice<!-- given name --></"),  // one text node remains
        Mutate(r, "NameFormat=", "FriendlyName=\"f\" NameFormat="),
        Mutate(Mutate(r, kAudience, ""), "<saml2:Condition ", kAudience + "<saml2:Condition "),
        Mutate(h, kXsiType,
               "xmlns:a=\"" + std::string(Xmlns::kSamlAssertion) +
                   "\" xsi:type=\"a:KeyInfoConfirmationDataType\""),
    };
    for (const auto& xml : accepted) {
        EXPECT_NO_THROW(CreateSamlToken(xml)) << xml;
    }
    // A holder-of-key certificate that is not Base64 is the foundation's error.
    EXPECT_THROW(CreateSamlToken(Mutate(h, "<ds:X509Certificate>M", "<ds:X509Certificate>*")),
                 Basalt::Base64FormatException);
}

}  // namespace

// The assertion walk is strict: each case below changes one thing in a valid signed token and
// expects the walk to refuse it with its exact message. Tokens are created without verification,
// so these failures come from the walk itself, not from the broken signature.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include "internal/saml/SamlNames.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

const char kUpnNameId[] = "<saml2:NameID Format=\"http://schemas.xmlsoap.org/claims/UPN\">";

AssertionSpec RichSpec() {
    AssertionSpec spec;
    spec.id = "_structure-test";
    spec.delegates = {{"bob@example.test", -300}};
    spec.audiences = {"urn:audience:a"};
    spec.proxyCount = "2";
    spec.renewCount = "1";
    spec.advice = {{"urn:advice:source", {{"colour", {"blue"}}}}};
    spec.attributes = {{Saml::kGivenNameAttribute, {"Alice"}}};
    return spec;
}

const std::string& RichToken() {
    static const std::string xml = MakeSignedAssertion(RichSpec());
    return xml;
}

const std::string& HolderOfKeyToken() {
    static const std::string xml = [] {
        AssertionSpec spec;
        spec.id = "_hok-structure-test";
        spec.holderOfKey = true;
        return MakeSignedAssertion(spec);
    }();
    return xml;
}

// Removes the element that starts with startTag (through its end tag).
std::string RemoveElement(std::string xml, const std::string& startTag, const std::string& endTag) {
    const size_t begin = xml.find(startTag);
    const size_t end = xml.find(endTag, begin);
    if (begin == std::string::npos || end == std::string::npos) {
        throw std::logic_error("test mutation does not apply: " + startTag);
    }
    return xml.erase(begin, end + endTag.size() - begin);
}

struct MutationCase {
    const char* what;
    std::string from;
    std::string to;
    std::string message;
    bool prefixOnly = false;
};

// Applies each case to the text after anchor (so that the signature's own KeyInfo is left alone
// when the subject's is meant).
void RunMutations(const std::string& token, const std::vector<MutationCase>& cases,
                  const std::string& anchor = "") {
    ASSERT_NO_THROW(CreateSamlToken(token));
    const size_t split = anchor.empty() ? 0 : token.find(anchor);
    ASSERT_NE(split, std::string::npos);
    for (const auto& c : cases) {
        const std::string mutated =
            token.substr(0, split) + ReplaceOnce(token.substr(split), c.from, c.to);
        EXPECT_TRUE(
            Throws<ParseException>([&] { CreateSamlToken(mutated); }, c.message, c.prefixOnly))
            << c.what;
    }
}

TEST(SamlStructureTest, RefusesAttributesNamespacesAndTextWhereTheyDoNotBelong) {
    RunMutations(
        RichToken(),
        {
            {"extra attribute on Assertion", "Version=\"2.0\"", "Version=\"2.0\" Extra=\"x\"",
             "Unexpected attributes on element 'Assertion'"},
            {"missing ID", "ID=\"_structure-test\"", "",
             "Node 'Assertion is missing required attribute 'ID'"},
            {"bad IssueInstant", "IssueInstant=\"", "IssueInstant=\"yesterday",
             "Assertion/@IssueInstant is not a date"},
            {"Issuer in another namespace", "<saml2:Issuer ",
             "<saml2:Issuer xmlns:saml2=\"urn:evil\" ",
             "Element 'Issuer' has unexpected namespace"},
            {"text before the signature", "</saml2:Issuer>", "</saml2:Issuer>text",
             "Expected element ds:Signature not found"},
            {"comment splits the subject name (truncation attack)",
             std::string(kUpnNameId) + "alice@", std::string(kUpnNameId) + "alice<!---->@",
             "Element 'NameID' must only have textual content (but has extra children or is "
             "empty)."},
            {"element inside a name", std::string(kUpnNameId) + "alice@",
             std::string(kUpnNameId) + "<x/>alice@",
             "Element 'NameID' must only have textual content (but has extra children or is "
             "empty)."},
            {"unknown attribute on NameID", kUpnNameId,
             "<saml2:NameID SPProvidedID=\"x\" Format=\"http://schemas.xmlsoap.org/claims/UPN\">",
             "Unexpected attributes on element 'NameID'"},
            {"unknown confirmation method", "urn:oasis:names:tc:SAML:2.0:cm:bearer",
             "urn:oasis:names:tc:SAML:2.0:cm:sender-vouches",
             "Unknown subject confirmation method: "
             "'urn:oasis:names:tc:SAML:2.0:cm:sender-vouches'"},
            {"recipient on bearer confirmation data", "<saml2:SubjectConfirmationData NotOnOrAfter",
             "<saml2:SubjectConfirmationData Recipient=\"https://rp\" NotOnOrAfter",
             "Unexpected attributes on element 'SubjectConfirmationData'"},
            {"element after SubjectConfirmation", "</saml2:SubjectConfirmation>",
             "</saml2:SubjectConfirmation><saml2:SubjectConfirmation/>",
             "Unexpected elements after SubjectConfirmation"},
            {"attribute on Subject", "<saml2:Subject>", "<saml2:Subject Id=\"s\">",
             "Unexpected attributes on element 'Subject'"},
            {"bad NotBefore", "NotBefore=\"", "NotBefore=\"x",
             "Conditions/@NotBefore is not a date"},
            {"text between Subject and Conditions", "</saml2:Subject>", "</saml2:Subject>x",
             "Expected element 'Conditions' not found."},
            {"second AudienceRestriction", "</saml2:AudienceRestriction>",
             "</saml2:AudienceRestriction><saml2:AudienceRestriction><saml2:Audience>urn:x"
             "</saml2:Audience></saml2:AudienceRestriction>",
             "Unknown or duplicate restriction node under Conditions: AudienceRestriction"},
            {"second ProxyRestriction", "<saml2:ProxyRestriction ",
             "<saml2:ProxyRestriction/><saml2:ProxyRestriction ",
             "Unknown or duplicate restriction node under Conditions: ProxyRestriction"},
            {"unknown condition", "</saml2:Conditions>", "<saml2:OneTimeUse/></saml2:Conditions>",
             "Unknown or duplicate restriction node under Conditions: OneTimeUse"},
            {"text among conditions", "</saml2:Conditions>", "x</saml2:Conditions>",
             "Unknown or duplicate restriction node under Conditions"},
            {"negative proxy count", "<saml2:ProxyRestriction Count=\"2\"",
             "<saml2:ProxyRestriction Count=\"-1\"",
             "ProxyRestriction/@Count is not a non-negative integer."},
            {"non-numeric proxy count", "<saml2:ProxyRestriction Count=\"2\"",
             "<saml2:ProxyRestriction Count=\"x\"",
             "ProxyRestriction/@Count is not a non-negative integer."},
            {"proxy restriction with content", "<saml2:ProxyRestriction Count=\"2\"/>",
             "<saml2:ProxyRestriction Count=\"2\"><saml2:Audience>a</saml2:Audience>"
             "</saml2:ProxyRestriction>",
             "Element 'ProxyRestriction' must be empty"},
            {"renew count too big for 64 bits", "Count=\"1\"", "Count=\"99999999999999999999\"",
             "Condition/@Count is not a non-negative integer."},
            {"unknown attribute on renew restriction", "RenewExpired=\"false\"",
             "RenewExpired=\"false\" Extra=\"1\"",
             "Unexpected attribute 'Extra' on element 'Condition'"},
            {"unbound prefix in a condition type", "xsi:type=\"del:DelegationRestrictionType\"",
             "xsi:type=\"nope:DelegationRestrictionType\"", "Element Conditionat ", true},
            {"delegate without instant", "<del:Delegate DelegationInstant=\"",
             "<del:Delegate When=\"", "Unexpected attributes on element 'Delegate'"},
            {"delegate in the SAML namespace", "<del:Delegate ",
             "<del:Delegate xmlns:del=\"urn:oasis:names:tc:SAML:2.0:assertion\" ",
             "Element 'Delegate' has unexpected namespace"},
            {"advice in an unknown namespace", "<rsa:RSAAdvice xmlns:rsa=\"",
             "<rsa:RSAAdvice xmlns:rsa=\"urn:other\" xmlns:old=\"",
             "Element 'RSAAdvice' has unexpected namespace"},
            {"advice without source", "AdviceSource=", "Source=",
             "Node 'RSAAdvice is missing required attribute 'AdviceSource'"},
            {"empty attribute value", ">Alice</saml2:AttributeValue>", "></saml2:AttributeValue>",
             "Element 'AttributeValue' must only have textual content (but has extra children or "
             "is empty)."},
            {"blank attribute value", ">Alice</saml2:AttributeValue>",
             "> \n\t</saml2:AttributeValue>",
             "Element 'AttributeValue' must only have textual content (but has extra children or "
             "is empty)."},
            {"element after AuthnContextClassRef", "</saml2:AuthnContextClassRef>",
             "</saml2:AuthnContextClassRef><saml2:AuthenticatingAuthority>x"
             "</saml2:AuthenticatingAuthority>",
             "Unexpected elements after AuthnContextClassRef"},
            {"element after AuthnContext", "</saml2:AuthnContext>",
             "</saml2:AuthnContext><saml2:SubjectLocality/>",
             "Unexpected elements after AuthnContext"},
            {"session index on AuthnStatement", "<saml2:AuthnStatement ",
             "<saml2:AuthnStatement SessionIndex=\"1\" ",
             "Unexpected attributes on element 'AuthnStatement'"},
            {"statement after the attributes", "</saml2:Assertion>",
             "<saml2:AttributeStatement/></saml2:Assertion>",
             "Unexpected elements under Assertion"},
            {"SAML 1 namespace", "xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\"",
             "xmlns:saml2=\"urn:oasis:names:tc:SAML:1.0:assertion\"",
             "Element 'Assertion' has unexpected namespace"},
        });
}

TEST(SamlStructureTest, IgnoresCommentsBlanksAndNamespaceDeclarationsAndAcceptsAnyConditionOrder) {
    const std::string& token = RichToken();
    const std::string accepted[] = {
        ReplaceOnce(token, "</saml2:Issuer>", "</saml2:Issuer>\n  <!-- signed below -->\n  "),
        ReplaceOnce(token, "<saml2:Subject>", "<saml2:Subject>\n\t<!--x-->\r\n"),
        ReplaceOnce(token, "Version=\"2.0\"", "Version=\"2.0\" xmlns=\"urn:default\""),
        ReplaceOnce(token, "Version=\"2.0\"", "Version=\"2.0\" xmlns:extra=\"urn:extra\""),
        // Text and a comment in a value: one text node remains.
        ReplaceOnce(token, ">Alice</saml2:AttributeValue>",
                    ">Alice<!-- given name --></saml2:AttributeValue>"),
        // The restrictions in the opposite order.
        [&] {
            AssertionSpec spec = RichSpec();
            std::string xml = BuildAssertionXml(spec);
            const size_t begin = xml.find('>', xml.find("<saml2:Conditions ")) + 1;
            const size_t end = xml.find("</saml2:Conditions>");
            std::string inner = xml.substr(begin, end - begin);
            const size_t audience = inner.find("<saml2:AudienceRestriction>");
            inner = inner.substr(audience) + inner.substr(0, audience);
            return SignAssertion(xml.replace(begin, end - begin, inner));
        }(),
    };
    for (const auto& xml : accepted) {
        EXPECT_NO_THROW(CreateSamlToken(xml)) << xml;
    }

    // Without AttributeStatement is fine; without AuthnStatement is not.
    AssertionSpec plain;
    EXPECT_NO_THROW(CreateSamlToken(MakeSignedAssertion(plain)));
    const std::string noAuthn = RemoveElement(MakeSignedAssertion(plain), "<saml2:AuthnStatement",
                                              "</saml2:AuthnStatement>");
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(noAuthn); },
                                       "Expected element 'AuthnStatement' not found."));
    const std::string noIssuer =
        RemoveElement(MakeSignedAssertion(plain), "<saml2:Issuer", "</saml2:Issuer>");
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(noIssuer); },
                                       "Expected element 'Issuer' not found."));
}

TEST(SamlStructureTest, ChecksHolderOfKeyConfirmationData) {
    const std::string xsiType = "xsi:type=\"saml2:KeyInfoConfirmationDataType\"";
    RunMutations(
        HolderOfKeyToken(),
        {
            {"type in another namespace", xsiType, "xsi:type=\"xs:KeyInfoConfirmationDataType\"",
             "Invalid SubjectConfirmationData type: 'xs:KeyInfoConfirmationDataType'"},
            {"other type", xsiType, "xsi:type=\"saml2:SubjectConfirmationDataType\"",
             "Invalid SubjectConfirmationData type: 'saml2:SubjectConfirmationDataType'"},
            {"no type", xsiType, "",
             "Node 'SubjectConfirmationData is missing required attribute 'xsi:type'"},
            {"type without its namespace", xsiType, "type=\"saml2:KeyInfoConfirmationDataType\"",
             "Node 'SubjectConfirmationData is missing required attribute 'xsi:type'"},
            {"unknown attribute", xsiType, xsiType + " Address=\"10.0.0.1\"",
             "Unexpected attribute 'Address' on element 'SubjectConfirmationData'"},
            {"element after the certificate", "</ds:X509Certificate>",
             "</ds:X509Certificate><ds:X509SubjectName>CN=x</ds:X509SubjectName>",
             "Unexpected elements after X509Certificate"},
            {"element after X509Data", "</ds:X509Data>", "</ds:X509Data><ds:KeyName>k</ds:KeyName>",
             "Unexpected elements after X509Data"},
            {"element after KeyInfo", "</ds:KeyInfo>",
             "</ds:KeyInfo><ds:KeyInfo xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"/>",
             "Unexpected elements after SubjectConfirmationData/KeyInfo"},
            {"KeyInfo with an Id", "<ds:KeyInfo ", "<ds:KeyInfo Id=\"k\" ",
             "Unexpected attributes on element 'KeyInfo'"},
            {"element after the confirmation data", "</saml2:SubjectConfirmationData>",
             "</saml2:SubjectConfirmationData><saml2:SubjectConfirmationData/>",
             "Unexpected elements after SubjectConfirmationData"},
        },
        "<saml2:Subject>");

    // Any prefix bound to the assertion namespace names the type.
    const std::string otherPrefix = ReplaceOnce(HolderOfKeyToken(), xsiType,
                                                "xmlns:a=\"urn:oasis:names:tc:SAML:2.0:assertion\" "
                                                "xsi:type=\"a:KeyInfoConfirmationDataType\"");
    EXPECT_NO_THROW(CreateSamlToken(otherPrefix));
    // A certificate that is not Base64 is the foundation's error.
    const std::string& hok = HolderOfKeyToken();
    const size_t subject = hok.find("<saml2:Subject>");
    const std::string notBase64 =
        hok.substr(0, subject) +
        ReplaceOnce(hok.substr(subject), "<ds:X509Certificate>M", "<ds:X509Certificate>*");
    EXPECT_THROW(CreateSamlToken(notBase64), Basalt::Base64FormatException);
}

TEST(SamlStructureTest, BearerConfirmationDataMustBeEmptyAndDated) {
    RunMutations(RichToken(),
                 {
                     {"child in bearer data", "\"/></saml2:SubjectConfirmation>",
                      "\"><saml2:Foo/></saml2:SubjectConfirmationData>"
                      "</saml2:SubjectConfirmation>",
                      "Element 'SubjectConfirmationData' must be empty"},
                     {"no NotOnOrAfter", "<saml2:SubjectConfirmationData NotOnOrAfter=",
                      "<saml2:SubjectConfirmationData NotOnOrAfterX=",
                      "Unexpected attributes on element 'SubjectConfirmationData'"},
                 });
    const std::string undated = RemoveElement(RichToken(), "<saml2:SubjectConfirmationData", "/>");
    const std::string restored = ReplaceOnce(undated, "</saml2:SubjectConfirmation>",
                                             "<saml2:SubjectConfirmationData/>"
                                             "</saml2:SubjectConfirmation>");
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(restored); },
                                       "SubjectConfirmationData/@NotOnOrAfter is not a date"));
}

}  // namespace

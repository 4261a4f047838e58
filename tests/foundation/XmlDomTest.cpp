#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/XmlTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace XmlTest;

namespace {

// The values, or "-" where absent, of GetAttribute(name), GetAttributeNS(uri, name) and
// LookupNamespaceUri(name).
std::string Lookups(const ElementNode& e, const std::string& uri, const std::string& name) {
    std::string a, b, c;
    return (e.GetAttribute(name, a) ? a : "-") + " " + (e.GetAttributeNS(uri, name, b) ? b : "-") +
           " " + (e.LookupNamespaceUri(name, c) ? c : "-");
}

}  // namespace

TEST(XmlDomTest, BuiltElementsResolveTheirPrefixOnceDeclared) {
    // "wsu:Id" is set before its prefix is declared on the same element, as the builders do.
    Ref<ElementNode> token = Element("wsse", "BinarySecurityToken", "QUJD");
    token->SetAttribute("EncodingType", "enc");
    token->SetAttribute("wsu:Id", "holderOfKeyCertificate");
    token->SetAttribute("xmlns:wsu", "urn:wsu");
    EXPECT_EQ("", token->GetNamespaceUri());  // wsse is not declared yet
    EXPECT_THROW(Serialize(*token), InvalidStateException);
    Ref<ElementNode> security = Element("wsse", "Security");
    security->SetAttribute("xmlns:wsse", "urn:wsse");
    security->AppendChild(token);
    EXPECT_EQ("urn:wsse", token->GetNamespaceUri());
    EXPECT_EQ("- holderOfKeyCertificate -", Lookups(*token, "urn:wsu", "Id"));
    // Unprefixed built elements take the default namespace in scope, and none without one.
    Ref<ElementNode> outer = Element("", "Outer"), inner = Element("", "Inner");
    outer->SetAttribute("xmlns", "urn:default");
    outer->AppendChild(inner);
    EXPECT_EQ("urn:default", inner->GetNamespaceUri());
    EXPECT_EQ("", Element("", "Plain")->GetNamespaceUri());
}

TEST(XmlDomTest, AdoptedNodesKeepTheirMeaning) {
    // The assertion's prefixes are declared on its parsed document's root, not on it.
    Ref<ElementNode> source = ParseRoot(
        "<w:wrap xmlns:w=\"urn:w\" xmlns:s=\"urn:saml\"><s:Assertion ID=\"_1\">"
        "<s:Issuer>me</s:Issuer></s:Assertion></w:wrap>");
    Ref<ElementNode> assertion = source->FindChildElement("urn:saml", "Assertion");
    Ref<ElementNode> body = Element("s", "Body");  // "s" means something else here
    body->SetAttribute("xmlns:s", "urn:soap");
    body->AppendChild(assertion);
    EXPECT_FALSE(source->FindChildElement("urn:saml", "Assertion"));
    EXPECT_EQ("urn:saml", assertion->GetNamespaceUri());
    EXPECT_EQ("urn:saml", assertion->FindChildElement("urn:saml", "Issuer")->GetNamespaceUri());
    Ref<ElementNode> reparsed = ParseRoot(Serialize(*body));
    EXPECT_EQ("urn:soap", reparsed->GetNamespaceUri());
    EXPECT_TRUE(reparsed->FindChildElement("urn:saml", "Assertion")
                    ->FindChildElement("urn:saml", "Issuer"));
}

TEST(XmlDomTest, RefusesBadAppendsAndNames) {
    Ref<ElementNode> parent = Element("", "p"), child = Element("", "c"), other = Element("", "o");
    parent->AppendChild(child);
    EXPECT_THROW(child->AppendChild(parent), InvalidArgumentException);
    EXPECT_THROW(parent->AppendChild(parent), InvalidArgumentException);
    EXPECT_THROW(parent->AppendChild(nullptr), InvalidArgumentException);
    EXPECT_THROW(parent->SetAttribute("a:", "x"), InvalidArgumentException);
    EXPECT_THROW(parent->SetAttribute(":a", "x"), InvalidArgumentException);
    Ref<ElementNode> out;
    EXPECT_THROW(CreateElementNode("p", "a:b", out), InvalidArgumentException);
    // Moving within one tree re-parents.
    parent->AppendChild(other);
    other->AppendChild(child);
    EXPECT_EQ("<p><o><c/></o></p>", Serialize(*parent));
}

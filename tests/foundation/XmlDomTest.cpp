#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/XmlTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace XmlTest;

namespace {

// "prefix|local|qualified|uri", then each attribute as "qualified=prefix|local|uri|value;".
std::string Describe(const ElementNode& e) {
    std::vector<Attribute> attributes;
    e.GetAttributes(attributes);
    std::string text = e.GetPrefix() + "|" + e.GetLocalName() + "|" + e.GetQualifiedName() + "|" +
                       e.GetNamespaceUri() + " ";
    for (const Attribute& a : attributes) {
        text += a.qualifiedName + "=" + a.prefix + "|" + a.localName + "|" + a.namespaceUri + "|" +
                a.value + ";";
    }
    return text;
}

// The values, or "-" where absent, of GetAttribute(name), GetAttributeNS(uri, name) and
// LookupNamespaceUri(name).
std::string Lookups(const ElementNode& e, const std::string& uri, const std::string& name) {
    std::string a, b, c;
    return (e.GetAttribute(name, a) ? a : "-") + " " + (e.GetAttributeNS(uri, name, b) ? b : "-") +
           " " + (e.LookupNamespaceUri(name, c) ? c : "-");
}

const char kSample[] =
    "<?xml version=\"1.0\"?>\n"
    "<r:root xmlns:r=\"urn:r\" xmlns=\"urn:d\" a=\"1\" r:b=\"2\" xml:lang=\"en\">\n"
    "  <!-- note --><child id=\"c1\">one &amp; <![CDATA[<two>]]></child>"
    "<?pi data?>\n"
    "  <r:leaf\n      x=\"&#233;\"/>\n"
    "</r:root>";

}  // namespace

TEST(XmlDomTest, ReadsNamesAttributesAndChildrenInDocumentOrder) {
    Ref<ElementNode> root = ParseRoot(kSample);
    EXPECT_EQ(
        "r|root|r:root|urn:r a=|a||1;r:b=r|b|urn:r|2;"
        "xml:lang=xml|lang|http://www.w3.org/XML/1998/namespace|en;",
        Describe(*root));
    std::vector<std::pair<std::string, std::string>> declarations;
    root->GetNamespaceDeclarations(declarations);
    EXPECT_EQ(decltype(declarations)({{"r", "urn:r"}, {"", "urn:d"}}), declarations);
    // By qualified name, by namespace and local name; declarations are not attributes.
    EXPECT_EQ("2 - -|- 2 -|- - -|- - -",
              Lookups(*root, "urn:r", "r:b") + "|" + Lookups(*root, "urn:r", "b") + "|" +
                  Lookups(*root, "", "b") + "|" + Lookups(*root, "", "xmlns:r"));
    std::vector<Ref<Node>> children;
    root->GetChildren(children);
    std::vector<NodeType> kinds;
    for (const auto& child : children) {
        kinds.push_back(child->GetNodeType());
    }
    using T = NodeType;
    EXPECT_EQ(kinds, std::vector<T>({T::Text, T::Comment, T::Element, T::ProcessingInstruction,
                                     T::Text, T::Element, T::Text}));
    EXPECT_EQ(" note ", children[1]->GetTextContent());
    Ref<ElementNode> child = root->FindChildElement("urn:d", "child");
    EXPECT_EQ(children[2], child);
    EXPECT_EQ("|child|child|urn:d id=|id||c1;", Describe(*child));
    EXPECT_EQ("one & <two>", child->GetTextContent());
    // The CDATA section stays a separate text node.
    std::vector<Ref<Node>> texts;
    child->GetChildren(texts);
    ASSERT_EQ(2u, texts.size());
    EXPECT_EQ("<two>", dynamic_cast<TextNode*>(texts[1].Get())->GetValue());
    EXPECT_EQ(root, child->GetParentElement());

    Ref<ElementNode> leaf = root->FindChildElement("urn:r", "leaf");
    ASSERT_TRUE(leaf);
    EXPECT_EQ("r|leaf|r:leaf|urn:r x=|x||\xc3\xa9;", Describe(*leaf));
    EXPECT_FALSE(root->FindChildElement("urn:d", "leaf"));
    EXPECT_EQ("- - urn:r|- - urn:d|- - -", Lookups(*leaf, "", "r") + "|" + Lookups(*leaf, "", "") +
                                               "|" + Lookups(*leaf, "", "nope"));

    // Line and column of every start tag, also of one spanning two lines.
    EXPECT_EQ(
        std::vector<int>({2, 1, 3, 16, 4, 3, 0}),
        std::vector<int>({root->GetLine(), root->GetColumn(), child->GetLine(), child->GetColumn(),
                          leaf->GetLine(), leaf->GetColumn(), Element("p", "built")->GetLine()}));
    // Columns count characters, also on a long line after multi-byte text.
    Ref<ElementNode> b =
        ParseRoot("<a>" + std::string(70000, 'x') + "\xc3\xa9<b/></a>")->FindChildElement("", "b");
    EXPECT_EQ(1, b->GetLine());
    EXPECT_EQ(70005, b->GetColumn());
}

TEST(XmlDomTest, NodesKeepTheirDocumentAlive) {
    Ref<ElementNode> leaf = Parse(kSample)->GetDocumentElement()->FindChildElement("urn:r", "leaf");
    EXPECT_EQ("r:root", leaf->GetParentElement()->GetQualifiedName());
    EXPECT_EQ(leaf->GetParentElement(), leaf->GetOwnerDocument()->GetDocumentElement());
    Ref<ElementNode> taken;
    Parse("<a><b/></a>")->TakeDocumentElement(taken);
    ASSERT_TRUE(taken);
    EXPECT_EQ("<a><b/></a>", Serialize(*taken));
}

TEST(XmlDomTest, SerializesWithoutReformattingAndWithTheNamespacesNeeded) {
    Ref<Document> document = Parse(
        "<r:root xmlns:r=\"urn:r\"   a='1'>\n  <x:y xmlns:x=\"urn:x\">t&lt;&amp;\xc3\xa9</x:y>"
        "<!--c--><e/>\r\n</r:root>");
    EXPECT_EQ(
        "<r:root xmlns:r=\"urn:r\" a=\"1\">\n  <x:y xmlns:x=\"urn:x\">t&lt;&amp;\xc3\xa9"
        "</x:y><!--c--><e/>\n</r:root>",
        Serialize(*document->GetDocumentElement()));
    EXPECT_EQ(Serialize(*document->GetDocumentElement()), Serialize(*document));
    // Re-parsed alone, an inner element keeps every name's meaning and the QName in its value.
    Ref<ElementNode> inner = ParseRoot(
                                 "<r:root xmlns:r=\"urn:r\" xmlns:xsi=\"urn:xsi\" "
                                 "xmlns:v=\"urn:v\"><r:inner xsi:type=\"v:T\"><r:deeper/>"
                                 "</r:inner></r:root>")
                                 ->FindChildElement("urn:r", "inner");
    Ref<ElementNode> reparsed = ParseRoot(Serialize(*inner));
    EXPECT_EQ("r|inner|r:inner|urn:r xsi:type=xsi|type|urn:xsi|v:T;", Describe(*reparsed));
    EXPECT_EQ("- - urn:v", Lookups(*reparsed, "", "v"));
    EXPECT_EQ("urn:r", reparsed->FindChildElement("urn:r", "deeper")->GetNamespaceUri());
}

TEST(XmlDomTest, BuiltElementsResolveTheirPrefixOnceDeclared) {
    // Attributes are set in byte order, so "wsu:Id" comes before "xmlns:wsu".
    Ref<ElementNode> token = Element("wsse", "BinarySecurityToken", "QUJD");
    token->SetAttribute("EncodingType", "enc");
    token->SetAttribute("wsu:Id", "holderOfKeyCertificate");
    token->SetAttribute("xmlns:wsu", "urn:wsu");
    EXPECT_EQ("", token->GetNamespaceUri());  // wsse is not declared yet
    EXPECT_EQ("wsse:BinarySecurityToken", token->GetQualifiedName());
    EXPECT_THROW(Serialize(*token), InvalidStateException);
    Ref<ElementNode> security = Element("wsse", "Security");
    security->SetAttribute("xmlns:wsse", "urn:wsse");
    security->AppendChild(token);
    EXPECT_EQ("urn:wsse", token->GetNamespaceUri());
    EXPECT_EQ("- holderOfKeyCertificate -", Lookups(*token, "urn:wsu", "Id"));
    EXPECT_EQ(security, token->GetParentElement());
    EXPECT_EQ(
        "<wsse:Security xmlns:wsse=\"urn:wsse\"><wsse:BinarySecurityToken "
        "xmlns:wsu=\"urn:wsu\" EncodingType=\"enc\" wsu:Id=\"holderOfKeyCertificate\">"
        "QUJD</wsse:BinarySecurityToken></wsse:Security>",
        Serialize(*security));
    // Unprefixed built elements take the default namespace in scope, and none without one.
    Ref<ElementNode> outer = Element("", "Outer"), inner = Element("", "Inner");
    outer->SetAttribute("xmlns", "urn:default");
    outer->AppendChild(inner);
    EXPECT_EQ("urn:default", inner->GetNamespaceUri());
    EXPECT_EQ("<Plain/>", Serialize(*Element("", "Plain")));
    EXPECT_EQ("", Element("", "Plain")->GetNamespaceUri());
    // Text nodes stay separate and are escaped on output.
    Ref<ElementNode> element = Element("", "e");
    for (const char* value : {"a<", "", "&b"}) {
        Ref<TextNode> text;
        CreateTextNode(text);
        text->SetValue(value);
        element->AppendChild(text);
    }
    std::vector<Ref<Node>> children;
    element->GetChildren(children);
    EXPECT_EQ(3u, children.size());
    EXPECT_EQ("a<&b", element->GetTextContent());
    EXPECT_EQ("<e>a&lt;&amp;b</e>", Serialize(*element));
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
    EXPECT_EQ(body, assertion->GetParentElement());
    EXPECT_FALSE(source->FindChildElement("urn:saml", "Assertion"));
    EXPECT_EQ(body->GetOwnerDocument(), assertion->GetOwnerDocument());
    EXPECT_EQ("urn:saml", assertion->GetNamespaceUri());
    EXPECT_EQ("urn:saml", assertion->FindChildElement("urn:saml", "Issuer")->GetNamespaceUri());
    Ref<ElementNode> reparsed = ParseRoot(Serialize(*body));
    EXPECT_EQ("urn:soap", reparsed->GetNamespaceUri());
    ASSERT_TRUE(reparsed->FindChildElement("urn:saml", "Assertion"));
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

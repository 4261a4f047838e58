#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/Xml.h>
#include "foundation/XmlTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using XmlTest::Parse;
using XmlTest::ParseRoot;
using XmlTest::Serialize;

namespace {

Ref<ElementNode> AsElement(const Ref<Node>& node) {
    return Ref<ElementNode>(dynamic_cast<ElementNode*>(node.Get()));
}

Ref<ElementNode> NewElement(const std::string& prefix, const std::string& name) {
    Ref<ElementNode> element;
    CreateElementNode(prefix, name, element);
    return element;
}

Ref<TextNode> NewText(const std::string& value) {
    Ref<TextNode> text;
    CreateTextNode(text);
    text->SetValue(value);
    return text;
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
    EXPECT_EQ("root", root->GetLocalName());
    EXPECT_EQ("r", root->GetPrefix());
    EXPECT_EQ("r:root", root->GetQualifiedName());
    EXPECT_EQ("urn:r", root->GetNamespaceUri());

    std::vector<Attribute> attributes;
    root->GetAttributes(attributes);
    ASSERT_EQ(3u, attributes.size());
    EXPECT_EQ("a", attributes[0].qualifiedName);
    EXPECT_EQ("", attributes[0].namespaceUri);
    EXPECT_EQ("r:b", attributes[1].qualifiedName);
    EXPECT_EQ("urn:r", attributes[1].namespaceUri);
    EXPECT_EQ("b", attributes[1].localName);
    EXPECT_EQ("xml:lang", attributes[2].qualifiedName);

    std::vector<std::pair<std::string, std::string>> declarations;
    root->GetNamespaceDeclarations(declarations);
    ASSERT_EQ(2u, declarations.size());
    EXPECT_EQ(std::make_pair(std::string("r"), std::string("urn:r")), declarations[0]);
    EXPECT_EQ(std::make_pair(std::string(), std::string("urn:d")), declarations[1]);

    std::string value;
    EXPECT_TRUE(root->GetAttribute("r:b", value));
    EXPECT_EQ("2", value);
    EXPECT_TRUE(root->GetAttributeNS("urn:r", "b", value));
    EXPECT_FALSE(root->GetAttributeNS("", "b", value));
    EXPECT_FALSE(root->GetAttribute("xmlns:r", value));  // declarations are not attributes

    std::vector<Ref<Node>> children;
    root->GetChildren(children);
    std::vector<NodeType> kinds;
    for (const auto& child : children) {
        kinds.push_back(child->GetNodeType());
    }
    EXPECT_EQ((std::vector<NodeType>{NodeType::Text, NodeType::Comment, NodeType::Element,
                                     NodeType::ProcessingInstruction, NodeType::Text,
                                     NodeType::Element, NodeType::Text}),
              kinds);
    EXPECT_EQ(" note ", children[1]->GetTextContent());

    Ref<ElementNode> child = AsElement(children[2]);
    EXPECT_EQ("urn:d", child->GetNamespaceUri());
    EXPECT_EQ("", child->GetPrefix());
    EXPECT_EQ("one & <two>", child->GetTextContent());
    std::vector<Ref<Node>> texts;
    child->GetChildren(texts);
    ASSERT_EQ(2u, texts.size());  // the CDATA section stays a separate text node
    EXPECT_EQ("<two>", dynamic_cast<TextNode*>(texts[1].Get())->GetValue());
    EXPECT_EQ(root, child->GetParentElement());

    Ref<ElementNode> leaf = root->FindChildElement("urn:r", "leaf");
    ASSERT_TRUE(leaf);
    EXPECT_TRUE(leaf->GetAttribute("x", value));
    EXPECT_EQ("\xc3\xa9", value);
    EXPECT_FALSE(root->FindChildElement("urn:d", "leaf"));
    EXPECT_EQ(child, root->FindChildElement("urn:d", "child"));

    EXPECT_TRUE(leaf->LookupNamespaceUri("r", value));
    EXPECT_EQ("urn:r", value);
    EXPECT_TRUE(leaf->LookupNamespaceUri("", value));
    EXPECT_EQ("urn:d", value);
    EXPECT_FALSE(leaf->LookupNamespaceUri("nope", value));
}

TEST(XmlDomTest, RecordsLineAndColumnOfEveryStartTag) {
    Ref<ElementNode> root = ParseRoot(kSample);
    EXPECT_EQ(2, root->GetLine());
    EXPECT_EQ(1, root->GetColumn());
    Ref<ElementNode> child = root->FindChildElement("urn:d", "child");
    EXPECT_EQ(3, child->GetLine());
    EXPECT_EQ(16, child->GetColumn());
    Ref<ElementNode> leaf = root->FindChildElement("urn:r", "leaf");  // its tag spans two lines
    EXPECT_EQ(4, leaf->GetLine());
    EXPECT_EQ(3, leaf->GetColumn());
    EXPECT_EQ(0, NewElement("p", "built")->GetLine());

    // Columns count characters, also on a long line after multi-byte text.
    std::string longLine = "<a>" + std::string(70000, 'x') + "\xc3\xa9<b/></a>";
    Ref<ElementNode> b = ParseRoot(longLine)->FindChildElement("", "b");
    EXPECT_EQ(1, b->GetLine());
    EXPECT_EQ(70005, b->GetColumn());
}

TEST(XmlDomTest, NodesKeepTheirDocumentAlive) {
    Ref<ElementNode> leaf;
    {
        Ref<Document> document = Parse(kSample);
        leaf = document->GetDocumentElement()->FindChildElement("urn:r", "leaf");
    }
    // Only the leaf is referenced now; its ancestors and document are still there.
    EXPECT_EQ("r:root", leaf->GetParentElement()->GetQualifiedName());
    EXPECT_EQ("r:root", leaf->GetOwnerDocument()->GetDocumentElement()->GetQualifiedName());
    EXPECT_EQ(leaf->GetParentElement(), leaf->GetOwnerDocument()->GetDocumentElement());

    Ref<ElementNode> taken;
    {
        Ref<Document> document = Parse("<a><b/></a>");
        document->TakeDocumentElement(taken);
    }
    ASSERT_TRUE(taken);
    EXPECT_EQ("<a><b/></a>", Serialize(*taken));
}

TEST(XmlDomTest, SerializesWithoutReformatting) {
    const std::string text =
        "<r:root xmlns:r=\"urn:r\"   a='1'>\n  <x:y xmlns:x=\"urn:x\">t&lt;&amp;\xc3\xa9</x:y>"
        "<!--c--><e/>\r\n</r:root>";
    Ref<Document> document = Parse(text);
    EXPECT_EQ(
        "<r:root xmlns:r=\"urn:r\" a=\"1\">\n  <x:y xmlns:x=\"urn:x\">t&lt;&amp;\xc3\xa9</x:y>"
        "<!--c--><e/>\n</r:root>",
        Serialize(*document->GetDocumentElement()));
    EXPECT_EQ(Serialize(*document->GetDocumentElement()), Serialize(*document));
}

TEST(XmlDomTest, InnerElementSerializesWithTheNamespacesItNeeds) {
    Ref<ElementNode> root = ParseRoot(
        "<r:root xmlns:r=\"urn:r\" xmlns:xsi=\"urn:xsi\" xmlns:v=\"urn:v\">"
        "<r:inner xsi:type=\"v:T\"><r:deeper/></r:inner></r:root>");
    Ref<ElementNode> inner = root->FindChildElement("urn:r", "inner");
    std::string text = Serialize(*inner);
    // Re-parsed alone, the fragment keeps every name's meaning and the QName in its value.
    Ref<ElementNode> reparsed = ParseRoot(text);
    EXPECT_EQ("urn:r", reparsed->GetNamespaceUri());
    std::string uri;
    EXPECT_TRUE(reparsed->GetAttributeNS("urn:xsi", "type", uri));
    EXPECT_TRUE(reparsed->LookupNamespaceUri("v", uri));
    EXPECT_EQ("urn:v", uri);
    EXPECT_EQ("urn:r", reparsed->FindChildElement("urn:r", "deeper")->GetNamespaceUri());
}

TEST(XmlDomTest, BuiltElementsResolveTheirPrefixOnceDeclared) {
    // Attributes are set in byte order, so "wsu:Id" comes before "xmlns:wsu".
    Ref<ElementNode> token = NewElement("wsse", "BinarySecurityToken");
    token->SetAttribute("EncodingType", "enc");
    token->SetAttribute("wsu:Id", "holderOfKeyCertificate");
    token->SetAttribute("xmlns:wsu", "urn:wsu");
    token->AppendChild(NewText("QUJD"));
    EXPECT_EQ("", token->GetNamespaceUri());  // wsse is not declared yet
    EXPECT_EQ("wsse:BinarySecurityToken", token->GetQualifiedName());
    EXPECT_THROW(Serialize(*token), InvalidStateException);

    Ref<ElementNode> security = NewElement("wsse", "Security");
    security->SetAttribute("xmlns:wsse", "urn:wsse");
    security->AppendChild(token);
    EXPECT_EQ("urn:wsse", token->GetNamespaceUri());
    std::string value;
    EXPECT_TRUE(token->GetAttributeNS("urn:wsu", "Id", value));
    EXPECT_EQ("holderOfKeyCertificate", value);
    EXPECT_EQ(security, token->GetParentElement());
    EXPECT_EQ(
        "<wsse:Security xmlns:wsse=\"urn:wsse\"><wsse:BinarySecurityToken "
        "xmlns:wsu=\"urn:wsu\" EncodingType=\"enc\" wsu:Id=\"holderOfKeyCertificate\">"
        "QUJD</wsse:BinarySecurityToken></wsse:Security>",
        Serialize(*security));

    // Unprefixed built elements take the default namespace in scope, and none without one.
    Ref<ElementNode> outer = NewElement("", "Outer");
    outer->SetAttribute("xmlns", "urn:default");
    Ref<ElementNode> inner = NewElement("", "Inner");
    outer->AppendChild(inner);
    EXPECT_EQ("urn:default", inner->GetNamespaceUri());
    Ref<ElementNode> plain = NewElement("", "Plain");
    EXPECT_EQ("<Plain/>", Serialize(*plain));
    EXPECT_EQ("", plain->GetNamespaceUri());
}

TEST(XmlDomTest, TextNodesStaySeparateAndEscapeOnOutput) {
    Ref<ElementNode> element = NewElement("", "e");
    element->AppendChild(NewText("a<"));
    element->AppendChild(NewText(""));
    element->AppendChild(NewText("&b"));
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

    Ref<ElementNode> body = NewElement("s", "Body");  // "s" means something else here
    body->SetAttribute("xmlns:s", "urn:soap");
    body->AppendChild(assertion);
    EXPECT_EQ(body, assertion->GetParentElement());
    EXPECT_FALSE(source->FindChildElement("urn:saml", "Assertion"));
    EXPECT_EQ(body->GetOwnerDocument(), assertion->GetOwnerDocument());
    EXPECT_EQ("urn:saml", assertion->GetNamespaceUri());
    EXPECT_EQ("urn:saml", assertion->FindChildElement("urn:saml", "Issuer")->GetNamespaceUri());

    Ref<ElementNode> reparsed = ParseRoot(Serialize(*body));
    Ref<ElementNode> moved = reparsed->FindChildElement("urn:saml", "Assertion");
    ASSERT_TRUE(moved);
    EXPECT_EQ("urn:soap", reparsed->GetNamespaceUri());
    EXPECT_TRUE(moved->FindChildElement("urn:saml", "Issuer"));
}

TEST(XmlDomTest, RefusesBadAppendsAndNames) {
    Ref<ElementNode> parent = NewElement("", "p");
    Ref<ElementNode> child = NewElement("", "c");
    parent->AppendChild(child);
    EXPECT_THROW(child->AppendChild(parent), InvalidArgumentException);
    EXPECT_THROW(parent->AppendChild(parent), InvalidArgumentException);
    EXPECT_THROW(parent->AppendChild(nullptr), InvalidArgumentException);
    EXPECT_THROW(parent->SetAttribute("a:", "x"), InvalidArgumentException);
    EXPECT_THROW(parent->SetAttribute(":a", "x"), InvalidArgumentException);
    Ref<ElementNode> out;
    EXPECT_THROW(CreateElementNode("p", "a:b", out), InvalidArgumentException);

    // Moving within one tree re-parents.
    Ref<ElementNode> other = NewElement("", "o");
    parent->AppendChild(other);
    other->AppendChild(child);
    EXPECT_EQ("<p><o><c/></o></p>", Serialize(*parent));
}

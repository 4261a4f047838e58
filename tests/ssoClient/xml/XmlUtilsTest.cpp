#include <basalt/Exception.h>
#include <basalt/Xml.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>

#include "internal/xml/XmlUtils.h"

namespace {

using namespace SsoClient;
using Basalt::Ref;
using Basalt::Xml::Document;
using Basalt::Xml::ElementNode;
using Basalt::Xml::Node;

Ref<ElementNode> ParseRoot(const std::string& xml) {
    Ref<Document> document;
    ParseXmlText(xml, document);
    EXPECT_TRUE(document);
    return document->GetDocumentElement();
}

TEST(SkipWsAndCommentsFilterTest, KeepsTextElementsAndInstructionsButNotBlanksOrComments) {
    const auto root = ParseRoot("<r> x <!--c--><a/>\n\t \r\n<?pi data?></r>");
    std::vector<Ref<Node>> children;
    root->GetChildren(children);
    ASSERT_EQ(children.size(), 5u);
    const SkipWsAndCommentsFilter filter;
    EXPECT_TRUE(filter.Accept(children[0]));   // " x "
    EXPECT_FALSE(filter.Accept(children[1]));  // comment
    EXPECT_TRUE(filter.Accept(children[2]));   // element
    EXPECT_FALSE(filter.Accept(children[3]));  // blanks, tab, CR, LF
    EXPECT_TRUE(filter.Accept(children[4]));   // processing instruction

    Ref<Basalt::Xml::TextNode> empty;
    Basalt::Xml::CreateTextNode(empty);
    EXPECT_FALSE(filter.Accept(Ref<Node>(empty)));
}

TEST(ResolveQNameTest, ResolvesBoundPrefixesAndDefaults) {
    const auto root = ParseRoot("<r xmlns:xs='urn:xs'><a xmlns:p='urn:p'/></r>");
    const auto child = root->FindChildElement("", "a");
    ASSERT_TRUE(child);
    EXPECT_EQ(ResolveQName(*child, "xs:string", "urn:default"),
              (std::pair<std::string, std::string>("urn:xs", "string")));
    EXPECT_EQ(ResolveQName(*child, "p:x:y", ""),
              (std::pair<std::string, std::string>("urn:p", "x:y")));
    EXPECT_EQ(ResolveQName(*child, "string", "urn:default"),
              (std::pair<std::string, std::string>("urn:default", "string")));
}

TEST(ResolveQNameTest, UnboundPrefixNamesElementAndPositionWithoutBlank) {
    const auto root = ParseRoot("<r>\n<x>\n      <AttributeValue/></x></r>");
    const auto x = root->FindChildElement("", "x");
    const auto value = x->FindChildElement("", "AttributeValue");
    ASSERT_TRUE(value);
    ASSERT_EQ(value->GetLine(), 3);
    const std::string position =
        std::to_string(value->GetLine()) + "," + std::to_string(value->GetColumn());
    struct Case {
        const char* qname;
        std::string message;
    };
    const Case cases[] = {
        {"xs:string", "Element AttributeValueat " + position + " uses undefined prefix: `xs'"},
        {":x", "Element AttributeValueat " + position + " uses undefined prefix: `'"},
    };
    for (const auto& c : cases) {
        try {
            ResolveQName(*value, c.qname, "");
            ADD_FAILURE() << c.qname;
        } catch (const ParseException& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
        }
    }
}

TEST(ParseXmlTextTest, RefusesDoctypesAndMalformedText) {
    Ref<Document> document;
    const char* refused[] = {
        "<r><unclosed></r>",
        "<!DOCTYPE r [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><r>&e;</r>",
        "",
    };
    for (const char* text : refused) {
        EXPECT_THROW(ParseXmlText(text, document), Basalt::Xml::XMLParseException) << text;
    }
}

TEST(FormatXmlDateTimeTest, PadsEveryFieldAndEndsWithTheZoneSuffix) {
    const Basalt::System::DateTime value("2024-01-05T03:04:05.006007Z");
    EXPECT_EQ(FormatXmlDateTime(value), "2024-01-05T03:04:05.006Z");
    EXPECT_EQ(FormatXmlDateTime(Basalt::System::DateTime("0999-12-31T23:59:59.999999Z")),
              "0999-12-31T23:59:59.999Z");
}

TEST(AddMinutesTest, AddsMinutesInThirtyTwoBitArithmetic) {
    const Basalt::System::DateTime start("2024-01-05T03:04:05Z");
    EXPECT_EQ(AddMinutes(start, 5).GetUtcTime() - start.GetUtcTime(), 300 * 1000000LL);
    EXPECT_EQ(AddMinutes(start, -10).GetUtcTime() - start.GetUtcTime(), -600 * 1000000LL);
    // 36 minutes overflow the 32-bit product and wrap.
    EXPECT_EQ(AddMinutes(start, 36).GetUtcTime() - start.GetUtcTime(), 2160000000LL - 4294967296LL);
}

}  // namespace

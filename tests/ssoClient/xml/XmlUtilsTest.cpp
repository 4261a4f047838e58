#include <basalt/Xml.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>

#include "internal/xml/XmlUtils.h"
#include "support/ExpectThrow.h"

namespace {

using namespace SsoClient;
using Basalt::Ref;

Ref<Basalt::Xml::ElementNode> ParseRoot(const std::string& xml) {
    Ref<Basalt::Xml::Document> document;
    ParseXmlText(xml, document);
    return document->GetDocumentElement();
}

TEST(SkipWsAndCommentsFilterTest, KeepsTextElementsAndInstructionsButNotBlanksOrComments) {
    std::vector<Ref<Basalt::Xml::Node>> children;
    ParseRoot("<r> x <!--c--><a/>\n\t \r\n<?pi data?></r>")->GetChildren(children);
    Ref<Basalt::Xml::TextNode> empty;
    Basalt::Xml::CreateTextNode(empty);
    children.emplace_back(empty);
    std::string kept;
    for (const auto& child : children) {
        kept += SkipWsAndCommentsFilter().Accept(child) ? "1" : "0";
    }
    EXPECT_EQ(kept, "101010");  // text, comment, element, blanks, instruction, empty text
}

TEST(ResolveQNameTest, ResolvesBoundPrefixesAndDefaultsAndNamesTheElementOtherwise) {
    const auto root = ParseRoot("<r xmlns:xs='urn:xs'>\n<a xmlns:p='urn:p'>\n  <Value/></a></r>");
    const auto a = root->FindChildElement("", "a");
    using Resolved = std::pair<std::string, std::string>;
    EXPECT_EQ(ResolveQName(*a, "xs:string", "urn:default"), Resolved("urn:xs", "string"));
    EXPECT_EQ(ResolveQName(*a, "p:x:y", ""), Resolved("urn:p", "x:y"));
    EXPECT_EQ(ResolveQName(*a, "string", "urn:default"), Resolved("urn:default", "string"));
    const auto value = a->FindChildElement("", "Value");
    for (const std::string prefix : {"q", ""}) {
        EXPECT_TRUE(TestSupport::Throws<ParseException>(
            [&] { ResolveQName(*value, prefix + ":x", ""); },
            "Element Valueat 3,3 uses undefined prefix: `" + prefix + "'"));
    }
}

TEST(FormatXmlDateTimeTest, PadsEveryFieldAndEndsWithTheZoneSuffix) {
    EXPECT_EQ(FormatXmlDateTime(Basalt::System::DateTime("2024-01-05T03:04:05.006007Z")),
              "2024-01-05T03:04:05.006Z");
    EXPECT_EQ(FormatXmlDateTime(Basalt::System::DateTime("0999-12-31T23:59:59.999999Z")),
              "0999-12-31T23:59:59.999Z");
}

TEST(AddMinutesTest, AddsMinutesInThirtyTwoBitArithmetic) {
    const Basalt::System::DateTime start("2024-01-05T03:04:05Z");
    const auto added = [&](int32_t minutes) {
        return AddMinutes(start, minutes).GetUtcTime() - start.GetUtcTime();
    };
    EXPECT_EQ(added(5), 300 * 1000000LL);
    EXPECT_EQ(added(-10), -600 * 1000000LL);
    EXPECT_EQ(added(36), 2160000000LL - 4294967296LL);  // the 32-bit product wraps
}

}  // namespace

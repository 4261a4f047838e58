#include <gtest/gtest.h>

#include <string>

#include "TestData.h"
#include "foundation/XmlTestUtil.h"
#include "support/ExpectThrow.h"

using namespace Basalt;
using namespace Basalt::Xml;
using XmlTest::Parse;

namespace {

std::string Nested(size_t depth) {
    std::string open, close;
    for (size_t i = 0; i < depth; ++i) {
        open += "<e>";
        close += "</e>";
    }
    return open + close;
}

std::string ManyAttributes(size_t count) {
    std::string text = "<e";
    for (size_t i = 0; i < count; ++i) {
        text += " a" + std::to_string(i) + "=\"\"";
    }
    return text + "/>";
}

std::string Big(size_t bytes) {
    std::string big = "<r>";
    while (big.size() < bytes) {
        big += "<item a=\"value\">some text of a typical length</item>\n";
    }
    return big + "</r>";
}

ParserLimits Limits(size_t bytes, size_t depth, size_t attributes) {
    ParserLimits limits;
    limits.maxDocumentBytes = bytes;
    limits.maxDepth = depth;
    limits.maxAttributesPerElement = attributes;
    return limits;
}

const std::string kSecretPath = std::string(SSOCLIENT_TEST_DATA_DIR) + "/xml/secret.txt";

}  // namespace

TEST(XmlParserTest, RefusesHostileInputWithAClearMessage) {
    const ParserLimits defaults;
    const struct {
        const char* name;
        std::string text;
        ParserLimits limits;
        const char* expected;
    } cases[] = {
        {"external entity reading a local file",
         "<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + kSecretPath + "\">]><r>&x;</r>", defaults,
         "XML parse error at line 1, column 13: A DOCTYPE declaration is not allowed"},
        {"external DTD", "<!DOCTYPE r SYSTEM \"file://" + kSecretPath + "\"><r/>", defaults,
         "XML parse error at line 1, column 70: A DOCTYPE declaration is not allowed"},
        {"entity expansion bomb",
         "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
         "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">]><r>&c;</r>",
         defaults, "XML parse error at line 1, column 13: A DOCTYPE declaration is not allowed"},
        {"ATTLIST declaring ids",
         "<!DOCTYPE r [<!ATTLIST e AssertionID ID #IMPLIED>]><r><e AssertionID=\"x\"/></r>",
         defaults, "XML parse error at line 1, column 13: A DOCTYPE declaration is not allowed"},
        {"undeclared entity", "<r>&x;</r>", defaults,
         "XML parse error at line 1, column 7: Entity 'x' not defined"},
        {"unclosed element", "<r>\n  <a>\n</r>", defaults,
         "XML parse error at line 3, column 5: Opening and ending tag mismatch: a line 2 and r"},
        {"undeclared prefix, nothing included", "<r><xi:include href=\"file:///etc/passwd\"/></r>",
         defaults,
         "XML parse error at line 1, column 41: Namespace prefix xi on include is not defined"},
        {"empty input", "", defaults, "XML parse error at line 1, column 1: The document is empty"},
        {"default depth", Nested(129), defaults,
         "XML parse error at line 1, column 387: Elements are nested deeper than 128 levels"},
        {"default attribute count", ManyAttributes(257), defaults,
         "XML parse error at line 1, column 1949: A start tag has more than 256 attributes"},
        {"attribute flood (quadratic in libxml2)", ManyAttributes(50000), defaults,
         "XML parse error at line 1, column 1: A start tag has more than 256 attributes"},
        {"default size", Big(8 * 1024 * 1024), defaults,
         "XML parse error at line 158276, column 31: The document is larger than 8388608 bytes"},
        {"size", Big(600 * 1024), Limits(1000, 128, 256),
         "XML parse error at line 19, column 44: The document is larger than 1000 bytes"},
        {"depth", Nested(4), Limits(1000, 3, 256),
         "XML parse error at line 1, column 12: Elements are nested deeper than 3 levels"},
        {"attribute count", ManyAttributes(3), Limits(1000, 128, 2),
         "XML parse error at line 1, column 21: A start tag has more than 2 attributes"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(
            TestSupport::Throws<XMLParseException>([&] { Parse(c.text, c.limits); }, c.expected))
            << c.name;
    }
}

TEST(XmlParserTest, AcceptsWhatLooksHostileButIsNot) {
    // XInclude elements are plain elements: nothing is fetched.
    Ref<Document> document =
        Parse("<r xmlns:xi=\"http://www.w3.org/2001/XInclude\"><xi:include href=\"" + kSecretPath +
              "\" parse=\"text\"/></r>");
    EXPECT_EQ("", document->GetDocumentElement()->GetTextContent());
    // Character references and the predefined entities are expanded.
    EXPECT_EQ(
        "<>&'\"A",
        Parse("<r>&lt;&gt;&amp;&apos;&quot;&#65;</r>")->GetDocumentElement()->GetTextContent());
    // Each limit admits what is exactly at it.
    EXPECT_NO_THROW(Parse(Nested(128)));
    EXPECT_NO_THROW(Parse(ManyAttributes(256)));
    EXPECT_NO_THROW(Parse(Big(600 * 1024)));
    EXPECT_NO_THROW(Parse(Nested(3), Limits(21, 3, 256)));
    EXPECT_NO_THROW(Parse(ManyAttributes(2), Limits(1000, 128, 2)));

    Ref<XMLParser> parser;
    EXPECT_THROW(CreateXMLParser(nullptr, parser), InvalidArgumentException);
    Ref<XMLHandler> handler;
    CreateXMLDocumentHandler(handler);
    EXPECT_FALSE(handler->GetResult());
    CreateXMLParser(handler.Get(), parser);
    EXPECT_TRUE(TestSupport::Throws<InvalidArgumentException>([&] { parser->Parse(nullptr); },
                                                              "No input to parse"));
}

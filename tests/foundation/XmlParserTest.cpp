#include <gtest/gtest.h>

#include <string>

#include "TestData.h"
#include <basalt/Exception.h>
#include <basalt/Xml.h>
#include "foundation/XmlTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using XmlTest::Parse;
using XmlTest::ParseError;

namespace {

std::string Nested(size_t depth) {
    std::string text;
    for (size_t i = 0; i < depth; ++i) {
        text += "<e>";
    }
    for (size_t i = 0; i < depth; ++i) {
        text += "</e>";
    }
    return text;
}

std::string ManyAttributes(size_t count) {
    std::string text = "<e";
    for (size_t i = 0; i < count; ++i) {
        text += " a" + std::to_string(i) + "=\"\"";
    }
    return text + "/>";
}

const std::string kSecretPath = std::string(SSOCLIENT_TEST_DATA_DIR) + "/xml/secret.txt";

struct HostileInput {
    const char* name;
    std::string text;
    const char* expected;  // part of the message
};

}  // namespace

TEST(XmlParserTest, RefusesHostileInputWithAClearMessage) {
    const HostileInput cases[] = {
        {"external entity reading a local file",
         "<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + kSecretPath + "\">]><r>&x;</r>", "DOCTYPE"},
        {"external DTD", "<!DOCTYPE r SYSTEM \"file://" + kSecretPath + "\"><r/>", "DOCTYPE"},
        {"entity expansion bomb",
         "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
         "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">]><r>&c;</r>",
         "DOCTYPE"},
        {"ATTLIST declaring ids",
         "<!DOCTYPE r [<!ATTLIST e AssertionID ID #IMPLIED>]><r><e AssertionID=\"x\"/></r>",
         "DOCTYPE"},
        {"undeclared entity", "<r>&x;</r>", "line 1"},
        {"excessive depth", Nested(129), "nested deeper than 128"},
        {"too many attributes", ManyAttributes(257), "more than 256 attributes"},
        {"attribute flood (quadratic in libxml2)", ManyAttributes(50000), "more than 256"},
        {"unclosed element", "<r>\n  <a>\n</r>", "line 3"},
        {"empty input", "", "empty"},
        {"XInclude is not processed, so nothing to include: but a prefix must be declared",
         "<r><xi:include href=\"file:///etc/passwd\"/></r>", "xi"},
    };
    for (const auto& c : cases) {
        std::string message = ParseError(c.text);
        EXPECT_NE(std::string::npos, message.find(c.expected)) << c.name << ": " << message;
        EXPECT_NE(std::string::npos, message.find("line")) << c.name << ": " << message;
        EXPECT_EQ(std::string::npos, message.find("top secret")) << c.name;
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
    EXPECT_EQ("", ParseError(Nested(128)));
    EXPECT_EQ("", ParseError(ManyAttributes(256)));
}

TEST(XmlParserTest, BoundsTheDocumentSize) {
    // A reply of a few hundred kilobytes passes with the default limits.
    std::string big = "<r>";
    while (big.size() < 600 * 1024) {
        big += "<item a=\"value\">some text of a typical length</item>\n";
    }
    big += "</r>";
    EXPECT_EQ("", ParseError(big));

    ParserLimits limits;
    limits.maxDocumentBytes = 1000;
    std::string message = ParseError(big, limits);
    EXPECT_NE(std::string::npos, message.find("larger than 1000 bytes")) << message;
    limits.maxDepth = 3;
    limits.maxDocumentBytes = 1000;
    EXPECT_NE(std::string::npos, ParseError(Nested(4), limits).find("deeper than 3"));
}

TEST(XmlParserTest, NeedsTheDocumentHandler) {
    Ref<XMLParser> parser;
    EXPECT_THROW(CreateXMLParser(nullptr, parser), InvalidArgumentException);
    Ref<XMLHandler> handler;
    CreateXMLDocumentHandler(handler);
    EXPECT_FALSE(handler->GetResult());
    CreateXMLParser(handler.Get(), parser);
    EXPECT_THROW(parser->Parse(nullptr), InvalidArgumentException);
}

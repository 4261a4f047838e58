#include <basalt/Log.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

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
    const std::string doctype = ": A DOCTYPE declaration is not allowed",
                      attributes = ": A start tag has more than ";
    // Each row: input, limits, and the message after "XML parse error at line ".
    const std::tuple<std::string, ParserLimits, std::string> cases[] = {
        // No DOCTYPE at all, with an internal subset (an external entity reading a local file)
        // or without (an external DTD): entity bombs and ATTLIST-declared ids go with it.
        {"<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + kSecretPath + "\">]><r>&x;</r>", defaults,
         "1, column 13" + doctype},
        {"<!DOCTYPE r SYSTEM \"file://" + kSecretPath + "\"><r/>", defaults,
         "1, column " + std::to_string(kSecretPath.size() + 29) + doctype},
        {"<r>&x;</r>", defaults, "1, column 7: Entity 'x' not defined"},
        {"<r>\n  <a>\n</r>", defaults,
         "3, column 5: Opening and ending tag mismatch: a line 2 and r"},
        // XInclude is not processed: the prefix must be declared, and nothing is included.
        {"<r><xi:include href=\"file:///etc/passwd\"/></r>", defaults,
         "1, column 41: Namespace prefix xi on include is not defined"},
        {"", defaults, "1, column 1: The document is empty"},
        // Every cap, by default and as configured; the attribute flood would be quadratic in
        // libxml2, so it is counted before parsing.
        {Nested(129), defaults, "1, column 387: Elements are nested deeper than 128 levels"},
        {ManyAttributes(257), defaults, "1, column 1949" + attributes + "256 attributes"},
        {ManyAttributes(50000), defaults, "1, column 1" + attributes + "256 attributes"},
        {Big(8 * 1024 * 1024), defaults,
         "158276, column 31: The document is larger than 8388608 bytes"},
        {Big(600 * 1024), Limits(1000, 128, 256),
         "19, column 44: The document is larger than 1000 bytes"},
        {Nested(4), Limits(1000, 3, 256), "1, column 12: Elements are nested deeper than 3 levels"},
        {ManyAttributes(3), Limits(1000, 128, 2), "1, column 21" + attributes + "2 attributes"},
    };
    for (const auto& [text, limits, message] : cases) {
        EXPECT_TRUE(TestSupport::Throws<XMLParseException>([&] { Parse(text, limits); },
                                                           "XML parse error at line " + message));
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
    Ref<XMLHandler> handler;
    CreateXMLDocumentHandler(handler);
    CreateXMLParser(handler.Get(), parser);
    EXPECT_TRUE(TestSupport::Throws<InvalidArgumentException>([&] { parser->Parse(nullptr); },
                                                              "No input to parse"));
}

// libxml2's own messages (here about a hostile encoding) reach the foundation's logger at the info
// level, never the host's standard error.
TEST(XmlParserTest, LibraryMessagesGoToTheLoggerNotToStandardError) {
    Service::Logger* logger = Service::FindLogger("Basalt");
    const int level = logger->GetLevel();
    logger->SetLevel(Service::Logger::LL_Info);
    std::vector<std::string> lines;
    Service::SetLogSink([&](const Service::Logger& from, int lineLevel, std::string_view line) {
        lines.push_back(from.GetName() + " " + std::to_string(lineLevel) + " " + std::string(line));
    });
    testing::internal::CaptureStderr();
    EXPECT_THROW(Parse("<?xml version=\"1.0\" encoding=\"EUC-JP\"?><r>\x8e\xff</r>"),
                 XMLParseException);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    Service::SetLogSink({});
    logger->SetLevel(level);
    const std::string conversion =
        "Basalt 5 libxml2: input conversion failed due to input error, "
        "bytes 0x8E 0xFF 0x3C 0x2F";
    EXPECT_EQ(lines, (std::vector<std::string>{conversion, conversion,
                                               "Basalt 5 libxml2: encoder error"}));
}

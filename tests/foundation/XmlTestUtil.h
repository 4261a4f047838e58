#pragma once

#include <gtest/gtest.h>

#include <string>

#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <basalt/Xml.h>

namespace XmlTest {

inline Basalt::Ref<Basalt::Xml::Document> Parse(const std::string& text,
                                                const Basalt::Xml::ParserLimits& limits = {}) {
    Basalt::Ref<Basalt::StringReader> reader;
    Basalt::CreateStringReader(text, reader);
    Basalt::Ref<Basalt::Xml::XMLHandler> handler;
    Basalt::Xml::CreateXMLDocumentHandler(handler);
    Basalt::Ref<Basalt::Xml::XMLParser> parser;
    Basalt::Xml::CreateXMLParser(handler.Get(), limits, parser);
    parser->Parse(reader.Get());
    return Basalt::Ref<Basalt::Xml::Document>(
        dynamic_cast<Basalt::Xml::Document*>(handler->GetResult().Get()));
}

inline Basalt::Ref<Basalt::Xml::ElementNode> ParseRoot(const std::string& text) {
    return Parse(text)->GetDocumentElement();
}

inline std::string Serialize(const Basalt::Xml::Node& node) {
    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    node.Serialize(writer.Get());
    return writer->TakeString();
}

// The message of the XMLParseException that parsing text throws ("" if it parses).
inline std::string ParseError(const std::string& text,
                              const Basalt::Xml::ParserLimits& limits = {}) {
    try {
        Parse(text, limits);
    } catch (const Basalt::Xml::XMLParseException& e) {
        return e.what();
    }
    return std::string();
}

}  // namespace XmlTest

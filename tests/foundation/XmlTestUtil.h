#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// <prefix:name>text</prefix:name>, with no text node when text is empty.
inline Basalt::Ref<Basalt::Xml::ElementNode> Element(const std::string& prefix,
                                                     const std::string& name,
                                                     const std::string& text = "") {
    Basalt::Ref<Basalt::Xml::ElementNode> element;
    Basalt::Xml::CreateElementNode(prefix, name, element);
    if (!text.empty()) {
        Basalt::Ref<Basalt::Xml::TextNode> node;
        Basalt::Xml::CreateTextNode(node);
        node->SetValue(text);
        element->AppendChild(node);
    }
    return element;
}

// The child elements of element, in document order.
inline std::vector<Basalt::Ref<Basalt::Xml::ElementNode>> ChildElements(
    const Basalt::Xml::ElementNode& element) {
    std::vector<Basalt::Ref<Basalt::Xml::ElementNode>> elements;
    for (auto child = element.GetFirstChild(); child; child = child->GetNextSibling()) {
        if (auto* found = dynamic_cast<Basalt::Xml::ElementNode*>(child.Get())) {
            elements.emplace_back(found);
        }
    }
    return elements;
}

}  // namespace XmlTest

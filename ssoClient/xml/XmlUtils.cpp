#include "internal/xml/XmlUtils.h"

#include <cstdio>
#include <string_view>
#include <typeinfo>

#include <basalt/Exception.h>
#include <basalt/IO.h>

#include <ssoClient/Exceptions.h>

namespace SsoClient {

bool SkipWsAndCommentsFilter::Accept(const Basalt::Ref<Basalt::Xml::Node>& node) const {
    return Accept(Basalt::Xml::NodeView(node.Get()));
}

bool SkipWsAndCommentsFilter::Accept(const Basalt::Xml::NodeView& node) const {
    switch (node.GetNodeType()) {
        case Basalt::Xml::NodeType::Text:
            return node.GetText().find_first_not_of("\t\n\r ") != std::string_view::npos;
        case Basalt::Xml::NodeType::Comment:
            return false;
        default:
            return true;
    }
}

std::pair<std::string, std::string> ResolveQName(const Basalt::Xml::ElementNode& element,
                                                 const std::string& qualifiedName,
                                                 const std::string& defaultNamespace) {
    const size_t colon = qualifiedName.find(':');
    if (colon == std::string::npos) {
        return {defaultNamespace, qualifiedName};
    }
    const std::string prefix = qualifiedName.substr(0, colon);
    std::string uri;
    if (!element.LookupNamespaceUri(prefix, uri)) {
        // The message has no blank between the element's name and "at"; callers match on it.
        throw ParseException(
            "Element " + element.GetLocalName() + "at " + std::to_string(element.GetLine()) + "," +
            std::to_string(element.GetColumn()) + " uses undefined prefix: `" + prefix + "'");
    }
    return {std::move(uri), qualifiedName.substr(colon + 1)};
}

void ParseXmlText(const std::string& text, Basalt::Ref<Basalt::Xml::Document>& document) {
    Basalt::Ref<Basalt::StringReader> reader;
    Basalt::CreateStringReader(text, reader);
    Basalt::Ref<Basalt::Xml::XMLHandler> handler;
    Basalt::Xml::CreateXMLDocumentHandler(handler);
    Basalt::Ref<Basalt::Xml::XMLParser> parser;
    Basalt::Xml::CreateXMLParser(handler.Get(), parser);
    parser->Parse(reader.Get());

    const Basalt::Ref<Basalt::Object> result = handler->GetResult();
    if (!result) {
        document = nullptr;
        return;
    }
    auto* parsed = dynamic_cast<Basalt::Xml::Document*>(result.Get());
    if (parsed == nullptr) {
        Basalt::ThrowTypeMismatchException(typeid(Basalt::Xml::Document), typeid(*result.Get()));
    }
    document = parsed;
}

std::string FormatXmlDateTime(const Basalt::System::DateTime& value) {
    const Basalt::System::DateTimeFields f = value.GetFields();
    // xsd:dateTime years have four digits here; a fifth would make a value peers misread.
    if (f.year < 1 || f.year > 9999) {
        throw Basalt::InvalidArgumentException("Date outside the years 0001 to 9999: year " +
                                               std::to_string(f.year));
    }
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", f.year, f.month,
                  f.day, f.hour, f.minute, f.second, f.microsecond / 1000);
    // The short form is "YYYY-MM-DDThh:mm:ss" followed by the zone suffix.
    constexpr size_t kShortFormLength = 19;
    const std::string shortForm = value.ToShortStringBias();
    std::string result(buffer);
    if (shortForm.size() > kShortFormLength) {
        result.append(shortForm, kShortFormLength, std::string::npos);
    }
    return result;
}

Basalt::System::DateTime AddMinutes(const Basalt::System::DateTime& value, int32_t minutes) {
    // Wraps in 32 bits by design; the unsigned multiply keeps the wrap well defined.
    const auto product = static_cast<int32_t>(static_cast<uint32_t>(minutes) * 60000000u);
    return Basalt::System::DateTimeFromUtc(static_cast<long>(value.GetUtcTime() + product), false);
}

}  // namespace SsoClient

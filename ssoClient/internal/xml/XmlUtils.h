#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <basalt/DateTime.h>
#include <basalt/Object.h>
#include <basalt/Xml.h>

namespace SsoClient {

// Decides which DOM nodes a walk over children sees.
class NodeFilter {
  public:
    virtual ~NodeFilter() = default;
    // True keeps the node.
    virtual bool Accept(const Basalt::Ref<Basalt::Xml::Node>& node) const = 0;
};

// Skips comments and text nodes made only of tab, line feed, carriage return and blank (or
// empty); keeps everything else. Stateless, so one instance may be shared freely.
class SkipWsAndCommentsFilter : public NodeFilter {
  public:
    bool Accept(const Basalt::Ref<Basalt::Xml::Node>& node) const override;
    // The same for a walk over views.
    bool Accept(const Basalt::Xml::NodeView& node) const;
};

// Resolves qualifiedName in the namespace scope of element: (namespace URI, local name). A name
// without a colon is in defaultNamespace. Throws ParseException when the prefix is unbound.
std::pair<std::string, std::string> ResolveQName(const Basalt::Xml::ElementNode& element,
                                                 const std::string& qualifiedName,
                                                 const std::string& defaultNamespace);

// Parses the whole of text into document (null if the parser produced nothing). Parser failures
// pass through as Basalt::Xml::XMLParseException.
void ParseXmlText(const std::string& text, Basalt::Ref<Basalt::Xml::Document>& document);

// The wire form of an instant: "2024-01-05T03:04:05.006" followed by the zone suffix of the
// foundation's short form ("Z" for UTC).
std::string FormatXmlDateTime(const Basalt::System::DateTime& value);

// value plus minutes. The product minutes * 60000000 is formed in 32 bits and wraps beyond 35
// minutes; callers keep within that (request timestamps use 10).
Basalt::System::DateTime AddMinutes(const Basalt::System::DateTime& value, int32_t minutes);

}  // namespace SsoClient

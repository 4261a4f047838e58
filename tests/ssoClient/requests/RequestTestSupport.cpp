#include "RequestTestSupport.h"

#include <gtest/gtest.h>

#include <sstream>

#include "TestData.h"
#include "internal/xml/XmlUtils.h"

namespace RequestTest {

using Basalt::Ref;
using Basalt::Xml::ElementNode;

TextToken DataToken(SsoClient::TokenType type) {
    return TextToken(TestData::Read("requests/assertion.xml"),
                     "_4c5a2d8e-0f1b-4a77-9c1e-5d7f00b1c0de", type);
}

Ref<ElementNode> Parse(const std::string& text) {
    Ref<Basalt::Xml::Document> document;
    SsoClient::ParseXmlText(text, document);
    return document->GetDocumentElement();
}

std::vector<Ref<ElementNode>> Children(const ElementNode& element) {
    std::vector<Ref<Basalt::Xml::Node>> nodes;
    element.GetChildren(nodes);
    std::vector<Ref<ElementNode>> elements;
    for (const auto& node : nodes) {
        if (auto* child = dynamic_cast<ElementNode*>(node.Get())) {
            elements.emplace_back(child);
        }
    }
    return elements;
}

std::string Names(const ElementNode& element) {
    std::string names;
    for (const auto& child : Children(element)) {
        names += (names.empty() ? "" : " ") + child->GetQualifiedName();
    }
    return names;
}

Ref<ElementNode> Path(const ElementNode& element, const std::string& path) {
    Ref<ElementNode> current(const_cast<ElementNode*>(&element));
    std::istringstream steps(path);
    for (std::string name; std::getline(steps, name, '/');) {
        std::vector<Ref<ElementNode>> found;
        for (const auto& child : Children(*current)) {
            if (child->GetLocalName() == name) {
                found.push_back(child);
            }
        }
        if (found.size() != 1) {
            ADD_FAILURE() << found.size() << " " << name << " under " << current->GetLocalName();
            throw std::logic_error("no single " + name);
        }
        current = found[0];
    }
    return current;
}

std::string Value(const ElementNode& element, const std::string& path) {
    const size_t at = path.find('@');
    const Ref<ElementNode> target = Path(element, path.substr(0, at == 0 ? 0 : at - 1));
    std::string value;
    if (at == std::string::npos) {
        return target->GetTextContent();
    }
    return target->GetAttribute(path.substr(at + 1), value) ? value : "(none)";
}

int64_t Span(const ElementNode& element, const std::string& path) {
    const auto seconds = [&](const char* name) {
        return Basalt::System::DateTime(Value(element, path + "/" + name)).GetUtcTime() / 1000000;
    };
    return seconds("Expires") - seconds("Created");
}

}  // namespace RequestTest

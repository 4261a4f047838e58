#include "RequestTestSupport.h"

#include <gtest/gtest.h>

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

std::vector<std::string> Names(const ElementNode& element) {
    std::vector<std::string> names;
    for (const auto& child : Children(element)) {
        names.push_back(child->GetQualifiedName());
    }
    return names;
}

Ref<ElementNode> Path(const ElementNode& element, const std::vector<std::string>& localNames) {
    Ref<ElementNode> current(const_cast<ElementNode*>(&element));
    for (const std::string& name : localNames) {
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

std::string Value(const ElementNode& element, std::vector<std::string> path) {
    std::string attribute;
    if (!path.empty() && path.back()[0] == '@') {
        attribute = path.back().substr(1);
        path.pop_back();
    }
    const Ref<ElementNode> target = Path(element, path);
    std::string value;
    const bool found = attribute.empty() ? (value = target->GetTextContent(), true)
                                         : target->GetAttribute(attribute, value);
    return found ? value : "(no " + attribute + ")";
}

int64_t Span(const ElementNode& element, const std::vector<std::string>& path) {
    const auto seconds = [&](const char* name) {
        std::vector<std::string> to = path;
        to.push_back(name);
        return Basalt::System::DateTime(Value(element, to)).GetUtcTime() / 1000000;
    };
    return seconds("Expires") - seconds("Created");
}

}  // namespace RequestTest

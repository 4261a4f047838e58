#include "RequestTestSupport.h"

#include <basalt/IO.h>
#include <gtest/gtest.h>

#include "internal/xml/XmlUtils.h"

namespace RequestTest {

Basalt::Ref<Basalt::Xml::ElementNode> Parse(const std::string& text) {
    Basalt::Ref<Basalt::Xml::Document> document;
    SsoClient::ParseXmlText(text, document);
    EXPECT_TRUE(document);
    return document ? document->GetDocumentElement() : nullptr;
}

std::vector<Basalt::Ref<Basalt::Xml::ElementNode>> ChildElements(
    const Basalt::Xml::ElementNode& element) {
    std::vector<Basalt::Ref<Basalt::Xml::Node>> nodes;
    element.GetChildren(nodes);
    std::vector<Basalt::Ref<Basalt::Xml::ElementNode>> elements;
    for (const auto& node : nodes) {
        if (auto* child = dynamic_cast<Basalt::Xml::ElementNode*>(node.Get())) {
            elements.emplace_back(child);
        }
    }
    return elements;
}

std::vector<std::string> ChildNames(const Basalt::Xml::ElementNode& element) {
    std::vector<std::string> names;
    for (const auto& child : ChildElements(element)) {
        names.push_back(child->GetQualifiedName());
    }
    return names;
}

Basalt::Ref<Basalt::Xml::ElementNode> Child(const Basalt::Xml::ElementNode& element,
                                            const std::string& localName) {
    Basalt::Ref<Basalt::Xml::ElementNode> found;
    int count = 0;
    for (const auto& child : ChildElements(element)) {
        if (child->GetLocalName() == localName) {
            found = child;
            ++count;
        }
    }
    EXPECT_EQ(count, 1) << localName << " under " << element.GetQualifiedName();
    return found;
}

Basalt::Ref<Basalt::Xml::ElementNode> Path(const Basalt::Xml::ElementNode& element,
                                           const std::vector<std::string>& localNames) {
    Basalt::Ref<Basalt::Xml::ElementNode> current(const_cast<Basalt::Xml::ElementNode*>(&element));
    for (const std::string& name : localNames) {
        current = Child(*current, name);
        if (!current) {
            ADD_FAILURE() << "no " << name;
            return nullptr;
        }
    }
    return current;
}

std::string Attribute(const Basalt::Xml::ElementNode& element, const std::string& name) {
    std::string value;
    EXPECT_TRUE(element.GetAttribute(name, value)) << name << " on " << element.GetQualifiedName();
    return value;
}

std::string Serialize(const Basalt::Xml::ElementNode& element) {
    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    element.Serialize(writer.Get());
    return writer->GetString();
}

}  // namespace RequestTest

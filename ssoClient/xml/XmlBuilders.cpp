#include "internal/xml/XmlBuilders.h"

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <ssoClient/SamlToken.h>

#include "internal/xml/XmlUtils.h"

namespace SsoClient {

namespace {

bool IsNamespaceDeclaration(std::string_view name) {
    return name == "xmlns" || name.rfind("xmlns:", 0) == 0;
}

void SetAttributes(Basalt::Xml::ElementNode& element, const AttributeMap& attributes) {
    // Declarations go first so that a prefixed attribute ("wsu:Id") can use a prefix declared
    // on the same element whatever the names' order; the serialised form is the same either
    // way, declarations always preceding attributes.
    for (bool declarations : {true, false}) {
        for (const auto& [attributeName, value] : attributes) {
            if (IsNamespaceDeclaration(attributeName) == declarations) {
                element.SetAttribute(attributeName, value);
            }
        }
    }
}

Basalt::Ref<Basalt::Xml::ElementNode> NewElement(const std::string& prefix, const std::string& name,
                                                 const AttributeMap& attributes) {
    Basalt::Ref<Basalt::Xml::ElementNode> element;
    Basalt::Xml::CreateElementNode(prefix, name, element);
    SetAttributes(*element, attributes);
    return element;
}

Basalt::Ref<Basalt::Xml::ElementNode> NewChildElement(Basalt::Xml::ElementNode& parent,
                                                      const std::string& prefix,
                                                      const std::string& name,
                                                      const AttributeMap& attributes) {
    Basalt::Ref<Basalt::Xml::ElementNode> element;
    Basalt::Xml::CreateChildElement(&parent, prefix, name, element);
    SetAttributes(*element, attributes);
    return element;
}

}  // namespace

AttributeMap ToAttributeMap(const AttributeList& list) {
    AttributeMap map;
    for (const auto& [name, value] : list) {
        map.emplace(name, value);
    }
    return map;
}

XMLBaseBuilder::~XMLBaseBuilder() = default;

void XMLBaseBuilder::BuildChild(Basalt::Xml::ElementNode& parent,
                                Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    Build(out);
    parent.AppendChild(out);
}

ElementBuilderImpl::ElementBuilderImpl(std::string prefix, std::string name,
                                       AttributeMap attributes)
    : m_prefix(std::move(prefix)), m_name(std::move(name)), m_attributes(std::move(attributes)) {}

void ElementBuilderImpl::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    out = NewElement(m_prefix, m_name, m_attributes);
}

void ElementBuilderImpl::BuildChild(Basalt::Xml::ElementNode& parent,
                                    Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    out = NewChildElement(parent, m_prefix, m_name, m_attributes);
}

TextElementBuilderImpl::TextElementBuilderImpl(std::string prefix, std::string name,
                                               AttributeMap attributes, std::string text,
                                               bool secret)
    : m_prefix(std::move(prefix)),
      m_name(std::move(name)),
      m_attributes(std::move(attributes)),
      m_text(std::move(text)),
      m_secret(secret) {}

TextElementBuilderImpl::~TextElementBuilderImpl() {
    Basalt::StringUtil::SecureWipe(m_text);
}

void TextElementBuilderImpl::AddText(Basalt::Xml::TextNode& text) const {
    if (m_secret) {
        text.SetSecretValue(m_text);
    } else {
        text.SetValue(m_text);
    }
}

void TextElementBuilderImpl::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    Basalt::Ref<Basalt::Xml::ElementNode> element = NewElement(m_prefix, m_name, m_attributes);
    Basalt::Ref<Basalt::Xml::TextNode> text;
    Basalt::Xml::CreateTextNode(text);
    AddText(*text);
    element->AppendChild(text);
    out = std::move(element);
}

void TextElementBuilderImpl::BuildChild(Basalt::Xml::ElementNode& parent,
                                        Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    Basalt::Ref<Basalt::Xml::ElementNode> element =
        NewChildElement(parent, m_prefix, m_name, m_attributes);
    Basalt::Ref<Basalt::Xml::TextNode> text;
    Basalt::Xml::CreateChildText(element.Get(), text);
    AddText(*text);
    out = std::move(element);
}

PreBuiltElementImpl::PreBuiltElementImpl(Basalt::Ref<Basalt::Xml::ElementNode> element)
    : m_element(std::move(element)) {}

void PreBuiltElementImpl::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    out = m_element;
}

XMLCompositeBuilder::XMLCompositeBuilder(const XMLBuilderPtr& root) : m_root(root) {}

XMLCompositeBuilder& XMLCompositeBuilder::Add(const XMLBuilderPtr& child) {
    if (child) {
        m_children.push_back(child);
    }
    return *this;
}

void XMLCompositeBuilder::BuildChildren(Basalt::Xml::ElementNode& element) const {
    Basalt::Ref<Basalt::Xml::ElementNode> childElement;
    for (const XMLBuilderPtr& child : m_children) {
        child->BuildChild(element, childElement);
    }
}

void XMLCompositeBuilder::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    Basalt::Ref<Basalt::Xml::ElementNode> element;
    m_root->Build(element);
    BuildChildren(*element);
    out = std::move(element);
}

void XMLCompositeBuilder::BuildChild(Basalt::Xml::ElementNode& parent,
                                     Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    Basalt::Ref<Basalt::Xml::ElementNode> element;
    m_root->BuildChild(parent, element);
    BuildChildren(*element);
    out = std::move(element);
}

XMLBuilderPtr CreateElementBuilder(const std::string& prefix, const std::string& name) {
    return std::make_shared<ElementBuilderImpl>(prefix, name);
}

XMLBuilderPtr CreateElementBuilder(const std::string& prefix, const std::string& name,
                                   const AttributeMap& attributes) {
    return std::make_shared<ElementBuilderImpl>(prefix, name, attributes);
}

XMLBuilderPtr CreateTextElementBuilder(const std::string& prefix, const std::string& name,
                                       const std::string& text) {
    return std::make_shared<TextElementBuilderImpl>(prefix, name, AttributeMap(), text);
}

XMLBuilderPtr CreateTextElementBuilder(const std::string& prefix, const std::string& name,
                                       const AttributeMap& attributes, const std::string& text) {
    return std::make_shared<TextElementBuilderImpl>(prefix, name, attributes, text);
}

XMLBuilderPtr CreateSecretTextElementBuilder(const std::string& prefix, const std::string& name,
                                             const AttributeMap& attributes,
                                             const std::string& text) {
    return std::make_shared<TextElementBuilderImpl>(prefix, name, attributes, text, true);
}

XMLBuilderPtr CreatePreBuiltElement(const SamlToken& token) {
    Basalt::Ref<Basalt::Xml::Document> document;
    ParseXmlText(token.GetXml(), document);
    Basalt::Ref<Basalt::Xml::ElementNode> root;
    if (document) {
        document->TakeDocumentElement(root);
    }
    if (!root) {
        throw Basalt::InvalidArgumentException("The token's XML has no root element");
    }
    return std::make_shared<PreBuiltElementImpl>(std::move(root));
}

}  // namespace SsoClient

#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <basalt/Xml.h>

namespace SsoClient {

class SamlToken;

// Attribute name to value. Being an ordered map, a built element's attributes are set in
// ascending byte order of their names; the first value given for a name wins.
using AttributeMap = std::map<std::string, std::string, std::less<>>;

// Attribute name/value pairs of string literals, in the order written.
using AttributeList = std::deque<std::pair<const char*, const char*>>;

// Inserts each pair in turn (the first occurrence of a name wins).
AttributeMap ToAttributeMap(const AttributeList& list);

// Describes an element; Build makes a fresh DOM element for it each time (except for a
// pre-built element, which always yields the same node).
class XMLBaseBuilder {
  public:
    virtual ~XMLBaseBuilder();
    // Creates the element with its subtree into out, replacing what out held.
    virtual void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const = 0;
    // The same, made as the last child of parent (out receives it). By default built apart and
    // appended; the element builders make it in parent's document directly, so that a tree
    // built from its root is never moved between documents.
    virtual void BuildChild(Basalt::Xml::ElementNode& parent,
                            Basalt::Ref<Basalt::Xml::ElementNode>& out) const;
};

using XMLBuilderPtr = std::shared_ptr<XMLBaseBuilder>;

// An element without content.
class ElementBuilderImpl : public XMLBaseBuilder {
  public:
    ElementBuilderImpl(std::string prefix, std::string name, AttributeMap attributes = {});
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;
    void BuildChild(Basalt::Xml::ElementNode& parent,
                    Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    std::string m_prefix;
    std::string m_name;
    AttributeMap m_attributes;
};

// An element whose only content is text (always one text child, even when empty).
class TextElementBuilderImpl : public XMLBaseBuilder {
  public:
    // A secret text (a password) goes into the DOM with TextNode::SetSecretValue.
    TextElementBuilderImpl(std::string prefix, std::string name, AttributeMap attributes,
                           std::string text, bool secret = false);
    // The text may be a password: it is wiped when the builder goes.
    ~TextElementBuilderImpl() override;
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;
    void BuildChild(Basalt::Xml::ElementNode& parent,
                    Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    void AddText(Basalt::Xml::TextNode& text) const;

    std::string m_prefix;
    std::string m_name;
    AttributeMap m_attributes;
    std::string m_text;
    bool m_secret;
};

// An element that already exists as DOM, handed out as it is.
class PreBuiltElementImpl : public XMLBaseBuilder {
  public:
    explicit PreBuiltElementImpl(Basalt::Ref<Basalt::Xml::ElementNode> element);
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    Basalt::Ref<Basalt::Xml::ElementNode> m_element;
};

// An element (built by root) with element children in the order added.
class XMLCompositeBuilder : public XMLBaseBuilder {
  public:
    explicit XMLCompositeBuilder(const XMLBuilderPtr& root);
    // Appends child; a null child is ignored, so optional parts can be passed straight in.
    XMLCompositeBuilder& Add(const XMLBuilderPtr& child);
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;
    void BuildChild(Basalt::Xml::ElementNode& parent,
                    Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    void BuildChildren(Basalt::Xml::ElementNode& element) const;

    XMLBuilderPtr m_root;
    std::vector<XMLBuilderPtr> m_children;
};

XMLBuilderPtr CreateElementBuilder(const std::string& prefix, const std::string& name);
XMLBuilderPtr CreateElementBuilder(const std::string& prefix, const std::string& name,
                                   const AttributeMap& attributes);
XMLBuilderPtr CreateTextElementBuilder(const std::string& prefix, const std::string& name,
                                       const std::string& text);
XMLBuilderPtr CreateTextElementBuilder(const std::string& prefix, const std::string& name,
                                       const AttributeMap& attributes, const std::string& text);
// For a password: its text is wiped from every DOM and output buffer before they are freed.
XMLBuilderPtr CreateSecretTextElementBuilder(const std::string& prefix, const std::string& name,
                                             const AttributeMap& attributes,
                                             const std::string& text);
// The root element of the token's XML, parsed anew, to be carried verbatim in a request.
// Parse failures pass out unchanged.
XMLBuilderPtr CreatePreBuiltElement(const SamlToken& token);

}  // namespace SsoClient

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <basalt/IO.h>
#include <basalt/Object.h>

namespace Basalt {
namespace Xml {

class Document;
class ElementNode;

enum class NodeType {
    Element,
    Text,  // character data, including CDATA sections
    Comment,
    ProcessingInstruction,
    Document,
    Other,
};

// A node of a DOM tree. Nodes are reference counted; a node keeps its document alive, so an
// element may outlive every reference to its document. A tree is used by one thread at a time.
class BASALT_API Node : public virtual Object {
  public:
    virtual NodeType GetNodeType() const = 0;
    // The children in document order, of every kind (text, comments and processing
    // instructions included; adjacent text nodes are not merged).
    virtual void GetChildren(std::vector<Ref<Node>>& children) const = 0;
    virtual Ref<Node> GetFirstChild() const = 0;
    virtual Ref<Node> GetNextSibling() const = 0;
    // The parent element, or null for a root element or a detached node.
    virtual Ref<ElementNode> GetParentElement() const = 0;
    // The document the node belongs to now.
    virtual Ref<Document> GetOwnerDocument() const = 0;
    // The text of a text node, a comment or a processing instruction; for an element, the
    // concatenated text of its descendant text nodes.
    virtual std::string GetTextContent() const = 0;
    // Writes this node and its subtree exactly as it stands (no reformatting, no XML
    // declaration), with the namespace declarations needed to make it stand alone.
    virtual void Serialize(Writer* writer) const = 0;

  protected:
    ~Node() override;
};

// Character data.
class BASALT_API TextNode : public virtual Node {
  public:
    virtual std::string GetValue() const = 0;
    virtual void SetValue(std::string_view value) = 0;
    // Sets a value that must not outlive its use (a password): from now on the node's text is
    // wiped before it is freed or replaced, follows the node into any document it is appended
    // to, and never passes through libxml2's output buffers when the tree is serialised (it
    // is written straight to the writer). Throws std::bad_alloc.
    virtual void SetSecretValue(std::string_view value) = 0;

  protected:
    ~TextNode() override;
};

// An attribute as read from an element.
struct Attribute {
    std::string qualifiedName;  // as written, e.g. "xsi:type" or "ID"
    std::string prefix;         // empty when unprefixed
    std::string localName;
    std::string namespaceUri;  // empty for unprefixed attributes
    std::string value;
};

class BASALT_API ElementNode : public virtual Node {
  public:
    virtual std::string GetLocalName() const = 0;
    // The namespace URI of the element, empty when it has none.
    virtual std::string GetNamespaceUri() const = 0;
    // True if the element has that namespace URI (empty for none) and local name; copies
    // nothing, for walks that check every element they pass.
    virtual bool HasName(std::string_view namespaceUri, std::string_view localName) const = 0;
    // The prefix as written, empty when unprefixed.
    virtual std::string GetPrefix() const = 0;
    // "prefix:local" or "local".
    virtual std::string GetQualifiedName() const = 0;

    // Attributes in document order; namespace declarations are not attributes here.
    virtual void GetAttributes(std::vector<Attribute>& attributes) const = 0;
    // Namespace declarations made on this element, in document order, as (prefix, URI); the
    // prefix is empty for a default namespace declaration.
    virtual void GetNamespaceDeclarations(
        std::vector<std::pair<std::string, std::string>>& declarations) const = 0;
    // The value of the attribute with that qualified name as written; false if absent.
    virtual bool GetAttribute(std::string_view qualifiedName, std::string& value) const = 0;
    // The value of the attribute with that namespace URI (empty for none) and local name.
    virtual bool GetAttributeNS(std::string_view namespaceUri, std::string_view localName,
                                std::string& value) const = 0;
    // Sets an attribute. "xmlns:p" declares prefix p and "xmlns" the default namespace;
    // "p:name" sets a namespaced attribute, p resolved in scope. When p is not declared yet (the
    // builders set "p:name" before "xmlns:p"), it is resolved like a detached element's prefix:
    // once declared here or on an ancestor, at the latest when serialised (InvalidStateException
    // if still unbound then). A malformed name throws InvalidArgumentException.
    virtual void SetAttribute(std::string_view name, std::string_view value) = 0;
    // The namespace URI bound to prefix in this element's scope (empty prefix: the default
    // namespace); false if unbound.
    virtual bool LookupNamespaceUri(std::string_view prefix, std::string& uri) const = 0;
    // Appends child as the last child. A node from another document is adopted, its in-scope
    // namespace declarations reconciled so that its meaning does not change; a node that has a
    // parent is moved. Appending an ancestor of this element throws InvalidArgumentException.
    virtual void AppendChild(const Ref<Node>& child) = 0;
    // The first child element with that namespace URI and local name, or null.
    virtual Ref<ElementNode> FindChildElement(std::string_view namespaceUri,
                                              std::string_view localName) const = 0;
    // Where the element's start tag began in the parsed text (1-based); 0 for built elements.
    virtual int GetLine() const = 0;
    virtual int GetColumn() const = 0;

  protected:
    ~ElementNode() override;
};

class BASALT_API Document : public virtual Node {
  public:
    // The root element, or null.
    virtual Ref<ElementNode> GetDocumentElement() const = 0;
    // Hands the root element over to a new owner: element receives it and keeps the document's
    // content alive from then on, whether or not the document itself is still referenced. The
    // document stays usable and still reports the element as its root.
    virtual void TakeDocumentElement(Ref<ElementNode>& element) = 0;

  protected:
    ~Document() override;
};

class AttributeView;

// A light, read-only handle on a node, for walks that look at every node of a tree: it holds no
// reference, allocates nothing, and hands out names and text as views into the tree. It is valid
// only while something else keeps the tree alive (a Ref to the document or to any of its nodes)
// and nobody changes the tree; like the tree, it may then be read from several threads.
//
//   Basalt::Xml::NodeView root(document->GetDocumentElement().Get());
//   for (auto child = root.GetFirstChild(); child; child = child.GetNextSibling()) {
//       if (child.GetNodeType() == Basalt::Xml::NodeType::Element) use(child.GetLocalName());
//   }
class BASALT_API NodeView {
  public:
    NodeView() = default;
    // The view of node, a node made by this library (InvalidArgumentException otherwise); null
    // gives an empty view.
    explicit NodeView(const Node* node);

    // False for an empty view (no node: past the last child, say). Nothing else may be called
    // on an empty view.
    explicit operator bool() const { return m_node != nullptr; }
    bool operator==(const NodeView& other) const { return m_node == other.m_node; }

    NodeType GetNodeType() const;
    // Empty views when there is none.
    NodeView GetFirstChild() const;
    NodeView GetNextSibling() const;

    // Of an element: its local name, its namespace URI (empty when it has none) and its prefix
    // as written (empty when unprefixed).
    std::string_view GetLocalName() const;
    std::string_view GetNamespaceUri() const;
    std::string_view GetPrefix() const;
    // The first attribute of an element (namespace declarations are not attributes); an empty
    // view when it has none.
    AttributeView GetFirstAttribute() const;
    // The namespace URI bound to prefix in an element's scope (empty prefix: the default
    // namespace); false if unbound.
    bool LookupNamespaceUri(std::string_view prefix, std::string_view& uri) const;

    // The text of a text node, a comment or a processing instruction (not of an element).
    std::string_view GetText() const;

    // The node itself, for the operations that take one. Null for an empty view.
    Ref<Node> GetNode() const;
    Ref<ElementNode> GetElement() const;

  private:
    friend class AttributeView;
    explicit NodeView(void* node) : m_node(node) {}
    void* m_node = nullptr;  // the native node
};

// An attribute of an element seen through a NodeView, under the same conditions.
class BASALT_API AttributeView {
  public:
    AttributeView() = default;

    explicit operator bool() const { return m_attr != nullptr; }
    // The element's next attribute; an empty view after the last.
    AttributeView GetNext() const;

    std::string_view GetLocalName() const;
    // Empty when unprefixed.
    std::string_view GetPrefix() const;
    // Empty for an unprefixed attribute.
    std::string_view GetNamespaceUri() const;
    // The value (a copy: it may be made of several pieces).
    std::string GetValue() const;
    // The value as a view into the tree in the usual case of one piece, else into storage; valid
    // while both last.
    std::string_view GetValue(std::string& storage) const;

  private:
    friend class NodeView;
    explicit AttributeView(void* attr) : m_attr(attr) {}
    void* m_attr = nullptr;  // the native attribute
};

// Receives a parse; the document handler builds a Document.
class BASALT_API XMLHandler : public virtual Object {
  public:
    // What the parse produced (a Document for the document handler), or null before a
    // successful parse.
    virtual Ref<Object> GetResult() const = 0;

  protected:
    ~XMLHandler() override;
};

// Limits that bound what a parse may cost. The defaults accept tokens and SOAP replies of a few
// hundred kilobytes with room to spare.
// Exceeding a limit throws XMLParseException. libxml2's own limits apply underneath (no "huge"
// mode): at most 256 levels of nesting whatever maxDepth says, 10 MB per text node.
struct ParserLimits {
    size_t maxDocumentBytes = 8 * 1024 * 1024;
    size_t maxDepth = 128;
    // Attributes and namespace declarations in one start tag.
    size_t maxAttributesPerElement = 256;
};

// A namespace-aware, non-validating parser. Documents with a DOCTYPE are rejected, entities
// other than the predefined ones and character references are never expanded, and nothing is
// read from the network or the file system.
class BASALT_API XMLParser : public virtual Object {
  public:
    // Reads the whole input into the handler. Malformed or refused input throws
    // XMLParseException whose message names the problem with its line and column.
    virtual void Parse(Reader* input) = 0;

  protected:
    ~XMLParser() override;
};

BASALT_API void CreateXMLDocumentHandler(Ref<XMLHandler>& handler);
BASALT_API void CreateXMLParser(XMLHandler* handler, Ref<XMLParser>& parser);
BASALT_API void CreateXMLParser(XMLHandler* handler, const ParserLimits& limits,
                                Ref<XMLParser>& parser);

// A detached element with that prefix and local name; its namespace is resolved from
// declarations made on it or, once attached, on its ancestors, and at the latest when it is
// serialised (an unresolvable prefix then throws InvalidStateException).
BASALT_API void CreateElementNode(const std::string& prefix, const std::string& localName,
                                  Ref<ElementNode>& element);
// A detached, empty text node.
BASALT_API void CreateTextNode(Ref<TextNode>& text);

// The same two made as the last child of parent, in parent's document: the result is what
// appending a detached node would give, without moving it between documents. Building a tree
// from the top down this way costs no copy per level. parent must be a node of this library
// (InvalidArgumentException otherwise).
BASALT_API void CreateChildElement(ElementNode* parent, const std::string& prefix,
                                   const std::string& localName, Ref<ElementNode>& element);
BASALT_API void CreateChildText(ElementNode* parent, Ref<TextNode>& text);

}  // namespace Xml
}  // namespace Basalt

// The DOM classes over libxml2: one wrapper per native node, made on first use and cached in
// the node's _private (under the owner's mutex, so that threads reading one tree agree on it);
// every wrapper holds a reference to its document's owner.

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <unordered_set>

#include <basalt/Exception.h>
#include <basalt/Format.h>
#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include <basalt/Xml.h>
#include "internal/system/FoundationLog.h"
#include "internal/xml/XmlInternal.h"

namespace Basalt {
namespace Xml {

Node::~Node() = default;
TextNode::~TextNode() = default;
ElementNode::~ElementNode() = default;
Document::~Document() = default;

void InitXmlLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
}

namespace {

// Replaces a string that the tree owns.
void ReplaceTreeString(const xmlChar*& field, const std::string& value) {
    UniquePtr<XmlString> old(const_cast<xmlChar*>(field));
    field = xmlStrdup(AsXmlChars(value.c_str()));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// DocOwner

DocOwner::DocOwner(UniquePtr<xmlDoc> doc) : m_doc(std::move(doc)) {
    m_doc->_private = this;
    // Serialise as UTF-8 whatever the input's declared encoding was (the tree is UTF-8 inside).
    ReplaceTreeString(m_doc->encoding, "UTF-8");
}

DocOwner::~DocOwner() {
    for (xmlNode* node : m_secrets) {
        WipeText(node);
    }
    for (xmlNode* node : m_detached) {
        if (node->parent == nullptr && node->doc == m_doc.get()) {
            xmlFreeNode(node);
        }
    }
    m_doc->_private = nullptr;
}

std::pair<int, int> DocOwner::GetPosition(const xmlNode* node) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto byNode = [](const Position& a, const Position& b) { return a.node < b.node; };
    if (!m_positionsSorted) {
        std::sort(m_positions.begin(), m_positions.end(), byNode);
        m_positionsSorted = true;
    }
    auto found =
        std::lower_bound(m_positions.begin(), m_positions.end(), Position{node, 0, 0}, byNode);
    if (found == m_positions.end() || found->node != node) {
        return {0, 0};
    }
    return {found->line, found->column};
}

void DocOwner::AddSecret(xmlNode* node) {
    if (!IsSecret(node)) {
        m_secrets.push_back(node);
    }
}

bool DocOwner::IsSecret(const xmlNode* node) const {
    return std::find(m_secrets.begin(), m_secrets.end(), node) != m_secrets.end();
}

void WipeText(xmlNode* node) {
    if (node->content && node->content != reinterpret_cast<xmlChar*>(&node->properties)) {
        StringUtil::SecureWipe(node->content, static_cast<size_t>(xmlStrlen(node->content)));
    }
}

bool DocOwner::FindPending(const void* node, std::string& prefix) const {
    if (!m_hasPending.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_pending.find(node);
    if (found == m_pending.end()) {
        return false;
    }
    prefix = found->second;
    return true;
}

const std::string* DocOwner::PendingPrefix(const void* node) const {
    if (!m_hasPending.load(std::memory_order_acquire)) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_pending.find(node);
    return found == m_pending.end() ? nullptr : &found->second;
}

void DocOwner::AddPending(const void* node, std::string prefix) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pending[node] = std::move(prefix);
    m_hasPending.store(true, std::memory_order_release);
}

void DocOwner::ForgetDetached(xmlNode* node) {
    m_detached.erase(std::remove(m_detached.begin(), m_detached.end(), node), m_detached.end());
}

namespace {

// Calls visit on node and every node below it (attributes included), parents first.
template <class Visit>
void WalkSubtree(xmlNode* root, Visit&& visit) {
    xmlNode* node = root;
    while (node) {
        visit(node);
        if (node->type == XML_ELEMENT_NODE) {
            for (xmlAttr* attr = node->properties; attr; attr = attr->next) {
                visit(reinterpret_cast<xmlNode*>(attr));
            }
        }
        if (node->children && node->type != XML_ENTITY_REF_NODE) {
            node = node->children;
            continue;
        }
        while (node != root && !node->next) {
            node = node->parent;
        }
        node = node == root ? nullptr : node->next;
    }
}

}  // namespace

void DocOwner::TransferSubtree(xmlNode* root, DocOwner& target) {
    std::unordered_set<const xmlNode*> moved;
    WalkSubtree(root, [&](xmlNode* node) {
        if (node->type != XML_ATTRIBUTE_NODE && node->_private) {
            static_cast<NodeCore*>(node->_private)->SetOwner(&target);
        }
        if (node->type == XML_ELEMENT_NODE && !m_positions.empty()) {
            moved.insert(node);
        }
        auto pending = m_pending.find(node);
        if (pending != m_pending.end()) {
            target.AddPending(node, std::move(pending->second));
            m_pending.erase(pending);
        }
        auto secret = std::find(m_secrets.begin(), m_secrets.end(), node);
        if (secret != m_secrets.end()) {
            target.m_secrets.push_back(node);
            m_secrets.erase(secret);
        }
    });
    m_hasPending.store(!m_pending.empty(), std::memory_order_release);
    if (moved.empty()) {
        return;
    }
    auto stays = std::partition(m_positions.begin(), m_positions.end(),
                                [&](const Position& p) { return !moved.count(p.node); });
    target.m_positions.insert(target.m_positions.end(), stays, m_positions.end());
    target.m_positionsSorted = false;
    m_positions.erase(stays, m_positions.end());
    m_positionsSorted = false;
}

Ref<DocOwner> CreateDocOwner() {
    InitXmlLibrary();
    UniquePtr<xmlDoc> doc(xmlNewDoc(AsXmlChars("1.0")));
    if (!doc) {
        throw std::bad_alloc();
    }
    return Ref<DocOwner>(new DocOwner(std::move(doc)));
}

// ---------------------------------------------------------------------------------------------
// Helpers

std::string NodePrefix(const xmlNode* node) {
    if (node->ns) {
        return Str(node->ns->prefix);
    }
    std::string prefix;
    DocOwner::Of(node->doc)->FindPending(node, prefix);
    return prefix;
}

std::string AttrPrefix(const xmlAttr* attr) {
    return NodePrefix(reinterpret_cast<const xmlNode*>(attr));
}

std::string AttrValue(const xmlAttr* attr) {
    const xmlNode* text = attr->children;
    if (text && !text->next && text->type == XML_TEXT_NODE) {
        return Str(text->content);  // the usual shape: one text child
    }
    UniquePtr<XmlString> value(xmlNodeListGetString(attr->doc, attr->children, 1));
    return Str(value.get());
}

std::string_view AttrValueView(const xmlAttr* attr, std::string& storage) {
    const xmlNode* text = attr->children;
    if (text && !text->next && text->type == XML_TEXT_NODE) {
        return text->content ? std::string_view(AsChars(text->content)) : std::string_view();
    }
    storage = AttrValue(attr);
    return storage;
}

void LinkLastChild(xmlNode* parent, xmlNode* child) {
    child->parent = parent;
    child->next = nullptr;
    child->prev = parent->last;
    if (parent->last) {
        parent->last->next = child;
    } else {
        parent->children = child;
    }
    parent->last = child;
}

namespace {

NodeType TypeOf(const xmlNode* node) {
    switch (node->type) {
        case XML_ELEMENT_NODE:
            return NodeType::Element;
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
            return NodeType::Text;
        case XML_COMMENT_NODE:
            return NodeType::Comment;
        case XML_PI_NODE:
            return NodeType::ProcessingInstruction;
        case XML_DOCUMENT_NODE:
            return NodeType::Document;
        default:
            return NodeType::Other;
    }
}

// The declaration in scope of element for prefix (empty: the default namespace), or null.
xmlNs* FindNamespace(xmlNode* element, const std::string& prefix) {
    return xmlSearchNs(element->doc, element,
                       prefix.empty() ? nullptr : AsXmlChars(prefix.c_str()));
}

std::string QualifiedName(const std::string& prefix, const xmlChar* localName) {
    return prefix.empty() ? Str(localName) : prefix + ":" + AsChars(localName);
}

}  // namespace

void ResolvePendingNamespaces(xmlNode* root, bool strict) {
    DocOwner* owner = DocOwner::Of(root->doc);
    if (!owner->m_hasPending.load(std::memory_order_acquire)) {
        return;
    }
    std::lock_guard<std::mutex> lock(owner->m_mutex);
    auto& pending = owner->m_pending;
    struct UpdateFlag {
        DocOwner* owner;
        ~UpdateFlag() { owner->m_hasPending.store(!owner->m_pending.empty()); }
    } update{owner};
    WalkSubtree(root, [&](xmlNode* node) {
        auto found = pending.find(node);
        if (found == pending.end()) {
            return;
        }
        xmlNode* scope = node->type == XML_ATTRIBUTE_NODE ? node->parent : node;
        xmlNs* ns = FindNamespace(scope, found->second);
        if (ns && ns->href && ns->href[0]) {
            node->ns = ns;
        } else if (ns || found->second.empty()) {
            node->ns = nullptr;  // the default namespace is undeclared here: no namespace
        } else if (strict) {
            BASALT_THROW(InvalidStateException, "The prefix '" + found->second + "' of '" +
                                                    QualifiedName(found->second, node->name) +
                                                    "' is not declared");
        } else {
            return;
        }
        pending.erase(found);
    });
}

namespace {

constexpr int kMaxLibraryMessages = 8;
thread_local int t_libraryMessages = 0;  // logged in the outermost capture

std::string Trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
        text.pop_back();
    }
    return text;
}

void LogLibraryMessage(std::string text) {
    if (text.empty() || ++t_libraryMessages > kMaxLibraryMessages) {
        return;
    }
    if (t_libraryMessages == kMaxLibraryMessages) {
        text += " (further libxml2 messages about this document are not logged)";
    }
    Service::LogInternal(FoundationLogger(), Service::Logger::LL_Info, "libxml2: %1",
                         PrintFormatter(text));
}

}  // namespace

LibxmlErrorCapture::LibxmlErrorCapture()
    : m_previous(xmlStructuredError),
      m_previousContext(xmlStructuredErrorContext),
      m_previousGeneric(xmlGenericError),
      m_previousGenericContext(xmlGenericErrorContext) {
    if (m_previous != &LibxmlErrorCapture::OnError) {
        t_libraryMessages = 0;
    }
    xmlSetStructuredErrorFunc(this, &LibxmlErrorCapture::OnError);
    xmlSetGenericErrorFunc(this, &LibxmlErrorCapture::OnMessage);
}

LibxmlErrorCapture::~LibxmlErrorCapture() {
    xmlSetStructuredErrorFunc(m_previousContext, m_previous);
    xmlSetGenericErrorFunc(m_previousGenericContext, m_previousGeneric);
    if (m_previous == &LibxmlErrorCapture::OnError) {
        auto* outer = static_cast<LibxmlErrorCapture*>(m_previousContext);
        if (outer->m_first.empty()) {
            outer->m_first = std::move(m_first);
        }
    }
}

void LibxmlErrorCapture::OnError(void* self, xmlError* error) {
    auto* capture = static_cast<LibxmlErrorCapture*>(self);
    std::string text = Trimmed(error && error->message ? error->message : "");
    if (capture->m_first.empty()) {
        capture->m_first = text;
    }
    LogLibraryMessage(std::move(text));
}

void LibxmlErrorCapture::OnMessage(void*, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    LogLibraryMessage(Trimmed(text));
}

// ---------------------------------------------------------------------------------------------
// Output

namespace {

class OutputSink {
  public:
    explicit OutputSink(Writer* writer) : m_writer(writer) {}

    // Runs dump against an output buffer that forwards to the writer; rethrows what the writer
    // threw.
    template <class Dump>
    void Run(Dump&& dump) {
        UniquePtr<xmlOutputBuffer> buffer(
            xmlOutputBufferCreateIO(&OutputSink::Write, nullptr, this, nullptr));
        if (!buffer) {
            throw std::bad_alloc();
        }
        dump(buffer.get());
        int result = xmlOutputBufferClose(buffer.release());  // flushes and frees it
        if (m_error) {
            std::rethrow_exception(m_error);
        }
        if (result < 0) {
            BASALT_THROW(InvalidStateException, "Serialising the XML tree failed");
        }
    }

  private:
    static int Write(void* context, const char* data, int size) {
        auto* self = static_cast<OutputSink*>(context);
        try {
            self->m_writer->Write(data, static_cast<size_t>(size));
            return size;
        } catch (...) {
            self->m_error = std::current_exception();
            return -1;
        }
    }

    Writer* m_writer;
    std::exception_ptr m_error;
};

}  // namespace

void WriteThrough(Writer* writer, const std::function<void(xmlOutputBuffer*)>& dump) {
    const LibxmlErrorCapture messages;
    OutputSink(writer).Run(dump);
}

namespace {

// While it lives, the secret text nodes of a document hold random markers instead of their
// values, so that libxml2's output buffers (which grow by realloc and are freed unwiped) never
// see a secret; WriteUnmasked puts the values back, escaped as text, on the way to the writer.
class MaskedSecrets {
  public:
    explicit MaskedSecrets(const DocOwner& owner) {
        try {
            for (xmlNode* node : owner.Secrets()) {
                std::string marker = "secret-" + StringUtil::GenerateUuid();
                UniquePtr<XmlString> placeholder(xmlStrdup(AsXmlChars(marker.c_str())));
                if (!placeholder) {
                    throw std::bad_alloc();
                }
                m_masked.push_back({node, node->content, std::move(marker)});
                node->content = placeholder.release();
            }
        } catch (...) {
            Restore();
            throw;
        }
    }
    ~MaskedSecrets() { Restore(); }
    MaskedSecrets(const MaskedSecrets&) = delete;
    MaskedSecrets& operator=(const MaskedSecrets&) = delete;

    bool Any() const { return !m_masked.empty(); }

    void WriteUnmasked(std::string_view text, Writer* writer) const {
        size_t done = 0;
        while (done < text.size()) {
            size_t next = text.size();
            const Masked* found = nullptr;
            for (const Masked& masked : m_masked) {
                size_t at = text.find(masked.marker, done);
                if (at < next) {
                    next = at;
                    found = &masked;
                }
            }
            writer->Write(text.data() + done, next - done);
            if (found) {
                WriteEscaped(AsChars(found->value), writer);
                next += found->marker.size();
            }
            done = next;
        }
    }

  private:
    void Restore() {
        for (const Masked& masked : m_masked) {
            xmlFree(std::exchange(masked.node->content, masked.value));
        }
    }

    struct Masked {
        xmlNode* node;
        xmlChar* value;
        std::string marker;
    };

    // As libxml2 escapes text content.
    static void WriteEscaped(const char* value, Writer* writer) {
        std::string escaped;
        escaped.reserve(5 * std::strlen(value));  // never regrown, so one copy to wipe
        for (const char* c = value; *c; ++c) {
            switch (*c) {
                case '<':
                    escaped += "&lt;";
                    break;
                case '>':
                    escaped += "&gt;";
                    break;
                case '&':
                    escaped += "&amp;";
                    break;
                case '\r':
                    escaped += "&#13;";
                    break;
                default:
                    escaped += *c;
            }
        }
        try {
            writer->Write(escaped);
        } catch (...) {
            StringUtil::SecureWipe(escaped);
            throw;
        }
        StringUtil::SecureWipe(escaped);
    }

    std::vector<Masked> m_masked;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Wrappers

namespace {

void DumpNode(xmlOutputBuffer* buffer, xmlNode* node) {
    xmlNodeDumpOutput(buffer, node->doc, node, 0, 0, "UTF-8");
}

void ClearPrivate(xmlNode* root) {
    WalkSubtree(root, [](xmlNode* node) { node->_private = nullptr; });
}

// Writes an element that sits inside a tree as a standalone fragment: a copy that carries
// every namespace declaration in scope from its ancestors (so prefixed names, and prefixes
// used in attribute values such as xsi:type, keep their meaning).
void SerializeInnerElement(xmlNode* node, Writer* writer) {
    Ref<DocOwner> scratch = CreateDocOwner();
    UniquePtr<XmlNsList> inScope;
    xmlNode* copy = nullptr;
    {
        // libxml2 consults the id table, which a verification may be filling, to copy ids.
        std::lock_guard<std::mutex> lock(DocOwner::Of(node->doc)->Mutex());
        copy = xmlDocCopyNode(node, scratch->GetDoc(), 1);
        inScope.reset(xmlGetNsList(node->doc, node));
    }
    if (!copy) {
        throw std::bad_alloc();
    }
    ClearPrivate(copy);
    xmlDocSetRootElement(scratch->GetDoc(), copy);
    for (xmlNs** ns = inScope.get(); ns && *ns; ++ns) {
        bool declared = false;
        for (xmlNs* own = copy->nsDef; own; own = own->next) {
            declared = declared || xmlStrEqual(own->prefix, (*ns)->prefix);
        }
        if (!declared) {
            xmlNewNs(copy, (*ns)->href, (*ns)->prefix);
        }
    }
    WriteThrough(writer, [&](xmlOutputBuffer* buffer) { DumpNode(buffer, copy); });
}

template <class Interface>
class NodeBase : public ObjectImpl, public Interface, public NodeCore {
  public:
    // Made by WrapNode, which holds the owner's mutex.
    NodeBase(xmlNode* node, DocOwner* owner) : NodeCore(node, owner, m_refCount) {
        node->_private = static_cast<NodeCore*>(this);
    }
    ~NodeBase() override {
        std::lock_guard<std::mutex> lock(Owner()->Mutex());
        if (m_node->_private == static_cast<NodeCore*>(this)) {
            m_node->_private = nullptr;
        }
    }

    Node* AsNode() override { return this; }

    NodeType GetNodeType() const override { return TypeOf(m_node); }

    void GetChildren(std::vector<Ref<Node>>& children) const override {
        children.clear();
        for (xmlNode* child = m_node->children; child; child = child->next) {
            children.push_back(WrapNode(child));
        }
    }
    Ref<Node> GetFirstChild() const override { return WrapNode(m_node->children); }
    Ref<Node> GetNextSibling() const override { return WrapNode(m_node->next); }
    Ref<ElementNode> GetParentElement() const override {
        xmlNode* parent = m_node->parent;
        return parent && parent->type == XML_ELEMENT_NODE ? WrapElement(parent) : nullptr;
    }
    Ref<Document> GetOwnerDocument() const override { return WrapDocument(m_node->doc); }

    std::string GetTextContent() const override {
        switch (m_node->type) {
            case XML_TEXT_NODE:
            case XML_CDATA_SECTION_NODE:
            case XML_COMMENT_NODE:
            case XML_PI_NODE:
                return Str(m_node->content);  // no descendants to join, no copy to free
            default:
                break;
        }
        UniquePtr<XmlString> content(xmlNodeGetContent(m_node));
        return Str(content.get());
    }

    void Serialize(Writer* writer) const override {
        if (!writer) {
            BASALT_THROW(InvalidArgumentException, "No writer to serialise to");
        }
        const MaskedSecrets masked(*Owner());
        if (!masked.Any()) {
            SerializeTo(writer);
            return;
        }
        Ref<StringWriter> withMarkers;
        CreateStringWriter(withMarkers);
        SerializeTo(withMarkers.Get());
        masked.WriteUnmasked(withMarkers->GetString(), writer);
    }

  private:
    void SerializeTo(Writer* writer) const {
        if (m_node->type == XML_ELEMENT_NODE) {
            ResolvePendingNamespaces(m_node, true);
            xmlNode* parent = m_node->parent;
            if (parent && parent->type == XML_ELEMENT_NODE) {
                SerializeInnerElement(m_node, writer);
                return;
            }
        }
        WriteThrough(writer, [&](xmlOutputBuffer* buffer) { DumpNode(buffer, m_node); });
    }
};

class OtherNodeImpl final : public NodeBase<Node> {
  public:
    using NodeBase::NodeBase;
};

class TextNodeImpl final : public NodeBase<TextNode> {
  public:
    using NodeBase::NodeBase;

    std::string GetValue() const override { return Str(m_node->content); }
    void SetValue(std::string_view value) override { Store(value); }
    void SetSecretValue(std::string_view value) override {
        Owner()->AddSecret(m_node);
        Store(value);
    }

  private:
    void Store(std::string_view value) {
        std::string copy(value);  // NUL-terminated for libxml2
        if (Owner()->IsSecret(m_node)) {
            WipeText(m_node);
        }
        xmlNodeSetContent(m_node, AsXmlChars(copy.c_str()));
        StringUtil::SecureWipe(copy);
    }
};

// Splits "p:name" into prefix and local name; both must be non-empty when a colon is present.
std::pair<std::string, std::string> SplitQName(std::string_view name) {
    size_t colon = name.find(':');
    if (name.empty() || (colon != std::string_view::npos &&
                         (colon == 0 || colon + 1 == name.size() ||
                          name.find(':', colon + 1) != std::string_view::npos))) {
        BASALT_THROW(InvalidArgumentException, "Invalid XML name '" + std::string(name) + "'");
    }
    if (colon == std::string_view::npos) {
        return {std::string(), std::string(name)};
    }
    return {std::string(name.substr(0, colon)), std::string(name.substr(colon + 1))};
}

class ElementNodeImpl final : public NodeBase<ElementNode> {
  public:
    using NodeBase::NodeBase;

    std::string GetLocalName() const override { return Str(m_node->name); }
    bool HasName(std::string_view namespaceUri, std::string_view localName) const override {
        if (localName != AsChars(m_node->name)) {
            return false;
        }
        if (m_node->ns) {
            return namespaceUri == AsChars(m_node->ns->href ? m_node->ns->href : AsXmlChars(""));
        }
        return GetNamespaceUri() == namespaceUri;
    }
    std::string GetNamespaceUri() const override {
        if (m_node->ns) {
            return Str(m_node->ns->href);
        }
        std::string uri;
        std::string prefix;
        // A pending prefix reads through to whatever is in scope now.
        if (Owner()->FindPending(m_node, prefix) && LookupNamespaceUri(prefix, uri)) {
            return uri;
        }
        return std::string();
    }
    std::string GetPrefix() const override { return NodePrefix(m_node); }
    std::string GetQualifiedName() const override {
        return QualifiedName(NodePrefix(m_node), m_node->name);
    }

    void GetAttributes(std::vector<Attribute>& attributes) const override {
        attributes.clear();
        size_t count = 0;
        for (xmlAttr* attr = m_node->properties; attr; attr = attr->next) {
            ++count;
        }
        attributes.reserve(count);
        for (xmlAttr* attr = m_node->properties; attr; attr = attr->next) {
            Attribute out;
            out.prefix = AttrPrefix(attr);
            out.localName = Str(attr->name);
            out.qualifiedName = QualifiedName(out.prefix, attr->name);
            out.namespaceUri = attr->ns ? Str(attr->ns->href) : std::string();
            out.value = AttrValue(attr);
            attributes.push_back(std::move(out));
        }
    }

    void GetNamespaceDeclarations(
        std::vector<std::pair<std::string, std::string>>& declarations) const override {
        declarations.clear();
        for (xmlNs* ns = m_node->nsDef; ns; ns = ns->next) {
            declarations.emplace_back(Str(ns->prefix), Str(ns->href));
        }
    }

    bool GetAttribute(std::string_view qualifiedName, std::string& value) const override {
        for (xmlAttr* attr = m_node->properties; attr; attr = attr->next) {
            if (QualifiedName(AttrPrefix(attr), attr->name) == qualifiedName) {
                value = AttrValue(attr);
                return true;
            }
        }
        return false;
    }

    bool GetAttributeNS(std::string_view namespaceUri, std::string_view localName,
                        std::string& value) const override {
        for (xmlAttr* attr = m_node->properties; attr; attr = attr->next) {
            std::string_view uri = attr->ns ? AsChars(attr->ns->href) : "";
            if (localName == AsChars(attr->name) && uri == namespaceUri) {
                value = AttrValue(attr);
                return true;
            }
        }
        return false;
    }

    void SetAttribute(std::string_view name, std::string_view value) override {
        auto [prefix, localName] = SplitQName(name);
        std::string text(value);
        if (prefix.empty() && localName == "xmlns") {
            Declare(std::string(), text);
        } else if (prefix == "xmlns") {
            if (text.empty()) {
                BASALT_THROW(InvalidArgumentException,
                             "A namespace prefix cannot be bound to an empty URI");
            }
            Declare(localName, text);
        } else if (prefix.empty()) {
            xmlSetNsProp(m_node, nullptr, AsXmlChars(localName.c_str()), AsXmlChars(text.c_str()));
        } else {
            SetPrefixedAttribute(prefix, localName, text);
        }
    }

    bool LookupNamespaceUri(std::string_view prefix, std::string& uri) const override {
        std::string key(prefix);
        xmlNs* ns = FindNamespace(m_node, key);
        if (!ns || !ns->href || !ns->href[0]) {
            return false;
        }
        uri = Str(ns->href);
        return true;
    }

    void AppendChild(const Ref<Node>& child) override {
        xmlNode* native = NativeOf(child.Get());
        if (native->type == XML_DOCUMENT_NODE) {
            BASALT_THROW(InvalidArgumentException, "A document cannot be appended to an element");
        }
        for (xmlNode* ancestor = m_node; ancestor; ancestor = ancestor->parent) {
            if (ancestor == native) {
                BASALT_THROW(InvalidArgumentException,
                             "An element cannot be appended to itself or to its descendant");
            }
        }
        // Keeps the source document alive until the move is complete.
        Ref<DocOwner> source(DocOwner::Of(native->doc));
        source->ForgetDetached(native);
        xmlUnlinkNode(native);
        if (native->doc != m_node->doc) {
            if (xmlDOMWrapAdoptNode(nullptr, native->doc, native, m_node->doc, m_node, 0) != 0) {
                BASALT_THROW(InvalidStateException, "The node could not be moved to this document");
            }
            source->TransferSubtree(native, *Owner());
        }
        LinkLastChild(m_node, native);
        ResolvePendingNamespaces(native, false);
    }

    Ref<ElementNode> FindChildElement(std::string_view namespaceUri,
                                      std::string_view localName) const override {
        for (xmlNode* child = m_node->children; child; child = child->next) {
            if (child->type != XML_ELEMENT_NODE || localName != AsChars(child->name)) {
                continue;
            }
            std::string_view uri = child->ns ? AsChars(child->ns->href) : "";
            if (uri == namespaceUri) {
                return WrapElement(child);
            }
        }
        return nullptr;
    }

    int GetLine() const override { return Owner()->GetPosition(m_node).first; }
    int GetColumn() const override { return Owner()->GetPosition(m_node).second; }

  private:
    void Declare(const std::string& prefix, const std::string& uri) {
        const xmlChar* key = prefix.empty() ? nullptr : AsXmlChars(prefix.c_str());
        xmlNs* ns = m_node->nsDef;
        while (ns && !xmlStrEqual(ns->prefix, key)) {
            ns = ns->next;
        }
        if (ns) {
            ReplaceTreeString(ns->href, uri);
        } else if (!(ns = xmlNewNs(m_node, AsXmlChars(uri.c_str()), key))) {
            BASALT_THROW(InvalidArgumentException,
                         "The namespace declaration of '" + prefix + "' is not allowed");
        }
        // The element's own declaration takes precedence over one it had picked up from an
        // ancestor.
        auto rebind = [&](xmlNode* node) {
            if (node->ns && node->ns != ns && xmlStrEqual(node->ns->prefix, key)) {
                node->ns = ns;
            }
        };
        rebind(m_node);
        for (xmlAttr* attr = m_node->properties; attr; attr = attr->next) {
            if (key) {
                rebind(reinterpret_cast<xmlNode*>(attr));
            }
        }
        ResolvePendingNamespaces(m_node, false);
    }

    void SetPrefixedAttribute(const std::string& prefix, const std::string& localName,
                              const std::string& value) {
        const xmlChar* local = AsXmlChars(localName.c_str());
        for (xmlAttr* attr = m_node->properties; attr; attr = attr->next) {
            if (xmlStrEqual(attr->name, local) && AttrPrefix(attr) == prefix) {
                xmlSetNsProp(m_node, attr->ns, local, AsXmlChars(value.c_str()));
                return;
            }
        }
        xmlNs* ns = FindNamespace(m_node, prefix);
        xmlAttr* attr = xmlNewNsProp(m_node, ns, local, AsXmlChars(value.c_str()));
        if (!attr) {
            throw std::bad_alloc();
        }
        if (!ns) {
            // Resolved once the prefix is declared here or on an ancestor (at the latest when
            // serialised): the builders set "p:name" before "xmlns:p" in byte order.
            Owner()->AddPending(attr, prefix);
        }
    }
};

class DocumentImpl final : public ObjectImpl, public Document, public NodeCore {
  public:
    // Made by WrapDocument, which holds the owner's mutex.
    DocumentImpl(xmlDoc* doc, DocOwner* owner)
        : NodeCore(reinterpret_cast<xmlNode*>(doc), owner, m_refCount) {
        owner->m_documentWrapper = this;
    }
    ~DocumentImpl() override {
        std::lock_guard<std::mutex> lock(Owner()->Mutex());
        if (Owner()->m_documentWrapper == this) {
            Owner()->m_documentWrapper = nullptr;
        }
    }

    Node* AsNode() override { return this; }

    NodeType GetNodeType() const override { return NodeType::Document; }
    void GetChildren(std::vector<Ref<Node>>& children) const override {
        children.clear();
        for (xmlNode* child = m_node->children; child; child = child->next) {
            children.push_back(WrapNode(child));
        }
    }
    Ref<Node> GetFirstChild() const override { return WrapNode(m_node->children); }
    Ref<Node> GetNextSibling() const override { return nullptr; }
    Ref<ElementNode> GetParentElement() const override { return nullptr; }
    Ref<Document> GetOwnerDocument() const override { return const_cast<DocumentImpl*>(this); }
    std::string GetTextContent() const override {
        UniquePtr<XmlString> content(xmlNodeGetContent(m_node));
        return Str(content.get());
    }
    void Serialize(Writer* writer) const override {
        if (!writer) {
            BASALT_THROW(InvalidArgumentException, "No writer to serialise to");
        }
        for (xmlNode* child = m_node->children; child; child = child->next) {
            WrapNode(child)->Serialize(writer);
        }
    }

    Ref<ElementNode> GetDocumentElement() const override {
        return WrapElement(xmlDocGetRootElement(reinterpret_cast<xmlDoc*>(m_node)));
    }
    // The element's wrapper holds the document's owner, so the content stays alive with it;
    // the document itself remains usable.
    void TakeDocumentElement(Ref<ElementNode>& element) override { element = GetDocumentElement(); }
};

}  // namespace

Ref<Node> WrapNode(xmlNode* node) {
    if (!node) {
        return nullptr;
    }
    if (node->type == XML_DOCUMENT_NODE) {
        return WrapDocument(reinterpret_cast<xmlDoc*>(node));
    }
    DocOwner* owner = DocOwner::Of(node->doc);
    std::lock_guard<std::mutex> lock(owner->Mutex());
    auto* cached = static_cast<NodeCore*>(node->_private);
    if (cached && cached->TryRetain()) {
        return Ref<Node>::Adopt(cached->AsNode());
    }
    // None yet, or one on its way out: a new wrapper takes the node over.
    switch (node->type) {
        case XML_ELEMENT_NODE:
            return Ref<ElementNode>(new ElementNodeImpl(node, owner));
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
            return Ref<TextNode>(new TextNodeImpl(node, owner));
        default:
            return Ref<Node>(new OtherNodeImpl(node, owner));
    }
}

Ref<ElementNode> WrapElement(xmlNode* node) {
    if (!node) {
        return nullptr;
    }
    return Ref<ElementNode>(dynamic_cast<ElementNode*>(WrapNode(node).Get()));
}

Ref<Document> WrapDocument(xmlDoc* doc) {
    DocOwner* owner = DocOwner::Of(doc);
    std::lock_guard<std::mutex> lock(owner->Mutex());
    NodeCore* cached = owner->m_documentWrapper;
    if (cached && cached->TryRetain()) {
        return Ref<Document>::Adopt(dynamic_cast<Document*>(cached->AsNode()));
    }
    return Ref<Document>(new DocumentImpl(doc, owner));
}

xmlNode* NativeOf(const Node* node) {
    auto* core = dynamic_cast<const NodeCore*>(node);
    if (!core) {
        BASALT_THROW(InvalidArgumentException,
                     node ? "The node was not made by this library" : "No node given");
    }
    return core->NativeNode();
}

xmlNode* NativeElementOf(const ElementNode* element) {
    xmlNode* node = NativeOf(element);
    if (node->type != XML_ELEMENT_NODE) {
        BASALT_THROW(InvalidArgumentException, "The node is not an element");
    }
    return node;
}

// ---------------------------------------------------------------------------------------------
// Views

namespace {

xmlNode* NativeOfView(void* node) {
    return static_cast<xmlNode*>(node);
}

std::string_view View(const xmlChar* text) {
    return text ? std::string_view(AsChars(text)) : std::string_view();
}

// The prefix of an element or attribute, including one still waiting for its declaration.
std::string_view PrefixView(const xmlNode* node) {
    if (node->ns) {
        return View(node->ns->prefix);
    }
    const std::string* pending = DocOwner::Of(node->doc)->PendingPrefix(node);
    return pending ? std::string_view(*pending) : std::string_view();
}

}  // namespace

NodeView::NodeView(const Node* node) : m_node(node ? NativeOf(node) : nullptr) {}

NodeType NodeView::GetNodeType() const {
    return TypeOf(NativeOfView(m_node));
}

NodeView NodeView::GetFirstChild() const {
    return NodeView(static_cast<void*>(NativeOfView(m_node)->children));
}

NodeView NodeView::GetNextSibling() const {
    xmlNode* node = NativeOfView(m_node);
    return NodeView(node->type == XML_DOCUMENT_NODE ? nullptr : static_cast<void*>(node->next));
}

std::string_view NodeView::GetLocalName() const {
    return View(NativeOfView(m_node)->name);
}

std::string_view NodeView::GetNamespaceUri() const {
    xmlNode* node = NativeOfView(m_node);
    if (node->ns) {
        return View(node->ns->href);
    }
    // A pending prefix reads through to whatever is in scope now.
    const std::string* pending = DocOwner::Of(node->doc)->PendingPrefix(node);
    xmlNs* ns = pending ? FindNamespace(node, *pending) : nullptr;
    return ns && ns->href ? View(ns->href) : std::string_view();
}

std::string_view NodeView::GetPrefix() const {
    return PrefixView(NativeOfView(m_node));
}

AttributeView NodeView::GetFirstAttribute() const {
    xmlNode* node = NativeOfView(m_node);
    return AttributeView(node->type == XML_ELEMENT_NODE ? static_cast<void*>(node->properties)
                                                        : nullptr);
}

bool NodeView::LookupNamespaceUri(std::string_view prefix, std::string_view& uri) const {
    xmlNs* ns = FindNamespace(NativeOfView(m_node), std::string(prefix));
    if (!ns || !ns->href || !ns->href[0]) {
        return false;
    }
    uri = View(ns->href);
    return true;
}

std::string_view NodeView::GetText() const {
    return View(NativeOfView(m_node)->content);
}

Ref<Node> NodeView::GetNode() const {
    return WrapNode(NativeOfView(m_node));
}

Ref<ElementNode> NodeView::GetElement() const {
    return WrapElement(NativeOfView(m_node));
}

AttributeView AttributeView::GetNext() const {
    return AttributeView(static_cast<void*>(static_cast<xmlAttr*>(m_attr)->next));
}

std::string_view AttributeView::GetLocalName() const {
    return View(static_cast<xmlAttr*>(m_attr)->name);
}

std::string_view AttributeView::GetPrefix() const {
    return PrefixView(static_cast<const xmlNode*>(m_attr));
}

std::string_view AttributeView::GetNamespaceUri() const {
    const xmlNs* ns = static_cast<xmlAttr*>(m_attr)->ns;
    return ns ? View(ns->href) : std::string_view();
}

std::string AttributeView::GetValue() const {
    return AttrValue(static_cast<xmlAttr*>(m_attr));
}

std::string_view AttributeView::GetValue(std::string& storage) const {
    return AttrValueView(static_cast<xmlAttr*>(m_attr), storage);
}

namespace {

// A new element of doc, not linked anywhere yet.
xmlNode* NewElementOf(xmlDoc* doc, const std::string& prefix, const std::string& localName) {
    if (localName.empty() || localName.find(':') != std::string::npos ||
        prefix.find(':') != std::string::npos) {
        BASALT_THROW(
            InvalidArgumentException,
            "Invalid element name '" + QualifiedName(prefix, AsXmlChars(localName.c_str())) + "'");
    }
    xmlNode* node = xmlNewDocNode(doc, nullptr, AsXmlChars(localName.c_str()), nullptr);
    if (!node) {
        throw std::bad_alloc();
    }
    return node;
}

}  // namespace

void CreateElementNode(const std::string& prefix, const std::string& localName,
                       Ref<ElementNode>& element) {
    Ref<DocOwner> owner = CreateDocOwner();
    xmlNode* node = NewElementOf(owner->GetDoc(), prefix, localName);
    // A new element is its document's root until it is attached elsewhere: libxml2's
    // canonicalisation (and so signing) only sees nodes under the document.
    xmlDocSetRootElement(owner->GetDoc(), node);
    owner->AddPending(node, prefix);
    element = WrapElement(node);
}

void CreateTextNode(Ref<TextNode>& text) {
    Ref<DocOwner> owner = CreateDocOwner();
    UniquePtr<xmlNode> created(xmlNewDocText(owner->GetDoc(), AsXmlChars("")));
    if (!created) {
        throw std::bad_alloc();
    }
    xmlNode* node = owner->AddDetached(std::move(created));
    text = Ref<TextNode>(dynamic_cast<TextNode*>(WrapNode(node).Get()));
}

void CreateChildElement(ElementNode* parent, const std::string& prefix,
                        const std::string& localName, Ref<ElementNode>& element) {
    xmlNode* parentNode = NativeElementOf(parent);
    xmlNode* node = NewElementOf(parentNode->doc, prefix, localName);
    LinkLastChild(parentNode, node);
    // As AppendChild leaves a moved element: the prefix resolved now if it can be, else pending.
    DocOwner::Of(node->doc)->AddPending(node, prefix);
    ResolvePendingNamespaces(node, false);
    element = WrapElement(node);
}

void CreateChildText(ElementNode* parent, Ref<TextNode>& text) {
    xmlNode* parentNode = NativeElementOf(parent);
    xmlNode* node = xmlNewDocText(parentNode->doc, AsXmlChars(""));
    if (!node) {
        throw std::bad_alloc();
    }
    LinkLastChild(parentNode, node);
    text = Ref<TextNode>(dynamic_cast<TextNode*>(WrapNode(node).Get()));
}

}  // namespace Xml
}  // namespace Basalt

#pragma once

// The libxml2 tree behind the foundation's DOM classes, for the foundation's own parser,
// canonicaliser and signature code. Never included from a public header.

#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <libxml/parser.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <basalt/Xml.h>
#include "internal/system/UniquePtr.h"

namespace Basalt {

BASALT_DELETER(xmlDoc, xmlFreeDoc);
BASALT_DELETER(xmlNode, xmlFreeNode);
BASALT_DELETER(xmlOutputBuffer, xmlOutputBufferClose);
BASALT_DELETER(xmlParserCtxt, xmlFreeParserCtxt);
// Memory libxml2 allocated for the caller (node text, namespace lists).
BASALT_TAGGED_DELETER(XmlString, xmlChar*, xmlFree);
BASALT_TAGGED_DELETER(XmlNsList, xmlNs**, xmlFree);

namespace Xml {

// Initialises libxml2 once per process (thread-safe). Nothing global that would change how
// other code in the process parses is touched.
void InitXmlLibrary();

inline const char* AsChars(const xmlChar* s) {
    return reinterpret_cast<const char*>(s);
}
inline const xmlChar* AsXmlChars(const char* s) {
    return reinterpret_cast<const xmlChar*>(s);
}
inline std::string Str(const xmlChar* s) {
    return s ? std::string(AsChars(s)) : std::string();
}

// Owns one xmlDoc and everything that belongs to it: its tree, the parentless subtrees made in
// it (detached elements and text nodes), where each parsed element started, and the prefixes
// still waiting for a declaration. The document's _private points here; every node wrapper holds
// a reference, which is how a node keeps its document alive.
//
// A complete tree may be read from many threads at once, but reading changes state behind the
// scenes: wrappers are made and dropped (node _private, the document's wrapper), positions are
// sorted on first lookup, pending prefixes get resolved, and verification registers ids in the
// document's id table. Mutex() guards all of that; it is never held while calling out of the
// foundation (resolvers, writers), so a callback may walk the same tree.
class DocOwner final : public ObjectImpl {
  public:
    explicit DocOwner(UniquePtr<xmlDoc> doc);
    ~DocOwner() override;

    xmlDoc* GetDoc() const { return m_doc.get(); }
    static DocOwner* Of(const xmlDoc* doc) { return static_cast<DocOwner*>(doc->_private); }
    std::mutex& Mutex() const { return m_mutex; }

    // A subtree root created here without a parent; freed with the document unless it is
    // attached somewhere by then. Returns node.
    xmlNode* AddDetached(UniquePtr<xmlNode> node) {
        m_detached.push_back(node.get());
        return node.release();  // now freed by ~DocOwner
    }
    // Called when node gets a parent or leaves the document.
    void ForgetDetached(xmlNode* node);

    // Where parsed elements began: kept as the parser recorded them, sorted on first lookup.
    struct Position {
        const xmlNode* node;
        int line;
        int column;
    };
    void SetPositions(std::vector<Position> positions) {
        m_positions = std::move(positions);
        m_positionsSorted = false;
    }
    // (line, column) of node, (0, 0) if unknown.
    std::pair<int, int> GetPosition(const xmlNode* node) const;

    // Elements and attributes whose prefix is not resolved yet (their ns is null meanwhile).
    // FindPending returns false, without locking, for a tree that has none (every parsed one).
    bool FindPending(const void* node, std::string& prefix) const;
    // The pending prefix itself, or null: valid until the prefix is resolved.
    const std::string* PendingPrefix(const void* node) const;
    void AddPending(const void* node, std::string prefix);

    // Text nodes holding secrets: their text is wiped before it is freed or replaced, and
    // masked while the tree is serialised.
    void AddSecret(xmlNode* node);
    bool IsSecret(const xmlNode* node) const;
    const std::vector<xmlNode*>& Secrets() const { return m_secrets; }

    // Moves the bookkeeping of node's subtree (positions, pending prefixes, secrets, wrappers'
    // owner) to target, after libxml2 has moved the subtree into target's document.
    void TransferSubtree(xmlNode* node, DocOwner& target);

    // The wrapper of the document node, if one exists.
    class NodeCore* m_documentWrapper = nullptr;

  private:
    friend void ResolvePendingNamespaces(xmlNode* node, bool strict);

    UniquePtr<xmlDoc> m_doc;
    std::vector<xmlNode*> m_detached;
    mutable std::mutex m_mutex;
    mutable std::vector<Position> m_positions;
    mutable bool m_positionsSorted = true;
    std::unordered_map<const void*, std::string> m_pending;
    std::vector<xmlNode*> m_secrets;
    std::atomic<bool> m_hasPending{false};
};

// Overwrites a text node's content (before libxml2 frees or replaces it).
void WipeText(xmlNode* node);

// Common part of every node wrapper; a node's _private points here while a wrapper exists.
class NodeCore {
  public:
    // references: the wrapper's own count, readable until its destructor has taken the owner's
    // mutex.
    NodeCore(xmlNode* node, DocOwner* owner, RefCount& references)
        : m_node(node), m_owner(owner), m_references(references) {}
    virtual ~NodeCore() = default;
    NodeCore(const NodeCore&) = delete;
    NodeCore& operator=(const NodeCore&) = delete;

    virtual Node* AsNode() = 0;
    xmlNode* NativeNode() const { return m_node; }
    DocOwner* Owner() const { return m_owner.Get(); }
    void SetOwner(DocOwner* owner) { m_owner = owner; }

    // Adds a reference unless the last one is gone already (the wrapper is being destroyed on
    // another thread). Not virtual: a dying wrapper's vtable is changing. Called with the owner's
    // mutex held.
    bool TryRetain() {
        long seen = m_references.load(std::memory_order_relaxed);
        while (seen > 0) {
            if (m_references.compare_exchange_weak(seen, seen + 1, std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }

  protected:
    xmlNode* m_node;
    Ref<DocOwner> m_owner;

  private:
    RefCount& m_references;
};

// The wrapper of a native node (made on first use and cached), or null. Safe to call from
// several threads on one tree.
Ref<Node> WrapNode(xmlNode* node);
Ref<ElementNode> WrapElement(xmlNode* node);
Ref<Document> WrapDocument(xmlDoc* doc);

// The native node behind a wrapper made by this library; throws InvalidArgumentException for
// null or foreign objects.
xmlNode* NativeOf(const Node* node);
xmlNode* NativeElementOf(const ElementNode* element);

// A new empty document with its owner (no dictionary, so subtrees can move freely).
Ref<DocOwner> CreateDocOwner();

// Resolves the pending prefixes of node's subtree against the declarations in scope. With
// strict, a prefix that is still unbound throws InvalidStateException.
void ResolvePendingNamespaces(xmlNode* node, bool strict);

// The namespace URI, local name and prefix helpers that honour pending prefixes.
std::string NodePrefix(const xmlNode* node);
std::string AttrPrefix(const xmlAttr* attr);

// The value of an attribute (its text children joined).
std::string AttrValue(const xmlAttr* attr);
// The same as a view: into the tree in the usual case of one text child, else into storage.
std::string_view AttrValueView(const xmlAttr* attr, std::string& storage);

// Runs dump with an output buffer that forwards to writer; rethrows what the writer threw.
void WriteThrough(Writer* writer, const std::function<void(xmlOutputBuffer*)>& dump);

// While it lives, libxml2's messages raised on this thread outside a parser's own handler
// (encoding and I/O errors, c14n, XPath), which it would print to standard error, are kept here
// (the first error) and logged by the foundation's logger at the info level, at most a few per
// outermost capture, so that a hostile document cannot flood the host's logs. Captures nest (an
// inner one hands its first error to the outer); the thread's previous handlers come back after.
class LibxmlErrorCapture {
  public:
    LibxmlErrorCapture();
    ~LibxmlErrorCapture();
    LibxmlErrorCapture(const LibxmlErrorCapture&) = delete;
    LibxmlErrorCapture& operator=(const LibxmlErrorCapture&) = delete;
    // The first error caught, or empty.
    const std::string& FirstError() const { return m_first; }

  private:
    static void OnError(void* self, xmlError* error);
    static void OnMessage(void* self, const char* format, ...);

    xmlStructuredErrorFunc m_previous;
    void* m_previousContext;
    xmlGenericErrorFunc m_previousGeneric;
    void* m_previousGenericContext;
    std::string m_first;
};

// Links child as parent's last child without merging adjacent text (xmlAddChild would).
void LinkLastChild(xmlNode* parent, xmlNode* child);

}  // namespace Xml
}  // namespace Basalt

// XML signatures over xmlsec: our own syntax and policy checks first (what may be referenced,
// which transforms and algorithms), then xmlsec with a key that only the caller's resolver
// supplied and allow-lists that repeat the policy.

#include <libxml/tree.h>
#include <libxml/valid.h>
#include <openssl/evp.h>
#include <xmlsec/crypto.h>
#include <xmlsec/keys.h>
#include <xmlsec/openssl/evp.h>
#include <xmlsec/templates.h>
#include <xmlsec/xmldsig.h>
#include <xmlsec/xmltree.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/container/small_vector.hpp>

#include <basalt/Exception.h>
#include <basalt/XmlSecurity.h>
#include "internal/crypto/CryptoInternal.h"
#include "internal/security/XmlSecurityInternal.h"
#include "internal/system/Immortal.h"
#include "internal/xml/XmlInternal.h"

namespace Basalt {
namespace Xml {
namespace Security {

KeyInfoResolver::~KeyInfoResolver() = default;
Signature::~Signature() = default;

namespace {

constexpr const char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";
constexpr const char kExcC14nNs[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
constexpr const char kWsuNs[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";

[[noreturn]] void SyntaxError(const std::string& message) {
    BASALT_THROW(SignatureSyntaxException, message);
}

bool IsDsig(const xmlNode* node, const char* localName) {
    return node && node->type == XML_ELEMENT_NODE && node->ns &&
           xmlStrEqual(node->ns->href, AsXmlChars(kDsigNs)) &&
           xmlStrEqual(node->name, AsXmlChars(localName));
}

std::string NameOf(const xmlNode* node) {
    std::string prefix = NodePrefix(node);
    return prefix.empty() ? Str(node->name) : prefix + ":" + Str(node->name);
}

bool IsBlank(const xmlChar* text) {
    for (; text && *text; ++text) {
        if (*text != ' ' && *text != '\t' && *text != '\r' && *text != '\n') {
            return false;
        }
    }
    return true;
}

// Calls visit with each child element of node and returns how many there are; character data
// other than white space is refused, comments and processing instructions are skipped.
template <class Visit>
size_t VisitChildElements(const xmlNode* node, Visit&& visit) {
    size_t count = 0;
    for (xmlNode* child = node->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE) {
            visit(child);
            ++count;
        } else if ((child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) &&
                   !IsBlank(child->content)) {
            SyntaxError("Unexpected text in " + NameOf(node));
        } else if (child->type == XML_ENTITY_REF_NODE) {
            SyntaxError("Unexpected entity reference in " + NameOf(node));
        }
    }
    return count;
}

// A signature's parts have a handful of children each: kept off the heap.
using ElementList = boost::container::small_vector<xmlNode*, 8>;
// The elements one signature signs: one, but for a few request signatures.
using NodeList = boost::container::small_vector<xmlNode*, 2>;

ElementList ChildElements(const xmlNode* node) {
    ElementList elements;
    VisitChildElements(node, [&](xmlNode* child) { elements.push_back(child); });
    return elements;
}

// Checks node's content as ChildElements does, without collecting it.
bool HasChildElements(const xmlNode* node) {
    return VisitChildElements(node, [](xmlNode*) {}) != 0;
}

// The attribute of node without a namespace called name, or null.
const xmlAttr* FindAttribute(const xmlNode* node, const char* name) {
    for (const xmlAttr* attr = node->properties; attr; attr = attr->next) {
        if (!attr->ns && xmlStrEqual(attr->name, AsXmlChars(name))) {
            return attr;
        }
    }
    return nullptr;
}

bool HasAttribute(const xmlNode* node, const char* name) {
    return xmlHasNsProp(node, AsXmlChars(name), nullptr) != nullptr;
}

const Algorithm& RequireAlgorithm(const xmlNode* node, AlgorithmKind kind) {
    const xmlAttr* attr = FindAttribute(node, "Algorithm");
    if (!attr) {
        SyntaxError(NameOf(node) + " has no Algorithm");
    }
    std::string storage;
    const std::string_view uri = AttrValueView(attr, storage);
    const Algorithm* algorithm = FindAlgorithm(uri, kind);
    if (!algorithm) {
        SyntaxError("The algorithm '" + std::string(uri) + "' of " + NameOf(node) +
                    " is not allowed");
    }
    return *algorithm;
}

// A canonicalisation method or transform may carry an exclusive c14n InclusiveNamespaces list
// and nothing else.
void CheckAlgorithmContent(const xmlNode* node, const Algorithm& algorithm) {
    if (!HasChildElements(node)) {
        return;  // the usual case
    }
    const ElementList children = ChildElements(node);
    bool exclusive = algorithm.kind == AlgorithmKind::Canonicalization &&
                     algorithm.c14nMode == 1 /* XML_C14N_EXCLUSIVE_1_0 */;
    for (xmlNode* child : children) {
        bool inclusiveNamespaces = exclusive && children.size() == 1 && child->ns &&
                                   xmlStrEqual(child->ns->href, AsXmlChars(kExcC14nNs)) &&
                                   xmlStrEqual(child->name, AsXmlChars("InclusiveNamespaces"));
        if (!inclusiveNamespaces) {
            SyntaxError("Unexpected " + NameOf(child) + " in " + NameOf(node));
        }
    }
}

bool IsIdCharacter(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.' || c >= 0x80;
}

// "" or "#" followed by a plain id; anything else ("#xpointer(...)", other documents, files
// or network resources) is refused.
bool IsAllowedUriForm(std::string_view uri) {
    if (uri.empty()) {
        return true;
    }
    if (uri.size() < 2 || uri[0] != '#') {
        return false;
    }
    for (size_t i = 1; i < uri.size(); ++i) {
        if (!IsIdCharacter(static_cast<unsigned char>(uri[i]))) {
            return false;
        }
    }
    return true;
}

// A signature as read: algorithms as entries of the allow-list and references as their
// elements, so that checking a signature again copies no text. The description that
// GetReferences hands out is made only when a signature object is.
struct SignatureSyntax {
    const Algorithm* c14n = nullptr;
    const Algorithm* method = nullptr;
    NodeList references;  // ds:Reference elements, checked
    xmlNode* keyInfo = nullptr;
};

// The URI of a ds:Reference: "" when only a DTD default supplies it.
std::string_view ReferenceUri(const xmlNode* reference, std::string& storage) {
    const xmlAttr* uri = FindAttribute(reference, "URI");
    return uri ? AttrValueView(uri, storage) : std::string_view();
}

// Checks a ds:Reference; fills describe when given.
void ParseReference(const xmlNode* reference, SignatureReference* describe) {
    if (!HasAttribute(reference, "URI")) {
        SyntaxError("A ds:Reference without URI is not allowed");
    }
    std::string storage;
    const std::string_view uri = ReferenceUri(reference, storage);
    if (!IsAllowedUriForm(uri)) {
        SyntaxError("The reference URI '" + std::string(uri) +
                    "' is not allowed: only \"\" and same-document \"#id\" references are");
    }
    if (describe) {
        describe->uri = uri;
    }
    const ElementList children = ChildElements(reference);
    size_t at = 0;
    if (at < children.size() && IsDsig(children[at], "Transforms")) {
        const ElementList transforms = ChildElements(children[at]);
        if (transforms.empty()) {
            SyntaxError("ds:Transforms is empty");
        }
        for (xmlNode* transform : transforms) {
            if (!IsDsig(transform, "Transform")) {
                SyntaxError("Unexpected " + NameOf(transform) + " in ds:Transforms");
            }
            const Algorithm& algorithm = RequireAlgorithm(transform, AlgorithmKind::Transform);
            CheckAlgorithmContent(transform, algorithm);
            if (describe) {
                describe->transforms.emplace_back(algorithm.uri);
            }
        }
        ++at;
    }
    if (at >= children.size() || !IsDsig(children[at], "DigestMethod")) {
        SyntaxError("ds:Reference has no ds:DigestMethod");
    }
    const Algorithm& digest = RequireAlgorithm(children[at], AlgorithmKind::Digest);
    if (HasChildElements(children[at])) {
        SyntaxError("Unexpected content in ds:DigestMethod");
    }
    if (describe) {
        describe->digestMethod = digest.uri;
    }
    ++at;
    if (at >= children.size() || !IsDsig(children[at], "DigestValue")) {
        SyntaxError("ds:Reference has no ds:DigestValue");
    }
    if (++at != children.size()) {
        SyntaxError("Unexpected " + NameOf(children[at]) + " in ds:Reference");
    }
}

// Checks a ds:Signature into out; appends the description of its references to describe when
// given.
void ParseSignature(const xmlNode* signature, SignatureSyntax& out,
                    std::vector<SignatureReference>* describe) {
    if (!IsDsig(signature, "Signature")) {
        SyntaxError("Expected ds:Signature, found " + NameOf(signature));
    }
    const ElementList parts = ChildElements(signature);
    if (parts.size() < 2 || !IsDsig(parts[0], "SignedInfo") ||
        !IsDsig(parts[1], "SignatureValue")) {
        SyntaxError("ds:Signature must hold ds:SignedInfo and then ds:SignatureValue");
    }
    if (parts.size() > 2) {
        if (!IsDsig(parts[2], "KeyInfo") || parts.size() > 3) {
            // ds:Object (and so any ds:Manifest) is refused outright.
            SyntaxError("Unexpected " + NameOf(parts[parts.size() > 3 ? 3 : 2]) +
                        " in ds:Signature");
        }
        out.keyInfo = parts[2];
    }
    const ElementList signedInfo = ChildElements(parts[0]);
    if (signedInfo.size() < 3 || !IsDsig(signedInfo[0], "CanonicalizationMethod") ||
        !IsDsig(signedInfo[1], "SignatureMethod")) {
        SyntaxError(
            "ds:SignedInfo must hold ds:CanonicalizationMethod, ds:SignatureMethod and "
            "at least one ds:Reference");
    }
    const Algorithm& c14n = RequireAlgorithm(signedInfo[0], AlgorithmKind::Canonicalization);
    CheckAlgorithmContent(signedInfo[0], c14n);
    const Algorithm& method = RequireAlgorithm(signedInfo[1], AlgorithmKind::Signature);
    if (HasChildElements(signedInfo[1])) {
        SyntaxError("Unexpected content in ds:SignatureMethod");
    }
    out.c14n = &c14n;
    out.method = &method;
    for (size_t i = 2; i < signedInfo.size(); ++i) {
        if (!IsDsig(signedInfo[i], "Reference")) {
            SyntaxError("Unexpected " + NameOf(signedInfo[i]) + " in ds:SignedInfo");
        }
        ParseReference(signedInfo[i], describe ? &describe->emplace_back() : nullptr);
        out.references.push_back(signedInfo[i]);
    }
}

// --- ids -------------------------------------------------------------------------------------

bool IsXmlNs(const xmlNs* ns) {
    return ns && xmlStrEqual(ns->href, XML_XML_NAMESPACE);
}
bool IsWsuNs(const xmlNs* ns) {
    return ns && xmlStrEqual(ns->href, AsXmlChars(kWsuNs));
}

// Attributes that carry an element's id: ID, Id, AssertionID, wsu:Id and xml:id.
bool IsIdAttribute(const xmlAttr* attr) {
    const char* name = AsChars(attr->name);
    if (!attr->ns) {
        return std::string_view(name) == "ID" || std::string_view(name) == "Id" ||
               std::string_view(name) == "AssertionID";
    }
    return (IsWsuNs(attr->ns) && std::string_view(name) == "Id") ||
           (IsXmlNs(attr->ns) && std::string_view(name) == "id");
}

// The attribute of element whose value is id, or null.
xmlAttr* IdAttributeOf(xmlNode* element, std::string_view id) {
    for (xmlAttr* attr = element->properties; attr; attr = attr->next) {
        std::string storage;
        if (IsIdAttribute(attr) && AttrValueView(attr, storage) == id) {
            return attr;
        }
    }
    return nullptr;
}

template <class Visit>
void ForEachElement(xmlNode* root, Visit&& visit) {
    xmlNode* node = root;
    while (node) {
        if (node->type == XML_ELEMENT_NODE) {
            visit(node);
        }
        if (node->children && node->type == XML_ELEMENT_NODE) {
            node = node->children;
            continue;
        }
        while (node != root && !node->next) {
            node = node->parent;
        }
        node = node == root ? nullptr : node->next;
    }
}

// How many elements of the document carry id in one of their id attributes (counting stops
// at two: one is all that may).
size_t CountElementsWithId(xmlDoc* doc, std::string_view id) {
    size_t found = 0;
    for (xmlNode* top = doc->children; top && found < 2; top = top->next) {
        ForEachElement(top, [&](xmlNode* element) {
            if (found < 2 && IdAttributeOf(element, id)) {
                ++found;
            }
        });
    }
    return found;
}

// The one element of the tree under root that carries id, or null if none or several do.
xmlNode* UniqueElementWithId(xmlNode* root, std::string_view id, size_t& count) {
    xmlNode* found = nullptr;
    count = 0;
    ForEachElement(root, [&](xmlNode* element) {
        if (IdAttributeOf(element, id)) {
            found = element;
            ++count;
        }
    });
    return count == 1 ? found : nullptr;
}

// Registers attr as the one holder of its id in the document's id table for the lifetime of
// the object, so that xmlsec's "#id" lookup finds exactly that element. Movable, so that a
// signature's few registrations can sit in a small vector.
class IdRegistration {
  public:
    // id: attr's value, NUL-terminated.
    IdRegistration(xmlDoc* doc, xmlAttr* attr, const char* id) : m_doc(doc), m_attr(attr) {
        xmlAttr* registered = xmlGetID(doc, AsXmlChars(id));
        if (registered && registered != attr) {
            BASALT_THROW(XmlSecurityException,
                         "The id '" + std::string(id) + "' is registered for another element");
        }
        if (!registered) {
            if (!xmlAddID(nullptr, doc, AsXmlChars(id), attr)) {
                BASALT_THROW(XmlSecurityException,
                             "The id '" + std::string(id) + "' could not be registered");
            }
            m_added = true;
        }
    }
    ~IdRegistration() {
        if (m_added) {
            xmlRemoveID(m_doc, m_attr);
        }
    }
    IdRegistration(IdRegistration&& other) noexcept
        : m_doc(other.m_doc), m_attr(other.m_attr), m_added(std::exchange(other.m_added, false)) {}
    IdRegistration(const IdRegistration&) = delete;
    IdRegistration& operator=(const IdRegistration&) = delete;
    IdRegistration& operator=(IdRegistration&&) = delete;

  private:
    xmlDoc* m_doc;
    xmlAttr* m_attr;
    bool m_added = false;
};

// --- xmlsec context ----------------------------------------------------------------------------

struct AllowedTransformIds {
    std::vector<xmlSecTransformId> signedInfo;  // canonicalisation and signature methods
    std::vector<xmlSecTransformId> reference;   // transforms and digest methods
};

const AllowedTransformIds& AllowedIds() {
    static const Immortal<AllowedTransformIds> ids([] {
        AllowedTransformIds out;
        for (const Algorithm& algorithm : AllowedAlgorithms()) {
            xmlSecTransformId id = TransformIdOf(algorithm);
            if (algorithm.kind != AlgorithmKind::Digest &&
                algorithm.kind != AlgorithmKind::Transform) {
                out.signedInfo.push_back(id);
            }
            if (algorithm.kind != AlgorithmKind::Signature) {
                out.reference.push_back(id);
            }
        }
        return out;
    }());
    return *ids;
}

// A context that takes its key from the caller only, processes only same-document references
// and accepts only the allowed algorithms (xmlsec's empty lists would allow everything).
// References reach it checked to be "" or a bare "#id", so xmlsec may look the id up directly
// (the same node set as its XPointer "id()" evaluation, without compiling and running an XPath
// expression per reference).
UniquePtr<xmlSecDSigCtx> CreateContext() {
    UniquePtr<xmlSecDSigCtx> ctx(xmlSecDSigCtxCreate(nullptr));
    if (!ctx) {
        throw std::bad_alloc();
    }
    ctx->flags |= XMLSEC_DSIG_FLAGS_IGNORE_MANIFESTS | XMLSEC_DSIG_FLAGS_USE_VISA3D_HACK;
    ctx->enabledReferenceUris = static_cast<xmlSecTransformUriType>(
        xmlSecTransformUriTypeEmpty | xmlSecTransformUriTypeSameDocument);
    const AllowedTransformIds& ids = AllowedIds();
    for (xmlSecTransformId id : ids.signedInfo) {
        if (xmlSecDSigCtxEnableSignatureTransform(ctx.get(), id) < 0) {
            throw std::bad_alloc();
        }
    }
    for (xmlSecTransformId id : ids.reference) {
        if (xmlSecDSigCtxEnableReferenceTransform(ctx.get(), id) < 0) {
            throw std::bad_alloc();
        }
    }
    return ctx;
}

KeyKind KindOf(EVP_PKEY* key) {
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_RSA:
            return KeyKind::Rsa;
        case EVP_PKEY_EC:
            return KeyKind::Ec;
        default:
            return KeyKind::None;
    }
}

xmlNode* TreeRoot(xmlNode* node) {
    while (node->parent && node->parent->type == XML_ELEMENT_NODE) {
        node = node->parent;
    }
    return node;
}

// --- the signature object ----------------------------------------------------------------------

class SignatureImpl final : public ObjectImpl, public Signature {
  public:
    // A signature read from a document: checks it and describes its references.
    SignatureImpl(ElementNode* const* signedElements, size_t count, Ref<ElementNode> element)
        : m_element(std::move(element)), m_blank(false) {
        for (size_t i = 0; i < count; ++i) {
            m_signed.emplace_back(signedElements[i]);
        }
        SignatureSyntax syntax;
        ParseSignature(NativeElementOf(m_element.Get()), syntax, &m_references);
        m_c14n = syntax.c14n;
        m_method = syntax.method;
    }
    // A blank signature being made.
    SignatureImpl(Ref<ElementNode> element, const Algorithm& c14n, const Algorithm& method)
        : m_element(std::move(element)), m_c14n(&c14n), m_method(&method), m_blank(true) {}

    Ref<ElementNode> GetElement() const override { return m_element; }
    std::string GetCanonicalizationMethod() const override { return m_c14n->uri; }
    std::string GetSignatureMethod() const override { return m_method->uri; }
    void GetReferences(std::vector<SignatureReference>& references) const override {
        references = m_references;
    }

    bool Verify(const KeyInfoResolver* resolver) const override {
        if (m_blank) {
            BASALT_THROW(XmlSecurityException,
                         "Only a signature read from a document can be verified");
        }
        if (!resolver) {
            BASALT_THROW(XmlSecurityException, "No key resolver to verify the signature with");
        }
        xmlNode* signature = NativeElementOf(m_element.Get());
        NodeList signedNodes;
        for (const Ref<ElementNode>& element : m_signed) {
            signedNodes.push_back(NativeElementOf(element.Get()));
        }
        // The tree may have changed since the signature was read: read it again.
        SignatureSyntax current;
        ParseSignature(signature, current, nullptr);
        boost::container::small_vector<xmlAttr*, 2> named;
        boost::container::small_vector<bool, 2> covered(signedNodes.size(), false);
        for (const xmlNode* reference : current.references) {
            std::string storage;
            named.push_back(CheckReference(ReferenceUri(reference, storage), signedNodes, covered));
        }
        if (std::find(covered.begin(), covered.end(), false) != covered.end()) {
            BASALT_THROW(XmlSecurityException,
                         "The signature does not cover every element it must sign");
        }

        std::vector<Ref<Crypto::Certificate>> candidates;
        resolver->Resolve(current.keyInfo ? WrapElement(current.keyInfo).Get() : nullptr,
                          candidates);
        if (candidates.empty()) {
            BASALT_THROW(XmlSecurityException, "No trusted key to verify the signature with");
        }
        auto* ready = dynamic_cast<const ReadyKeySource*>(resolver);
        // The ids registered here and by xmlsec live in the document: one verification of a
        // tree at a time, or one would unregister an id that another is looking up.
        std::lock_guard<std::mutex> lock(DocOwner::Of(signature->doc)->Mutex());
        boost::container::small_vector<IdRegistration, 2> ids;
        for (xmlAttr* attr : named) {
            if (attr) {
                std::string storage;
                // A view of one text node's content or of storage: NUL-terminated either way.
                ids.emplace_back(signature->doc, attr, AttrValueView(attr, storage).data());
            }
        }
        for (const auto& candidate : candidates) {
            if (!candidate) {
                continue;
            }
            EVP_PKEY* key = X509_get0_pubkey(Crypto::NativeCertificate(*candidate));
            if (!key || KindOf(key) != current.method->key) {
                continue;
            }
            xmlSecKey* shared = ready ? ready->ReadyKey(*candidate) : nullptr;
            if (VerifyWith(signature, shared, key, current.references.size())) {
                return true;
            }
        }
        return false;
    }

    void AddReference(std::string_view uri, std::string_view digestMethod,
                      std::string_view transform) override {
        std::vector<std::string> transforms;
        if (!transform.empty()) {
            transforms.emplace_back(transform);
        }
        AddReference(uri, digestMethod, transforms);
    }

    void AddReference(std::string_view uri, std::string_view digestMethod,
                      const std::vector<std::string>& transforms) override {
        RequireBlank();
        std::string uriText(uri);
        if (!IsAllowedUriForm(uriText)) {
            BASALT_THROW(XmlSecurityException,
                         "The reference URI '" + uriText + "' is not allowed");
        }
        const Algorithm* digest = FindAlgorithm(digestMethod, AlgorithmKind::Digest);
        if (!digest) {
            BASALT_THROW(XmlSecurityException,
                         "Unsupported digest method '" + std::string(digestMethod) + "'");
        }
        std::vector<const Algorithm*> steps;
        for (const std::string& transform : transforms) {
            const Algorithm* step = FindAlgorithm(transform, AlgorithmKind::Transform);
            if (!step) {
                BASALT_THROW(XmlSecurityException, "Unsupported transform '" + transform + "'");
            }
            steps.push_back(step);
        }
        xmlNode* reference = xmlSecTmplSignatureAddReference(NativeElementOf(m_element.Get()),
                                                             TransformIdOf(*digest), nullptr,
                                                             AsXmlChars(uriText.c_str()), nullptr);
        if (!reference) {
            BASALT_THROW(XmlSecurityException, "Adding a reference failed: " + TakeXmlSecError());
        }
        SignatureReference added{uriText, digest->uri, {}};
        for (const Algorithm* step : steps) {
            if (!xmlSecTmplReferenceAddTransform(reference, TransformIdOf(*step))) {
                BASALT_THROW(XmlSecurityException,
                             "Adding a transform failed: " + TakeXmlSecError());
            }
            added.transforms.emplace_back(step->uri);
        }
        m_references.push_back(std::move(added));
    }

    void SetId(std::string_view id) override {
        RequireBlank();
        m_element->SetAttribute("Id", id);
    }

    void AddKeyInfoContent(const Ref<ElementNode>& element) override {
        RequireBlank();
        xmlNode* keyInfo =
            xmlSecTmplSignatureEnsureKeyInfo(NativeElementOf(m_element.Get()), nullptr);
        if (!keyInfo) {
            BASALT_THROW(XmlSecurityException, "Adding ds:KeyInfo failed: " + TakeXmlSecError());
        }
        WrapElement(keyInfo)->AppendChild(element);
    }

    void Sign(const Crypto::PrivateKey& key) override {
        RequireBlank();
        if (m_references.empty()) {
            BASALT_THROW(XmlSecurityException, "A signature needs at least one reference");
        }
        EVP_PKEY* native = Crypto::NativePrivateKey(key);
        if (KindOf(native) != m_method->key) {
            BASALT_THROW(XmlSecurityException,
                         "The key does not fit the signature method " + std::string(m_method->uri));
        }
        xmlNode* signature = NativeElementOf(m_element.Get());
        xmlNode* root = TreeRoot(signature);
        ResolvePendingNamespaces(root, true);
        std::vector<std::optional<IdRegistration>> ids;
        ids.reserve(m_references.size());
        for (const SignatureReference& reference : m_references) {
            ids.push_back(BindSignedElement(reference.uri, root));
        }
        UniquePtr<xmlSecDSigCtx> ctx = CreateContext();
        ctx->signKey = CreateXmlSecKey(native).release();  // destroyed with the context
        TakeXmlSecError();
        LibxmlErrorCapture errors;
        if (xmlSecDSigCtxSign(ctx.get(), signature) < 0 ||
            ctx->status != xmlSecDSigStatusSucceeded) {
            BASALT_THROW(XmlSecurityException, "Signing failed: " + TakeXmlSecError());
        }
    }

  private:
    void RequireBlank() const {
        if (!m_blank) {
            BASALT_THROW(InvalidStateException,
                         "A signature read from a document cannot be changed");
        }
    }

    // Checks that uri names exactly one of the signed elements, not named before; returns the
    // attribute that carries its id (null for the whole document).
    template <class Covered>
    xmlAttr* CheckReference(std::string_view uri, const NodeList& signedNodes,
                            Covered& covered) const {
        xmlDoc* doc = signedNodes.front()->doc;
        xmlAttr* attr = nullptr;
        size_t index = 0;
        const std::string_view id = uri.empty() ? std::string_view() : uri.substr(1);
        for (; index < signedNodes.size(); ++index) {
            xmlNode* node = signedNodes[index];
            bool named = uri.empty() ? xmlDocGetRootElement(doc) == node
                                     : (attr = IdAttributeOf(node, id)) != nullptr;
            if (named) {
                break;
            }
        }
        if (index == signedNodes.size()) {
            BASALT_THROW(
                XmlSecurityException,
                uri.empty()
                    ? std::string("An empty reference URI is only allowed when the "
                                  "signed element is the document element")
                    : "The reference '" + std::string(uri) + "' does not name the signed element");
        }
        if (covered[index] && signedNodes.size() > 1) {
            BASALT_THROW(XmlSecurityException, "The reference '" + std::string(uri) +
                                                   "' names an element already referenced");
        }
        covered[index] = true;
        if (uri.empty()) {
            return nullptr;
        }
        if (CountElementsWithId(doc, id) != 1) {
            BASALT_THROW(XmlSecurityException,
                         "The id '" + std::string(id) +
                             "' appears on more than one element of the document");
        }
        return attr;
    }

    // Finds the one element of the tree that the reference names (by wsu:Id, Id or ID) and
    // registers its id for xmlsec.
    std::optional<IdRegistration> BindSignedElement(const std::string& uri, xmlNode* root) const {
        if (uri.empty()) {
            if (root->parent != reinterpret_cast<xmlNode*>(root->doc)) {
                BASALT_THROW(XmlSecurityException,
                             "An empty reference URI needs the signature in a document");
            }
            return std::nullopt;
        }
        std::string id = uri.substr(1);
        size_t count = 0;
        xmlNode* found = UniqueElementWithId(root, id, count);
        if (!found) {
            BASALT_THROW(XmlSecurityException,
                         count == 0 ? "No element has the id '" + id + "'"
                                    : "More than one element has the id '" + id + "'");
        }
        return std::optional<IdRegistration>(std::in_place, root->doc, IdAttributeOf(found, id),
                                             id.c_str());
    }

    // True if xmlsec verifies the signature and every reference with the key (shared, a ready
    // key that stays with its owner, or else one made from native), and says so.
    static bool VerifyWith(xmlNode* signature, xmlSecKey* shared, EVP_PKEY* native,
                           size_t referenceCount) {
        UniquePtr<xmlSecDSigCtx> ctx = CreateContext();
        ctx->signKey = shared ? shared : CreateXmlSecKey(native).release();  // see KeepShared
        struct KeepShared {
            xmlSecDSigCtx* ctx;
            bool shared;
            ~KeepShared() {
                if (shared) {
                    ctx->signKey = nullptr;  // the context must not destroy it
                }
            }
        } keep{ctx.get(), shared != nullptr};
        TakeXmlSecError();
        LibxmlErrorCapture errors;
        if (xmlSecDSigCtxVerify(ctx.get(), signature) < 0) {
            BASALT_THROW(XmlSecurityException,
                         "Signature verification failed: " + TakeXmlSecError());
        }
        // xmlsec stops at the first reference whose digest does not match: that is a plain
        // "no". Success, though, must have looked at every reference.
        if (ctx->status != xmlSecDSigStatusSucceeded) {
            return false;
        }
        if (xmlSecPtrListGetSize(&ctx->signedInfoReferences) != referenceCount) {
            BASALT_THROW(XmlSecurityException, "Not every reference was processed");
        }
        return true;
    }

    // One, but for a few request signatures.
    boost::container::small_vector<Ref<ElementNode>, 2> m_signed;
    Ref<ElementNode> m_element;
    const Algorithm* m_c14n;
    const Algorithm* m_method;
    std::vector<SignatureReference> m_references;
    bool m_blank;
};

}  // namespace

void CreateBlankSignature(ElementNode* parent, std::string_view canonicalizationMethod,
                          std::string_view signatureMethod, std::string_view prefix,
                          Ref<Signature>& signature) {
    InitXmlSecurity();
    xmlNode* parentNode = NativeElementOf(parent);
    const Algorithm* c14n = FindAlgorithm(canonicalizationMethod, AlgorithmKind::Canonicalization);
    if (!c14n) {
        BASALT_THROW(XmlSecurityException, "Unsupported canonicalisation method '" +
                                               std::string(canonicalizationMethod) + "'");
    }
    const Algorithm* method = FindAlgorithm(signatureMethod, AlgorithmKind::Signature);
    if (!method) {
        BASALT_THROW(XmlSecurityException,
                     "Unsupported signature method '" + std::string(signatureMethod) + "'");
    }
    std::string prefixText(prefix);
    xmlNode* node = xmlSecTmplSignatureCreateNsPref(
        parentNode->doc, TransformIdOf(*c14n), TransformIdOf(*method), nullptr,
        prefixText.empty() ? nullptr : AsXmlChars(prefixText.c_str()));
    if (!node) {
        BASALT_THROW(XmlSecurityException, "Creating the signature failed: " + TakeXmlSecError());
    }
    LinkLastChild(parentNode, node);
    signature = new SignatureImpl(WrapElement(node), *c14n, *method);
}

namespace {

void CreateSignatureFromDom(ElementNode* const* signedElements, size_t count,
                            ElementNode* signatureElement, Ref<Signature>& signature) {
    InitXmlSecurity();
    if (count == 0 || !signatureElement ||
        std::find(signedElements, signedElements + count, nullptr) != signedElements + count) {
        BASALT_THROW(InvalidArgumentException, "No signed element or no signature element");
    }
    xmlNode* signatureNode = NativeElementOf(signatureElement);
    for (size_t i = 0; i < count; ++i) {
        if (signatureNode->doc != NativeElementOf(signedElements[i])->doc) {
            SyntaxError("The signature is not in the signed element's document");
        }
    }
    signature = new SignatureImpl(signedElements, count, Ref<ElementNode>(signatureElement));
}

}  // namespace

void CreateSignatureFromDom(ElementNode* signedElement, ElementNode* signatureElement,
                            Ref<Signature>& signature) {
    CreateSignatureFromDom(&signedElement, 1, signatureElement, signature);
}

void CreateSignatureFromDom(const std::vector<ElementNode*>& signedElements,
                            ElementNode* signatureElement, Ref<Signature>& signature) {
    CreateSignatureFromDom(signedElements.data(), signedElements.size(), signatureElement,
                           signature);
}

}  // namespace Security
}  // namespace Xml
}  // namespace Basalt

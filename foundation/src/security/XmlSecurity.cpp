// xmlsec initialisation, the algorithm allow-list and the canonicaliser.

#include <libxml/c14n.h>
#include <xmlsec/crypto.h>
#include <xmlsec/errors.h>
#include <xmlsec/openssl/evp.h>
#include <xmlsec/xmlsec.h>

#include <mutex>

#include <basalt/Exception.h>
#include <basalt/XmlSecurity.h>
#include "internal/crypto/CryptoInternal.h"
#include "internal/security/XmlSecurityInternal.h"
#include "internal/system/FoundationLog.h"
#include "internal/system/Immortal.h"
#include "internal/xml/XmlInternal.h"

namespace Basalt {
namespace Xml {
namespace Security {

Canonicalizer::~Canonicalizer() = default;

namespace {

thread_local std::string t_lastXmlSecError;

// The text xmlsec keeps for an error reason.
const char* ReasonText(int reason) {
    for (xmlSecSize i = 0; xmlSecErrorsGetMsg(i); ++i) {
        if (xmlSecErrorsGetCode(i) == reason) {
            return xmlSecErrorsGetMsg(i);
        }
    }
    return "error";
}

void OnXmlSecError(const char* /*file*/, int /*line*/, const char* func, const char* errorObject,
                   const char* errorSubject, int reason, const char* message) {
    std::string text = std::string(func ? func : "xmlsec") + ": " + ReasonText(reason);
    if (errorObject && *errorObject) {
        text += std::string(" (") + errorObject;
        if (errorSubject && *errorSubject) {
            text += std::string("/") + errorSubject;
        }
        text += ")";
    }
    if (message && *message) {
        text += std::string(": ") + message;
    }
    // xmlsec reports the innermost failure first; keep it, it names the cause.
    if (t_lastXmlSecError.empty()) {
        t_lastXmlSecError = text;
    }
}

constexpr const char kExcC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
constexpr const char kExcC14nComments[] = "http://www.w3.org/2001/10/xml-exc-c14n#WithComments";
constexpr const char kC14n[] = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315";
constexpr const char kC14nComments[] =
    "http://www.w3.org/TR/2001/REC-xml-c14n-20010315#WithComments";

}  // namespace

void InitXmlSecurity() {
    static std::once_flag once;
    std::call_once(once, [] {
        InitXmlLibrary();
        bool ready = xmlSecInit() >= 0 && xmlSecCheckVersion() == 1 &&
                     xmlSecOpenSSLAppInit(nullptr) >= 0 && xmlSecOpenSSLInit() >= 0;
        // Errors go to the exception messages, not to standard error (the backend's
        // initialisation installs its own printer, so this comes last).
        xmlSecErrorsSetCallback(OnXmlSecError);
        if (!ready) {
            BASALT_THROW(XmlSecurityException,
                         "The XML security library could not be initialised: " + TakeXmlSecError());
        }
    });
}

std::string TakeXmlSecError() {
    std::string error = std::move(t_lastXmlSecError);
    t_lastXmlSecError.clear();
    return error.empty() ? std::string("unknown error") : error;
}

const std::vector<Algorithm>& AllowedAlgorithms() {
    using K = AlgorithmKind;
    static const Immortal<std::vector<Algorithm>> algorithms(std::vector<Algorithm>{
        {kExcC14n, K::Canonicalization, KeyKind::None, XML_C14N_EXCLUSIVE_1_0, false},
        {kExcC14nComments, K::Canonicalization, KeyKind::None, XML_C14N_EXCLUSIVE_1_0, true},
        {kC14n, K::Canonicalization, KeyKind::None, XML_C14N_1_0, false},
        {kC14nComments, K::Canonicalization, KeyKind::None, XML_C14N_1_0, true},
        {"http://www.w3.org/2000/09/xmldsig#enveloped-signature", K::Transform, KeyKind::None, 0,
         false},
        {"http://www.w3.org/2001/04/xmlenc#sha256", K::Digest, KeyKind::None, 0, false},
        {"http://www.w3.org/2001/04/xmldsig-more#sha384", K::Digest, KeyKind::None, 0, false},
        {"http://www.w3.org/2001/04/xmlenc#sha512", K::Digest, KeyKind::None, 0, false},
        {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha256", K::Signature, KeyKind::Rsa, 0, false},
        {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha384", K::Signature, KeyKind::Rsa, 0, false},
        {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha512", K::Signature, KeyKind::Rsa, 0, false},
        {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256", K::Signature, KeyKind::Ec, 0,
         false},
        {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha384", K::Signature, KeyKind::Ec, 0,
         false},
        {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha512", K::Signature, KeyKind::Ec, 0,
         false},
    });
    return *algorithms;
}

const Algorithm* FindAlgorithm(std::string_view uri, AlgorithmKind kind) {
    // The URIs with their lengths, measured once: every signature looks several up.
    static const Immortal<std::vector<std::string_view>> uris([] {
        std::vector<std::string_view> out;
        for (const Algorithm& algorithm : AllowedAlgorithms()) {
            out.emplace_back(algorithm.uri);
        }
        return out;
    }());
    const std::vector<Algorithm>& algorithms = AllowedAlgorithms();
    for (size_t i = 0; i < algorithms.size(); ++i) {
        const Algorithm& algorithm = algorithms[i];
        bool kindMatches =
            algorithm.kind == kind ||
            (kind == AlgorithmKind::Transform && algorithm.kind == AlgorithmKind::Canonicalization);
        if (kindMatches && uri == (*uris)[i]) {
            return &algorithm;
        }
    }
    return nullptr;
}

xmlSecTransformId TransformIdOf(const Algorithm& algorithm) {
    xmlSecTransformUsage usage = xmlSecTransformUsageAny;
    switch (algorithm.kind) {
        case AlgorithmKind::Canonicalization:
            usage = xmlSecTransformUsageC14NMethod;
            break;
        case AlgorithmKind::Transform:
            usage = xmlSecTransformUsageDSigTransform;
            break;
        case AlgorithmKind::Digest:
            usage = xmlSecTransformUsageDigestMethod;
            break;
        case AlgorithmKind::Signature:
            usage = xmlSecTransformUsageSignatureMethod;
            break;
    }
    xmlSecTransformId id =
        xmlSecTransformIdListFindByHref(xmlSecTransformIdsGet(), AsXmlChars(algorithm.uri), usage);
    if (id == xmlSecTransformIdUnknown) {
        BASALT_THROW(XmlSecurityException,
                     std::string("The algorithm ") + algorithm.uri + " is not available");
    }
    return id;
}

UniquePtr<xmlSecKey> CreateXmlSecKey(EVP_PKEY* native) {
    if (EVP_PKEY_up_ref(native) != 1) {
        throw std::bad_alloc();
    }
    UniquePtr<EVP_PKEY> reference(native);
    UniquePtr<xmlSecKeyData> data(xmlSecOpenSSLEvpKeyAdopt(reference.get()));
    if (!data) {
        BASALT_THROW(XmlSecurityException, "Unsupported key: " + TakeXmlSecError());
    }
    reference.release();  // adopted by the key data
    UniquePtr<xmlSecKey> key(xmlSecKeyCreate());
    if (!key || xmlSecKeySetValue(key.get(), data.get()) < 0) {
        throw std::bad_alloc();
    }
    data.release();  // adopted by the key
    return key;
}

namespace {

// In the node set of a subtree: the apex, everything below it, their attributes and the
// namespace nodes of those elements (which include what the apex inherits).
int IsInSubtree(void* apex, xmlNode* node, xmlNode* parent) {
    xmlNode* start = node->type == XML_NAMESPACE_DECL ? parent : node;
    for (xmlNode* at = start; at; at = at->parent) {
        if (at == apex) {
            return 1;
        }
    }
    return 0;
}

class CanonicalizerImpl final : public ObjectImpl, public Canonicalizer {
  public:
    explicit CanonicalizerImpl(const Algorithm& algorithm) : m_algorithm(algorithm) {}

    void Canonicalize(const ElementNode* element, Writer* output) const override {
        if (!output) {
            BASALT_THROW(InvalidArgumentException, "No writer for the canonical form");
        }
        xmlNode* node = NativeElementOf(element);
        ResolvePendingNamespaces(node, true);
        int result = 0;
        LibxmlErrorCapture errors;
        WriteThrough(output, [&](xmlOutputBuffer* buffer) {
            result = xmlC14NExecute(node->doc, IsInSubtree, node, m_algorithm.c14nMode, nullptr,
                                    m_algorithm.withComments ? 1 : 0, buffer);
        });
        if (result < 0) {
            BASALT_THROW(XmlSecurityException,
                         "Canonicalisation failed" +
                             (errors.FirstError().empty() ? "" : ": " + errors.FirstError()));
        }
    }

  private:
    const Algorithm& m_algorithm;
};

}  // namespace

void CreateCanonicalizer(std::string_view algorithm, Ref<Canonicalizer>& canonicalizer) {
    InitXmlLibrary();
    std::string_view uri = algorithm;
    // Inclusive c14n 1.0 is also named with a trailing "#".
    if (uri.size() == sizeof kC14n && uri.substr(0, sizeof kC14n - 1) == kC14n &&
        uri.back() == '#') {
        uri.remove_suffix(1);
    }
    const Algorithm* found = FindAlgorithm(uri, AlgorithmKind::Canonicalization);
    if (!found) {
        BASALT_THROW(XmlSecurityException,
                     "Unsupported canonicalisation algorithm '" + std::string(algorithm) + "'");
    }
    canonicalizer = new CanonicalizerImpl(*found);
}

}  // namespace Security
}  // namespace Xml
}  // namespace Basalt

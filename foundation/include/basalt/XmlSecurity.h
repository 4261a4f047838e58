#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/IO.h>
#include <basalt/Xml.h>

namespace Basalt {
namespace Xml {
namespace Security {

// Writes the canonical octets of a subtree.
class BASALT_API Canonicalizer : public virtual Object {
  public:
    // Canonicalises element and its subtree, with the namespaces in scope from its ancestors as
    // the algorithm requires. Throws XmlSecurityException on failure.
    virtual void Canonicalize(const ElementNode* element, Writer* output) const = 0;

  protected:
    ~Canonicalizer() override;
};

// Exclusive c14n ("http://www.w3.org/2001/10/xml-exc-c14n#", "...#WithComments") and
// inclusive c14n 1.0 ("http://www.w3.org/TR/2001/REC-xml-c14n-20010315", also with a trailing
// "#", and "...#WithComments"). Any other algorithm throws XmlSecurityException.
BASALT_API void CreateCanonicalizer(std::string_view algorithm, Ref<Canonicalizer>& canonicalizer);

// Supplies the keys a signature may be verified with. Keys come only from the resolver's own
// trusted set: the certificate or key carried inside a signature is never trusted by itself.
class BASALT_API KeyInfoResolver : public virtual Object {
  public:
    // Fills candidates with the trusted certificates that may have made a signature whose
    // ds:KeyInfo is keyInfo (null when the signature has none). An empty list means no key.
    virtual void Resolve(const ElementNode* keyInfo,
                         std::vector<Ref<Crypto::Certificate>>& candidates) const = 0;

  protected:
    ~KeyInfoResolver() override;
};

// A resolver over a fixed set of trusted signing certificates. When the KeyInfo carries an
// X.509 certificate that is one of them, only that one is offered; otherwise all are.
BASALT_API void CreateTrustedCertificateResolver(
    const std::vector<Ref<Crypto::Certificate>>& trusted, Ref<KeyInfoResolver>& resolver);

// One ds:Reference of a signature.
struct SignatureReference {
    std::string uri;  // "" or "#id"
    std::string digestMethod;
    std::vector<std::string> transforms;
};

// An XML signature: one read from a document, or a blank one being made.
class BASALT_API Signature : public virtual Object {
  public:
    // The ds:Signature element.
    virtual Ref<ElementNode> GetElement() const = 0;
    virtual std::string GetCanonicalizationMethod() const = 0;
    virtual std::string GetSignatureMethod() const = 0;
    virtual void GetReferences(std::vector<SignatureReference>& references) const = 0;

    // Verifies the signature value and every reference digest with the keys resolver offers.
    // Returns true if one of them verifies everything, false if none does. Throws
    // XmlSecurityException when verification cannot be carried out (null resolver, unsupported
    // algorithm, a reference that does not resolve to exactly one element of this document).
    // References must name the signed element ("" only when it is the document element), and
    // its id must appear on no other element. The document's id table is used for the duration,
    // so a tree is verified by one thread at a time; independent documents verify in parallel.
    virtual bool Verify(const KeyInfoResolver* resolver) const = 0;

    // Making a signature: add references, optionally set the Id and the KeyInfo content, then
    // Sign. References are digested in the order added.
    // transform may be empty for none. Unsupported algorithms, transforms or URIs (other than
    // "" and "#id") throw XmlSecurityException; so does a signature read from a document.
    virtual void AddReference(std::string_view uri, std::string_view digestMethod,
                              std::string_view transform) = 0;
    // The same with a chain of transforms applied in order (an enveloped signature needs the
    // enveloped-signature transform and then a canonicalisation).
    virtual void AddReference(std::string_view uri, std::string_view digestMethod,
                              const std::vector<std::string>& transforms) = 0;
    virtual void SetId(std::string_view id) = 0;
    // Puts element into the signature's ds:KeyInfo (created on first use).
    virtual void AddKeyInfoContent(const Ref<ElementNode>& element) = 0;
    // Computes the digests and the signature value with key. Throws XmlSecurityException.
    virtual void Sign(const Crypto::PrivateKey& key) = 0;

  protected:
    ~Signature() override;
};

// Appends an unsigned ds:Signature (elements with the given prefix) as the last child of
// parent, ready for references and signing. Unsupported algorithms throw XmlSecurityException.
BASALT_API void CreateBlankSignature(ElementNode* parent, std::string_view canonicalizationMethod,
                                     std::string_view signatureMethod, std::string_view prefix,
                                     Ref<Signature>& signature);

// Reads the signature element of signedElement (the element whose ID its references name).
// Malformed signatures, unsupported algorithms or transforms and references other than "" and
// same-document "#id" throw SignatureSyntaxException.
BASALT_API void CreateSignatureFromDom(ElementNode* signedElement, ElementNode* signatureElement,
                                       Ref<Signature>& signature);
// Reads a signature over several elements of one document, such as the Body and the Timestamp
// of a signed SOAP message. Verify then requires every reference to name one of them, each by
// exactly one reference, and every one of them to be referenced.
BASALT_API void CreateSignatureFromDom(const std::vector<ElementNode*>& signedElements,
                                       ElementNode* signatureElement, Ref<Signature>& signature);

}  // namespace Security
}  // namespace Xml
}  // namespace Basalt

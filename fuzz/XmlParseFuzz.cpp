// Feeds arbitrary bytes to the hardened parser, then walks, serialises and canonicalises what it
// accepts and reads (and tries to verify) any signature it carries. Only the foundation's own
// exceptions are expected; anything else, a crash or a sanitizer report is a finding. Returns -1
// for a document the parser refuses, 0 otherwise.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>

using namespace Basalt;
using namespace Basalt::Xml;

namespace {

const char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";

void Walk(const Ref<Node>& node, int depth) {
    std::vector<Ref<Node>> children;
    node->GetChildren(children);
    for (const auto& child : children) {
        child->GetTextContent();
        if (auto* element = dynamic_cast<ElementNode*>(child.Get())) {
            std::vector<Attribute> attributes;
            element->GetAttributes(attributes);
            std::string uri;
            element->LookupNamespaceUri(element->GetPrefix(), uri);
            element->GetQualifiedName();
            element->GetLine();
            if (depth < 64) {
                Walk(child, depth + 1);
            }
        }
    }
}

// A resolver that offers no key: verification then fails closed, after every policy check ran.
class NoKeys final : public ObjectImpl, public Security::KeyInfoResolver {
  public:
    void Resolve(const ElementNode*, std::vector<Ref<Crypto::Certificate>>& c) const override {
        c.clear();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Ref<StringReader> reader;
    CreateStringReader(std::string_view(reinterpret_cast<const char*>(data), size), reader);
    Ref<XMLHandler> handler;
    CreateXMLDocumentHandler(handler);
    Ref<XMLParser> parser;
    CreateXMLParser(handler.Get(), parser);
    try {
        parser->Parse(reader.Get());
    } catch (const XMLParseException&) {
        return -1;  // refused: not worth keeping in the corpus
    }
    Ref<Document> document(dynamic_cast<Document*>(handler->GetResult().Get()));
    Walk(document, 0);
    Ref<ElementNode> root = document->GetDocumentElement();
    Ref<StringWriter> writer;
    CreateStringWriter(writer);
    document->Serialize(writer.Get());
    Ref<Security::Canonicalizer> canonicalizer;
    Security::CreateCanonicalizer("http://www.w3.org/2001/10/xml-exc-c14n#", canonicalizer);
    try {
        canonicalizer->Canonicalize(root.Get(), writer.Get());
    } catch (const Security::XmlSecurityException&) {
        // e.g. relative namespace URIs, which c14n refuses
    }

    Ref<ElementNode> signatureElement = root->FindChildElement(kDsigNs, "Signature");
    if (signatureElement) {
        try {
            Ref<Security::Signature> signature;
            Security::CreateSignatureFromDom(root.Get(), signatureElement.Get(), signature);
            Ref<Security::KeyInfoResolver> none(new NoKeys());
            signature->Verify(none.Get());
        } catch (const Security::SignatureSyntaxException&) {
        } catch (const Security::XmlSecurityException&) {
        }
    }
    return 0;
}

#include <gtest/gtest.h>

#include <string>

#include <basalt/Exception.h>
#include <basalt/XmlSecurity.h>
#include "foundation/XmlTestUtil.h"

using namespace Basalt;
using namespace Basalt::Xml;
using namespace Basalt::Xml::Security;
using XmlTest::ParseRoot;

namespace {

const char kExc[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
const char kExcComments[] = "http://www.w3.org/2001/10/xml-exc-c14n#WithComments";
const char kIncl[] = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315";
const char kInclHash[] = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315#";
const char kInclComments[] = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315#WithComments";

std::string Canonical(const std::string& algorithm, const ElementNode& element) {
    Ref<Canonicalizer> canonicalizer;
    CreateCanonicalizer(algorithm, canonicalizer);
    Ref<StringWriter> writer;
    CreateStringWriter(writer);
    canonicalizer->Canonicalize(&element, writer.Get());
    return writer->TakeString();
}

// The first element below root (depth first) with that local name.
Ref<ElementNode> Find(const Ref<ElementNode>& root, const std::string& localName) {
    if (root->GetLocalName() == localName) {
        return root;
    }
    std::vector<Ref<Node>> children;
    root->GetChildren(children);
    for (const auto& child : children) {
        if (auto* element = dynamic_cast<ElementNode*>(child.Get())) {
            if (Ref<ElementNode> found = Find(Ref<ElementNode>(element), localName)) {
                return found;
            }
        }
    }
    return nullptr;
}

struct Vector {
    const char* name;
    const char* document;
    const char* element;  // local name of the apex
    const char* algorithm;
    const char* expected;
};

const Vector kVectors[] = {
    {"inclusive: the apex carries every namespace in scope",
     "<a:root xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" xmlns=\"urn:d\"><a:child b:attr=\"1\"><x/>"
     "</a:child></a:root>",
     "child", kIncl,
     "<a:child xmlns=\"urn:d\" xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" b:attr=\"1\"><x></x></a:child>"},
    {"exclusive: only visibly used namespaces, where they are used",
     "<a:root xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" xmlns=\"urn:d\"><a:child b:attr=\"1\"><x/>"
     "</a:child></a:root>",
     "child", kExc,
     "<a:child xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" b:attr=\"1\"><x xmlns=\"urn:d\"></x></a:child>"},
    {"exclusive drops an unused declaration",
     "<r xmlns:u=\"urn:unused\" xmlns:p=\"urn:p\"><p:e/></r>", "r", kExc,
     "<r><p:e xmlns:p=\"urn:p\"></p:e></r>"},
    {"inclusive keeps it", "<r xmlns:u=\"urn:unused\" xmlns:p=\"urn:p\"><p:e/></r>", "r", kIncl,
     "<r xmlns:p=\"urn:p\" xmlns:u=\"urn:unused\"><p:e></p:e></r>"},
    {"attributes: unqualified by name, then by namespace URI, not prefix",
     "<e xmlns:a=\"urn:z\" xmlns:b=\"urn:a\" z=\"1\" a:x=\"4\" a=\"2\" b:y=\"3\"/>", "e", kExc,
     "<e xmlns:a=\"urn:z\" xmlns:b=\"urn:a\" a=\"2\" z=\"1\" b:y=\"3\" a:x=\"4\"></e>"},
    {"redundant declaration below the apex is dropped",
     "<r xmlns:p=\"urn:p\"><p:e xmlns:p=\"urn:p\"/></r>", "r", kIncl,
     "<r xmlns:p=\"urn:p\"><p:e></p:e></r>"},
    {"undeclared default namespace", "<r xmlns=\"urn:d\"><e xmlns=\"\"><f/></e></r>", "e", kIncl,
     "<e><f></f></e>"},
    {"comments dropped", "<r><!--c-->t</r>", "r", kExc, "<r>t</r>"},
    {"comments kept, exclusive", "<r><!--c-->t</r>", "r", kExcComments, "<r><!--c-->t</r>"},
    {"comments kept, inclusive", "<r><!--c-->t</r>", "r", kInclComments, "<r><!--c-->t</r>"},
    {"trailing # names inclusive c14n", "<r xmlns:u=\"urn:u\"><!--c--></r>", "r", kInclHash,
     "<r xmlns:u=\"urn:u\"></r>"},
    {"escaping and line ends", "<r a=\"x&#9;y&#10;&lt;&quot;\">&gt;&#13;\r\n<![CDATA[<&]]></r>",
     "r", kExc, "<r a=\"x&#x9;y&#xA;&lt;&quot;\">&gt;&#xD;\n&lt;&amp;</r>"},
};

}  // namespace

TEST(XmlCanonicalizerTest, Vectors) {
    for (const Vector& v : kVectors) {
        Ref<ElementNode> apex = Find(ParseRoot(v.document), v.element);
        ASSERT_TRUE(apex) << v.name;
        EXPECT_EQ(v.expected, Canonical(v.algorithm, *apex)) << v.name;
    }
}

TEST(XmlCanonicalizerTest, BuiltTreesResolveTheirPrefixesFirst) {
    Ref<ElementNode> outer;
    CreateElementNode("p", "outer", outer);
    outer->SetAttribute("xmlns:p", "urn:p");
    Ref<ElementNode> inner;
    CreateElementNode("p", "inner", inner);
    inner->SetAttribute("p:a", "1");
    outer->AppendChild(inner);
    EXPECT_EQ("<p:inner xmlns:p=\"urn:p\" p:a=\"1\"></p:inner>", Canonical(kExc, *inner));

    Ref<ElementNode> orphan;
    CreateElementNode("q", "orphan", orphan);
    EXPECT_THROW(Canonical(kExc, *orphan), InvalidStateException);
}

TEST(XmlCanonicalizerTest, UnknownAlgorithmsAreRefused) {
    Ref<Canonicalizer> canonicalizer;
    for (const char* algorithm :
         {"http://www.w3.org/2006/12/xml-c14n11", "http://www.w3.org/2001/10/xml-exc-c14n",
          "http://www.w3.org/TR/2001/REC-xml-c14n-20010315##", ""}) {
        EXPECT_THROW(CreateCanonicalizer(algorithm, canonicalizer), XmlSecurityException)
            << algorithm;
    }
}

TEST(XmlCanonicalizerTest, RelativeNamespaceUrisFailWithTheReason) {
    Ref<ElementNode> root = ParseRoot("<p:r xmlns:p=\"relative/uri\"/>");
    try {
        Canonical(kExc, *root);
        FAIL() << "canonicalised";
    } catch (const XmlSecurityException& e) {
        EXPECT_NE(std::string::npos, std::string(e.what()).find("Relative namespace")) << e.what();
    }
}

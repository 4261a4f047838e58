#include <gtest/gtest.h>

#include <string>

#include <basalt/XmlSecurity.h>
#include "foundation/XmlTestUtil.h"
#include "support/ExpectThrow.h"

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

const char kScoped[] =
    "<a:root xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" xmlns=\"urn:d\"><a:child b:attr=\"1\"><x/>"
    "</a:child></a:root>";

const struct {
    const char* name;
    const char* document;
    bool child;  // the apex is the root's first child element, else the root
    const char* algorithm;
    const char* expected;
} kVectors[] = {
    {"inclusive: the apex carries every namespace in scope", kScoped, true, kIncl,
     "<a:child xmlns=\"urn:d\" xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" b:attr=\"1\"><x></x></a:child>"},
    {"exclusive: only visibly used namespaces, where they are used", kScoped, true, kExc,
     "<a:child xmlns:a=\"urn:a\" xmlns:b=\"urn:b\" b:attr=\"1\"><x xmlns=\"urn:d\"></x></a:child>"},
    {"undeclared default namespace", "<r xmlns=\"urn:d\"><e xmlns=\"\"><f/></e></r>", true, kIncl,
     "<e><f></f></e>"},
    {"comments dropped", "<r><!--c-->t</r>", false, kExc, "<r>t</r>"},
    {"comments kept, exclusive", "<r><!--c-->t</r>", false, kExcComments, "<r><!--c-->t</r>"},
    {"comments kept, inclusive", "<r><!--c-->t</r>", false, kInclComments, "<r><!--c-->t</r>"},
    {"trailing # names inclusive c14n", "<r xmlns:u=\"urn:u\"><!--c--></r>", false, kInclHash,
     "<r xmlns:u=\"urn:u\"></r>"},
};

}  // namespace

TEST(XmlCanonicalizerTest, Vectors) {
    for (const auto& v : kVectors) {
        Ref<ElementNode> root = ParseRoot(v.document);
        Ref<ElementNode> apex = v.child ? XmlTest::ChildElements(*root).at(0) : root;
        EXPECT_EQ(v.expected, Canonical(v.algorithm, *apex)) << v.name;
    }
}

TEST(XmlCanonicalizerTest, RefusesUnresolvedPrefixesUnknownAlgorithmsAndRelativeUris) {
    // A built tree resolves its prefixes first; an undeclared one cannot be canonicalised.
    Ref<ElementNode> outer, inner, orphan;
    CreateElementNode("p", "outer", outer);
    outer->SetAttribute("xmlns:p", "urn:p");
    CreateElementNode("p", "inner", inner);
    inner->SetAttribute("p:a", "1");
    outer->AppendChild(inner);
    EXPECT_EQ("<p:inner xmlns:p=\"urn:p\" p:a=\"1\"></p:inner>", Canonical(kExc, *inner));
    CreateElementNode("q", "orphan", orphan);
    EXPECT_THROW(Canonical(kExc, *orphan), InvalidStateException);

    Ref<Canonicalizer> canonicalizer;
    for (const char* algorithm :
         {"http://www.w3.org/2006/12/xml-c14n11", "http://www.w3.org/2001/10/xml-exc-c14n",
          "http://www.w3.org/TR/2001/REC-xml-c14n-20010315##", ""}) {
        EXPECT_THROW(CreateCanonicalizer(algorithm, canonicalizer), XmlSecurityException)
            << algorithm;
    }
    EXPECT_TRUE(TestSupport::Throws<XmlSecurityException>(
        [] { Canonical(kExc, *ParseRoot("<p:r xmlns:p=\"relative/uri\"/>")); },
        "Canonicalisation failed: Relative namespace", true));
}

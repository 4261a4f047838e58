// One holder-of-key token read from several threads at once (run under ThreadSanitizer too):
// every reader sees what a lone reader sees, signature verification and DOM walks included.
#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/SamlTokenFactory.h>

#include <atomic>
#include <thread>

#include <basalt/IO.h>
#include <basalt/Xml.h>

#include "support/SamlAssertionGenerator.h"

namespace {

using namespace TestSupport;

// The element names under node, depth first: wraps (and drops) a wrapper per node.
std::string Walk(const Basalt::Ref<Basalt::Xml::Node>& node) {
    std::string names;
    for (auto child = node->GetFirstChild(); child; child = child->GetNextSibling()) {
        if (auto* element = dynamic_cast<Basalt::Xml::ElementNode*>(child.Get())) {
            names += element->GetQualifiedName() + "(" + Walk(child) + ")";
        }
    }
    return names;
}

// What readers ask of a token, as one text: its fields, its signature check and its DOM.
std::string ReadAll(const SsoClient::SamlToken& token,
                    const Basalt::Xml::Security::KeyInfoResolver& resolver) {
    std::set<std::string> audience;
    token.GetAudience(audience);
    auto* signature = token.GetSignature();
    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    signature->GetElement()->Serialize(writer.Get());
    return SsoClient::CreateSamlTokenDescription(token) + token.GetId() + token.GetIssuer() +
           token.GetXml() + *audience.begin() + token.GetExpirationTimeWithTolerance().ToString() +
           token.GetHolderOfKeyCertificate()->GetSubjectName() +
           (signature->Verify(&resolver) ? "verified" : "NOT verified") + writer->TakeString() +
           Walk(signature->GetElement()->GetOwnerDocument());
}

TEST(SharedTokenTest, ReadersOnManyThreadsSeeWhatOneReaderSees) {
    AssertionSpec spec;
    spec.holderOfKey = true;
    spec.audiences = {"urn:example:api"};
    const auto resolver = StsResolver();
    const std::string xml = MakeSignedAssertion(spec);
    const auto token = SsoClient::CreateSamlToken(xml, resolver.Get());
    // A twin answers first, so that the shared token's signature object is built in the race.
    const auto twin = SsoClient::CreateSamlToken(xml, resolver.Get());
    ASSERT_TRUE(twin->GetSignature()->Verify(resolver.Get()));
    const std::string expected = ReadAll(*twin, *resolver);

    std::atomic<int> differing{0};
    std::vector<std::thread> readers;
    for (int thread = 0; thread < 6; ++thread) {
        readers.emplace_back([&] {
            for (int round = 0; round < 30; ++round) {
                try {
                    differing += ReadAll(*token, *resolver) == expected ? 0 : 1;
                } catch (const std::exception&) {
                    ++differing;
                }
            }
        });
    }
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(differing, 0);
}

}  // namespace

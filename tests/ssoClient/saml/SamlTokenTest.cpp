// What a token reports, how each entry point parses and verifies, and the interpretation of
// names, groups, counts and attributes.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <atomic>
#include <thread>

#include <basalt/IO.h>
#include <basalt/Xml.h>

#include "internal/saml/SamlNames.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using Basalt::Ref;

Ref<Basalt::Xml::Document> ParseDocument(const std::string& xml) {
    Ref<Basalt::StringReader> reader;
    Basalt::CreateStringReader(xml, reader);
    Ref<Basalt::Xml::XMLHandler> handler;
    Basalt::Xml::CreateXMLDocumentHandler(handler);
    Ref<Basalt::Xml::XMLParser> parser;
    Basalt::Xml::CreateXMLParser(handler.Get(), parser);
    parser->Parse(reader.Get());
    return Ref<Basalt::Xml::Document>(
        dynamic_cast<Basalt::Xml::Document*>(handler->GetResult().Get()));
}

TEST(SamlTokenTest, ReportsEverythingTheAssertionSays) {
    AssertionSpec spec;
    spec.id = "_rich";
    spec.delegates = {{"bob@example.test", -600}, {"carol@sub.example.test", -300}};
    spec.audiences = {"urn:b", "urn:a", "urn:b"};
    spec.proxyCount = "3";
    spec.renewCount = "5";
    spec.advice = {{"urn:advice:one", {{"colour", {"blue", "green"}}, {"empty", {}}}},
                   {"urn:advice:two", {}}};
    spec.attributes = {
        {Saml::kGivenNameAttribute, {"Alice", "Ignored"}},
        {Saml::kSurnameAttribute, {"Liddell"}},
        {Saml::kGroupIdentityAttribute, {"example.test\\Users", "example.test\\a\\b"}},
        {Saml::kIsSolutionAttribute, {"TrUe"}},
        {"urn:unrelated", {"x"}},
        {Saml::kGroupIdentityAttribute, {"other\\Admins"}},
    };
    const std::string xml = MakeSignedAssertion(spec);
    const auto token = CreateSamlToken(xml, StsResolver().Get());

    EXPECT_EQ(token->GetId(), "_rich");
    EXPECT_EQ(token->GetXml(), xml);
    EXPECT_EQ(token->GetIssuer(), "https://sts.example.test/sts");
    ASSERT_NE(token->GetSubject(), nullptr);
    EXPECT_EQ(token->GetSubject()->name, "alice");
    EXPECT_EQ(token->GetSubject()->domain, "example.test");
    EXPECT_EQ(token->GetTokenType(), Saml_Bearer);
    EXPECT_EQ(token->GetHolderOfKeyCertificate(), nullptr);
    ASSERT_NE(token->GetSignature(), nullptr);
    EXPECT_LT(token->GetStartTime(), token->GetExpirationTime());
    EXPECT_EQ(token->GetExpirationTimeWithTolerance().GetUtcTime() -
                  token->GetExpirationTime().GetUtcTime(),
              600 * 1000000LL);
    // The renew count is the proxy count once a renew restriction carries a count.
    EXPECT_EQ(token->GetRenewCount(), 3);
    EXPECT_TRUE(token->IsRenewable());
    EXPECT_EQ(token->GetDelegableCount(), 3);
    EXPECT_TRUE(token->IsDelegable());
    EXPECT_TRUE(token->IsSolution());

    PersonName name{"stale", "stale"};
    token->GetPersonName(name);
    EXPECT_EQ(name.givenName, "Alice");
    EXPECT_EQ(name.surname, "Liddell");

    std::vector<PrincipalId> groups{{"stale", "stale"}};
    token->GetGroups(groups);
    ASSERT_EQ(groups.size(), 3u);
    EXPECT_EQ(groups[0].name, "Users");
    EXPECT_EQ(groups[0].domain, "example.test");
    EXPECT_EQ(groups[1].name, "a\\b");
    EXPECT_EQ(groups[1].domain, "example.test");
    EXPECT_EQ(groups[2].name, "Admins");

    std::vector<Delegate> chain;
    token->GetDelegationChain(chain);
    ASSERT_EQ(chain.size(), 2u);
    EXPECT_EQ(chain[0].principal.name, "bob");
    EXPECT_EQ(chain[1].principal.domain, "sub.example.test");
    EXPECT_LT(chain[0].delegationInstant, chain[1].delegationInstant);

    std::set<std::string> audience{"stale"};
    token->GetAudience(audience);
    EXPECT_EQ(audience, (std::set<std::string>{"urn:a", "urn:b"}));

    std::vector<Advice> advice;
    token->GetAdvice(advice);
    ASSERT_EQ(advice.size(), 2u);
    EXPECT_EQ(advice[0].source, "urn:advice:one");
    ASSERT_EQ(advice[0].attributes.size(), 2u);
    EXPECT_EQ(advice[0].attributes[0].name, "colour");
    EXPECT_EQ(advice[0].attributes[0].values, (std::vector<std::string>{"blue", "green"}));
    EXPECT_TRUE(advice[0].attributes[1].values.empty());
    EXPECT_TRUE(advice[1].attributes.empty());
}

TEST(SamlTokenTest, HolderOfKeyTokenCarriesItsCertificate) {
    AssertionSpec spec;
    spec.holderOfKey = true;
    const auto token = CreateSamlToken(MakeSignedAssertion(spec), StsResolver().Get(), 0);
    EXPECT_EQ(token->GetTokenType(), Saml_HOK);
    ASSERT_NE(token->GetHolderOfKeyCertificate(), nullptr);
    EXPECT_EQ(token->GetHolderOfKeyCertificate()->GetSubjectName(), "CN=user@example.test");
    EXPECT_EQ(token->GetExpirationTimeWithTolerance(), token->GetExpirationTime());
}

TEST(SamlTokenTest, CountsFollowTheRestrictions) {
    struct Case {
        std::optional<std::string> renew, proxy;
        int32_t renewCount, delegableCount;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt, 0, 0},
        {std::nullopt, std::string("4"), 0, 4},
        {std::string("5"), std::string("2"), 2, 2},
        {std::string("5"), std::nullopt, 0, 0},     // no proxy count to take
        {std::string(""), std::string("3"), 0, 3},  // renew restriction without a count
        {std::string("0"), std::string("0"), 0, 0},
        {std::string("1"), std::string("99999999999"), INT32_MAX, INT32_MAX},  // saturates
    };
    for (const auto& c : cases) {
        AssertionSpec spec;
        spec.renewCount = c.renew;
        spec.proxyCount = c.proxy;
        const auto token = CreateSamlToken(MakeSignedAssertion(spec));
        EXPECT_EQ(token->GetRenewCount(), c.renewCount) << c.renew.value_or("-");
        EXPECT_EQ(token->IsRenewable(), c.renewCount > 0);
        EXPECT_EQ(token->GetDelegableCount(), c.delegableCount) << c.proxy.value_or("-");
        EXPECT_EQ(token->IsDelegable(), c.delegableCount > 0);
    }
}

TEST(SamlTokenTest, SubjectAndDelegatesMustBeUpns) {
    struct Case {
        std::string upn;
        std::string name, domain;  // empty name: refused
    };
    const Case cases[] = {
        {"alice@example.test", "alice", "example.test"},
        {"a@b@example.test", "a@b", "example.test"},
        {"alice@", "", ""},
        {"@example.test", "", ""},
        {"alice", "", ""},
        {"a&b@example.test", "a&b", "example.test"},
    };
    for (const auto& c : cases) {
        AssertionSpec spec;
        spec.subjectUpn = c.upn;
        const std::string xml = MakeSignedAssertion(spec);
        if (c.name.empty()) {
            EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml); },
                                               "Failed to parse the UPN NameID: `" + c.upn +
                                                   "'; name or domain part is missing."));
        } else {
            const auto token = CreateSamlToken(xml);
            EXPECT_EQ(token->GetSubject()->name, c.name);
            EXPECT_EQ(token->GetSubject()->domain, c.domain);
        }
    }
    AssertionSpec spec;
    spec.delegates = {{"bob", -60}};
    EXPECT_TRUE(Throws<ParseException>(
        [&] { CreateSamlToken(MakeSignedAssertion(spec)); },
        "Failed to parse the UPN NameID: `bob'; name or domain part is missing."));

    const std::string email = ReplaceOnce(
        MakeSignedAssertion(AssertionSpec{}), "Format=\"http://schemas.xmlsoap.org/claims/UPN\"",
        "Format=\"urn:oasis:names:tc:SAML:1.1:nameid-format:emailAddress\"");
    EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(email); },
                                       "Invalid or unsupported NameId format "
                                       "'urn:oasis:names:tc:SAML:1.1:nameid-format:emailAddress'"));
}

TEST(SamlTokenTest, InterpretsGroupAndSolutionAttributesStrictly) {
    struct Case {
        SamlAttribute attribute;
        std::string message;  // empty: accepted
    };
    const Case cases[] = {
        {{Saml::kGroupIdentityAttribute, {"\\Users"}},
         "Failed to parse Group Identity value: `\\Users'; domain or group missing"},
        {{Saml::kGroupIdentityAttribute, {"example.test\\"}},
         "Failed to parse Group Identity value: `example.test\\'; domain or group missing"},
        {{Saml::kGroupIdentityAttribute, {"Users"}},
         "Failed to parse Group Identity value: `Users'; domain or group missing"},
        {{Saml::kIsSolutionAttribute, {}}, "No value found for attribute isSolution."},
        {{Saml::kIsSolutionAttribute, {"true", "true"}},
         "More than one value found for attribute isSolution."},
        {{Saml::kIsSolutionAttribute, {"1"}}, ""},
        {{Saml::kGivenNameAttribute, {}}, ""},
    };
    for (const auto& c : cases) {
        AssertionSpec spec;
        spec.attributes = {c.attribute};
        const std::string xml = MakeSignedAssertion(spec);
        if (c.message.empty()) {
            const auto token = CreateSamlToken(xml);
            EXPECT_FALSE(token->IsSolution());
            PersonName name;
            token->GetPersonName(name);
            EXPECT_EQ(name.givenName, "");
        } else {
            EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml); }, c.message));
        }
    }
}

TEST(SamlTokenTest, EntryPointsVerifyOnlyWhenTheyTakeAResolver) {
    const std::string valid = MakeSignedAssertion(AssertionSpec{});
    const std::string tampered = ReplaceOnce(valid, "alice@", "mallory@");
    const char* tamperedMessage =
        "Failed to verify signature: token might have been tampered with.";

    EXPECT_EQ(CreateSamlToken(tampered)->GetSubject()->name, "mallory");
    EXPECT_EQ(CreateSamlToken(tampered, 60L)->GetSubject()->name, "mallory");
    EXPECT_EQ(CreateSamlToken(tampered, 0)->GetSubject()->name, "mallory");
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] { CreateSamlToken(tampered, StsResolver().Get()); }, tamperedMessage));
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] { CreateSamlToken(tampered, StsResolver().Get(), 60); }, tamperedMessage));
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] { CreateSamlToken(valid, OtherResolver().Get()); }, tamperedMessage));
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] {
            CreateSamlToken(valid,
                            static_cast<const Basalt::Xml::Security::KeyInfoResolver*>(nullptr));
        },
        "Signature verification error. ", true));

    const auto factory = CreateSamlTokenFactory(StsResolver().Get());
    EXPECT_EQ(factory->CreateSamlToken(valid)->GetXml(), valid);
    EXPECT_TRUE(Throws<InvalidSignatureException>([&] { factory->CreateSamlToken(tampered); },
                                                  tamperedMessage));
    const auto untrusting = CreateSamlTokenFactory(OtherResolver().Get());
    EXPECT_THROW(untrusting->CreateSamlToken(valid, 600), InvalidSignatureException);
}

TEST(SamlTokenTest, ResolverProviderChoosesTheResolverAfterParsing) {
    const std::string valid = MakeSignedAssertion(AssertionSpec{});
    std::string seenIssuer;
    const KeyInfoResolverProvider byIssuer =
        [&](const SamlToken* token) -> Ref<const Basalt::Xml::Security::KeyInfoResolver> {
        seenIssuer = token->GetIssuer();
        return token->GetIssuer() == "https://sts.example.test/sts" ? StsResolver()
                                                                    : OtherResolver();
    };
    EXPECT_EQ(CreateSamlToken(valid, byIssuer)->GetSubject()->name, "alice");
    EXPECT_EQ(seenIssuer, "https://sts.example.test/sts");

    const KeyInfoResolverProvider untrusted = [](const SamlToken*) {
        return Ref<const Basalt::Xml::Security::KeyInfoResolver>(OtherResolver());
    };
    EXPECT_THROW(CreateSamlToken(valid, untrusted), InvalidSignatureException);

    // The text is parsed and validated before the provider is even looked at.
    const KeyInfoResolverProvider empty;
    EXPECT_THROW(CreateSamlToken(valid, empty), std::bad_function_call);
    EXPECT_THROW(CreateSamlToken("<x/>", empty), ParseException);
}

TEST(SamlTokenTest, FromDomKeepsTheCanonicalFormAndLeavesTheElementToTheCaller) {
    AssertionSpec spec;
    spec.holderOfKey = true;
    const std::string xml = MakeSignedAssertion(spec);
    // The assertion inside a larger document, as in a SOAP response.
    const auto document = ParseDocument(
        "<env:Envelope xmlns:env='http://schemas.xmlsoap.org/soap/envelope/'><env:Body>" + xml +
        "</env:Body></env:Envelope>");
    const auto body = document->GetDocumentElement()->FindChildElement(
        "http://schemas.xmlsoap.org/soap/envelope/", "Body");
    const auto assertion =
        body->FindChildElement("urn:oasis:names:tc:SAML:2.0:assertion", "Assertion");
    ASSERT_TRUE(assertion);

    const auto verified = CreateSamlTokenFromDom(assertion.Get(), StsResolver().Get());
    Ref<Basalt::Xml::Security::Canonicalizer> c14n;
    Basalt::Xml::Security::CreateCanonicalizer("http://www.w3.org/TR/2001/REC-xml-c14n-20010315",
                                               c14n);
    Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    c14n->Canonicalize(assertion.Get(), writer.Get());
    EXPECT_EQ(verified->GetXml(), writer->GetString());
    // The canonical text stands alone as a token.
    EXPECT_EQ(CreateSamlToken(verified->GetXml(), StsResolver().Get())->GetId(), verified->GetId());

    EXPECT_THROW(CreateSamlTokenFromDom(assertion.Get(), OtherResolver().Get(), 600),
                 InvalidSignatureException);
    EXPECT_EQ(CreateSamlTokenFromDom(assertion.Get(), 0)->GetTokenType(), Saml_HOK);
    EXPECT_EQ(CreateSamlTokenFactory(StsResolver().Get())
                  ->CreateSamlTokenFromDom(assertion.Get())
                  ->GetId(),
              verified->GetId());
    EXPECT_THROW(CreateSamlTokenFromDom(nullptr, 600L), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateSamlTokenFromDom(body.Get(), 600L), ParseException);
}

// A factory that overrides only the two operations with a tolerance still handles all four.
class RecordingFactory final : public SamlTokenFactory {
  public:
    std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml,
                                                     long tolerance) const override {
        tolerances.push_back(tolerance);
        return SsoClient::CreateSamlToken(xml, tolerance);
    }
    std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode* element,
                                                            long tolerance) const override {
        tolerances.push_back(tolerance);
        return SsoClient::CreateSamlTokenFromDom(element, tolerance);
    }
    using SamlTokenFactory::CreateSamlToken;
    using SamlTokenFactory::CreateSamlTokenFromDom;
    mutable std::vector<long> tolerances;
};

TEST(SamlTokenTest, FactoryDefaultsDispatchToTheToleranceOperations) {
    const std::string xml = MakeSignedAssertion(AssertionSpec{});
    RecordingFactory factory;
    const SamlTokenFactory& base = factory;
    base.CreateSamlToken(xml);
    const auto document = ParseDocument(xml);
    base.CreateSamlTokenFromDom(document->GetDocumentElement().Get());
    EXPECT_EQ(factory.tolerances, (std::vector<long>{600, 600}));
}

TEST(SamlTokenTest, TokensAreBuiltAndReadOnManyThreads) {
    const std::string xml = MakeSignedAssertion(AssertionSpec{});
    const auto resolver = StsResolver();
    const auto shared = CreateSamlToken(xml, resolver.Get());
    std::atomic<int> built{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                const auto token = CreateSamlToken(xml, resolver.Get());
                std::vector<PrincipalId> groups;
                shared->GetGroups(groups);
                if (token->GetSubject()->name == shared->GetSubject()->name) {
                    ++built;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(built.load(), 40);
}

TEST(SamlTokenDeathTest, UnsupportedInfoAborts) {
    const auto token = CreateSamlToken(MakeSignedAssertion(AssertionSpec{}));
    EXPECT_DEATH(token->GetUnsupportedInfo(), "NOT_IMPLEMENTED ssoClient/SamlTokenImpl:94");
}

}  // namespace

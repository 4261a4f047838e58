// What a token reports, how each entry point parses and verifies, the interpretation of names,
// groups, counts and attributes, and the one-line descriptions log readers match letter for letter.
#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <atomic>
#include <thread>

#include <basalt/IO.h>
#include <basalt/Xml.h>

#include "internal/saml/Descriptions.h"
#include "internal/saml/SamlNames.h"
#include "internal/saml/SamlTokenImpl.h"
#include "internal/xml/Namespaces.h"
#include "internal/xml/XmlUtils.h"
#include "support/ExpectThrow.h"
#include "support/LogCapture.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using Basalt::Ref;
using TokenPtr = std::shared_ptr<const SamlToken>;

// The element names under node, depth first: wraps (and drops) a wrapper per node.
std::string Walk(const Ref<Basalt::Xml::Node>& node) {
    std::string names;
    for (auto child = node->GetFirstChild(); child; child = child->GetNextSibling()) {
        if (auto* element = dynamic_cast<Basalt::Xml::ElementNode*>(child.Get())) {
            names += element->GetQualifiedName() + "(" + Walk(child) + ")";
        }
    }
    return names;
}

// What readers ask of a token, as one text; with the DOM, also its XML, its signature check and
// the signature's DOM, serialised and walked.
std::string Report(const SamlToken& token, bool dom = false) {
    PersonName name;
    token.GetPersonName(name);
    std::set<std::string> audience;
    token.GetAudience(audience);
    std::vector<Advice> advice;
    token.GetAdvice(advice);
    std::string report = token.GetId() + " " + token.GetIssuer() + " " +
                         token.GetHolderOfKeyCertificate()->GetSubjectName() + " " +
                         std::to_string((token.GetExpirationTimeWithTolerance().GetUtcTime() -
                                         token.GetExpirationTime().GetUtcTime()) /
                                        1000000) +
                         "\n" + CreateSamlTokenDescription(token) + "\n" + name.givenName + " " +
                         name.surname + " " + JoinStrings(audience) + "\n" +
                         JoinDescriptions(advice, {DescribeAdvice});
    if (dom) {
        static const auto resolver = StsResolver();  // one for every reader
        const auto* signature = token.GetSignature();
        Ref<Basalt::StringWriter> writer;
        Basalt::CreateStringWriter(writer);
        signature->GetElement()->Serialize(writer.Get());
        report += token.GetXml() + (signature->Verify(resolver.Get()) ? "verified" : "NOT") +
                  writer->TakeString() + Walk(signature->GetElement()->GetOwnerDocument());
    }
    return report;
}

// Then one such token read from several threads at once (run under ThreadSanitizer too): every
// reader sees what a lone reader sees, the signature object built in the race.
TEST(SamlTokenTest, ReportsEverythingTheAssertionSaysToReadersOnManyThreads) {
    const ManualClock now("2030-01-01T00:00:00Z");
    AssertionSpec spec;
    spec.clock = &now;
    spec.id = "_rich";
    spec.holderOfKey = true;
    spec.delegates = {{"bob@example.test", -600}, {"carol@sub.example.test", -300}};
    spec.audiences = {"urn:b", "urn:a", "urn:b"};
    spec.proxyCount = "3";
    spec.renewCount = "5";  // only enables renewal: the count is the proxy count
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
    const SamlTokenImpl token(xml, true, StsResolver().Get(), 0, now);
    EXPECT_EQ(Report(token),
              "_rich https://sts.example.test/sts CN=user@example.test 0\n"
              "SamlToken [subject={Name: alice; Domain:example.test}, groups=[{Name: Users; "
              "Domain:example.test}, {Name: a\\b; Domain:example.test}, {Name: Admins; "
              "Domain:other}], delegationChain=[{Name: bob; Domain:example.test} at "
              "2029-12-31T23:50:00.000000Z, {Name: carol; Domain:sub.example.test} at "
              "2029-12-31T23:55:00.000000Z], startTime=2029-12-31T23:59:00.000000Z, "
              "endTime=2030-01-01T01:00:00.000000Z, renewCount=3, delegableCount=3, "
              "isSolution=true, type=Saml_HOK]\n"
              "Alice Liddell urn:a, urn:b\n"
              "Advice [source=urn:advice:one, attributes=[[source=colour, attributes=[blue, "
              "green]], [source=empty, attributes=[]]]], Advice [source=urn:advice:two, "
              "attributes=[]]");

    const std::string alone = Report(token, true);
    const SamlTokenImpl shared(xml, true, StsResolver().Get(), 0, now);
    std::atomic<int> differing{0};
    std::vector<std::thread> readers;
    for (int thread = 0; thread < 6; ++thread) {
        readers.emplace_back([&] {
            for (int round = 0; round < 30; ++round) {
                differing += Report(shared, true) == alone ? 0 : 1;
            }
        });
    }
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(differing, 0);
}

TEST(SamlTokenTest, CountsFollowTheRestrictions) {
    using Count = std::optional<std::string>;
    const std::tuple<Count, Count, int32_t, int32_t> cases[] = {
        // renew restriction's count, proxy restriction's count, renew count, delegable count
        {std::nullopt, std::nullopt, 0, 0},
        {std::nullopt, "4", 0, 4},
        {"5", "2", 2, 2},
        {"5", std::nullopt, 0, 0},  // no proxy count to take
        {"", "3", 0, 3},            // a renew restriction without a count
        {"0", "0", 0, 0},
        {"1", "99999999999", INT32_MAX, INT32_MAX},  // saturates
    };
    for (const auto& [renew, proxy, renewCount, delegableCount] : cases) {
        AssertionSpec spec;
        spec.renewCount = renew;
        spec.proxyCount = proxy;
        const auto token = CreateSamlToken(MakeSignedAssertion(spec));
        EXPECT_EQ(token->GetRenewCount(), renewCount) << renew.value_or("-");
        EXPECT_EQ(token->IsRenewable(), renewCount > 0);
        EXPECT_EQ(token->GetDelegableCount(), delegableCount) << proxy.value_or("-");
        EXPECT_EQ(token->IsDelegable(), delegableCount > 0);
    }
}

TEST(SamlTokenTest, NamesGroupsAndSolutionFlagAreInterpretedStrictly) {
    const auto upn = [](const std::string& v) {
        return "Failed to parse the UPN NameID: `" + v + "'; name or domain part is missing.";
    };
    const auto group = [](const std::string& v) {
        return "Failed to parse Group Identity value: `" + v + "'; domain or group missing";
    };
    const char *groups = Saml::kGroupIdentityAttribute, *solution = Saml::kIsSolutionAttribute;
    const std::string a = "a@example.test";
    // Subject, attributes; the token as "name|domain|isSolution|given name|surname", or the
    // message.
    const std::tuple<std::string, std::vector<SamlAttribute>, std::string> cases[] = {
        {"a@b@example.test", {}, "a@b|example.test|0||"},
        {"a&amp;b@example.test",
         {{solution, {"1"}}, {Saml::kGivenNameAttribute, {}}},
         "a&b|example.test|0||"},
        {"alice@", {}, upn("alice@")},
        {"@example.test", {}, upn("@example.test")},
        {"alice", {}, upn("alice")},
        {a, {{groups, {"\\U"}}}, group("\\U")},
        {a, {{groups, {"d\\"}}}, group("d\\")},
        {a, {{groups, {"U"}}}, group("U")},
        {a, {{solution, {"tru"}}}, "a|example.test|0||"},  // a prefix of "true" is not true
        {a, {{solution, {}}}, "No value found for attribute isSolution."},
        {a, {{solution, {"1", "1"}}}, "More than one value found for attribute isSolution."},
    };
    for (const auto& [subject, attributes, expected] : cases) {
        AssertionSpec spec;
        spec.subjectUpn = subject;
        spec.attributes = attributes;
        const std::string xml = MakeSignedAssertion(spec);
        if (expected.find('|') == std::string::npos) {
            EXPECT_TRUE(Throws<ParseException>([&] { CreateSamlToken(xml); }, expected));
            continue;
        }
        const auto token = CreateSamlToken(xml);
        PersonName name{"stale", "stale"};
        token->GetPersonName(name);
        EXPECT_EQ(token->GetSubject()->name + "|" + token->GetSubject()->domain + "|" +
                      std::to_string(token->IsSolution()) + "|" + name.givenName + "|" +
                      name.surname,
                  expected);
    }
}

// Every entry point: whether it verifies, and the tolerance it applies (0 where one is passed).
// From the DOM, the assertion sits in a larger document, as in a SOAP response: its text is the
// inclusive canonical form, which stands alone as a token.
TEST(SamlTokenTest, EntryPointsVerifyOnlyWithAResolverAndApplyTheirTolerance) {
    const auto sts = StsResolver();
    const auto factory = CreateSamlTokenFactory(sts.Get());
    std::vector<Ref<Basalt::Xml::ElementNode>> kept;  // each Body and its assertion
    const auto dom = [&](const std::string& xml) {
        Ref<Basalt::Xml::Document> document;
        ParseXmlText("<e:Envelope xmlns:e='urn:e'><e:Body>" + xml + "</e:Body></e:Envelope>",
                     document);
        kept.push_back(document->GetDocumentElement()->FindChildElement("urn:e", "Body"));
        return kept.emplace_back(kept.back()->FindChildElement(Xmlns::kSamlAssertion, "Assertion"))
            .Get();
    };
    // A provider is asked for the resolver once the token is parsed.
    const auto byIssuer = [&](const SamlToken* token) {
        EXPECT_EQ(token->GetIssuer(), "https://sts.example.test/sts");
        return Ref<const Basalt::Xml::Security::KeyInfoResolver>(sts);
    };
    const std::tuple<std::function<TokenPtr(const std::string&)>, bool, long> entries[] = {
        {[&](auto& x) { return CreateSamlToken(x, byIssuer); }, true, 600},
        {[](auto& x) { return CreateSamlToken(x); }, false, 600},
        {[](auto& x) { return CreateSamlToken(x, 0L); }, false, 0},
        {[&](auto& x) { return CreateSamlToken(x, sts.Get()); }, true, 600},
        {[&](auto& x) { return CreateSamlToken(x, sts.Get(), 0); }, true, 0},
        {[&](auto& x) { return factory->CreateSamlToken(x); }, true, 600},
        {[&](auto& x) { return factory->CreateSamlToken(x, 0); }, true, 0},
        {[&](auto& x) { return CreateSamlTokenFromDom(dom(x), 0L); }, false, 0},
        {[&](auto& x) { return CreateSamlTokenFromDom(dom(x), sts.Get()); }, true, 600},
        {[&](auto& x) { return CreateSamlTokenFromDom(dom(x), sts.Get(), 0); }, true, 0},
        {[&](auto& x) { return factory->CreateSamlTokenFromDom(dom(x)); }, true, 600},
        {[&](auto& x) { return factory->CreateSamlTokenFromDom(dom(x), 0); }, true, 0},
    };
    const std::string valid = MakeSignedAssertion(AssertionSpec{});
    const std::string tampered = ReplaceOnce(valid, "alice@", "mallory@");
    Ref<Basalt::Xml::Security::Canonicalizer> c14n;
    Basalt::Xml::Security::CreateCanonicalizer("http://www.w3.org/TR/2001/REC-xml-c14n-20010315",
                                               c14n);
    Ref<Basalt::StringWriter> inclusive;
    Basalt::CreateStringWriter(inclusive);
    c14n->Canonicalize(dom(valid), inclusive.Get());
    for (const auto& [create, verifies, tolerance] : entries) {
        const size_t parsed = kept.size();
        const auto token = create(valid);
        EXPECT_EQ(token->GetXml(), kept.size() > parsed ? inclusive->GetString() : valid);
        EXPECT_EQ(CreateSamlToken(token->GetXml(), sts.Get())->GetId(), token->GetId());
        EXPECT_EQ(token->GetExpirationTimeWithTolerance().GetUtcTime() -
                      token->GetExpirationTime().GetUtcTime(),
                  tolerance * 1000000);
        EXPECT_EQ(verifies,
                  Throws<InvalidSignatureException>(
                      [&] { create(tampered); },
                      "Failed to verify signature: token might have been tampered with."));
    }
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] {
            CreateSamlToken(valid, static_cast<Basalt::Xml::Security::KeyInfoResolver*>(nullptr));
        },
        "Signature verification error. No key resolver to verify the signature with"));
    EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(
        [] { CreateSamlTokenFromDom(nullptr, 600L); },
        "CreateSamlTokenFromDom: the assertion element may not be null"));
    EXPECT_THROW(CreateSamlTokenFromDom(kept.front().Get(), 600L), ParseException);
    const auto untrusted = [](const SamlToken*) {
        return Ref<const Basalt::Xml::Security::KeyInfoResolver>(OtherResolver());
    };
    EXPECT_THROW(CreateSamlToken(valid, untrusted), InvalidSignatureException);
}

// Plain strings keep the separator after an empty first value; descriptions get one only once the
// text is not empty.
TEST(DescriptionTest, DescribesTokenSpecsAndAMissingPrincipalSeparatedOnceTextBegins) {
    EXPECT_EQ(DescribeAdviceAttribute(AdviceAttribute{"x", {"", "b"}}),
              "[source=x, attributes=[, b]]");
    EXPECT_EQ(JoinDescriptions(std::vector<std::string>{"", "x", "", "y"},
                               [](const std::string& s) { return s; }),
              "x, , y");
    TokenSpec spec = Spec(7200);
    spec.delegable = spec.renewable = true;
    spec.delegateTo = std::string();
    spec.confirmation = static_cast<ConfirmationType>(5);
    spec.audienceRestriction = {"urn:b", "urn:a"};
    spec.advice = {Advice{"s", {{"n", {"v"}}}}, Advice{"t", {}}};
    EXPECT_EQ(DescribeTokenSpec(spec),
              "TokenSpec [tokenLifetimeSec=7200, delegable=true, delegateTo=, renewable=true, "
              "confirmationType=5,audienceRestriction=urn:a, urn:b, advice=[Advice [source=s, "
              "attributes=[[source=n, attributes=[v]]]], Advice [source=t, attributes=[]]]");
    EXPECT_EQ(DescribePrincipalId(static_cast<const PrincipalId*>(nullptr)), "(null)");
}

// Another STS's attribute host, chosen before first use, yields the groups; the build-time host
// then becomes a near miss, ignored with one warning. The hosts are fixed for the process, so
// this runs in a fresh one, which exits 0 only if every check held (failures on its output).
void AnotherHost() {
    const std::string other = "https://sts.other.example",
                      path = "/schemas/attr-names/2009/01/GroupIdentity",
                      base = SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE;
    const auto groupsOf = [&](const std::string& host) {
        AssertionSpec spec;
        spec.attributes = {{host + path, {"other\\Admins"}}};
        std::vector<PrincipalId> groups;
        CreateSamlToken(MakeSignedAssertion(spec))->GetGroups(groups);
        return groups.size();
    };
    SetSamlExtensionHosts(SSOCLIENT_SAML_EXTENSION_NS_BASE, other);
    LogCapture log(4);
    EXPECT_EQ(groupsOf(other), 1u);
    EXPECT_EQ(groupsOf(base) + groupsOf("http://x"), 0u);
    EXPECT_EQ(log.Take().size(), 1u);
    EXPECT_TRUE(Throws<Basalt::InvalidStateException>(
        [&] { SetSamlExtensionHosts(other, other); },
        "SAML extension hosts must be set before the first token is parsed or requested"));
}

TEST(SamlTokenTest, ExtensionHostsChosenAtRunTimeBeforeFirstUse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            AnotherHost();
            std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(PrincipalIdTest, ComparesAsciiCaseInsensitivelyUpToTheFirstNul) {
    const std::tuple<PrincipalId, PrincipalId, bool> cases[] = {
        {{"Alice", "SALES"}, {"alice", "sales"}, true},
        {{"alice", "sales"}, {"alice", "support"}, false},
        {{"bob", "sales"}, {"alice", "sales"}, false},
        {{"\xC3\x89mile", "x"}, {"\xC3\xA9mile", "x"}, false},  // non-ASCII letters do not fold
        {{std::string("al\0ice", 6), "d"}, {std::string("al\0bob", 6), "d"}, true},
        {{"alice", std::string("d\0x", 3)}, {"ALICE", "D"}, true},
        {{"alice", ""}, {"alice2", ""}, false},
    };
    for (const auto& [a, b, equal] : cases) {
        EXPECT_EQ(a == b, equal) << a.name << "@" << a.domain;
        EXPECT_EQ(b != a, !equal);
    }
}

}  // namespace

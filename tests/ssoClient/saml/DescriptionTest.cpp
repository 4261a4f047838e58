#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/SamlTokenFactory.h>

#include "internal/saml/Descriptions.h"
#include "internal/saml/SamlNames.h"
#include "support/SamlAssertionGenerator.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

TEST(DescriptionTest, DescribesRecords) {
    EXPECT_EQ(DescribePrincipalId(PrincipalId{"alice", "sales"}), "{Name: alice; Domain:sales}");
    EXPECT_EQ(DescribePrincipalId(static_cast<const PrincipalId*>(nullptr)), "(null)");
    const Basalt::System::DateTime instant("2024-01-05T03:04:05.006Z");
    EXPECT_EQ(DescribeDelegate(Delegate{{"bob", "eng"}, instant}),
              "{Name: bob; Domain:eng} at 2024-01-05T03:04:05.006000Z");
    EXPECT_EQ(DescribeAdviceAttribute(AdviceAttribute{"colour", {"a", "b"}}),
              "[source=colour, attributes=[a, b]]");
    // Plain strings keep the separator after an empty first value.
    EXPECT_EQ(DescribeAdviceAttribute(AdviceAttribute{"x", {"", "b"}}),
              "[source=x, attributes=[, b]]");
    EXPECT_EQ(DescribeAdviceAttribute(AdviceAttribute{"x", {}}), "[source=x, attributes=[]]");
    EXPECT_EQ(DescribeAdvice(Advice{"src", {{"a", {"1"}}, {"b", {}}}}),
              "Advice [source=src, attributes=[[source=a, attributes=[1]], "
              "[source=b, attributes=[]]]]");
    EXPECT_EQ(JoinDescriptions(std::vector<std::string>{"", "x", "", "y"},
                               [](const std::string& s) { return s; }),
              "x, , y");  // a separator only once the text is not empty
}

TEST(DescriptionTest, DescribesTokenSpecs) {
    TokenSpec spec;
    spec.tokenLifetimeSec = 7200;
    EXPECT_EQ(DescribeTokenSpec(spec),
              "TokenSpec [tokenLifetimeSec=7200, delegable=false, delegateTo=<unset>, "
              "renewable=false, confirmationType=0,audienceRestriction=, advice=[]");
    spec.delegable = true;
    spec.renewable = true;
    spec.delegateTo = std::string();
    spec.confirmation = static_cast<ConfirmationType>(5);
    spec.audienceRestriction = {"urn:b", "urn:a"};
    spec.advice = {Advice{"s", {{"n", {"v"}}}}, Advice{"t", {}}};
    EXPECT_EQ(DescribeTokenSpec(spec),
              "TokenSpec [tokenLifetimeSec=7200, delegable=true, delegateTo=, renewable=true, "
              "confirmationType=5,audienceRestriction=urn:a, urn:b, advice=[Advice [source=s, "
              "attributes=[[source=n, attributes=[v]]]], Advice [source=t, attributes=[]]]");
}

TEST(DescriptionTest, DescribesTokens) {
    AssertionSpec spec;
    spec.holderOfKey = true;
    spec.delegates = {{"bob@example.test", -600}, {"carol@example.test", -300}};
    spec.proxyCount = "2";
    spec.renewCount = "4";
    spec.attributes = {{Saml::kGroupIdentityAttribute, {"example.test\\Users", "x\\Admins"}},
                       {Saml::kIsSolutionAttribute, {"true"}}};
    const auto token = CreateSamlToken(MakeSignedAssertion(spec));
    std::vector<Delegate> chain;
    token->GetDelegationChain(chain);
    EXPECT_EQ(CreateSamlTokenDescription(*token),
              "SamlToken [subject={Name: alice; Domain:example.test}, groups=[{Name: Users; "
              "Domain:example.test}, {Name: Admins; Domain:x}], delegationChain=[{Name: bob; "
              "Domain:example.test} at " +
                  chain[0].delegationInstant.ToString() +
                  ", {Name: carol; Domain:example.test} at " +
                  chain[1].delegationInstant.ToString() +
                  "], startTime=" + token->GetStartTime().ToString() +
                  ", endTime=" + token->GetExpirationTime().ToString() +
                  ", renewCount=2, delegableCount=2, isSolution=true, type=Saml_HOK]");

    const auto plain = CreateSamlToken(MakeSignedAssertion(AssertionSpec{}));
    EXPECT_EQ(CreateSamlTokenDescription(*plain),
              "SamlToken [subject={Name: alice; Domain:example.test}, groups=[], "
              "delegationChain=[], startTime=" +
                  plain->GetStartTime().ToString() +
                  ", endTime=" + plain->GetExpirationTime().ToString() +
                  ", renewCount=0, delegableCount=0, isSolution=false, type=Saml_Bearer]");
}

// Another token kind (as JWT tokens are): no subject and a type the description does not know.
class OddToken final : public SamlToken {
  public:
    const std::string& GetId() const override { return m_text; }
    const Basalt::System::DateTime& GetStartTime() const override { return m_time; }
    const Basalt::System::DateTime& GetExpirationTime() const override { return m_time; }
    Basalt::System::DateTime GetExpirationTimeWithTolerance() const override { return m_time; }
    const PrincipalId* GetSubject() const override { return nullptr; }
    bool IsRenewable() const override { return false; }
    int32_t GetRenewCount() const override { return -1; }
    bool IsDelegable() const override { return false; }
    int32_t GetDelegableCount() const override { return 0; }
    bool IsSolution() const override { return false; }
    TokenType GetTokenType() const override { return static_cast<TokenType>(7); }
    void GetPersonName(PersonName&) const override {}
    void GetGroups(std::vector<PrincipalId>& groups) const override { groups.clear(); }
    void GetDelegationChain(std::vector<Delegate>& chain) const override { chain.clear(); }
    void GetAudience(std::set<std::string>&) const override {}
    void GetAdvice(std::vector<Advice>&) const override {}
    Basalt::Crypto::Certificate* GetHolderOfKeyCertificate() const override { return nullptr; }
    const std::string& GetIssuer() const override { return m_text; }
    Basalt::Xml::Security::Signature* GetSignature() const override { return nullptr; }
    const std::string& GetXml() const override { return m_text; }
    void GetUnsupportedInfo() const override {}

  private:
    std::string m_text;
    Basalt::System::DateTime m_time{"2030-02-03T04:05:06Z"};
};

TEST(DescriptionTest, UnknownTypesAndMissingSubjectsPrintEmptyAndNull) {
    EXPECT_EQ(CreateSamlTokenDescription(OddToken()),
              "SamlToken [subject=(null), groups=[], delegationChain=[], "
              "startTime=2030-02-03T04:05:06.000000Z, endTime=2030-02-03T04:05:06.000000Z, "
              "renewCount=-1, delegableCount=0, isSolution=false, type=]");
}

}  // namespace

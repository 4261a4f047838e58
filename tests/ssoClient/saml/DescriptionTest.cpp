// The one-line descriptions log readers match letter for letter.
#include <gtest/gtest.h>
#include <ssoClient/Description.h>

#include "internal/saml/Descriptions.h"
#include "ssoClient/requests/RequestTestSupport.h"

namespace {

using namespace SsoClient;

// Record formats are checked on a parsed token in SamlTokenTest; here, what it cannot show.
TEST(DescriptionTest, SeparatorsFollowTheFirstNonEmptyText) {
    // Plain strings keep the separator after an empty first value.
    EXPECT_EQ(DescribeAdviceAttribute(AdviceAttribute{"x", {"", "b"}}),
              "[source=x, attributes=[, b]]");
    // Descriptions get a separator only once the text is not empty.
    EXPECT_EQ(JoinDescriptions(std::vector<std::string>{"", "x", "", "y"},
                               [](const std::string& s) { return s; }),
              "x, , y");
}

TEST(DescriptionTest, DescribesTokenSpecs) {
    TokenSpec spec;
    spec.tokenLifetimeSec = 7200;
    EXPECT_EQ(DescribeTokenSpec(spec),
              "TokenSpec [tokenLifetimeSec=7200, delegable=false, delegateTo=<unset>, "
              "renewable=false, confirmationType=0,audienceRestriction=, advice=[]");
    spec.delegable = spec.renewable = true;
    spec.delegateTo = std::string();
    spec.confirmation = static_cast<ConfirmationType>(5);
    spec.audienceRestriction = {"urn:b", "urn:a"};
    spec.advice = {Advice{"s", {{"n", {"v"}}}}, Advice{"t", {}}};
    EXPECT_EQ(DescribeTokenSpec(spec),
              "TokenSpec [tokenLifetimeSec=7200, delegable=true, delegateTo=, renewable=true, "
              "confirmationType=5,audienceRestriction=urn:a, urn:b, advice=[Advice [source=s, "
              "attributes=[[source=n, attributes=[v]]]], Advice [source=t, attributes=[]]]");
}

// A token without a subject, of each type (and one the description does not know); parsed tokens
// are described in SamlTokenTest.
TEST(DescriptionTest, DescribesEveryTokenTypeAndAMissingSubject) {
    const std::pair<TokenType, std::string> types[] = {
        {Saml_Bearer, "Saml_Bearer"},
        {Saml_HOK, "Saml_HOK"},
        {JWT_Bearer, "JWT_Bearer"},
        {static_cast<TokenType>(7), ""},
    };
    for (const auto& [type, name] : types) {
        EXPECT_EQ(CreateSamlTokenDescription(RequestTest::TextToken("", "", type)),
                  "SamlToken [subject=(null), groups=[], delegationChain=[], "
                  "startTime=1970-01-01T00:00:00.000000Z, endTime=1970-01-01T00:00:00.000000Z, "
                  "renewCount=0, delegableCount=0, isSolution=false, type=" +
                      name + "]");
    }
}

}  // namespace

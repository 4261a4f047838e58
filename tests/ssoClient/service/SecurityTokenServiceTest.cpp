// The paths a user runs, end to end against the loopback test STS (an independent implementation
// in Python, lxml and xmlsec): its tokens parse and verify here, our requests verify there.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>

#include "ServiceTestSupport.h"
#include "TestData.h"
#include "support/ExpectThrow.h"

namespace {

using namespace SsoClient;
using namespace ServiceTest;

class SecurityTokenServiceTest : public StsFixture {
  protected:
    void SetUp() override { s_sts->Command("reset"); }

    static std::shared_ptr<SecurityTokenService> Service(bool withHolderOfKey = true) {
        return MakeService(*s_trust, s_sts->Url(), withHolderOfKey);
    }
};

int64_t LifetimeSeconds(const SamlToken& token) {
    return (token.GetExpirationTime().GetUtcTime() - token.GetStartTime().GetUtcTime()) / 1000000;
}

TEST_F(SecurityTokenServiceTest, PasswordTokenCarriesWhatWasAskedFor) {
    TokenSpec spec = Spec(1200);
    spec.renewable = true;
    spec.delegable = true;
    spec.audienceRestriction = {"urn:service:b", "urn:service:a"};
    spec.advice = {{"urn:advice:source", {{"colour", {"red", "green"}}}}};
    auto token = Service(false)->AcquireToken("alice", "alice-password", spec);
    ASSERT_TRUE(token);
    EXPECT_EQ(*token->GetSubject(), (PrincipalId{"alice", "example.test"}));
    EXPECT_EQ(token->GetTokenType(), Saml_Bearer);
    EXPECT_EQ(LifetimeSeconds(*token), 1200);
    EXPECT_TRUE(token->IsRenewable());
    EXPECT_TRUE(token->IsDelegable());
    std::set<std::string> audience;
    token->GetAudience(audience);
    EXPECT_EQ(audience, spec.audienceRestriction);
    std::vector<Advice> advice;
    token->GetAdvice(advice);
    ASSERT_EQ(advice.size(), 1u);
    EXPECT_EQ(advice[0].source, "urn:advice:source");
    ASSERT_EQ(advice[0].attributes.size(), 1u);
    EXPECT_EQ(advice[0].attributes[0].values, (std::vector<std::string>{"red", "green"}));
    std::vector<PrincipalId> groups;
    token->GetGroups(groups);
    EXPECT_EQ(groups,
              (std::vector<PrincipalId>{{"Users", "example.test"}, {"Readers", "example.test"}}));
    PersonName name;
    token->GetPersonName(name);
    EXPECT_EQ(name.givenName, "Alice");
    EXPECT_EQ(name.surname, "Liddell");
    EXPECT_EQ(s_sts->Stats()["requests"], 1);
}

TEST_F(SecurityTokenServiceTest, HolderOfKeyOperationsChainTogether) {
    auto service = Service();
    TokenSpec spec = Spec(900);
    spec.renewable = true;
    spec.delegable = true;
    auto byCertificate = service->AcquireTokenByCertificate(spec);
    ASSERT_TRUE(byCertificate);
    EXPECT_EQ(byCertificate->GetTokenType(), Saml_HOK);
    EXPECT_EQ(byCertificate->GetSubject()->name, "client-solution");
    EXPECT_TRUE(byCertificate->IsSolution());
    ASSERT_NE(byCertificate->GetHolderOfKeyCertificate(), nullptr);
    EXPECT_TRUE(byCertificate->GetHolderOfKeyCertificate()->Equals(*s_trust->client.certificate));

    auto byToken = service->AcquireTokenByToken(*byCertificate, Spec(300));
    ASSERT_TRUE(byToken);
    EXPECT_EQ(*byToken->GetSubject(), *byCertificate->GetSubject());
    EXPECT_NE(byToken->GetId(), byCertificate->GetId());

    auto renewed = service->RenewToken(*byCertificate, 1800);
    ASSERT_TRUE(renewed);
    EXPECT_NE(renewed->GetId(), byCertificate->GetId());
    EXPECT_EQ(LifetimeSeconds(*renewed), 1800);

    EXPECT_TRUE(service->ValidateToken(*renewed));
    EXPECT_EQ(s_sts->Command("revoke " + renewed->GetId()), "OK");
    EXPECT_FALSE(service->ValidateToken(*renewed));
}

// A signed password request carrying another token as ActAs: the STS must find both the request
// signature and the embedded token's signature intact.
TEST_F(SecurityTokenServiceTest, ActingForAnotherExtendsTheDelegationChain) {
    auto service = Service();
    TokenSpec delegable = Spec();
    delegable.delegable = true;
    auto solution = service->AcquireTokenByCertificate(delegable);
    ASSERT_TRUE(solution);
    TokenSpec actAs = Spec();
    actAs.actAsToken = solution;
    auto acting = service->AcquireToken("alice", "alice-password", actAs);
    ASSERT_TRUE(acting);
    EXPECT_EQ(acting->GetTokenType(), Saml_HOK);
    EXPECT_EQ(acting->GetSubject()->name, "client-solution");
    std::vector<Delegate> chain;
    acting->GetDelegationChain(chain);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].principal, (PrincipalId{"alice", "example.test"}));
}

TEST_F(SecurityTokenServiceTest, GssNegotiationOverSeveralLegs) {
    TestGssHandler handler("alice@example.test", "alice-password", 2);
    auto token = Service(false)->AcquireTokenByGSS(Spec(), handler);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->GetSubject()->name, "alice");
    // Empty first leg, two challenges, then the final WELCOME handed to the handler once more.
    ASSERT_EQ(handler.serverLegs.size(), 4u);
    EXPECT_EQ(handler.serverLegs[0], "");
    EXPECT_EQ(handler.serverLegs[3], "WELCOME alice@example.test");
    EXPECT_EQ(s_sts->Stats()["requests"], 3);
}

TEST_F(SecurityTokenServiceTest, FailuresReachTheCaller) {
    EXPECT_TRUE(TestSupport::Throws<InvalidCredentialsException>(
        [] { Service(false)->AcquireToken("alice", "wrong", Spec()); },
        "Authentication failed: Invalid user name or password"));
    EXPECT_EQ(s_sts->Stats()["requests"], 1);
}

// TLS verification is on: a server certificate from another CA is refused, also after a context
// that trusts the server's CA has been used in this process (every context keeps its own trust).
TEST_F(SecurityTokenServiceTest, AServerCertificateFromAnotherCaIsRefused) {
    Service(false)->AcquireToken("alice", "alice-password", Spec());
    Basalt::Ssl::SSLContextOptions options;
    options.trustedCaPem = TestData::Read("tls/ca.pem");
    StsTrust otherCa;
    Basalt::Ssl::CreateSSLContext(options, otherCa.sslContext);
    EXPECT_THROW(
        MakeService(otherCa, s_sts->Url())->AcquireToken("alice", "alice-password", Spec()),
        CommunicationException);
    EXPECT_EQ(s_sts->Stats()["requests"], 1);
}

TEST_F(SecurityTokenServiceTest, AnAsynchronousCallDeliversItsToken) {
    CallbackLatch latch(1);
    std::shared_ptr<const SamlToken> delivered;
    Service()->AcquireTokenByCertificateAsync(
        Spec(), [&](const std::shared_ptr<const SamlToken>& token, const Basalt::Exception* error) {
            delivered = error ? nullptr : token;
            latch.CountDown();
        });
    ASSERT_TRUE(latch.Wait());
    ASSERT_TRUE(delivered);
    EXPECT_EQ(delivered->GetSubject()->name, "client-solution");
    EXPECT_EQ(latch.Calls(), 1);
}

}  // namespace

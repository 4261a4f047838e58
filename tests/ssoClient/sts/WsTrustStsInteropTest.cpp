// The library's request builder and token parser against the loopback test STS: requests the
// client builds are accepted (signatures included), and every token the STS issues parses,
// validates and verifies in the client. Replies are read the way the response handler reads them:
// the Assertion is taken from the reply's DOM and canonicalised by the token factory.

#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "../requests/RequestTestSupport.h"
#include "TestData.h"
#include "ssoClient/requests/RequestBuilder.h"
#include "sts/WsTrustSts.h"

namespace {

using namespace SsoClient;
using Basalt::Ref;
using Basalt::Xml::ElementNode;

constexpr char kExtensionBase[] = SSOCLIENT_SAML_EXTENSION_NS_BASE;

class WsTrustStsInteropTest : public ::testing::Test {
  protected:
    WsTrustStsInteropTest() : m_sts({"--extension-base", kExtensionBase}) {
        Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/client.pem"),
                                                 m_holderOfKey.certificate);
        Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read("sts/client.key"),
                                                m_holderOfKey.privateKey);
        Ref<Basalt::Crypto::Certificate> signing;
        Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/signing.pem"), signing);
        Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
        Basalt::Xml::Security::CreateTrustedCertificateResolver({signing}, resolver);
        m_resolver = resolver;
    }

    static TokenSpec Spec(int64_t lifetime = 600) {
        TokenSpec spec;
        spec.tokenLifetimeSec = lifetime;
        return spec;
    }

    // Sends the request; returns the reply's envelope element.
    Ref<ElementNode> Exchange(const SoapRequest& request, int expectedStatus = 200,
                              std::string* cookie = nullptr) {
        std::string reply;
        EXPECT_EQ(m_sts.Soap(request.soapAction, request.envelope, reply, cookie), expectedStatus)
            << reply;
        return RequestTest::Parse(reply);
    }

    std::shared_ptr<const SamlToken> TokenOf(const Ref<ElementNode>& response) {
        const Ref<ElementNode> assertion =
            RequestTest::Path(*response, {"RequestedSecurityToken", "Assertion"});
        return CreateSamlTokenFromDom(assertion.Get(), m_resolver.Get());
    }

    std::shared_ptr<const SamlToken> Issue(const SoapRequest& request) {
        return TokenOf(RequestTest::Path(
            *Exchange(request),
            {"Body", "RequestSecurityTokenResponseCollection", "RequestSecurityTokenResponse"}));
    }

    // "faultcode faultstring" of a fault reply.
    std::string Fault(const SoapRequest& request) {
        const Ref<ElementNode> fault =
            RequestTest::Path(*Exchange(request, 500), {"Body", "Fault"});
        return RequestTest::Child(*fault, "faultcode")->GetTextContent() + " " +
               RequestTest::Child(*fault, "faultstring")->GetTextContent();
    }

    bool Validate(const SoapRequest& request) {
        const std::string code =
            RequestTest::Path(*Exchange(request),
                              {"Body", "RequestSecurityTokenResponse", "Status", "Code"})
                ->GetTextContent();
        return code == "http://docs.oasis-open.org/ws-sx/ws-trust/200512/status/valid";
    }

    TestSts::WsTrustSts m_sts;
    HolderOfKeyConfig m_holderOfKey;
    Ref<Basalt::Xml::Security::KeyInfoResolver> m_resolver;
};

TEST_F(WsTrustStsInteropTest, PasswordTokenCarriesWhatWasAsked) {
    TokenSpec spec = Spec(777);
    spec.audienceRestriction = {"urn:b", "urn:a"};
    spec.advice = {Advice{"urn:source", {AdviceAttribute{"urn:first", {"v1", "v2"}}}}};
    spec.delegable = true;
    spec.renewable = true;
    const auto token = Issue(
        RequestBuilderImpl(boost::none).BuildAcquireTokenRequest("alice", "alice-password", spec));
    ASSERT_TRUE(token);
    EXPECT_EQ(token->GetTokenType(), Saml_Bearer);
    EXPECT_EQ(token->GetSubject()->name, "alice");
    EXPECT_EQ(token->GetSubject()->domain, "example.test");
    EXPECT_EQ(token->GetExpirationTime().GetUtcTime() - token->GetStartTime().GetUtcTime(),
              777 * 1000000LL);
    std::set<std::string> audience;
    token->GetAudience(audience);
    EXPECT_EQ(audience, spec.audienceRestriction);
    std::vector<Advice> advice;
    token->GetAdvice(advice);
    ASSERT_EQ(advice.size(), 1u);
    EXPECT_EQ(advice[0].source, "urn:source");
    ASSERT_EQ(advice[0].attributes.size(), 1u);
    EXPECT_EQ(advice[0].attributes[0].values, (std::vector<std::string>{"v1", "v2"}));
    EXPECT_TRUE(token->IsDelegable());
    EXPECT_TRUE(token->IsRenewable());
    std::vector<PrincipalId> groups;
    token->GetGroups(groups);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].domain, "example.test");
    EXPECT_EQ(groups[0].name, "Users");
    PersonName name;
    token->GetPersonName(name);
    EXPECT_EQ(name.givenName, "Alice");
    EXPECT_EQ(name.surname, "Liddell");
}

TEST_F(WsTrustStsInteropTest, PasswordFaultsAreTheOnesTheClientMaps) {
    const RequestBuilderImpl builder(boost::none);
    EXPECT_EQ(Fault(builder.BuildAcquireTokenRequest("alice", "wrong", Spec())),
              "wst:FailedAuthentication Invalid user name or password");
    EXPECT_EQ(Fault(builder.BuildAcquireTokenRequest("expired", "expired-password", Spec())),
              "wst:FailedAuthentication Password of the user logging on is expired: "
              "expired@example.test");
}

TEST_F(WsTrustStsInteropTest, CertificateTokenAndTokenByTokenAndDelegation) {
    const RequestBuilderImpl builder(m_holderOfKey);
    TokenSpec spec = Spec();
    spec.delegable = true;
    const auto byCertificate = Issue(builder.BuildAcquireTokenByCertificateRequest(spec));
    ASSERT_TRUE(byCertificate);
    EXPECT_EQ(byCertificate->GetTokenType(), Saml_HOK);
    EXPECT_TRUE(byCertificate->IsSolution());
    EXPECT_EQ(byCertificate->GetSubject()->name, "client-solution");
    ASSERT_NE(byCertificate->GetHolderOfKeyCertificate(), nullptr);

    const auto byToken = Issue(builder.BuildAcquireTokenByTokenRequest(*byCertificate, Spec(300)));
    ASSERT_TRUE(byToken);
    EXPECT_EQ(byToken->GetTokenType(), Saml_HOK);
    EXPECT_EQ(byToken->GetSubject()->name, "client-solution");

    TokenSpec delegated = Spec();
    delegated.delegateTo = std::string("client-solution");
    const auto token = Issue(builder.BuildAcquireTokenRequest("bob", "bob-password", delegated));
    std::vector<Delegate> chain;
    token->GetDelegationChain(chain);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].principal.name, "client-solution");
    EXPECT_EQ(token->GetSubject()->name, "bob");

    TokenSpec actAs = Spec();
    actAs.actAsToken = byCertificate;
    const auto acting = Issue(builder.BuildAcquireTokenRequest("alice", "alice-password", actAs));
    EXPECT_EQ(acting->GetSubject()->name, "client-solution");
}

TEST_F(WsTrustStsInteropTest, RenewAndValidate) {
    const RequestBuilderImpl builder(m_holderOfKey);
    TokenSpec spec = Spec();
    spec.renewable = true;
    const auto token = Issue(builder.BuildAcquireTokenByCertificateRequest(spec));
    ASSERT_TRUE(token);

    const auto renewed =
        TokenOf(RequestTest::Path(*Exchange(builder.BuildRenewTokenRequest(*token, 300)),
                                  {"Body", "RequestSecurityTokenResponse"}));
    EXPECT_NE(renewed->GetId(), token->GetId());
    EXPECT_EQ(renewed->GetExpirationTime().GetUtcTime() - renewed->GetStartTime().GetUtcTime(),
              300 * 1000000LL);

    EXPECT_TRUE(Validate(builder.BuildValidateTokenRequest(*renewed)));
    EXPECT_EQ(m_sts.Command("revoke " + renewed->GetId()), "OK");
    EXPECT_FALSE(Validate(builder.BuildValidateTokenRequest(*renewed)));
}

// Context id and decoded server leg of an SPNego reply, read as the response handler reads them.
std::pair<std::string, std::string> NegotiationOf(const Ref<ElementNode>& response) {
    std::vector<unsigned char> leg;
    Basalt::StringUtil::Base64Decode(
        RequestTest::Child(*response, "BinaryExchange")->GetTextContent(), leg);
    return {RequestTest::Attribute(*response, "Context"), std::string(leg.begin(), leg.end())};
}

TEST_F(WsTrustStsInteropTest, GssLegsCarryContextAndCookie) {
    const RequestBuilderImpl builder(boost::none);
    const std::string hello = "HELLO bob 1";
    std::string cookie;
    const std::vector<std::string> responsePath = {"Body", "RequestSecurityTokenResponseCollection",
                                                   "RequestSecurityTokenResponse"};
    const auto [context, challenge] = NegotiationOf(RequestTest::Path(
        *Exchange(builder.BuildAcquireTokenByGSSRequest(
                      std::vector<unsigned char>(hello.begin(), hello.end()), Spec()),
                  200, &cookie),
        responsePath));
    ASSERT_FALSE(context.empty());
    ASSERT_FALSE(cookie.empty());
    ASSERT_EQ(challenge.rfind("CHALLENGE 1 ", 0), 0u) << challenge;

    // The client side of the test mechanism: SHA-256 of "<nonce>:<password>", in hex.
    const std::string material = challenge.substr(12) + ":bob-password";
    std::string response = "RESPONSE 1 ";
    for (unsigned char byte : Basalt::Crypto::Digest(Basalt::Crypto::DigestAlgorithm::Sha256,
                                                     material.data(), material.size())) {
        static const char kHex[] = "0123456789abcdef";
        response += kHex[byte >> 4];
        response += kHex[byte & 15];
    }
    const Ref<ElementNode> last = RequestTest::Path(
        *Exchange(builder.BuildContinueNegotiationRequest(
                      context, std::vector<unsigned char>(response.begin(), response.end())),
                  200, &cookie),
        responsePath);
    EXPECT_EQ(NegotiationOf(last),
              std::make_pair(context, std::string("WELCOME bob@example.test")));
    EXPECT_EQ(RequestTest::Child(*last, "TokenType")->GetTextContent(),
              "urn:oasis:names:tc:SAML:2.0:assertion");
    EXPECT_EQ(TokenOf(last)->GetSubject()->name, "bob");
}

}  // namespace

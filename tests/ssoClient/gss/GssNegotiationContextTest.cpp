// The stepwise GSS negotiation: end to end against the loopback STS (its mechanism, context ids and
// session cookie), and the context's own bookkeeping over a scripted transport.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/GssNegotiationContext.h>

#include <regex>

#include "internal/gss/GssNegotiationContextImpl.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/FakeTransport.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"
#include "support/TestGssMechanism.h"

namespace {

using namespace SsoClient;
using namespace SsoClient::InternalApi;
using namespace TestSupport;

TokenSpec Spec() {
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    return spec;
}

std::string Text(const std::vector<unsigned char>& bytes) {
    return {bytes.begin(), bytes.end()};
}

// The STS answers a continued leg only in the context it named and with the session cookie it set
// on the first reply, so a token at the end means every leg went out right over one session.
TEST(GssNegotiationContextTest, NegotiatesWithTheServiceLegByLeg) {
    TestSts::WsTrustSts sts;
    const StsTrust trust;
    SecurityTokenServiceConfig config;
    config.url = sts.Url();
    config.sslContext = trust.sslContext.Get();
    config.keyInfoResolver = trust.resolver;
    config.allowPlainHttp = true;
    auto context = CreateGssNegotiationContext(config, Spec());
    TestGssMechanism alice("alice@example.test", "alice-password", 2);
    GssLegResult result;
    std::vector<unsigned char> serverLeg;
    for (const char* expected : {"CHALLENGE 1 ", "CHALLENGE 2 ", "WELCOME alice@example.test"}) {
        ASSERT_FALSE(result.token);
        result = context->Step(alice.Answer(serverLeg));
        serverLeg = *result.serverLeg;
        EXPECT_EQ(Text(serverLeg).rfind(expected, 0), 0u) << Text(serverLeg);
    }
    ASSERT_TRUE(result.token);
    EXPECT_EQ(*result.token->GetSubject(), (PrincipalId{"alice", "example.test"}));
    EXPECT_EQ(sts.Stats()["requests"], 3);

    // The issued token is verified with the configured resolver, not merely parsed.
    config.keyInfoResolver = OtherResolver();
    auto untrusting = CreateGssNegotiationContext(config, Spec());
    TestGssMechanism bob("bob@example.test", "bob-password");
    const auto challenge = untrusting->Step(bob.Answer({})).serverLeg;
    EXPECT_TRUE(Throws<InvalidSignatureException>(
        [&] { untrusting->Step(bob.Answer(*challenge)); },
        "Failed to verify signature: token might have been tampered with."));
}

// The context id moves only with a handled reply: a failed exchange keeps it, a reply without
// one makes the next leg a first leg with a fresh context.
TEST(GssNegotiationContextTest, ContextIdFollowsTheHandledReplies) {
    const std::string trust = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/";
    const std::string down = "Server returned error: 503 Service Unavailable";
    AssertionSpec assertion;
    assertion.id = "_issued";
    const std::string issued = MakeSignedAssertion(assertion);
    const std::string fresh = "urn:uuid:";
    struct Leg {
        std::string reply;  // empty: the exchange fails
        std::string sentContext;
        std::string serverLeg;
        bool token;
    };
    const std::vector<Leg> legs = {
        {NegotiationReply("ctx-1", "S1"), fresh, "S1", false},
        {"", "ctx-1", "", false},
        {NegotiationReply("", ""), "ctx-1", "", false},  // no BinaryExchange, no Context
        {NegotiationReply("ctx-2", "S2", issued), fresh, "S2", true},
    };
    size_t step = 0;
    auto transport = std::make_shared<FakeTransport>([&](const SoapRequest&) {
        if (legs[step].reply.empty()) {
            throw CommunicationException(down);
        }
        return legs[step].reply;
    });
    GssNegotiationContextImpl context(Spec(), std::make_shared<RequestBuilderImpl>(boost::none),
                                      transport, std::make_shared<ResponseHandlerImpl>(),
                                      StsResolver());
    std::vector<std::string> firstContexts;
    for (step = 0; step < legs.size(); ++step) {
        SCOPED_TRACE(step);
        const Leg& leg = legs[step];
        if (leg.reply.empty()) {
            EXPECT_TRUE(Throws<CommunicationException>([&] { context.Step({'x'}); }, down));
        } else {
            const GssLegResult result = context.Step({'x'});
            ASSERT_TRUE(result.serverLeg);
            EXPECT_EQ(Text(*result.serverLeg), leg.serverLeg);
            ASSERT_EQ(result.token != nullptr, leg.token);
            EXPECT_TRUE(!leg.token || result.token->GetId() == "_issued");
        }
        const SoapRequest sent = transport->Requests().at(step);
        std::smatch match;
        ASSERT_TRUE(std::regex_search(sent.envelope, match, std::regex("Context=\"([^\"]*)\"")));
        if (leg.sentContext == fresh) {
            EXPECT_EQ(sent.soapAction, trust + "RST/Issue");
            EXPECT_EQ(match[1].str().rfind(fresh, 0), 0u);
            firstContexts.push_back(match[1]);
        } else {
            EXPECT_EQ(sent.soapAction, trust + "RSTR/Issue");
            EXPECT_EQ(match[1], leg.sentContext);
        }
    }
    ASSERT_EQ(firstContexts.size(), 2u);
    EXPECT_NE(firstContexts[0], firstContexts[1]);
}

}  // namespace

// The stepwise GSS negotiation: end to end against the loopback STS (its mechanism, context ids and
// session cookie), and the context's own bookkeeping over a scripted transport.
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/GssNegotiationContext.h>

#include <regex>
#include <set>

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

std::string Text(const std::shared_ptr<std::vector<unsigned char>>& bytes) {
    return bytes ? std::string(bytes->begin(), bytes->end()) : "(none)";
}

// The STS answers a continued leg only in the context it named and with the session cookie it set
// on the first reply, so a token at the end means every leg went out right over one session.
TEST(GssNegotiationContextTest, NegotiatesWithTheServiceLegByLeg) {
    TestSts::WsTrustSts sts;
    SecurityTokenServiceConfig config = LoopbackStsConfig(sts.Url());
    auto context = CreateGssNegotiationContext(config, Spec());
    TestGssMechanism alice("alice@example.test", "alice-password", 2);
    GssLegResult result;
    for (const char* expected : {"CHALLENGE 1 ", "CHALLENGE 2 ", "WELCOME alice@example.test"}) {
        ASSERT_FALSE(result.token);
        result = context->Step(
            alice.Answer(result.serverLeg ? *result.serverLeg : std::vector<unsigned char>()));
        EXPECT_EQ(Text(result.serverLeg).rfind(expected, 0), 0u) << Text(result.serverLeg);
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
    // The reply (none: the exchange fails), the context the leg is sent in (none: a fresh one),
    // the server leg handed back, and whether a token comes with it.
    const struct {
        std::string reply, context, serverLeg;
        bool token;
    } legs[] = {
        {NegotiationReply("ctx-1", "S1"), "", "S1", false},
        {"", "ctx-1", "(none)", false},
        {NegotiationReply("", ""), "ctx-1", "", false},  // no BinaryExchange, no Context
        {NegotiationReply("ctx-2", "S2", MakeSignedAssertion(assertion)), "", "S2", true},
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
    std::set<std::string> freshContexts;
    for (const auto& leg : legs) {
        SCOPED_TRACE(step);
        GssLegResult result;
        if (leg.reply.empty()) {
            EXPECT_TRUE(Throws<CommunicationException>([&] { context.Step({'x'}); }, down));
        } else {
            result = context.Step({'x'});
        }
        EXPECT_EQ(Text(result.serverLeg), leg.serverLeg);
        EXPECT_EQ(result.token ? result.token->GetId() : "", leg.token ? "_issued" : "");
        // A first leg goes out as an Issue in a context never used before, a continued one as a
        // reply in the context named.
        const SoapRequest sent = transport->Requests().at(step++);
        std::smatch match;
        ASSERT_TRUE(std::regex_search(sent.envelope, match, std::regex("Context=\"([^\"]*)\"")));
        const bool fresh =
            match[1].str().rfind("urn:uuid:", 0) == 0 && freshContexts.insert(match[1]).second;
        EXPECT_EQ(sent.soapAction + (fresh ? "" : " " + match[1].str()),
                  trust + (leg.context.empty() ? "RST/Issue" : "RSTR/Issue " + leg.context));
    }
}

}  // namespace

// Service behaviour that needs a component put together by hand: a short wait, a reply handler
// that finds no token, a caller-supplied user agent.
#include <basalt/Http.h>
#include <basalt/Log.h>
#include <gtest/gtest.h>
#include <ssoClient/ConnectionSpec.h>
#include <ssoClient/Exceptions.h>

#include <mutex>

#include "ServiceTestSupport.h"
#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/HttpsClient.h"

namespace {

using namespace SsoClient;
using namespace ServiceTest;

class ServiceEdgeCasesTest : public StsFixture {
  protected:
    // The service's pipeline with the given transport and reply handler.
    static std::shared_ptr<SecurityTokenService> Assemble(
        std::shared_ptr<Transport> transport, std::shared_ptr<ResponseHandler> handler) {
        return std::make_shared<SecurityTokenServiceImpl>(
            std::make_shared<RequestBuilderImpl>(s_trust->client), std::move(transport),
            std::move(handler), CreateSamlTokenFactory(s_trust->resolver.Get()));
    }
    static std::shared_ptr<Transport> Client(const std::string& path, int64_t timeoutMicros) {
        return std::make_shared<HttpsClient>(s_sts->Url(path), s_trust->sslContext.Get(), "",
                                             timeoutMicros, false);
    }
};

TEST_F(ServiceEdgeCasesTest, AReplyPastTheWaitTimeoutIsACommunicationFailure) {
    auto service =
        Assemble(Client("/fault/slow:5/sts", 300000), std::make_shared<ResponseHandlerImpl>());
    EXPECT_THROW(service->AcquireToken("alice", "alice-password", Spec()), CommunicationException);
}

// A reply handler that accepts every reply and finds no token in it.
class NoTokenHandler : public ResponseHandlerImpl {
  public:
    void ExtractIssuedToken(Basalt::Reader*, std::string& token) const override { token.clear(); }
    void ExtractRenewedToken(Basalt::Reader*, std::string& token) const override { token.clear(); }
};

TEST_F(ServiceEdgeCasesTest, AReplyWithoutATokenGivesANullTokenSyncAndAsync) {
    auto service =
        Assemble(Client("/sts/STSService", 30000000), std::make_shared<NoTokenHandler>());
    EXPECT_EQ(service->AcquireToken("alice", "alice-password", Spec()), nullptr);
    CallbackLatch latch(1);
    bool nullToken = false;
    bool noError = false;
    service->AcquireTokenAsync(
        "alice", "alice-password", Spec(),
        [&](const std::shared_ptr<const SamlToken>& token, const Basalt::Exception* error) {
            nullToken = token == nullptr;
            noError = error == nullptr;
            latch.CountDown();
        });
    ASSERT_TRUE(latch.Wait());
    EXPECT_TRUE(nullToken);
    EXPECT_TRUE(noError);
}

TEST_F(ServiceEdgeCasesTest, ServicesFromOneUserAgentShareItsCookies) {
    Basalt::Ref<Basalt::Http::ConnectionSpec> spec;
    CreateSsoSSLConnectionSpec("localhost", s_sts->Port(), s_trust->sslContext.Get(), "", false,
                               spec);
    Basalt::Ref<Basalt::Http::CookieStore> cookies;
    Basalt::Http::CreateCookieStore("", cookies);
    Basalt::Ref<Basalt::Http::HttpUserAgent> agent;
    Basalt::Http::CreateHttpUserAgent(spec.Get(), cookies.Get(), nullptr, agent);

    SecurityTokenServiceConfigEx config;
    config.url = "/sts/STSService";  // a path, used as the request target as it stands
    config.userAgent = agent;
    config.tokenFactory = CreateSamlTokenFactory(s_trust->resolver.Get());
    auto first = CreateSecurityTokenService(config);
    auto second = CreateSecurityTokenService(config);
    ASSERT_TRUE(first->AcquireToken("bob", "bob-password", Spec()));

    // A GSS exchange leaves the STS's session cookie in the shared store; the other service
    // sends it along.
    TestGssHandler handler("bob@example.test", "bob-password");
    ASSERT_TRUE(first->AcquireTokenByGSS(Spec(), handler));
    EXPECT_FALSE(cookies->GetCookieLines().empty());
    ASSERT_TRUE(second->AcquireToken("bob", "bob-password", Spec()));
}

TEST_F(ServiceEdgeCasesTest, TheFinalGssLegWarningFollowsItsInvertedRule) {
    std::mutex mutex;
    std::vector<std::string> warnings;
    Basalt::Service::SetLogSink(
        [&](const Basalt::Service::Logger&, int level, std::string_view message) {
            if (level == Basalt::Service::Logger::LL_Warning) {
                std::lock_guard<std::mutex> lock(mutex);
                warnings.emplace_back(message);
            }
        });
    auto service = MakeService(*s_trust, s_sts->Url(), false);
    TestGssHandler silent("alice@example.test", "alice-password");  // answers WELCOME with nothing
    ASSERT_TRUE(service->AcquireTokenByGSS(Spec(), silent));
    // "nofinal": the service sends no last leg, so the handler is not asked again.
    struct NoFinal : TestGssHandler {
        NoFinal() : TestGssHandler("alice@example.test", "alice-password") {}
        std::shared_ptr<std::vector<unsigned char>> NextLeg(
            const std::vector<unsigned char>& leg) override {
            auto next = TestGssHandler::NextLeg(leg);
            std::string text(next->begin(), next->end());
            if (text.rfind("HELLO", 0) == 0) {
                text += " nofinal";
            }
            return std::make_shared<std::vector<unsigned char>>(text.begin(), text.end());
        }
    } noFinal;
    ASSERT_TRUE(service->AcquireTokenByGSS(Spec(), noFinal));
    Basalt::Service::SetLogSink({});
    EXPECT_EQ(warnings,
              std::vector<std::string>{
                  "GSS contract error: non-empty user leg after negotiation is complete"});
    EXPECT_EQ(silent.serverLegs.back().rfind("WELCOME", 0), 0u);
    EXPECT_NE(noFinal.serverLegs.back().rfind("WELCOME", 0), 0u);
}

}  // namespace

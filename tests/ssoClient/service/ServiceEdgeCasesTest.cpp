// A service made from a caller-supplied user agent, against the loopback test STS. The service's
// own logic is tested over a scripted transport in ServiceLogicTest.
#include <basalt/Http.h>
#include <gtest/gtest.h>
#include <ssoClient/ConnectionSpec.h>

#include "ServiceTestSupport.h"

namespace {

using namespace SsoClient;
using namespace ServiceTest;

using ServiceEdgeCasesTest = StsFixture;

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

}  // namespace

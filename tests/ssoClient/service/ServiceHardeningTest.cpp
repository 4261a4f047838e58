// Misuse that must throw instead of failing later, callbacks that hold their contract under any
// exception, and a process that exits with work still in flight.
#include <basalt/Thread.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>

#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/xml/XmlUtils.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/FakeTransport.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;

TokenSpec Lifetime(int64_t seconds) {
    TokenSpec spec;
    spec.tokenLifetimeSec = seconds;
    return spec;
}

std::shared_ptr<SecurityTokenService> Service(boost::optional<HolderOfKeyConfig> holderOfKey,
                                              Responder responder) {
    return std::make_shared<SecurityTokenServiceImpl>(
        std::make_shared<RequestBuilderImpl>(std::move(holderOfKey)),
        std::make_shared<FakeTransport>(std::move(responder)),
        std::make_shared<ResponseHandlerImpl>(), CreateSamlTokenFactory(StsResolver().Get()));
}

std::string NeverCalled(const SoapRequest&) {
    throw std::logic_error("no request may be sent");
}

// Each mistake is refused by the factory or the call, and no connection reaches the listener.
TEST(ServiceHardeningTest, MisuseThrowsInvalidArgumentBeforeAnythingIsSent) {
    TestSts::TestServer listener({"--silent"});
    SecurityTokenServiceConfig plain;
    plain.url = listener.Url("/sts");
    plain.tokenFactory = CreateSamlTokenFactory(StsResolver().Get());
    plain.holderOfKey = LoadHolderOfKey();
    plain.allowPlainHttp = true;
    auto with = [&](auto change) {
        SecurityTokenServiceConfig config = plain;
        change(config);
        return [config] { return CreateSecurityTokenService(config); };
    };
    SecurityTokenServiceConfigEx ex;
    ex.url = "/sts";
    const auto soon = Basalt::System::DateTimeFromUtc(253402300799000000, false);  // 9999-12-31
    const std::string tooLong = "Token lifetime must not exceed 3155760000 seconds (100 years)";
    const struct {
        std::function<void()> misuse;
        std::string message;
    } cases[] = {
        {with([](auto& c) { c.tokenFactory = nullptr; }),
         "SecurityTokenServiceConfig.tokenFactory is not set, nor a keyInfoResolver to verify "
         "issued tokens with"},
        {[&] { CreateSecurityTokenService(ex); },
         "SecurityTokenServiceConfigEx.tokenFactory is not set, nor a keyInfoResolver to verify "
         "issued tokens with"},
        {[&] {
             ex.tokenFactory = plain.tokenFactory;
             CreateSecurityTokenService(ex);
         },
         "SecurityTokenServiceConfigEx.userAgent is not set"},
        {with([](auto& c) { c.holderOfKey->certificate = nullptr; }),
         "HolderOfKeyConfig.certificate is null"},
        {with([](auto& c) { c.holderOfKey->privateKey = nullptr; }),
         "HolderOfKeyConfig.privateKey is null"},
        {with([](auto& c) {
             c.holderOfKey = LoadHolderOfKey("certs/other-rsa.pem", "certs/sts-rsa.key");
         }),
         "HolderOfKeyConfig.privateKey does not match HolderOfKeyConfig.certificate"},
        {with([](auto& c) { c.url = "https://127.0.0.1/sts"; }),
         "HTTPS connection requested but no SSLContext provided."},
        {with([](auto& c) { c.allowPlainHttp = false; }),
         "SecurityTokenServiceConfig.holderOfKey needs an https:// url unless "
         "SecurityTokenServiceConfig.allowPlainHttp is set"},
        {[&] {
             SecurityTokenServiceConfig config = plain;
             config.allowPlainHttp = false;
             config.holderOfKey = boost::none;
             CreateSecurityTokenService(config)->AcquireToken("u", "p", Lifetime(600));
         },
         "Credentials and tokens are not sent over plain http:// unless "
         "SecurityTokenServiceConfig.allowPlainHttp is set"},
        {[&] { CreateSecurityTokenService(plain)->AcquireToken("u", "p", Lifetime(0)); },
         "Token lifetime must be positive"},
        {[&] {
             CreateSecurityTokenService(plain)->AcquireTokenByCertificate(
                 Lifetime(kMaxTokenLifetimeSec + 1));
         },
         tooLong},
        {[&] {
             CreateSecurityTokenService(plain)->AcquireToken(
                 "u", "p", Lifetime(std::numeric_limits<int64_t>::max()));
         },
         tooLong},
        {[&] {
             FormatXmlDateTime(Basalt::System::DateTimeFromUtc(soon.GetUtcTime() + 1000000, false));
         },
         "Date outside the years 0001 to 9999: year 10000"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(c.misuse, c.message)) << c.message;
    }
    EXPECT_EQ(FormatXmlDateTime(soon).substr(0, 23), "9999-12-31T23:59:59.000");
    // A resolver stands in for a missing factory.
    EXPECT_NO_THROW(with([](auto& c) {
        c.tokenFactory = nullptr;
        c.keyInfoResolver = StsResolver();
    })());
    EXPECT_EQ(listener.Stats()["connections"], 0);
}

// A negotiation handler that fails with something that is not one of the library's exceptions.
struct ThrowingHandler : NegotiationHandler {
    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>&) override {
        throw std::runtime_error("handler broke");
    }
};

TEST(ServiceHardeningTest, AsyncCallbackSeesAForeignExceptionExactlyOnceAsSsoException) {
    std::atomic<int> calls{0};
    std::promise<std::string> outcome;
    Service(boost::none, NeverCalled)
        ->AcquireTokenByGSSAsync(
            Lifetime(600), std::make_shared<ThrowingHandler>(),
            [&](const std::shared_ptr<const SamlToken>& token, const Basalt::Exception* error) {
                if (++calls == 1) {
                    outcome.set_value((token ? "token " : "") +
                                      Basalt::DemangledName(typeid(*error)) + ": " + error->what());
                }
            });
    auto future = outcome.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(future.get(), "SsoClient::SsoException: Unexpected exception: handler broke");
    Basalt::System::GetThreadPool()->GetWorkQueue()->Post([] {});  // after the callback's item
    EXPECT_EQ(calls.load(), 1);
}

// Returns from main, in effect, while queued calls verify tokens on the pool (reaching tables
// built lazily there) and others wait on a server that never answers: exit must neither read
// freed memory (the sanitizer fails the child) nor wait for the 240 s reply timeout.
void ExitWithWorkInFlight() {
    // Signed on first use, on the pool, like everything else the tables serve.
    struct Reply {
        std::once_flag once;
        std::string text;
    };
    auto verifying = Service(boost::none, [reply = std::make_shared<Reply>()](const SoapRequest&) {
        std::call_once(reply->once,
                       [&] { reply->text = IssueReply(MakeSignedAssertion(AssertionSpec{})); });
        return reply->text;
    });
    TestSts::TestServer silent({"--silent"});  // accepts and never answers
    SecurityTokenServiceConfig config;
    config.url = silent.Url("/sts");
    config.allowPlainHttp = true;
    config.tokenFactory = CreateSamlTokenFactory(StsResolver().Get());
    auto hanging = CreateSecurityTokenService(config);
    // The first call starts the pool and builds the tables on it, after the pool.
    std::promise<void> first;
    verifying->AcquireTokenAsync("u", "p", Lifetime(600), [&](auto&, auto*) { first.set_value(); });
    first.get_future().wait();
    const auto ignore = [](const std::shared_ptr<const SamlToken>&, const Basalt::Exception*) {};
    for (int i = 0; i < 4; ++i) {
        hanging->AcquireTokenAsync("u", "p", Lifetime(600), ignore);
    }
    for (int i = 0; i < 64; ++i) {
        verifying->AcquireTokenAsync("u", "p", Lifetime(600), ignore);
    }
    std::exit(0);
}

TEST(ServiceHardeningDeathTest, ExitWithQueuedAndHungCallsIsSafeAndPrompt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no table built yet
    EXPECT_EXIT(ExitWithWorkInFlight(), ::testing::ExitedWithCode(0), "");
}

}  // namespace

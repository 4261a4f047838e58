#pragma once

#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <basalt/XmlSecurity.h>
#include <gtest/gtest.h>
#include <ssoClient/SecurityTokenService.h>

#include <memory>
#include <string>
#include <vector>

#include "sts/TestServer.h"

namespace ServiceTest {

// What a test needs to talk to the loopback STS: TLS trust, the token-signing trust, the
// client's holder-of-key identity.
struct StsTrust {
    StsTrust();
    Basalt::Ref<Basalt::Ssl::SSLContext> sslContext;
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    SsoClient::HolderOfKeyConfig client;
};

// A service for url with the STS's trust (and the client identity unless withHolderOfKey is
// false).
std::shared_ptr<SsoClient::SecurityTokenService> MakeService(const StsTrust& trust,
                                                             const std::string& url,
                                                             bool withHolderOfKey = true,
                                                             bool reuseConnections = false);

SsoClient::TokenSpec Spec(int64_t lifetimeSeconds = 600);

// A test suite that shares one running test STS and the trust to talk to it.
class StsFixture : public ::testing::Test {
  protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

    static TestSts::WsTrustSts* s_sts;
    static StsTrust* s_trust;
};

// The test GSS mechanism of the STS: "HELLO <upn> [rounds]", then answers to its challenges.
class TestGssHandler : public SsoClient::NegotiationHandler {
  public:
    TestGssHandler(std::string upn, std::string password, int rounds = 1);
    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override;

    std::vector<std::string> serverLegs;  // every leg the service sent, as text

  private:
    std::string m_upn;
    std::string m_password;
    int m_rounds;
};

// Waits for a number of asynchronous callbacks.
class CallbackLatch {
  public:
    explicit CallbackLatch(int expected);
    void CountDown();
    // False if the count did not reach zero within the time (a generous bound, not a delay).
    bool Wait();
    int Calls() const;

  private:
    struct State;
    std::shared_ptr<State> m_state;
};

}  // namespace ServiceTest

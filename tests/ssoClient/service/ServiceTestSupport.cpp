#include "ServiceTestSupport.h"

#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>

#include "TestData.h"

namespace ServiceTest {

StsTrust::StsTrust() {
    Basalt::Ssl::SSLContextOptions options;
    options.trustedCaPem = TestData::Read("sts/ca.pem");
    Basalt::Ssl::CreateSSLContext(options, sslContext);
    std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> signing(1);
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/signing.pem"), signing[0]);
    Basalt::Xml::Security::CreateTrustedCertificateResolver(signing, resolver);
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read("sts/client.pem"), client.certificate);
    Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read("sts/client.key"), client.privateKey);
}

std::shared_ptr<SsoClient::SecurityTokenService> MakeService(const StsTrust& trust,
                                                             const std::string& url,
                                                             bool withHolderOfKey,
                                                             bool reuseConnections) {
    SsoClient::SecurityTokenServiceConfig config;
    config.url = url;
    config.keyInfoResolver = trust.resolver;
    config.tokenFactory = SsoClient::CreateSamlTokenFactory(trust.resolver.Get());
    config.sslContext = trust.sslContext.Get();
    config.connectionFlag = reuseConnections;
    if (withHolderOfKey) {
        config.holderOfKey = trust.client;
    }
    return SsoClient::CreateSecurityTokenService(config);
}

TestSts::WsTrustSts* StsFixture::s_sts = nullptr;
StsTrust* StsFixture::s_trust = nullptr;

void StsFixture::SetUpTestSuite() {
    s_sts = new TestSts::WsTrustSts();
    s_trust = new StsTrust();
}

void StsFixture::TearDownTestSuite() {
    delete s_sts;
    delete s_trust;
}

SsoClient::TokenSpec Spec(int64_t lifetimeSeconds) {
    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = lifetimeSeconds;
    return spec;
}

TestGssHandler::TestGssHandler(std::string upn, std::string password, int rounds)
    : m_upn(std::move(upn)), m_password(std::move(password)), m_rounds(rounds) {}

std::shared_ptr<std::vector<unsigned char>> TestGssHandler::NextLeg(
    const std::vector<unsigned char>& serverLeg) {
    const bool first = serverLegs.empty();
    serverLegs.emplace_back(serverLeg.begin(), serverLeg.end());
    std::istringstream words(serverLegs.back());
    std::string kind, round, nonce;
    words >> kind >> round >> nonce;
    const std::string proof = nonce + ":" + m_password;
    const std::string leg =
        first ? "HELLO " + m_upn + " " + std::to_string(m_rounds)
        : kind != "CHALLENGE"
            ? ""  // after WELCOME there is nothing more to say
            : "RESPONSE " + round + " " +
                  Basalt::StringUtil::ToHex(Basalt::Crypto::Digest(
                      Basalt::Crypto::DigestAlgorithm::Sha256, proof.data(), proof.size()));
    return std::make_shared<std::vector<unsigned char>>(leg.begin(), leg.end());
}

struct CallbackLatch::State {
    std::mutex mutex;
    std::condition_variable changed;
    int remaining;
    int calls = 0;
};

CallbackLatch::CallbackLatch(int expected) : m_state(std::make_shared<State>()) {
    m_state->remaining = expected;
}

void CallbackLatch::CountDown() {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    --m_state->remaining;
    ++m_state->calls;
    m_state->changed.notify_all();
}

bool CallbackLatch::Wait() {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, std::chrono::minutes(2),
                                     [&] { return m_state->remaining <= 0; });
}

int CallbackLatch::Calls() const {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->calls;
}

}  // namespace ServiceTest

// What the transport adds to the foundation's HTTP client: the SOAP request, the status mapping,
// CommunicationException, sessions and their cookies. TLS itself is tested in tests/foundation.

#include <gmock/gmock.h>

#include <ssoClient/ConnectionSpec.h>
#include "internal/transport/HttpsClient.h"
#include "sts/TestServer.h"
#include "support/TestCredentials.h"

using namespace SsoClient;
using TestData::ReadAll;
using ::testing::HasSubstr;

namespace {

constexpr int64_t kWait = 30 * 1000 * 1000;
const char* const kIssue = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Issue";

// The reply body, or the message of the CommunicationException the exchange throws.
std::string Send(const Transport& transport, const std::string& envelope = "<Envelope/>") {
    try {
        return ReadAll(*transport.CreateSession()->SendAndWait({kIssue, envelope}));
    } catch (const CommunicationException& error) {
        return error.what();
    }
}

class HttpsTransport : public ::testing::Test {
  protected:
    HttpsClient Client(const std::string& path, bool reuse = false) {
        return HttpsClient(m_server.Url(path), m_tls, "", kWait, reuse);
    }

    TestSts::TestServer m_server{{"--tls", "server"}};
    const TestSupport::StsTrust m_trust{"tls/ca.pem"};
    Basalt::Ssl::SSLContext* const m_tls = m_trust.sslContext.Get();
};

TEST_F(HttpsTransport, PostsSoapAndAcceptsSuccessAndSoapFaultStatusesOnly) {
    const std::string headers = Send(Client("/headers"));
    EXPECT_THAT(headers, HasSubstr("Content-Type: text/xml\n"));
    EXPECT_THAT(headers, HasSubstr(std::string("SOAPAction: \"") + kIssue + "\"\n"));
    const std::tuple<int, const char*, const char*> cases[] = {
        {199, "Odd+Informational", "Server returned error: 199 Odd Informational"},
        {200, "OK", nullptr},
        {299, "Fine", nullptr},
        {300, "Multiple+Choices", "Server returned error: 300 Multiple Choices"},
        {500, "Internal+Server+Error", nullptr},  // a SOAP fault travels with status 500
    };
    for (const auto& [code, reason, failure] : cases) {
        EXPECT_EQ(Send(Client("/status?code=" + std::to_string(code) + "&reason=" + reason +
                              "&body=%3CFault%2F%3E")),
                  failure ? failure : "<Fault/>");
    }
}

TEST_F(HttpsTransport, SessionsKeepTheirCookiesAndShareConnectionsIfAsked) {
    for (bool reuse : {true, false}) {
        HttpsClient client = Client("/cookies", reuse);
        const int before = m_server.Stats()["handshakes"];
        for (int round = 0; round < 2; ++round) {
            std::shared_ptr<TransportSession> session = client.CreateSession();
            EXPECT_EQ(ReadAll(*session->SendAndWait({kIssue, "<a/>"})), "");
            EXPECT_EQ(ReadAll(*session->SendAndWait({kIssue, "<b/>"})), "seen=yes");
        }
        EXPECT_EQ(m_server.Stats()["handshakes"] - before, reuse ? 1 : 2) << reuse;
    }
}

TEST_F(HttpsTransport, FailuresBecomeCommunicationExceptionsAndSpecsRefuseBadEndpoints) {
    // The TLS name and the wait reach the foundation; its failures keep their message.
    TestSts::TestServer untrusted({"--tls", "untrusted"}), names({"--tls", "names-only"});
    EXPECT_THAT(Send(HttpsClient(untrusted.Url("/echo"), m_tls, "", kWait, false)),
                HasSubstr("TLS certificate verification failed"));
    EXPECT_EQ(Send(HttpsClient(names.Url("/echo"), m_tls, "sts.test", kWait, false)),
              "<Envelope/>");
    EXPECT_THAT(Send(HttpsClient(m_server.Url("/_fault/hang"), m_tls, "", 300000, false)),
                HasSubstr("Timed out"));
    // What the specs refuse.
    Basalt::Ref<Basalt::Http::ConnectionSpec> spec;
    EXPECT_THROW(CreateSsoSSLConnectionSpec("sts.example", 443, nullptr, "", false, spec),
                 Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateSsoConnectionSpec("", 80, false, spec), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateSsoConnectionSpec("h", 0, false, spec), Basalt::InvalidArgumentException);
}

// Tunnels through the configured proxy with its credentials, unless the host is exempt; the
// environment's proxy only when asked for.
TEST_F(HttpsTransport, ConnectsThroughTheConfiguredProxyOnly) {
    TestSts::TestServer proxy({"--proxy", "proxyuser:proxy-pw"});
    const std::string proxyUrl = proxy.Url("");
    setenv("https_proxy", ("http://proxyuser:proxy-pw@" + proxyUrl.substr(7)).c_str(), 1);
    // The proxy password (null: no proxy configured), the hosts exempt, the environment's proxy
    // allowed, the outcome and the tunnels opened.
    const std::tuple<const char*, const char*, bool, const char*, int> cases[] = {
        {"proxy-pw", "", false, "<Envelope/>", 1},
        {"wrong-pw", "", false, "407", 0},
        {"proxy-pw", "localhost,127.0.0.1", false, "<Envelope/>", 0},
        {nullptr, "", false, "<Envelope/>", 0},
        {nullptr, "", true, "<Envelope/>", 1},
    };
    for (const auto& [password, noProxy, environment, outcome, tunnels] : cases) {
        Basalt::Http::UserAgentOptions agent;
        agent.proxyUrl = password ? proxyUrl : "";
        agent.proxyUser = "proxyuser";
        agent.proxyPassword = password ? password : "";
        agent.noProxy = noProxy;
        agent.environmentProxy = environment;
        proxy.Command("reset");
        EXPECT_THAT(Send(HttpsClient(m_server.Url("/echo"), m_tls, "", kWait, false, agent)),
                    HasSubstr(outcome));
        EXPECT_EQ(proxy.Stats()["requests"], tunnels) << agent.noProxy << agent.environmentProxy;
    }
    unsetenv("https_proxy");
}

}  // namespace

#include <basalt/Crypto.h>
#include <basalt/Http.h>
#include <basalt/Log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include <ssoClient/ConnectionSpec.h>
#include <ssoClient/Exceptions.h>
#include "TestData.h"
#include "internal/transport/HttpsClient.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"

using namespace SsoClient;
using Basalt::Ref;
using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {

constexpr int64_t kWait = 30 * 1000 * 1000;
const char* const kIssue = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Issue";

std::string ReadAll(Basalt::Reader& reader) {
    std::string text;
    char buffer[65536];
    while (size_t count = reader.Read(buffer, sizeof buffer)) {
        text.append(buffer, count);
    }
    return text;
}

std::string Send(const Transport& transport, const std::string& envelope = "<Envelope/>") {
    Ref<Basalt::Reader> body = transport.CreateSession()->SendAndWait({kIssue, envelope});
    return ReadAll(*body);
}

// The reply body, or the message of the CommunicationException the exchange throws.
std::string Outcome(const Transport& transport) {
    try {
        return Send(transport);
    } catch (const CommunicationException& error) {
        return error.what();
    }
}

Ref<Basalt::Ssl::SSLContext> TestContext(bool withClientCertificate = false) {
    Basalt::Ssl::SSLContextOptions options;
    options.trustedCaPem = TestData::Read("tls/ca.pem");
    if (withClientCertificate) {
        Basalt::Crypto::CreateCertificateFromPem(TestData::Read("tls/client.pem"),
                                                 options.clientCertificate);
        Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read("tls/client.key"),
                                                options.clientKey);
    }
    Ref<Basalt::Ssl::SSLContext> context;
    Basalt::Ssl::CreateSSLContext(options, context);
    return context;
}

TEST(HttpsClient, HttpsUrlNeedsAnSslContext) {
    EXPECT_TRUE(TestSupport::Throws<Basalt::InvalidArgumentException>(
        [] { HttpsClient("https://sts.example/sts", nullptr, "", kWait, false); },
        "HTTPS connection requested but no SSLContext provided."));
    EXPECT_NO_THROW(HttpsClient("http://sts.example/sts", nullptr, "", kWait, false));
    EXPECT_THROW(HttpsClient("ftp://sts.example/sts", nullptr, "", kWait, false),
                 Basalt::Exception);
}

TEST(SsoConnectionSpecs, DescribeThemselves) {
    Ref<Basalt::Http::ConnectionSpec> spec;
    CreateSsoConnectionSpec("sts.example", 8080, true, spec);
    EXPECT_EQ(spec->ToString(), "sts.example:8080");
    EXPECT_TRUE(spec->IsReusable());
    Ref<Basalt::Ssl::SSLContext> context = TestContext();
    const std::pair<std::pair<const char*, const char*>, const char*> cases[] = {
        {{"sts.example", ""}, "<cs p:sts.example:443, SsoCustomConnectionSpec:sts.example>"},
        {{"10.1.2.3", ""}, "<cs p:10.1.2.3:443, SsoCustomConnectionSpec:ip:10.1.2.3>"},
        {{"10.1.2.3", "sts.test"}, "<cs p:10.1.2.3:443, SsoCustomConnectionSpec:sts.test>"},
    };
    for (const auto& [input, description] : cases) {
        CreateSsoSSLConnectionSpec(input.first, 443, context.Get(), input.second, false, spec);
        EXPECT_EQ(spec->ToString(), description);
        EXPECT_EQ(spec->GetServerName(), input.second);
        EXPECT_FALSE(spec->IsReusable());
    }
    EXPECT_THROW(CreateSsoSSLConnectionSpec("sts.example", 443, nullptr, "", false, spec),
                 Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateSsoConnectionSpec("", 80, false, spec), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateSsoConnectionSpec("h", 0, false, spec), Basalt::InvalidArgumentException);
}

class HttpsTransport : public ::testing::Test {
  protected:
    TestSts::TestServer m_server{{"--tls", "server"}};
    Ref<Basalt::Ssl::SSLContext> m_context = TestContext();

    HttpsClient Client(const std::string& path, bool reuse = false) {
        return HttpsClient(m_server.Url(path), m_context.Get(), "", kWait, reuse);
    }
};

TEST_F(HttpsTransport, AcceptsSuccessAndSoapFaultStatusesOnly) {
    const std::tuple<int, const char*, const char*> cases[] = {
        {199, "Odd+Informational", "Server returned error: 199 Odd Informational"},
        {200, "OK", nullptr},
        {299, "Fine", nullptr},
        {300, "Multiple+Choices", "Server returned error: 300 Multiple Choices"},
        {404, "Not+Found", "Server returned error: 404 Not Found"},
        {500, "Internal+Server+Error", nullptr},  // a SOAP fault travels with status 500
        {503, "Service+Unavailable", "Server returned error: 503 Service Unavailable"},
    };
    for (const auto& [code, reason, failure] : cases) {
        EXPECT_EQ(Outcome(Client("/status?code=" + std::to_string(code) + "&reason=" + reason +
                                 "&body=%3CFault%2F%3E")),
                  failure ? failure : "<Fault/>");
    }
}

TEST_F(HttpsTransport, PostsTheEnvelopeAsSoap) {
    const std::string headers = Send(Client("/headers"));
    EXPECT_THAT(headers, HasSubstr("Content-Type: text/xml\n"));
    EXPECT_THAT(headers, HasSubstr(std::string("SOAPAction: \"") + kIssue + "\"\n"));
    std::string envelope = "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">";
    while (envelope.size() < 2 * 1024 * 1024) {
        envelope += "<s:Body>0123456789</s:Body>";
    }
    envelope += "</s:Envelope>";
    EXPECT_EQ(Send(Client("/echo"), envelope), envelope);
}

TEST_F(HttpsTransport, CookiesLastForASessionOrTheCallersUserAgent) {
    HttpsClient client = Client("/cookies", true);
    for (int round = 0; round < 2; ++round) {
        std::shared_ptr<TransportSession> session = client.CreateSession();
        EXPECT_EQ(ReadAll(*session->SendAndWait({kIssue, "<a/>"})), "");
        EXPECT_EQ(ReadAll(*session->SendAndWait({kIssue, "<b/>"})), "seen=yes");
    }
    // Clients made from one user agent (its own cookie store or the caller's) share its cookies;
    // their URL is a path, used as the request target as it stands.
    Ref<Basalt::Http::CookieStore> callers;
    Basalt::Http::CreateCookieStore("", callers);
    for (Basalt::Http::CookieStore* store :
         {static_cast<Basalt::Http::CookieStore*>(nullptr), callers.Get()}) {
        Ref<Basalt::Http::ConnectionSpec> spec;
        CreateSsoSSLConnectionSpec("127.0.0.1", m_server.Port(), m_context.Get(), "", true, spec);
        Ref<Basalt::Http::HttpUserAgent> agent;
        Basalt::Http::CreateHttpUserAgent(spec.Get(), store, nullptr, agent);
        EXPECT_EQ(Send(HttpsClient(agent, "/cookies", kWait)), "");
        EXPECT_EQ(Send(HttpsClient(agent, "/cookies", kWait)), "seen=yes");
    }
    EXPECT_EQ(callers->GetCookieLines().size(), 1u);
}

TEST_F(HttpsTransport, FlagDecidesWhetherSessionsShareConnections) {
    for (bool reuse : {false, true}) {
        HttpsClient client = Client("/echo", reuse);
        const int before = m_server.Stats()["handshakes"];
        for (int i = 0; i < 4; ++i) {
            Send(client);
        }
        EXPECT_EQ(m_server.Stats()["handshakes"] - before, reuse ? 1 : 4) << reuse;
    }
}

TEST_F(HttpsTransport, TlsChecksAndFailuresBecomeCommunicationExceptions) {
    const char* const badCertificate = "TLS certificate verification failed";
    const struct {
        std::vector<std::string> server;
        const char* path;
        const char* serverName;
        bool clientCertificate;
        int64_t waitMillis;
        const char* outcome;  // the reply, or part of the failure (which also names the port)
    } cases[] = {
        // Verification is on by default, host names included; a name override is honoured.
        {{"--tls", "untrusted"}, "/echo", "", false, 30000, badCertificate},
        {{"--tls", "names-only"}, "/echo", "", false, 30000, badCertificate},
        {{"--tls", "names-only"}, "/echo", "sts.test", false, 30000, "<Envelope/>"},
        {{"--tls", "server", "--client-ca", "ca"}, "/echo", "", false, 30000, "/echo"},
        {{"--tls", "server", "--client-ca", "ca"}, "/echo", "", true, 30000, "<Envelope/>"},
        {{"--tls", "server"}, "/_fault/reset", "", false, 30000, "/_fault/reset"},
        // A reply later than the wait, and a server that never reads.
        {{"--tls", "server"}, "/_fault/hang", "", false, 300, "Timed out"},
        {{"--silent"}, "/", "", false, 200, "Timed out"},
    };
    Ref<Basalt::Ssl::SSLContext> withClient = TestContext(true);
    for (const auto& c : cases) {
        TestSts::TestServer server(c.server);
        const std::string outcome = Outcome(
            HttpsClient(server.Url(c.path), (c.clientCertificate ? withClient : m_context).Get(),
                        c.serverName, c.waitMillis * 1000, false));
        if (c.outcome[0] == '<') {
            EXPECT_EQ(outcome, c.outcome) << c.server[1];
        } else {
            EXPECT_THAT(outcome,
                        AllOf(HasSubstr(c.outcome), HasSubstr(std::to_string(server.Port()))));
        }
    }
    TestSts::RefusedPort refused;
    EXPECT_THAT(Outcome(HttpsClient("http://127.0.0.1:" + std::to_string(refused.Port()) + "/",
                                    nullptr, "", kWait, false)),
                HasSubstr("Cannot connect to"));
}

TEST_F(HttpsTransport, AsynchronousCompletionDeliversReaderOrFailure) {
    HttpsClient good = Client("/echo");
    HttpsClient bad = Client("/status?code=404&reason=Not+Found");
    for (const HttpsClient* client : {&good, &bad}) {
        std::promise<std::string> outcome;
        Ref<Basalt::Http::PendingRequestItem> pending = client->CreateSession()->SendAsync(
            {kIssue, "<async/>"}, [&](const Basalt::Exception* error, Basalt::Reader* body) {
                if (error) {
                    const bool typed = dynamic_cast<const CommunicationException*>(error);
                    outcome.set_value(std::string(typed ? "CommunicationException: " : "other: ") +
                                      error->what());
                } else {
                    outcome.set_value(ReadAll(*body));
                }
            });
        EXPECT_EQ(outcome.get_future().get(), client == &good
                                                  ? "<async/>"
                                                  : "CommunicationException: Server returned "
                                                    "error: 404 Not Found");
    }
    // An empty callback cannot be called: std::bad_function_call is raised on the HTTP thread,
    // which logs it and carries on.
    std::promise<std::string> logged;
    std::once_flag once;
    Basalt::Service::SetLogSink([&](const Basalt::Service::Logger&, int, std::string_view message) {
        if (message.find("completion callback threw") != std::string_view::npos) {
            std::call_once(once, [&] { logged.set_value(std::string(message)); });
        }
    });
    good.CreateSession()->SendAsync({kIssue, "<x/>"}, nullptr);
    EXPECT_THAT(logged.get_future().get(), HasSubstr("bad_function_call"));
    Basalt::Service::SetLogSink(nullptr);
    EXPECT_EQ(Send(good), "<Envelope/>");
}

TEST_F(HttpsTransport, ManySessionsFromManyThreads) {
    HttpsClient pooled = Client("/echo", true);
    HttpsClient separate = Client("/echo", false);
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 8; ++i) {
                const std::string envelope =
                    "<m t=\"" + std::to_string(t) + "\" i=\"" + std::to_string(i) + "\"/>";
                const HttpsClient& client = (t + i) % 2 ? pooled : separate;
                good += Send(client, envelope) == envelope;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good.load(), 48);
}

}  // namespace

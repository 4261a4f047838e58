#include <basalt/Crypto.h>
#include <basalt/Http.h>
#include <basalt/Log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "TestData.h"
#include <ssoClient/ConnectionSpec.h>
#include <ssoClient/Exceptions.h>
#include "internal/transport/HttpsClient.h"
#include "sts/TestServer.h"

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

// The message of the CommunicationException a session throws, or "(no exception)".
std::string FailureOf(const Transport& transport) {
    try {
        Send(transport);
    } catch (const CommunicationException& error) {
        return error.what();
    }
    return "(no exception)";
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
    try {
        HttpsClient client("https://sts.example/sts", nullptr, "", kWait, false);
        ADD_FAILURE() << "accepted";
    } catch (const Basalt::InvalidArgumentException& error) {
        EXPECT_STREQ(error.what(), "HTTPS connection requested but no SSLContext provided.");
    }
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
    const std::pair<int, const char*> cases[] = {
        {199, "Server returned error: 199 Odd Informational"},
        {200, nullptr},
        {299, nullptr},
        {300, "Server returned error: 300 Multiple Choices"},
        {404, "Server returned error: 404 Not Found"},
        {500, nullptr},
        {503, "Server returned error: 503 Service Unavailable"},
    };
    const std::map<int, std::string> reasons = {
        {199, "Odd Informational"},  {200, "OK"},        {299, "Fine"},
        {300, "Multiple Choices"},   {404, "Not Found"}, {500, "Internal Server Error"},
        {503, "Service Unavailable"}};
    for (const auto& [code, failure] : cases) {
        std::string reason = reasons.at(code);
        for (char& c : reason) {
            c = c == ' ' ? '+' : c;
        }
        HttpsClient client = Client("/status?code=" + std::to_string(code) + "&reason=" + reason +
                                    "&body=%3CFault%2F%3E");
        if (failure) {
            EXPECT_EQ(FailureOf(client), failure);
        } else {
            EXPECT_EQ(Send(client), "<Fault/>") << code;
        }
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

TEST_F(HttpsTransport, CookiesLastForOneSessionOnly) {
    HttpsClient client = Client("/cookies", true);
    for (int round = 0; round < 2; ++round) {
        std::shared_ptr<TransportSession> session = client.CreateSession();
        EXPECT_EQ(ReadAll(*session->SendAndWait({kIssue, "<a/>"})), "");
        EXPECT_EQ(ReadAll(*session->SendAndWait({kIssue, "<b/>"})), "seen=yes");
    }
}

TEST_F(HttpsTransport, PresetUserAgentIsSharedBySessions) {
    Ref<Basalt::Http::ConnectionSpec> spec;
    CreateSsoSSLConnectionSpec("127.0.0.1", m_server.Port(), m_context.Get(), "", true, spec);
    Ref<Basalt::Http::HttpUserAgent> agent;
    Basalt::Http::CreateHttpUserAgent(spec.Get(), nullptr, nullptr, agent);
    HttpsClient client(agent, "/cookies", kWait);
    EXPECT_EQ(Send(client), "");
    EXPECT_EQ(Send(client), "seen=yes");
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

TEST_F(HttpsTransport, ServerNameOverrideAndMutualTls) {
    TestSts::TestServer namesOnly({"--tls", "names-only"});
    const std::string url = namesOnly.Url("/echo");
    EXPECT_THAT(FailureOf(HttpsClient(url, m_context.Get(), "", kWait, false)),
                HasSubstr("TLS certificate verification failed"));
    EXPECT_EQ(Send(HttpsClient(url, m_context.Get(), "sts.test", kWait, false)), "<Envelope/>");

    TestSts::TestServer mutual({"--tls", "server", "--client-ca", "ca"});
    EXPECT_THAT(FailureOf(HttpsClient(mutual.Url("/echo"), m_context.Get(), "", kWait, false)),
                HasSubstr(std::to_string(mutual.Port())));
    Ref<Basalt::Ssl::SSLContext> withClient = TestContext(true);
    EXPECT_EQ(Send(HttpsClient(mutual.Url("/echo"), withClient.Get(), "", kWait, false)),
              "<Envelope/>");
}

TEST_F(HttpsTransport, FailuresBecomeCommunicationExceptions) {
    TestSts::TestServer untrusted({"--tls", "untrusted"});
    EXPECT_THAT(FailureOf(HttpsClient(untrusted.Url("/echo"), m_context.Get(), "", kWait, false)),
                HasSubstr("TLS certificate verification failed"));
    EXPECT_THAT(FailureOf(Client("/_fault/reset")), HasSubstr("/_fault/reset"));
    TestSts::RefusedPort refused;
    EXPECT_THAT(FailureOf(HttpsClient("http://127.0.0.1:" + std::to_string(refused.Port()) + "/",
                                      nullptr, "", kWait, false)),
                HasSubstr("Cannot connect to"));
    TestSts::TestServer silent({"--silent"});
    EXPECT_THAT(FailureOf(HttpsClient("https://127.0.0.1:" + std::to_string(silent.Port()) + "/",
                                      m_context.Get(), "", 200 * 1000, false)),
                AllOf(HasSubstr("Timed out"), HasSubstr(std::to_string(silent.Port()))));
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

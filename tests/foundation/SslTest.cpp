#include <gmock/gmock.h>

#include <basalt/Crypto.h>
#include <basalt/Log.h>
#include <basalt/Ssl.h>

#include <mutex>

#include "HttpTestSupport.h"

using namespace Basalt;
using namespace HttpTest;
using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {

Ref<Crypto::Certificate> Certificate(const std::string& name) {
    Ref<Crypto::Certificate> certificate;
    Crypto::CreateCertificateFromPem(TestData::Read("tls/" + name + ".pem"), certificate);
    return certificate;
}

Ref<Crypto::PrivateKey> Key(const std::string& name) {
    Ref<Crypto::PrivateKey> key;
    Crypto::CreatePrivateKeyFromPem(TestData::Read("tls/" + name + ".key"), key);
    return key;
}

Ssl::SSLContextOptions TrustingTestCa() {
    Ssl::SSLContextOptions options;
    options.trustedCaPem = TestData::Read("tls/ca.pem");
    return options;
}

Ref<Ssl::SSLContext> Context(const Ssl::SSLContextOptions& options) {
    Ref<Ssl::SSLContext> context;
    Ssl::CreateSSLContext(options, context);
    return context;
}

struct TlsCase {
    const char* name;
    std::vector<std::string> server;  // serve.py arguments
    Ssl::SSLContextOptions options;
    const char* host;
    const char* serverName;
    const char* failure;  // expected text of the failure, or null for success
};

std::vector<TlsCase> TlsCases() {
    Ssl::SSLContextOptions systemStore;
    Ssl::SSLContextOptions asObjects;
    asObjects.trustedCertificates = {Certificate("other-ca"), Certificate("ca")};
    Ssl::SSLContextOptions pinnedRight = TrustingTestCa();
    pinnedRight.pinnedPublicKeyPem = Certificate("server")->GetPublicKeyPem();
    Ssl::SSLContextOptions pinnedWrong = TrustingTestCa();
    pinnedWrong.pinnedPublicKeyPem = TestData::Read("tls/client.pem");
    Ssl::SSLContextOptions withClient = TrustingTestCa();
    withClient.clientCertificate = Certificate("client");
    withClient.clientKey = Key("client");
    Ssl::SSLContextOptions tls13 = TrustingTestCa();
    tls13.minimumVersion = Ssl::TlsVersion::Tls1_3;
    const std::vector<std::string> server = {"--tls", "server"};
    const std::vector<std::string> mutual = {"--tls", "server", "--client-ca", "ca"};
    return {
        {"trusted CA, IP SAN", server, TrustingTestCa(), "127.0.0.1", "", nullptr},
        {"trusted CA, DNS name", server, TrustingTestCa(), "localhost", "", nullptr},
        {"CA as certificate objects", server, asObjects, "127.0.0.1", "", nullptr},
        {"TLS 1.3 floor", server, tls13, "127.0.0.1", "", nullptr},
        {"system store lacks the test CA", server, systemStore, "127.0.0.1", "",
         "TLS certificate verification failed"},
        {"unknown CA",
         {"--tls", "untrusted"},
         TrustingTestCa(),
         "127.0.0.1",
         "",
         "TLS certificate verification failed"},
        {"wrong host name",
         {"--tls", "wrong-host"},
         TrustingTestCa(),
         "localhost",
         "",
         "TLS certificate verification failed"},
        {"expired", {"--tls", "expired"}, TrustingTestCa(), "127.0.0.1", "", "expired"},
        {"IP URL against a names-only certificate",
         {"--tls", "names-only"},
         TrustingTestCa(),
         "127.0.0.1",
         "",
         "TLS certificate verification failed"},
        {"server-name override for an IP URL",
         {"--tls", "names-only"},
         TrustingTestCa(),
         "127.0.0.1",
         "sts.test",
         nullptr},
        {"override does not bypass the name check",
         {"--tls", "names-only"},
         TrustingTestCa(),
         "127.0.0.1",
         "other.test",
         "TLS certificate verification failed"},
        {"pinned key matches", server, pinnedRight, "127.0.0.1", "", nullptr},
        {"pinned key mismatch", server, pinnedWrong, "127.0.0.1", "",
         "does not match the pinned key"},
        {"client certificate required, none sent", mutual, TrustingTestCa(), "127.0.0.1", "",
         "127.0.0.1"},
        {"mutual TLS", mutual, withClient, "127.0.0.1", "", nullptr},
        {"TLS 1.2 server",
         {"--tls", "server", "--max-tls", "1.2"},
         TrustingTestCa(),
         "127.0.0.1",
         "",
         nullptr},
        {"TLS 1.1 is never spoken",
         {"--tls", "server", "--max-tls", "1.1"},
         TrustingTestCa(),
         "127.0.0.1",
         "",
         "TLS handshake failed"},
        {"TLS 1.3 floor against a TLS 1.2 server",
         {"--tls", "server", "--max-tls", "1.2"},
         tls13,
         "127.0.0.1",
         "",
         "TLS handshake failed"},
    };
}

TEST(TlsConnections, FailClosedAndSucceedOnlyWhenTrusted) {
    for (const TlsCase& c : TlsCases()) {
        SCOPED_TRACE(c.name);
        TestSts::TestServer server(c.server);
        Ref<Ssl::SSLContext> context = Context(c.options);
        Ref<Http::HttpUserAgent> agent =
            MakeAgent(server.Port(), context.Get(), false, c.host, c.serverName);
        const std::string failure = FailureOf(*agent);
        if (!c.failure) {
            EXPECT_EQ(failure, "(no exception)");
            continue;
        }
        EXPECT_THAT(failure, AllOf(HasSubstr(c.failure), HasSubstr(std::to_string(server.Port()))));
        // Nothing reached the handler over a refused connection.
        EXPECT_EQ(server.Stats()["requests"], 0);
    }
}

TEST(TlsConnections, ConnectionsAreReusedOnlyUnderTheSameContext) {
    TestSts::TestServer server({"--tls", "server"});
    Ref<Ssl::SSLContext> trusting = Context(TrustingTestCa());
    Ref<Http::HttpUserAgent> first = MakeAgent(server.Port(), trusting.Get(), true);
    Ref<Http::HttpUserAgent> second = MakeAgent(server.Port(), trusting.Get(), true);
    Exchange(*first, "/echo", "a");
    Exchange(*second, "/echo", "b");
    Exchange(*first, "/echo", "c");
    EXPECT_EQ(server.Stats()["handshakes"], 1);
    // Once the server closes, the next connection resumes the TLS session.
    Exchange(*first, "/close");
    Exchange(*second, "/echo", "d");
    EXPECT_EQ(server.Stats()["handshakes"], 2);
    EXPECT_EQ(server.Stats()["resumed"], 1);
    // A kept-alive connection verified under one context never serves a context that would
    // not have trusted the server.
    Ssl::SSLContextOptions systemStore;
    Ref<Ssl::SSLContext> distrusting = Context(systemStore);
    Ref<Http::HttpUserAgent> third = MakeAgent(server.Port(), distrusting.Get(), true);
    EXPECT_THAT(FailureOf(*third), HasSubstr("TLS certificate verification failed"));
}

TEST(TlsConnections, TurningVerificationOffWarnsEveryTime) {
    std::mutex mutex;
    std::vector<std::string> warnings;
    Service::SetLogSink([&](const Service::Logger& logger, int level, std::string_view message) {
        if (logger.GetName() == "Basalt" && level == Service::Logger::LL_Warning) {
            std::lock_guard<std::mutex> lock(mutex);
            warnings.emplace_back(message);
        }
    });
    Ssl::SSLContextOptions unverified;
    unverified.verifyPeer = false;
    Ssl::SSLContextOptions noHostCheck = TrustingTestCa();
    noHostCheck.verifyHostName = false;
    Ref<Ssl::SSLContext> a = Context(unverified);
    Ref<Ssl::SSLContext> b = Context(unverified);
    Ref<Ssl::SSLContext> c = Context(noHostCheck);
    Ref<Ssl::SSLContext> verified = Context(TrustingTestCa());
    Service::SetLogSink(nullptr);
    ASSERT_EQ(warnings.size(), 3u);
    EXPECT_THAT(warnings[0], HasSubstr("certificate verification turned off"));
    EXPECT_THAT(warnings[2], HasSubstr("host name verification turned off"));

    // And it really is off: an untrusted server is accepted.
    TestSts::TestServer server({"--tls", "untrusted"});
    EXPECT_EQ(FailureOf(*MakeAgent(server.Port(), a.Get())), "(no exception)");
}

TEST(SSLContext, RefusesInconsistentOptions) {
    const std::pair<const char*, Ssl::SSLContextOptions> cases[] = {
        {"certificate without key",
         [] {
             Ssl::SSLContextOptions o;
             o.clientCertificate = Certificate("client");
             return o;
         }()},
        {"key of another certificate",
         [] {
             Ssl::SSLContextOptions o;
             o.clientCertificate = Certificate("client");
             o.clientKey = Key("server");
             return o;
         }()},
        {"garbage CA bundle",
         [] {
             Ssl::SSLContextOptions o;
             o.trustedCaPem = "not a certificate";
             return o;
         }()},
        {"garbage pinned key",
         [] {
             Ssl::SSLContextOptions o;
             o.pinnedPublicKeyPem = "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n";
             return o;
         }()},
        {"null trusted certificate",
         [] {
             Ssl::SSLContextOptions o;
             o.trustedCertificates.emplace_back();
             return o;
         }()},
    };
    for (const auto& [name, options] : cases) {
        Ref<Ssl::SSLContext> context;
        EXPECT_THROW(Ssl::CreateSSLContext(options, context), InvalidArgumentException) << name;
    }
}

// A custom ConnectionSpec whose handshake step refuses servers of a given subject.
class PickySpec final : public ObjectImpl, public Http::CustomConnectionSpec {
  public:
    PickySpec(int port, Ssl::SSLContext* context, std::string refused)
        : m_port(port), m_context(context), m_refused(std::move(refused)) {}
    std::string GetHost() const override { return "127.0.0.1"; }
    int GetPort() const override { return m_port; }
    Ssl::SSLContext* GetSSLContext() const override { return m_context.Get(); }
    std::string GetServerName() const override { return ""; }
    bool IsReusable() const override { return false; }
    void OnHandshake(const std::vector<Ref<Crypto::Certificate>>& chain) const override {
        seenChainLength = chain.size();
        if (chain.front()->GetSubjectName().find(m_refused) != std::string::npos) {
            throw Exception("server " + chain.front()->GetSubjectName() + " is not welcome");
        }
    }
    mutable size_t seenChainLength = 0;

  private:
    int m_port;
    Ref<Ssl::SSLContext> m_context;
    std::string m_refused;
};

TEST(TlsConnections, CustomConnectionSpecTakesPartInTheHandshake) {
    TestSts::TestServer server({"--tls", "server"});
    Ref<Ssl::SSLContext> context = Context(TrustingTestCa());
    for (const char* refused : {"CN=nobody", "CN=localhost"}) {
        Ref<PickySpec> spec = new PickySpec(server.Port(), context.Get(), refused);
        Ref<Http::HttpUserAgent> agent;
        Http::CreateHttpUserAgent(spec.Get(), nullptr, nullptr, agent);
        const std::string failure = FailureOf(*agent);
        EXPECT_EQ(spec->seenChainLength, 2u);  // leaf and the test CA
        if (std::string(refused) == "CN=nobody") {
            EXPECT_EQ(failure, "(no exception)");
        } else {
            EXPECT_THAT(failure, AllOf(HasSubstr("rejected by the connection spec"),
                                       HasSubstr("is not welcome")));
        }
    }
}

}  // namespace

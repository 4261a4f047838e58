#include <basalt/Crypto.h>
#include <basalt/Log.h>
#include <basalt/Ssl.h>

#include <cstring>
#include <map>
#include <mutex>
#include <sstream>

#include "HttpTestSupport.h"
#include "support/ExpectThrow.h"

using namespace HttpTest;
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

// Named option sets; "ca" trusts the test CA and is the base of the others except "system".
Ssl::SSLContextOptions Options(const std::string& name) {
    Ssl::SSLContextOptions o;
    if (name == "system") {
        return o;
    }
    o.trustedCaPem = TestData::Read("tls/ca.pem");
    if (name == "objects") {
        o.trustedCaPem.clear();
        o.trustedCertificates = {Certificate("other-ca"), Certificate("ca")};
    } else if (name == "pin" || name == "badpin") {
        o.pinnedPublicKeyPem = name == "pin" ? Certificate("server")->GetPublicKeyPem()
                                             : TestData::Read("tls/client.pem");
    } else if (name == "client") {
        o.clientCertificate = Certificate("client");
        o.clientKey = Key("client");
    } else if (name == "tls13") {
        o.minimumVersion = Ssl::TlsVersion::Tls1_3;
    } else if (name == "unverified") {
        o.verifyPeer = false;
    } else if (name == "nohost") {
        o.verifyHostName = false;
    }
    return o;
}

Ref<Ssl::SSLContext> Context(const std::string& options) {
    Ref<Ssl::SSLContext> context;
    Ssl::CreateSSLContext(Options(options), context);
    return context;
}

std::vector<std::string> Words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

const char kUnverified[] = "TLS certificate verification failed for ";
const char kHandshake[] = "TLS handshake failed with ";

TEST(TlsConnections, FailClosedAndSucceedOnlyWhenTrusted) {
    const struct {
        const char *server, *options, *host, *serverName;
        const char* failure;  // start of the message before the peer; "" any; null for success
    } cases[] = {
        {"server", "ca", "127.0.0.1", "", nullptr},
        {"server", "ca", "localhost", "", nullptr},
        {"server", "objects", "127.0.0.1", "", nullptr},
        {"server", "tls13", "127.0.0.1", "", nullptr},
        {"server", "system", "127.0.0.1", "", kUnverified},
        {"untrusted", "ca", "127.0.0.1", "", kUnverified},
        {"wrong-host", "ca", "localhost", "", kUnverified},
        {"expired", "ca", "127.0.0.1", "", kUnverified},
        // An IP URL against a names-only certificate; a server-name override fixes that, but
        // does not bypass the name check.
        {"names-only", "ca", "127.0.0.1", "", kUnverified},
        {"names-only", "ca", "127.0.0.1", "sts.test", nullptr},
        {"names-only", "ca", "127.0.0.1", "other.test", kUnverified},
        {"server", "pin", "127.0.0.1", "", nullptr},
        {"server", "badpin", "127.0.0.1", "", "TLS public key does not match the pinned key for "},
        {"server --client-ca ca", "ca", "127.0.0.1", "", ""},
        {"server --client-ca ca", "client", "127.0.0.1", "", nullptr},
        {"server --max-tls 1.2", "ca", "127.0.0.1", "", nullptr},
        // TLS 1.1 is never spoken, and a TLS 1.3 floor refuses a TLS 1.2 server.
        {"server --max-tls 1.1", "ca", "127.0.0.1", "", kHandshake},
        {"server --max-tls 1.2", "tls13", "127.0.0.1", "", kHandshake},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.server) + " " + c.options + " " + c.host + " " + c.serverName);
        std::vector<std::string> args = Words(std::string("--tls ") + c.server);
        TestSts::TestServer server(args);
        Ref<Ssl::SSLContext> context = Context(c.options);
        const std::string failure =
            FailureOf(*MakeAgent(server.Port(), context.Get(), false, c.host, c.serverName));
        const std::string peer =
            "https://" + std::string(c.host) + ":" + std::to_string(server.Port()) +
            (*c.serverName ? std::string(" (TLS name ") + c.serverName + ")" : "") + "/echo";
        if (!c.failure) {
            EXPECT_EQ(failure, "(no exception)");
            continue;
        }
        EXPECT_THAT(failure, HasSubstr(peer));
        EXPECT_THAT(failure, StartsWith(std::string(c.failure) + (*c.failure ? peer + ": " : "")));
        // Nothing reached the handler over a refused connection.
        EXPECT_EQ(server.Stats()["requests"], 0);
    }
}

TEST(TlsConnections, ConnectionsAreReusedOnlyUnderTheSameContext) {
    TestSts::TestServer server({"--tls", "server"});
    Ref<Ssl::SSLContext> trusting = Context("ca");
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
    Ref<Ssl::SSLContext> distrusting = Context("system");
    EXPECT_THAT(FailureOf(*MakeAgent(server.Port(), distrusting.Get(), true)),
                StartsWith(kUnverified + server.Url("/echo")));
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
    Ref<Ssl::SSLContext> a = Context("unverified"), b = Context("unverified"),
                         c = Context("nohost"), verified = Context("ca");
    Service::SetLogSink(nullptr);
    const std::string text =
        " verification turned off: connections made with it can be intercepted";
    EXPECT_EQ(warnings, std::vector<std::string>({"SSLContext created with certificate" + text,
                                                  "SSLContext created with certificate" + text,
                                                  "SSLContext created with host name" + text}));
    // And it really is off: an untrusted server is accepted.
    TestSts::TestServer server({"--tls", "untrusted"});
    EXPECT_EQ(FailureOf(*MakeAgent(server.Port(), a.Get())), "(no exception)");
}

TEST(SSLContext, RefusesInconsistentOptions) {
    Ssl::SSLContextOptions noKey, otherKey, garbageCa, garbagePin, nullCa;
    noKey.clientCertificate = otherKey.clientCertificate = Certificate("client");
    otherKey.clientKey = Key("server");
    garbageCa.trustedCaPem = "not a certificate";
    garbagePin.pinnedPublicKeyPem = "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n";
    nullCa.trustedCertificates.emplace_back();
    const std::pair<Ssl::SSLContextOptions, const char*> cases[] = {
        {noKey, "SSLContext: a client certificate and its private key must be given together"},
        {otherKey, "SSLContext: the client private key does not match the client certificate"},
        {garbageCa, "Invalid PEM certificate: "},
        {garbagePin,
         "SSLContext: the pinned public key is neither a PEM public key nor a PEM certificate"},
        {nullCa, "SSLContext: null trusted certificate"},
    };
    for (const auto& [options, message] : cases) {
        Ref<Ssl::SSLContext> context;
        EXPECT_TRUE(TestSupport::Throws<InvalidArgumentException>(
            [&] { Ssl::CreateSSLContext(options, context); }, message,
            message[std::strlen(message) - 1] == ' '));  // OpenSSL's detail follows
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
    Ref<Ssl::SSLContext> context = Context("ca");
    const std::map<std::string, std::string> cases = {
        {"CN=nobody", "(no exception)"},
        {"CN=localhost", "TLS handshake rejected by the connection spec for " +
                             server.Url("/echo") +
                             ": server CN=localhost,O=Basalt Tests is not welcome"}};
    for (const auto& [refused, failure] : cases) {
        Ref<PickySpec> spec = new PickySpec(server.Port(), context.Get(), refused);
        Ref<Http::HttpUserAgent> agent;
        Http::CreateHttpUserAgent(spec.Get(), nullptr, nullptr, agent);
        EXPECT_EQ(FailureOf(*agent), failure);
        EXPECT_EQ(spec->seenChainLength, 2u);  // leaf and the test CA
    }
}

}  // namespace

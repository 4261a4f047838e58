// The foundation's HTTP client and its TLS: every verification rule lives here, once.

#include <basalt/Crypto.h>
#include <basalt/Http.h>
#include <basalt/Log.h>
#include <basalt/Ssl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>
#include <tuple>

#include "TestData.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"

using namespace Basalt;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using TestSupport::Throws;

namespace {

constexpr int64_t kWait = 30 * 1000 * 1000;

Ref<Http::HttpUserAgent> MakeAgent(int port, Ssl::SSLContext* context = nullptr,
                                   bool reusable = false, const std::string& host = "127.0.0.1",
                                   const std::string& serverName = "") {
    Ref<Http::ConnectionSpec> spec;
    Http::CreateConnectionSpec(host, port, context, serverName, reusable, spec);
    Ref<Http::HttpUserAgent> agent;
    Http::CreateHttpUserAgent(spec.Get(), nullptr, nullptr, agent);
    return agent;
}

Ref<Http::ClientRequest> MakeRequest(const std::string& path, const std::string& body = "",
                                     Http::HttpMethod method = Http::HttpMethod::Post) {
    Ref<Http::ClientRequest> request;
    Http::CreateHttpRequest(method, path, request);
    request->GetBodyWriter()->Write(body);
    return request;
}

std::string ReadBody(const Http::ClientResponse& response) {
    Ref<Reader> reader;
    response.GetBodyReader(reader);
    return TestData::ReadAll(*reader);
}

Ref<Http::ClientResponse> Exchange(Http::HttpUserAgent& agent, const std::string& path,
                                   const std::string& body = "") {
    Ref<Http::ClientResponse> response;
    agent.Send(MakeRequest(path, body).Get(), kWait, response);
    return response;
}

// The message of the exception an exchange throws, or "(no exception)".
std::string FailureOf(Http::HttpUserAgent& agent, const std::string& path = "/echo") {
    try {
        Exchange(agent, path, "x");
    } catch (const Exception& error) {
        return error.what();
    }
    return "(no exception)";
}

TEST(ParseHttpURL, SplitsValidUrlsAndNamesTheFaultOfOthers) {
    // "secure host port path", or the fault the message names.
    const std::pair<const char*, const char*> cases[] = {
        {"http://sts.example/sts/STSService", "0 sts.example 80 /sts/STSService"},
        {"https://sts.example", "1 sts.example 443 /"},
        {"HTTPS://sts.example:8443/a?b=c#frag", "1 sts.example 8443 /a?b=c"},
        {"https://[::1]:9443/x", "1 ::1 9443 /x"},
        {"http://10.0.0.1?q=1", "0 10.0.0.1 80 /?q=1"},
        {"https://h:65535", "1 h 65535 /"},
        {"sts.example/path", "missing scheme"},
        {"ftp://sts.example/", "scheme must be http or https"},
        {"https://user:pw@sts.example/", "user information is not allowed"},
        {"https:///path", "missing host"},
        {"https://h:0/", "port out of range"},
        {"https://h:65536/", "port out of range"},
        {"https://h:44a/", "bad port"},
        {"https://h:/", "bad port"},
        {"https://[::1/", "unterminated IPv6 address"},
        {"https://[1.2.3.4]/", "bad IPv6 address"},
        {"https://[::1]x/", "unexpected text after the IPv6 address"},
        {"https://h%41/", "bad character in the host name"},
        {"https://h/a b", "character not allowed in the path"},
        {"https://h/a\r\nX: y", "character not allowed in the path"},
    };
    for (const auto& [url, expected] : cases) {
        bool secure;
        std::string host, path;
        int port;
        const auto parse = [&, url = url] { Http::ParseHttpURL(url, secure, host, port, path); };
        if (std::isdigit(*expected)) {
            parse();
            EXPECT_EQ(std::to_string(secure) + " " + host + " " + std::to_string(port) + " " + path,
                      expected);
        } else {
            EXPECT_TRUE(
                Throws<Exception>(parse, "Invalid URL '" + std::string(url) + "': " + expected));
        }
    }
}

TEST(ClientRequest, RefusesHeaderInjectionAndBadPaths) {
    Ref<Http::ClientRequest> request = MakeRequest("/a");
    for (const std::string value : {"v\r\nInjected: 1", "v\nInjected: 1", "v\rX"}) {
        EXPECT_TRUE(Throws<InvalidArgumentException>(
            [&] { request->SetHeader("X-A", value); },
            "Invalid value for HTTP header 'X-A': line breaks and NUL are not allowed"));
    }
    for (const std::string name : {"Bad Name", "", "X:Y"}) {
        EXPECT_TRUE(Throws<InvalidArgumentException>([&] { request->SetHeader(name, "v"); },
                                                     "Invalid HTTP header name '" + name + "'"));
    }
    for (const std::string path : {"relative", "/a b"}) {
        EXPECT_TRUE(Throws<InvalidArgumentException>([&] { MakeRequest(path); },
                                                     "Invalid HTTP request path '" + path + "'"));
    }
}

// Headers the transport sets are checked there; here the body, whole, both ways.
TEST(HttpExchange, CarriesALargeBodyBothWays) {
    TestSts::TestServer server;
    std::string body;  // numbered, so that a lost or repeated piece shows
    for (int i = 0; body.size() < 3 * 1024 * 1024; ++i) {
        body += std::to_string(i) + ",";
    }
    Ref<Http::ClientResponse> response = Exchange(*MakeAgent(server.Port()), "/echo", body);
    // Header values as sent, found whatever their case; no 100-continue round trip.
    EXPECT_EQ(response->GetHeader("x-seen-content-length") + " (" +
                  response->GetHeader("X-Seen-Expect") + ")",
              std::to_string(body.size()) + " ()");
    EXPECT_EQ(ReadBody(*response), body);
}

TEST(HttpExchange, ManyRequestsFromManyThreads) {
    TestSts::TestServer server;
    Ref<Http::HttpUserAgent> shared = MakeAgent(server.Port(), nullptr, true);
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            Ref<Http::HttpUserAgent> own = MakeAgent(server.Port(), nullptr, t % 2 == 0);
            std::vector<Ref<Http::PendingRequestItem>> pending(16);
            for (int i = 0; i < 32; ++i) {
                Http::HttpUserAgent& agent = i % 2 ? *shared : *own;
                const std::string body = std::to_string(t) + "/" + std::to_string(i % 16);
                if (i < 16) {
                    agent.SendAsync(MakeRequest("/echo", body).Get(), nullptr, pending[i]);
                    continue;
                }
                Ref<Http::ClientResponse> response;
                agent.Wait(pending[i - 16].Get(), kWait, response);
                good += ReadBody(*response) == body;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good.load(), 6 * 16);
}

TEST(HttpFailures, NameTheCauseAndThePeer) {
    // A refused connection, a timeout and a cancelled call are checked at the service, where
    // users meet them; bad endpoints at the transport.
    EXPECT_THAT(
        FailureOf(*MakeAgent(80, nullptr, false, "no-such-host.invalid")),
        StartsWith("Cannot resolve the host name of http://no-such-host.invalid:80/echo: "));
    TestSts::TestServer server;
    const std::string reset = server.Url("/_fault/reset");
    EXPECT_THAT(FailureOf(*MakeAgent(server.Port()), "/_fault/reset"),
                ::testing::AnyOf(StartsWith("Failure receiving the reply from " + reset),
                                 StartsWith("Reply cut short by " + reset)));
}

Ref<Crypto::Certificate> Certificate(const std::string& name) {
    return TestData::LoadCertificate("tls/" + name + ".pem");
}

// Named option sets; "ca" trusts the test CA and is the base of the others except "system".
Ref<Ssl::SSLContext> Context(const std::string& name) {
    Ssl::SSLContextOptions o;
    o.trustedCaPem = name == "system" ? "" : TestData::Read("tls/ca.pem");
    if (name == "objects") {
        o.trustedCaPem.clear();
        o.trustedCertificates = {Certificate("other-ca"), Certificate("ca"), Certificate("ca")};
    } else if (name == "pin" || name == "badpin") {
        o.pinnedPublicKeyPem = name == "pin" ? Certificate("server")->GetPublicKeyPem()
                                             : TestData::Read("tls/client.pem");
    } else if (name == "client") {
        o.clientCertificate = Certificate("client");
        o.clientKey = TestData::LoadPrivateKey("tls/client.key");
    } else if (name == "tls13") {
        o.minimumVersion = Ssl::TlsVersion::Tls1_3;
    } else if (name == "unverified") {
        o.verifyPeer = false;
    } else if (name == "nohost") {
        o.verifyHostName = false;
    }
    Ref<Ssl::SSLContext> context;
    Ssl::CreateSSLContext(o, context);
    return context;
}

const char kUnverified[] = "TLS certificate verification failed for ";
const char kHandshake[] = "TLS handshake failed with ";

TEST(TlsConnections, FailClosedSucceedOnlyWhenTrustedAndWarnWhenTurnedOff) {
    const std::string off = " verification turned off: connections made with it can be intercepted";
    const std::string certificateOff = "SSLContext created with certificate" + off;
    // Server arguments, client options, host, TLS name, and the start of the failure before the
    // peer ("" any, null for success).
    const std::tuple<const char*, const char*, const char*, const char*, const char*> cases[] = {
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
        // Verification turned off really is off, and says so every time.
        {"untrusted", "unverified", "127.0.0.1", "", nullptr},
        {"expired", "unverified", "127.0.0.1", "", nullptr},
        {"wrong-host", "nohost", "localhost", "", nullptr},
    };
    std::vector<std::string> warnings;
    Service::SetLogSink([&](const Service::Logger& logger, int level, std::string_view message) {
        if (logger.GetName() == "Basalt" && level == Service::Logger::LL_Warning) {
            warnings.emplace_back(message);
        }
    });
    for (const auto& [arguments, options, host, serverName, failure] : cases) {
        SCOPED_TRACE(std::string(arguments) + " " + options + " " + host + " " + serverName);
        std::istringstream words(std::string("--tls ") + arguments);
        TestSts::TestServer server({std::istream_iterator<std::string>(words), {}});
        const std::string message =
            FailureOf(*MakeAgent(server.Port(), Context(options).Get(), false, host, serverName));
        const std::string peer =
            "https://" + std::string(host) + ":" + std::to_string(server.Port()) +
            (*serverName ? std::string(" (TLS name ") + serverName + ")" : "") + "/echo";
        if (!failure) {
            EXPECT_EQ(message, "(no exception)");
            continue;
        }
        EXPECT_THAT(message, HasSubstr(peer));
        EXPECT_THAT(message, StartsWith(std::string(failure) + (*failure ? peer + ": " : "")));
        // Nothing reached the handler over a refused connection.
        EXPECT_EQ(server.Stats()["requests"], 0);
    }
    Service::SetLogSink(nullptr);
    EXPECT_EQ(warnings, std::vector<std::string>({certificateOff, certificateOff,
                                                  "SSLContext created with host name" + off}));
}

// Which agents share kept-alive connections is checked where users meet it, in the transport
// tests; here contexts that must not share.
TEST(TlsConnections, KeptAliveConnectionsNeverServeAnotherContext) {
    TestSts::TestServer server({"--tls", "server"});
    Ref<Ssl::SSLContext> trusting = Context("ca");
    Ref<Http::HttpUserAgent> first = MakeAgent(server.Port(), trusting.Get(), true);
    Exchange(*first, "/echo", "a");
    // A kept-alive connection verified under one context never serves a context that would
    // not have trusted the server.
    EXPECT_THAT(FailureOf(*MakeAgent(server.Port(), Context("system").Get(), true)),
                StartsWith(kUnverified + server.Url("/echo")));
}

TEST(SSLContext, RefusesInconsistentOptions) {
    Ssl::SSLContextOptions noKey, otherKey, garbageCa, garbagePin, nullCa;
    noKey.clientCertificate = otherKey.clientCertificate = Certificate("client");
    otherKey.clientKey = TestData::LoadPrivateKey("tls/server.key");
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
        EXPECT_TRUE(Throws<InvalidArgumentException>(
            [&] { Ssl::CreateSSLContext(options, context); }, message,
            message[std::strlen(message) - 1] == ' '));  // OpenSSL's detail follows
    }
}

}  // namespace

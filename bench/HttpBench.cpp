// A small SOAP exchange with a loopback HTTPS server through the library's transport: requests
// per second with a new TLS connection per session and with connections reused across sessions,
// on one thread and on several. The server is the Python test server (tests/sts), so absolute
// figures are bounded by it; the ratio between the two modes is what the benchmark shows. A
// plain-HTTP pair shows the cost without TLS.

#include <basalt/Ssl.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <mutex>

#include "TestData.h"
#include "internal/transport/HttpsClient.h"
#include "sts/TestServer.h"

namespace {

const SsoClient::SoapRequest kRequest = {
    "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Issue",
    "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>"
    "<wst:RequestSecurityToken xmlns:wst=\"http://docs.oasis-open.org/ws-sx/ws-trust/200512\">"
    "<wst:RequestType>http://docs.oasis-open.org/ws-sx/ws-trust/200512/Issue</wst:RequestType>"
    "</wst:RequestSecurityToken></s:Body></s:Envelope>"};

struct Fixture {
    TestSts::TestServer tlsServer{{"--tls", "server"}};
    TestSts::TestServer plainServer;
    Basalt::Ref<Basalt::Ssl::SSLContext> context;
    std::unique_ptr<SsoClient::HttpsClient> clients[2][2];  // [tls][reuse]

    Fixture() {
        Basalt::Ssl::SSLContextOptions options;
        options.trustedCaPem = TestData::Read("tls/ca.pem");
        Basalt::Ssl::CreateSSLContext(options, context);
        for (bool reuse : {false, true}) {
            clients[1][reuse] = std::make_unique<SsoClient::HttpsClient>(
                tlsServer.Url("/echo"), context.Get(), "", 30000000, reuse);
            clients[0][reuse] = std::make_unique<SsoClient::HttpsClient>(
                plainServer.Url("/echo"), nullptr, "", 30000000, reuse);
        }
    }
};

Fixture& Shared() {
    static Fixture fixture;
    return fixture;
}

// range(0): 1 for TLS; range(1): 1 to reuse connections across sessions.
void BM_SoapExchange(benchmark::State& state) {
    const SsoClient::HttpsClient& client = *Shared().clients[state.range(0)][state.range(1)];
    char buffer[4096];
    for (auto _ : state) {
        // One session per exchange, as the token service opens one per operation.
        Basalt::Ref<Basalt::Reader> body = client.CreateSession()->SendAndWait(kRequest);
        while (body->Read(buffer, sizeof buffer) > 0) {
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_SoapExchange)
    ->ArgNames({"tls", "reuse"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

#include <atomic>
#include <future>
#include <thread>

#include "HttpTestSupport.h"
#include "support/ExpectThrow.h"

using namespace HttpTest;
using TestSupport::Throws;

namespace {

TEST(ParseHttpURL, SplitsValidUrlsAndNamesTheFaultOfOthers) {
    const std::pair<const char*, const char*> valid[] = {
        {"http://sts.example/sts/STSService", "0 sts.example 80 /sts/STSService"},
        {"https://sts.example", "1 sts.example 443 /"},
        {"HTTPS://sts.example:8443/a?b=c#frag", "1 sts.example 8443 /a?b=c"},
        {"https://[::1]:9443/x", "1 ::1 9443 /x"},
        {"http://[fe80::1]/", "0 fe80::1 80 /"},
        {"http://10.0.0.1?q=1", "0 10.0.0.1 80 /?q=1"},
        {"https://h:65535", "1 h 65535 /"},
    };
    bool secure;
    std::string host, path;
    int port;
    for (const auto& [url, parts] : valid) {
        Http::ParseHttpURL(url, secure, host, port, path);
        EXPECT_EQ(std::to_string(secure) + " " + host + " " + std::to_string(port) + " " + path,
                  parts);
    }
    const std::pair<const char*, const char*> invalid[] = {
        {"sts.example/path", "missing scheme"},
        {"ftp://sts.example/", "scheme must be http or https"},
        {"https://user:pw@sts.example/", "user information is not allowed"},
        {"https:///path", "missing host"},
        {"https://:443/", "missing host"},
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
    for (const auto& [url, fault] : invalid) {
        EXPECT_TRUE(Throws<Exception>([&] { Http::ParseHttpURL(url, secure, host, port, path); },
                                      "Invalid URL '" + std::string(url) + "': " + fault));
    }
}

TEST(ClientRequest, RefusesHeaderInjectionAndBadPaths) {
    Ref<Http::ClientRequest> request = MakeRequest("/a");
    const std::string lineBreaks = "': line breaks and NUL are not allowed";
    for (const std::string value : {"v\r\nInjected: 1", "v\nInjected: 1", "v\rX"}) {
        EXPECT_TRUE(
            Throws<InvalidArgumentException>([&] { request->SetHeader("X-A", value); },
                                             "Invalid value for HTTP header 'X-A" + lineBreaks));
    }
    for (const std::string name : {"Bad Name", "", "X:Y"}) {
        EXPECT_TRUE(Throws<InvalidArgumentException>([&] { request->SetHeader(name, "v"); },
                                                     "Invalid HTTP header name '" + name + "'"));
    }
    request->SetHeader("soapaction", "\"a\"");
    request->SetHeader("SOAPAction", "\"b\"");
    EXPECT_EQ(request->GetHeader("SoapAction"), "\"b\"");
    for (const std::string path : {"relative", "/a b"}) {
        EXPECT_TRUE(Throws<InvalidArgumentException>([&] { MakeRequest(path); },
                                                     "Invalid HTTP request path '" + path + "'"));
    }
}

class HttpExchange : public ::testing::Test {
  protected:
    TestSts::TestServer m_server;
};

TEST_F(HttpExchange, CarriesHeadersAndALargeBodyBothWays) {
    std::string envelope = "<Envelope>";
    while (envelope.size() < 3 * 1024 * 1024) {
        envelope += "<Item>0123456789abcdef</Item>";
    }
    envelope += "</Envelope>";
    Ref<Http::HttpUserAgent> agent = MakeAgent(m_server.Port());
    Ref<Http::ClientRequest> request = MakeRequest("/echo", envelope);
    request->SetHeader("Content-Type", "text/xml");
    request->SetHeader("SOAPAction", "\"urn:action\"");
    Ref<Http::ClientResponse> response;
    agent->Send(request.Get(), kWait, response);
    EXPECT_EQ(response->GetStatusCode(), 200);
    EXPECT_EQ(response->GetReason(), "OK");
    EXPECT_EQ(response->GetHeader("x-seen-soapaction"), "\"urn:action\"");
    EXPECT_EQ(response->GetHeader("X-Seen-Content-Type"), "text/xml");
    EXPECT_EQ(response->GetHeader("X-Seen-Expect"), "");  // no 100-continue round trip
    EXPECT_EQ(ReadBody(*response), envelope);
    // Every status class and method; a 1xx reply has no body, an undefined one comes as it came.
    for (int code : {199, 200, 299, 300, 404, 500, 503}) {
        const std::string text = std::to_string(code);
        response = Exchange(*agent, "/status?code=" + text + "&reason=Reason%20" + text);
        EXPECT_EQ(response->GetStatusCode(), code);
        EXPECT_EQ(response->GetReason(), "Reason " + text);
        EXPECT_EQ(ReadBody(*response), code == 199 ? "" : "status " + text + "\n");
    }
    using Http::HttpMethod;
    for (HttpMethod method :
         {HttpMethod::Get, HttpMethod::Put, HttpMethod::Delete, HttpMethod::Head}) {
        agent->Send(MakeRequest("/status?code=201", "", method).Get(), kWait, response);
        EXPECT_EQ(response->GetStatusCode(), 201);
    }
}

TEST_F(HttpExchange, CookiesStayWithTheirStore) {
    Ref<Http::CookieStore> first, second;
    Http::CreateCookieStore("", first);
    Http::CreateCookieStore("", second);
    auto agent = [&](Http::CookieStore* store) {
        return MakeAgent(m_server.Port(), nullptr, true, "127.0.0.1", "", store);
    };
    Exchange(*agent(first.Get()), "/cookies/set?name=session&value=abc");
    EXPECT_EQ(ReadBody(*Exchange(*agent(first.Get()), "/cookies/show")), "session=abc");
    EXPECT_EQ(ReadBody(*Exchange(*agent(second.Get()), "/cookies/show")), "");
}

TEST_F(HttpExchange, ReusableSpecsKeepConnectionsOthersDoNot) {
    // Private connections: reused by the agent's own requests, by no other agent.
    for (int i = 0; i < 3; ++i) {
        Ref<Http::HttpUserAgent> fresh = MakeAgent(m_server.Port(), nullptr, false);
        Exchange(*fresh, "/echo", "x");
        Exchange(*fresh, "/echo", "x");
    }
    EXPECT_EQ(m_server.Stats()["connections"], 3);
    // Two agents of reusable specs share the process-wide pool.
    Ref<Http::HttpUserAgent> reused = MakeAgent(m_server.Port(), nullptr, true);
    Ref<Http::HttpUserAgent> reusedToo = MakeAgent(m_server.Port(), nullptr, true);
    for (int i = 0; i < 3; ++i) {
        Exchange(*reused, "/echo", "x");
        Exchange(*reusedToo, "/echo", "x");
    }
    EXPECT_EQ(m_server.Stats()["connections"], 4);
    EXPECT_EQ(m_server.Stats()["requests"], 12);
}

TEST_F(HttpExchange, CompletionRunsOnceOnTheHttpThreadWhichMayNotWait) {
    Ref<Http::HttpUserAgent> agent = MakeAgent(m_server.Port());
    std::promise<std::string> outcome;
    std::atomic<int> calls{0};
    const std::thread::id caller = std::this_thread::get_id();
    Ref<Http::PendingRequestItem> pending;
    auto completion = [&](const Exception* error, Http::ClientResponse* response,
                          Http::PendingRequestItem* item) {
        ++calls;
        std::string text = error ? error->what() : ReadBody(*response);
        // Waiting here would stall every transfer; the agent refuses it.
        Ref<Http::ClientResponse> ignored;
        text += Throws<InvalidStateException>([&] { agent->Wait(item, 0, ignored); },
                                              "HttpUserAgent::Wait called on the HTTP thread, "
                                              "where it would block every transfer")
                    ? "|refused wait"
                    : "";
        outcome.set_value(text + (std::this_thread::get_id() == caller ? "|caller thread" : ""));
    };
    agent->SendAsync(MakeRequest("/echo", "async").Get(), completion, pending);
    EXPECT_EQ(outcome.get_future().get(), "async|refused wait");
    Ref<Http::ClientResponse> response;
    agent->Wait(pending.Get(), kWait, response);
    EXPECT_EQ(ReadBody(*response), "async");
    EXPECT_TRUE(pending->IsDone());
    EXPECT_EQ(calls.load(), 1);
}

TEST_F(HttpExchange, ManyRequestsFromManyThreads) {
    Ref<Http::HttpUserAgent> shared = MakeAgent(m_server.Port(), nullptr, true);
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            Ref<Http::HttpUserAgent> own = MakeAgent(m_server.Port(), nullptr, t % 2 == 0);
            std::vector<std::pair<Ref<Http::PendingRequestItem>, std::string>> pending(15);
            for (int i = 0; i < 15; ++i) {
                pending[i].second = std::to_string(t) + "/" + std::to_string(i);
                Http::HttpUserAgent& agent = i % 2 ? *shared : *own;
                agent.SendAsync(MakeRequest("/echo", pending[i].second).Get(), nullptr,
                                pending[i].first);
                if (i % 2 == 0) {
                    Ref<Http::ClientResponse> response;
                    own->Wait(pending[i].first.Get(), kWait, response);
                    good += ReadBody(*response) == pending[i].second;
                }
            }
            for (size_t i = 1; i < pending.size(); i += 2) {
                Ref<Http::ClientResponse> response;
                shared->Wait(pending[i].first.Get(), kWait, response);
                good += ReadBody(*response) == pending[i].second;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good.load(), 6 * 15);
}

TEST(HttpFailures, NameTheCauseAndThePeer) {
    TestSts::RefusedPort refused;
    EXPECT_THAT(FailureOf(*MakeAgent(refused.Port())),
                StartsWith("Cannot connect to http://127.0.0.1:" + std::to_string(refused.Port()) +
                           "/echo: "));
    EXPECT_THAT(
        FailureOf(*MakeAgent(80, nullptr, false, "no-such-host.invalid")),
        StartsWith("Cannot resolve the host name of http://no-such-host.invalid:80/echo: "));
    TestSts::TestServer server;
    const std::string reset = FailureOf(*MakeAgent(server.Port()), "/_fault/reset");
    EXPECT_THAT(reset,
                ::testing::AnyOf(
                    StartsWith("Failure receiving the reply from " + server.Url("/_fault/reset")),
                    StartsWith("Reply cut short by " + server.Url("/_fault/reset"))));
    // A request's own timeout ends the transfer on the HTTP thread.
    Ref<Http::ClientRequest> request = MakeRequest("/_fault/hang", "x");
    request->SetTimeout(200 * 1000);
    Ref<Http::ClientResponse> response;
    EXPECT_TRUE(
        Throws<Exception>([&] { MakeAgent(server.Port())->Send(request.Get(), -1, response); },
                          "Timed out waiting for " + server.Url("/_fault/hang") + ": ", true));
}

TEST(HttpFailures, WaitTimesOutOnASilentServerAndCancels) {
    TestSts::TestServer silent({"--silent"});
    Ref<Http::HttpUserAgent> agent = MakeAgent(silent.Port());
    std::promise<std::string> completion;
    Ref<Http::PendingRequestItem> pending;
    agent->SendAsync(
        MakeRequest("/echo", "x").Get(),
        [&](const Exception* error, Http::ClientResponse*, Http::PendingRequestItem*) {
            completion.set_value(error ? error->what() : "response");
        },
        pending);
    Ref<Http::ClientResponse> response;
    EXPECT_TRUE(Throws<Exception>(
        [&] { agent->Wait(pending.Get(), 200 * 1000, response); },
        "Timed out after 200 ms waiting for the reply from " + silent.Url("/echo")));
    // The timed-out request is stopped, and its completion still runs exactly once.
    EXPECT_EQ(completion.get_future().get(), "Request cancelled: " + silent.Url("/echo"));
}

TEST(HttpUserAgent, RefusesForeignPendingItemsAndMissingSpecs) {
    Ref<Http::HttpUserAgent> agent;
    EXPECT_TRUE(Throws<InvalidArgumentException>(
        [&] { Http::CreateHttpUserAgent(nullptr, nullptr, nullptr, agent); },
        "CreateHttpUserAgent: a connection spec is required"));
    Ref<Http::ConnectionSpec> spec;
    Http::CreateConnectionSpec("bad host", 80, nullptr, "", false, spec);
    EXPECT_TRUE(Throws<InvalidArgumentException>(
        [&] { Http::CreateHttpUserAgent(spec.Get(), nullptr, nullptr, agent); },
        "CreateHttpUserAgent: invalid host or port in ", true));
    TestSts::TestServer server;
    Ref<Http::HttpUserAgent> one = MakeAgent(server.Port()), other = MakeAgent(server.Port());
    Ref<Http::PendingRequestItem> pending;
    one->SendAsync(MakeRequest("/echo", "", Http::HttpMethod::Get).Get(), nullptr, pending);
    Ref<Http::ClientResponse> response;
    EXPECT_TRUE(Throws<InvalidArgumentException>(
        [&] { other->Wait(pending.Get(), kWait, response); },
        "HttpUserAgent::Wait: the request was not sent by this agent"));
    one->Wait(pending.Get(), kWait, response);
}

}  // namespace

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <thread>

#include "HttpTestSupport.h"

using namespace Basalt;
using namespace HttpTest;
using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {

struct UrlCase {
    const char* url;
    bool secure;
    const char* host;
    int port;
    const char* path;
};

TEST(ParseHttpURL, SplitsValidUrls) {
    const UrlCase cases[] = {
        {"http://sts.example/sts/STSService", false, "sts.example", 80, "/sts/STSService"},
        {"https://sts.example", true, "sts.example", 443, "/"},
        {"HTTPS://sts.example:8443/a?b=c#frag", true, "sts.example", 8443, "/a?b=c"},
        {"https://[::1]:9443/x", true, "::1", 9443, "/x"},
        {"http://[fe80::1]/", false, "fe80::1", 80, "/"},
        {"http://10.0.0.1?q=1", false, "10.0.0.1", 80, "/?q=1"},
        {"https://h:65535", true, "h", 65535, "/"},
    };
    for (const UrlCase& c : cases) {
        bool secure = !c.secure;
        std::string host;
        int port = 0;
        std::string path;
        Http::ParseHttpURL(c.url, secure, host, port, path);
        EXPECT_EQ(secure, c.secure) << c.url;
        EXPECT_EQ(host, c.host) << c.url;
        EXPECT_EQ(port, c.port) << c.url;
        EXPECT_EQ(path, c.path) << c.url;
    }
}

TEST(ParseHttpURL, RejectsMalformedUrlsNamingTheFault) {
    const std::pair<const char*, const char*> cases[] = {
        {"sts.example/path", "missing scheme"},
        {"ftp://sts.example/", "scheme must be http or https"},
        {"https://user:pw@sts.example/", "user information"},
        {"https:///path", "missing host"},
        {"https://:443/", "missing host"},
        {"https://h:0/", "port out of range"},
        {"https://h:65536/", "port out of range"},
        {"https://h:44a/", "bad port"},
        {"https://h:/", "bad port"},
        {"https://[::1/", "unterminated IPv6"},
        {"https://[1.2.3.4]/", "bad IPv6"},
        {"https://[::1]x/", "unexpected text"},
        {"https://h%41/", "bad character in the host"},
        {"https://h/a b", "not allowed in the path"},
        {"https://h/a\r\nX: y", "not allowed in the path"},
    };
    for (const auto& [url, fault] : cases) {
        bool secure;
        std::string host, path;
        int port;
        try {
            Http::ParseHttpURL(url, secure, host, port, path);
            ADD_FAILURE() << "accepted " << url;
        } catch (const Exception& error) {
            EXPECT_THAT(error.what(), AllOf(HasSubstr(url), HasSubstr(fault)));
        }
    }
}

TEST(ClientRequest, RefusesHeaderInjectionAndBadPaths) {
    Ref<Http::ClientRequest> request = MakeRequest(Http::HttpMethod::Post, "/a");
    EXPECT_THROW(request->SetHeader("X-A", "v\r\nInjected: 1"), InvalidArgumentException);
    EXPECT_THROW(request->SetHeader("X-A", "v\nInjected: 1"), InvalidArgumentException);
    EXPECT_THROW(request->SetHeader("Bad Name", "v"), InvalidArgumentException);
    EXPECT_THROW(request->SetHeader("", "v"), InvalidArgumentException);
    request->SetHeader("soapaction", "\"a\"");
    request->SetHeader("SOAPAction", "\"b\"");
    EXPECT_EQ(request->GetHeader("SoapAction"), "\"b\"");
    Ref<Http::ClientRequest> out;
    EXPECT_THROW(Http::CreateHttpRequest(Http::HttpMethod::Post, "relative", out),
                 InvalidArgumentException);
    EXPECT_THROW(Http::CreateHttpRequest(Http::HttpMethod::Post, "/a b", out),
                 InvalidArgumentException);
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
    Ref<Http::ClientRequest> request = MakeRequest(Http::HttpMethod::Post, "/echo", envelope);
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
}

TEST_F(HttpExchange, ReportsStatusAndReasonOfEveryClass) {
    Ref<Http::HttpUserAgent> agent = MakeAgent(m_server.Port());
    for (int code : {199, 200, 299, 300, 404, 500, 503}) {
        Ref<Http::ClientResponse> response =
            Exchange(*agent, "/status?code=" + std::to_string(code) + "&reason=Reason%20" +
                                 std::to_string(code));
        EXPECT_EQ(response->GetStatusCode(), code);
        EXPECT_EQ(response->GetReason(), "Reason " + std::to_string(code));
        // A 1xx reply has no body; an undefined one is reported as it came.
        EXPECT_EQ(ReadBody(*response), code == 199 ? "" : "status " + std::to_string(code) + "\n");
    }
}

TEST_F(HttpExchange, OtherMethodsReachTheServer) {
    Ref<Http::HttpUserAgent> agent = MakeAgent(m_server.Port());
    for (Http::HttpMethod method : {Http::HttpMethod::Get, Http::HttpMethod::Put,
                                    Http::HttpMethod::Delete, Http::HttpMethod::Head}) {
        Ref<Http::ClientResponse> response;
        agent->Send(MakeRequest(method, "/status?code=201").Get(), kWait, response);
        EXPECT_EQ(response->GetStatusCode(), 201);
    }
}

TEST_F(HttpExchange, CookiesStayWithTheirStore) {
    Ref<Http::CookieStore> first;
    Ref<Http::CookieStore> second;
    Http::CreateCookieStore("", first);
    Http::CreateCookieStore("", second);
    Ref<Http::HttpUserAgent> agent =
        MakeAgent(m_server.Port(), nullptr, true, "127.0.0.1", "", first.Get());
    Ref<Http::HttpUserAgent> sameStore =
        MakeAgent(m_server.Port(), nullptr, true, "127.0.0.1", "", first.Get());
    Ref<Http::HttpUserAgent> otherStore =
        MakeAgent(m_server.Port(), nullptr, true, "127.0.0.1", "", second.Get());
    Exchange(*agent, "/cookies/set?name=session&value=abc");
    EXPECT_EQ(ReadBody(*Exchange(*agent, "/cookies/show")), "session=abc");
    EXPECT_EQ(ReadBody(*Exchange(*sameStore, "/cookies/show")), "session=abc");
    EXPECT_EQ(ReadBody(*Exchange(*otherStore, "/cookies/show")), "");
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

TEST_F(HttpExchange, CompletionRunsOnceOnTheHttpThread) {
    Ref<Http::HttpUserAgent> agent = MakeAgent(m_server.Port());
    std::promise<std::string> outcome;
    std::atomic<int> calls{0};
    const std::thread::id caller = std::this_thread::get_id();
    Ref<Http::PendingRequestItem> pending;
    agent->SendAsync(
        MakeRequest(Http::HttpMethod::Post, "/echo", "async").Get(),
        [&](const Exception* error, Http::ClientResponse* response,
            Http::PendingRequestItem* item) {
            ++calls;
            std::string text = error ? error->what() : ReadBody(*response);
            // Waiting here would stall every transfer; the agent refuses it.
            try {
                Ref<Http::ClientResponse> ignored;
                agent->Wait(item, 0, ignored);
            } catch (const InvalidStateException&) {
                text += "|refused wait";
            }
            text += std::this_thread::get_id() == caller ? "|caller thread" : "";
            outcome.set_value(text);
        },
        pending);
    EXPECT_EQ(outcome.get_future().get(), "async|refused wait");
    Ref<Http::ClientResponse> response;
    agent->Wait(pending.Get(), kWait, response);
    EXPECT_EQ(ReadBody(*response), "async");
    EXPECT_TRUE(pending->IsDone());
    EXPECT_EQ(calls.load(), 1);
}

TEST_F(HttpExchange, ManyRequestsFromManyThreads) {
    Ref<Http::HttpUserAgent> shared = MakeAgent(m_server.Port(), nullptr, true);
    constexpr int kThreads = 6;
    constexpr int kPerThread = 15;
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Ref<Http::HttpUserAgent> own = MakeAgent(m_server.Port(), nullptr, t % 2 == 0);
            std::vector<std::pair<Ref<Http::PendingRequestItem>, std::string>> pending;
            for (int i = 0; i < kPerThread; ++i) {
                const std::string body = std::to_string(t) + "/" + std::to_string(i);
                Http::HttpUserAgent& agent = i % 2 ? *shared : *own;
                Ref<Http::PendingRequestItem> item;
                agent.SendAsync(MakeRequest(Http::HttpMethod::Post, "/echo", body).Get(), nullptr,
                                item);
                pending.emplace_back(item, body);
                if (i % 2 == 0) {
                    Ref<Http::ClientResponse> response;
                    own->Wait(item.Get(), kWait, response);
                    good += ReadBody(*response) == body;
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
    EXPECT_EQ(good.load(), kThreads * kPerThread);
}

TEST(HttpFailures, RefusedConnectionNamesCauseAndPeer) {
    TestSts::RefusedPort refused;
    Ref<Http::HttpUserAgent> agent = MakeAgent(refused.Port());
    EXPECT_THAT(FailureOf(*agent), AllOf(HasSubstr("Cannot connect to"),
                                         HasSubstr("127.0.0.1:" + std::to_string(refused.Port()))));
}

TEST(HttpFailures, UnknownHostNamesCauseAndPeer) {
    Ref<Http::HttpUserAgent> agent = MakeAgent(80, nullptr, false, "no-such-host.invalid");
    EXPECT_THAT(FailureOf(*agent), AllOf(HasSubstr("Cannot resolve the host name"),
                                         HasSubstr("no-such-host.invalid")));
}

TEST(HttpFailures, ResetInTheMiddleOfTheReply) {
    TestSts::TestServer server;
    Ref<Http::HttpUserAgent> agent = MakeAgent(server.Port());
    EXPECT_THAT(FailureOf(*agent, "/_fault/reset"),
                AllOf(HasSubstr("127.0.0.1:" + std::to_string(server.Port()) + "/_fault/reset"),
                      ::testing::AnyOf(HasSubstr("Failure receiving the reply"),
                                       HasSubstr("Reply cut short"))));
}

TEST(HttpFailures, WaitTimesOutOnASilentServerAndCancels) {
    TestSts::TestServer silent({"--silent"});
    Ref<Http::HttpUserAgent> agent = MakeAgent(silent.Port());
    std::promise<std::string> completion;
    Ref<Http::PendingRequestItem> pending;
    agent->SendAsync(
        MakeRequest(Http::HttpMethod::Post, "/echo", "x").Get(),
        [&](const Exception* error, Http::ClientResponse*, Http::PendingRequestItem*) {
            completion.set_value(error ? error->what() : "response");
        },
        pending);
    Ref<Http::ClientResponse> response;
    try {
        agent->Wait(pending.Get(), 200 * 1000, response);
        ADD_FAILURE() << "no timeout";
    } catch (const Exception& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr("Timed out after 200 ms"),
                                        HasSubstr(std::to_string(silent.Port()))));
    }
    // The timed-out request is stopped, and its completion still runs exactly once.
    EXPECT_THAT(completion.get_future().get(), HasSubstr("Request cancelled"));
}

TEST(HttpFailures, RequestTimeoutEndsTheTransferOnTheHttpThread) {
    TestSts::TestServer server;
    Ref<Http::HttpUserAgent> agent = MakeAgent(server.Port());
    Ref<Http::ClientRequest> request = MakeRequest(Http::HttpMethod::Post, "/_fault/hang", "x");
    request->SetTimeout(200 * 1000);
    Ref<Http::ClientResponse> response;
    try {
        agent->Send(request.Get(), -1, response);
        ADD_FAILURE() << "no timeout";
    } catch (const Exception& error) {
        EXPECT_THAT(error.what(), HasSubstr("Timed out waiting for http://127.0.0.1:"));
    }
}

TEST(HttpUserAgent, RefusesForeignPendingItemsAndMissingSpecs) {
    Ref<Http::HttpUserAgent> agent;
    EXPECT_THROW(Http::CreateHttpUserAgent(nullptr, nullptr, nullptr, agent),
                 InvalidArgumentException);
    Ref<Http::ConnectionSpec> spec;
    Http::CreateConnectionSpec("bad host", 80, nullptr, "", false, spec);
    EXPECT_THROW(Http::CreateHttpUserAgent(spec.Get(), nullptr, nullptr, agent),
                 InvalidArgumentException);
    TestSts::TestServer server;
    Ref<Http::HttpUserAgent> one = MakeAgent(server.Port());
    Ref<Http::HttpUserAgent> other = MakeAgent(server.Port());
    Ref<Http::PendingRequestItem> pending;
    one->SendAsync(MakeRequest(Http::HttpMethod::Get, "/echo").Get(), nullptr, pending);
    Ref<Http::ClientResponse> response;
    EXPECT_THROW(other->Wait(pending.Get(), kWait, response), InvalidArgumentException);
    one->Wait(pending.Get(), kWait, response);
}

}  // namespace

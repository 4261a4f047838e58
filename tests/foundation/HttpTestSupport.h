#pragma once

// Helpers shared by the foundation's HTTP and TLS tests.

#include <basalt/Http.h>
#include <gmock/gmock.h>

#include <string>

#include "TestData.h"
#include "sts/TestServer.h"

namespace HttpTest {

using namespace Basalt;
using ::testing::StartsWith;

inline Ref<Http::HttpUserAgent> MakeAgent(int port, Ssl::SSLContext* context = nullptr,
                                          bool reusable = false,
                                          const std::string& host = "127.0.0.1",
                                          const std::string& serverName = "",
                                          Http::CookieStore* cookies = nullptr) {
    Ref<Http::ConnectionSpec> spec;
    Http::CreateConnectionSpec(host, port, context, serverName, reusable, spec);
    Ref<Http::HttpUserAgent> agent;
    Http::CreateHttpUserAgent(spec.Get(), cookies, nullptr, agent);
    return agent;
}

inline Ref<Http::ClientRequest> MakeRequest(const std::string& path, const std::string& body = "",
                                            Http::HttpMethod method = Http::HttpMethod::Post) {
    Ref<Http::ClientRequest> request;
    Http::CreateHttpRequest(method, path, request);
    request->GetBodyWriter()->Write(body);
    return request;
}

inline std::string ReadBody(const Http::ClientResponse& response) {
    Ref<Reader> reader;
    response.GetBodyReader(reader);
    std::string body;
    char buffer[65536];
    while (size_t count = reader->Read(buffer, sizeof buffer)) {
        body.append(buffer, count);
    }
    return body;
}

constexpr int64_t kWait = 30 * 1000 * 1000;

// Sends and returns the response; the request fails the test by throwing.
inline Ref<Http::ClientResponse> Exchange(Http::HttpUserAgent& agent, const std::string& path,
                                          const std::string& body = "") {
    Ref<Http::ClientResponse> response;
    agent.Send(MakeRequest(path, body).Get(), kWait, response);
    return response;
}

// The message of the exception an exchange throws, or "(no exception)".
inline std::string FailureOf(Http::HttpUserAgent& agent, const std::string& path = "/echo",
                             int64_t timeout = kWait) {
    try {
        Ref<Http::ClientResponse> response;
        agent.Send(MakeRequest(path, "x").Get(), timeout, response);
    } catch (const Exception& error) {
        return error.what();
    }
    return "(no exception)";
}

}  // namespace HttpTest

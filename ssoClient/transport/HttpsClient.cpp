#include "internal/transport/HttpsClient.h"

#include <ssoClient/ConnectionSpec.h>

#include "internal/FailureNotes.h"

namespace SsoClient {

TransportSession::~TransportSession() = default;
Transport::~Transport() = default;

HttpsClient::HttpsClient(const std::string& url, Basalt::Ssl::SSLContext* sslContext,
                         const std::string& sslParameter, int64_t waitTimeout,
                         bool reuseConnections, const Basalt::Http::UserAgentOptions& agentOptions)
    : m_waitTimeout(waitTimeout), m_url(url), m_agentOptions(agentOptions) {
    bool secure = false;
    std::string host;
    int port = 0;
    Basalt::Http::ParseHttpURL(url, secure, host, port, m_path);
    if (secure) {
        if (!sslContext) {
            throw Basalt::InvalidArgumentException(
                "HTTPS connection requested but no SSLContext provided.");
        }
        CreateSsoSSLConnectionSpec(host, port, sslContext, sslParameter, reuseConnections,
                                   m_connectionSpec);
    } else {
        CreateSsoConnectionSpec(host, port, reuseConnections, m_connectionSpec);
    }
}

HttpsClient::HttpsClient(Basalt::Ref<Basalt::Http::HttpUserAgent> presetAgent,
                         const std::string& path, int64_t waitTimeout)
    : m_presetUserAgent(std::move(presetAgent)),
      m_path(path),
      m_waitTimeout(waitTimeout),
      m_url(path) {}

std::shared_ptr<TransportSession> HttpsClient::CreateSession() const {
    return CreateHttpsSession();
}

std::shared_ptr<HttpsSession> HttpsClient::CreateHttpsSession() const {
    Basalt::Ref<Basalt::Http::HttpUserAgent> agent = m_presetUserAgent;
    if (!agent) {
        // A cookie store per session: cookies last for the session's requests only.
        Basalt::Ref<Basalt::Http::CookieStore> cookies;
        Basalt::Http::CreateCookieStore("", cookies);
        Basalt::Http::CreateHttpUserAgent(m_connectionSpec.Get(), cookies.Get(), nullptr,
                                          m_agentOptions, agent);
    }
    return std::make_shared<HttpsSession>(std::move(agent), m_path, m_waitTimeout, m_url);
}

HttpsSession::HttpsSession(Basalt::Ref<Basalt::Http::HttpUserAgent> userAgent, std::string path,
                           int64_t waitTimeout, std::string url)
    : m_userAgent(std::move(userAgent)),
      m_path(std::move(path)),
      m_waitTimeout(waitTimeout),
      m_url(std::move(url)) {}

Basalt::Ref<Basalt::Http::PendingRequestItem> HttpsSession::Start(
    const SoapRequest& request, Basalt::Http::CompletionCallback completion, int64_t timeout,
    int64_t connectTimeout) {
    Basalt::Ref<Basalt::Http::ClientRequest> httpRequest;
    try {
        Basalt::Http::CreateHttpRequest(Basalt::Http::HttpMethod::Post, m_path, httpRequest);
    } catch (const Basalt::InvalidArgumentException& error) {
        // A caller's URL that is no request target fails like any other transport failure.
        throw CommunicationException(error.what());
    }
    httpRequest->SetHeader("Content-Type", "text/xml");
    httpRequest->SetHeader("SOAPAction", "\"" + request.soapAction + "\"");
    httpRequest->GetBodyWriter()->Write(request.envelope.data(), request.envelope.size());
    // The same limit ends an asynchronous exchange, which has nobody waiting on it.
    if (timeout > 0) {
        httpRequest->SetTimeout(timeout);
    }
    httpRequest->SetConnectTimeout(connectTimeout);
    Basalt::Ref<Basalt::Http::PendingRequestItem> pending;
    m_userAgent->SendAsync(httpRequest.Get(), std::move(completion), pending);
    return pending;
}

Basalt::Ref<Basalt::Reader> HttpsSession::SendAndWait(const SoapRequest& request) {
    Attempt attempt = Try(request, m_waitTimeout, 0);
    if (attempt.failure) {
        attempt.failure->Throw();
    }
    return attempt.body;
}

namespace {

// The outcome of one try, noted for the failure line too.
Attempt Conclude(const Basalt::Exception* error, Basalt::Http::ClientResponse* response,
                 FailureNotes& notes) {
    Attempt attempt;
    attempt.body = ConvertReply(error, response, attempt.failure);
    if (error) {
        attempt.kind = Basalt::Http::GetFailureKind(*error);
        return attempt;
    }
    attempt.status = notes.status = response->GetStatusCode();
    if (attempt.failure) {
        Basalt::Ref<Basalt::Reader> refused;
        response->GetBodyReader(refused);
        char start[200];
        notes.excerpt = Excerpt(std::string(start, refused->Read(start, sizeof start)));
    }
    return attempt;
}

void StartNotes(FailureNotes& notes, const std::string& url) {
    notes.url = url;
    notes.status = 0;
    notes.excerpt.clear();
}

}  // namespace

Attempt HttpsSession::Try(const SoapRequest& request, int64_t timeout, int64_t connectTimeout) {
    FailureNotes& notes = ThreadFailureNotes();
    StartNotes(notes, m_url);
    Basalt::Ref<Basalt::Http::PendingRequestItem> pending =
        Start(request, nullptr, timeout, connectTimeout);
    try {
        Basalt::Ref<Basalt::Http::ClientResponse> response;
        m_userAgent->Wait(pending.Get(), timeout, response);
        return Conclude(nullptr, response.Get(), notes);
    } catch (const Basalt::Exception& error) {
        return Conclude(&error, nullptr, notes);
    }
}

Basalt::Ref<Basalt::Http::PendingRequestItem> HttpsSession::TryAsync(
    const SoapRequest& request, int64_t timeout, int64_t connectTimeout,
    std::function<void(Attempt&)> done) {
    // The completion outlives the session if need be: it holds nothing of it.
    return Start(
        request,
        [done = std::move(done), url = m_url](const Basalt::Exception* error,
                                              Basalt::Http::ClientResponse* response,
                                              Basalt::Http::PendingRequestItem*) {
            FailureNotes& notes = ThreadFailureNotes();
            notes = FailureNotes();
            StartNotes(notes, url);
            Attempt attempt = Conclude(error, response, notes);
            done(attempt);
        },
        timeout, connectTimeout);
}

Basalt::Ref<Basalt::Http::PendingRequestItem> HttpsSession::SendAsync(
    const SoapRequest& request, TransportCompletion completion) {
    return TryAsync(request, m_waitTimeout, 0,
                    [completion = std::move(completion)](Attempt& attempt) {
                        ThreadFailureNotes().attempts = 1;
                        completion(attempt.failure.get(), attempt.body.Get());
                    });
}

Basalt::Ref<Basalt::Reader> ConvertReply(const Basalt::Exception* error,
                                         Basalt::Http::ClientResponse* response,
                                         std::shared_ptr<CommunicationException>& failure) {
    if (error) {
        failure = std::make_shared<CommunicationException>(error->what());
        return nullptr;
    }
    const int status = response->GetStatusCode();
    // 500 carries SOAP faults, which the response handler interprets.
    if (status != 500 && (status < 200 || status > 299)) {
        failure = std::make_shared<CommunicationException>(
            "Server returned error: " + std::to_string(status) + " " + response->GetReason());
        return nullptr;
    }
    Basalt::Ref<Basalt::Reader> body;
    response->GetBodyReader(body);
    return body;
}

}  // namespace SsoClient

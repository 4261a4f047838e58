#pragma once

#include <basalt/Http.h>
#include <basalt/Ssl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <ssoClient/Exceptions.h>
#include "internal/transport/Transport.h"

namespace SsoClient {

class HttpsSession;

// One try of an exchange: the reply body, or the failure with what tells whether trying again is
// safe (the foundation's kind of a transport failure, the status of a refused reply).
struct Attempt {
    Basalt::Ref<Basalt::Reader> body;
    std::shared_ptr<CommunicationException> failure;
    Basalt::Http::FailureKind kind = Basalt::Http::FailureKind::Other;
    int status = 0;
};

// The transport over the foundation's HTTP client. Either it owns a connection spec
// made from the service URL (each session then gets its own user agent and cookie store), or it
// was given a ready user agent that all sessions share.
class HttpsClient : public Transport {
  public:
    // Parses url; an https URL needs sslContext (Basalt::InvalidArgumentException "HTTPS
    // connection requested but no SSLContext provided." otherwise). sslParameter and
    // reuseConnections go to the connection-spec factories unchanged. waitTimeout is
    // in microseconds. Each session's user agent is made with agentOptions (a proxy, say).
    HttpsClient(const std::string& url, Basalt::Ssl::SSLContext* sslContext,
                const std::string& sslParameter, int64_t waitTimeout, bool reuseConnections,
                const Basalt::Http::UserAgentOptions& agentOptions = {});
    // Sessions share presetAgent and send to path as given.
    HttpsClient(Basalt::Ref<Basalt::Http::HttpUserAgent> presetAgent, const std::string& path,
                int64_t waitTimeout);

    std::shared_ptr<TransportSession> CreateSession() const override;
    std::shared_ptr<HttpsSession> CreateHttpsSession() const;
    int64_t GetWaitTimeout() const { return m_waitTimeout; }

  private:
    Basalt::Ref<Basalt::Http::ConnectionSpec> m_connectionSpec;
    Basalt::Ref<Basalt::Http::HttpUserAgent> m_presetUserAgent;
    std::string m_path;
    int64_t m_waitTimeout;
    std::string m_url;  // for log lines
    Basalt::Http::UserAgentOptions m_agentOptions;
};

class HttpsSession : public TransportSession {
  public:
    HttpsSession(Basalt::Ref<Basalt::Http::HttpUserAgent> userAgent, std::string path,
                 int64_t waitTimeout, std::string url = "");

    Basalt::Ref<Basalt::Reader> SendAndWait(const SoapRequest& request) override;
    Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SoapRequest& request, TransportCompletion completion) override;
    // Sends once, waiting up to timeout; connectTimeout 0 leaves the foundation's. Notes the URL
    // and the reply's status (and the start of a refused reply) in ThreadFailureNotes.
    Attempt Try(const SoapRequest& request, int64_t timeout, int64_t connectTimeout);
    // Sends once without waiting; done runs on the HTTP thread with the outcome, the notes in
    // ThreadFailureNotes() there.
    Basalt::Ref<Basalt::Http::PendingRequestItem> TryAsync(const SoapRequest& request,
                                                           int64_t timeout, int64_t connectTimeout,
                                                           std::function<void(Attempt&)> done);
    int64_t GetWaitTimeout() const { return m_waitTimeout; }

  private:
    Basalt::Ref<Basalt::Http::PendingRequestItem> Start(const SoapRequest& request,
                                                        Basalt::Http::CompletionCallback completion,
                                                        int64_t timeout, int64_t connectTimeout);

    Basalt::Ref<Basalt::Http::HttpUserAgent> m_userAgent;
    std::string m_path;
    int64_t m_waitTimeout;
    std::string m_url;
};

// Turns the outcome of an exchange into the reply body, or into the failure to report: a
// transport error keeps its text; a status other than 2xx and 500 becomes "Server returned
// error: <code> <reason>".
Basalt::Ref<Basalt::Reader> ConvertReply(const Basalt::Exception* error,
                                         Basalt::Http::ClientResponse* response,
                                         std::shared_ptr<CommunicationException>& failure);

}  // namespace SsoClient

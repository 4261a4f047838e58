#pragma once

#include <basalt/Http.h>
#include <basalt/Ssl.h>

#include <cstdint>
#include <memory>
#include <string>

#include <ssoClient/Exceptions.h>
#include "internal/transport/Transport.h"

namespace SsoClient {

// The transport over the foundation's HTTP client. Either it owns a connection spec
// made from the service URL (each session then gets its own user agent and cookie store), or it
// was given a ready user agent that all sessions share.
class HttpsClient : public Transport {
  public:
    // Parses url; an https URL needs sslContext (Basalt::InvalidArgumentException "HTTPS
    // connection requested but no SSLContext provided." otherwise). sslParameter and
    // reuseConnections go to the connection-spec factories unchanged. waitTimeout is
    // in microseconds.
    HttpsClient(const std::string& url, Basalt::Ssl::SSLContext* sslContext,
                const std::string& sslParameter, int64_t waitTimeout, bool reuseConnections);
    // Sessions share presetAgent and send to path as given.
    HttpsClient(Basalt::Ref<Basalt::Http::HttpUserAgent> presetAgent, const std::string& path,
                int64_t waitTimeout);

    std::shared_ptr<TransportSession> CreateSession() const override;

  private:
    Basalt::Ref<Basalt::Http::ConnectionSpec> m_connectionSpec;
    Basalt::Ref<Basalt::Http::HttpUserAgent> m_presetUserAgent;
    std::string m_path;
    int64_t m_waitTimeout;
};

class HttpsSession : public TransportSession {
  public:
    HttpsSession(Basalt::Ref<Basalt::Http::HttpUserAgent> userAgent, std::string path,
                 int64_t waitTimeout);

    Basalt::Ref<Basalt::Reader> SendAndWait(const SoapRequest& request) override;
    Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SoapRequest& request, TransportCompletion completion) override;

  private:
    Basalt::Ref<Basalt::Http::PendingRequestItem> Start(
        const SoapRequest& request, Basalt::Http::CompletionCallback completion);

    Basalt::Ref<Basalt::Http::HttpUserAgent> m_userAgent;
    std::string m_path;
    int64_t m_waitTimeout;
};

// Turns the outcome of an exchange into the reply body, or into the failure to report: a
// transport error keeps its text; a status other than 2xx and 500 becomes "Server returned
// error: <code> <reason>".
Basalt::Ref<Basalt::Reader> ConvertReply(const Basalt::Exception* error,
                                         Basalt::Http::ClientResponse* response,
                                         std::shared_ptr<CommunicationException>& failure);

}  // namespace SsoClient

// The library's connection specs for the foundation's HTTP client.

#include <basalt/Format.h>
#include <basalt/Net.h>

#include <ssoClient/ConnectionSpec.h>
#include "internal/Logger.h"

namespace SsoClient {

namespace {

void CheckEndpoint(const std::string& host, int port) {
    if (host.empty() || port < 1 || port > 65535) {
        throw Basalt::InvalidArgumentException("Invalid connection endpoint " + host + ":" +
                                               std::to_string(port));
    }
}

class SsoCustomConnectionSpecImpl : public virtual Basalt::ObjectImpl,
                                    public virtual Basalt::Http::CustomConnectionSpec {
  public:
    SsoCustomConnectionSpecImpl(const std::string& host, int port, bool reuseConnections)
        : m_host(host), m_port(port), m_reuseConnections(reuseConnections) {
        CheckEndpoint(host, port);
    }

    std::string GetHost() const override { return m_host; }
    int GetPort() const override { return m_port; }
    Basalt::Ssl::SSLContext* GetSSLContext() const override { return nullptr; }
    std::string GetServerName() const override { return std::string(); }
    bool IsReusable() const override { return m_reuseConnections; }
    void OnHandshake(const std::vector<Basalt::Ref<Basalt::Crypto::Certificate>>&) const override {}
    std::string ToString() const override {
        return Basalt::Detail::ASPrintInternal("%1:%2", Basalt::PrintFormatter(m_host),
                                               Basalt::PrintFormatter(m_port));
    }

  private:
    const std::string m_host;
    const int m_port;
    const bool m_reuseConnections;
};

class SsoCustomSslConnectionSpecImpl final : public SsoCustomConnectionSpecImpl {
  public:
    SsoCustomSslConnectionSpecImpl(const std::string& host, int port,
                                   Basalt::Ssl::SSLContext* context, const std::string& serverName,
                                   bool reuseConnections)
        : SsoCustomConnectionSpecImpl(host, port, reuseConnections),
          m_context(context),
          m_serverName(serverName),
          // An IP-address host without a name override sends no SNI and is verified against
          // the certificate's IP addresses.
          m_verifiedName(!serverName.empty()                 ? serverName
                         : Basalt::System::IsIpAddress(host) ? "ip:" + host
                                                             : host) {
        if (!context) {
            throw Basalt::InvalidArgumentException(
                "CreateSsoSSLConnectionSpec: an SSLContext is required");
        }
    }

    Basalt::Ssl::SSLContext* GetSSLContext() const override { return m_context.Get(); }
    std::string GetServerName() const override { return m_serverName; }
    // The handshake step: the context has verified the chain; record whom we talk to.
    void OnHandshake(
        const std::vector<Basalt::Ref<Basalt::Crypto::Certificate>>& chain) const override {
        const Basalt::Service::Logger* logger = GetLogger();
        if (logger->IsEnabled(Basalt::Service::Logger::LL_Trace) && !chain.empty()) {
            Basalt::Service::LogInternal(logger, Basalt::Service::Logger::LL_Trace,
                                         "TLS connection %1 established with server %2",
                                         Basalt::PrintFormatter(ToString()),
                                         Basalt::PrintFormatter(chain.front()->GetSubjectName()));
        }
    }
    std::string ToString() const override {
        return Basalt::Detail::ASPrintInternal(
            "<cs p:%1, SsoCustomConnectionSpec:%2>",
            Basalt::PrintFormatter(SsoCustomConnectionSpecImpl::ToString()),
            Basalt::PrintFormatter(m_verifiedName));
    }

  private:
    const Basalt::Ref<Basalt::Ssl::SSLContext> m_context;
    const std::string m_serverName;
    const std::string m_verifiedName;
};

}  // namespace

void CreateSsoConnectionSpec(const std::string& host, int port, bool reuseConnections,
                             Basalt::Ref<Basalt::Http::ConnectionSpec>& result) {
    result = new SsoCustomConnectionSpecImpl(host, port, reuseConnections);
}

void CreateSsoSSLConnectionSpec(const std::string& host, int port, Basalt::Ssl::SSLContext* context,
                                const std::string& serverName, bool reuseConnections,
                                Basalt::Ref<Basalt::Http::ConnectionSpec>& result) {
    result = new SsoCustomSslConnectionSpecImpl(host, port, context, serverName, reuseConnections);
}

}  // namespace SsoClient

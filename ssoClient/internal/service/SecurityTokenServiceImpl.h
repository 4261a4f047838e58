#pragma once

#include <memory>

#include <ssoClient/SecurityTokenService.h>

#include "internal/requests/RequestBuilder.h"
#include "internal/service/ResponseHandler.h"
#include "internal/transport/Transport.h"

namespace SsoClient {

// The token service as a pipeline of four immutable components: build the request, send it over
// a new session, interpret the reply, make the token. Holds no per-call state.
class SecurityTokenServiceImpl : public SecurityTokenService {
  public:
    SecurityTokenServiceImpl(std::shared_ptr<RequestBuilder> requestBuilder,
                             std::shared_ptr<Transport> transport,
                             std::shared_ptr<ResponseHandler> responseHandler,
                             std::shared_ptr<SamlTokenFactory> tokenFactory);

    std::shared_ptr<const SamlToken> AcquireToken(const std::string& user,
                                                  const std::string& password,
                                                  const TokenSpec& spec) const override;
    std::shared_ptr<const SamlToken> AcquireTokenByGSS(const TokenSpec& spec,
                                                       NegotiationHandler& handler) const override;
    std::shared_ptr<const SamlToken> AcquireTokenByCertificate(
        const TokenSpec& spec) const override;
    std::shared_ptr<const SamlToken> AcquireTokenByToken(const SamlToken& token,
                                                         const TokenSpec& spec) const override;
    bool ValidateToken(const SamlToken& token) const override;
    std::shared_ptr<const SamlToken> RenewToken(const SamlToken& token,
                                                long seconds) const override;

    void AcquireTokenAsync(const std::string& user, const std::string& password,
                           const TokenSpec& spec, const TokenCallback& callback) const override;
    void AcquireTokenByGSSAsync(const TokenSpec& spec,
                                const std::shared_ptr<NegotiationHandler>& handler,
                                const TokenCallback& callback) const override;
    void AcquireTokenByCertificateAsync(const TokenSpec& spec,
                                        const TokenCallback& callback) const override;
    void AcquireTokenByTokenAsync(const std::shared_ptr<const SamlToken>& token,
                                  const TokenSpec& spec,
                                  const TokenCallback& callback) const override;
    void ValidateTokenAsync(const std::shared_ptr<const SamlToken>& token,
                            const ValidationCallback& callback) const override;
    void RenewTokenAsync(const std::shared_ptr<const SamlToken>& token, long seconds,
                         const TokenCallback& callback) const override;

  private:
    // A new service sharing this one's components, owned by a queued work item.
    std::shared_ptr<const SecurityTokenService> Copy() const;
    // Sends request over a new session and hands back the reply body.
    Basalt::Ref<Basalt::Reader> Exchange(const SoapRequest& request) const;
    std::shared_ptr<const SamlToken> MakeToken(const std::string& text) const;
    // Sends an issue request and makes the token of its reply.
    std::shared_ptr<const SamlToken> IssueToken(const SoapRequest& request,
                                                bool traceSending) const;

    std::shared_ptr<RequestBuilder> m_requestBuilder;
    std::shared_ptr<Transport> m_transport;
    std::shared_ptr<ResponseHandler> m_responseHandler;
    std::shared_ptr<SamlTokenFactory> m_tokenFactory;
};

}  // namespace SsoClient

#pragma once

#include <basalt/DateTime.h>

#include <memory>

#include <ssoClient/SecurityTokenService.h>

#include "internal/requests/RequestBuilder.h"
#include "internal/service/AsyncCall.h"
#include "internal/service/ResponseHandler.h"
#include "internal/transport/Transport.h"

namespace SsoClient {

// The token service as a pipeline of four immutable components: build the request, send it over
// a new session, interpret the reply, make the token. Holds no per-call state. An asynchronous
// operation works on a copy of the service that shares the components, so it may outlive the
// service it was started from.
class SecurityTokenServiceImpl : public SecurityTokenService,
                                 public std::enable_shared_from_this<SecurityTokenServiceImpl> {
  public:
    // observer (optional) is told of every operation; clock (which must outlive the service)
    // tells the expiry of issued tokens to it.
    SecurityTokenServiceImpl(std::shared_ptr<RequestBuilder> requestBuilder,
                             std::shared_ptr<Transport> transport,
                             std::shared_ptr<ResponseHandler> responseHandler,
                             std::shared_ptr<SamlTokenFactory> tokenFactory,
                             std::shared_ptr<ServiceObserver> observer = nullptr,
                             const Basalt::System::Clock& clock = Basalt::System::SystemClock());

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

    std::shared_ptr<AsyncOperation> AcquireTokenAsync(const std::string& user,
                                                      const std::string& password,
                                                      const TokenSpec& spec,
                                                      const TokenCallback& callback) const override;
    std::shared_ptr<AsyncOperation> AcquireTokenByGSSAsync(
        const TokenSpec& spec, const std::shared_ptr<NegotiationHandler>& handler,
        const TokenCallback& callback) const override;
    std::shared_ptr<AsyncOperation> AcquireTokenByCertificateAsync(
        const TokenSpec& spec, const TokenCallback& callback) const override;
    std::shared_ptr<AsyncOperation> AcquireTokenByTokenAsync(
        const std::shared_ptr<const SamlToken>& token, const TokenSpec& spec,
        const TokenCallback& callback) const override;
    std::shared_ptr<AsyncOperation> ValidateTokenAsync(
        const std::shared_ptr<const SamlToken>& token,
        const ValidationCallback& callback) const override;
    std::shared_ptr<AsyncOperation> RenewTokenAsync(const std::shared_ptr<const SamlToken>& token,
                                                    long seconds,
                                                    const TokenCallback& callback) const override;

  private:
    using TokenCall = AsyncCall<std::shared_ptr<const SamlToken>>;

    // A new service sharing this one's components, owned by an asynchronous operation.
    std::shared_ptr<const SecurityTokenServiceImpl> Copy() const;
    // Sends request over a new session and hands back the reply body.
    Basalt::Ref<Basalt::Reader> Exchange(const SoapRequest& request) const;
    std::shared_ptr<const SamlToken> MakeToken(const std::string& text,
                                               const Observation& observed) const;
    // Sends an issue request and makes the token of its reply.
    std::shared_ptr<const SamlToken> IssueToken(const SoapRequest& request, bool traceSending,
                                                const Observation& observed) const;
    std::shared_ptr<const SamlToken> IssuedToken(Basalt::Reader& reply,
                                                 const Observation& observed) const;
    bool ValidationResult(Basalt::Reader& reply) const;
    // The handler's look at the service's last leg, then the token.
    std::shared_ptr<const SamlToken> NegotiatedToken(NegotiationHandler& handler,
                                                     const NegotiationState& state,
                                                     const Observation& observed) const;
    // The handler's next leg as a request.
    SoapRequest NextLeg(NegotiationHandler& handler, const NegotiationState& state,
                        const TokenSpec& spec) const;

    // Asynchronously: starts an operation whose first step is start (on the pool).
    template <class Result, class Start>
    std::shared_ptr<AsyncOperation> Launch(const char* label,
                                           const typename AsyncCall<Result>::Callback& callback,
                                           Start start) const;
    // Sends an issue request over a new session; the reply becomes the token.
    void IssueAsync(const std::shared_ptr<TokenCall>& call, const SoapRequest& request) const;
    // Sends the next leg of a negotiation, and so on until the token comes.
    void NegotiateAsync(const std::shared_ptr<TokenCall>& call,
                        const std::shared_ptr<TransportSession>& session, const TokenSpec& spec,
                        const std::shared_ptr<NegotiationHandler>& handler,
                        const std::shared_ptr<NegotiationState>& state) const;

    std::shared_ptr<RequestBuilder> m_requestBuilder;
    std::shared_ptr<Transport> m_transport;
    std::shared_ptr<ResponseHandler> m_responseHandler;
    std::shared_ptr<SamlTokenFactory> m_tokenFactory;
    std::shared_ptr<ServiceObserver> m_observer;
    const Basalt::System::Clock& m_clock;
};

}  // namespace SsoClient

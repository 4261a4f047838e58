#include <ssoClient/GssNegotiationContext.h>

#include <ssoClient/SamlTokenFactory.h>

#include "internal/gss/GssNegotiationContextImpl.h"
#include "internal/transport/HttpsClient.h"
#include "internal/transport/PlainHttpGuard.h"

namespace SsoClient {
namespace InternalApi {

namespace {

// How long a leg waits for the service's reply, in microseconds; deliberately shorter than the
// token service's calls.
constexpr int64_t kWaitTimeoutMicros = 40000000;

}  // namespace

GssNegotiationContext::~GssNegotiationContext() = default;

GssNegotiationContextImpl::GssNegotiationContextImpl(
    const TokenSpec& spec, std::shared_ptr<RequestBuilder> requestBuilder,
    std::shared_ptr<TransportSession> session, std::shared_ptr<ResponseHandler> responseHandler,
    Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver> resolver)
    : m_spec(spec),
      m_requestBuilder(std::move(requestBuilder)),
      m_session(std::move(session)),
      m_responseHandler(std::move(responseHandler)),
      m_keyInfoResolver(std::move(resolver)) {}

GssLegResult GssNegotiationContextImpl::Step(const std::vector<unsigned char>& leg) {
    GssLegResult result;
    const SoapRequest request =
        m_contextId.empty() ? m_requestBuilder->BuildAcquireTokenByGSSRequest(leg, m_spec)
                            : m_requestBuilder->BuildContinueNegotiationRequest(m_contextId, leg);
    Basalt::Ref<Basalt::Reader> reply = m_session->SendAndWait(request);
    NegotiationState state;
    m_responseHandler->ExtractNegotiationState(reply.Get(), state);
    // Only a handled reply moves the context; an empty id makes the next leg a first leg again.
    m_contextId = state.contextId;
    result.serverLeg = std::make_shared<std::vector<unsigned char>>(state.serverLeg);
    if (!state.token.empty()) {
        result.token = CreateSamlToken(state.token, m_keyInfoResolver.Get());
    }
    return result;
}

std::shared_ptr<GssNegotiationContext> CreateGssNegotiationContext(
    const SecurityTokenServiceConfig& config, const TokenSpec& spec) {
    auto requestBuilder = std::make_shared<RequestBuilderImpl>(config.holderOfKey);
    // Deliberately without connection reuse, whatever config.connectionFlag says.
    auto client = GuardPlainHttp(
        config, std::make_shared<HttpsClient>(config.url, config.sslContext, config.sslParameter,
                                              kWaitTimeoutMicros, false));
    auto responseHandler = std::make_shared<ResponseHandlerImpl>();
    std::shared_ptr<TransportSession> session = client->CreateSession();
    return std::make_shared<GssNegotiationContextImpl>(spec, requestBuilder, session,
                                                       responseHandler, config.keyInfoResolver);
}

}  // namespace InternalApi
}  // namespace SsoClient

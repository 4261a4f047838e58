#pragma once

#include <memory>
#include <string>
#include <vector>

#include <basalt/Object.h>
#include <basalt/XmlSecurity.h>

#include <ssoClient/GssNegotiationContext.h>
#include <ssoClient/Types.h>

#include "internal/requests/RequestBuilder.h"
#include "internal/service/ResponseHandler.h"
#include "internal/transport/Transport.h"

namespace SsoClient {
namespace InternalApi {

class GssNegotiationContextImpl final : public virtual GssNegotiationContext,
                                        public virtual Basalt::ObjectImpl {
  public:
    GssNegotiationContextImpl(const TokenSpec& spec, std::shared_ptr<RequestBuilder> requestBuilder,
                              std::shared_ptr<TransportSession> session,
                              std::shared_ptr<ResponseHandler> responseHandler,
                              Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver> resolver);

    GssLegResult Step(const std::vector<unsigned char>& leg) override;

  private:
    const TokenSpec m_spec;
    std::string m_contextId;  // the service's latest context; empty before the first leg
    std::shared_ptr<RequestBuilder> m_requestBuilder;
    std::shared_ptr<TransportSession> m_session;
    std::shared_ptr<ResponseHandler> m_responseHandler;
    Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver> m_keyInfoResolver;
};

}  // namespace InternalApi
}  // namespace SsoClient

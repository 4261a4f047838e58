#include <ssoClient/SecurityTokenService.h>

#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/HttpsClient.h"

namespace SsoClient {

namespace {

// How long a call waits for the service's reply, in microseconds.
constexpr int64_t kWaitTimeoutMicros = 240000000;

std::shared_ptr<SecurityTokenService> Assemble(
    const boost::optional<HolderOfKeyConfig>& holderOfKey,
    const std::function<std::shared_ptr<Transport>()>& makeTransport,
    const std::shared_ptr<SamlTokenFactory>& tokenFactory) {
    auto requestBuilder = std::make_shared<RequestBuilderImpl>(holderOfKey);
    std::shared_ptr<Transport> transport = makeTransport();
    auto responseHandler = std::make_shared<ResponseHandlerImpl>();
    return std::make_shared<SecurityTokenServiceImpl>(requestBuilder, transport, responseHandler,
                                                      tokenFactory);
}

// The factory that makes tokens of the service's replies: the configured one, or one over the
// configured resolver.
std::shared_ptr<SamlTokenFactory> RequireTokenFactory(
    const char* record, const std::shared_ptr<SamlTokenFactory>& tokenFactory,
    const Basalt::Xml::Security::KeyInfoResolver* resolver = nullptr) {
    if (tokenFactory) {
        return tokenFactory;
    }
    if (resolver) {
        return CreateSamlTokenFactory(resolver);
    }
    throw Basalt::InvalidArgumentException(std::string(record) +
                                           ".tokenFactory is not set, nor a keyInfoResolver to "
                                           "verify issued tokens with");
}

}  // namespace

NegotiationHandler::~NegotiationHandler() = default;
SecurityTokenService::~SecurityTokenService() = default;

std::shared_ptr<SecurityTokenService> CreateSecurityTokenService(
    const SecurityTokenServiceConfig& config) {
    const auto tokenFactory = RequireTokenFactory("SecurityTokenServiceConfig", config.tokenFactory,
                                                  config.keyInfoResolver.Get());
    return Assemble(
        config.holderOfKey,
        [&] {
            return std::make_shared<HttpsClient>(config.url, config.sslContext, config.sslParameter,
                                                 kWaitTimeoutMicros, config.connectionFlag);
        },
        tokenFactory);
}

std::shared_ptr<SecurityTokenService> CreateSecurityTokenService(
    const SecurityTokenServiceConfigEx& config) {
    const auto tokenFactory =
        RequireTokenFactory("SecurityTokenServiceConfigEx", config.tokenFactory);
    if (!config.userAgent) {
        throw Basalt::InvalidArgumentException("SecurityTokenServiceConfigEx.userAgent is not set");
    }
    return Assemble(
        config.holderOfKey,
        [&] {
            return std::make_shared<HttpsClient>(config.userAgent, config.url, kWaitTimeoutMicros);
        },
        tokenFactory);
}

}  // namespace SsoClient

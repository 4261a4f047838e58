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

}  // namespace

NegotiationHandler::~NegotiationHandler() = default;
SecurityTokenService::~SecurityTokenService() = default;

std::shared_ptr<SecurityTokenService> CreateSecurityTokenService(
    const SecurityTokenServiceConfig& config) {
    return Assemble(
        config.holderOfKey,
        [&] {
            return std::make_shared<HttpsClient>(config.url, config.sslContext, config.sslParameter,
                                                 kWaitTimeoutMicros, config.connectionFlag);
        },
        config.tokenFactory);
}

std::shared_ptr<SecurityTokenService> CreateSecurityTokenService(
    const SecurityTokenServiceConfigEx& config) {
    return Assemble(
        config.holderOfKey,
        [&] {
            return std::make_shared<HttpsClient>(config.userAgent, config.url, kWaitTimeoutMicros);
        },
        config.tokenFactory);
}

}  // namespace SsoClient

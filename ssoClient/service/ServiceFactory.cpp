#include <ssoClient/SecurityTokenService.h>

#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/HttpsClient.h"
#include "internal/transport/LimitedTransport.h"
#include "internal/transport/PlainHttpGuard.h"

namespace SsoClient {

namespace {

// How long a call waits for the service's reply, in microseconds.
constexpr int64_t kWaitTimeoutMicros = 240000000;

std::shared_ptr<SecurityTokenService> Assemble(
    const boost::optional<HolderOfKeyConfig>& holderOfKey,
    const std::function<std::shared_ptr<Transport>()>& makeTransport,
    const std::shared_ptr<SamlTokenFactory>& tokenFactory,
    const std::shared_ptr<ServiceObserver>& observer) {
    auto requestBuilder = std::make_shared<RequestBuilderImpl>(holderOfKey);
    std::shared_ptr<Transport> transport = makeTransport();
    auto responseHandler = std::make_shared<ResponseHandlerImpl>();
    return std::make_shared<SecurityTokenServiceImpl>(requestBuilder, transport, responseHandler,
                                                      tokenFactory, observer);
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

int64_t Micros(const char* record, const char* field, std::chrono::milliseconds duration) {
    if (duration.count() <= 0) {
        throw Basalt::InvalidArgumentException(std::string(record) + ".limits." + field +
                                               " must be positive");
    }
    return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
}

SessionLimits ToSessionLimits(const char* record, const ServiceLimits& limits) {
    SessionLimits session;
    if (limits.connectTimeout) {
        session.connectTimeout = Micros(record, "connectTimeout", *limits.connectTimeout);
    }
    if (limits.deadline) {
        session.deadline = Micros(record, "deadline", *limits.deadline);
    }
    if (const boost::optional<RetryPolicy>& retry = limits.retry) {
        session.baseDelay = Micros(record, "retry.baseDelay", retry->baseDelay);
        session.maxDelay = Micros(record, "retry.maxDelay", retry->maxDelay);
        if (retry->maxAttempts < 1 || session.baseDelay > session.maxDelay) {
            throw Basalt::InvalidArgumentException(
                std::string(record) +
                ".limits.retry needs maxAttempts of at least 1 and baseDelay up to maxDelay");
        }
        session.maxAttempts = retry->maxAttempts;
    }
    return session;
}

// No limits: the client itself, whose sessions try once and wait up to 240 s.
std::shared_ptr<Transport> Limit(const char* record, std::shared_ptr<HttpsClient> client,
                                 const boost::optional<ServiceLimits>& limits,
                                 const std::shared_ptr<ServiceObserver>& observer) {
    if (!limits) {
        return client;
    }
    SessionLimits session = ToSessionLimits(record, *limits);
    session.observer = observer;
    return std::make_shared<LimitedTransport>(client, session, Basalt::System::SystemClock());
}

Basalt::Http::UserAgentOptions AgentOptions(const SecurityTokenServiceConfig& config) {
    Basalt::Http::UserAgentOptions options;
    options.environmentProxy = config.environmentProxy;
    if (config.proxy) {
        if (config.proxy->url.empty()) {
            throw Basalt::InvalidArgumentException(
                "SecurityTokenServiceConfig.proxy.url is not set");
        }
        options.proxyUrl = config.proxy->url;
        options.proxyUser = config.proxy->user;
        options.proxyPassword = config.proxy->password;
        options.noProxy = config.proxy->noProxy;
    }
    return options;
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
            return GuardPlainHttp(
                config, Limit("SecurityTokenServiceConfig",
                              std::make_shared<HttpsClient>(
                                  config.url, config.sslContext, config.sslParameter,
                                  kWaitTimeoutMicros, config.connectionFlag, AgentOptions(config)),
                              config.limits, config.observer));
        },
        tokenFactory, config.observer);
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
            return Limit(
                "SecurityTokenServiceConfigEx",
                std::make_shared<HttpsClient>(config.userAgent, config.url, kWaitTimeoutMicros),
                config.limits, config.observer);
        },
        tokenFactory, config.observer);
}

}  // namespace SsoClient

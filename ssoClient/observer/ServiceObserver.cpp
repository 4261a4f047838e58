#include <ssoClient/Exceptions.h>

#include "internal/observer/Observation.h"

namespace SsoClient {

ServiceObserver::~ServiceObserver() = default;
void ServiceObserver::OperationStarted(const char*) {}
void ServiceObserver::OperationFinished(const char*, std::chrono::microseconds, Outcome) {}
void ServiceObserver::RetryScheduled(int, std::chrono::microseconds) {}
void ServiceObserver::TokenIssued(const char*, std::chrono::seconds) {}
void ServiceObserver::ProviderCacheHit() {}
void ServiceObserver::ProviderRefresh(bool) {}

Outcome ClassifyOutcome(const Basalt::Exception* error) {
    if (!error) {
        return Outcome::Success;
    }
    if (dynamic_cast<const OperationCancelledException*>(error)) {
        return Outcome::Cancelled;
    }
    if (dynamic_cast<const CommunicationException*>(error)) {
        return Outcome::Communication;
    }
    if (dynamic_cast<const InvalidCredentialsException*>(error) ||
        dynamic_cast<const PasswordExpiredException*>(error) ||
        dynamic_cast<const InvalidTokenException*>(error)) {
        return Outcome::Rejected;
    }
    return dynamic_cast<const SsoException*>(error) ? Outcome::Failed : Outcome::Misuse;
}

Observation::Observation(std::shared_ptr<ServiceObserver> observer, const char* operation)
    : m_observer(std::move(observer)), m_operation(operation) {
    if (m_observer) {
        m_start = std::chrono::steady_clock::now();
        m_observer->OperationStarted(m_operation);
    }
}

void Observation::Finished(const Basalt::Exception* error) const {
    if (m_observer) {
        m_observer->OperationFinished(m_operation,
                                      std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now() - m_start),
                                      ClassifyOutcome(error));
    }
}

void Observation::Issued(const SamlToken* token, const Basalt::System::Clock& clock) const {
    if (m_observer && token) {
        const int64_t micros = token->GetExpirationTime().GetUtcTime() - clock.Now().GetUtcTime();
        m_observer->TokenIssued(m_operation, std::chrono::seconds(micros / 1000000));
    }
}

}  // namespace SsoClient

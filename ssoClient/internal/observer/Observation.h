#pragma once

// Reports one operation to a ServiceObserver: its start, its end with duration and outcome, and
// the expiry of the token it obtained. Without an observer it reads no clock and calls nothing.

#include <basalt/DateTime.h>
#include <basalt/Exception.h>

#include <chrono>
#include <memory>

#include <ssoClient/SamlToken.h>
#include <ssoClient/ServiceObserver.h>

namespace SsoClient {

Outcome ClassifyOutcome(const Basalt::Exception* error);

class Observation {
  public:
    // Reports the start at once.
    Observation(std::shared_ptr<ServiceObserver> observer, const char* operation);
    // Reports the end; call once.
    void Finished(const Basalt::Exception* error) const;
    // Reports token's expiry as seen by clock; a null token is not reported.
    void Issued(const SamlToken* token, const Basalt::System::Clock& clock) const;

  private:
    std::shared_ptr<ServiceObserver> m_observer;
    const char* m_operation;
    std::chrono::steady_clock::time_point m_start;
};

}  // namespace SsoClient

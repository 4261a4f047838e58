#pragma once

// Hooks for the host's metrics and tracing: the token service (and a token provider) report what
// they do to the observer set in their configuration. Each hook is called synchronously on the
// thread doing the work, so it must be quick and must not throw; the defaults do nothing. With no
// observer set, nothing is measured.
//
//   class Metrics : public SsoClient::ServiceObserver {
//       void OperationFinished(const char* operation, std::chrono::microseconds took,
//                              SsoClient::Outcome outcome) override {
//           histogram(operation, outcome).Record(took.count());
//       }
//   };
//   config.observer = std::make_shared<Metrics>();

#include <chrono>

#include <ssoClient/Export.h>

namespace SsoClient {

// How an operation ended, by the class of its exception.
enum class Outcome {
    Success,
    Rejected,       // InvalidCredentialsException, PasswordExpiredException, InvalidTokenException
    Communication,  // CommunicationException: the exchange failed, timed out or hit its deadline
    Cancelled,      // OperationCancelledException
    Failed,         // any other SsoException: a fault, an unexpected reply
    Misuse,         // anything else: a bad argument, missing configuration
};

class SSOCLIENT_API ServiceObserver {
  public:
    virtual ~ServiceObserver();
    // An operation began; operation is its name in the trace lines ("AcquireToken",
    // "ValidateSubject", ...). An asynchronous one begins when it is called.
    virtual void OperationStarted(const char* operation);
    // The operation ended, duration after it began; once per started operation, before an
    // asynchronous operation's callback.
    virtual void OperationFinished(const char* operation, std::chrono::microseconds duration,
                                   Outcome outcome);
    // A request failed where trying again is safe; try number attempt follows after pause.
    virtual void RetryScheduled(int attempt, std::chrono::microseconds pause);
    // The operation obtained a token that expires timeToExpiry from now (negative: expired).
    virtual void TokenIssued(const char* operation, std::chrono::seconds timeToExpiry);
    // A token provider handed out its cached token without calling the service.
    virtual void ProviderCacheHit();
    // A token provider asks the service for a fresh token: a renewal of the one it has, or a
    // new acquisition.
    virtual void ProviderRefresh(bool renewal);
};

}  // namespace SsoClient

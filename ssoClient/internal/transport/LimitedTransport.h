#pragma once

// Limits and retries around the HTTPS transport: a deadline over every request of a session (one
// operation, all legs of a GSS negotiation), a connect timeout, and further tries of a request
// that failed where trying again is safe.

#include <basalt/DateTime.h>

#include <cstdint>
#include <memory>

#include "internal/transport/HttpsClient.h"

namespace SsoClient {

// In microseconds; 0 means no limit of that kind.
struct SessionLimits {
    int64_t connectTimeout = 0;
    int64_t deadline = 0;
    int maxAttempts = 1;
    int64_t baseDelay = 0;
    int64_t maxDelay = 0;
};

class LimitedTransport : public Transport {
  public:
    // Reads the time from clock, which must outlive the transport.
    LimitedTransport(std::shared_ptr<const HttpsClient> client, const SessionLimits& limits,
                     const Basalt::System::Clock& clock);

    std::shared_ptr<TransportSession> CreateSession() const override;

  private:
    const std::shared_ptr<const HttpsClient> m_client;
    const SessionLimits m_limits;
    const Basalt::System::Clock& m_clock;
};

// A session whose deadline started when it was made.
class LimitedSession : public TransportSession {
  public:
    LimitedSession(std::shared_ptr<HttpsSession> session, int64_t waitTimeout,
                   const SessionLimits& limits, const Basalt::System::Clock& clock);

    // Throws CommunicationException "deadline of <d> exceeded[ after <n> legs]" when the deadline
    // passes, or the last try's failure.
    Basalt::Ref<Basalt::Reader> SendAndWait(const SoapRequest& request) override;
    // Unlimited: nobody waits on it.
    Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SoapRequest& request, TransportCompletion completion) override;

  private:
    // Of the deadline; negative once passed.
    int64_t Remaining() const;
    // How long the next try may wait; throws once the deadline has passed.
    int64_t TimeLeft() const;
    [[noreturn]] void ThrowDeadline() const;
    // The pause before try number attempt + 1.
    int64_t Pause(int attempt) const;

    const std::shared_ptr<HttpsSession> m_session;
    const int64_t m_waitTimeout;
    const SessionLimits m_limits;
    const Basalt::System::Clock& m_clock;
    const Basalt::System::DateTime m_start;
    int m_legs = 0;  // requests answered so far
};

}  // namespace SsoClient

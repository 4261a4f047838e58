#pragma once

// Limits and retries around the HTTPS transport: a deadline over every request of a session (one
// operation, all legs of a GSS negotiation), a connect timeout, and further tries of a request
// that failed where trying again is safe.

#include <basalt/DateTime.h>

#include <cstdint>
#include <memory>

#include <ssoClient/ServiceObserver.h>

#include "internal/transport/HttpsClient.h"

namespace SsoClient {

// In microseconds; 0 means no limit of that kind.
struct SessionLimits {
    int64_t connectTimeout = 0;
    int64_t deadline = 0;
    int maxAttempts = 1;
    int64_t baseDelay = 0;
    int64_t maxDelay = 0;
    // Told of each retry; may be null.
    std::shared_ptr<ServiceObserver> observer;
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
class LimitedSession : public TransportSession,
                       public std::enable_shared_from_this<LimitedSession> {
  public:
    LimitedSession(std::shared_ptr<HttpsSession> session, int64_t waitTimeout,
                   const SessionLimits& limits, const Basalt::System::Clock& clock);

    // Throws CommunicationException "deadline of <d> exceeded[ after <n> legs]" when the deadline
    // passes, or the last try's failure.
    Basalt::Ref<Basalt::Reader> SendAndWait(const SoapRequest& request) override;
    // The same limits without a waiting thread: a retry is sent again by the pool's timer once
    // its pause has passed. The handle cancels whichever try or pause is current.
    Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SoapRequest& request, TransportCompletion completion) override;

  private:
    class AsyncExchange;

    // How many tries the next request gets.
    int Tries() const;
    // The pause before another try after outcome of try number attempt (which waited timeout),
    // or -1 when outcome is final; throws the deadline's failure when it was the shorter limit.
    int64_t NextPause(const Attempt& outcome, int attempt, int64_t timeout) const;
    CommunicationException DeadlineError() const;
    // Of the deadline; negative once passed.
    int64_t Remaining() const;
    // How long the next try may wait; throws once the deadline has passed.
    int64_t TimeLeft() const;
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

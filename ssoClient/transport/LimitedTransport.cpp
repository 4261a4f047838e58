#include "internal/transport/LimitedTransport.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "internal/FailureNotes.h"

namespace SsoClient {

namespace {

using Basalt::Http::FailureKind;

// Nothing reached the service, or a gateway answered for it.
bool SafeToRetry(const Attempt& attempt) {
    switch (attempt.kind) {
        case FailureKind::Refused:
        case FailureKind::ConnectTimeout:
        case FailureKind::TlsInterrupted:
        case FailureKind::ResetBeforeReply:
            return true;
        default:
            return attempt.status == 502 || attempt.status == 503 || attempt.status == 504;
    }
}

}  // namespace

LimitedTransport::LimitedTransport(std::shared_ptr<const HttpsClient> client,
                                   const SessionLimits& limits, const Basalt::System::Clock& clock)
    : m_client(std::move(client)), m_limits(limits), m_clock(clock) {}

std::shared_ptr<TransportSession> LimitedTransport::CreateSession() const {
    return std::make_shared<LimitedSession>(m_client->CreateHttpsSession(),
                                            m_client->GetWaitTimeout(), m_limits, m_clock);
}

LimitedSession::LimitedSession(std::shared_ptr<HttpsSession> session, int64_t waitTimeout,
                               const SessionLimits& limits, const Basalt::System::Clock& clock)
    : m_session(std::move(session)),
      m_waitTimeout(waitTimeout),
      m_limits(limits),
      m_clock(clock),
      m_start(clock.Now()) {}

Basalt::Ref<Basalt::Reader> LimitedSession::SendAndWait(const SoapRequest& request) {
    // Later legs of a negotiation continue a context the service may have consumed already.
    const int tries = m_legs == 0 ? m_limits.maxAttempts : 1;
    for (int attempt = 1;; ++attempt) {
        const int64_t timeout = TimeLeft();
        Attempt outcome = m_session->Try(request, timeout, m_limits.connectTimeout);
        ThreadFailureNotes().attempts = attempt;
        if (!outcome.failure) {
            ++m_legs;
            return outcome.body;
        }
        if (outcome.kind == FailureKind::TimedOut && timeout < m_waitTimeout) {
            ThrowDeadline();  // the deadline, not the wait, was the shorter limit
        }
        const int64_t pause = Pause(attempt);
        if (attempt >= tries || !SafeToRetry(outcome) ||
            (m_limits.deadline > 0 && pause >= Remaining())) {
            outcome.failure->Throw();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(pause));
    }
}

Basalt::Ref<Basalt::Http::PendingRequestItem> LimitedSession::SendAsync(
    const SoapRequest& request, TransportCompletion completion) {
    return m_session->SendAsync(request, std::move(completion));
}

int64_t LimitedSession::Remaining() const {
    return m_limits.deadline - (m_clock.Now().GetUtcTime() - m_start.GetUtcTime());
}

int64_t LimitedSession::TimeLeft() const {
    if (m_limits.deadline == 0) {
        return m_waitTimeout;
    }
    const int64_t left = Remaining();
    if (left <= 0) {
        ThrowDeadline();
    }
    return std::min(left, m_waitTimeout);
}

void LimitedSession::ThrowDeadline() const {
    const std::string legs =
        m_legs == 0 ? "" : " after " + std::to_string(m_legs) + (m_legs == 1 ? " leg" : " legs");
    throw CommunicationException(
        "deadline of " + Basalt::System::DescribeDuration(m_limits.deadline) + " exceeded" + legs);
}

int64_t LimitedSession::Pause(int attempt) const {
    // Jittered, so that clients failed together do not come back together.
    thread_local std::minstd_rand random(std::random_device{}());
    const int64_t ceiling =
        std::min(m_limits.maxDelay, m_limits.baseDelay << std::min(attempt - 1, 30));
    return ceiling / 2 + std::uniform_int_distribution<int64_t>(0, ceiling / 2)(random);
}

}  // namespace SsoClient

#include "internal/transport/LimitedTransport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>

#include <basalt/Thread.h>

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

int LimitedSession::Tries() const {
    // Later legs of a negotiation continue a context the service may have consumed already.
    return m_legs == 0 ? m_limits.maxAttempts : 1;
}

int64_t LimitedSession::NextPause(const Attempt& outcome, int attempt, int64_t timeout) const {
    if (outcome.kind == FailureKind::TimedOut && timeout < m_waitTimeout) {
        throw DeadlineError();  // the deadline, not the wait, was the shorter limit
    }
    const int64_t pause = Pause(attempt);
    if (attempt >= Tries() || !SafeToRetry(outcome) ||
        (m_limits.deadline > 0 && pause >= Remaining())) {
        return -1;
    }
    if (m_limits.observer) {
        m_limits.observer->RetryScheduled(attempt + 1, std::chrono::microseconds(pause));
    }
    return pause;
}

Basalt::Ref<Basalt::Reader> LimitedSession::SendAndWait(const SoapRequest& request) {
    for (int attempt = 1;; ++attempt) {
        const int64_t timeout = TimeLeft();
        Attempt outcome = m_session->Try(request, timeout, m_limits.connectTimeout);
        ThreadFailureNotes().attempts = attempt;
        if (!outcome.failure) {
            ++m_legs;
            return outcome.body;
        }
        const int64_t pause = NextPause(outcome, attempt, timeout);
        if (pause < 0) {
            outcome.failure->Throw();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(pause));
    }
}

// One request's tries: each is sent from the HTTP thread's completion of the last or from the
// pool's timer, so no thread waits through a pause. Reports to the completion exactly once.
class LimitedSession::AsyncExchange : public Basalt::ObjectImpl,
                                      public Basalt::Http::PendingRequestItem {
  public:
    AsyncExchange(std::shared_ptr<LimitedSession> session, SoapRequest request,
                  TransportCompletion completion)
        : m_session(std::move(session)),
          m_request(std::move(request)),
          m_completion(std::move(completion)) {}

    // Sends try number attempt.
    void Send(int attempt) {
        int64_t timeout = 0;
        try {
            timeout = m_session->TimeLeft();
        } catch (const CommunicationException& deadline) {
            return Complete(&deadline, nullptr, m_lastNotes, attempt - 1);
        }
        Basalt::Ref<AsyncExchange> self(this);
        Basalt::Ref<Basalt::Http::PendingRequestItem> pending =
            m_session->m_session->TryAsync(m_request, timeout, m_session->m_limits.connectTimeout,
                                           [self, attempt, timeout](Attempt& outcome) {
                                               self->Conclude(outcome, attempt, timeout);
                                           });
        std::lock_guard<std::mutex> lock(m_mutex);
        m_current = pending;
        if (m_cancelled) {
            pending->Cancel();
        }
    }

    bool IsDone() const override { return m_done; }
    void Cancel() override {
        Basalt::Ref<Basalt::Http::PendingRequestItem> current;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_cancelled = true;
            current = m_current;
        }
        if (current) {
            current->Cancel();
        }
    }

  private:
    // On the HTTP thread.
    void Conclude(Attempt& outcome, int attempt, int64_t timeout) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_current = nullptr;  // it holds this exchange's completion, so this exchange
        }
        const FailureNotes notes = ThreadFailureNotes();
        if (!outcome.failure) {
            ++m_session->m_legs;
            return Complete(nullptr, outcome.body.Get(), notes, attempt);
        }
        int64_t pause = -1;
        try {
            pause = m_session->NextPause(outcome, attempt, timeout);
        } catch (const CommunicationException& deadline) {
            return Complete(&deadline, nullptr, notes, attempt);
        }
        if (pause < 0 || Cancelled()) {
            return Complete(outcome.failure.get(), nullptr, notes, attempt);
        }
        m_lastNotes = notes;  // read by the next try, which the timer sends after this
        Basalt::Ref<AsyncExchange> self(this);
        Basalt::System::GetThreadPool()->GetWorkQueue()->PostAfter(pause, [self, attempt] {
            self->Cancelled() ? self->Abandon() : self->Send(attempt + 1);
        });
    }

    bool Cancelled() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_cancelled;
    }

    void Abandon() {
        const CommunicationException cancelled("Request cancelled");
        Complete(&cancelled, nullptr, m_lastNotes, 0);
    }

    void Complete(const Basalt::Exception* error, Basalt::Reader* body, FailureNotes notes,
                  int attempts) {
        notes.attempts = attempts;
        ThreadFailureNotes() = notes;
        m_done = true;
        m_completion(error, body);
    }

    const std::shared_ptr<LimitedSession> m_session;
    const SoapRequest m_request;
    const TransportCompletion m_completion;
    mutable std::mutex m_mutex;
    bool m_cancelled = false;
    Basalt::Ref<Basalt::Http::PendingRequestItem> m_current;
    std::atomic<bool> m_done{false};
    FailureNotes m_lastNotes;  // of the last try
};

Basalt::Ref<Basalt::Http::PendingRequestItem> LimitedSession::SendAsync(
    const SoapRequest& request, TransportCompletion completion) {
    Basalt::Ref<AsyncExchange> exchange(
        new AsyncExchange(shared_from_this(), request, std::move(completion)));
    exchange->Send(1);
    return exchange;
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
        throw DeadlineError();
    }
    return std::min(left, m_waitTimeout);
}

CommunicationException LimitedSession::DeadlineError() const {
    const std::string legs =
        m_legs == 0 ? "" : " after " + std::to_string(m_legs) + (m_legs == 1 ? " leg" : " legs");
    return CommunicationException(
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

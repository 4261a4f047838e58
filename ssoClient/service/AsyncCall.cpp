#include "internal/service/AsyncCall.h"

#include <basalt/Log.h>
#include <basalt/Thread.h>

#include "internal/Logger.h"

namespace SsoClient {

AsyncOperation::~AsyncOperation() = default;

namespace {

// Queues work on the pool; once the pool has stopped (the process is exiting), runs it here so
// that the callback is still called.
void OnPool(std::function<void()> work) {
    try {
        Basalt::System::GetThreadPool()->GetWorkQueue()->Post(work);
    } catch (const Basalt::InvalidStateException&) {
        work();
    }
}

// Whether the step running on this thread has produced its operation's result.
thread_local bool t_stepSucceeded = false;

}  // namespace

void AsyncCallBase::SetSucceeded() {
    t_stepSucceeded = true;
}

void LogFailure(const char* label, const Basalt::Exception& error) {
    using Level = Basalt::Service::Logger;
    if (GetLogger()->IsEnabled(Level::LL_Warning)) {
        const std::string notes = ThreadFailureNotes().Describe();
        Basalt::Service::LogInternal(
            GetLogger(), Level::LL_Warning, "SecurityTokenServiceImpl::%1 failed %2",
            Basalt::PrintFormatter(label),
            Basalt::PrintFormatter("(" + Basalt::DemangledName(typeid(error)) + ")" +
                                   (notes.empty() ? "" : ": " + notes)));
    }
}

AsyncCallBase::AsyncCallBase(const char* label, std::shared_ptr<ServiceObserver> observer)
    : m_label(label), m_observation(std::move(observer), label) {}

AsyncCallBase::~AsyncCallBase() = default;

bool AsyncCallBase::Claim() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return !std::exchange(m_claimed, true);
}

bool AsyncCallBase::IsDone() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_claimed;
}

void AsyncCallBase::Cancel() {
    Basalt::Ref<Basalt::Http::PendingRequestItem> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_claimed) {
            return;
        }
        m_claimed = true;  // decided now: a reply arriving meanwhile is dropped
        pending = std::move(m_pending);
    }
    if (pending) {
        pending->Cancel();
    }
    auto self = shared_from_this();
    try {
        OnPool([self] {
            ThreadFailureNotes() = FailureNotes();
            const OperationCancelledException cancelled("Operation cancelled");
            LogFailure(self->m_label, cancelled);
            self->DeliverFailure(&cancelled);
        });
    } catch (...) {
        // Out of memory; Cancel never throws. The callback has no other way to run.
    }
}

void AsyncCallBase::Fail(const std::exception_ptr& failure) {
    if (Claim()) {
        ReportFailure(failure, [&](const Basalt::Exception* error) {
            LogFailure(m_label, *error);
            DeliverFailure(error);
        });
    }
}

void AsyncCallBase::Run(std::function<void()> step, FailureNotes notes) {
    auto self = shared_from_this();
    OnPool([self, step = std::move(step), notes = std::move(notes)] {
        if (self->IsDone()) {
            return;  // cancelled
        }
        ThreadFailureNotes() = notes;
        t_stepSucceeded = false;
        std::exception_ptr failure;
        try {
            step();
        } catch (...) {
            failure = std::current_exception();
        }
        // Outside the try: what the callback throws is the pool's to handle, as a work item's.
        if (failure) {
            self->Fail(failure);
        } else if (t_stepSucceeded && self->Claim()) {
            self->DeliverResult();
        }
    });
}

void AsyncCallBase::Send(const std::shared_ptr<TransportSession>& session,
                         const SoapRequest& request, OnReply onReply) {
    int sent = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_claimed) {
            return;
        }
        sent = ++m_sent;
    }
    auto self = shared_from_this();
    Basalt::Ref<Basalt::Http::PendingRequestItem> pending =
        session->SendAsync(request, [self, session, onReply = std::move(onReply)](
                                        const Basalt::Exception* error, Basalt::Reader* body) {
            // On the HTTP thread, which must not block: the reply is handled on the pool.
            {
                std::lock_guard<std::mutex> lock(self->m_mutex);
                ++self->m_answered;
                self->m_pending = nullptr;  // it holds this completion, so this operation
            }
            std::shared_ptr<Basalt::Exception> failure(error ? error->Clone() : nullptr);
            Basalt::Ref<Basalt::Reader> reply(body);
            self->Run(
                [failure, reply, onReply] {
                    if (failure) {
                        failure->Throw();
                    }
                    onReply(*reply);
                },
                ThreadFailureNotes());
        });
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_claimed) {
            if (m_answered < sent) {
                m_pending = pending;
            }
            return;
        }
    }
    if (pending) {
        pending->Cancel();  // cancelled while it was being sent
    }
}

std::shared_ptr<AsyncOperation> RunBlocking(
    const char* label, std::function<std::shared_ptr<const SamlToken>()> acquire,
    const TokenCallback& callback) {
    auto call =
        std::make_shared<AsyncCall<std::shared_ptr<const SamlToken>>>(label, nullptr, callback);
    call->Run([call, acquire = std::move(acquire)] { call->Succeed(acquire()); });
    return call;
}

}  // namespace SsoClient

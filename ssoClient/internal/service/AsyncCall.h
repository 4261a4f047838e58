#pragma once

// The machinery of the token service's asynchronous operations. An operation is a chain of steps
// on the foundation's thread pool (build a request, handle a reply, make the token); between them
// the request travels with the session's asynchronous send, so no thread waits on the network and
// a server that never answers delays only its own calls.

#include <basalt/Exception.h>
#include <basalt/Http.h>
#include <basalt/IO.h>

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <ssoClient/AsyncOperation.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>

#include "internal/FailureNotes.h"
#include "internal/observer/Observation.h"
#include "internal/transport/Transport.h"

namespace SsoClient {

// Hands report the library exception that failure holds, or an SsoException naming any other,
// so that a callback sees every failure, and sees it as one of the library's.
template <class Report>
void ReportFailure(const std::exception_ptr& failure, const Report& report) {
    try {
        std::rethrow_exception(failure);
    } catch (const Basalt::Exception& e) {
        report(&e);
    } catch (const std::exception& e) {
        const SsoException wrapped(std::string("Unexpected exception: ") + e.what());
        report(&wrapped);
    } catch (...) {
        const SsoException wrapped("Unexpected exception of unknown type");
        report(&wrapped);
    }
}

// The warning line of a failed operation, with what this thread's failure notes hold.
void LogFailure(const char* label, const Basalt::Exception& error);

// One asynchronous operation: its steps, its exchange in flight, and its single report.
class AsyncCallBase : public AsyncOperation, public std::enable_shared_from_this<AsyncCallBase> {
  public:
    // Handles a reply on the pool; sends the next request or succeeds.
    using OnReply = std::function<void(Basalt::Reader& reply)>;

    // Reports the start to observer (which may be null).
    AsyncCallBase(const char* label, std::shared_ptr<ServiceObserver> observer);

    void Cancel() override;
    bool IsDone() const override;

    // Runs step on the pool with notes as the thread's failure notes. Whatever step throws fails
    // the operation; a result it set is delivered once it has returned.
    void Run(std::function<void()> step, FailureNotes notes = FailureNotes());
    // Sends request over session (which the exchange keeps) and runs onReply with the reply.
    void Send(const std::shared_ptr<TransportSession>& session, const SoapRequest& request,
              OnReply onReply);

    const char* Label() const { return m_label; }
    const Observation& Observed() const { return m_observation; }

  protected:
    ~AsyncCallBase() override;
    // Called by the step that produced the result, on its thread (the next step may already
    // run on another).
    static void SetSucceeded();

  private:
    virtual void DeliverResult() = 0;
    virtual void DeliverFailure(const Basalt::Exception* error) = 0;
    // Whether this caller is the one to report; true once.
    bool Claim();
    void Fail(const std::exception_ptr& failure);

    const char* const m_label;
    const Observation m_observation;
    mutable std::mutex m_mutex;
    bool m_claimed = false;
    Basalt::Ref<Basalt::Http::PendingRequestItem> m_pending;
    int m_sent = 0;  // requests sent, and answered (the pending handle is kept only meanwhile)
    int m_answered = 0;
};

// An operation whose callback receives a Result: the token, or the validation verdict.
template <class Result>
class AsyncCall final : public AsyncCallBase {
  public:
    using Callback = std::function<void(const Result&, const Basalt::Exception*)>;

    AsyncCall(const char* label, std::shared_ptr<ServiceObserver> observer, Callback callback)
        : AsyncCallBase(label, std::move(observer)), m_callback(std::move(callback)) {}

    // From a step: the operation's result, delivered when the step returns.
    void Succeed(Result result) {
        m_result = std::move(result);
        SetSucceeded();
    }

  private:
    void DeliverResult() override {
        Observed().Finished(nullptr);
        m_callback(m_result, nullptr);
    }
    void DeliverFailure(const Basalt::Exception* error) override {
        Observed().Finished(error);
        m_callback(Result(), error);
    }

    const Callback m_callback;
    Result m_result = Result();
};

// An operation whose one step is the blocking acquire, for acquisitions that have no asynchronous
// form: it holds a pool thread while acquire runs. Cancelling it drops the token acquire returns.
std::shared_ptr<AsyncOperation> RunBlocking(
    const char* label, std::function<std::shared_ptr<const SamlToken>()> acquire,
    const TokenCallback& callback);

}  // namespace SsoClient

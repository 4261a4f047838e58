#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <type_traits>

#include <basalt/Object.h>

namespace Basalt {
namespace System {

// A unit of work that a work queue runs once.
class BASALT_API ScheduledItem : public virtual Object {
  public:
    virtual void Run() = 0;

  protected:
    ~ScheduledItem() override;
};

// A scheduled item that can be called off before it starts.
class BASALT_API CancellableItem : public virtual ScheduledItem {
  public:
    // Prevents the item from running; returns false if it already ran, is running or was
    // cancelled before.
    virtual bool Cancel() = 0;
    virtual bool IsCancelled() const = 0;

  protected:
    ~CancellableItem() override;
};

// Implements CancellableItem over Base (normally ObjectImpl): Run() calls Execute() unless the
// item was cancelled first, and at most once.
template <class Base>
class ScheduledItemMixin : public Base, public virtual CancellableItem {
  public:
    void Run() final {
        int expected = kPending;
        if (m_state.compare_exchange_strong(expected, kStarted)) {
            Execute();
        }
    }
    bool Cancel() final {
        int expected = kPending;
        return m_state.compare_exchange_strong(expected, kCancelled);
    }
    bool IsCancelled() const final { return m_state.load() == kCancelled; }

  protected:
    ScheduledItemMixin() = default;
    ~ScheduledItemMixin() override = default;
    // The work itself.
    virtual void Execute() = 0;

  private:
    enum { kPending, kStarted, kCancelled };
    std::atomic<int> m_state{kPending};
};

// Handles an exception that escaped a work item; called on the pool thread.
using UnhandledExceptionHandler = std::function<void(std::exception_ptr)>;

// A queue whose items run on the threads of a pool, in no guaranteed order.
class BASALT_API WorkQueue : public virtual Object {
  public:
    // Queues the item; the queue keeps a reference until it has run.
    virtual void Enqueue(const Ref<ScheduledItem>& item) = 0;
    // Queues a callable. An exception escaping it goes to the pool's unhandled-exception
    // handler (by default logged on the "Basalt" logger at error level); the pool carries on.
    virtual void Post(std::function<void()> work) = 0;
    // Queues a callable to run once delay microseconds have passed. No thread waits meanwhile:
    // the pool's timer holds it. Shutdown waits for it to come due and run.
    virtual void PostAfter(int64_t delay, std::function<void()> work) = 0;

    // Queues a callable and returns a future for its result; an exception from the callable
    // is delivered through the future.
    template <class F>
    auto Submit(F work) -> std::future<std::invoke_result_t<F>> {
        using Result = std::invoke_result_t<F>;
        auto task = std::make_shared<std::packaged_task<Result()>>(std::move(work));
        std::future<Result> result = task->get_future();
        Post([task] { (*task)(); });
        return result;
    }

  protected:
    ~WorkQueue() override;
};

// A fixed set of worker threads serving one work queue.
class BASALT_API ThreadPool : public virtual Object {
  public:
    virtual WorkQueue* GetWorkQueue() = 0;
    virtual size_t GetThreadCount() const = 0;
    // Replaces the unhandled-exception handler; an empty handler restores the default.
    virtual void SetUnhandledExceptionHandler(UnhandledExceptionHandler handler) = 0;
    // Waits for all queued work to finish and stops the threads; later posts throw
    // InvalidStateException.
    virtual void Shutdown() = 0;

  protected:
    ~ThreadPool() override;
};

// Process-wide factory of system objects.
class BASALT_API SystemFactory {
  public:
    static SystemFactory& Instance();
    // A new pool with threadCount workers (at least one).
    void CreateThreadPool(size_t threadCount, Ref<ThreadPool>& pool);

  private:
    SystemFactory() = default;
};

// The process-wide pool, started on first use with one thread per core (at least two). It lives
// until the process exits, when it finishes the work already queued.
BASALT_API ThreadPool* GetThreadPool();

}  // namespace System

// Ends the process on a broken internal invariant: formats the printf-style message, logs it on
// the "Basalt" logger, writes it to standard error and aborts.
[[noreturn]] BASALT_API void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace Basalt

#include <basalt/Thread.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/Log.h>
#include "internal/system/ExitHooks.h"
#include "internal/system/FoundationLog.h"
#include "internal/system/Immortal.h"

namespace Basalt {
namespace System {

ScheduledItem::~ScheduledItem() = default;
CancellableItem::~CancellableItem() = default;
WorkQueue::~WorkQueue() = default;
ThreadPool::~ThreadPool() = default;

namespace {

void LogUnhandled(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        Service::LogInternal(FoundationLogger(), Service::Logger::LL_Error,
                             "Unhandled exception in a work item: %1", PrintFormatter(e.what()));
    } catch (...) {
        Service::LogInternal(FoundationLogger(), Service::Logger::LL_Error,
                             "Unhandled exception of unknown type in a work item");
    }
}

class ThreadPoolImpl final : public ObjectImpl, public ThreadPool, public WorkQueue {
  public:
    explicit ThreadPoolImpl(size_t threadCount)
        : m_threadCount(std::max<size_t>(threadCount, 1)), m_pool(m_threadCount) {}
    ~ThreadPoolImpl() override { Shutdown(); }

    WorkQueue* GetWorkQueue() override { return this; }
    size_t GetThreadCount() const override { return m_threadCount; }

    void SetUnhandledExceptionHandler(UnhandledExceptionHandler handler) override {
        auto replacement =
            handler ? std::make_shared<const UnhandledExceptionHandler>(std::move(handler))
                    : nullptr;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_handler = std::move(replacement);
    }

    void Enqueue(const Ref<ScheduledItem>& item) override {
        if (!item) {
            throw InvalidArgumentException("WorkQueue::Enqueue: null item");
        }
        Post([item] { item->Run(); });
    }

    void Post(std::function<void()> work) override {
        if (!work) {
            throw InvalidArgumentException("WorkQueue::Post: empty callable");
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped) {
            throw InvalidStateException("The thread pool has been shut down");
        }
        // The pool object outlives its queued work: Shutdown() joins before it goes.
        boost::asio::post(m_pool, [this, work = std::move(work)] { RunGuarded(work); });
    }

    void PostAfter(int64_t delay, std::function<void()> work) override {
        if (!work) {
            throw InvalidArgumentException("WorkQueue::PostAfter: empty callable");
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped) {
            throw InvalidStateException("The thread pool has been shut down");
        }
        auto timer = std::make_shared<boost::asio::steady_timer>(
            m_pool, std::chrono::microseconds(std::max<int64_t>(delay, 0)));
        timer->async_wait([this, timer, work = std::move(work)](const boost::system::error_code&) {
            RunGuarded(work);
        });
    }

    void Shutdown() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopped) {
                return;
            }
            m_stopped = true;
        }
        m_pool.join();
    }

  private:
    void RunGuarded(const std::function<void()>& work) {
        try {
            work();
        } catch (...) {
            std::shared_ptr<const UnhandledExceptionHandler> handler;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                handler = m_handler;
            }
            try {
                handler ? (*handler)(std::current_exception())
                        : LogUnhandled(std::current_exception());
            } catch (...) {
                // The handler itself failed; the worker must survive it.
            }
        }
    }

    const size_t m_threadCount;
    boost::asio::thread_pool m_pool;
    std::mutex m_mutex;
    bool m_stopped = false;
    std::shared_ptr<const UnhandledExceptionHandler> m_handler;
};

}  // namespace

SystemFactory& SystemFactory::Instance() {
    static SystemFactory factory;
    return factory;
}

void SystemFactory::CreateThreadPool(size_t threadCount, Ref<ThreadPool>& pool) {
    pool = new ThreadPoolImpl(threadCount);
}

namespace {

struct ExitHooks {
    std::mutex mutex;
    std::vector<void (*)()> hooks;
    bool exiting = false;
};

// Immortal: a hook may be registered from any thread at any time, even during exit.
ExitHooks& Hooks() {
    static Immortal<ExitHooks> hooks;
    return *hooks;
}

// The process-wide pool. At exit it first runs the exit hooks, then finishes the queued work and
// joins; everything that work can reach was built before it or is immortal.
struct ProcessPool {
    Ref<ThreadPool> pool;
    ProcessPool() {
        SystemFactory::Instance().CreateThreadPool(
            std::max(2u, std::thread::hardware_concurrency()), pool);
    }
    ~ProcessPool() {
        std::vector<void (*)()> hooks;
        {
            std::lock_guard<std::mutex> lock(Hooks().mutex);
            hooks.swap(Hooks().hooks);
            Hooks().exiting = true;
        }
        for (void (*hook)() : hooks) {
            hook();
        }
        pool->Shutdown();
    }
};

}  // namespace

bool AtPoolExit(void (*hook)()) {
    std::lock_guard<std::mutex> lock(Hooks().mutex);
    if (Hooks().exiting) {
        return false;
    }
    Hooks().hooks.push_back(hook);
    return true;
}

ThreadPool* GetThreadPool() {
    static ProcessPool process;
    return process.pool.Get();
}

}  // namespace System

void Panic(const char* format, ...) {
    char message[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    Service::LogInternal(FoundationLogger(), Service::Logger::LL_Emergency, "PANIC: %1",
                         PrintFormatter(static_cast<const char*>(message)));
    std::fprintf(stderr, "PANIC: %s", message);
    std::fflush(stderr);
    std::abort();
}

}  // namespace Basalt

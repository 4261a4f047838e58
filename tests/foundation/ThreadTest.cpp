#include <basalt/Exception.h>
#include <basalt/Thread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "support/ExpectThrow.h"

namespace {

using namespace Basalt::System;

class CountingItem : public ScheduledItemMixin<Basalt::ObjectImpl> {
  public:
    explicit CountingItem(std::atomic<int>& runs) : m_runs(runs) {}

  protected:
    void Execute() override { ++m_runs; }

  private:
    std::atomic<int>& m_runs;
};

TEST(ThreadPoolTest, RunsEveryPostedCallableAndItemOnceUnlessCancelled) {
    Basalt::Ref<ThreadPool> pool;
    SystemFactory::Instance().CreateThreadPool(3, pool);
    EXPECT_EQ(pool->GetThreadCount(), 3u);
    std::atomic<int> calls{0}, runs{0};
    for (int i = 0; i < 500; ++i) {
        pool->GetWorkQueue()->Post([&] { ++calls; });
        pool->GetWorkQueue()->Enqueue(Basalt::Ref<ScheduledItem>(new CountingItem(runs)));
    }
    pool->Shutdown();  // waits for queued work
    EXPECT_EQ(calls, 500);
    EXPECT_EQ(runs, 500);
    EXPECT_THROW(pool->GetWorkQueue()->Post([] {}), Basalt::InvalidStateException);

    Basalt::Ref<CountingItem> cancelled(new CountingItem(runs)), item(new CountingItem(runs));
    EXPECT_TRUE(cancelled->Cancel());
    EXPECT_FALSE(cancelled->Cancel());
    cancelled->Run();
    item->Run();
    item->Run();
    EXPECT_EQ(runs, 501);
    EXPECT_FALSE(item->Cancel());
}

TEST(ThreadPoolTest, SubmitAndHandlerSurfaceExceptionsAndThePoolCarriesOn) {
    Basalt::Ref<ThreadPool> pool;
    SystemFactory::Instance().CreateThreadPool(1, pool);
    WorkQueue* queue = pool->GetWorkQueue();
    std::promise<std::string> seen;
    pool->SetUnhandledExceptionHandler([&](std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            seen.set_value(e.what());
        }
    });
    queue->Post([] { throw std::runtime_error("escaped"); });
    auto failing = queue->Submit([]() -> int { throw Basalt::InvalidStateException("no config"); });
    EXPECT_TRUE(
        TestSupport::Throws<Basalt::InvalidStateException>([&] { failing.get(); }, "no config"));
    EXPECT_EQ(queue->Submit([] { return 6 * 7; }).get(), 42);  // still serving
    EXPECT_EQ(seen.get_future().get(), "escaped");
    EXPECT_THROW(queue->Post({}), Basalt::InvalidArgumentException);
    EXPECT_THROW(queue->Enqueue(nullptr), Basalt::InvalidArgumentException);
}

}  // namespace

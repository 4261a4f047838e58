#include <basalt/Object.h>
#include <basalt/WeakLink.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_destroyed{0};

template <class Base>
class Counted : public Base {
  public:
    ~Counted() override { ++g_destroyed; }
    int value = 42;
};
using Plain = Counted<Basalt::ObjectImpl>;
using Linkable = Counted<Basalt::WeakLinkableImpl<Basalt::ObjectImpl>>;

class ObjectTest : public ::testing::Test {
  protected:
    void SetUp() override { g_destroyed = 0; }
};

TEST_F(ObjectTest, LastReferenceDestroysExactlyOnce) {
    Basalt::Ref<Plain> a(new Plain);
    {
        Basalt::Ref<Plain> b = a;
        Basalt::Ref<Basalt::Object> asBase = b;
        Basalt::Ref<Plain> moved = std::move(b);
        EXPECT_FALSE(b);
        EXPECT_EQ(a->GetRefCount(), 3);
        Basalt::Ref<Plain>& alias = a;
        a = alias;
        EXPECT_EQ(a->GetRefCount(), 3);
    }
    EXPECT_EQ(g_destroyed, 0);
    a = new Plain;
    EXPECT_EQ(g_destroyed, 1);
    a.Reset();
    EXPECT_EQ(g_destroyed, 2);
}

TEST_F(ObjectTest, ConcurrentCopiesDestroyOnce) {
    Basalt::Ref<Plain> shared(new Plain);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([copy = shared]() mutable {
            for (int i = 0; i < 10000; ++i) {
                Basalt::Ref<Plain> local = copy;
                copy = local;
            }
        });
    }
    shared = nullptr;
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(g_destroyed, 1);
}

TEST_F(ObjectTest, WeakLinkLocksWhileAliveAndNotAfter) {
    Basalt::Ref<Linkable> object(new Linkable);
    Basalt::Ref<Basalt::WeakLink> link, again;
    object->AttachWeakRef(link);
    object->AttachWeakRef(again);
    EXPECT_EQ(link, again);
    EXPECT_TRUE(object->HasLink(link.Get()));
    Basalt::Ref<Linkable> locked = link->LockAs<Linkable>();
    ASSERT_TRUE(locked);
    EXPECT_EQ(locked->value, 42);
    EXPECT_EQ(object->GetRefCount(), 2);
    locked.Reset();
    object.Reset();
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_FALSE(link->IsAlive());
    EXPECT_FALSE(link->Lock());
}

TEST_F(ObjectTest, WeakLinkRacingWithLastReleaseNeverRevivesTheObject) {
    for (int round = 0; round < 200; ++round) {
        Basalt::Ref<Linkable> object(new Linkable);
        Basalt::Ref<Basalt::WeakLink> link;
        object->AttachWeakRef(link);
        std::atomic<bool> go{false};
        std::thread locker([&] {
            while (!go) {
            }
            for (int i = 0; i < 100; ++i) {
                if (Basalt::Ref<Linkable> strong = link->LockAs<Linkable>()) {
                    EXPECT_EQ(strong->value, 42);  // never a destroyed object
                }
            }
        });
        go = true;
        object.Reset();
        locker.join();
        EXPECT_FALSE(link->Lock());
    }
    EXPECT_EQ(g_destroyed, 200);
}

}  // namespace

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
        Basalt::Ref<Basalt::Object> asBase = a;
        Basalt::Ref<Plain> copy = a, moved = std::move(copy);
        Basalt::Ref<Plain>& alias = a;
        a = alias;
        EXPECT_EQ(a->GetRefCount() * 10 + bool(copy), 30);
    }
    a = new Plain;
    EXPECT_EQ(g_destroyed, 1);
    a.Reset();
    EXPECT_EQ(g_destroyed, 2);
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
    EXPECT_FALSE(link->IsAlive() || link->Lock());
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

#include <basalt/Object.h>
#include <basalt/WeakLink.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

std::atomic<int> g_destroyed{0};

class Linkable : public Basalt::WeakLinkableImpl<Basalt::ObjectImpl> {
  public:
    ~Linkable() override { ++g_destroyed; }
    int value = 42;
};

// Reference counting itself is exercised by every test under the leak checker; the weak link is
// what needs its own cases.
TEST(ObjectTest, WeakLinkLocksWhileAliveAndNeverRevivesTheObject) {
    g_destroyed = 0;
    Basalt::Ref<Linkable> object(new Linkable);
    Basalt::Ref<Basalt::WeakLink> link, again;
    object->AttachWeakRef(link);
    object->AttachWeakRef(again);
    EXPECT_EQ(link, again);
    EXPECT_TRUE(object->HasLink(link.Get()));
    EXPECT_EQ(link->LockAs<Linkable>()->value, 42);
    EXPECT_EQ(object->GetRefCount(), 1);  // the lock above was released
    object.Reset();
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_FALSE(link->IsAlive() || link->Lock());
    // The last release racing with a lock on another thread.
    for (int round = 0; round < 200; ++round) {
        object = new Linkable;
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
    EXPECT_EQ(g_destroyed, 201);
}

}  // namespace

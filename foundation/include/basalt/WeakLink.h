#pragma once

#include <memory>
#include <mutex>

#include <basalt/Object.h>

namespace Basalt {

class WeakLinkableImplPrivate;

// A link that names an object without keeping it alive. Lock() yields a strong reference while
// the object lives and a null one once its last strong reference has gone.
class BASALT_API WeakLink : public ObjectImpl {
  public:
    // Returns a strong reference to the target, or null if it has been destroyed.
    Ref<Object> Lock() const;
    // As Lock(), down-cast to T; null if the target is gone or is not a T.
    template <class T>
    Ref<T> LockAs() const {
        Ref<Object> strong = Lock();
        return Ref<T>(dynamic_cast<T*>(strong.Get()));
    }
    // True while the target has not been destroyed (it may still go at any moment).
    bool IsAlive() const;

  private:
    friend class WeakLinkableImplPrivate;
    WeakLink(ObjectImpl* target, RefCount* count) : m_target(target), m_count(count) {}
    void Clear();

    mutable std::mutex m_mutex;
    ObjectImpl* m_target;
    RefCount* m_count;
};

// Interface of objects that can be reached through weak links.
class BASALT_API WeakLinkable : public virtual Object {
  public:
    // Fills link with this object's weak link (the same link on every call).
    virtual void AttachWeakRef(Ref<WeakLink>& link) const = 0;
    // True if link is this object's weak link.
    virtual bool HasLink(const WeakLink* link) const = 0;

  protected:
    ~WeakLinkable() override;
};

// State behind WeakLinkableImpl: the lazily created link, cleared before the object is destroyed.
class BASALT_API WeakLinkableImplPrivate {
  public:
    WeakLinkableImplPrivate();
    ~WeakLinkableImplPrivate();
    WeakLinkableImplPrivate(const WeakLinkableImplPrivate&) = delete;
    WeakLinkableImplPrivate& operator=(const WeakLinkableImplPrivate&) = delete;

    // Records the object whose strong count the link guards.
    void Init(ObjectImpl* owner);
    // Fills link with the (lazily created) weak link.
    void GetLink(Ref<WeakLink>& link, RefCount& count);
    bool HasLink(const WeakLink* link) const;
    // Drops one strong reference; when it was the last, clears the link and returns true, after
    // which the caller destroys the object. No weak link can revive an object once it reached 0.
    bool WeakDecRef(RefCount& count);

  private:
    std::mutex m_mutex;
    ObjectImpl* m_owner = nullptr;
    Ref<WeakLink> m_link;
};

// Mixes weak-link support into an implementation base (normally ObjectImpl).
template <class Base>
class WeakLinkableImpl : public Base, public virtual WeakLinkable {
  public:
    void DecRef() const override {
        if (m_weak.WeakDecRef(this->m_refCount)) {
            delete this;
        }
    }
    void AttachWeakRef(Ref<WeakLink>& link) const override {
        m_weak.GetLink(link, this->m_refCount);
    }
    bool HasLink(const WeakLink* link) const override { return m_weak.HasLink(link); }

  protected:
    WeakLinkableImpl() { m_weak.Init(this); }
    ~WeakLinkableImpl() override = default;

  private:
    mutable WeakLinkableImplPrivate m_weak;
};

}  // namespace Basalt

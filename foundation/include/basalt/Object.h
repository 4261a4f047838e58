#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <utility>

#include <basalt/Export.h>

namespace Basalt {

// The reference count of an object; atomic so references may be taken and dropped on any thread.
using RefCount = std::atomic<long>;

// Interface of every reference-counted foundation object.
class BASALT_API Object {
  public:
    // Adds a reference.
    virtual void IncRef() const = 0;
    // Drops a reference; the object is destroyed when the last one goes.
    virtual void DecRef() const = 0;
    // A short text naming the object, for diagnostics.
    virtual std::string ToString() const = 0;

  protected:
    virtual ~Object();
};

// Implementation base of reference-counted objects; classes derive from it as a virtual base.
// A new object starts with no references: the first Ref that takes it owns it.
class BASALT_API ObjectImpl : public virtual Object {
  public:
    void IncRef() const override;
    void DecRef() const override;
    std::string ToString() const override;
    // The current count; only meaningful as a diagnostic since other threads may change it.
    long GetRefCount() const { return m_refCount.load(std::memory_order_relaxed); }

  protected:
    ObjectImpl() = default;
    ObjectImpl(const ObjectImpl&) : Object() {}
    ObjectImpl& operator=(const ObjectImpl&) { return *this; }
    ~ObjectImpl() override;

    mutable RefCount m_refCount{0};
};

// Intrusive smart pointer over an Object: copying adds a reference, destruction drops one.
template <class T>
class Ref {
  public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    Ref(T* p) noexcept : m_p(p) { Acquire(); }
    Ref(const Ref& other) noexcept : m_p(other.m_p) { Acquire(); }
    Ref(Ref&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
    template <class U>
    Ref(const Ref<U>& other) noexcept : m_p(other.Get()) {
        Acquire();
    }
    template <class U>
    Ref(Ref<U>&& other) noexcept : m_p(other.Detach()) {}
    ~Ref() { Release(); }

    Ref& operator=(const Ref& other) noexcept {
        Ref(other).Swap(*this);
        return *this;
    }
    Ref& operator=(Ref&& other) noexcept {
        Ref(std::move(other)).Swap(*this);
        return *this;
    }
    Ref& operator=(T* p) noexcept {
        Ref(p).Swap(*this);
        return *this;
    }
    Ref& operator=(std::nullptr_t) noexcept {
        Reset();
        return *this;
    }

    T* Get() const noexcept { return m_p; }
    T* operator->() const noexcept { return m_p; }
    T& operator*() const noexcept { return *m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

    void Reset() noexcept { Ref().Swap(*this); }
    void Swap(Ref& other) noexcept { std::swap(m_p, other.m_p); }
    // Gives up ownership of the reference without dropping it.
    T* Detach() noexcept { return std::exchange(m_p, nullptr); }
    // Wraps a pointer whose reference the caller already holds, without adding another.
    static Ref Adopt(T* p) noexcept {
        Ref r;
        r.m_p = p;
        return r;
    }

  private:
    void Acquire() const noexcept {
        if (m_p) {
            m_p->IncRef();
        }
    }
    void Release() noexcept {
        if (m_p) {
            std::exchange(m_p, nullptr)->DecRef();
        }
    }

    T* m_p = nullptr;
};

template <class T, class U>
bool operator==(const Ref<T>& a, const Ref<U>& b) noexcept {
    return a.Get() == b.Get();
}
template <class T, class U>
bool operator!=(const Ref<T>& a, const Ref<U>& b) noexcept {
    return a.Get() != b.Get();
}
template <class T>
bool operator==(const Ref<T>& a, std::nullptr_t) noexcept {
    return !a;
}
template <class T>
bool operator!=(const Ref<T>& a, std::nullptr_t) noexcept {
    return static_cast<bool>(a);
}

}  // namespace Basalt

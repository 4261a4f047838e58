#pragma once

#include <new>
#include <utility>

namespace Basalt {

// A lazily built table that is never destroyed. Work still queued on the thread pool when the
// process exits runs after ordinary function-local statics built later than the pool are gone;
// tables it can reach are therefore held in an Immortal:
//
//   static const Immortal<std::vector<Entry>> table(BuildTable());
//   for (const Entry& entry : *table) { ... }
template <class T>
class Immortal {
  public:
    template <class... Args>
    explicit Immortal(Args&&... args) {
        ::new (static_cast<void*>(m_storage)) T(std::forward<Args>(args)...);
    }
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;
    ~Immortal() = default;  // deliberately leaves the object alive

    T& operator*() { return *Get(); }
    T* operator->() { return Get(); }
    const T& operator*() const { return *Get(); }
    const T* operator->() const { return Get(); }

  private:
    T* Get() { return std::launder(reinterpret_cast<T*>(m_storage)); }
    const T* Get() const { return std::launder(reinterpret_cast<const T*>(m_storage)); }

    alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace Basalt

#pragma once

// Counts heap allocations of the whole process (C++ new, libxml2, xmlsec, OpenSSL alike) by
// replacing malloc, calloc and realloc with forwarders to glibc's own. Include it in exactly one
// source file of a benchmark program. Counting is off until a CountAllocations scope is open, so
// the other benchmarks of the program pay one relaxed load per allocation.

#include <atomic>
#include <malloc.h>

#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
}

namespace AllocationCount {
inline std::atomic<bool> g_counting{false};
inline std::atomic<long> g_allocations{0};

inline void Note() {
    if (g_counting.load(std::memory_order_relaxed)) {
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    }
}

// Allocations made, by any thread, while the scope is open.
class CountAllocations {
  public:
    CountAllocations() {
        g_allocations.store(0);
        g_counting.store(true);
    }
    ~CountAllocations() { g_counting.store(false); }
    long Count() const { return g_allocations.load(); }
};
}  // namespace AllocationCount

extern "C" {
void* malloc(size_t size) noexcept {
    AllocationCount::Note();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
    AllocationCount::Note();
    return __libc_calloc(count, size);
}
// A realloc is counted too: growing a buffer in place or not, it is a trip into the allocator.
void* realloc(void* pointer, size_t size) noexcept {
    AllocationCount::Note();
    return __libc_realloc(pointer, size);
}
}

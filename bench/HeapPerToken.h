#pragma once

// Heap held by live objects: make a batch, keep it alive, and divide the growth of the heap
// (glibc's allocator statistics) by the batch size.

#include <malloc.h>

#include <benchmark/benchmark.h>

#include <vector>

template <class Make>
void MeasureHeapPerObject(benchmark::State& state, Make make) {
    constexpr int kBatch = 200;
    double perObject = 0;
    for (auto _ : state) {
        std::vector<decltype(make())> kept;
        kept.reserve(kBatch);
        malloc_trim(0);
        const size_t before = mallinfo2().uordblks;
        for (int i = 0; i < kBatch; ++i) {
            kept.push_back(make());
        }
        perObject = static_cast<double>(mallinfo2().uordblks - before) / kBatch;
    }
    state.counters["heap_bytes_per_token"] = perObject;
}

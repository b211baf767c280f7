#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

/// Counts the calls of operator new in the whole process, the library's included. Replaces the global
/// operators, so that exactly one source of a program includes it.
namespace tern::test {

inline std::atomic<std::size_t> gAllocations{0};
inline std::atomic<std::size_t> gReleases{0};

/// A load and a store rather than one locked step, which would cost the benchmarks as much as what they
/// measure: counts of threads that allocate at the same moment may get lost.
inline void CountOne(std::atomic<std::size_t>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

/// Calls of operator new since it was made.
class AllocationCount {
public:
    std::size_t Get() const { return gAllocations.load() - mStart; }

private:
    std::size_t mStart = gAllocations.load();
};

}  // namespace tern::test

// Not inlined: the compiler would see malloc and free on either side of a new or delete and take them for a
// mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
    tern::test::CountOne(tern::test::gAllocations);
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        tern::test::CountOne(tern::test::gReleases);
    }
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

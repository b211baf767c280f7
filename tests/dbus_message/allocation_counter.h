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

/// Calls of operator new since it was made.
class AllocationCount {
public:
    std::size_t Get() const { return gAllocations.load() - mStart; }

private:
    std::size_t mStart = gAllocations.load();
};

}  // namespace tern::test

void* operator new(std::size_t size) {
    tern::test::gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        tern::test::gReleases.fetch_add(1, std::memory_order_relaxed);
    }
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

#include "allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace tern::test {

namespace {

std::atomic<std::size_t> gAllocations{0};
std::atomic<std::size_t> gReleases{0};
std::atomic<bool> gShortage{false};
std::atomic<std::size_t> gGranted{0};
std::atomic<bool> gNothrowShortage{false};

void CountOne(std::atomic<std::size_t>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void* Allocate(std::size_t size) {
    CountOne(gAllocations);
    if (gShortage) {
        const std::size_t granted = gGranted;
        if (granted == 0) {
            return nullptr;
        }
        gGranted = granted - 1;
    }
    return std::malloc(size == 0 ? 1 : size);
}

void Release(void* memory) {
    if (memory != nullptr) {
        CountOne(gReleases);
    }
    std::free(memory);
}

}  // namespace

std::size_t CountAllocations() {
    return gAllocations;
}

std::size_t CountReleases() {
    return gReleases;
}

MemoryShortage::MemoryShortage(std::size_t granted) {
    gGranted = granted;
    gShortage = true;
}

MemoryShortage::~MemoryShortage() {
    gShortage = false;
}

NothrowMemoryShortage::NothrowMemoryShortage() {
    gNothrowShortage = true;
}

NothrowMemoryShortage::~NothrowMemoryShortage() {
    gNothrowShortage = false;
}

}  // namespace tern::test

void* operator new(std::size_t size) {
    void* const memory = tern::test::Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return tern::test::gNothrowShortage ? nullptr : tern::test::Allocate(size);
}

void operator delete(void* memory) noexcept {
    tern::test::Release(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    tern::test::Release(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
    tern::test::Release(memory);
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& nothrow) noexcept {
    return operator new(size, nothrow);
}

void operator delete[](void* memory) noexcept {
    tern::test::Release(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    tern::test::Release(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    tern::test::Release(memory);
}

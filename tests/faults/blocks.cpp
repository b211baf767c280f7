#include "blocks.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define TERN_COUNTS_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TERN_COUNTS_BLOCKS 0
#endif
#endif
#ifndef TERN_COUNTS_BLOCKS
#define TERN_COUNTS_BLOCKS 1
#endif

namespace tern::test {

namespace {

std::atomic<long> gBlocks{0};

}  // namespace

long CountBlocks() {
    return gBlocks;
}

}  // namespace tern::test

#if TERN_COUNTS_BLOCKS

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own names for what is replaced here
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

void* Counted(void* memory) {
    if (memory != nullptr) {
        tern::test::gBlocks.fetch_add(1, std::memory_order_relaxed);
    }
    return memory;
}

}  // namespace

// Every library has to find these, whatever the build hides.
#pragma GCC visibility push(default)
extern "C" {

void* malloc(std::size_t size) {
    return Counted(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return Counted(__libc_calloc(count, size));
}

void* realloc(void* memory, std::size_t size) {
    if (memory == nullptr) {
        return Counted(__libc_realloc(nullptr, size));
    }
    void* const moved = __libc_realloc(memory, size);
    if (moved == nullptr && size == 0) {
        tern::test::gBlocks.fetch_sub(1, std::memory_order_relaxed);
    }
    return moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return Counted(__libc_memalign(alignment, size));
}

void* memalign(std::size_t alignment, std::size_t size) {
    return Counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    *memory = Counted(__libc_memalign(alignment, size));
    return *memory == nullptr ? ENOMEM : 0;
}

void free(void* memory) {
    if (memory != nullptr) {
        tern::test::gBlocks.fetch_sub(1, std::memory_order_relaxed);
    }
    __libc_free(memory);
}
}
#pragma GCC visibility pop

#endif

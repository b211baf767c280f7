#include "malloc_stand_in.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TERN_STANDS_IN 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TERN_STANDS_IN 0
#endif
#endif
#ifndef TERN_STANDS_IN
#define TERN_STANDS_IN 1
#endif

namespace tern::test {

namespace {

std::atomic<long> gMallocs{0};
std::atomic<bool> gShortage{false};

}  // namespace

bool HasMallocStandIn() {
    return TERN_STANDS_IN != 0;
}

long CountMallocs() {
    return gMallocs;
}

MallocShortage::MallocShortage() {
    gShortage = true;
}

MallocShortage::~MallocShortage() {
    gShortage = false;
}

}  // namespace tern::test

#if TERN_STANDS_IN

extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's own name for what is replaced here
void* __libc_malloc(std::size_t size);

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    tern::test::gMallocs.fetch_add(1, std::memory_order_relaxed);
    if (tern::test::gShortage.load(std::memory_order_relaxed)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}
}

#endif

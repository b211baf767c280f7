#include "timer/forks.h"

#include <atomic>

namespace mwl::Timer {

namespace {

constinit std::atomic<unsigned int> gForks{0};
constinit std::atomic<pthread_t> gForked{};

[[maybe_unused]] const int gAtFork = pthread_atfork(nullptr, nullptr, [] {
    gForked.store(pthread_self(), std::memory_order_relaxed);
    gForks.fetch_add(1, std::memory_order_relaxed);
});

}  // namespace

unsigned int Forks::Count() noexcept {
    return gForks.load(std::memory_order_relaxed);
}

bool Forks::HasCome(pthread_t thread) noexcept {
    return pthread_equal(gForked.load(std::memory_order_relaxed), thread) != 0;
}

}  // namespace mwl::Timer

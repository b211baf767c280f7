#include "observer.h"

#include <algorithm>
#include <atomic>

#include "platform/static_probe.h"

namespace mwl::Log {

namespace {

constexpr unsigned char HIGHEST_LEVEL = 7;

// Plain data with static storage: still there when a message comes after static destructors.
constinit std::atomic<Observer> gObserver{nullptr};

}  // namespace

void SetObserver(Observer observer) noexcept {
    gObserver.store(observer, std::memory_order_release);
}

void SetThreshold(unsigned char level) noexcept {
    // Where every caller reads it, see root_logger.h: behind the logger's first member.
    const RootLogger& logger = RootLogger::GetInstance();
    unsigned char* const threshold = *reinterpret_cast<unsigned char* const*>(&logger);
    __atomic_store_n(threshold, std::min(level, HIGHEST_LEVEL), __ATOMIC_RELAXED);
}

void Observe(TernLogLevel level, const char* text, std::size_t length) noexcept {
    if (level > TernLogLevel::Warning) {
        return;
    }
    TERN_PROBE_AND(message, static_cast<const void*>(nullptr), text, static_cast<int>(level));
    if (const Observer observer = gObserver.load(std::memory_order_acquire)) {
        observer(level, text, length);
    }
}

}  // namespace mwl::Log

#pragma once

#include <tern-basic-log/root_logger.h>

#include <atomic>

namespace mwl {

/// Gives the log macros (log.h) the process's logger. Any thread, at any time, also before main().
///
/// RootLogger::GetInstance is compiled into each caller, together with the guard of its first use. Here this
/// happens once for a shared object, which keeps every log call small. Only two properties of the logger are
/// used, because a device maker's logger may have no others: its first member points to the threshold, and it
/// has Print.
class ProcessLogger {
public:
    /// The logger, built on first use. Exceptions of its construction pass through.
    static const Log::RootLogger& Get() {
        const Log::RootLogger* const logger = gInstance.load(std::memory_order_acquire);
        return __builtin_expect(logger != nullptr, 1) ? *logger : Obtain();
    }

    /// Whether a message of this level (syslog(3), 2 to 7) is written.
    static bool Writes(int level) { return Threshold(Get()) >= level; }

    /// The threshold of `logger`; a plain one-byte read.
    static unsigned char Threshold(const Log::RootLogger& logger) {
        const unsigned char* const threshold = *reinterpret_cast<const unsigned char* const*>(&logger);
        return __atomic_load_n(threshold, __ATOMIC_RELAXED);
    }

private:
    __attribute__((visibility("hidden"), noinline, cold)) static const Log::RootLogger& Obtain() {
        const Log::RootLogger& logger = Log::RootLogger::GetInstance();
        gInstance.store(&logger, std::memory_order_release);
        return logger;
    }

    /// Null until first use; one for each shared object.
    __attribute__((visibility("hidden"))) static inline std::atomic<const Log::RootLogger*> gInstance{
        nullptr};
};

}  // namespace mwl

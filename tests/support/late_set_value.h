#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>

#include <atomic>
#include <limits>

#include "interpose.h"
#include "wait_until.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define TERN_RECOGNISES_FREED_MEMORY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define TERN_RECOGNISES_FREED_MEMORY 1
#endif
#endif
#ifndef TERN_RECOGNISES_FREED_MEMORY
#define TERN_RECOGNISES_FREED_MEMORY 0
#endif

TERN_INTERPOSE(long, syscall, (long number, long a, long b, long c, long d, long e, long f),
               (number, a, b, c, d, e, f))

namespace tern::test {

/// Draws out the one moment at which a promise is in danger: set_value has made its value visible, and the
/// other side goes on with it and drops what it owns, before set_value has returned. While this lives, the
/// thread that sets the first value waits there until `Finish`. It shows afterwards whether the promise's
/// state was freed meanwhile, which takes AddressSanitizer (TERN_RECOGNISES_FREED_MEMORY).
///
/// For standard libraries whose promises are made of futexes. Include it in the test program's one source.
class LateSetValue {
public:
    LateSetValue() : mScope(fault_syscall) {
        fault_syscall.Replace(
            [this](long number, long a, long b, long c, long d, long e, long f) {
                const int operation = static_cast<int>(b) & FUTEX_CMD_MASK;
                if (number == SYS_futex && (operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET)) {
                    mIsAwaited = true;
                    // The value is there before this wait begins, so that it needs no wake.
                    WaitUntil([this] { return mIsSetting.load(); });
                } else if (number == SYS_futex && operation == FUTEX_WAKE && !mIsSetting.exchange(true)) {
                    WaitUntil([this] { return mFinish.load(); });
#if TERN_RECOGNISES_FREED_MEMORY
                    mWasFreed = __asan_address_is_poisoned(reinterpret_cast<void*>(a)) != 0;
#endif
                    mIsDone = true;
                }
                return fault_syscall.Real(number, a, b, c, d, e, f);
            },
            std::numeric_limits<int>::max());
    }

    /// Waits until the other side waits for the value. To be called before the value is set, or nothing is
    /// drawn out.
    bool WaitUntilAwaited() {
        return WaitUntil([this] { return mIsAwaited.load(); });
    }
    /// The side that waited for the value has it and has dropped all that it owns. Returns when the other
    /// side goes on; false when no value was set so.
    bool Finish() {
        mFinish = true;
        return WaitUntil([this] { return mIsDone.load(); });
    }
    bool WasFreed() const {
        return mWasFreed;
    }

private:
    std::atomic<bool> mIsAwaited{false};
    std::atomic<bool> mIsSetting{false};
    std::atomic<bool> mFinish{false};
    std::atomic<bool> mIsDone{false};
    std::atomic<bool> mWasFreed{false};
    FaultScope<long(long, long, long, long, long, long, long)> mScope;
};

}  // namespace tern::test

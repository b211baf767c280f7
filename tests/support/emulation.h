#pragma once

#include <cstdlib>

// What a test of the running system finds different in an emulator of user programs (qemu-user): it is the
// emulator's own process that the kernel knows.

namespace tern::test {

/// Whether this program runs in an emulator; ctest sets TERN_EMULATED in the environment.
inline bool IsEmulated() {
    return std::getenv("TERN_EMULATED") != nullptr;  // NOLINT(concurrency-mt-unsafe): nobody changes it
}

}  // namespace tern::test

/// Ends the test as skipped in an emulator; `reason`, a literal, says what is different there.
#define SKIP_WHERE_EMULATED(reason)               \
    if (::tern::test::IsEmulated()) {             \
        GTEST_SKIP() << "in an emulator " reason; \
    }                                             \
    static_assert(true)

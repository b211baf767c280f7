// Part of each library of a coverage build, and of no other: a library's counters are within reach of its own
// copy of the compiler's run-time support only, and a process that ends otherwise than by exit(3) never
// writes them.

#include <dlfcn.h>

// NOLINTNEXTLINE(bugprone-reserved-identifier): the compiler's own name
extern "C" void __gcov_dump();

/// Writes the counters of this library and of those behind it in the search order.
extern "C" __attribute__((visibility("default"))) void TernDumpCoverage() {
    __gcov_dump();
    using Function = void (*)();
    if (const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "TernDumpCoverage"))) {
        next();
    }
}

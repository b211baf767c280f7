#pragma once

#include <dlfcn.h>

#include <cstdlib>

namespace tern::test {

/// Writes the libraries' counters, which a process that leaves by _exit or abort would lose. In a build that
/// is not for coverage it does nothing.
inline void DumpCoverage() {
    using Function = void (*)();
    if (const auto dump = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, "TernDumpCoverage"))) {
        // Complaints about the counts of an older build are no output of the test's.
        setenv("GCOV_ERROR_FILE", "/dev/null", 1);  // NOLINT(concurrency-mt-unsafe): about to end
        dump();
    }
}

}  // namespace tern::test

#pragma once

#include "support/emulation.h"

// Where a test's forked child cannot make threads.

/// Ends the test as skipped where a forked child cannot make a thread at all.
#ifdef __SANITIZE_THREAD__
#define SKIP_WHERE_CHILDREN_HAVE_NO_THREADS() \
    GTEST_SKIP() << "ThreadSanitizer ends a forked child that makes a thread"
#else
#define SKIP_WHERE_CHILDREN_HAVE_NO_THREADS() static_assert(true)
#endif

/// The same, and where the child of a process of several threads cannot.
#define SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE() \
    SKIP_WHERE_CHILDREN_HAVE_NO_THREADS();         \
    SKIP_WHERE_EMULATED("a child of several threads is ended by an assertion of the emulator's own")

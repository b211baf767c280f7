#pragma once

#include <cstddef>

namespace tern::test {

// For programs that name support/allocations.cpp among their sources, which replaces the process's operator
// new and delete, the library's included.

/// Calls of operator new so far, the non-throwing one included. Counts of threads that allocate at the same
/// moment may get lost: a locked step would cost a benchmark as much as what it measures.
std::size_t CountAllocations();
/// Calls of operator delete for something so far.
std::size_t CountReleases();

/// Calls of operator new since it was made.
class AllocationCount {
public:
    std::size_t Get() const { return CountAllocations() - mStart; }

private:
    std::size_t mStart = CountAllocations();
};

/// While it lives, operator new finds no memory, the throwing one neither, from the call behind the first
/// `granted` ones on.
class MemoryShortage {
public:
    explicit MemoryShortage(std::size_t granted = 0);
    ~MemoryShortage();
    MemoryShortage(const MemoryShortage&) = delete;
    MemoryShortage& operator=(const MemoryShortage&) = delete;
};

/// While it lives, the non-throwing operator new finds no memory.
class NothrowMemoryShortage {
public:
    NothrowMemoryShortage();
    ~NothrowMemoryShortage();
    NothrowMemoryShortage(const NothrowMemoryShortage&) = delete;
    NothrowMemoryShortage& operator=(const NothrowMemoryShortage&) = delete;
};

}  // namespace tern::test

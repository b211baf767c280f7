#pragma once

#include <cstddef>

namespace tern::test {

/// Calls of the throwing and the non-throwing operator new of this process so far. For test programs that
/// name support/allocations.cpp among their SOURCES, which replaces the operators.
std::size_t CountAllocations();

/// While it lives, the non-throwing operator new finds no memory.
class NothrowMemoryShortage {
public:
    NothrowMemoryShortage();
    ~NothrowMemoryShortage();
    NothrowMemoryShortage(const NothrowMemoryShortage&) = delete;
    NothrowMemoryShortage& operator=(const NothrowMemoryShortage&) = delete;
};

}  // namespace tern::test

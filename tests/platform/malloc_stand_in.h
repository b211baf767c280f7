#pragma once

namespace tern::test {

// For programs that name malloc_stand_in.cpp among their sources, which puts a stand-in before malloc(3).
// Under sanitizers, which bring a malloc of their own, there is none.

/// Whether there is a stand-in.
bool HasMallocStandIn();
/// Calls of malloc so far, of all threads.
long CountMallocs();

/// While it lives, malloc finds no memory.
class MallocShortage {
public:
    MallocShortage();
    ~MallocShortage();
    MallocShortage(const MallocShortage&) = delete;
    MallocShortage& operator=(const MallocShortage&) = delete;
};

}  // namespace tern::test

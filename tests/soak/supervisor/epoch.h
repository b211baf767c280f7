#pragma once

#include <atomic>

namespace soak {

/// Counts the deliberate interruptions, so that a client knows whether the failure of its call was one: the
/// number has changed since the call began. Odd while an interruption is going on. Any thread.
class Epoch {
public:
    void BeginInterruption() { ++mNumber; }
    void EndInterruption() { ++mNumber; }
    unsigned int Now() const { return mNumber; }
    static bool IsInterruption(unsigned int epoch) { return epoch % 2 != 0; }

private:
    std::atomic<unsigned int> mNumber{0};
};

}  // namespace soak

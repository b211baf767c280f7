#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "foundation/unique_fd.h"

struct sd_bus;

namespace mwl::DBusService {

/// Keeps a call of sd-bus that waits for the bus from waiting for ever: while it lives, a thread of its own
/// shuts the connection's socket down at the limit, and whatever waits on it fails.
///
/// sd-bus waits without a limit where it connects and where it flushes, takes no notice of signals there, and
/// offers nothing to end it by. Loop thread only; the bus outlives it.
class HangUp {
public:
    /// When the limit begins to run.
    enum class From {
        Now,         ///< immediately
        StopSignal,  ///< when the process is sent SIGTERM or SIGINT, which stay pending; they are to be
                     ///< blocked
    };

    /// Without the means for it (descriptors, a thread) nothing happens: see IsArmed.
    HangUp(sd_bus* bus, From from, std::chrono::milliseconds limit) noexcept;
    /// Ends it.
    ~HangUp() { End(); }
    HangUp(const HangUp&) = delete;
    HangUp& operator=(const HangUp&) = delete;

    /// Ends the thread, immediately: from now on nothing is hung up. Harmless to repeat.
    void End();
    /// Whether the limit holds.
    bool IsArmed() const { return mThread.joinable(); }
    /// Whether the limit has passed and the connection has been shut down.
    bool HasHungUp() const { return mHasHungUp; }

private:
    void WaitAndHangUp(std::chrono::milliseconds limit);

    UniqueFd mSocket;  // one of its own: sd-bus may close the other, and its number be used again
    UniqueFd mCancel;
    UniqueFd mSignals;
    std::atomic<bool> mHasHungUp{false};
    std::thread mThread;
};

}  // namespace mwl::DBusService

#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mwl::Timer {

/// The operations of every timer; `Timer` and `ShortPeriodTimer` describe them in detail.
class TERN_API TimerInterface {
public:
    virtual ~TimerInterface();
    /// Arms the timer, counting from now.
    virtual StatusCode Start() = 0;
    /// Ends it; Start creates it again.
    virtual StatusCode Stop() = 0;

    TimerInterface(const TimerInterface&) = delete;
    TimerInterface& operator=(const TimerInterface&) = delete;

protected:
    TimerInterface() = default;
};

}  // namespace mwl::Timer

#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "foundation/handle.h"

namespace tern::test {

/// Makes the calling thread one of a service with a watchdog of so many microseconds: its default event loop
/// feeds it, or would if it ran. Create it before other threads: it changes the environment.
class WatchedLoop {
public:
    explicit WatchedLoop(std::uint64_t periodUs) {
        setenv("WATCHDOG_USEC", std::to_string(periodUs).c_str(), 1);
        setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
        sd_event* event = nullptr;
        EXPECT_GE(sd_event_default(&event), 0);
        mEvent.reset(event);
        EXPECT_GT(sd_event_set_watchdog(event, 1), 0);
    }
    ~WatchedLoop() {
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }
    WatchedLoop(const WatchedLoop&) = delete;
    WatchedLoop& operator=(const WatchedLoop&) = delete;

    void StopFeeding() const { EXPECT_GE(sd_event_set_watchdog(mEvent.get(), 0), 0); }

private:
    mwl::Handle<sd_event, sd_event_unref> mEvent;
};

}  // namespace tern::test

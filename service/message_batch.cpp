#include "service/message_batch.h"

#include <cerrno>

namespace mw::tern {

namespace {

bool IsEnding(sd_event* loop) {
    int code = 0;
    return sd_event_get_exit_code(loop, &code) != -ENODATA;
}

}  // namespace

void MessageBatch::Handle(sd_event* loop) {
    using Clock = std::chrono::steady_clock;
    if (mTurnsToSkip > 0) {
        --mTurnsToSkip;
        return;
    }
    const Clock::time_point end = Clock::now() + PERIOD;
    unsigned handled = 0;
    int r = 1;
    while (r > 0 && handled < MESSAGES && (handled == 0 || (Clock::now() < end && !IsEnding(loop)))) {
        r = sd_bus_process(mBus, nullptr);
        handled += r > 0 ? 1 : 0;
    }
    if (r < 0) {
        // What sd-bus does itself, where it has read. The connection leaves the loop, which ends it.
        sd_bus_close(mBus);
    }
    mTurnsToSkip = handled == 0 ? PAUSE - 1 : 0;
}

}  // namespace mw::tern

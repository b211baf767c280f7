#include "timer/timer_calls.h"

#include <tern/foundation/log.h>

#include "foundation/tell.h"
#include "platform/static_text.h"

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::Timer");

}  // namespace

void TimerCalls::Serve(std::chrono::nanoseconds late) {
    if (Enter()) {
        Call(late);
        Leave();
    }
}

void TimerCalls::Call(std::chrono::nanoseconds late) const {
    if (mCallback) {
        TERN_TELL(TimerBegan, timer_began, this, late.count());
        mCallback();
        TERN_TELL(TimerEnded, timer_ended, this, 0);
    }
}

bool TimerCalls::Enter() {
    std::unique_lock lock(mMutex);
    if (mRunning < MAX_AT_ONCE) {
        ++mRunning;
        return true;
    }
    const bool isFirst = mDropped++ == 0;
    lock.unlock();
    if (isFirst) {
        TERN_LOG_ERROR(LOGGER, "Handler: %u calls are running, expiries are dropped until one returns",
                       MAX_AT_ONCE);
    }
    return false;
}

void TimerCalls::Leave() {
    std::unique_lock lock(mMutex);
    if (--mRunning > 0) {
        return;
    }
    const unsigned long dropped = std::exchange(mDropped, 0);
    lock.unlock();
    if (dropped > 0) {
        TERN_LOG_WARNING(LOGGER, "Handler: All calls have returned, %lu expiries were dropped", dropped);
    }
}

}  // namespace mwl::Timer

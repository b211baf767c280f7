#include "timer/timer_calls.h"

#include <tern/foundation/log.h>

#include "platform/static_text.h"

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::Timer");

}  // namespace

void TimerCalls::Serve() {
    if (Enter()) {
        Call();
        Leave();
    }
}

void TimerCalls::Call() const {
    if (mCallback) {
        mCallback();
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

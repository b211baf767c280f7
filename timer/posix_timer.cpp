#include "timer/posix_timer.h"

#include <cerrno>

#include "timer/forks.h"

namespace mwl::Timer {

namespace {

constexpr unsigned int MILLISECONDS_PER_SECOND = 1000;
constexpr long NANOSECONDS_PER_MILLISECOND = 1000000;

}  // namespace

PosixTimer::~PosixTimer() {
    static_cast<void>(Delete());  // nobody is left to notify
}

bool PosixTimer::Exists() const {
    return mExists && mForks == Forks::Count();
}

int PosixTimer::Create(sigevent& notification) {
    timer_t id = nullptr;
    if (timer_create(CLOCK_MONOTONIC, &notification, &id) != 0) {
        return errno;
    }
    mId = id;
    mExists = true;
    mForks = Forks::Count();
    mIsArmed = false;
    return 0;
}

int PosixTimer::Arm(unsigned int periodMs, bool periodic) {
    itimerspec time{};
    time.it_value.tv_sec = static_cast<time_t>(periodMs / MILLISECONDS_PER_SECOND);
    time.it_value.tv_nsec =
        static_cast<long>(periodMs % MILLISECONDS_PER_SECOND) * NANOSECONDS_PER_MILLISECOND;
    if (periodic) {
        time.it_interval = time.it_value;
    }
    const int error = SetTime(time);
    if (error == 0) {
        mIsArmed = periodMs > 0;
    }
    return error;
}

int PosixTimer::Disarm() {
    return Arm(0, false);
}

int PosixTimer::GetRemaining(timespec& remaining) const {
    if (!Exists()) {
        return EINVAL;  // GCOVR_EXCL_LINE: its one caller looks first, because it has nothing to report then
    }
    itimerspec time{};
    if (timer_gettime(mId, &time) != 0) {
        return errno;
    }
    remaining = time.it_value;
    return 0;
}

int PosixTimer::Delete() {
    if (!Exists()) {
        return EINVAL;
    }
    if (timer_delete(mId) != 0) {
        return errno;
    }
    mId = nullptr;
    mExists = false;
    mIsArmed = false;
    return 0;
}

int PosixTimer::SetTime(const itimerspec& time) {
    if (!Exists()) {
        return EINVAL;
    }
    return timer_settime(mId, 0, &time, nullptr) == 0 ? 0 : errno;
}

}  // namespace mwl::Timer

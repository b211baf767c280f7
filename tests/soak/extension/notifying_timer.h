#pragma once

#if defined(__SANITIZE_THREAD__)
#include <tern/timer/short_period_timer.h>
#else
#include <tern/timer/timer.h>
#endif

namespace soak {

#if defined(__SANITIZE_THREAD__)
/// Timers that notify on a thread of the C library crash under ThreadSanitizer.
using NotifyingTimer = mwl::Timer::ShortPeriodTimer;
#else
using NotifyingTimer = mwl::Timer::Timer;
#endif

}  // namespace soak

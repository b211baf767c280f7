#include "local_time.h"

#include <pthread.h>
#include <sys/single_threaded.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <limits>

namespace mwl::Log {

namespace {

constexpr std::int64_t DAY = 86400;
/// Zones change their clocks at a quarter of an hour.
constexpr std::int64_t QUARTER = 900;
constexpr std::int64_t NEVER = std::numeric_limits<std::int64_t>::min();

constinit std::atomic<long> gUtcOffset{0};
/// The quarter of an hour since 1970 for which the offset was taken.
constinit std::atomic<std::int64_t> gQuarter{NEVER};
/// In a child that was forked beside other threads.
constinit std::atomic<bool> gMayNotAsk{false};
/// As of the latest fork; forks at the same time agree.
constinit std::atomic<bool> gForksAlone{false};

__attribute__((constructor)) void TellChildren() noexcept {
    static_cast<void>(pthread_atfork([] { gForksAlone = __libc_single_threaded != 0; }, nullptr,
                                     [] {
                                         if (!gForksAlone) {
                                             gMayNotAsk = true;
                                         }
                                     }));
}

long UtcOffset(time_t now) noexcept {
    const std::int64_t quarter = std::int64_t{now} / QUARTER;
    if (gQuarter.load(std::memory_order_relaxed) != quarter && !gMayNotAsk) {
        tm local{};
        if (localtime_r(&now, &local) != nullptr) {
            gUtcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
        }
        gQuarter.store(quarter, std::memory_order_relaxed);
    }
    return gUtcOffset.load(std::memory_order_relaxed);
}

/// Month and day of a day since 1970. Years begin in March here, so that the odd day is the last one.
void SetDate(std::int64_t day, LocalTime& time) noexcept {
    constexpr std::int64_t DAYS_FROM_MARCH_0000 = 719468;
    constexpr std::int64_t FOUR_CENTURIES = 146097;
    const std::int64_t days = day + DAYS_FROM_MARCH_0000;
    const std::int64_t ofCenturies = ((days % FOUR_CENTURIES) + FOUR_CENTURIES) % FOUR_CENTURIES;
    const std::int64_t year =
        (ofCenturies - ofCenturies / 1460 + ofCenturies / 36524 - ofCenturies / 146096) / 365;
    const std::int64_t ofYear = ofCenturies - (365 * year + year / 4 - year / 100);
    const std::int64_t month = (5 * ofYear + 2) / 153;  // 0 is March
    time.day = static_cast<int>(ofYear - (153 * month + 2) / 5 + 1);
    time.month = static_cast<int>((month + 2) % 12);
}

}  // namespace

LocalTime NowInLocalTime() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // In 64 bits: a long of 32 bits does not hold the seconds after January 2038.
    const std::int64_t local = std::int64_t{now.tv_sec} + UtcOffset(now.tv_sec);
    const std::int64_t second = (local % DAY + DAY) % DAY;
    LocalTime time{};
    SetDate((local - second) / DAY, time);
    time.hour = static_cast<int>(second / 3600);
    time.minute = static_cast<int>(second / 60 % 60);
    time.second = static_cast<int>(second % 60);
    time.millisecond = static_cast<int>(now.tv_nsec / 1000000);
    return time;
}

}  // namespace mwl::Log

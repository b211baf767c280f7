#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/timer/chrono.h>
#include <time.h>

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <type_traits>

#include "support/interpose.h"
#include "support/log_capture.h"

TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))

namespace {

thread_local bool gIsMemoryShort = false;

}  // namespace

// The process's, the library's included.
void* operator new(std::size_t size) {
    void* const memory = gIsMemoryShort ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

using mwl::Timer::Chrono;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::Notice;
using testing::ElementsAre;

constexpr long long MILLISECOND = 1000000;

/// A wall clock that stands still until it is moved; all other clocks run on.
class WallClock {
public:
    WallClock() : mScope(fault_clock_gettime) {
        fault_clock_gettime.Replace(
            [this](clockid_t clock, timespec* now) {
                if (clock != CLOCK_REALTIME) {
                    return fault_clock_gettime.Real(clock, now);
                }
                *now = {static_cast<time_t>(mNanoseconds / 1000000000),
                        static_cast<long>(mNanoseconds % 1000000000)};
                return 0;
            },
            std::numeric_limits<int>::max());
    }

    explicit WallClock(time_t seconds) : WallClock() { mNanoseconds = seconds * 1000000000LL; }

    void Move(long long nanoseconds) { mNanoseconds += nanoseconds; }

private:
    FaultScope<int(clockid_t, timespec*)> mScope;
    long long mNanoseconds = 1700000000000000000;
};

static_assert(std::has_virtual_destructor_v<Chrono>);

TEST(Chrono, FreshOneReportsZero) {
    const LogCapture log;
    Chrono chrono("parse");
    EXPECT_EQ(chrono.Report(), 0U);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Notice("Timer::Chrono", "############ [Report] parse TOTAL Time: 0 ms")));
}

TEST(Chrono, AddsWholeMillisecondsOfEachInterval) {
    const LogCapture log;
    WallClock clock;
    Chrono chrono("parse");
    EXPECT_EQ(chrono.Start(), 0U);
    clock.Move(2 * MILLISECOND + 700000);
    chrono.Stop(0, "first");
    EXPECT_EQ(chrono.Report(), 2U);

    EXPECT_EQ(chrono.Start(), 0U) << "the id never changes";
    clock.Move(3 * MILLISECOND + 999999);
    chrono.Stop(0, "second");
    EXPECT_EQ(chrono.Report(), 5U) << "each interval is truncated by itself, and Report resets nothing";
    EXPECT_THAT(log.Entries("Timer::Chrono"),
                ElementsAre(Notice("Timer::Chrono", "############ [Report] parse TOTAL Time: 2 ms"),
                            Notice("Timer::Chrono", "############ [Report] parse TOTAL Time: 5 ms")));
}

TEST(Chrono, MeasuresRealTimeInMilliseconds) {
    const LogCapture log;
    Chrono chrono("pause");
    chrono.Start();
    const timespec pause{0, 20 * MILLISECOND};
    nanosleep(&pause, nullptr);
    chrono.Stop(0, "");
    EXPECT_GE(chrono.Report(), 20U);
}

// On 32-bit platforms too, whatever time the C++ library was built with.
TEST(Chrono, TheYear2038IsNoEnd) {
    static_assert(sizeof(time_t) == 8);
    const LogCapture log;
    WallClock clock(0x7FFFFFFF);
    Chrono chrono("parse");
    chrono.Start();
    clock.Move(2500 * MILLISECOND);
    chrono.Stop(0, "");
    EXPECT_EQ(chrono.Report(), 2500U);
}

TEST(Chrono, IdThatIsNotMeasuredChangesNothing) {
    const LogCapture log;
    WallClock clock;
    Chrono chrono("parse");
    chrono.Stop(0, "never started");
    chrono.Start();
    clock.Move(5 * MILLISECOND);
    chrono.Stop(1, "another id");
    EXPECT_EQ(chrono.Report(), 0U);
    chrono.Stop(0, "the open one");
    clock.Move(5 * MILLISECOND);
    chrono.Stop(0, "closed already");
    EXPECT_EQ(chrono.Report(), 5U);
}

TEST(Chrono, SecondStartMeasuresAnew) {
    const LogCapture log;
    WallClock clock;
    Chrono chrono("parse");
    chrono.Start();
    clock.Move(100 * MILLISECOND);
    chrono.Start();
    clock.Move(7 * MILLISECOND);
    chrono.Stop(0, "");
    EXPECT_EQ(chrono.Report(), 7U);
}

TEST(Chrono, ClockSetBackTakesOffButNotBelowZero) {
    const LogCapture log;
    WallClock clock;
    Chrono chrono("parse");
    chrono.Store(10);
    chrono.Start();
    clock.Move(-4 * MILLISECOND);
    chrono.Stop(0, "");
    EXPECT_EQ(chrono.Report(), 6U);

    chrono.Start();
    clock.Move(-1000 * MILLISECOND);
    chrono.Stop(0, "");
    EXPECT_EQ(chrono.Report(), 0U);
}

TEST(Chrono, StoreTruncatesTheTotal) {
    const LogCapture log;
    Chrono chrono("parse");
    chrono.Store(1.9);
    EXPECT_EQ(chrono.Report(), 1U);
    chrono.Store(0.9);
    EXPECT_EQ(chrono.Report(), 1U) << "the fraction of the first was dropped with the first";
    chrono.Store(-0.5);
    EXPECT_EQ(chrono.Report(), 0U);
}

TEST(Chrono, StoreSurvivesWhatNoTotalCanHold) {
    const LogCapture log;
    Chrono chrono("parse");
    chrono.Store(3);
    chrono.Store(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(chrono.Report(), 3U);
    chrono.Store(-1e300);
    EXPECT_EQ(chrono.Report(), 0U);
    chrono.Store(18446744073709551616.0);
    EXPECT_EQ(chrono.Report(), std::numeric_limits<unsigned long long>::max());
    chrono.Store(std::numeric_limits<double>::infinity());
    EXPECT_EQ(chrono.Report(), std::numeric_limits<unsigned long long>::max());
}

}  // namespace

#include <pthread.h>
#include <tern/threading/thread_watched.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

#include "support/log_capture.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/watching_doubles.h"

namespace mwl::Threading {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using tern::test::Error;
using tern::test::LogCapture;
using tern::test::MovedClock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::NiceMock;

/// The clock stands from before the first member is made until the last one has gone.
struct FrozenClock {
    FrozenClock() { MovedClock::Freeze(); }
    ~FrozenClock() { MovedClock::Resume(); }
};

class ThreadWatchedTest : public ::testing::Test {
protected:
    FrozenClock mClock;
    NiceMock<MockWatcher> mWatcher;
    ThreadWatched mWatched{mWatcher, "pump"};
    LogCapture mLog;
};

TEST_F(ThreadWatchedTest, IsNotWatchedAtFirst) {
    EXPECT_EQ(mWatched.GetName(), "pump");
    EXPECT_EQ(mWatched.GetPeriod(), milliseconds(0));
    EXPECT_EQ(mWatched.GetThreadId(), 0UL);
    EXPECT_EQ(mWatched.GetElapsedTimeSinceLastWork(), milliseconds(0));
    EXPECT_FALSE(mWatched.IsBlocked());
    EXPECT_TRUE(std::has_virtual_destructor_v<ThreadWatched>);
}

TEST_F(ThreadWatchedTest, CountsFromItsConstructionBeforeTheWatch) {
    MovedClock::Advance(milliseconds(123));
    EXPECT_EQ(mWatched.GetElapsedTimeSinceLastWork(), milliseconds(123));
}

TEST_F(ThreadWatchedTest, StartWatchRegistersWhenEverythingIsSet) {
    MovedClock::Advance(milliseconds(500));
    EXPECT_CALL(mWatcher, Register(&mWatched)).WillOnce([](ThreadWatched* watched) {
        EXPECT_EQ(watched->GetPeriod(), milliseconds(1000));
        EXPECT_EQ(watched->GetThreadId(), pthread_self());
        EXPECT_EQ(watched->GetElapsedTimeSinceLastWork(), milliseconds(0));
    });
    mWatched.StartWatch(milliseconds(1000));
}

TEST_F(ThreadWatchedTest, StopWatchTakesTheIdBeforeItUnregisters) {
    mWatched.StartWatch(milliseconds(1000));
    EXPECT_CALL(mWatcher, Unregister(&mWatched)).WillOnce([](ThreadWatched* watched) {
        EXPECT_EQ(watched->GetThreadId(), 0UL);
    });
    mWatched.StopWatch();
    EXPECT_EQ(mWatched.GetPeriod(), milliseconds(1000));
}

TEST_F(ThreadWatchedTest, RefusedRegistrationLeavesItUnwatched) {
    EXPECT_CALL(mWatcher, Register).WillOnce([](ThreadWatched*) { throw std::runtime_error("refused"); });
    EXPECT_THROW(mWatched.StartWatch(milliseconds(1000)), std::runtime_error);
    EXPECT_EQ(mWatched.GetThreadId(), 0UL);
}

TEST_F(ThreadWatchedTest, ElapsedTimeIsInWholeMilliseconds) {
    mWatched.StartWatch(milliseconds(1000));
    MovedClock::Advance(nanoseconds(1999999));
    EXPECT_EQ(mWatched.GetElapsedTimeSinceLastWork(), milliseconds(1));
    mWatched.NotifyWork();  // last work: 1 ms, truncated
    MovedClock::Advance(nanoseconds(1));
    EXPECT_EQ(mWatched.GetElapsedTimeSinceLastWork(), milliseconds(1));
    mWatched.NotifyWork();
    EXPECT_EQ(mWatched.GetElapsedTimeSinceLastWork(), milliseconds(0));
}

TEST_F(ThreadWatchedTest, StartingAnewCountsFromThenOn) {
    mWatched.StartWatch(milliseconds(1000));
    MovedClock::Advance(milliseconds(30000));
    mWatched.NotifyWork();
    MovedClock::Advance(milliseconds(19000));
    mWatched.StartWatch(milliseconds(2000));
    EXPECT_EQ(mWatched.GetElapsedTimeSinceLastWork(), milliseconds(0));
    EXPECT_EQ(mWatched.GetPeriod(), milliseconds(2000));
    MovedClock::Advance(milliseconds(20000));
    EXPECT_FALSE(mWatched.IsBlocked());
    MovedClock::Advance(milliseconds(1));
    EXPECT_TRUE(mWatched.IsBlocked());
}

struct LimitRow {
    std::int64_t periodMs;
    std::int64_t limitMs;
};

TEST_F(ThreadWatchedTest, IsBlockedAfterTwoPeriodsButNotBefore20Seconds) {
    const LimitRow rows[] = {{1000, 20000},
                             {0, 20000},
                             {-5, 20000},
                             {10000, 20000},
                             {10001, 20002},
                             {15000, 30000},
                             {std::numeric_limits<std::int64_t>::min(), 20000}};
    for (const LimitRow& row : rows) {
        mLog.Clear();
        mWatched.StartWatch(milliseconds(row.periodMs));
        MovedClock::Advance(milliseconds(row.limitMs));
        EXPECT_FALSE(mWatched.IsBlocked()) << row.periodMs;
        EXPECT_THAT(mLog.Entries(), IsEmpty());
        MovedClock::Advance(milliseconds(1));
        EXPECT_TRUE(mWatched.IsBlocked()) << row.periodMs;
        EXPECT_THAT(mLog.Entries(),
                    ElementsAre(Error("Threading::ThreadWatched",
                                      "Thread (pump) is blocked (period " +
                                          std::to_string(static_cast<unsigned long long>(row.periodMs)) +
                                          " ms, lastWork " + std::to_string(row.limitMs + 1) + " ms)")));
    }
}

TEST_F(ThreadWatchedTest, PeriodTooLongToBeDoubledNeverEnds) {
    for (const std::int64_t periodMs :
         {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::max() / 2 + 1}) {
        mWatched.StartWatch(milliseconds(periodMs));
        MovedClock::Advance(std::chrono::hours(24 * 365));
        EXPECT_FALSE(mWatched.IsBlocked());
    }
}

TEST_F(ThreadWatchedTest, ReportOnceALimitKeepsItFromEverBeingBlocked) {
    mWatched.StartWatch(milliseconds(1000));
    for (int i = 0; i < 100; ++i) {
        MovedClock::Advance(milliseconds(20000));
        EXPECT_FALSE(mWatched.IsBlocked());
        mWatched.NotifyWork();
    }
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

// Three ways in which a watcher could meet half of a new start and kill a healthy process.

TEST_F(ThreadWatchedTest, StartingAnewBeforeTheWatcherReadsTheClockNeverSeemsBlocked) {
    mWatched.StartWatch(milliseconds(1000));
    MovedClock::BeforeNextRead([&] {
        mWatched.StartWatch(milliseconds(3600000));
        MovedClock::Advance(milliseconds(25000));
    });
    EXPECT_FALSE(mWatched.IsBlocked());
    EXPECT_EQ(mWatched.GetPeriod(), milliseconds(3600000));
}

/// Looks at `watched` on a thread of its own while `round` is repeated on this one.
void LookWhile(const ThreadWatched& watched, const std::function<void()>& round) {
    std::atomic<bool> over{false};
    std::thread watcher([&] {
        while (!over) {
            ASSERT_FALSE(watched.IsBlocked());
        }
    });
    for (int i = 0; i < 200000 / tern::test::SLOWNESS; ++i) {
        round();
    }
    over = true;
    watcher.join();
}

// The zeroed work counter with the former start instant.
TEST_F(ThreadWatchedTest, StartingAnewUnderTheWatchersEyesNeverSeemsBlocked) {
    mWatched.StartWatch(milliseconds(1000));
    LookWhile(mWatched, [this] {
        mWatched.StartWatch(milliseconds(1000));
        MovedClock::Advance(milliseconds(15000));
        mWatched.NotifyWork();
        MovedClock::Advance(milliseconds(15000));
    });
}

// The new, shorter period with the former silence.
TEST_F(ThreadWatchedTest, ShorterPeriodUnderTheWatchersEyesNeverSeemsBlocked) {
    mWatched.StartWatch(milliseconds(1000));
    LookWhile(mWatched, [this] {
        mWatched.StartWatch(milliseconds(3600000));
        MovedClock::Advance(milliseconds(25000));
        mWatched.StartWatch(milliseconds(1000));
    });
}

}  // namespace
}  // namespace mwl::Threading

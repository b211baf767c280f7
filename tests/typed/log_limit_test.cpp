#include "typed/log_limit.h"

#include <gtest/gtest.h>
#include <time.h>

#include "support/interpose.h"

TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* time), (clock, time))

using mwl::Typed::LogLimit;

namespace {

/// CLOCK_MONOTONIC is what the test says.
class LogLimitTest : public testing::Test {
protected:
    LogLimitTest() {
        fault_clock_gettime.Replace(
            [this](clockid_t clock, timespec* time) {
                if (clock != CLOCK_MONOTONIC) {
                    return fault_clock_gettime.Real(clock, time);
                }
                *time = {mSeconds, 0};
                return 0;
            },
            1000000);
    }

    /// How many of `count` messages are written.
    unsigned Write(unsigned count) {
        unsigned written = 0;
        for (; count > 0; --count) {
            written += mLimit.Allows(mOmitted) ? 1U : 0U;
        }
        return written;
    }

    time_t mSeconds = 1000;
    unsigned long mOmitted = 0;
    LogLimit mLimit;

private:
    tern::test::FaultScope<int(clockid_t, timespec*)> mScope{fault_clock_gettime};
};

}  // namespace

TEST_F(LogLimitTest, LetsTheFirstMessagesOfAPeriodThrough) {
    EXPECT_EQ(Write(LogLimit::MESSAGES), LogLimit::MESSAGES);
    EXPECT_EQ(Write(25), 0U);
    mSeconds += LogLimit::PERIOD.count() - 1;
    EXPECT_EQ(Write(1), 0U);
    EXPECT_EQ(mOmitted, 0U);
}

TEST_F(LogLimitTest, TellsOnceInTheNextPeriodWhatWasLeftOut) {
    Write(LogLimit::MESSAGES + 25);
    mSeconds += LogLimit::PERIOD.count();
    EXPECT_EQ(Write(1), 1U);
    EXPECT_EQ(mOmitted, 25U);
    EXPECT_EQ(Write(1), 1U);
    EXPECT_EQ(mOmitted, 0U);
}

TEST_F(LogLimitTest, PeriodBeginsWithItsFirstMessage) {
    Write(1);
    mSeconds += 3 * LogLimit::PERIOD.count() - 1;
    EXPECT_EQ(Write(LogLimit::MESSAGES + 1), LogLimit::MESSAGES);
    mSeconds += LogLimit::PERIOD.count() - 1;
    EXPECT_EQ(Write(1), 0U);
    mSeconds += 1;
    EXPECT_EQ(Write(1), 1U);
}

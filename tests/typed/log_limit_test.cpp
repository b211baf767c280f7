#include "typed/log_limit.h"

#include <gtest/gtest.h>

#include "threading/moved_clock.h"

using mwl::Typed::LogLimit;
using tern::test::MovedClock;

namespace {

/// The clock is what the test says.
class LogLimitTest : public testing::Test {
protected:
    LogLimitTest() { MovedClock::Freeze(); }
    ~LogLimitTest() override { MovedClock::Resume(); }

    /// How many of `count` messages are written.
    unsigned Write(unsigned count) {
        unsigned written = 0;
        for (; count > 0; --count) {
            written += mLimit.Allows(mOmitted) ? 1U : 0U;
        }
        return written;
    }

    unsigned long mOmitted = 0;
    LogLimit mLimit;
};

}  // namespace

TEST_F(LogLimitTest, LetsTheFirstMessagesOfAPeriodThrough) {
    EXPECT_EQ(Write(LogLimit::MESSAGES), LogLimit::MESSAGES);
    EXPECT_EQ(Write(25), 0U);
    MovedClock::Advance(LogLimit::PERIOD - std::chrono::seconds(1));
    EXPECT_EQ(Write(1), 0U);
    EXPECT_EQ(mOmitted, 0U);
}

TEST_F(LogLimitTest, LetsMessagesThroughRightAfterTheStartOfTheSystem) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    MovedClock::Advance(std::chrono::seconds(1) - now);
    EXPECT_EQ(Write(LogLimit::MESSAGES + 1), LogLimit::MESSAGES);
}

TEST_F(LogLimitTest, TellsOnceInTheNextPeriodWhatWasLeftOut) {
    Write(LogLimit::MESSAGES + 25);
    MovedClock::Advance(LogLimit::PERIOD);
    EXPECT_EQ(Write(1), 1U);
    EXPECT_EQ(mOmitted, 25U);
    EXPECT_EQ(Write(1), 1U);
    EXPECT_EQ(mOmitted, 0U);
}

TEST_F(LogLimitTest, PeriodBeginsWithItsFirstMessage) {
    Write(1);
    MovedClock::Advance(3 * LogLimit::PERIOD - std::chrono::seconds(1));
    EXPECT_EQ(Write(LogLimit::MESSAGES + 1), LogLimit::MESSAGES);
    MovedClock::Advance(LogLimit::PERIOD - std::chrono::seconds(1));
    EXPECT_EQ(Write(1), 0U);
    MovedClock::Advance(std::chrono::seconds(1));
    EXPECT_EQ(Write(1), 1U);
}

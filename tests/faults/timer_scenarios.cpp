#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>

#include <atomic>

#include "scenarios.h"
#include "support/wait_until.h"

namespace tern::test {

namespace {

/// Longer than a timer takes to tell of an expiry that it lost.
constexpr std::chrono::milliseconds MOMENT{3000 * SLOWNESS};

void RunTimer(Stage& stage) {
    std::atomic<unsigned> expired{0};
    stage.Sweep([&] {
        mwl::Timer::Timer timer(1, true, [&] { ++expired; });
        if (stage.Accept(timer.Start(), "Start")) {
            stage.Expect(WaitUntil([&] { return expired >= 2; }, MOMENT),
                         "the timer expires again and again");
            stage.Expect(timer.GetTimerActiveStatus(), "the timer is active");
            stage.Accept(timer.DisarmActiveTimer(), "DisarmActiveTimer");
            stage.Accept(timer.Stop(), "Stop");
        }
    });
}

void RunShortPeriodTimer(Stage& stage) {
    std::atomic<unsigned> expired{0};
    stage.Sweep([&] {
        mwl::Timer::ShortPeriodTimer timer(1, true, [&] { ++expired; });
        if (stage.Accept(timer.Start(), "Start")) {
            stage.Expect(WaitUntil([&] { return expired >= 2; }, MOMENT),
                         "the timer expires again and again");
            stage.Accept(timer.Stop(), "Stop");
        } else {
            static_cast<void>(timer.Stop());  // of what was made until then
        }
    });
}

}  // namespace

std::vector<Scenario> TimerScenarios() {
    return {{"timer", RunTimer}, {"short-period-timer", RunShortPeriodTimer}};
}

}  // namespace tern::test

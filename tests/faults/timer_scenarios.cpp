#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>

#include <atomic>

#include "scenarios.h"
#include "support/wait_until.h"

namespace tern::test {

namespace {

constexpr std::chrono::milliseconds MOMENT{2000 * SLOWNESS};

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
        }
    });
}

}  // namespace

std::vector<Scenario> TimerScenarios() {
    return {{"timer", RunTimer}, {"short-period-timer", RunShortPeriodTimer}};
}

}  // namespace tern::test

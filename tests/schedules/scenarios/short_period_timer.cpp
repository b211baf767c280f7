// The short period timer: start, stop, end, by its owner and from its callback.

#include <tern/timer/short_period_timer.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "../scenario.h"

namespace tern::schedules {

namespace {

using mw::tern::StatusCode;
using mwl::Timer::ShortPeriodTimer;

void Pause(long milliseconds) {
    const timespec pause{0, milliseconds * 1000000};
    nanosleep(&pause, nullptr);
}

}  // namespace

TERN_SCENARIO(timer_stop, "its owner starts, stops and starts it again") {
    int calls = 0;
    ShortPeriodTimer timer(10, true, [&] {
        Call("callback");
        ++calls;
    });
    for (int round = 0; round < 2; ++round) {
        Promise(timer.Start() == StatusCode::Ok, "it starts");
        {
            // Up to one period, as only an expiry lets the thread out.
            const Stopping stopping(10);
            Promise(timer.Stop() == StatusCode::Ok, "it stops");
        }
        const int before = calls;
        Pause(30);
        Promise(calls == before, "nothing calls back after the stop");
    }
}

TERN_SCENARIO(timer_stop_in_callback, "the callback stops it, and its owner starts it again",
              .limits = {.signalWaitersMayStay = true}) {
    std::atomic<int> calls{0};
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(10, true, [&] {
        Call("callback");
        if (calls == 0) {
            Promise(timer->Stop() == StatusCode::Ok, "it stops itself");
        }
        ++calls;
    });
    Promise(timer->Start() == StatusCode::Ok, "it starts");
    while (calls == 0) {
        Pause(1);
    }
    Promise(timer->Start() == StatusCode::Ok, "it starts again");
    const Stopping stopping(10);
    Promise(timer->Stop() == StatusCode::Ok, "it stops");
}

TERN_SCENARIO(timer_restart_in_callback,
              "the callback stops and starts it again each time, its owner stops it",
              .limits = {.signalWaitersMayStay = true}, .kept = {"6:2,15:1"}) {
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(10, true, [&] {
        Call("callback");
        static_cast<void>(timer->Stop());
        const StatusCode status = timer->Start();
        Promise(status == StatusCode::Ok || status == StatusCode::Stopping, "again, or a stop waits");
    });
    Promise(timer->Start() == StatusCode::Ok, "it starts");
    const Stopping stopping(20);
    static_cast<void>(timer->Stop());
}

TERN_SCENARIO(timer_destroyed, "its owner destroys it without a stop",
              .limits = {.signalWaitersMayStay = true}) {
    // What the callback uses outlives it.
    static std::atomic<int> calls;
    calls = 0;
    {
        ShortPeriodTimer timer(10, true, [] { ++calls; });
        Promise(timer.Start() == StatusCode::Ok, "it starts");
    }
    const int before = calls;
    Pause(100);
    Promise(calls <= before + 1, "only one that was about to begin calls back");
}

TERN_SCENARIO(timer_destroyed_in_callback, "the callback destroys it, perhaps while it is being started",
              .limits = {.signalWaitersMayStay = true}) {
    static std::atomic<int> calls;
    calls = 0;
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(10, true, [&] {
        ++calls;
        timer.reset();
    });
    const StatusCode status = timer.get()->Start();
    Promise(status == StatusCode::Ok || status == StatusCode::Stopping, "it starts, or has gone");
    Pause(100);
    Promise(calls == 1, "it calls back once");
}

TERN_SCENARIO(timer_one_shot, "one expiry; the callback ends it", .limits = {.signalWaitersMayStay = true}) {
    std::atomic<int> calls{0};
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(10, false, [&] {
        Promise(timer->Stop() == StatusCode::Ok, "it stops itself");
        ++calls;
    });
    Promise(timer->Start() == StatusCode::Ok, "it starts");
    Pause(50);
    while (calls == 0) {
        Pause(1);
    }
    timer.reset();
    Promise(calls == 1, "it calls back once");
}

TERN_SCENARIO(timer_unarmed, "steps of a start one by one, and a stop before it is armed") {
    ShortPeriodTimer timer(10, true, [] { Promise(false, "nothing has been armed"); });
    Promise(timer.CreateThread() == StatusCode::Ok, "there is a thread");
    Promise(timer.CreateTimer() == StatusCode::Ok, "there is a timer");
    const Stopping stopping;
    Promise(timer.Stop() == StatusCode::Ok, "it stops at once");
}

}  // namespace tern::schedules

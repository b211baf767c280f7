// The queued component: wake-up, stop, and its end within its own run.

#include <signal.h>
#include <tern/queued_processings/component.h>
#include <tern/queued_processings/executor_interface.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "../scenario.h"

namespace tern::schedules {

namespace {

using mw::tern::StatusCode;
using mwl::QueuedProcessings::Component;
using mwl::QueuedProcessings::ExecutorInterface;
using mwl::Threading::Signals;
using mwl::Threading::ThreadsMonitor;

/// Counts, and does what the scenario wants in a run.
class Executor : public ExecutorInterface {
public:
    StatusCode Initialize() override {
        Call("component");
        return initialStatus;
    }
    void Execute() override {
        ++runs;
        if (inRun) {
            inRun();
        }
    }
    void Stop() override { ++stops; }

    StatusCode initialStatus = StatusCode::Ok;
    std::function<void()> inRun;
    std::atomic<int> runs{0};
    std::atomic<int> stops{0};
};

}  // namespace

TERN_SCENARIO(queued_wake_up, "each of two wake-ups is followed by a run that begins behind it",
              .limits = {.pointsAfterUnlock = true}) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    std::atomic<int> work{0};
    int seen = 0;
    executor.inRun = [&] { seen = work; };
    Component component("Queued", "queued", monitor, executor);
    Promise(component.Start() == StatusCode::Ok, "it starts");
    std::thread other([&] {
        Call("other");
        ++work;
        component.WakeUp();
    });
    ++work;
    component.WakeUp();
    other.join();
    // Whatever has been folded: the last run saw both. Nobody wakes it any more.
    const auto begin = Engine::Get()->Now();
    while (executor.runs == 0 || seen != 2) {
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
        Promise(Engine::Get()->Now() - begin < 100000000, "a wake-up is answered by a run");
    }
    const Stopping stopping;
    component.Stop();
    component.Join();
    Promise(executor.stops == 1, "the executor is told of the stop once");
}

TERN_SCENARIO(queued_wake_up_before_start, "a wake-up before the start is followed by a run") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    Component component("Queued", "queued", monitor, executor);
    executor.inRun = [&] { component.Stop(); };
    component.WakeUp();
    Promise(component.Start() == StatusCode::Ok, "it starts");
    component.Join();
    Promise(executor.runs >= 1, "the run comes, and its own stop ends the component");
}

TERN_SCENARIO(queued_stop, "a stop by the owner and one by the monitor, beside a wake-up",
              .limits = {.pointsAfterUnlock = true}) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    Component component("Queued", "queued", monitor, executor);
    Promise(component.Start() == StatusCode::Ok, "it starts");
    std::thread other([&] {
        Call("other");
        component.WakeUp();
        monitor.StopWorkerThreads();
    });
    {
        const Stopping stopping;
        component.Stop();
        other.join();
        component.Join();
    }
    Promise(executor.stops >= 1, "the executor is told of the stop");
}

TERN_SCENARIO(queued_wake_beside_stop, "two who wake, beside the stop",
              .limits = {.pointsAfterUnlock = true}) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    Component component("Queued", "queued", monitor, executor);
    Promise(component.Start() == StatusCode::Ok, "it starts");
    const auto wake = [&] { component.WakeUp(); };
    std::thread one(wake);
    std::thread other(wake);
    {
        const Stopping stopping;
        component.Stop();
        component.Join();
    }
    one.join();
    other.join();
}

TERN_SCENARIO(queued_destroyed_in_run, "the run destroys the component while the thread that woke it returns",
              .limits = {.pointsAfterUnlock = true}) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    auto component = std::make_unique<Component>("Queued", "queued", monitor, executor);
    std::atomic<bool> isStarted{false};
    std::atomic<bool> isGone{false};
    executor.inRun = [&] {
        if (!isStarted) {
            const timespec pause{0, 1000000};
            nanosleep(&pause, nullptr);
            component->WakeUp();
            return;
        }
        component.reset();
        isGone = true;
        // What is waited for next ends the thread, which is nobody's.
        throw std::runtime_error("the run has ended itself");
    };
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    monitor.SetDBusThreadId(pthread_self());
    // From the start on there is a run to come, and after it nobody but the run uses the component.
    component->WakeUp();
    Promise(component->Start() == StatusCode::Ok, "it starts");
    isStarted = true;
    int signal = 0;
    sigwait(&stop, &signal);
    Promise(isGone && monitor.HasFailure(), "what the run throws is known");
}

// A wake-up for no reason would have it destroyed before the call that is about to wake it.
TERN_SCENARIO(queued_destroyed_by_woken_run, "the run destroys the component that a call still wakes",
              .limits = {.pointsAfterUnlock = true, .spuriousWakeUps = false}) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    auto component = std::make_unique<Component>("Queued", "queued", monitor, executor);
    executor.inRun = [&] {
        component.reset();
        throw std::runtime_error("the run has ended itself");
    };
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    monitor.SetDBusThreadId(pthread_self());
    Promise(component->Start() == StatusCode::Ok, "it starts");
    component->WakeUp();
    int signal = 0;
    sigwait(&stop, &signal);
    Promise(component == nullptr && monitor.HasFailure(), "what the run throws is known");
}

TERN_SCENARIO(queued_refuses, "an Initialize that fails, and a second start") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Executor executor;
    executor.initialStatus = StatusCode::Busy;
    Component component("Queued", "queued", monitor, executor);
    Promise(component.Start() == StatusCode::Busy, "the status is handed on");
    executor.initialStatus = StatusCode::Ok;
    Promise(component.Start() == StatusCode::Ok, "it may be started again");
    const Stopping stopping;
    component.Stop();
    component.Join();
}

}  // namespace tern::schedules

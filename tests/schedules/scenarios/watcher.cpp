// The watcher: start, stop, restart.

#include <tern/threading/signals.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>

#include <chrono>
#include <thread>

#include "../scenario.h"

namespace tern::schedules {

namespace {

using mwl::Threading::Signals;
using mwl::Threading::ThreadsMonitor;
using mwl::Threading::ThreadsWatcher;
using mwl::Threading::ThreadWatched;

constexpr std::chrono::seconds PERIOD{5};

}  // namespace

TERN_SCENARIO(watcher_restart, "one thread comes, goes and comes again; the watch ends with it") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    ThreadsWatcher watcher(monitor);
    ThreadWatched watched(watcher, "watched");
    for (int round = 0; round < 2; ++round) {
        watched.StartWatch(PERIOD);
        watched.NotifyWork();
        watched.StopWatch();
    }
    const Stopping stopping;
    watcher.Stop();
}

TERN_SCENARIO(watcher_two_threads, "two threads come and go") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    {
        ThreadsWatcher watcher(monitor);
        const auto work = [&](const char* name) {
            Call(name);
            ThreadWatched watched(watcher, name);
            watched.StartWatch(PERIOD);
            watched.NotifyWork();
            watched.StopWatch();
        };
        std::thread other([&] { work("other"); });
        work("main");
        other.join();
    }
    Promise(Engine::Get()->IdleTime() == 0, "the watch ends at once");
}

TERN_SCENARIO(watcher_stop_by_monitor, "the monitor stops the watch while a thread comes and goes") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    {
        ThreadsWatcher watcher(monitor);
        std::thread other([&] {
            Call("watched");
            ThreadWatched watched(watcher, "watched");
            watched.StartWatch(PERIOD);
            watched.StopWatch();
        });
        monitor.StopWorkerThreads();
        other.join();
    }
    Promise(Engine::Get()->IdleTime() == 0, "the watch ends at once");
}

TERN_SCENARIO(watcher_start, "a second watch started by hand, and a stop of both") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    {
        ThreadsWatcher watcher(monitor);
        ThreadWatched watched(watcher, "watched");
        watched.StartWatch(PERIOD);
        // Not sooner: without a period the watch looks without a pause, and a schedule has no end.
        watcher.Start();
        watcher.Stop();
        watched.StopWatch();
    }
    Promise(Engine::Get()->IdleTime() == 0, "the watch ends at once");
}

TERN_SCENARIO(watcher_direct, "TaskWatch called by hand returns after a stop") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    ThreadsWatcher watcher(monitor);
    std::thread other([&] {
        Call("watch");
        watcher.TaskWatch();
    });
    const Stopping stopping(10);
    // A stop that comes before the watch has begun has nothing to stop.
    const timespec pause{0, 1000000};
    nanosleep(&pause, nullptr);
    watcher.Stop();
    other.join();
}

// Nine seconds of sleep and a period of five: eleven more and they would be taken as blocked, rightly.
TERN_SCENARIO(watcher_reports, "threads that report in time are left alone, however long it takes",
              .limits = {.heldUpMilliseconds = 10000}) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    ThreadsWatcher watcher(monitor);
    const auto work = [&] {
        Call("watched");
        ThreadWatched watched(watcher, "watched");
        watched.StartWatch(PERIOD);
        for (int round = 0; round < 4; ++round) {
            const timespec pause{9, 0};
            nanosleep(&pause, nullptr);
            watched.NotifyWork();
        }
        watched.StopWatch();
    };
    std::thread other(work);
    work();
    other.join();
}

}  // namespace tern::schedules

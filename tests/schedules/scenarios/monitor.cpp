// The monitor, with workers that come, fail and go while all are being stopped.

#include <signal.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/lock.h>
#include <tern/threading/mutex.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_monitor.h>

#include <atomic>
#include <thread>

#include "../scenario.h"

namespace tern::schedules {

namespace {

using mwl::Threading::ConditionVariable;
using mwl::Threading::Lock;
using mwl::Threading::Mutex;
using mwl::Threading::Signals;
using mwl::Threading::ThreadManager;
using mwl::Threading::ThreadsMonitor;

/// What a worker does when it has registered.
enum class Course { WaitsForStop, Fails, IsDone, Leaves };

class Worker : public ThreadManager {
public:
    Worker(ThreadsMonitor& monitor, Course course) : ThreadManager(monitor), mCourse(course) {}

    void Start() {
        mThread = std::thread([this] { Run(); });
    }
    /// By the monitor.
    void Stop() override {
        Promise(!mHasLeft, "one that has taken its registration back is not stopped any more");
        StopByOwner();
    }
    void StopByOwner() {
        const Lock lock(mMutex);
        mIsStopped = true;
        mChanged.NotifyAll();
    }
    void Join() { mThread.join(); }

private:
    void Run() {
        Call("worker");
        mThreadId = pthread_self();
        NotifyStarted();
        if (mCourse == Course::Fails) {
            NotifyFailure();
        } else if (mCourse == Course::IsDone) {
            NotifyStop();
        }
        if (mCourse != Course::Leaves) {
            Lock lock(mMutex);
            while (!mIsStopped) {
                static_cast<void>(mChanged.Wait(lock));
            }
        }
        NotifyStopped();
        mHasLeft = true;
    }

    const Course mCourse;
    Mutex mMutex;
    ConditionVariable mChanged;
    bool mIsStopped = false;
    std::atomic<bool> mHasLeft{false};
    std::thread mThread;
};

/// The D-Bus thread as far as the monitor knows it: SIGTERM ends its loop, then it stops the workers.
class Loop {
public:
    explicit Loop(ThreadsMonitor& monitor) : mMonitor(monitor) {
        sigemptyset(&mStop);
        sigaddset(&mStop, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &mStop, nullptr);
        mThread = std::thread([this] {
            Call("loop");
            mMonitor.SetDBusThreadId(pthread_self());
            int signal = 0;
            sigwait(&mStop, &signal);
            mMonitor.StopWorkerThreads();
        });
    }
    /// As systemd does it.
    void Terminate() { pthread_kill(mThread.native_handle(), SIGTERM); }
    void Join() { mThread.join(); }

private:
    ThreadsMonitor& mMonitor;
    sigset_t mStop{};
    std::thread mThread;
};

/// Two workers, the loop, and main's part at the end.
void RunService(Course first, Course second, bool terminate, bool hasFailed) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Worker one(monitor, first);
    Worker other(monitor, second);
    Loop loop(monitor);
    one.Start();
    other.Start();
    {
        const Stopping stopping;
        if (terminate) {
            loop.Terminate();
        }
        loop.Join();
        // One that registered late was not among those that the monitor stopped.
        one.StopByOwner();
        other.StopByOwner();
        one.Join();
        other.Join();
    }
    if (hasFailed) {
        Promise(monitor.HasFailure(), "the failure of a worker is known at the end");
    } else {
        Promise(!monitor.HasFailure(), "nobody has failed");
    }
}

}  // namespace

TERN_SCENARIO(monitor_late_worker, "a stop from outside while two workers come") {
    RunService(Course::WaitsForStop, Course::WaitsForStop, true, false);
}

TERN_SCENARIO(monitor_leaving_worker, "a stop from outside while one worker comes and goes") {
    RunService(Course::WaitsForStop, Course::Leaves, true, false);
}

TERN_SCENARIO(monitor_fails_during_stop, "a stop from outside while one worker fails, early or late") {
    RunService(Course::WaitsForStop, Course::Fails, true, true);
}

TERN_SCENARIO(monitor_done, "a worker is done and has the loop end, while another one comes and goes") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Worker one(monitor, Course::Leaves);
    Loop loop(monitor);
    Worker other(monitor, Course::WaitsForStop);
    one.Start();
    other.Start();
    {
        const Stopping stopping;
        // The order comes again when there was no thread yet that it could go to.
        std::thread done([&] {
            Call("done");
            monitor.NotifyDBusThreadToStop(false);
        });
        done.join();
        loop.Terminate();
        loop.Join();
        one.StopByOwner();
        other.StopByOwner();
        one.Join();
        other.Join();
    }
    Promise(!monitor.HasFailure(), "nobody has failed");
}

TERN_SCENARIO(monitor_loop_has_ended, "workers that fail when the loop's thread has been joined") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Worker one(monitor, Course::Fails);
    Loop loop(monitor);
    loop.Terminate();
    loop.Join();
    // Takes the id of the thread that has ended, as far as ids are given again.
    std::thread innocent([] { Call("innocent"); });
    one.Start();
    innocent.join();
    const Stopping stopping;
    one.StopByOwner();
    one.Join();
    Promise(monitor.HasFailure(), "the failure is known all the same");
}

}  // namespace tern::schedules

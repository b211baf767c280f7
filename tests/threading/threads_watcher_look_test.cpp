// What a look at the watched threads finds, and whom it leaves alone.

#include <optional>

#include "foundation/tell.h"
#include "threading/threads_watcher_fixture.h"

namespace mwl::Threading::Tests {
namespace {

// Takes SIGKILL from the watcher. One that a thread sends itself is left out: on a machine that is very busy
// the watch thread's messages may take too long.
class KillRecorder {
public:
    KillRecorder() {
        fault_pthread_kill.Replace(
            [this](pthread_t thread, int number) {
                EXPECT_EQ(number, SIGKILL);
                const std::lock_guard lock(mMutex);
                if (thread != pthread_self()) {
                    mKilled.push_back(thread);
                }
                return 0;
            },
            INT_MAX);
    }
    std::vector<unsigned long> Killed() {
        const std::lock_guard lock(mMutex);
        return mKilled;
    }

private:
    std::mutex mMutex;
    std::vector<unsigned long> mKilled;
    FaultScope<int(pthread_t, int)> mScope{fault_pthread_kill};
};

TEST_F(ThreadsWatcherTest, OneThreadIsKilledALookTheFirstInTheOrderOfTheSet) {
    KillRecorder recorder;
    ThreadWatched& first = std::min(&mPump, &mFan)[0];
    ThreadWatched& second = std::max(&mPump, &mFan)[0];
    // The second one from a thread with another id.
    std::atomic<bool> over{false};
    std::thread other([&] {
        second.StartWatch(milliseconds(1));
        WaitUntil([&] { return over.load(); });
        second.StopWatch();
    });
    first.StartWatch(milliseconds(1));
    ASSERT_TRUE(WaitUntil([&] { return second.GetThreadId() != 0; }));
    MovedClock::Advance(milliseconds(20100));
    EXPECT_TRUE(WaitUntil([&] { return recorder.Killed().size() >= 3; }));
    for (const unsigned long killed : recorder.Killed()) {
        EXPECT_EQ(killed, pthread_self());
    }
    over = true;
    other.join();
    first.StopWatch();
    EXPECT_TRUE(
        mLog.Contains(Error(LOGGER, "TaskWatch Thread [" + first.GetName() +
                                        "] is blocked, send kill on PID " + std::to_string(pthread_self()))));
}

/// Passes the registration on, but loses the end of it, as if it had not come yet.
class ForgetfulWatcher : public NiceMock<MockWatcher> {
public:
    explicit ForgetfulWatcher(ThreadsWatcherInterface& watcher) {
        ON_CALL(*this, Register).WillByDefault([&](ThreadWatched* thread) { watcher.Register(thread); });
    }
};

TEST_F(ThreadsWatcherTest, ThreadThatIsLeavingIsPassedOver) {
    KillRecorder recorder;
    ForgetfulWatcher forgetful(mWatcher);
    ThreadWatched leaving(forgetful, "leaving");
    leaving.StartWatch(milliseconds(1));
    leaving.StopWatch();
    MovedClock::Advance(milliseconds(20100));
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(3));
    EXPECT_THAT(recorder.Killed(), IsEmpty());
    EXPECT_THAT(mLog.Entries("Threading::ThreadWatched"), IsEmpty());
    mWatcher.Unregister(&leaving);
}

TEST_F(ThreadsWatcherTest, ThreadThatReportsIsLeftAlone) {
    KillRecorder recorder;
    mPump.StartWatch(milliseconds(1));
    for (int i = 0; i < 5; ++i) {
        MovedClock::Advance(milliseconds(15000));
        mPump.NotifyWork();
        MovedClock::ForgetWaits();
        EXPECT_TRUE(HasWaited(2));
    }
    mPump.StopWatch();
    EXPECT_THAT(recorder.Killed(), IsEmpty());
}

// All have been silent for the time that the whole process stood still. Whoever reports then is healthy.
TEST_F(ThreadsWatcherTest, LookThatWasHeldUpIsLeftOut) {
    KillRecorder recorder;
    mPump.StartWatch(milliseconds(500));
    ASSERT_TRUE(HasWaited(1));
    MovedClock::Advance(milliseconds(21000));
    ASSERT_TRUE(HasWaited(2));
    EXPECT_THAT(recorder.Killed(), IsEmpty());
    mPump.NotifyWork();
    ASSERT_TRUE(HasWaited(3));
    EXPECT_THAT(recorder.Killed(), IsEmpty());
    // And who does not report is not.
    MovedClock::Advance(milliseconds(21000));
    EXPECT_TRUE(WaitUntil([&] { return !recorder.Killed().empty(); }));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, EverybodyHasASecondToReportAfterAHoldUp) {
    // Long enough for the clock to move in a sleep, and not between two.
    mPump.StartWatch(milliseconds(500));
    ASSERT_TRUE(HasWaited(1));
    mPump.NotifyWork();
    MovedClock::ForgetWaits();
    MovedClock::Advance(milliseconds(15000));
    EXPECT_TRUE(WaitUntil([] {
        const std::vector<std::int64_t> waits = MovedClock::Waits();
        return std::find(waits.begin(), waits.end(), 1000) != waits.end();
    }));
    mPump.StopWatch();
}

// Whoever came with a shorter period in that time brought the look about, and with it the end of a process
// that had stood still.
TEST_F(ThreadsWatcherTest, ShorterPeriodDoesNotEndTheTimeToReportAfterAHoldUp) {
    static constexpr std::int64_t PERIOD_MS = 100000;
    const KillRecorder recorder;
    ThreadWatched late(mWatcher, "late");
    MovedClock::Freeze();
    mPump.StartWatch(milliseconds(2 * PERIOD_MS));
    ASSERT_TRUE(HasWaited(1));
    MovedClock::Advance(milliseconds(5 * PERIOD_MS));
    mFan.StartWatch(milliseconds(PERIOD_MS));
    const auto waitsBehind = [] {
        const std::vector<std::int64_t> waits = MovedClock::Waits();
        const auto period = std::find(waits.rbegin(), waits.rend(), PERIOD_MS);
        return period == waits.rend() ? std::nullopt : std::optional(std::vector(period.base(), waits.end()));
    };
    ASSERT_TRUE(WaitUntil([&] { return waitsBehind().has_value(); }));
    late.StartWatch(milliseconds(1));
    ASSERT_TRUE(WaitUntil([&] { return !waitsBehind()->empty(); }));
    // It would else be the one for the messages before a kill.
    EXPECT_EQ(waitsBehind()->front(), 1000);
    late.StopWatch();
    mFan.StopWatch();
    mPump.StopWatch();
}

/// Keeps a look that has found a blocked thread from going on.
class HeldLook {
public:
    HeldLook() {
        sHasFound = false;
        sMayGoOn = false;
        Tell::SetListener(&LISTENER);
    }
    ~HeldLook() {
        GoOn();
        Tell::SetListener(nullptr);
    }
    HeldLook(const HeldLook&) = delete;
    HeldLook& operator=(const HeldLook&) = delete;

    static bool HasFound() {
        return WaitUntil([] { return sHasFound.load(); });
    }
    static void GoOn() { sMayGoOn = true; }

private:
    static void OnEvent(Tell::Event event, const void*, std::uint64_t, const char*) noexcept {
        if (event == Tell::Event::Blocked) {
            sHasFound = true;
            WaitUntil([] { return sMayGoOn.load(); });
        }
    }
    static constexpr Tell::Listener LISTENER{Tell::Listener::VERSION, &OnEvent};
    static inline std::atomic<bool> sHasFound{false};
    static inline std::atomic<bool> sMayGoOn{false};
};

// The watch thread had left when the alarm was raised, so nobody ended it, and the process was killed in the
// middle of an orderly stop.
TEST_F(ThreadsWatcherTest, LookThatIsOvertakenByAStopRaisesNoAlarm) {
    std::atomic<int> kills{0};
    const FaultScope scope(fault_pthread_kill);
    fault_pthread_kill.Replace([&](pthread_t, int) { return ++kills, 0; }, INT_MAX);
    {
        const HeldLook look;
        ThreadsWatcher watcher(mMonitor);
        ThreadWatched watched(watcher, "pump");
        watched.StartWatch(milliseconds(1));
        MovedClock::Advance(milliseconds(20100));
        ASSERT_TRUE(HeldLook::HasFound());
        watcher.Stop();
        ASSERT_TRUE(mLog.WaitFor(STOPPED));
        HeldLook::GoOn();
        watched.StopWatch();
    }
    EXPECT_EQ(kills, 0);
}

TEST_F(ThreadsWatcherTest, MonitorStopsItWithTheOtherWorkers) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    ThreadsWatcher watcher(monitor);
    ThreadWatched watched(watcher, "pump");
    watched.StartWatch(hours(1));
    // Its thread registers some time after its start; once it has, the monitor alone stops it.
    EXPECT_TRUE(WaitUntil([&] {
        monitor.StopWorkerThreads();
        return mLog.Contains(STOPPED);
    }));
    watched.StopWatch();
}

}  // namespace
}  // namespace mwl::Threading::Tests

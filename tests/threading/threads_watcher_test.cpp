#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/supervision_doubles.h"
#include "threading/thread_state.h"
#include "threading/watching_doubles.h"

TERN_INTERPOSE(int, pthread_kill, (pthread_t thread, int number), (thread, number))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* bytes, size_t size), (fd, bytes, size))

namespace mwl::Threading {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using tern::test::CountThreads;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MovedClock;
using tern::test::Notice;
using tern::test::OtherThread;
using tern::test::RunInChild;
using tern::test::WaitUntil;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::NiceMock;
using ::testing::SizeIs;

const std::string LOGGER = "Threading::ThreadsWatcher";
const LogEntry STARTED = Notice(LOGGER, "TaskWatch Started");
const LogEntry STOPPED = Notice(LOGGER, "TaskWatch Stopped");
constexpr int ROUNDS = 20000 / tern::test::SLOWNESS;

/// A monitor that only counts.
class CountingMonitor : public ThreadsMonitorInterface {
public:
    void AddWorkerThread(ThreadManager& thread) override {
        EXPECT_EQ(thread.GetThreadId(), 0UL);
        ++added;
    }
    void RemoveWorkerThread(ThreadManager&) override { ++removed; }
    void SetDBusThreadId(unsigned long) override {}
    void StopWorkerThreads() override {}
    void NotifyDBusThreadToStop(bool) override { ADD_FAILURE(); }
    void NotifyDBusThreadToStopOnFailure() override { ADD_FAILURE(); }
    bool HasFailure() override { return false; }
    std::atomic<int> added{0};
    std::atomic<int> removed{0};
};

/// A watcher that watches nobody yet.
class ThreadsWatcherTest : public ::testing::Test {
protected:
    ThreadsWatcherTest() { MovedClock::ForgetWaits(); }
    ~ThreadsWatcherTest() override { MovedClock::Resume(); }

    LogEntry StartOf(const std::string& name, const std::string& period) {
        return Notice(LOGGER, "Start watch " + name + " (period " + period + " ms, threadId " +
                                  std::to_string(pthread_self()) + ")");
    }
    static bool HasWaited(std::size_t times) {
        return WaitUntil([=] { return MovedClock::Waits().size() >= times; });
    }

    CountingMonitor mMonitor;
    LogCapture mLog;
    ThreadsWatcher mWatcher{mMonitor};
    ThreadWatched mPump{mWatcher, "pump"};
    ThreadWatched mFan{mWatcher, "fan"};
};

TEST_F(ThreadsWatcherTest, IsIdleAtFirst) {
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    EXPECT_EQ(mWatcher.GetThreadId(), 0UL);
    EXPECT_EQ(mMonitor.added, 0);
}

TEST_F(ThreadsWatcherTest, NullIsIgnored) {
    mWatcher.Register(nullptr);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    EXPECT_EQ(mMonitor.added, 0);
    // The next one is the first still.
    mPump.StartWatch(hours(1));
    EXPECT_TRUE(mLog.WaitFor(STARTED));
    mWatcher.Unregister(nullptr);
    EXPECT_FALSE(mLog.Contains(Notice(LOGGER, "Stop watch pump")));
}

TEST_F(ThreadsWatcherTest, FirstRegistrationStartsTheWatchAndTheLastToLeaveEndsIt) {
    mPump.StartWatch(hours(1));
    ASSERT_TRUE(mLog.WaitFor(STARTED));
    mPump.StopWatch();
    ASSERT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(StartOf("pump", "3600000"), STARTED, Notice(LOGGER, "Stop watch pump"), STOPPED));
    EXPECT_EQ(mMonitor.added, 1);
}

TEST_F(ThreadsWatcherTest, WatchGoesOnUntilTheLastHasLeft) {
    mPump.StartWatch(milliseconds(1));
    mFan.StartWatch(milliseconds(1));
    mPump.StopWatch();
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(2));
    mFan.StopWatch();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_EQ(mLog.Count(STARTED), 1U);
}

TEST_F(ThreadsWatcherTest, RegistrationAfterTheLastLeftStartsANewWatch) {
    for (unsigned int i = 1; i <= 3; ++i) {
        mPump.StartWatch(hours(1));
        mPump.StopWatch();
        EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == i; }));
        EXPECT_EQ(mLog.Count(STARTED), i);
    }
}

TEST_F(ThreadsWatcherTest, ShortestPeriodCountsAndStays) {
    mPump.StartWatch(milliseconds(60000));
    ASSERT_TRUE(HasWaited(1));
    mFan.StartWatch(milliseconds(200));  // at once, not after the minute
    ASSERT_TRUE(HasWaited(2));
    mFan.StopWatch();
    MovedClock::ForgetWaits();
    ASSERT_TRUE(HasWaited(1));
    EXPECT_EQ(MovedClock::Waits()[0], 200);
    mFan.StartWatch(milliseconds(30000));  // a longer one changes nothing
    MovedClock::ForgetWaits();
    ASSERT_TRUE(HasWaited(1));
    EXPECT_EQ(MovedClock::Waits()[0], 200);
    mFan.StopWatch();
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, WaitsOnePeriodBetweenLooks) {
    mPump.StartWatch(milliseconds(5000));
    ASSERT_TRUE(HasWaited(1));
    mFan.StartWatch(milliseconds(2000));
    ASSERT_TRUE(HasWaited(2));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(5000, 2000));
    mFan.StopWatch();
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, PeriodMayGrowAfterEveryoneHasLeft) {
    mPump.StartWatch(milliseconds(200));
    mPump.StopWatch();
    ASSERT_TRUE(mLog.WaitFor(STOPPED));
    MovedClock::ForgetWaits();
    mPump.StartWatch(milliseconds(7000));
    ASSERT_TRUE(HasWaited(1));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(7000));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, PeriodBeyondAnIntIsClamped) {
    mPump.StartWatch(milliseconds(std::numeric_limits<std::int64_t>::max()));
    ASSERT_TRUE(HasWaited(1));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(INT_MAX));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, ThreadThatIsWatchedMayStartAnew) {
    mPump.StartWatch(hours(1));
    ASSERT_TRUE(HasWaited(1));
    mPump.StartWatch(milliseconds(300));
    ASSERT_TRUE(HasWaited(2));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(3600000, 300));
    mPump.StopWatch();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf("pump", "3600000"), STARTED, StartOf("pump", "300"),
                                            Notice(LOGGER, "Stop watch pump"), STOPPED));
}

TEST_F(ThreadsWatcherTest, UnregisteringAStrangerFromAnEmptySetStopsTheWatch) {
    mWatcher.Start();
    ASSERT_TRUE(mLog.WaitFor(STARTED));
    mWatcher.Unregister(&mPump);
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_FALSE(mLog.Contains(Notice(LOGGER, "Stop watch pump")));
}

TEST_F(ThreadsWatcherTest, StopWakesTheWatchAtOnceAndIsRepeatable) {
    mWatcher.Stop();
    mPump.StartWatch(hours(24));
    ASSERT_TRUE(HasWaited(1));
    mWatcher.Stop();
    mWatcher.Stop();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    mPump.StopWatch();
}

// Somebody else's Stop, a pool's for instance, stops the watch for all.
TEST_F(ThreadsWatcherTest, AfterStopTheWatchComesBackWhenAllHaveLeft) {
    mPump.StartWatch(hours(1));
    mWatcher.Stop();
    ASSERT_TRUE(mLog.WaitFor(STOPPED));
    mFan.StartWatch(hours(1));
    mFan.StopWatch();
    mPump.StopWatch();
    EXPECT_EQ(mLog.Count(STARTED), 1U);
    mFan.StartWatch(hours(1));
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    mFan.StopWatch();
}

TEST_F(ThreadsWatcherTest, StopEndsEveryWatchThatWasStarted) {
    mWatcher.Start();
    mWatcher.Start();
    ASSERT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    mWatcher.Stop();
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == 2; }));
}

TEST_F(ThreadsWatcherTest, DirectTaskWatchReturnsWhileTheWatchIsStopped) {
    mWatcher.TaskWatch();
    EXPECT_THAT(mLog.Entries(), ElementsAre(STARTED, STOPPED));
    EXPECT_EQ(mMonitor.added, 1);
}

TEST_F(ThreadsWatcherTest, DirectTaskWatchRunsUntilTheNextStop) {
    mPump.StartWatch(hours(1));
    std::thread own([&] { mWatcher.TaskWatch(); });
    ASSERT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    EXPECT_EQ(mLog.Count(STOPPED), 0U);
    mWatcher.Stop();
    own.join();
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == 2; }));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, RefusedThreadOfTheWatchLeavesTheThreadUnwatched) {
    const std::size_t threads = CountThreads();
    FaultScope scope(fault_pthread_create);
    for (const int created : {0, 1}) {
        fault_pthread_create.Fail(EAGAIN, 0, 1, created);
        EXPECT_THROW(mPump.StartWatch(hours(1)), std::system_error);
        EXPECT_EQ(fault_pthread_create.Calls(), created + 1);
        EXPECT_EQ(mPump.GetThreadId(), 0UL);
        EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
    }
    EXPECT_EQ(mLog.Count(STARTED), 0U);
    mWatcher.TaskWatch();  // not running: returns
    EXPECT_EQ(mLog.Count(STOPPED), 1U);
    // The next one is the first still, and starts the watch.
    mFan.StartWatch(hours(1));
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    mFan.StopWatch();
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == 2; }));
}

TEST_F(ThreadsWatcherTest, RefusedStartLeavesTheRunningWatchAlone) {
    mPump.StartWatch(hours(1));
    ASSERT_TRUE(mLog.WaitFor(STARTED));
    {
        FaultScope scope(fault_pthread_create);
        fault_pthread_create.Fail(EAGAIN);
        EXPECT_THROW(mWatcher.Start(), std::system_error);
        fault_pthread_create.Fail(EAGAIN, 0, 1, 1);
        EXPECT_THROW(mWatcher.Start(), std::system_error);
        fault_pthread_create.Fail(EAGAIN);
        EXPECT_THROW(mWatcher.TaskWatch(), std::system_error);
    }
    EXPECT_EQ(mLog.Count(STARTED), 1U);
    mFan.StartWatch(milliseconds(50));
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(2));
    mFan.StopWatch();
    mPump.StopWatch();
}

// Of two that come at the same time one starts the watch, and the other one's period counts.
TEST_F(ThreadsWatcherTest, OthersWaitWhileTheFirstRegistrationStartsTheWatch) {
    std::optional<OtherThread> other;
    FaultScope scope(fault_pthread_create);
    // The second thread is made without the lock of the watch's own state.
    fault_pthread_create.Replace(
        [&](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
            other.emplace([&] { mFan.StartWatch(milliseconds(1)); });
            EXPECT_TRUE(other->IsHeldUp());
            return fault_pthread_create.Real(thread, attributes, body, argument);
        },
        1, 1);
    mPump.StartWatch(hours(1));
    other.reset();
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(2));
    EXPECT_EQ(mLog.Count(STARTED), 1U);
    mFan.StopWatch();
    mPump.StopWatch();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
}

// The former entry was never taken out, so that the monitor had one more to stop with every restart.
TEST_F(ThreadsWatcherTest, RestartsDoNotGrowTheMonitorsList) {
    /// Counts how often it is told to stop.
    class CountedStops : public ThreadsWatcher {
    public:
        using ThreadsWatcher::ThreadsWatcher;
        void Stop() override {
            ++stops;
            ThreadsWatcher::Stop();
        }
        std::atomic<int> stops{0};
    };
    Signals signals;
    ThreadsMonitor monitor(signals);
    CountedStops watcher(monitor);
    ThreadWatched watched(watcher, "pump");
    constexpr unsigned int RESTARTS = 100;
    for (unsigned int i = 1; i <= RESTARTS; ++i) {
        watched.StartWatch(hours(1));
        watched.StopWatch();
        ASSERT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == i; }));
    }
    watcher.stops = 0;
    monitor.StopWorkerThreads();
    // The latest watch's, and the one that was kept while it began, unless it began so fast that its own was
    // there.
    EXPECT_THAT(watcher.stops.load(), AnyOf(1, 2));
}

TEST_F(ThreadsWatcherTest, EveryWatchRegistersAlsoAfterOneThatTheMonitorRefused) {
    NiceMock<MockMonitor> monitor;
    ThreadsWatcher watcher(monitor);
    EXPECT_CALL(monitor, AddWorkerThread)
        .WillOnce(::testing::Throw(std::bad_alloc()))
        .WillOnce(::testing::Return())
        .WillOnce(::testing::Return());
    EXPECT_THROW(watcher.TaskWatch(), std::bad_alloc);
    watcher.TaskWatch();
    watcher.TaskWatch();
}

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
    mPump.StartWatch(milliseconds(1));
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

/// Whether `Start` runs what a derived class makes of the loop.
class OwnLoop : public ThreadsWatcher {
public:
    using ThreadsWatcher::ThreadsWatcher;
    void TaskWatch() override { ran = true; }
    std::atomic<bool> ran{false};
};

TEST_F(ThreadsWatcherTest, StartRunsTaskWatch) {
    OwnLoop watcher(mMonitor);
    watcher.Start();
    EXPECT_TRUE(WaitUntil([&] { return watcher.ran.load(); }));
}

// The process-ending edge, for real. Called so that it runs first: a detached watch of another test may still
// be ending, and a child of several threads cannot make its own under ThreadSanitizer.
TEST(ThreadsWatcherDeathTest, BlockedThreadEndsTheProcessWithSigkill) {
    const auto result = RunInChild([] {
        NiceMock<MockMonitor> monitor;
        ThreadsWatcher watcher(monitor);
        ThreadWatched watched(watcher, "pump");
        MovedClock::Freeze();
        watched.StartWatch(milliseconds(50));
        MovedClock::Advance(milliseconds(20001));
        pause();
        return 0;
    });
    EXPECT_EQ(result.signal, SIGKILL);
    EXPECT_FALSE(result.timedOut);
    ASSERT_THAT(result.log, SizeIs(4));
    EXPECT_EQ(result.log[1], STARTED);
    EXPECT_EQ(result.log[2], Error("Threading::ThreadWatched",
                                   "Thread (pump) is blocked (period 50 ms, lastWork 20001 ms)"));
    const std::string start = "Start watch pump (period 50 ms, threadId ";
    ASSERT_EQ(result.log[0].text.substr(0, start.size()), start);
    std::string id = result.log[0].text.substr(start.size());
    id.pop_back();
    EXPECT_EQ(result.log[3], Error(LOGGER, "TaskWatch Thread [pump] is blocked, send kill on PID " + id));
}

/// An instant that a child tells its parent, on a clock that no test moves.
class ToldInstant {
public:
    ToldInstant() {
        void* const page =
            mmap(nullptr, sizeof(std::int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        mInstant = static_cast<std::int64_t*>(page);
    }
    ~ToldInstant() { munmap(mInstant, sizeof *mInstant); }
    ToldInstant(const ToldInstant&) = delete;
    ToldInstant& operator=(const ToldInstant&) = delete;

    void Tell() { *mInstant = Now(); }
    bool IsTold() const { return *mInstant != 0; }
    milliseconds Since() const { return milliseconds(Now() - *mInstant); }

private:
    static std::int64_t Now() {
        timespec now{};
        clock_gettime(CLOCK_BOOTTIME, &now);
        return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    }
    std::int64_t* mInstant;
};

/// In a child: everything that is logged after so many messages hangs for ever, the logger with it.
void LetTheLogGetStuckAfter(int messages) {
    fault_write.Replace(
        [](int, const void*, size_t) -> ssize_t {
            while (true) {
                pause();
            }
        },
        INT_MAX, messages);
}

/// Lets time go by, less than a second a look, until the thread has been silent for too long; tells when.
void LetTooMuchTimeGoBy(const ThreadWatched& watched, ToldInstant& due) {
    constexpr milliseconds STEP{900};
    // The clock moves in these steps only: on a busy machine a look would come late by it and be left out.
    MovedClock::Freeze();
    while (!due.IsTold()) {
        const std::size_t looks = MovedClock::Waits().size();
        if (watched.GetElapsedTimeSinceLastWork() + STEP > milliseconds(20000)) {
            due.Tell();
        }
        MovedClock::Advance(STEP);
        WaitUntil([looks] { return MovedClock::Waits().size() > looks; }, hours(1));
    }
}

// It logs before it kills: once the watch thread hung in its own message, and the blocked thread lived on.
TEST(ThreadsWatcherDeathTest, KillComesWithinASecondWhereverTheLogGetsStuck) {
    for (const int messages : {1, 2, 3}) {  // Start watch; TaskWatch Started; is blocked
        ToldInstant due;
        const auto result = RunInChild(
            [&] {
                NiceMock<MockMonitor> monitor;
                ThreadsWatcher watcher(monitor);
                ThreadWatched watched(watcher, "pump");
                LetTheLogGetStuckAfter(messages);
                watched.StartWatch(milliseconds(50));
                LetTooMuchTimeGoBy(watched, due);
                pause();
                return 0;
            },
            std::chrono::seconds(15));
        ASSERT_TRUE(due.IsTold());
        EXPECT_LE(due.Since(), milliseconds(1000) + tern::test::TOLERANCE) << messages << " messages";
        EXPECT_EQ(result.signal, SIGKILL);
        EXPECT_FALSE(result.timedOut) << messages << " messages";
        EXPECT_THAT(result.log, SizeIs(messages));
    }
}

// It held the mutex that the watch needs while it wrote its message.
TEST(ThreadsWatcherDeathTest, ThreadThatHangsInTheMessageOfItsEndKeepsNobodyFromTheKill) {
    ToldInstant due;
    const auto result = RunInChild(
        [&] {
            NiceMock<MockMonitor> monitor;
            ThreadsWatcher watcher(monitor);
            ThreadWatched watched(watcher, "pump");
            watched.StartWatch(milliseconds(50));
            WaitUntil([] { return !MovedClock::Waits().empty(); });
            std::atomic<bool> isWatched{false};
            std::thread leaving([&] {
                ThreadWatched leaver(watcher, "fan");
                leaver.StartWatch(milliseconds(50));
                LetTheLogGetStuckAfter(0);
                isWatched = true;
                leaver.StopWatch();
            });
            WaitUntil([&] { return isWatched && fault_write.Calls() > 0; });
            LetTooMuchTimeGoBy(watched, due);
            pause();
            return 0;
        },
        std::chrono::seconds(15));
    ASSERT_TRUE(due.IsTold());
    EXPECT_LE(due.Since(), milliseconds(1000) + tern::test::TOLERANCE);
    EXPECT_EQ(result.signal, SIGKILL);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.log.back().text.substr(0, 15), "Start watch fan");
}

// Once whoever had not reported in the first moment after SIGCONT was taken as blocked.
TEST(ThreadsWatcherDeathTest, HealthyProcessSurvivesBeingStopped) {
    constexpr int HURRY = 10;
    const auto result = RunInChild([] {
        NiceMock<MockMonitor> monitor;
        ThreadsWatcher watcher(monitor);
        MovedClock::Hurry(HURRY);
        std::atomic<bool> isOver{false};
        std::vector<std::thread> threads;
        threads.reserve(16);
        for (int i = 0; i < 16; ++i) {
            threads.emplace_back([&] {
                ThreadWatched watched(watcher, "healthy");
                watched.StartWatch(milliseconds(200));
                while (!isOver) {
                    usleep(1000000 / HURRY);
                    watched.NotifyWork();
                }
                watched.StopWatch();
            });
        }
        const pid_t self = getpid();
        const pid_t stopper = fork();
        if (stopper == 0) {
            usleep(300000);
            kill(self, SIGSTOP);
            usleep(21000000 / HURRY);
            kill(self, SIGCONT);
            _exit(0);
        }
        int status = 0;
        waitpid(stopper, &status, 0);
        MovedClock::ForgetWaits();
        WaitUntil([] { return MovedClock::Waits().size() >= 5; });
        isOver = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
        return 7;
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exitCode, 7);
    for (const LogEntry& entry : result.log) {
        EXPECT_GT(entry.level, 3) << entry.text;
    }
}

TEST(ThreadsWatcherDeathTest, AtTheLimitNothingIsKilled) {
    const auto result = RunInChild([] {
        NiceMock<MockMonitor> monitor;
        ThreadsWatcher watcher(monitor);
        ThreadWatched watched(watcher, "pump");
        MovedClock::Freeze();
        watched.StartWatch(milliseconds(5));
        MovedClock::Advance(milliseconds(20000));
        MovedClock::ForgetWaits();
        while (MovedClock::Waits().size() < 5) {
            usleep(1000);
        }
        watched.StopWatch();
        return 7;
    });
    EXPECT_EQ(result.exitCode, 7);
}

// A stop that the sleeping watch missed would last for the whole day that it sleeps.
TEST(ThreadsWatcher, NoStopIsLostAndTheLoopOutlivesNoWatcher) {
    const LogCapture log(2);
    CountingMonitor monitor;
    const std::size_t threads = CountThreads();
    for (int round = 0; round < ROUNDS; ++round) {
        ThreadsWatcher watcher(monitor);
        ThreadWatched watched(watcher, "pump");
        watched.StartWatch(hours(24));
        if (round % 2 == 0) {
            watched.StopWatch();
        }
    }
    EXPECT_EQ(monitor.added, ROUNDS);
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
}

// The former run leaves, the new one stays, even when the stop and the start come in one breath.
TEST(ThreadsWatcher, RestartAtOnceLeavesOneWatchRunning) {
    LogCapture log(2);
    CountingMonitor monitor;
    ThreadsWatcher watcher(monitor);
    ThreadWatched watched(watcher, "pump");
    watched.StartWatch(hours(24));
    // With the sanitizer's own thread, which starts with the first one of ours.
    const std::size_t threads = CountThreads();
    for (int round = 1; round <= ROUNDS; ++round) {
        watched.StopWatch();
        watched.StartWatch(hours(24));
        if (round % 100 == 0) {
            ASSERT_TRUE(WaitUntil([&] { return CountThreads() <= threads; })) << "a former run did not leave";
            watched.StartWatch(milliseconds(1));
            MovedClock::ForgetWaits();
            ASSERT_TRUE(WaitUntil([&] { return !MovedClock::Waits().empty(); })) << "nobody watches";
        }
    }
    ASSERT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
    watched.StopWatch();
    watched.StartWatch(hours(24));
    watched.StopWatch();
    EXPECT_TRUE(WaitUntil([&] { return monitor.added == ROUNDS + 2; })) << "every watch registers";
    EXPECT_LE(monitor.added - monitor.removed, 2);
}

// Registrations, ends and stops from everywhere, under ThreadSanitizer's eyes: no race, no lock held in
// another order.
TEST(ThreadsWatcher, ManyThreadsComeAndGo) {
    const LogCapture log(2);
    Signals signals;
    ThreadsMonitor monitor(signals);
    ThreadsWatcher watcher(monitor);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            ThreadWatched watched(watcher, "worker");
            for (int round = 0; round < ROUNDS / 100; ++round) {
                watched.StartWatch(milliseconds(1 + (round + i) % 5));
                watched.NotifyWork();
                if (round % 10 == 0) {
                    monitor.StopWorkerThreads();
                }
                watched.StopWatch();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(monitor.HasFailure());
}

}  // namespace
}  // namespace mwl::Threading

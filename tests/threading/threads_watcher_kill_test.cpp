// The end of the process, for real, in children.

#include "threading/threads_watcher_fixture.h"

namespace mwl::Threading::Tests {
namespace {

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

}  // namespace
}  // namespace mwl::Threading::Tests

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <tern/timer/short_period_timer.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <thread>

#include "short_period_timer_parts.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, sigprocmask, (int how, const sigset_t* set, sigset_t* former), (how, set, former))

namespace {

using namespace tern::test;
using mwl::StatusCode;
using mwl::Timer::ShortPeriodTimer;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ShortPeriodTimer, ConfigureSigSetBlocksThatSignalAlone) {
    std::thread([] {
        sigset_t before;
        pthread_sigmask(SIG_BLOCK, nullptr, &before);
        sigset_t set;
        sigfillset(&set);
        EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, SIGRTMIN + 1), StatusCode::Ok);
        sigset_t after;
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        for (int signo = 1; signo <= SIGRTMAX; ++signo) {
            EXPECT_EQ(sigismember(&set, signo) == 1, signo == SIGRTMIN + 1) << signo;
            EXPECT_EQ(sigismember(&after, signo) == 1,
                      signo == SIGRTMIN + 1 || sigismember(&before, signo) == 1)
                << signo;
        }
    }).join();
}

TEST(ShortPeriodTimer, ConfigureSigSetFailsWithItsSteps) {
    const LogCapture log;
    sigset_t set;
    EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, 0), StatusCode::Failure);
    EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, 1000), StatusCode::Failure);
    FaultScope scope(fault_sigprocmask);
    fault_sigprocmask.Fail(-1, EINVAL);
    EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, SIGRTMIN), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

/// The thread's body on a thread of the test's own.
class ThreadMain : public testing::Test {
protected:
    void Run(const std::function<void()>& callback, int signo = SIGRTMIN) {
        mThread = std::thread([this, callback, signo] {
            try {
                ShortPeriodTimer::ThreadMain(mStartUp, mThreadId, mRunning, callback, signo);
            } catch (const std::bad_function_call&) {
                mEmptyCallback = true;
            }
        });
        mStatus = mStartUp.get_future().get();
    }
    void ClearRunning() { std::atomic_ref(mRunning).store(false); }

    LogCapture mLog;
    std::promise<StatusCode> mStartUp;
    int mThreadId = 0;
    bool mRunning = true;
    bool mEmptyCallback = false;
    StatusCode mStatus = StatusCode::Busy;
    std::thread mThread;
};

TEST_F(ThreadMain, CallsBackAtEachSignalUntilTold) {
    std::atomic<int> calls{0};
    Run([&] { ++calls; });
    EXPECT_EQ(mStatus, StatusCode::Ok);
    for (int i = 1; i <= 3; ++i) {
        Signal(mThreadId, SIGRTMIN);
        ASSERT_TRUE(WaitUntil([&] { return calls == i; }));
    }
    ClearRunning();
    Signal(mThreadId, SIGRTMIN);
    mThread.join();
    EXPECT_EQ(calls, 4) << "it calls back one last time, then sees the flag";
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId), EXIT));
}

TEST_F(ThreadMain, LeavesAtOnceWhenNotRunning) {
    mRunning = false;
    Run([] { ADD_FAILURE(); });
    EXPECT_EQ(mStatus, StatusCode::Ok);
    mThread.join();
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId), EXIT));
}

TEST_F(ThreadMain, ReportsThatTheSignalCouldNotBeBlocked) {
    Run([] { ADD_FAILURE(); }, 1000);
    EXPECT_EQ(mStatus, StatusCode::Failure);
    mThread.join();
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId), Info(LOGGER, "Exit timer thread, status=1")));
}

TEST_F(ThreadMain, EmptyCallbackRaises) {
    Run(nullptr);
    Signal(mThreadId, SIGRTMIN);
    mThread.join();
    EXPECT_TRUE(mEmptyCallback);
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId)));
}

TEST_F(ThreadMain, FailedWaitIsWaitedAgain) {
    FaultScope scope(fault_sigwait);
    fault_sigwait.Fail(EINVAL, 0, 2);
    std::atomic<int> calls{0};
    Run([&] {
        ++calls;
        ClearRunning();
    });
    Signal(mThreadId, SIGRTMIN);
    mThread.join();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(fault_sigwait.Calls(), 3);
}

}  // namespace

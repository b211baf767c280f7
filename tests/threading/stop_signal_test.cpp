#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <tern/threading/stop_signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, sigaction, (int number, const struct sigaction* action, struct sigaction* old),
               (number, action, old))
TERN_INTERPOSE(int, pthread_kill, (pthread_t thread, int number), (thread, number))

namespace mwl::Threading {
namespace {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::RunInChild;
using tern::test::WaitUntil;
using ::testing::ElementsAre;

const std::string LOGGER = "Threading::StopSignal";
const std::string REGISTERING = "Register signal 10 and signal handler before multi-threading";

std::string Id(unsigned long thread) {
    return "[" + std::to_string(thread) + "]";
}

TEST(StopSignal, RegisterInstallsAHandlerThatLetsCallsFailWithEINTR) {
    LogCapture log;
    EXPECT_EQ(StopSignal::Register(), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), ElementsAre(Info(LOGGER, REGISTERING)));

    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
    EXPECT_EQ(
        static_cast<unsigned int>(action.sa_flags) & (SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_SIGINFO),
        0U);
    for (int number = 1; number < SIGRTMAX; ++number) {
        EXPECT_EQ(sigismember(&action.sa_mask, number), 0) << number;
    }
    EXPECT_NE(action.sa_handler, SIG_DFL);
    EXPECT_NE(action.sa_handler, SIG_IGN);
}

TEST(StopSignal, RegisterTwiceIsHarmless) {
    EXPECT_EQ(StopSignal::Register(), StatusCode::Ok);
    EXPECT_EQ(StopSignal::Register(), StatusCode::Ok);
}

TEST(StopSignal, FailingRegisterIsLoggedAndReturned) {
    LogCapture log;
    FaultScope scope(fault_sigaction);
    fault_sigaction.Fail(-1, EFAULT);
    EXPECT_EQ(StopSignal::Register(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Info(LOGGER, REGISTERING),
                            Error(LOGGER, "Failed to define action for signal 10, errno[14]")));
}

TEST(StopSignal, BringsAThreadOutOfABlockingCall) {
    ASSERT_EQ(StopSignal::Register(), StatusCode::Ok);
    LogCapture log;
    std::atomic<bool> left{false};
    std::atomic<int> error{0};
    std::thread sleeper([&] {
        const timespec hour{3600, 0};
        error = nanosleep(&hour, nullptr) == -1 ? errno : 0;
        left = true;
    });
    const auto id = static_cast<unsigned long>(sleeper.native_handle());
    // Until it has left: a signal that comes before the sleep is spent.
    EXPECT_TRUE(WaitUntil([&] {
        if (!left) {
            StopSignal::SendToThread(id);
        }
        return left.load();
    }));
    sleeper.join();
    EXPECT_EQ(error, EINTR);
    const auto entries = log.Entries();
    ASSERT_GE(entries.size(), 2U);
    EXPECT_EQ(entries[0], Info(LOGGER, "Notify thread " + Id(id)));
    EXPECT_EQ(entries[1], Info(LOGGER, "Notification sent to thread " + Id(id)));
}

TEST(StopSignal, FailingSendIsLogged) {
    LogCapture log;
    FaultScope scope(fault_pthread_kill);
    fault_pthread_kill.Fail(EAGAIN);
    const auto self = static_cast<unsigned long>(pthread_self());
    StopSignal::SendToThread(self);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Info(LOGGER, "Notify thread " + Id(self)),
                            Error(LOGGER, "Failed to notify thread " + Id(self) + ", error=11")));
}

// With id 0 the C library's own function reads through the null pointer.
TEST(StopSignal, ThreadZeroIsNoSuchThread) {
    LogCapture log;
    FaultScope scope(fault_pthread_kill);
    fault_pthread_kill.Fail(0, 0, 1);
    StopSignal::SendToThread(0);
    EXPECT_EQ(fault_pthread_kill.Calls(), 0);
    EXPECT_THAT(log.Entries(), ElementsAre(Info(LOGGER, "Notify thread [0]"),
                                           Error(LOGGER, "Failed to notify thread [0], error=3")));
}

TEST(StopSignal, WithoutRegisterTheSignalEndsTheProcess) {
    const auto result = RunInChild([] {
        signal(SIGUSR1, SIG_DFL);
        StopSignal::SendToThread(pthread_self());
        return 0;
    });
    EXPECT_EQ(result.signal, SIGUSR1);
}

}  // namespace
}  // namespace mwl::Threading

#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <tern/threading/signals.h>

#include <cerrno>

#include "support/interpose.h"
#include "support/log_capture.h"

TERN_INTERPOSE(int, pthread_kill, (pthread_t thread, int number), (thread, number))

namespace mwl::Threading {
namespace {

using tern::test::FaultScope;
using tern::test::LogCapture;
using ::testing::IsEmpty;

TEST(Signals, SendsTheSignalToTheThread) {
    FaultScope scope(fault_pthread_kill);
    pthread_t to = 0;
    int sent = 0;
    fault_pthread_kill.Replace([&](pthread_t thread, int number) {
        to = thread;
        sent = number;
        return 0;
    });
    Signals signals;
    EXPECT_EQ(signals.SendSignal(pthread_self(), SIGUSR1), 0);
    EXPECT_EQ(to, pthread_self());
    EXPECT_EQ(sent, SIGUSR1);
}

TEST(Signals, ReachesALivingThread) {
    Signals signals;
    EXPECT_EQ(signals.SendSignal(pthread_self(), 0), 0);
}

TEST(Signals, ReturnsTheErrorNumberUnchanged) {
    FaultScope scope(fault_pthread_kill);
    Signals signals;
    SignalsInterface& base = signals;
    fault_pthread_kill.Fail(EAGAIN);
    EXPECT_EQ(base.SendSignal(pthread_self(), SIGUSR1), EAGAIN);
    fault_pthread_kill.Reset();
    EXPECT_EQ(base.SendSignal(pthread_self(), 1000), EINVAL);
}

// With id 0 the C library's own function reads through the null pointer.
TEST(Signals, ThreadZeroIsNoSuchThread) {
    LogCapture log;
    FaultScope scope(fault_pthread_kill);
    fault_pthread_kill.Fail(0, 0, 1);
    Signals signals;
    EXPECT_EQ(signals.SendSignal(0, SIGTERM), ESRCH);
    EXPECT_EQ(fault_pthread_kill.Calls(), 0);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

}  // namespace
}  // namespace mwl::Threading

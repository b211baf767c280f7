#include "support/child.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "support/interpose.h"
#include "support/process_resources.h"

TERN_INTERPOSE(int, pipe2, (int* ends, int flags), (ends, flags))
TERN_INTERPOSE(pid_t, fork, (), ())

namespace tern::test {
namespace {

/// Tells of a child when it has ended, then reaps it.
std::string EndOf(pid_t child) {
    siginfo_t end{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT), 0);
    const std::string text = DescribeChild(child);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    return text;
}

TEST(DescribeChild, TellsHowItEnded) {
    const pid_t exiting = fork();
    if (exiting == 0) {
        _exit(7);
    }
    EXPECT_EQ(EndOf(exiting), "process " + std::to_string(exiting) + " has ended with exit status 7");
    EXPECT_EQ(DescribeChild(exiting), "there is no process " + std::to_string(exiting) + " to wait for");
    EXPECT_EQ(DescribeChild(-1), "there is no process -1 to wait for");
}

TEST(DescribeChild, TellsWhatEndedIt) {
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    EXPECT_EQ(DescribeChild(child), "process " + std::to_string(child) + " is running");
    EXPECT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(EndOf(child), "process " + std::to_string(child) + " was ended by signal 9 (Killed)");
}

// The end of a capture ended the collecting as well.
TEST(RunInChild, CollectsWhatTheChildLogsWhileItCapturesAndAfterwards) {
    const std::string name = "Name";
    const ChildResult result = RunInChild([&] {
        TERN_LOG_INFO(name, "before");
        int taken = 0;
        {
            const LogCapture log;
            TERN_LOG_INFO(name, "meanwhile");
            taken = static_cast<int>(log.Entries().size());
        }
        TERN_LOG_TRACE(name, "afterwards");
        return taken;
    });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.log, testing::ElementsAre(Info(name, "before"), Info(name, "meanwhile"),
                                                 Trace(name, "afterwards")));
    EXPECT_EQ(result.error, "");
}

// It overflowed: the child was killed before it had begun.
TEST(RunInChild, TheLongestLimitIsNone) {
    const ChildResult result = RunInChild([] { return 3; }, std::chrono::milliseconds::max());
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 3);
    int looks = 0;
    EXPECT_TRUE(WaitUntil([&] { return ++looks == 3; }, std::chrono::milliseconds::max()));
}

// What it had opened before the call that failed stayed open.
TEST(RunInChild, WithoutAChildNoDescriptorIsLeft) {
    const FaultScope pipeScope(fault_pipe2);
    const FaultScope forkScope(fault_fork);
    const auto run = [] { static_cast<void>(RunInChild([] { return 0; })); };
    const std::size_t descriptors = CountDescriptors();
    for (const int skip : {0, 1}) {
        fault_pipe2.Fail(-1, EMFILE, 1, skip);
        EXPECT_THROW(run(), std::system_error) << skip;
        EXPECT_EQ(CountDescriptors(), descriptors) << skip;
    }
    fault_fork.Fail(-1, EAGAIN);
    EXPECT_THROW(run(), std::system_error);
    EXPECT_EQ(CountDescriptors(), descriptors);
    run();
    EXPECT_EQ(CountDescriptors(), descriptors);
}

// The child left RunInChild with it, and ran the rest of the parent's tests.
TEST(RunInChild, AnythingThatIsThrownEndsTheChild) {
    const ChildResult result = RunInChild([]() -> int { throw 7; });
    EXPECT_EQ(result.exitCode, 125);
    EXPECT_EQ(result.error, "exception in the child\n");
    EXPECT_EQ(RunInChild([]() -> int { throw std::runtime_error("text"); }).error,
              "exception in the child: text\n");
}

}  // namespace
}  // namespace tern::test

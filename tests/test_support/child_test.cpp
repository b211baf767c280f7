#include "support/child.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace
}  // namespace tern::test

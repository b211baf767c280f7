#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "process_execution/command_fixture.h"

namespace mwl::ProcessExecution {
namespace {

// Time limit

TEST_F(CommandTest, AProgramBeyondItsTimeIsKilledAndNotWaitedFor) {
    LogCapture log;
    const Outcome outcome = RunScript("echo early; exec sleep 1000", "", 200);
    ExpectEnd(outcome, 1, "early\n");
    EXPECT_GE(outcome.elapsed.count(), 200);
    EXPECT_LE(outcome.elapsed, std::chrono::milliseconds(200 + 100) + tern::test::TOLERANCE);
    EXPECT_EQ(log.Count(Error(NAME, "Command [sh] aborted by timeout 200ms")), 1U);
    EXPECT_THAT(Messages(log),
                Not(Contains(testing::Field(&LogEntry::text, HasSubstr("Process completed")))));
    int status = 0;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(CommandTest, TheTimeLimitHoldsForAProgramThatNeverStopsWriting) {
    for (const char* const script : {"exec yes", "while :; do echo x; done", "yes & wait"}) {
        const Outcome outcome = RunScript(script, "", 60);
        EXPECT_EQ(outcome.status, StatusCode::Ok);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_GE(outcome.elapsed.count(), 60);
        EXPECT_LE(outcome.elapsed, std::chrono::milliseconds(60 + 100) + tern::test::TOLERANCE);
        EXPECT_EQ(ReapChildren(), 1);
    }
}

// The writer is as if always faster than the reader: a read that would find the pipe empty waits for more.
// What one pass takes is bounded all the same, also the last one, when the child has ended and a grandchild
// writes on.
TEST_F(CommandTest, APassReadsABoundedAmount) {
    FaultScope pollScope(fault_poll);
    FaultScope readScope(fault_read);
    for (const char* const script : {"exec yes", "yes & sleep 0.1; exit 4"}) {
        std::size_t amount = 0;
        std::size_t largest = 0;
        fault_poll.Replace(
            [&](pollfd* events, nfds_t count, int timeoutMs) {
                amount = 0;
                return fault_poll.Real(events, count, timeoutMs);
            },
            1000000);
        fault_read.Replace(
            [&](int fd, void* data, std::size_t size) {
                ssize_t taken = 0;
                // Four times the bound: a reader without one has shown itself by then.
                do {
                    taken = fault_read.Real(fd, data, size);
                } while (taken < 0 && errno == EAGAIN && amount < 4 * MIB);
                amount += taken > 0 ? static_cast<std::size_t>(taken) : 0;
                largest = std::max(largest, amount);
                return taken;
            },
            1000000);
        EXPECT_EQ(RunScript(script, "", 200).status, StatusCode::Ok);
        EXPECT_LE(largest, MIB) << script;
        EXPECT_GT(largest, 0U);
        ReapChildren();
    }
}

TEST_F(CommandTest, ATimeLimitOfZeroKillsAtOnce) {
    LogCapture log;
    const Outcome outcome = RunScript("exec sleep 1000", "", 0);
    ExpectEnd(outcome, 1, "");
    EXPECT_TRUE(log.Contains(Error(NAME, "Command [sh] aborted by timeout 0ms")));
    EXPECT_LE(outcome.elapsed, std::chrono::milliseconds(100) + tern::test::TOLERANCE);
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, TheLargestTimeLimitIsNone) {
    ExpectEnd(RunScript("echo x", "", ~0U), 0, "x\n");
}

TEST_F(CommandTest, TheLimitIsKeptToTheMillisecond) {
    std::string output;
    int exitCode = -1;
    LogCapture log;
    FaultScope scope(fault_clock_gettime);
    // Exactly the limit is within it; the operation that is given none has 40 seconds.
    FixElapsed(40000);
    EXPECT_EQ(Command::Run("/bin/echo", "in time", output, exitCode), StatusCode::Ok);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(output, "in time\n");
    FixElapsed(40001);
    EXPECT_EQ(Command::Run("/bin/sleep", "1000", output, exitCode), StatusCode::Ok);
    EXPECT_EQ(exitCode, 1);
    EXPECT_TRUE(log.Contains(Error(NAME, "Command [sleep] aborted by timeout 40000ms")));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, NoWaitGoesBeyondTheTimeLimit) {
    FaultScope clockScope(fault_clock_gettime);
    FaultScope pollScope(fault_poll);
    std::vector<int> waits;
    fault_poll.Replace(
        [&](pollfd* events, nfds_t count, int timeoutMs) {
            waits.push_back(timeoutMs);
            return fault_poll.Real(events, count, timeoutMs);
        },
        1000);
    std::string output;
    int exitCode = -1;
    FixElapsed(120);
    EXPECT_EQ(Command::RunWithInput("/bin/sleep", "", "0.1", output, exitCode, 150), StatusCode::Ok);
    EXPECT_EQ(exitCode, 0);
    EXPECT_THAT(waits, Not(testing::IsEmpty()));
    EXPECT_THAT(waits, Each(31));  // until 151 ms, when the limit is exceeded
    waits.clear();
    FixElapsed(0);
    EXPECT_EQ(Command::RunWithInput("/bin/sleep", "", "0.1", output, exitCode, 150), StatusCode::Ok);
    EXPECT_THAT(waits, Each(100));
}

// Logging a line takes longer than reading it, and the lines of one read are many.
TEST_F(CommandTest, TheTimeLimitHoldsWhileShortLinesAreLogged) {
    LogCapture log;
    const Outcome outcome = RunScript("exec yes ''", "", 400);
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_GE(outcome.elapsed.count(), 400);
    EXPECT_LE(outcome.elapsed, std::chrono::milliseconds(400 + 100) + tern::test::TOLERANCE);
    EXPECT_EQ(log.Count(Error(NAME, "Command [sh] aborted by timeout 400ms")), 1U);
    EXPECT_EQ(ReapChildren(), 1);
}

/// Lets a millisecond pass between any two looks at the clock.
void PassAMillisecondAtEachLook() {
    timespec now{};
    static_cast<void>(fault_clock_gettime.Real(CLOCK_MONOTONIC, &now));
    fault_clock_gettime.Replace(
        [now](clockid_t clock, timespec* time) mutable {
            if (clock != CLOCK_MONOTONIC) {
                return fault_clock_gettime.Real(clock, time);
            }
            now.tv_nsec += 1000000;
            if (now.tv_nsec >= 1000000000) {
                now.tv_nsec -= 1000000000;
                ++now.tv_sec;
            }
            *time = now;
            return 0;
        },
        1000000);
}

TEST_F(CommandTest, TheTimeIsLookedAtBeforeEachLoggedLine) {
    LogCapture log;
    FaultScope pollScope(fault_poll);
    FaultScope clockScope(fault_clock_gettime);
    fault_poll.Replace(PollAfterTheEnd);
    PassAMillisecondAtEachLook();
    // All of it is read; of the lines those are logged for which there is time.
    ExpectEnd(RunScript("yes '' | head -c 20000", "", 60), 0, std::string(20000, '\n'));
    const std::size_t logged = Lines(log).size() - 1;
    EXPECT_GE(logged, 100U);
    EXPECT_LE(logged, 160U);
    EXPECT_EQ(Lines(log).back(),
              Trace(NAME, "Line " + std::to_string(logged) + " and the following, " +
                              std::to_string(20000 - logged) + " bytes, are not logged: the time is up"));
}

// A line for which a pass has no time is logged in the next.
TEST_F(CommandTest, LinesOfALongOutputAreAllLoggedWithinTheTimeLimit) {
    LogCapture log;
    FaultScope scope(fault_clock_gettime);
    PassAMillisecondAtEachLook();
    ExpectEnd(RunScript("yes '' | head -c 20000"), 0, std::string(20000, '\n'));
    const std::vector<LogEntry> lines = Lines(log);
    ASSERT_EQ(lines.size(), 20000U);
    EXPECT_EQ(lines.back(), Trace(NAME, "Line 19999: \n"));
}

// The caller is stopped (SIGSTOP, the freezer) from before the program's end until after the time limit.
TEST_F(CommandTest, AProgramThatEndedInTimeIsNotAbortedThoughItsCallerWasStopped) {
    const tern::test::ChildResult result = tern::test::RunInChild([] {
        const Outcome outcome = RunScript(
            "(sleep 2.5; kill -CONT $PPID) >&- 2>&- & echo done; kill -STOP $PPID; exit 5", "", 2000);
        return outcome.status == StatusCode::Ok && outcome.elapsed.count() > 2000 &&
                       outcome.output == "done\n"
                   ? outcome.exitCode
                   : 100;
    });
    EXPECT_EQ(result.exitCode, 5);
    EXPECT_THAT(result.log, Not(Contains(Error(NAME, "Command [sh] aborted by timeout 2000ms"))));
    EXPECT_THAT(result.log, Contains(Trace(NAME, "Line 0: done\n")));
}

TEST_F(CommandTest, TheLastLookBeforeTheKillFindsAnEndedProgram) {
    LogCapture log;
    FaultScope pollScope(fault_poll);
    FaultScope clockScope(fault_clock_gettime);
    FaultScope killScope(fault_kill);
    fault_poll.Replace(PollAfterTheEnd);
    FixElapsed(1001);
    fault_kill.Fail(0, 0, 1);
    std::string output;
    int exitCode = -1;
    EXPECT_EQ(Command("/bin/echo", 1000).Run({"in time"}, output, exitCode), StatusCode::Ok);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(output, "in time\n");
    EXPECT_EQ(fault_kill.Calls(), 0);
    EXPECT_EQ(Lines(log), std::vector{Trace(NAME, "Line 0: in time\n")});
    EXPECT_THAT(Messages(log), Contains(Trace(NAME, "PID[N] Process completed, exit status [0]")));
}

// What is no child of this process any more may have become somebody else's process.
TEST_F(CommandTest, WhatCannotBeWaitedForIsNotKilled) {
    LogCapture log;
    FaultScope clockScope(fault_clock_gettime);
    FaultScope waitScope(fault_waitpid);
    FaultScope killScope(fault_kill);
    FixElapsed(1001);
    fault_waitpid.Fail(-1, ECHILD);
    fault_kill.Fail(0, 0, 1);
    const Outcome outcome = RunProgram(Command("/bin/true", 1000), {});
    EXPECT_EQ(outcome.status, StatusCode::Failure);
    EXPECT_EQ(fault_kill.Calls(), 0);
    EXPECT_EQ(Messages(log).back(), Error(NAME, "Failed to execute command [true]"));
    EXPECT_EQ(ReapChildren(), 1);
}

}  // namespace
}  // namespace mwl::ProcessExecution

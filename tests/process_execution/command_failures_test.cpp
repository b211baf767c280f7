// Calls of the system that fail during a run.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "process_execution/command_fixture.h"

namespace mwl::ProcessExecution {
namespace {

// Programs that cannot be executed

TEST_F(CommandTest, AProgramThatCannotBeExecuted) {
    const struct {
        const char* path;
        const char* name;
        const char* text;
    } ROWS[] = {{"/nowhere/tool", "tool", "No such file or directory"},
                {"/etc/passwd", "passwd", "Permission denied"},
                {"/bin", "bin", "Permission denied"},
                {"", "", "No such file or directory"}};
    for (const auto& row : ROWS) {
        LogCapture log;
        ExpectEnd(RunProgram(Command(row.path, LIMIT_MS), {}), 1, "");
        EXPECT_EQ(
            Messages(log),
            (LaunchOf(row.path, row.name) +
             std::vector<LogEntry>{
                 Error(NAME, "PID[0] Failed to execute command with error [" + std::string(row.text) + "]"),
                 Trace(NAME, "PID[N] Process completed, exit status [256]"),
                 Warning(NAME, "PID[N] Execute command failed with exit status: 1 ")}));
    }
}

// The child writes nothing: with a logger on standard error its message would be the program's output.
TEST_F(CommandTest, AProgramThatCannotBeExecutedHasNoOutput) {
    ExpectEnd(RunProgram(Command("/nowhere/tool", LIMIT_MS), {}, Text(MIB)), 1, "");
}

TEST_F(CommandTest, AFailedDuplicationIsReportedByTheParent) {
    FaultScope scope(fault_dup2);
    const char* const TEXTS[] = {"Duplicate Stdin failed with error code: [Device or resource busy]",
                                 "Duplicate Stdout failed with error code: [Device or resource busy]",
                                 "Duplicate Stderr failed with error code: [Device or resource busy]"};
    for (int i = 0; i < 3; ++i) {
        LogCapture log;
        fault_dup2.Fail(-1, EBUSY, 1, i);
        ExpectEnd(RunProgram(Command("/bin/echo", LIMIT_MS), {}), 1, "");
        EXPECT_EQ(Messages(log),
                  (LaunchOf("/bin/echo", "echo") +
                   std::vector<LogEntry>{
                       Error(NAME, TEXTS[i]), Trace(NAME, "PID[N] Process completed, exit status [256]"),
                       Warning(NAME, "PID[N] Execute command failed with exit status: 1 ")}));
    }
}

// The child fails after the last look at it, and the time is up.
TEST_F(CommandTest, AProgramThatCannotBeExecutedIsReportedAlsoWhenItsTimeIsUp) {
    FaultScope pollScope(fault_poll);
    FaultScope clockScope(fault_clock_gettime);
    FaultScope waitScope(fault_waitpid);
    FaultScope killScope(fault_kill);
    const LogEntry failed =
        Error(NAME, "PID[0] Failed to execute command with error [No such file or directory]");
    for (const bool isKilled : {true, false}) {
        LogCapture log;
        fault_poll.Replace(PollAfterTheEnd);
        FixElapsed(1001);
        fault_waitpid.Fail(0);
        if (!isKilled) {
            fault_kill.Fail(-1, EPERM);
        }
        std::string output;
        int exitCode = -1;
        EXPECT_EQ(Command("/nowhere/tool", 1000).Run({}, output, exitCode),
                  isKilled ? StatusCode::Ok : StatusCode::NotPermitted);
        EXPECT_EQ(exitCode, 1);
        const LogEntry end = isKilled ? Error(NAME, "Command [tool] aborted by timeout 1000ms")
                                      : Error(NAME, "PID[N] Kill failed: Operation not permitted");
        EXPECT_EQ(Messages(log), (LaunchOf("/nowhere/tool", "tool") + std::vector<LogEntry>{failed, end}));
        EXPECT_EQ(ReapChildren(), 1);
    }
}

TEST_F(CommandTest, AProgramThatCannotBeExecutedIsReportedAlsoWithoutAStream) {
    FaultScope streamScope(fault_fdopen);
    FaultScope pollScope(fault_poll);
    LogCapture log;
    fault_fdopen.Fail(nullptr, ENOMEM);
    // The wait for the child's word ends with it; how long it may take at most is not waited out.
    int limitMs = -1;
    fault_poll.Replace([&](pollfd* events, nfds_t count, int timeoutMs) {
        limitMs = timeoutMs;
        return fault_poll.Real(events, count, 30000);
    });
    const Outcome outcome = RunProgram(Command("/nowhere/tool", LIMIT_MS), {});
    EXPECT_EQ(outcome.status, StatusCode::StreamError);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(limitMs, 100);
    const std::vector<LogEntry> all = log.Entries(NAME);
    ASSERT_EQ(all.size(), 5U);
    EXPECT_EQ(all[3], Error(NAME, "Open stream failed with error code: Cannot allocate memory"));
    EXPECT_EQ(all[4], Error(NAME, "PID[0] Failed to execute command with error [No such file or directory]"));
    EXPECT_EQ(ReapChildren(), 1);
}

// Failing calls in the parent

TEST_F(CommandTest, FailingPipes) {
    FaultScope scope(fault_pipe2);
    const std::vector<LogEntry> begin{Info(NAME, "Execute the program: /bin/echo"),
                                      Trace(NAME, "Execute the command line: echo"),
                                      Trace(NAME, "Command arguments: ")};
    const std::vector<LogEntry> ROWS[] = {{Error(NAME, "Cannot open stdin pipe")},
                                          {Error(NAME, "Cannot open stdout pipe")},
                                          {Error(NAME, "Cannot open failure pipe")}};
    for (int i = 0; i < 3; ++i) {
        LogCapture log;
        fault_pipe2.Fail(-1, EMFILE, 1, i);
        const Outcome outcome = RunProgram(Command("/bin/echo", LIMIT_MS), {});
        EXPECT_EQ(outcome.status, StatusCode::ResourceUnavailable) << i;
        EXPECT_EQ(outcome.exitCode, 1) << i;
        EXPECT_EQ(outcome.output, "") << i;
        EXPECT_EQ(log.Entries(), begin + ROWS[i]) << i;
    }
}

TEST_F(CommandTest, AFailingStart) {
    FaultScope scope(fault_start);
    LogCapture log;
    fault_start.Fail(-1, EAGAIN);
    const Outcome outcome = RunProgram(Command("/bin/echo", LIMIT_MS), {}, "text");
    EXPECT_EQ(outcome.status, StatusCode::ResourceUnavailable);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Info(NAME, "Execute the program: /bin/echo"),
                    Trace(NAME, "Execute the command line: echo"), Trace(NAME, "Command arguments: "),
                    Info(NAME, "Command input: 'text'"),
                    Error(NAME, "Fork process failed with error code: [Resource temporarily unavailable]")));
}

TEST_F(CommandTest, AFailedWriteOfTheInputIsToldAndIgnored) {
    FaultScope scope(fault_write);
    LogCapture log;
    int fd = -1;
    fault_write.Replace([&](int to, const void*, std::size_t) {
        fd = to;
        errno = EIO;
        return ssize_t{-1};
    });
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, "text"), 0, "");
    // It comes before "Launched", as in any run.
    const std::vector<LogEntry> all = log.Entries(NAME);
    ASSERT_GE(all.size(), 6U);
    const std::string number = all[5].text.substr(0, all[5].text.find(']') + 1);
    EXPECT_EQ(all[4], Info(NAME, number + " write to pipe " + std::to_string(fd) +
                                     " failed (errno=Input/output error)"));
    EXPECT_EQ(all[5], Info(NAME, number + " Launched... "));
}

TEST_F(CommandTest, AnInterruptedWriteIsRepeated) {
    FaultScope scope(fault_write);
    for (const int error : {EINTR, EAGAIN}) {
        fault_write.Fail(-1, error);
        ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, "text"), 0, "text");
    }
}

TEST_F(CommandTest, AFailingStream) {
    LogCapture log;
    FaultScope scope(fault_fdopen);
    fault_fdopen.Fail(nullptr, ENOMEM);
    const Outcome outcome = RunProgram(Command("/bin/echo", LIMIT_MS), {});
    EXPECT_EQ(outcome.status, StatusCode::StreamError);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(log.Entries(NAME).size(), 4U);
    EXPECT_EQ(log.Entries(NAME).back(),
              Error(NAME, "Open stream failed with error code: Cannot allocate memory"));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, AStreamWithoutADescriptor) {
    LogCapture log;
    FaultScope scope(fault_fileno);
    fault_fileno.Fail(-1, EBADF);
    const Outcome outcome = RunProgram(Command("/bin/echo", LIMIT_MS), {});
    EXPECT_EQ(outcome.status, StatusCode::InvalidArgument);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(log.Entries(NAME).size(), 4U);
    EXPECT_EQ(log.Entries(NAME).back(),
              Error(NAME, "Not able to get file descriptor for open stream: Bad file descriptor"));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, AStreamThatStaysBlocking) {
    FaultScope scope(fault_fcntl64);
    for (const int skip : {0, 1}) {  // F_GETFL, F_SETFL
        LogCapture log;
        fault_fcntl64.Fail(-1, EPERM, 1, skip);
        const Outcome outcome = RunProgram(Command("/bin/echo", LIMIT_MS), {}, "text");
        EXPECT_EQ(outcome.status, StatusCode::NotPermitted);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_EQ(log.Entries(NAME).size(), 5U);
        EXPECT_EQ(log.Entries(NAME).back(),
                  Error(NAME, "Not able to set open stream as non-blocking: Operation not permitted"));
        EXPECT_EQ(ReapChildren(), 1);
    }
}

// The program is not left alone: the run goes on to its end, and its failure is told by the status.
TEST_F(CommandTest, AnInterruptedPollFailsTheRunButDoesNotCutIt) {
    LogCapture log;
    FaultScope scope(fault_poll);
    fault_poll.Fail(-1, EINTR);
    const Outcome outcome = RunScript("echo a; sleep 0.1; echo b");
    EXPECT_EQ(outcome.status, StatusCode::Interrupted);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.output, "a\nb\n");
    const std::vector<LogEntry> messages = Messages(log);
    EXPECT_EQ(std::ranges::count(messages, Error(NAME, "PID[N] Poll failed: Interrupted system call")), 1);
}

TEST_F(CommandTest, APollThatFailsForGoodDoesNotSpin) {
    LogCapture log;
    FaultScope scope(fault_poll);
    fault_poll.Fail(-1, ENOMEM, 1000000);
    const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, Text(200000));
    EXPECT_EQ(outcome.status, StatusCode::OutOfMemory);
    EXPECT_EQ(outcome.exitCode, 1);
    ExpectText(outcome.output, Text(200000));
    const std::vector<LogEntry> messages = Messages(log);
    const auto count =
        std::ranges::count(messages, Error(NAME, "PID[N] Poll failed: Cannot allocate memory"));
    EXPECT_GE(count, 1);
    EXPECT_LE(count, 30);
}

TEST_F(CommandTest, AFailingWait) {
    LogCapture log;
    FaultScope scope(fault_waitpid);
    fault_waitpid.Fail(-1, ECHILD);
    const Outcome outcome = RunProgram(Command("/bin/true", LIMIT_MS), {});
    EXPECT_EQ(outcome.status, StatusCode::Failure);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(Messages(log), (LaunchOf("/bin/true", "true") +
                              std::vector<LogEntry>{Error(NAME, "Failed to execute command [true]")}));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, AFailingKill) {
    LogCapture log;
    FaultScope scope(fault_kill);
    pid_t pid = -1;
    int number = 0;
    fault_kill.Replace([&](pid_t to, int what) {
        pid = to;
        number = what;
        errno = EPERM;
        return -1;
    });
    const Outcome outcome = RunProgram(Command("/bin/sleep", 100), {"1000"});
    EXPECT_EQ(outcome.status, StatusCode::NotPermitted);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(number, SIGKILL);
    EXPECT_EQ(log.Entries(NAME).back(),
              Error(NAME, "PID[" + std::to_string(pid) + "] Kill failed: Operation not permitted"));
    ASSERT_GT(pid, 0);
    fault_kill.Real(pid, SIGKILL);
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, AnInterruptedReadLosesNothing) {
    FaultScope scope(fault_read);
    fault_read.Fail(-1, EINTR, 3);
    ExpectEnd(RunScript("echo some text"), 0, "some text\n");
    EXPECT_GE(fault_read.Calls(), 4);
}

// Its program may then wait in a full pipe for ever: the time limit ends it.
TEST_F(CommandTest, AnOutputThatCannotBeReadIsToldOf) {
    LogCapture log;
    FaultScope scope(fault_read);
    fault_read.Replace(
        [](int fd, void* data, std::size_t size) {
            if (size < 1000) {  // not the output's
                return fault_read.Real(fd, data, size);
            }
            errno = EIO;
            return ssize_t{-1};
        },
        1000000);
    const Outcome outcome = RunScript("echo some text; sleep 0.1");
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(log.Count(Error(NAME, "Not able to read the output any further: Input/output error")), 1U);
}

// The rest of the hazards

TEST_F(CommandTest, AParentWithoutStandardDescriptors) {
    for (int missing = 1; missing < 8; ++missing) {
        const tern::test::ChildResult result = tern::test::RunInChild([missing] {
            for (int fd = 0; fd < 3; ++fd) {
                if ((missing >> fd & 1) != 0) {
                    close(fd);
                }
            }
            const Descriptors expected = ExpectedDescriptors();
            const Outcome outcome = RunScript("cat; echo error >&2; " + LIST_DESCRIPTORS, "text\n");
            const bool passed = outcome.status == StatusCode::Ok && outcome.exitCode == 0 &&
                                outcome.output.starts_with("text\nerror\n") &&
                                ParseDescriptors(outcome.output.substr(11)) == expected;
            return passed ? 0 : 1;
        });
        EXPECT_EQ(result.exitCode, 0) << missing;
    }
}

TEST_F(CommandTest, AParentWithoutStandardDescriptorsWhosePipeCannotBeMoved) {
    const struct {
        int skip;
        const char* text;
    } ROWS[] = {{0, "Cannot open stdin pipe"}, {1, "Cannot open stdin pipe"}, {2, "Cannot open stdout pipe"}};
    for (const auto& row : ROWS) {
        const tern::test::ChildResult result = tern::test::RunInChild([&row] {
            close(0);
            close(1);
            close(2);
            const std::size_t descriptors = tern::test::CountDescriptors();
            fault_fcntl64.Fail(-1, EMFILE, 1, row.skip);
            const Outcome outcome = RunProgram(Command("/bin/echo", LIMIT_MS), {});
            return outcome.status == StatusCode::ResourceUnavailable && outcome.exitCode == 1 &&
                           tern::test::CountDescriptors() == descriptors
                       ? 0
                       : 1;
        });
        EXPECT_EQ(result.exitCode, 0) << row.skip;
        EXPECT_THAT(result.log, Contains(Error(NAME, row.text)));
    }
}

}  // namespace
}  // namespace mwl::ProcessExecution

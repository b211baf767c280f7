#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "process_execution/command_fixture.h"

namespace mwl::ProcessExecution {
namespace {

// Input

TEST_F(CommandTest, InputReachesTheProgramThenEndOfFile) {
    LogCapture log;
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, "first\nsecond"), 0, "first\nsecond");
    EXPECT_EQ(log.Entries(NAME).at(3), Info(NAME, "Command input: 'first\nsecond'"));
}

TEST_F(CommandTest, WithoutInputTheProgramIsAtEndOfFile) {
    LogCapture log;
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}), 0, "");
    EXPECT_THAT(Messages(log), Each(testing::Field(&LogEntry::text, Not(HasSubstr("Command input")))));
}

// An input is a text: it ends at its first zero byte.
TEST_F(CommandTest, InputEndsAtItsFirstZeroByte) {
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, std::string("ab\0cd", 5)), 0, "ab");
    LogCapture log;
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, std::string("\0cd", 3)), 0, "");
    EXPECT_TRUE(log.Contains(Info(NAME, "Command input: ''")));
}

TEST_F(CommandTest, TheFirstWriteIsOfferedTheWholeInput) {
    FaultScope scope(fault_write);
    std::vector<std::size_t> sizes;
    fault_write.Replace(
        [&](int fd, const void* data, std::size_t size) {
            sizes.push_back(size);
            return fault_write.Real(fd, data, size);
        },
        1);
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, "twelve bytes"), 0, "twelve bytes");
    EXPECT_THAT(sizes, ElementsAre(12U));
}

// Feeder and program wait for each other more seldom then.
TEST_F(CommandTest, AnInputThatIsLongerThanAPipeGetsALargeOne) {
    FaultScope scope(fault_fcntl64);
    std::vector<long> sizes;
    fault_fcntl64.Replace(
        [&](int fd, int operation, long argument) {
            if (operation == F_SETPIPE_SZ) {
                sizes.push_back(argument);
            }
            return fault_fcntl64.Real(fd, operation, argument);
        },
        1000);
    const std::size_t pipe = 64UL * 1024;
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, Text(pipe)), 0, Text(pipe));
    EXPECT_THAT(sizes, testing::IsEmpty());
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, Text(pipe + 1)), 0, Text(pipe + 1));
    EXPECT_THAT(sizes, ElementsAre(256 * 1024));
}

TEST_F(CommandTest, FiveMebibytesThroughAProgram) {
    ASSERT_GT(5 * MIB, 65536U);  // more than a pipe holds, in both directions
    const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, Text(5 * MIB));
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_TRUE(outcome.output == Text(5 * MIB)) << outcome.output.size();
}

// Its end is looked for a mebibyte ahead.
TEST_F(CommandTest, InputsOfAnySizeArriveWhole) {
    for (const std::size_t size : {std::size_t{1}, MIB - 1, MIB, MIB + 1, 2 * MIB}) {
        const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, Text(size));
        EXPECT_EQ(outcome.exitCode, 0);
        EXPECT_TRUE(outcome.output == Text(size)) << size << ", " << outcome.output.size();
    }
}

TEST_F(CommandTest, InputAndOutputMayBeTheSameString) {
    std::string text = Text(MIB);
    int exitCode = -1;
    EXPECT_EQ(Command("/bin/cat", LIMIT_MS).RunWithInput(text, {}, text, exitCode), StatusCode::Ok);
    EXPECT_TRUE(text == Text(MIB) + Text(MIB));
}

TEST_F(CommandTest, AProgramThatNeverReadsALargeInputMayEnd) {
    ExpectEnd(RunScript("echo done; exit 9", Text(5 * MIB)), 9, "done\n");
}

TEST_F(CommandTest, TheTimeLimitHoldsForAProgramThatNeverReadsALargeInput) {
    LogCapture log;
    const Outcome outcome = RunScript("exec sleep 1000", Text(5 * MIB), 200);
    ExpectEnd(outcome, 1, "");
    EXPECT_GE(outcome.elapsed.count(), 200);
    EXPECT_TRUE(log.Contains(Error(NAME, "Command [sh] aborted by timeout 200ms")));
    EXPECT_EQ(ReapChildren(), 1);
}

/// Runs a program that closes its input, then waits until that has been noticed.
void CloseInputEarly(const LogCapture& log) {
    const tern::test::TempFolder folder;
    const std::string noticed = folder / "noticed";
    std::thread notice([&] {
        EXPECT_TRUE(tern::test::WaitUntil([&] {
            return std::ranges::count_if(log.Entries(NAME), [](const LogEntry& entry) {
                       return entry.level == 6 && entry.text.find("] write to pipe ") != std::string::npos &&
                              entry.text.ends_with(" failed (errno=Broken pipe)");
                   }) == 1;
        }));
        std::ofstream(noticed).put('x');
    });
    ExpectEnd(RunScript("exec <&-; echo closed; while [ ! -e " + noticed + " ]; do sleep 0.01; done; exit 3",
                        Text(5 * MIB)),
              3, "closed\n");
    notice.join();
}

TEST_F(CommandTest, AProgramThatClosesItsInputEarlyHarmsNobody) {
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    ASSERT_EQ(action.sa_handler, SIG_DFL);  // a SIGPIPE would end this program
    LogCapture log;
    CloseInputEarly(log);
}

TEST_F(CommandTest, ASigpipeThatWasPendingBeforeStaysPending) {
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    raise(SIGPIPE);
    {
        LogCapture log;
        CloseInputEarly(log);
    }
    const timespec now{};
    EXPECT_EQ(sigtimedwait(&sigpipe, nullptr, &now), SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &sigpipe, nullptr);
}

TEST_F(CommandTest, ProgramsInheritTheSignalMaskAsItWas) {
    const Command grep("/bin/grep", LIMIT_MS);
    const std::vector<std::string> arguments{"SigBlk", "/proc/self/status"};
    ExpectEnd(RunProgram(grep, arguments, "input"), 0, "SigBlk:\t0000000000000000\n");
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    ExpectEnd(RunProgram(grep, arguments, "input"), 0, "SigBlk:\t0000000000004000\n");
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
}

}  // namespace
}  // namespace mwl::ProcessExecution

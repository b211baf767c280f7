#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "process_execution/command_fixture.h"

namespace mwl::ProcessExecution {
namespace {

// Construction and arguments

TEST_F(CommandTest, NameIsWhatFollowsTheLastSeparator) {
    const struct {
        const char* path;
        const char* name;
    } ROWS[] = {{"/bin/true", "true"}, {"true", "true"}, {"./tool", "tool"}, {"/a/b.c/d e", "d e"},
                {"/bin/", ""},         {"", ""},         {"/", ""}};
    for (const auto& row : ROWS) {
        std::vector<char*> argv;
        Command(row.path, 1).FormatArguments({}, argv);
        ASSERT_EQ(argv.size(), 2U) << row.path;
        // The command is gone; only the shape may be looked at here.
        Command command(row.path, 1);
        command.FormatArguments({}, argv);
        EXPECT_STREQ(argv[0], row.name) << row.path;
        EXPECT_EQ(argv[1], nullptr) << row.path;
    }
}

TEST_F(CommandTest, FormatArgumentsFillsAndLogs) {
    LogCapture log;
    Command command("/usr/bin/tool", "other", 1);
    const std::vector<std::string> arguments{"-a", "b c", ""};
    std::vector<char*> argv(7, nullptr);
    command.FormatArguments(arguments, argv);
    ASSERT_EQ(argv.size(), 5U);
    EXPECT_STREQ(argv[0], "other");
    EXPECT_EQ(argv[1], arguments[0].c_str());
    EXPECT_EQ(argv[2], arguments[1].c_str());
    EXPECT_EQ(argv[3], arguments[2].c_str());
    EXPECT_EQ(argv[4], nullptr);
    EXPECT_THAT(log.Entries(), ElementsAre(Info(NAME, "Execute the program: /usr/bin/tool"),
                                           Trace(NAME, "Execute the command line: other -a b c "),
                                           Trace(NAME, "Command arguments: -a b c ")));
}

TEST_F(CommandTest, DebugMessagesHaveNoBlankAtTheEnd) {
    LogCapture log;
    Command command("/bin/tool", 1);
    std::vector<char*> argv;
    command.FormatArguments({"a", "b"}, argv);
    command.FormatArguments({}, argv);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Info(NAME, "Execute the program: /bin/tool"),
                    Trace(NAME, "Execute the command line: tool a b"), Trace(NAME, "Command arguments: a b"),
                    Info(NAME, "Execute the program: /bin/tool"),
                    Trace(NAME, "Execute the command line: tool"), Trace(NAME, "Command arguments: ")));
}

TEST_F(CommandTest, OnlyTheDestructorIsVirtual) {
    static_assert(std::has_virtual_destructor_v<Command>);
    struct Fields {
        virtual ~Fields() = default;
        std::string path;
        std::string name;
        unsigned int timeoutMs = 0;
    };
    static_assert(sizeof(Command) == sizeof(Fields));
    ExpectEnd(RunProgram(Command("/bin/sh", "my name", LIMIT_MS), {"-c", "echo $0"}), 0, "my name\n");
}

// Runs that end by themselves

TEST_F(CommandTest, CollectsOutputAndExitCode) {
    LogCapture log;
    ExpectEnd(RunScript("printf 'one\\ntwo\\nthree\\n'"), 0, "one\ntwo\nthree\n");
    EXPECT_THAT(
        Messages(log),
        ElementsAre(Info(NAME, "Execute the program: /bin/sh"),
                    Trace(NAME, "Execute the command line: sh -c printf 'one\\ntwo\\nthree\\n'"),
                    Trace(NAME, "Command arguments: -c printf 'one\\ntwo\\nthree\\n'"),
                    Info(NAME, "PID[N] Launched... "), testing::_, testing::_, testing::_, testing::_));
    EXPECT_TRUE(Messages(log).size() == 8);
    EXPECT_THAT(Messages(log), Contains(Trace(NAME, "PID[N] Process completed, exit status [0]")));
    EXPECT_THAT(Lines(log), ElementsAre(Trace(NAME, "Line 0: one\n"), Trace(NAME, "Line 1: two\n"),
                                        Trace(NAME, "Line 2: three\n")));
}

TEST_F(CommandTest, ACopyRunsTheSameProgram) {
    Command other("/bin/true", 1);
    {
        const Command original("/bin/sh", "my name", LIMIT_MS);
        ExpectEnd(RunProgram(original, {"-c", "echo $0"}), 0, "my name\n");
        other = original;
    }
    ExpectEnd(RunProgram(other, {"-c", "echo $0"}), 0, "my name\n");
}

TEST_F(CommandTest, TheNumberInTheMessagesIsTheChilds) {
    LogCapture log;
    const Outcome outcome = RunScript("echo $$; read x; exit 3", "");
    const std::string number = outcome.output.substr(0, outcome.output.size() - 1);
    EXPECT_TRUE(log.Contains(Info(NAME, "PID[" + number + "] Launched... ")));
    EXPECT_TRUE(log.Contains(Trace(NAME, "PID[" + number + "] Process completed, exit status [768]")));
    EXPECT_TRUE(
        log.Contains(Warning(NAME, "PID[" + number + "] Execute command failed with exit status: 3 ")));
}

TEST_F(CommandTest, EachPassOfARunningProgramIsTraced) {
    LogCapture log;
    const Outcome outcome = RunScript("echo $$; sleep 0.3");
    const std::string number = outcome.output.substr(0, outcome.output.size() - 1);
    EXPECT_TRUE(log.Contains(Trace(NAME, "PID[" + number + "] Process running, status [0]")));
}

TEST_F(CommandTest, ExitCodesOfPrograms) {
    for (const int code : {0, 1, 2, 77, 126, 255}) {
        LogCapture log;
        ExpectEnd(RunScript("exit " + std::to_string(code)), code, "");
        const LogEntry warning =
            Warning(NAME, "PID[N] Execute command failed with exit status: " + std::to_string(code) + " ");
        EXPECT_EQ(Messages(log).back() == warning, code != 0) << code;
    }
}

TEST_F(CommandTest, AProgramThatASignalEndsLeavesOne) {
    for (const int number : {SIGKILL, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGUSR1}) {
        LogCapture log;
        ExpectEnd(RunScript("ulimit -c 0; echo said; kill -" + std::to_string(number) + " $$"), 1, "said\n");
        EXPECT_THAT(Messages(log), Contains(Trace(NAME, "PID[N] Process completed, exit status [" +
                                                            std::to_string(number) + "]")));
        EXPECT_THAT(Messages(log), Not(Contains(testing::Field(&LogEntry::level, 4))));
    }
}

TEST_F(CommandTest, StandardErrorIsCollectedInOrder) {
    ExpectEnd(RunScript("echo out; echo err >&2; echo again"), 0, "out\nerr\nagain\n");
}

TEST_F(CommandTest, OutputIsAppended) {
    LogCapture log;
    std::string output = "before\n";
    int exitCode = -1;
    EXPECT_EQ(Command("/bin/echo", LIMIT_MS).Run({"after"}, output, exitCode), StatusCode::Ok);
    EXPECT_THAT(Lines(log), ElementsAre(Trace(NAME, "Line 0: after\n")));
    EXPECT_EQ(output, "before\nafter\n");
    EXPECT_EQ(exitCode, 0);
}

TEST_F(CommandTest, OutputIsKeptByteForByte) {
    LogCapture log;
    ExpectEnd(RunScript("printf 'a\\000b\\377\\200\\n\\001'"), 0, std::string("a\0b\xff\x80\n\x01", 7));
    EXPECT_THAT(Lines(log), ElementsAre(Trace(NAME, "Line 0: a"), Trace(NAME, "Line 1: \x01")));
}

TEST_F(CommandTest, LongLinesAreTracedInPieces) {
    LogCapture log;
    const std::string line = Text(300);
    std::string flat = line;
    std::replace(flat.begin(), flat.end(), '\n', '-');
    ExpectEnd(RunProgram(Command("/bin/cat", LIMIT_MS), {}, flat + "\n" + flat.substr(0, 127) + "\nend"), 0,
              flat + "\n" + flat.substr(0, 127) + "\nend");
    EXPECT_THAT(Lines(log), ElementsAre(Trace(NAME, "Line 0: " + flat.substr(0, 127)),
                                        Trace(NAME, "Line 1: " + flat.substr(127, 127)),
                                        Trace(NAME, "Line 2: " + flat.substr(254) + "\n"),
                                        Trace(NAME, "Line 3: " + flat.substr(0, 127)),
                                        Trace(NAME, "Line 4: \n"), Trace(NAME, "Line 5: end")));
}

TEST_F(CommandTest, TracedPiecesMakeUpTheWholeOutput) {
    LogCapture log;
    const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, Text(3 * MIB / 2));
    std::string traced;
    int number = 0;
    for (const LogEntry& entry : Lines(log)) {
        const std::string prefix = "Line " + std::to_string(number++) + ": ";
        ASSERT_TRUE(entry.text.starts_with(prefix)) << entry.text;
        ASSERT_LE(entry.text.size() - prefix.size(), 127U);
        traced += entry.text.substr(prefix.size());
    }
    ExpectText(outcome.output, Text(3 * MIB / 2));
    EXPECT_TRUE(traced == outcome.output);
}

TEST_F(CommandTest, BelowDebugNothingIsTraced) {
    LogCapture log(6);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_THAT(Messages(log),
                ElementsAre(Info(NAME, "Execute the program: /bin/sh"), Info(NAME, "PID[N] Launched... ")));
}

TEST_F(CommandTest, FiftyMebibytesOfOutput) {
    const Outcome outcome = RunScript("head -c 52428800 /dev/zero | tr '\\000' x");
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.output.size(), 50 * MIB);
    EXPECT_EQ(outcome.output.find_first_not_of('x'), std::string::npos);
}

TEST_F(CommandTest, ALongOutputFollowsWhatWasThere) {
    std::string expected = "before\n";
    for (int number = 1; number <= 500000; ++number) {
        expected += std::to_string(number) + "\n";
    }
    std::string output = "before\n";
    int exitCode = -1;
    EXPECT_EQ(Command("/bin/sh", 60000).Run({"-c", "seq 500000; exit 3"}, output, exitCode), StatusCode::Ok);
    EXPECT_EQ(exitCode, 3);
    EXPECT_TRUE(output == expected);
}

// What was read before was collected elsewhere than what follows; the logged lines are the end of the output.
TEST_F(CommandTest, ALongOutputWhoseLinesAreLoggedFromItsMiddleOnIsWhole) {
    const LogCapture log(6);
    FaultScope scope(fault_read);
    // Much before, so that it is collected in pieces, and little after, as each line is logged.
    constexpr std::size_t BEFORE = 4 * MIB - MIB / 8;
    std::size_t bytes = 0;
    fault_read.Replace(
        [&](int fd, void* data, std::size_t size) {
            const bool isOutput = size > 1000;
            if (isOutput && bytes >= BEFORE) {
                tern::test::SetLogThreshold(7);
            }
            const ssize_t count =
                fault_read.Real(fd, data, isOutput ? std::min<std::size_t>(size, 32768) : size);
            bytes += isOutput && count > 0 ? static_cast<std::size_t>(count) : 0;
            return count;
        },
        1000000);
    const std::string text = Text(4 * MIB);
    const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, text);
    ExpectText(outcome.output, text);
    std::string traced;
    int number = 0;
    for (const LogEntry& entry : Lines(log)) {
        traced += entry.text.substr(("Line " + std::to_string(number++) + ": ").size());
    }
    EXPECT_GT(number, 0);
    EXPECT_LE(traced.size(), 4 * MIB - BEFORE);
    EXPECT_TRUE(text.ends_with(traced));
}

TEST_F(CommandTest, EverythingAnEndedProgramLeftIsRead) {
    FaultScope scope(fault_poll);
    fault_poll.Replace(PollAfterTheEnd);
    EXPECT_EQ(RunScript("head -c 65536 /dev/zero").output.size(), 65536U);
}

// A program with the privilege may make its pipe larger than a pass reads. A file holds as much without it.
TEST_F(CommandTest, EverythingAnEndedProgramLeftInALargePipeIsRead) {
    const tern::test::TempFolder folder;
    FaultScope pipeScope(fault_pipe2);
    fault_pipe2.Replace(
        [&](int* ends, int flags) {
            const std::string path = folder / "output";
            ends[1] = open(path.c_str(), O_WRONLY | O_CREAT | flags, 0600);
            ends[0] = open(path.c_str(), O_RDONLY | flags);
            return ends[0] >= 0 && ends[1] >= 0 ? 0 : -1;
        },
        1, 1);
    FaultScope pollScope(fault_poll);
    fault_poll.Replace(PollAfterTheEnd);
    ExpectEnd(RunScript("head -c 3145728 /dev/zero | tr '\\000' x"), 0, std::string(3 * MIB, 'x'));
}

TEST_F(CommandTest, ANestedProcessDoesNotHoldTheRunUp) {
    // The grandchild keeps the output open; the child's end is the run's end.
    const Outcome outcome = RunScript("sleep 20 & echo $!; exit 4");
    EXPECT_EQ(outcome.exitCode, 4);
    EXPECT_LT(outcome.elapsed, std::chrono::seconds(10));
    kill(std::stoi(outcome.output), SIGKILL);
}

TEST_F(CommandTest, AGrandchildThatNeverStopsWritingDoesNotHoldTheRunUp) {
    const Outcome outcome = RunScript("yes & exit 4");
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.exitCode, 4);
    EXPECT_LT(outcome.elapsed, std::chrono::seconds(10));
}

TEST_F(CommandTest, AProgramThatClosesItsOutputEarlyIsWaitedFor) {
    LogCapture log;
    ExpectEnd(RunScript("echo bye; exec >&- 2>&-; sleep 0.3; exit 7"), 7, "bye\n");
    // Its closed output did not make the passes spin.
    const std::vector<LogEntry> all = log.Entries(NAME);
    EXPECT_LE(
        std::count_if(all.begin(), all.end(),
                      [](const LogEntry& entry) { return entry.text.ends_with("running, status [0]"); }),
        20);
}

TEST_F(CommandTest, AnUnfinishedLineIsLoggedWhenTheProgramClosesItsOutput) {
    LogCapture log;
    const tern::test::TempFolder folder;
    const std::string go = folder / "go";
    FaultScope scope(fault_poll);
    // The line and the end of the output are there before the first look.
    fault_poll.Replace(
        [](pollfd* events, nfds_t count, int timeoutMs) {
            int ready = 0;
            do {
                ready = fault_poll.Real(events, count, timeoutMs);
            } while ((events[0].revents & POLLHUP) == 0);
            return ready;
        },
        1);
    std::thread caller([&] {
        ExpectEnd(RunScript("printf end; exec >&- 2>&-; until [ -e " + go + " ]; do sleep 0.01; done"), 0,
                  "end");
    });
    EXPECT_TRUE(log.WaitFor(Trace(NAME, "Line 0: end")));
    std::ofstream(go).put('\n');
    caller.join();
}

// The waits are upper bounds: here each is as good as endless, and nothing but the event itself ends it.
TEST_F(CommandTest, TheEndOfAProgramIsAnEvent) {
    FaultScope scope(fault_poll);
    for (const char* const script :
         {"exit 5", "echo x; exit 5", "exec >&- 2>&-; sleep 0.05; exit 5", "sleep 15 & exit 5"}) {
        fault_poll.Replace(
            [](pollfd* events, nfds_t count, int) { return fault_poll.Real(events, count, 15000); }, 1000);
        const Outcome outcome = RunScript(script);
        EXPECT_EQ(outcome.exitCode, 5) << script;
        EXPECT_LT(outcome.elapsed, std::chrono::seconds(10)) << script;
    }
}

TEST_F(CommandTest, WithoutAProcessDescriptorTheEndIsPolledFor) {
    FaultScope scope(fault_syscall);
    for (const int error : {ENOSYS, EMFILE, EPERM}) {
        LogCapture log;
        fault_syscall.Replace(
            [error](long number, long a, long b, long c, long d, long e, long f) {
                if (number == SYS_pidfd_open) {
                    errno = error;
                    return -1L;
                }
                return fault_syscall.Real(number, a, b, c, d, e, f);
            },
            1000);
        ExpectEnd(RunScript("echo bye; exec >&- 2>&-; sleep 0.3; exit 7"), 7, "bye\n");
        const std::vector<LogEntry> all = log.Entries(NAME);
        EXPECT_LE(
            std::count_if(all.begin(), all.end(),
                          [](const LogEntry& entry) { return entry.text.ends_with("running, status [0]"); }),
            30);
        ExpectEnd(RunScript("sleep 1 & exit 6"), 6, "");
        {
            // The output's end tells of the program's: no wait is sat out.
            FaultScope pollScope(fault_poll);
            fault_poll.Replace(
                [](pollfd* events, nfds_t count, int timeoutMs) {
                    return fault_poll.Real(events, count, timeoutMs == 100 ? 15000 : timeoutMs);
                },
                1000);
            const Outcome outcome = RunScript("echo x; exit 5");
            ExpectEnd(outcome, 5, "x\n");
            EXPECT_LT(outcome.elapsed, std::chrono::seconds(10));
        }
        EXPECT_EQ(RunScript("exec >&- 2>&-; exec sleep 1000", "", 200).exitCode, 1);
        EXPECT_EQ(ReapChildren(), 1);
    }
}

// The operations for one run

TEST_F(CommandTest, StaticOperationsSplitTheirArguments) {
    std::string output;
    int exitCode = -1;
    EXPECT_EQ(Command::Run("/bin/echo", "  one   two ", output, exitCode), StatusCode::Ok);
    EXPECT_EQ(output, "one two\n");
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(Command::RunWithInput("/usr/bin/tr", "abc", "a-c x-z", output, exitCode, LIMIT_MS),
              StatusCode::Ok);
    EXPECT_EQ(output, "one two\nxyz");
    LogCapture log;
    EXPECT_EQ(Command::RunWithInput("/bin/sleep", "", "1000", output, exitCode, 50), StatusCode::Ok);
    EXPECT_EQ(exitCode, 1);
    EXPECT_TRUE(log.Contains(Error(NAME, "Command [sleep] aborted by timeout 50ms")));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, RunIsExecuteWithoutInput) {
    Command command("/bin/cat", LIMIT_MS);
    std::string output;
    int exitCode = -1;
    EXPECT_EQ(command.Run({"-", "/dev/null"}, output, exitCode), StatusCode::Ok);
    EXPECT_EQ(output, "");
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(command.Execute("text", {}, output, exitCode), StatusCode::Ok);
    EXPECT_EQ(output, "text");
}

}  // namespace
}  // namespace mwl::ProcessExecution

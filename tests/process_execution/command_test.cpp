#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <tern/process_execution/command.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/child.h"
#include "support/dump_coverage.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, pipe2, (int* ends, int flags), (ends, flags))
TERN_INTERPOSE_TIME(int, fcntl64, __fcntl_time64, (int fd, int operation, long argument),
                    (fd, operation, argument))
#ifdef __SANITIZE_THREAD__  // where children are started another way
TERN_INTERPOSE(pid_t, fork, (), ())
static auto& fault_start = fault_fork;
#else
TERN_INTERPOSE(int, clone, (int (*run)(void*), void* stack, int flags, void* data), (run, stack, flags, data))
static auto& fault_start = fault_clone;
#endif
TERN_INTERPOSE(int, dup2, (int from, int to), (from, to))
TERN_INTERPOSE(int, execv, (const char* path, char* const* argv), (path, argv))
TERN_INTERPOSE(int, _exit, (int status), (status))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
TERN_INTERPOSE(FILE*, fdopen, (int fd, const char* mode), (fd, mode))
TERN_INTERPOSE(int, fileno, (FILE * stream), (stream))
TERN_INTERPOSE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
TERN_INTERPOSE(int, open64, (const char* path, int flags, unsigned int mode), (path, flags, mode))
TERN_INTERPOSE(int, poll, (pollfd * events, nfds_t count, int timeout), (events, count, timeout))
TERN_INTERPOSE(pid_t, waitpid, (pid_t pid, int* status, int options), (pid, status, options))
TERN_INTERPOSE(int, kill, (pid_t pid, int number), (pid, number))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* time), (clock, time))
#ifdef TERN_HAS_TIME64_NAMES
/// The clock as the C++ library of a 32-bit platform reads it: by the old name, in 32 bits.
struct OldTime {
    std::int32_t seconds;
    std::int32_t nanoseconds;
};
extern "C" __attribute__((visibility("default"))) int OldClockGettime(clockid_t clock,
                                                                      OldTime* time) asm("clock_gettime");
extern "C" int OldClockGettime(clockid_t clock, OldTime* time) {
    timespec now{};
    const int result = fault_clock_gettime.Call(clock, &now);
    *time = {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_nsec)};
    return result;
}
#endif
TERN_INTERPOSE(long, syscall, (long number, long a, long b, long c, long d, long e, long f),
               (number, a, b, c, d, e, f))

namespace mwl::ProcessExecution {
namespace {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::Trace;
using tern::test::Warning;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string NAME = "mwl::ProcessExecution::Command";
/// Far more than any of the programs takes, on a busy machine and instrumented too.
constexpr unsigned int LIMIT_MS = 120000;
constexpr std::size_t MIB = 1024UL * 1024;

struct Outcome {
    StatusCode status = StatusCode::Failure;
    std::string output;
    int exitCode = -1;
    std::chrono::milliseconds elapsed{0};
};

Outcome RunProgram(Command command, const std::vector<std::string>& arguments,
                   const std::string& input = "") {
    Outcome outcome;
    const auto start = std::chrono::steady_clock::now();
    outcome.status = command.RunWithInput(input, arguments, outcome.output, outcome.exitCode);
    outcome.elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    return outcome;
}

Outcome RunScript(const std::string& script, const std::string& input = "", unsigned int limitMs = LIMIT_MS) {
    return RunProgram(Command("/bin/sh", limitMs), {"-c", script}, input);
}

/// A long text that differs is not printed: the comparison line by line would take all memory of the machine.
void ExpectText(const std::string& text, const std::string& expected) {
    if (text.size() + expected.size() <= 4096) {
        EXPECT_EQ(text, expected);
    } else {
        EXPECT_TRUE(text == expected) << text.size() << " bytes instead of " << expected.size();
    }
}

void ExpectEnd(const Outcome& outcome, int exitCode, const std::string& output) {
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.exitCode, exitCode);
    ExpectText(outcome.output, output);
}

/// A text without two equal neighbouring blocks, so that loss, doubling and disorder show.
std::string Text(std::size_t size) {
    std::string text;
    for (unsigned int i = 0; text.size() < size; ++i) {
        text += std::to_string(i * 2654435761U) + "\n";
    }
    text.resize(size);
    return text;
}

/// The messages of a run without those of the passes before the end, whose number is the system's affair, and
/// with the child's number replaced by "N".
std::vector<LogEntry> Messages(const LogCapture& log) {
    std::vector<LogEntry> entries = log.Entries(NAME);
    std::string number;
    for (const LogEntry& entry : entries) {
        if (entry.text.ends_with("] Launched... ")) {
            number = entry.text.substr(0, entry.text.find(']') + 1);
        }
    }
    for (LogEntry& entry : entries) {
        if (!number.empty() && entry.text.starts_with(number)) {
            entry.text = "PID[N]" + entry.text.substr(number.size());
        }
    }
    std::erase(entries, Trace(NAME, "PID[N] Process running, status [0]"));
    return entries;
}

std::vector<LogEntry> Lines(const LogCapture& log) {
    std::vector<LogEntry> entries = log.Entries(NAME);
    std::erase_if(entries, [](const LogEntry& entry) { return !entry.text.starts_with("Line "); });
    return entries;
}

/// Waits for every child that a run left, as an application with killed programs would. Returns how many
/// there were.
int ReapChildren() {
    int count = 0;
    while (fault_waitpid.Real(-1, nullptr, 0) > 0) {
        ++count;
    }
    return count;
}

using Descriptors = std::multiset<int>;

/// Prints the numbers of the shell's descriptors.
const std::string LIST_DESCRIPTORS = "ls /proc/$$/fd";

Descriptors ParseDescriptors(const std::string& list) {
    std::istringstream stream(list);
    return Descriptors(std::istream_iterator<int>(stream), {});
}

/// What a program has to find: its three standard ones, and those that this process would give any program.
Descriptors ExpectedDescriptors() {
    Descriptors descriptors{0, 1, 2};
    for (int fd = 3; fd < 1024; ++fd) {
        const int flags = fault_fcntl64.Real(fd, F_GETFD, 0);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            descriptors.insert(fd);
        }
    }
    return descriptors;
}

/// Lets coverage see the child's steps up to execv, or up to its _exit when it cannot execute; both lose the
/// counts. For one run, of a process with one thread.
class ChildCoverage {
public:
    enum class Upto { Execv, Exit };

    explicit ChildCoverage(Upto step) {
        if (step == Upto::Execv) {
            fault_execv.Replace([](const char* path, char* const* argv) {
                tern::test::DumpCoverage();
                return fault_execv.Real(path, argv);
            });
        } else {
            fault__exit.Replace([](int status) {
                tern::test::DumpCoverage();
                return fault__exit.Real(status);
            });
        }
    }

private:
    FaultScope<int(const char*, char* const*)> mExecvScope{fault_execv};
    FaultScope<int(int)> mExitScope{fault__exit};
};

/// Each test leaves neither a descriptor nor a child behind.
class CommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        mThreshold = tern::test::SetLogThreshold(3);
        fflush(
            nullptr);  // ThreadSanitizer's _exit flushes: a child that cannot execute would print this again
    }

    void TearDown() override {
        tern::test::SetLogThreshold(mThreshold);
        EXPECT_EQ(ReapChildren(), 0);
        EXPECT_EQ(tern::test::CountDescriptors(), mDescriptors);
        sigset_t pending;
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
    }

private:
    const std::size_t mDescriptors = tern::test::CountDescriptors();
    int mThreshold = 0;
};

/// The messages of a run up to "Launched", without arguments and input.
std::vector<LogEntry> LaunchOf(const std::string& path, const std::string& name) {
    return {Info(NAME, "Execute the program: " + path), Trace(NAME, "Execute the command line: " + name),
            Trace(NAME, "Command arguments: "), Info(NAME, "PID[N] Launched... ")};
}

std::vector<LogEntry> operator+(std::vector<LogEntry> entries, const std::vector<LogEntry>& more) {
    entries.insert(entries.end(), more.begin(), more.end());
    return entries;
}

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
    const ChildCoverage coverage(ChildCoverage::Upto::Execv);
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

/// Waits until the program has ended, as poll(2) for the first look at its output.
int PollAfterTheEnd(pollfd* events, nfds_t count, int /*timeoutMs*/) {
    pollfd end = events[2];
    static_cast<void>(fault_poll.Real(&end, 1, 30000));
    return fault_poll.Real(events, count, 0);
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

/// Lets the time since the start of a run be `elapsedMs` at every look after the first.
void FixElapsed(std::int64_t elapsedMs) {
    timespec start{};
    fault_clock_gettime.Replace(
        [start, elapsedMs, first = true](clockid_t clock, timespec* time) mutable {
            if (clock != CLOCK_MONOTONIC) {
                return fault_clock_gettime.Real(clock, time);
            }
            if (std::exchange(first, false)) {
                static_cast<void>(fault_clock_gettime.Real(clock, &start));
                *time = start;
                return 0;
            }
            const std::int64_t ns = start.tv_nsec + elapsedMs % 1000 * 1000000;
            time->tv_sec = start.tv_sec + elapsedMs / 1000 + ns / 1000000000;
            time->tv_nsec = ns % 1000000000;
            return 0;
        },
        1000000);
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

// Children left at the time limit

void WaitForZombie(pid_t pid) {
    siginfo_t end{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT), 0);
}

/// Leaves a child that is killed at its time limit, and waits until it is a zombie.
pid_t LeaveAZombie() {
    FaultScope scope(fault_kill);
    pid_t killed = -1;
    fault_kill.Replace([&](pid_t pid, int number) {
        killed = pid;
        return fault_kill.Real(pid, number);
    });
    EXPECT_EQ(RunScript("exec sleep 1000", "", 20).exitCode, 1);
    WaitForZombie(killed);
    return killed;
}

TEST_F(CommandTest, ALaterRunReapsWhatWasLeft) {
    for (int i = 0; i < 3; ++i) {
        LeaveAZombie();
        ExpectEnd(RunScript("echo x"), 0, "x\n");
        EXPECT_EQ(ReapChildren(), 0);
    }
    // One that is left by a failure lives on and is reaped when it has ended.
    FaultScope scope(fault_fdopen);
    fault_fdopen.Fail(nullptr, ENOMEM);
    EXPECT_EQ(RunScript("exit 3").status, StatusCode::StreamError);
    siginfo_t end{};
    EXPECT_EQ(waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

TEST_F(CommandTest, WhatStillRunsIsReapedByAStillLaterRun) {
    FaultScope scope(fault_kill);
    pid_t running = -1;
    fault_kill.Replace([&](pid_t pid, int /*number*/) {
        running = pid;
        return 0;
    });
    EXPECT_EQ(RunScript("exec sleep 1000", "", 20).exitCode, 1);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(fault_kill.Real(running, SIGKILL), 0);  // it was neither reaped nor waited for
    WaitForZombie(running);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

TEST_F(CommandTest, TheApplicationsOwnChildrenAreLeftAlone) {
    const pid_t own = fork();
    if (own == 0) {
        _exit(42);
    }
    LeaveAZombie();
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    int status = 0;
    EXPECT_EQ(waitpid(own, &status, 0), own);
    EXPECT_EQ(WEXITSTATUS(status), 42);
}

/// Whose end is asked for during a run, besides that of its own program.
std::vector<pid_t> AskedFor(const std::function<void()>& run) {
    FaultScope scope(fault_waitpid);
    std::vector<pid_t> asked;
    fault_waitpid.Replace(
        [&](pid_t pid, int* status, int options) {
            asked.push_back(pid);
            return fault_waitpid.Real(pid, status, options);
        },
        1000000);
    run();
    return asked;
}

// Its number may be another child's by now, which is the application's own.
TEST_F(CommandTest, WhatTheApplicationReapedItselfIsNotAskedFor) {
    const pid_t zombie = LeaveAZombie();
    EXPECT_EQ(waitpid(zombie, nullptr, 0), zombie);
    EXPECT_THAT(AskedFor([] { ExpectEnd(RunScript("echo x"), 0, "x\n"); }), Not(Contains(zombie)));
}

/// Lets another process have the number of each process whose file is read.
int OpenAnotherProcess(const char* path, int flags, unsigned int mode) {
    return fault_open64.Real(strncmp(path, "/proc/", 6) == 0 ? "/proc/1/stat" : path, flags, mode);
}

TEST_F(CommandTest, AnotherProcessOfTheSameNumberIsNotAskedFor) {
    FaultScope scope(fault_open64);
    const pid_t zombie = LeaveAZombie();
    fault_open64.Replace(OpenAnotherProcess);
    EXPECT_THAT(AskedFor([] { ExpectEnd(RunScript("echo x"), 0, "x\n"); }), Not(Contains(zombie)));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, WithoutDescriptorsItIsReapedByItsNumberOrLater) {
    FaultScope scope(fault_open64);
    // Unknown from the beginning.
    fault_open64.Fail(-1, EMFILE);
    LeaveAZombie();
    EXPECT_EQ(fault_open64.Calls(), 1);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
    // Not to be had when it could be reaped.
    const pid_t zombie = LeaveAZombie();
    fault_open64.Fail(-1, EMFILE);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    WaitForZombie(zombie);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

TEST_F(CommandTest, AForkedChildDoesNotAskForItsParentsChildren) {
    const pid_t zombie = LeaveAZombie();
    const tern::test::ChildResult result = tern::test::RunInChild([zombie] {
        const std::vector<pid_t> asked = AskedFor([] { RunScript("echo x"); });
        return std::ranges::count(asked, zombie) == 0 && !asked.empty() ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode, 0);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

// A zombie that its parent leaves behind becomes the next subreaper's.
TEST_F(CommandTest, WhatIsLeftIsReapedAtTheEndOfTheProcess) {
    SKIP_WHERE_EMULATED("a process cannot become a subreaper");
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const tern::test::ChildResult result = tern::test::RunInChild([]() -> int {
        LeaveAZombie();
        exit(3);
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(ReapChildren(), 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(CommandTest, ThreadsThatLeaveChildrenAtOnceLoseNone) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(RunScript("exec sleep 1000", "", 1).exitCode, 1);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(tern::test::WaitUntil([] {
        ExpectEnd(RunScript("echo x"), 0, "x\n");
        siginfo_t end{};
        return waitid(P_ALL, 0, &end, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == ECHILD;
    }));
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
        const ChildCoverage coverage(ChildCoverage::Upto::Exit);
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
        const ChildCoverage coverage(ChildCoverage::Upto::Exit);
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
    const std::vector<LogEntry> ROWS[] = {
        {Error(NAME, "Cannot open stdin pipe")}, {Error(NAME, "Cannot open stdout pipe")}, {}};
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

// The other program is started where a second thread's would do most harm: between pipes and fork.
TEST_F(CommandTest, ProgramsRunAtOnceDoNotInheritEachOthersPipes) {
    FaultScope scope(fault_start);
    std::string inner;
    fault_start.Replace([&](auto... arguments) {
        inner = RunScript(LIST_DESCRIPTORS).output;
        return fault_start.Real(arguments...);
    });
    EXPECT_EQ(ParseDescriptors(RunScript(LIST_DESCRIPTORS).output), ExpectedDescriptors());
    EXPECT_EQ(ParseDescriptors(inner), ExpectedDescriptors());
}

TEST_F(CommandTest, TwoThreadsRunProgramsAtOnce) {
    const Descriptors expected = ExpectedDescriptors();
    const auto work = [&expected](const std::string& text) {
        for (int i = 0; i < 10; ++i) {
            const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, text);
            ASSERT_EQ(outcome.status, StatusCode::Ok);
            ASSERT_EQ(outcome.exitCode, 0);
            ASSERT_TRUE(outcome.output == text);
            EXPECT_EQ(ParseDescriptors(RunScript(LIST_DESCRIPTORS).output), expected);
        }
    };
    std::thread first(work, Text(MIB));
    std::thread second(work, std::string(MIB, 'y'));
    first.join();
    second.join();
}

// Neither the SIGPIPE that is taken back nor the kill at the time limit is a queued signal.
TEST_F(CommandTest, RunsInAProcessThatMayQueueNoSignals) {
    const tern::test::ChildResult result = tern::test::RunInChild([] {
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_SIGPENDING, &none) != 0) {
            return 1;
        }
        const Outcome early = RunScript("exec <&-; echo closed; sleep 0.2; exit 3", Text(5 * MIB));
        const Outcome late = RunScript("exec sleep 1000", "", 50);
        return early.exitCode == 3 && early.output == "closed\n" && late.status == StatusCode::Ok &&
                       late.exitCode == 1
                   ? 0
                   : 2;
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.log, Contains(testing::Field(&LogEntry::text, HasSubstr("(errno=Broken pipe)"))));
    EXPECT_THAT(result.log, Contains(Error(NAME, "Command [sh] aborted by timeout 50ms")));
}

// A log call in the child would wait for ever for a lock that another thread held at the fork.
TEST_F(CommandTest, AChildThatCannotExecuteTakesNoLock) {
    LogCapture log(3);
    std::atomic<bool> stop{false};
    std::thread logger([&] {
        while (!stop) {
            mwl::Log::RootLogger::GetInstance().Print(TernLogLevel::Error, "[%lu][%s] %s",
                                                      static_cast<unsigned long>(pthread_self()), "Other",
                                                      "x");
        }
    });
    for (int i = 0; i < 50; ++i) {
        ExpectEnd(RunProgram(Command("/nowhere/tool", LIMIT_MS), {}), 1, "");
        log.Clear();
    }
    stop = true;
    logger.join();
}

}  // namespace
}  // namespace mwl::ProcessExecution

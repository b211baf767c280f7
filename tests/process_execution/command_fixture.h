#pragma once

// What the tests of Command share: runs of programs, and the system calls that they make fail. Include it in
// the one source of a test program.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <tern/process_execution/command.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
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

inline const std::string NAME = "mwl::ProcessExecution::Command";
/// Far more than any of the programs takes, on a busy machine and instrumented too.
inline constexpr unsigned int LIMIT_MS = 120000;
inline constexpr std::size_t MIB = 1024UL * 1024;

struct Outcome {
    StatusCode status = StatusCode::Failure;
    std::string output;
    int exitCode = -1;
    std::chrono::milliseconds elapsed{0};
};

inline Outcome RunProgram(Command command, const std::vector<std::string>& arguments,
                          const std::string& input = "") {
    Outcome outcome;
    const auto start = std::chrono::steady_clock::now();
    outcome.status = command.RunWithInput(input, arguments, outcome.output, outcome.exitCode);
    outcome.elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    return outcome;
}

inline Outcome RunScript(const std::string& script, const std::string& input = "",
                         unsigned int limitMs = LIMIT_MS) {
    return RunProgram(Command("/bin/sh", limitMs), {"-c", script}, input);
}

/// A long text that differs is not printed: the comparison line by line would take all memory of the machine.
inline void ExpectText(const std::string& text, const std::string& expected) {
    if (text.size() + expected.size() <= 4096) {
        EXPECT_EQ(text, expected);
    } else {
        EXPECT_TRUE(text == expected) << text.size() << " bytes instead of " << expected.size();
    }
}

inline void ExpectEnd(const Outcome& outcome, int exitCode, const std::string& output) {
    EXPECT_EQ(outcome.status, StatusCode::Ok);
    EXPECT_EQ(outcome.exitCode, exitCode);
    ExpectText(outcome.output, output);
}

/// A text without two equal neighbouring blocks, so that loss, doubling and disorder show.
inline std::string Text(std::size_t size) {
    std::string text;
    for (unsigned int i = 0; text.size() < size; ++i) {
        text += std::to_string(i * 2654435761U) + "\n";
    }
    text.resize(size);
    return text;
}

/// The messages of a run without those of the passes before the end, whose number is the system's affair, and
/// with the child's number replaced by "N".
inline std::vector<LogEntry> Messages(const LogCapture& log) {
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

inline std::vector<LogEntry> Lines(const LogCapture& log) {
    std::vector<LogEntry> entries = log.Entries(NAME);
    std::erase_if(entries, [](const LogEntry& entry) { return !entry.text.starts_with("Line "); });
    return entries;
}

/// Waits for every child that a run left, as an application with killed programs would. Returns how many
/// there were.
inline int ReapChildren() {
    int count = 0;
    while (fault_waitpid.Real(-1, nullptr, 0) > 0) {
        ++count;
    }
    return count;
}

using Descriptors = std::multiset<int>;

/// Prints the numbers of the shell's descriptors.
inline const std::string LIST_DESCRIPTORS = "ls /proc/$$/fd";

inline Descriptors ParseDescriptors(const std::string& list) {
    std::istringstream stream(list);
    return Descriptors(std::istream_iterator<int>(stream), {});
}

/// What a program has to find: its three standard ones, and those that this process would give any program.
inline Descriptors ExpectedDescriptors() {
    Descriptors descriptors{0, 1, 2};
    for (int fd = 3; fd < 1024; ++fd) {
        const int flags = fault_fcntl64.Real(fd, F_GETFD, 0);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            descriptors.insert(fd);
        }
    }
    return descriptors;
}

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
inline std::vector<LogEntry> LaunchOf(const std::string& path, const std::string& name) {
    return {Info(NAME, "Execute the program: " + path), Trace(NAME, "Execute the command line: " + name),
            Trace(NAME, "Command arguments: "), Info(NAME, "PID[N] Launched... ")};
}

inline std::vector<LogEntry> operator+(std::vector<LogEntry> entries, const std::vector<LogEntry>& more) {
    entries.insert(entries.end(), more.begin(), more.end());
    return entries;
}

/// Waits until the program has ended, as poll(2) for the first look at its output.
inline int PollAfterTheEnd(pollfd* events, nfds_t count, int /*timeoutMs*/) {
    pollfd end = events[2];
    static_cast<void>(fault_poll.Real(&end, 1, 30000));
    return fault_poll.Real(events, count, 0);
}

/// Lets the time since the start of a run be `elapsedMs` at every look after the first.
inline void FixElapsed(std::int64_t elapsedMs) {
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

}  // namespace mwl::ProcessExecution

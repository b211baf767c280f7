#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <tern/foundation/log.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "malloc_stand_in.h"
#include "support/allocations.h"
#include "support/dump_coverage.h"
#include "support/interpose.h"

// The real logger: this program does not link the capture. What is decided at first use is tested in
// children, whose standard error is a socket that keeps the boundaries of writes.

using mwl::Log::RootLogger;
using tern::test::CountAllocations;
using tern::test::CountMallocs;
using tern::test::HasMallocStandIn;
using tern::test::MallocShortage;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TERN_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
TERN_INTERPOSE_TIME(ssize_t, sendmsg, __sendmsg64, (int fd, const msghdr* message, int flags),
                    (fd, message, flags))
TERN_INTERPOSE(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
TERN_INTERPOSE(int, memfd_create, (const char* name, unsigned int flags), (name, flags))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE(ssize_t, writev, (int fd, const iovec* parts, int count), (fd, parts, count))
// syslog(3) takes variable arguments; these are the ones that the logger gives it.
TERN_INTERPOSE(int, syslog, (int priority, const char* format, const char* text), (priority, format, text))

namespace {

const std::string LOGGER = "Test::Logger";

/// Forks a child whose standard error is `errorFd`; it fails when an expectation in `body` does.
pid_t StartChild(int errorFd, const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(errorFd, STDERR_FILENO);
        close(errorFd);
        unsetenv("JOURNAL_STREAM");
        body();
        tern::test::DumpCoverage();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return pid;
}

void ExpectSuccess(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

/// Everything that was written to standard error, one element a write.
std::vector<std::string> WritesOf(const std::function<void()>& body) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const pid_t pid = StartChild(ends[1], body);
    close(ends[1]);
    std::vector<std::string> writes;
    std::vector<char> buffer(1 << 20);
    ssize_t count = 0;
    while ((count = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0) {
        writes.emplace_back(buffer.data(), static_cast<std::size_t>(count));
    }
    close(ends[0]);
    ExpectSuccess(pid);
    return writes;
}

/// Everything that a child wrote to standard error, a terminal.
std::string TerminalOf(const std::function<void()>& body) {
    int terminal = -1;
    int shell = -1;
    EXPECT_EQ(openpty(&terminal, &shell, nullptr, nullptr, nullptr), 0);
    const pid_t pid = StartChild(shell, body);
    close(shell);
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(terminal, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(terminal);
    ExpectSuccess(pid);
    return text;
}

std::string Prefix() {
    return "[" + std::to_string(static_cast<unsigned long>(pthread_self())) + "][Test::Logger]";
}

void LogAtEveryLevel() {
    TERN_LOG_CRITICAL(LOGGER, "critical");
    TERN_LOG_ERROR(LOGGER, "error");
    TERN_LOG_WARNING(LOGGER, "warning");
    TERN_LOG_NOTICE(LOGGER, "notice");
    TERN_LOG_INFO(LOGGER, "info %d", 1);
    TERN_LOG_TRACE(LOGGER, "%s: debug", "LogAtEveryLevel");
}

std::vector<std::string> AllMessages() {
    return {"<2>" + Prefix() + " critical\n", "<3>" + Prefix() + " error\n",
            "<4>" + Prefix() + " warning\n",  "<5>" + Prefix() + " notice\n",
            "<6>" + Prefix() + " info 1\n",   "<7>" + Prefix() + "[trace] LogAtEveryLevel: debug\n"};
}

/// In a child: its standard error passes for the journal's stream.
void PretendJournal() {
    struct stat status {};
    ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
    setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(),
           1);
}

/// The messages that a level text lets through.
std::size_t CountAtLevel(const char* level) {
    return WritesOf([&] {
               level == nullptr ? unsetenv("TERN_LOG_LEVEL") : setenv("TERN_LOG_LEVEL", level, 1);
               LogAtEveryLevel();
           })
        .size();
}

}  // namespace

TEST(RootLogger, WritesEachMessageOnceBehindItsLevel) {
    EXPECT_EQ(WritesOf([] {
                  setenv("TERN_LOG_LEVEL", "7", 1);
                  LogAtEveryLevel();
              }),
              AllMessages());
}

TEST(RootLogger, ThresholdsLetThroughWhatIsNotAboveThem) {
    const std::pair<const char*, std::size_t> rows[] = {
        {"0", 0},    {"1", 0},     {"2", 1},        {"3", 2},     {"4", 3},       {"5", 4},
        {"6", 5},    {"7", 6},     {"critical", 1}, {"error", 2}, {"warning", 3}, {"notice", 4},
        {"info", 5}, {"debug", 6}, {"DEBUG", 6},    {"Error", 2}, {"", 5},        {nullptr, 5}};
    for (const auto& [level, count] : rows) {
        EXPECT_EQ(CountAtLevel(level), count) << (level == nullptr ? "unset" : level);
    }
}

TEST(RootLogger, NonsenseLevelsAreReportedOnceAndTheDefaultKept) {
    for (const char* const level : {"8", "-1", "77", "verbose", " 7", "7 ", "0x3"}) {
        const std::vector<std::string> writes = WritesOf([&] {
            setenv("TERN_LOG_LEVEL", level, 1);
            LogAtEveryLevel();
            LogAtEveryLevel();
        });
        ASSERT_EQ(writes.size(), 11U) << level;
        EXPECT_EQ(writes[0], std::string("<4>TERN_LOG_LEVEL is '") + level +
                                 "', neither 0 to 7 nor the name of a level; using 6\n");
    }
}

TEST(RootLogger, FirstDataMemberPointsToTheThreshold) {
    EXPECT_THAT(WritesOf([] {
                    unsigned char* const level =
                        *reinterpret_cast<unsigned char**>(&RootLogger::GetInstance());
                    EXPECT_EQ(*level, 6);
                    *level = 3;
                    EXPECT_EQ(RootLogger::GetInstance().GetLevel(), 3);
                    LogAtEveryLevel();
                }),
                ElementsAre("<2>" + Prefix() + " critical\n", "<3>" + Prefix() + " error\n"));
}

TEST(RootLogger, BelowTheThresholdNothingIsEvaluatedOrAllocated) {
    EXPECT_THAT(WritesOf([] {
                    RootLogger::GetInstance();
                    int evaluated = 0;
                    const std::size_t before = CountAllocations();
                    for (int i = 0; i < 1000; ++i) {
                        TERN_LOG_TRACE(LOGGER, "%d %s", ++evaluated, std::string(100, 'x').c_str());
                    }
                    EXPECT_EQ(evaluated, 0);
                    EXPECT_EQ(CountAllocations(), before);
                }),
                IsEmpty());
}

TEST(RootLogger, TrailingBlanksAndLineBreaksSurvive) {
    EXPECT_THAT(
        WritesOf([] {
            TERN_LOG_ERROR(LOGGER, "two blanks  ");
            TERN_LOG_ERROR(LOGGER, "a line\n    and another    ");
            TERN_LOG_ERROR(LOGGER, "its own newline\n");
            RootLogger::GetInstance().Print(TernLogLevel::Error, "bare");
        }),
        ElementsAre("<3>" + Prefix() + " two blanks  \n", "<3>" + Prefix() + " a line\n    and another    \n",
                    "<3>" + Prefix() + " its own newline\n\n", "<3>bare\n"));
}

TEST(RootLogger, MessagesUnderFourKibibytesTakeNoMemoryLongerOnesOnceAndArriveWhole) {
    const std::pair<std::size_t, long> rows[] = {{0, 0},    {1, 0},    {4000, 0},  {4095, 0},
                                                 {4096, 1}, {4097, 1}, {100000, 1}};
    for (const auto& row : rows) {
        const std::string text(row.first, 'y');
        const std::vector<std::string> writes = WritesOf([&] {
            RootLogger::GetInstance();
            const std::size_t before = CountAllocations();
            const long mallocsBefore = CountMallocs();
            RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
            const long mallocs = CountMallocs() - mallocsBefore;
            EXPECT_EQ(CountAllocations(), before);
            if (HasMallocStandIn()) {
                EXPECT_EQ(mallocs, row.second);
            }
        });
        EXPECT_THAT(writes, ElementsAre("<3>" + text + "\n")) << row.first;
    }
}

TEST(RootLogger, WithoutMemoryALongMessageIsCut) {
    if (!HasMallocStandIn()) {
        GTEST_SKIP() << "the sanitizer's malloc cannot be made to fail";
    }
    std::string text(5000, 'y');
    text[4094] = 'L';
    EXPECT_THAT(WritesOf([&] {
                    RootLogger::GetInstance();
                    errno = EXDEV;
                    {
                        const MallocShortage shortage;
                        RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
                    }
                    EXPECT_EQ(errno, EXDEV);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
                }),
                ElementsAre("<3>" + text.substr(0, 4095) + "\n", "<3>" + text + "\n"));
}

TEST(RootLogger, ErrnoIsPreserved) {
    EXPECT_THAT(WritesOf([] {
                    fault_write.Fail(-1, ENOSPC);
                    errno = EXDEV;
                    TERN_LOG_ERROR(LOGGER, "lost");
                    EXPECT_EQ(errno, EXDEV);
                    TERN_LOG_ERROR(LOGGER, "kept: %d", errno);
                    EXPECT_EQ(errno, EXDEV);
                }),
                ElementsAre("<3>" + Prefix() + " kept: 18\n"));
}

TEST(RootLogger, InterruptedAndShortWritesAreContinued) {
    EXPECT_THAT(WritesOf([] {
                    fault_write.Fail(-1, EINTR, 3);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "interrupted");
                    fault_write.Replace(
                        [](int fd, const void* data, size_t size) {
                            return fault_write.Real(fd, data, std::min<size_t>(size, 5));
                        },
                        2);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "in pieces");
                }),
                ElementsAre("<3>interrupted\n", "<3>in", " piec", "es\n"));
}

TEST(RootLogger, ThreadsNeverMixTheirMessages) {
    const std::vector<std::string> writes = WritesOf([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < 200; ++i) {
                    RootLogger::GetInstance().Print(TernLogLevel::Info, "%d %s %d", t,
                                                    std::string(500, 'z').c_str(), t);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    EXPECT_EQ(writes.size(), 800U);
    for (const std::string& line : writes) {
        EXPECT_TRUE(std::regex_match(line, std::regex("<6>([0-3]) z{500} \\1\n"))) << line;
    }
}

TEST(RootLogger, WorksInAForkedChildAndDuringExit) {
    EXPECT_THAT(WritesOf([] {
                    TERN_LOG_INFO(LOGGER, "parent");
                    const pid_t pid = fork();
                    if (pid == 0) {
                        // The logger is the parent's, older than this one, so it is still there.
                        static const struct AtExit {
                            ~AtExit() { RootLogger::GetInstance().Print(TernLogLevel::Info, "late"); }
                        } late;
                        TERN_LOG_INFO(LOGGER, "child");
                        exit(0);
                    }
                    int status = 0;
                    waitpid(pid, &status, 0);
                    EXPECT_EQ(status, 0);
                }),
                ElementsAre("<6>" + Prefix() + " parent\n", "<6>" + Prefix() + " child\n", "<6>late\n"));
}

TEST(RootLogger, WorksAfterItsOwnDestruction) {
    EXPECT_THAT(
        WritesOf([] {
            const pid_t pid = fork();
            if (pid == 0) {
                atexit([] { RootLogger::GetInstance().Print(TernLogLevel::Info, "after the logger's end"); });
                RootLogger::GetInstance();  // its destructor is registered now, so it runs first
                exit(0);
            }
            int status = 0;
            waitpid(pid, &status, 0);
            EXPECT_EQ(status, 0);
        }),
        ElementsAre("<6>after the logger's end\n"));
}

TEST(RootLogger, TerminalGetsTimeAndColouredLevel) {
    const std::string text = TerminalOf([] {
        setenv("TERN_LOG_LEVEL", "7", 1);
        LogAtEveryLevel();
    });
    const std::string time = R"([0-2]\d:[0-5]\d:[0-6]\d\.\d{3} )";
    const std::string tail = R"( \[\d+\]\[Test::Logger\])";
    const std::regex expected(time + "\x1b\\[31;1mcritical" + tail + " critical\x1b\\[0m\r\n" +  //
                              time + "\x1b\\[31merror   " + tail + " error\x1b\\[0m\r\n" +       //
                              time + "\x1b\\[33mwarning " + tail + " warning\x1b\\[0m\r\n" +     //
                              time + "\x1b\\[1mnotice  " + tail + " notice\x1b\\[0m\r\n" +       //
                              time + "\x1b\\[0minfo    " + tail + " info 1\x1b\\[0m\r\n" +       //
                              time + "\x1b\\[2mdebug   " + tail +
                              "\\[trace\\] LogAtEveryLevel: debug\x1b\\[0m\r\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

// With 32-bit long the time of day went wrong after January 2038.
TEST(RootLogger, TerminalGetsTheLocalTimeOfDay) {
    const struct {
        const char* zone;  // in POSIX the sign says how far UTC is away
        std::int64_t seconds;
        long nanoseconds;
        const char* time;
    } rows[] = {
        {"UTC0", 0, 0, "00:00:00.000"},
        {"UTC0", 86399, 999999999, "23:59:59.999"},
        {"UTC0", 86400, 1000000, "00:00:00.001"},
        {"EAST-01:30", 0, 0, "01:30:00.000"},
        {"EAST-01:30", 82800, 0, "00:30:00.000"},
        {"WEST+01:30", 0, 0, "22:30:00.000"},
        {"UTC0", 2147483647, 0, "03:14:07.000"},
        {"UTC0", 2147483648, 0, "03:14:08.000"},
        {"EAST-01:30", 2147483647, 0, "04:44:07.000"},
        {"EAST-01:30", 5000000000, 50000000, "10:23:20.050"},
        {"WEST+01:30", 5000000000, 50000000, "07:23:20.050"},
    };
    for (const auto& row : rows) {
        const std::string text = TerminalOf([&row] {
            setenv("TZ", row.zone, 1);
            tzset();
            RootLogger::GetInstance();
            fault_clock_gettime.Replace([&row](clockid_t clock, timespec* now) {
                EXPECT_EQ(clock, CLOCK_REALTIME);
                *now = {};
                now->tv_sec = static_cast<time_t>(row.seconds);
                now->tv_nsec = row.nanoseconds;
                return 0;
            });
            RootLogger::GetInstance().Print(TernLogLevel::Error, "now");
        });
        EXPECT_EQ(text, std::string(row.time) + " \x1b[31merror    now\x1b[0m\r\n")
            << row.zone << ' ' << row.seconds;
    }
}

TEST(RootLogger, JournalGetsStructuredEntries) {
    const std::vector<std::string> writes = WritesOf([] {
        PretendJournal();
        std::string entry;
        std::string address;
        fault_sendmsg.Replace([&](int, const msghdr* message, int) {
            address = static_cast<const sockaddr_un*>(message->msg_name)->sun_path;
            for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
                entry.append(static_cast<const char*>(message->msg_iov[i].iov_base),
                             message->msg_iov[i].iov_len);
            }
            return static_cast<ssize_t>(entry.size());
        });
        RootLogger::GetInstance().Print(TernLogLevel::Warning, "%s", "two\nlines");
        EXPECT_EQ(address, "/run/systemd/journal/socket");
        EXPECT_EQ(entry, std::string("PRIORITY=4\nSYSLOG_IDENTIFIER=") + program_invocation_short_name +
                             "\nTID=" + std::to_string(gettid()) + "\nMESSAGE\n" +
                             std::string("\x09\0\0\0\0\0\0\0", 8) + "two\nlines\n");
        // The journal's socket does not answer: standard error leads there too.
        fault_sendmsg.Fail(-1, ECONNREFUSED);
        RootLogger::GetInstance().Print(TernLogLevel::Warning, "by the longer way");
    });
    EXPECT_THAT(writes, ElementsAre("<4>by the longer way\n"));
}

TEST(RootLogger, JournalGetsLargeEntriesAsASealedMemoryFile) {
    EXPECT_THAT(
        WritesOf([] {
            PretendJournal();
            const std::string text(300000, 'q');
            std::string content;
            int seals = 0;
            int calls = 0;
            fault_sendmsg.Replace(
                [&](int, const msghdr* message, int) {
                    if (calls++ == 0) {
                        errno = EMSGSIZE;
                        return static_cast<ssize_t>(-1);
                    }
                    int file = -1;
                    memcpy(&file, CMSG_DATA(CMSG_FIRSTHDR(message)), sizeof file);
                    seals = fcntl(file, F_GET_SEALS);
                    content.resize(text.size() + 200);
                    content.resize(static_cast<std::size_t>(pread(file, content.data(), content.size(), 0)));
                    return static_cast<ssize_t>(1);
                },
                2);
            RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
            EXPECT_EQ(calls, 2);
            EXPECT_EQ(seals, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
            EXPECT_TRUE(content.starts_with("PRIORITY=3\n"));
            EXPECT_TRUE(content.ends_with(text + "\n"));
        }),
        IsEmpty());
}

TEST(RootLogger, InterruptedSendToTheJournalIsRepeated) {
    EXPECT_THAT(WritesOf([] {
                    PretendJournal();
                    int calls = 0;
                    fault_sendmsg.Replace(
                        [&](int, const msghdr*, int) {
                            errno = EINTR;
                            return static_cast<ssize_t>(calls++ == 0 ? -1 : 1);
                        },
                        2);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "once");
                    EXPECT_EQ(calls, 2);
                }),
                IsEmpty());
}

TEST(RootLogger, InterruptedSendOfALargeEntryToTheJournalIsRepeated) {
    EXPECT_THAT(WritesOf([] {
                    PretendJournal();
                    std::vector<int> errors = {EMSGSIZE, EINTR, EINTR};
                    int calls = 0;
                    fault_sendmsg.Replace(
                        [&](int, const msghdr* message, int) {
                            // The datagram first, then the memory file.
                            EXPECT_EQ(message->msg_control == nullptr, calls == 0);
                            if (static_cast<std::size_t>(calls) == errors.size()) {
                                return static_cast<ssize_t>(1);
                            }
                            errno = errors[static_cast<std::size_t>(calls++)];
                            return static_cast<ssize_t>(-1);
                        },
                        4);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "once");
                    EXPECT_EQ(fault_sendmsg.Calls(), 4);
                }),
                IsEmpty());
}

TEST(RootLogger, WithoutADescriptorForTheJournalStandardErrorIsTaken) {
    EXPECT_THAT(WritesOf([] {
                    PretendJournal();
                    fault_socket.Fail(-1, EMFILE);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "no socket");
                }),
                ElementsAre("<3>no socket\n"));
}

TEST(RootLogger, WithoutAMemoryFileForTheJournalStandardErrorIsTaken) {
    const std::function<void()> provocations[] = {
        [] { fault_memfd_create.Fail(-1, EMFILE); },
        [] { fault_writev.Fail(-1, ENOSPC); },
        // A part of an entry is none.
        [] {
            fault_writev.Replace(
                [](int fd, const iovec* parts, int) { return fault_writev.Real(fd, parts, 1); });
        },
    };
    for (const auto& provoke : provocations) {
        for (const int refusal : {EMSGSIZE, ENOBUFS}) {
            EXPECT_THAT(WritesOf([&] {
                            PretendJournal();
                            fault_sendmsg.Fail(-1, refusal);
                            provoke();
                            RootLogger::GetInstance().Print(TernLogLevel::Error, "too large");
                            EXPECT_EQ(fault_sendmsg.Calls(), 1);
                        }),
                        ElementsAre("<3>too large\n"))
                << refusal;
        }
    }
}

TEST(RootLogger, MessageThatCannotBeFormattedIsNotWritten) {
    EXPECT_THAT(WritesOf([] {
                    errno = ENOENT;
                    // No character of the "C" locale.
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%ls", L"\u20ac");
                    EXPECT_EQ(errno, ENOENT);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "the next one");
                }),
                ElementsAre("<3>the next one\n"));
}

TEST(RootLogger, AnotherTargetThanSyslogChangesNothing) {
    EXPECT_THAT(WritesOf([] {
                    setenv("TERN_LOG_TARGET", "elsewhere", 1);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "plain");
                }),
                ElementsAre("<3>plain\n"));
}

TEST(RootLogger, JournalStreamOfAnotherDescriptorIsNotOurs) {
    for (const char* const stream : {"1:2", "nonsense", "", "9:"}) {
        EXPECT_THAT(WritesOf([&] {
                        setenv("JOURNAL_STREAM", stream, 1);
                        RootLogger::GetInstance().Print(TernLogLevel::Error, "plain");
                    }),
                    ElementsAre("<3>plain\n"))
            << stream;
    }
}

TEST(RootLogger, JournalStreamOfAnotherFileOnTheSameDeviceIsNotOurs) {
    EXPECT_THAT(WritesOf([] {
                    struct stat status {};
                    ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
                    setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":0").c_str(), 1);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "plain");
                }),
                ElementsAre("<3>plain\n"));
}

TEST(RootLogger, WithoutStandardErrorMessagesAreLostAndErrnoIsKept) {
    EXPECT_THAT(WritesOf([] {
                    setenv("JOURNAL_STREAM", "1:2", 1);
                    close(STDERR_FILENO);
                    errno = ENOENT;
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "nowhere");
                    EXPECT_EQ(errno, ENOENT);
                }),
                IsEmpty());
}

TEST(RootLogger, SyslogGetsLevelAndMessageWhenAskedFor) {
    EXPECT_THAT(WritesOf([] {
                    setenv("TERN_LOG_TARGET", "syslog", 1);
                    std::vector<std::pair<int, std::string>> seen;
                    fault_syslog.Replace([&](int priority, const char* format, const char* text) {
                        EXPECT_STREQ(format, "%s");
                        seen.emplace_back(priority, text);
                        return 0;
                    });
                    RootLogger::GetInstance().Print(TernLogLevel::Notice, "%s", "100% sure");
                    EXPECT_THAT(seen, ElementsAre(std::pair<int, std::string>(5, "100% sure")));
                }),
                IsEmpty());
}

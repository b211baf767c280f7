#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
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
#include <vector>

#include "logger_child.h"
#include "support/interpose.h"

// Where messages go and in which form.

using mwl::Log::RootLogger;
using tern::test::PretendJournal;
using tern::test::TerminalOf;
using tern::test::WritesOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

TERN_INTERPOSE_TIME(ssize_t, sendmsg, __sendmsg64, (int fd, const msghdr* message, int flags),
                    (fd, message, flags))
TERN_INTERPOSE(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
TERN_INTERPOSE(int, memfd_create, (const char* name, unsigned int flags), (name, flags))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE(ssize_t, writev, (int fd, const iovec* parts, int count), (fd, parts, count))

namespace {

const std::string LOGGER = "Test::Logger";

void LogAtEveryLevel() {
    TERN_LOG_CRITICAL(LOGGER, "critical");
    TERN_LOG_ERROR(LOGGER, "error");
    TERN_LOG_WARNING(LOGGER, "warning");
    TERN_LOG_NOTICE(LOGGER, "notice");
    TERN_LOG_INFO(LOGGER, "info %d", 1);
    TERN_LOG_TRACE(LOGGER, "%s: debug", "LogAtEveryLevel");
}

/// Where the kernel would send the message: it reads as much of the name as its length tells.
std::string AddressOf(const msghdr& message) {
    EXPECT_EQ(message.msg_namelen, sizeof(sockaddr_un));
    const auto* const address = static_cast<const sockaddr_un*>(message.msg_name);
    EXPECT_EQ(address->sun_family, AF_UNIX);
    return address->sun_path;
}

std::string TextOf(const msghdr& message) {
    std::string text;
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        text.append(static_cast<const char*>(message.msg_iov[i].iov_base), message.msg_iov[i].iov_len);
    }
    return text;
}

}  // namespace

TEST(LogSink, TerminalGetsTimeAndColouredLevel) {
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

TEST(LogSink, TerminalGetsTheLocalTimeOfDay) {
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

TEST(LogSink, JournalGetsStructuredEntries) {
    const std::vector<std::string> writes = WritesOf([] {
        PretendJournal();
        std::string entry;
        std::string address;
        fault_sendmsg.Replace([&](int fd, const msghdr* message, int) {
            address = AddressOf(*message);
            // No program that another thread starts meanwhile gets the socket.
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
            entry = TextOf(*message);
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

TEST(LogSink, JournalGetsLargeEntriesAsASealedMemoryFile) {
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
                    EXPECT_EQ(fcntl(file, F_GETFD), FD_CLOEXEC);
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

TEST(LogSink, InterruptedSendToTheJournalIsRepeated) {
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

TEST(LogSink, InterruptedSendOfALargeEntryToTheJournalIsRepeated) {
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

TEST(LogSink, WithoutADescriptorForTheJournalStandardErrorIsTaken) {
    EXPECT_THAT(WritesOf([] {
                    PretendJournal();
                    fault_socket.Fail(-1, EMFILE);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "no socket");
                }),
                ElementsAre("<3>no socket\n"));
}

TEST(LogSink, WithoutAMemoryFileForTheJournalStandardErrorIsTaken) {
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

TEST(LogSink, AnotherTargetThanSyslogChangesNothing) {
    EXPECT_THAT(WritesOf([] {
                    setenv("TERN_LOG_TARGET", "elsewhere", 1);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "plain");
                }),
                ElementsAre("<3>plain\n"));
}

TEST(LogSink, JournalStreamOfAnotherDescriptorIsNotOurs) {
    for (const char* const stream : {"1:2", "nonsense", "", "9:"}) {
        EXPECT_THAT(WritesOf([&] {
                        setenv("JOURNAL_STREAM", stream, 1);
                        RootLogger::GetInstance().Print(TernLogLevel::Error, "plain");
                    }),
                    ElementsAre("<3>plain\n"))
            << stream;
    }
}

TEST(LogSink, JournalStreamOfAnotherFileOnTheSameDeviceIsNotOurs) {
    EXPECT_THAT(WritesOf([] {
                    struct stat status {};
                    ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
                    setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":0").c_str(), 1);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "plain");
                }),
                ElementsAre("<3>plain\n"));
}

// A peer's text could send any command to the terminal.
TEST(LogSink, TerminalGetsNoCommandsFromTexts) {
    const std::string text =
        TerminalOf([] { TERN_LOG_ERROR(LOGGER, "%s", "\x1b]0;title\x07 \xc2\x9b\x32J \xc3\xa9\n"); });
    EXPECT_TRUE(std::regex_match(
        text,
        std::regex(R"([\d:.]+ \x1b\[31merror    \[\d+\]\[Test::Logger\] \\x1B\]0;title\\x07 \\xC2\\x9B2J )"
                   "\xc3\xa9"
                   R"(\\n\x1b\[0m\r\n)")))
        << text;
}

TEST(LogSink, JournalGetsControlBytesAsTheyAre) {
    EXPECT_THAT(WritesOf([] {
                    PretendJournal();
                    std::string text;
                    fault_sendmsg.Replace([&](int, const msghdr* message, int) {
                        text.assign(static_cast<const char*>(message->msg_iov[2].iov_base),
                                    message->msg_iov[2].iov_len);
                        return static_cast<ssize_t>(1);
                    });
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", "a\tb\nc\x1b\xff");
                    EXPECT_EQ(text, "a\tb\nc\x1b\xff");
                    fault_sendmsg.Fail(-1, ENOENT);
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", "a\tb\nc\x1b\xff");
                }),
                ElementsAre("<3>a\\tb\\nc\\x1B\\xFF\n"));
}

TEST(LogSink, SyslogGetsTheLineThatTheCLibraryWouldSend) {
    EXPECT_THAT(WritesOf([] {
                    setenv("TERN_LOG_TARGET", "syslog", 1);
                    setenv("TZ", "EAST-01:30", 1);
                    tzset();
                    RootLogger::GetInstance();
                    std::string line;
                    std::string address;
                    fault_clock_gettime.Replace([](clockid_t, timespec* now) {
                        *now = {};
                        now->tv_sec = 1709161200;  // 28 February 2024, 23:00 in UTC
                        return 0;
                    });
                    fault_sendmsg.Replace([&](int, const msghdr* message, int) {
                        address = AddressOf(*message);
                        line = TextOf(*message);
                        return static_cast<ssize_t>(line.size());
                    });
                    RootLogger::GetInstance().Print(TernLogLevel::Notice, "%s\n<2>forged", "100% sure");
                    EXPECT_EQ(address, "/dev/log");
                    EXPECT_EQ(line, std::string("<13>Feb 29 00:30:00 ") + program_invocation_short_name +
                                        ": 100% sure\\n<2>forged");
                }),
                IsEmpty());
}

// Found by a fuzzer: the name is chosen by whoever starts the program.
TEST(LogSink, ProgramsNameBeginsNoFieldAndNoLine) {
    EXPECT_THAT(WritesOf([] {
                    std::string name = "one\nMESSAGE=two\x1b[2J";
                    program_invocation_short_name = name.data();
                    PretendJournal();
                    std::string entry;
                    fault_sendmsg.Replace([&](int, const msghdr* message, int) {
                        entry = TextOf(*message);
                        return static_cast<ssize_t>(entry.size());
                    });
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", "text");
                    EXPECT_EQ(entry.substr(0, entry.find("\nTID=")),
                              "PRIORITY=3\nSYSLOG_IDENTIFIER=one\\nMESSAGE=two\\x1B[2J");
                }),
                IsEmpty());
    EXPECT_THAT(WritesOf([] {
                    std::string name = "one\ntwo" + std::string(300, 'q');
                    program_invocation_short_name = name.data();
                    setenv("TERN_LOG_TARGET", "syslog", 1);
                    std::string line;
                    fault_sendmsg.Replace([&](int, const msghdr* message, int) {
                        line = TextOf(*message);
                        return static_cast<ssize_t>(line.size());
                    });
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", "text");
                    EXPECT_THAT(line, EndsWith(" one\\ntwo" + std::string(192, 'q') + ": text"));
                }),
                IsEmpty());
}

TEST(LogSink, WithoutSyslogStandardErrorIsTaken) {
    for (const int error : {ENOENT, ECONNREFUSED, EACCES, EMSGSIZE}) {
        EXPECT_THAT(WritesOf([&] {
                        setenv("TERN_LOG_TARGET", "syslog", 1);
                        fault_sendmsg.Fail(-1, error);
                        RootLogger::GetInstance().Print(TernLogLevel::Notice, "by hand");
                    }),
                    ElementsAre("<5>by hand\n"))
            << error;
    }
}

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <termios.h>
#include <tern-basic-log/root_logger.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "logger_child.h"
#include "support/interpose.h"
#include "support/temp_folder.h"

// Standard error that is full, has no reader, or is something else by now.

using std::chrono::milliseconds;
using tern::test::DurationOf;
using tern::test::InChild;
using tern::test::MakeStandardErrorASocket;
using tern::test::NO_WAIT;
using tern::test::ONE_WAIT;
using tern::test::Print;
using tern::test::PrintUntilOneWaits;
using tern::test::ReadAll;
using tern::test::TempFolder;
using tern::test::WritesOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TERN_INTERPOSE(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
#if __SIZEOF_POINTER__ == 8
TERN_INTERPOSE_SYMBOL_(ssize_t, pwritev2, "pwritev64v2",
                       (int fd, const iovec* parts, int count, off64_t at, int flags),
                       (fd, parts, count, at, flags))
TERN_INTERPOSE_SYMBOL_(int, open, "open64", (const char* path, int flags, int mode), (path, flags, mode))
#endif

namespace {

/// Long, and of a length that fills the pages of a pipe nearly to the last byte.
std::string NumberedAndLong(int number) {
    return std::to_string(number) + std::string(500, '.');
}

/// In a child: standard error is a pipe. Returns the end to read from.
int MakeStandardErrorAPipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
    close(ends[1]);
    return ends[0];
}

/// A terminal that Ctrl-S has stopped. Returns the other side; Ctrl-Q is written to it.
int MakeStandardErrorAStoppedTerminal() {
    int terminal = -1;
    int shell = -1;
    EXPECT_EQ(openpty(&terminal, &shell, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(dup2(shell, STDERR_FILENO), STDERR_FILENO);
    close(shell);
    EXPECT_EQ(tcflow(STDERR_FILENO, TCOOFF), 0);
    return terminal;
}

/// The lines of what was read. What stands behind the last newline counts as one.
std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

/// In a child: a sink that takes nothing costs one wait, then nothing, and the losses are told.
void ExpectOneWaitAndACount(int reader) {
    Print("first");
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    int taken = 0;
    EXPECT_LT(DurationOf([&] { taken = PrintUntilOneWaits(NumberedAndLong); }), ONE_WAIT);
    EXPECT_LT(DurationOf([] {
                  for (int i = 0; i < 1000; ++i) {
                      Print("dropped");
                  }
              }),
              NO_WAIT);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags) << "the flags are not ours alone";
    const std::vector<std::string> before = LinesOf(ReadAll(reader));
    EXPECT_EQ(before.size(), static_cast<std::size_t>(taken) + 1);
    Print("taken again");
    Print("as ever");
    EXPECT_THAT(LinesOf(ReadAll(reader)),
                ElementsAre("<4>Messages dropped, as the log did not take them: 1001", "<3>taken again",
                            "<3>as ever"));
}

#if __SIZEOF_POINTER__ == 8
/// In a child: a Linux that does not know RWF_NOWAIT for pipes.
void BeAnOlderLinux() {
    fault_pwritev2.Fail(-1, EOPNOTSUPP, 1000000);
}

/// In a child: descriptors cannot be opened again.
void BeWithoutProc() {
    fault_open.Fail(-1, ENOENT, 1000000);
}
#endif

std::string Content(int file) {
    std::string text(100000, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, pread(file, text.data(), text.size(), 0))));
    return text;
}

}  // namespace

TEST(StandardError, InterruptedAndShortWritesAreContinued) {
    EXPECT_THAT(WritesOf([] {
                    fault_send.Fail(-1, EINTR, 3);
                    Print("interrupted");
                    fault_send.Replace(
                        [](int fd, const void* data, size_t size, int flags) {
                            return fault_send.Real(fd, data, std::min<size_t>(size, 5), flags);
                        },
                        2);
                    Print("in pieces");
                    Print("whole");
                }),
                ElementsAre("<3>interrupted\n", "<3>in", " piec", "es\n", "<3>whole\n"));
}

// A reader that stopped reading held up every thread that logged, for ever.
TEST(StandardError, FullPipeCostsOneWaitAndTheLossesAreTold) {
    InChild([] { ExpectOneWaitAndACount(MakeStandardErrorAPipe()); });
}

TEST(StandardError, FullSocketCostsOneWaitAndTheLossesAreTold) {
    InChild([] { ExpectOneWaitAndACount(MakeStandardErrorASocket()); });
}

#if __SIZEOF_POINTER__ == 8
TEST(StandardError, FullPipeOnAnOlderLinuxCostsOneWaitAndTheLossesAreTold) {
    InChild([] {
        BeAnOlderLinux();
        ExpectOneWaitAndACount(MakeStandardErrorAPipe());
        EXPECT_EQ(fault_pwritev2.Calls(), 1) << "asked again for each message";
    });
}

TEST(StandardError, FullPipeOnAnOlderLinuxWithoutProcCostsOneWaitAndTheLossesAreTold) {
    InChild([] {
        BeAnOlderLinux();
        BeWithoutProc();
        ExpectOneWaitAndACount(MakeStandardErrorAPipe());
    });
}
#endif

TEST(StandardError, StoppedTerminalCostsOneWaitAndTheLossesAreTold) {
    InChild([] {
        const int terminal = MakeStandardErrorAStoppedTerminal();
        EXPECT_LT(DurationOf([] { PrintUntilOneWaits(NumberedAndLong); }), ONE_WAIT);
        EXPECT_LT(DurationOf([] {
                      for (int i = 0; i < 100; ++i) {
                          Print("dropped");
                      }
                  }),
                  NO_WAIT);
        EXPECT_EQ(ReadAll(terminal), "");
        EXPECT_EQ(tcflow(STDERR_FILENO, TCOON), 0);
        Print("taken again");
        const std::string text = ReadAll(terminal);
        EXPECT_THAT(text, HasSubstr("Messages dropped, as the log did not take them: 101\x1b[0m\r\n"));
        EXPECT_THAT(text, EndsWith("taken again\x1b[0m\r\n"));
        EXPECT_THAT(text, Not(HasSubstr("error    dropped")));
    });
}

TEST(StandardError, ThreadsWaitAtTheSameTime) {
    InChild([] {
        MakeStandardErrorAPipe();
        Print("first");
        const int filler = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        while (write(filler, "12345678", 8) > 0) {
        }
        const milliseconds wait = DurationOf([] {
            std::vector<std::thread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([] {
                    for (int message = 0; message < 50; ++message) {
                        Print("dropped");
                    }
                });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
        });
        EXPECT_GE(wait, milliseconds(900));
        EXPECT_LT(wait, 3 * ONE_WAIT);  // one after the other it would be eight seconds
    });
}

TEST(StandardError, SlowReaderGetsEverything) {
    InChild([] {
        const int reader = MakeStandardErrorAPipe();
        std::string text;
        std::thread slow([&] {
            char buffer[20000];
            while (text.find("the last one") == std::string::npos) {
                const ssize_t count = read(reader, buffer, sizeof buffer);
                ASSERT_GT(count, 0);
                text.append(buffer, static_cast<std::size_t>(count));
                std::this_thread::sleep_for(milliseconds(5));
            }
        });
        for (int i = 0; i < 2000; ++i) {
            Print(std::to_string(i) + ":" + std::string(500, '.'));
        }
        Print("the last one");
        slow.join();
        const std::vector<std::string> lines = LinesOf(text);
        EXPECT_EQ(lines.size(), 2001U);
        for (std::size_t i = 0; i < 2000 && i < lines.size(); ++i) {
            EXPECT_THAT(lines[i], StartsWith("<3>" + std::to_string(i) + ":"));
        }
    });
}

TEST(StandardError, LineThatWasCutIsNotContinuedByTheNext) {
    InChild([] {
        const int reader = MakeStandardErrorAPipe();
        const std::string text(100000, 'y');
        EXPECT_LT(DurationOf([&] { Print(text); }), ONE_WAIT);
        Print("dropped");
        const std::string cut = ReadAll(reader);
        EXPECT_EQ(cut, "<3>" + std::string(cut.size() - 3, 'y'));
        EXPECT_LT(cut.size(), text.size());
        Print("next");
        Print("further");
        EXPECT_EQ(ReadAll(reader),
                  "\n<4>Messages dropped, as the log did not take them: 2\n<3>next\n<3>further\n");
    });
}

TEST(StandardError, LongLineGoesOnWhenThereIsRoom) {
    InChild([] {
        const int reader = MakeStandardErrorAPipe();
        std::string text;
        std::thread slow([&] {
            char buffer[5000];
            while (text.find("end") == std::string::npos) {
                std::this_thread::sleep_for(milliseconds(2));
                const ssize_t count = read(reader, buffer, sizeof buffer);
                ASSERT_GT(count, 0);
                text.append(buffer, static_cast<std::size_t>(count));
            }
        });
        const std::string line(300000, 'y');
        Print(line);
        Print("end");
        slow.join();
        EXPECT_EQ(text, "<3>" + line + "\n<3>end\n");
    });
}

TEST(StandardError, FullDiskIsTold) {
    const TempFolder folder;
    InChild([&] {
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, STDERR_FILENO);
        Print("lost");
        Print("lost, too");
        const int file = open((folder / "log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        Print("room again");
        EXPECT_EQ(Content(file), "<4>Messages dropped, as the log did not take them: 2\n<3>room again\n");
    });
}

TEST(StandardError, PartOfALineOnAFullDiskIsNotContinued) {
    const TempFolder folder;
    InChild([&] {
        const int file = open((folder / "log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        int calls = 0;
        fault_write.Replace(
            [&](int fd, const void* data, size_t size) {
                if (calls++ == 0) {
                    return fault_write.Real(fd, data, size / 2);
                }
                errno = ENOSPC;
                return static_cast<ssize_t>(-1);
            },
            2);
        Print("12345678");
        Print("next");
        EXPECT_EQ(Content(file), "<3>123\n<4>Messages dropped, as the log did not take them: 1\n<3>next\n");
    });
}

// The process ended with SIGPIPE.
TEST(StandardError, ReaderThatHasGoneCostsMessagesNotTheProcess) {
    for (const auto make : {MakeStandardErrorAPipe, MakeStandardErrorASocket}) {
        InChild([&] {
            signal(SIGPIPE, SIG_DFL);
            close(make());
            EXPECT_LT(DurationOf([] {
                          Print("lost");
                          Print("lost, too");
                      }),
                      NO_WAIT);
            const int reader = make();
            Print("a reader");
            EXPECT_EQ(ReadAll(reader), "<4>Messages dropped, as the log did not take them: 2\n<3>a reader\n");
        });
    }
}

#if __SIZEOF_POINTER__ == 8
TEST(StandardError, ReaderThatHasGoneOnAnOlderLinuxCostsMessagesNotTheProcess) {
    for (const bool proc : {true, false}) {
        InChild([&] {
            signal(SIGPIPE, SIG_DFL);
            BeAnOlderLinux();
            if (!proc) {
                BeWithoutProc();
            }
            close(MakeStandardErrorAPipe());
            Print("lost");
            const int reader = MakeStandardErrorAPipe();
            Print("a reader");
            EXPECT_EQ(ReadAll(reader), "<4>Messages dropped, as the log did not take them: 1\n<3>a reader\n");
        });
    }
}
#endif

TEST(StandardError, ProgramsThatAreRunFindSigpipeAsItWas) {
    InChild([] {
        signal(SIGPIPE, SIG_DFL);
        MakeStandardErrorAPipe();
        Print("installs the handler");
        struct sigaction action {};
        EXPECT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
        EXPECT_NE(action.sa_handler, SIG_DFL);
        EXPECT_NE(action.sa_handler, SIG_IGN);
        // A shell that SIGPIPE ends: it says so with 141.
        EXPECT_EQ(WEXITSTATUS(system("sh -c 'kill -PIPE $$'")), 141);  // NOLINT(cert-env33-c)
    });
}

TEST(StandardError, ActionOfTheApplicationForSigpipeStays) {
    for (const auto own : {SIG_IGN, static_cast<void (*)(int)>([](int) {})}) {
        InChild([&] {
            signal(SIGPIPE, own);
            close(MakeStandardErrorAPipe());
            Print("lost");
            struct sigaction action {};
            EXPECT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
            EXPECT_EQ(action.sa_handler, own);
        });
    }
}

TEST(StandardError, SigpipeIsLeftAloneWithoutAPipe) {
    WritesOf([] {
        signal(SIGPIPE, SIG_DFL);
        Print("to a socket");
        struct sigaction action {};
        EXPECT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, SIG_DFL);
    });
}

/// In a child: puts one kind of standard error after another there.
void ExpectThatEachIsWrittenTo(const TempFolder& folder) {
    const int path = open((folder / "log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const auto makeFile = [&] {
        EXPECT_EQ(ftruncate(path, 0), 0);
        EXPECT_EQ(lseek(path, 0, SEEK_SET), 0);
        dup2(path, STDERR_FILENO);
        return path;
    };
    const auto expectLines = [](int reader, bool isFile) {
        Print("one");
        Print("two");
        EXPECT_EQ(isFile ? Content(reader) : ReadAll(reader), "<3>one\n<3>two\n");
    };
    expectLines(MakeStandardErrorAPipe(), false);
    expectLines(makeFile(), true);
    std::this_thread::sleep_for(milliseconds(1100));  // a file does not tell that it has become a pipe
    expectLines(MakeStandardErrorASocket(), false);
    expectLines(MakeStandardErrorAPipe(), false);
    expectLines(MakeStandardErrorASocket(), false);
    expectLines(makeFile(), true);
}

TEST(StandardError, WhateverIsPutThereLaterIsWrittenTo) {
    const TempFolder folder;
    InChild([&] { ExpectThatEachIsWrittenTo(folder); });
}

#if __SIZEOF_POINTER__ == 8
// A socket in the place of a pipe was taken for a pipe without a reader, and its messages were lost, for
// ever.
TEST(StandardError, WhateverIsPutThereLaterOnAnOlderLinuxIsWrittenTo) {
    const TempFolder folder;
    InChild([&] {
        BeAnOlderLinux();
        ExpectThatEachIsWrittenTo(folder);
    });
}
#endif

TEST(StandardError, FileThatHasBecomeAPipeIsFoundOut) {
    const TempFolder folder;
    InChild([&] {
        dup2(open((folder / "log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        Print("to a file");
        MakeStandardErrorAPipe();
        std::this_thread::sleep_for(milliseconds(1100));
        EXPECT_LT(DurationOf([] { PrintUntilOneWaits(NumberedAndLong); }), ONE_WAIT);
    });
}

#if __SIZEOF_POINTER__ == 8
// What is opened again for each line must not be taken for the terminal or pipe that it was.
TEST(StandardError, FileInThePlaceOfATerminalIsWrittenToInOrder) {
    const TempFolder folder;
    InChild([&] {
        BeAnOlderLinux();
        MakeStandardErrorAPipe();
        Print("to a pipe");
        const int file = open((folder / "log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        Print("one");
        EXPECT_EQ(write(STDERR_FILENO, "someone else\n", 13), 13);
        Print("two");
        EXPECT_EQ(Content(file), "<3>one\nsomeone else\n<3>two\n");
    });
}
#endif

TEST(StandardError, ClosedDescriptorLosesMessagesAndKeepsErrno) {
    EXPECT_THAT(WritesOf([] {
                    setenv("JOURNAL_STREAM", "1:2", 1);
                    close(STDERR_FILENO);
                    errno = ENOENT;
                    Print("nowhere");
                    EXPECT_EQ(errno, ENOENT);
                }),
                testing::IsEmpty());
}

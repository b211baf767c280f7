#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log_daemon.h"
#include "logger_child.h"
#include "support/temp_folder.h"

// The journal and the system log: daemons that do not read, and children forked beside threads that log.

using std::chrono::milliseconds;
using tern::test::DurationOf;
using tern::test::ExpectSuccess;
using tern::test::InChild;
using tern::test::LogDaemon;
using tern::test::MakeStandardErrorASocket;
using tern::test::NO_WAIT;
using tern::test::ONE_WAIT;
using tern::test::PretendJournal;
using tern::test::Print;
using tern::test::PrintUntilOneWaits;
using tern::test::ReadAll;
using tern::test::StartChild;
using tern::test::TempFolder;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

/// In a child: what goes to standard error is seen, and it passes for the journal's stream.
int BecomeJournalled() {
    const int reader = MakeStandardErrorASocket();
    PretendJournal();
    return reader;
}

std::string Numbered(int number) {
    return "message " + std::to_string(number);
}

void UseSyslog() {
    setenv("TERN_LOG_TARGET", "syslog", 1);
}

void ExpectOneWaitAndACount(const LogDaemon& daemon) {
    int taken = 0;
    EXPECT_LT(DurationOf([&] { taken = PrintUntilOneWaits(Numbered); }), ONE_WAIT);
    EXPECT_LT(DurationOf([] {
                  for (int i = 0; i < 1000; ++i) {
                      Print("dropped");
                  }
              }),
              NO_WAIT);
    for (int i = 0; i < taken; ++i) {
        EXPECT_THAT(daemon.Read(), HasSubstr("message " + std::to_string(i)));
    }
    EXPECT_EQ(daemon.Read(), "");
    Print("taken again");
    EXPECT_THAT(daemon.Read(), HasSubstr("Messages dropped, as the log did not take them: 1001"));
    EXPECT_THAT(daemon.Read(), HasSubstr("taken again"));
    EXPECT_EQ(daemon.Read(), "");
}

/// Whether the child ends by itself within `limit`; it is killed otherwise.
bool EndsWithin(pid_t pid, milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    int status = -1;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(milliseconds(1));
    }
    return status == 0;
}

}  // namespace

// A journal that did not read held up every thread that logged, for ever.
TEST(LogSocket, JournalThatDoesNotReadCostsOneWaitAndTheLossesAreTold) {
    const TempFolder folder;
    InChild([&] {
        const LogDaemon journal(folder / "journal", SOCK_DGRAM);
        const int reader = BecomeJournalled();
        ExpectOneWaitAndACount(journal);
        EXPECT_EQ(ReadAll(reader), "") << "not by the longer way either";
    });
}

TEST(LogSocket, SyslogThatDoesNotReadCostsOneWaitAndTheLossesAreTold) {
    const TempFolder folder;
    InChild([&] {
        const LogDaemon syslog(folder / "log", SOCK_DGRAM);
        UseSyslog();
        ExpectOneWaitAndACount(syslog);
    });
}

TEST(LogSocket, SlowDaemonGetsEverything) {
    const TempFolder folder;
    InChild([&] {
        const LogDaemon journal(folder / "journal", SOCK_DGRAM);
        const int reader = BecomeJournalled();
        int count = 0;
        std::thread slow([&] {
            std::string last;
            pollfd readable = {journal.Get(), POLLIN, 0};
            while (last.find("the last one") == std::string::npos && poll(&readable, 1, 10000) == 1) {
                std::this_thread::sleep_for(milliseconds(1));
                last = journal.Read();
                ++count;
            }
        });
        for (int i = 0; i < 1000; ++i) {
            Print(std::to_string(i));
        }
        Print("the last one");
        slow.join();
        EXPECT_EQ(count, 1001);
        EXPECT_EQ(ReadAll(reader), "");
    });
}

TEST(LogSocket, JournalThatEndsWhileItIsWaitedForIsReplacedByStandardError) {
    const TempFolder folder;
    InChild([&] {
        auto journal = std::make_unique<LogDaemon>(folder / "journal", SOCK_DGRAM);
        const int reader = BecomeJournalled();
        std::atomic<bool> ending{false};
        std::thread end([&] {
            ending.wait(false);
            std::this_thread::sleep_for(milliseconds(100));
            close(journal->Get());
        });
        milliseconds longest{0};
        for (int i = 0; longest < milliseconds(50) && i < 100000; ++i) {
            if (i == 5) {
                ending = true;
                ending.notify_all();
            }
            longest = std::max(longest, DurationOf([&] { Print("message"); }));
        }
        EXPECT_LT(longest, NO_WAIT);
        end.join();
        Print("by the longer way");
        EXPECT_THAT(ReadAll(reader), EndsWith("<3>by the longer way\n"));
        static_cast<void>(journal.release());  // closed already
    });
}

// Five of eight such children hung in syslog(3): another thread of their parent had held its lock.
TEST(LogSocket, ChildrenForkedBesideThreadsThatLogDoLogToo) {
    const TempFolder folder;
    for (const bool toSyslog : {true, false}) {
        InChild([&] {
            const LogDaemon daemon(folder / "log", SOCK_DGRAM);
            if (toSyslog) {
                UseSyslog();
            } else {
                BecomeJournalled();
            }
            // A child forked in the middle of the logger's very first use would wait for its end for ever.
            Print("the first");
            std::atomic<bool> stop{false};
            std::vector<std::thread> threads;
            for (int i = 0; i < 4; ++i) {
                threads.emplace_back([&] {
                    while (!stop) {
                        Print("of the parent");
                    }
                });
            }
            std::thread reader([&] {
                while (!stop) {
                    static_cast<void>(daemon.Read());
                }
            });
            for (int i = 0; i < 16; ++i) {
                const pid_t pid = fork();
                if (pid == 0) {
                    Print("of a child");
                    _exit(0);
                }
                EXPECT_TRUE(EndsWithin(pid, std::chrono::seconds(10))) << i;
                if (testing::Test::HasFailure()) {
                    break;
                }
            }
            stop = true;
            for (std::thread& thread : threads) {
                thread.join();
            }
            reader.join();
        });
    }
}

TEST(LogSocket, SyslogOfStreamsGetsLinesEndedByZero) {
    const TempFolder folder;
    InChild([&] {
        const LogDaemon syslog(folder / "log", SOCK_STREAM);
        UseSyslog();
        Print("over a stream");
        const int connection = accept(syslog.Get(), nullptr, nullptr);
        ASSERT_GE(connection, 0);
        const std::string text = ReadAll(connection);
        EXPECT_EQ(text[0], '<');
        EXPECT_THAT(text, EndsWith(std::string(": over a stream\0", 16)));
    });
}

TEST(LogSocket, SyslogOfStreamsThatDoesNotReadCostsOneWait) {
    const TempFolder folder;
    InChild([&] {
        const LogDaemon syslog(folder / "log", SOCK_STREAM);
        UseSyslog();
        // The connections wait to be accepted, as many as listen(2) allows.
        EXPECT_LT(DurationOf([] { EXPECT_LT(PrintUntilOneWaits(Numbered), 10); }), ONE_WAIT);
        EXPECT_LT(DurationOf([] {
                      for (int i = 0; i < 100; ++i) {
                          Print("dropped");
                      }
                  }),
                  NO_WAIT);
        for (int connection = 0; connection >= 0;) {
            connection = accept(syslog.Get(), nullptr, nullptr);
        }
        Print("taken again");
        const int told = accept(syslog.Get(), nullptr, nullptr);
        ASSERT_GE(told, 0);
        EXPECT_THAT(ReadAll(told), HasSubstr("Messages dropped, as the log did not take them: 101"));
        const int next = accept(syslog.Get(), nullptr, nullptr);
        ASSERT_GE(next, 0);
        EXPECT_THAT(ReadAll(next), HasSubstr("taken again"));
    });
}

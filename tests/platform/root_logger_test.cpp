#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "logger_child.h"
#include "malloc_stand_in.h"
#include "support/allocations.h"
#include "support/interpose.h"

// The real logger: this program does not link the capture.

using mwl::Log::RootLogger;
using tern::test::CountAllocations;
using tern::test::CountMallocs;
using tern::test::HasMallocStandIn;
using tern::test::MallocShortage;
using tern::test::WritesOf;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))

namespace {

const std::string LOGGER = "Test::Logger";

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

// A peer's text with a newline in it forged lines with a level of its own.
TEST(RootLogger, AMessageIsOneLineWhateverItHolds) {
    EXPECT_THAT(WritesOf([] {
                    TERN_LOG_ERROR(LOGGER, "two blanks  ");
                    TERN_LOG_ERROR(LOGGER, "a line\n    and another    ");
                    TERN_LOG_ERROR(LOGGER, "its own newline\n");
                    TERN_LOG_ERROR(LOGGER, "from a peer: %s", "x\n<2>[1][Service] forged\x1b[2J");
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "bare%c", '\0');
                }),
                ElementsAre("<3>" + Prefix() + " two blanks  \n",
                            "<3>" + Prefix() + " a line\\n    and another    \n",
                            "<3>" + Prefix() + " its own newline\\n\n",
                            "<3>" + Prefix() + " from a peer: x\\n<2>[1][Service] forged\\x1B[2J\n",
                            "<3>bare\\x00\n"));
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

TEST(RootLogger, EscapesTakeMemoryOnlyWhereTheyMakeALineLong) {
    const std::pair<std::size_t, long> rows[] = {{1, 0}, {1024, 0}, {1025, 1}, {4095, 1}};
    for (const auto& row : rows) {
        const std::string text(row.first, '\x01');
        std::string escaped;
        for (std::size_t i = 0; i < row.first; ++i) {
            escaped += "\\x01";
        }
        const std::vector<std::string> writes = WritesOf([&] {
            RootLogger::GetInstance();
            const long before = CountMallocs();
            RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
            const long mallocs = CountMallocs() - before;
            if (HasMallocStandIn()) {
                EXPECT_EQ(mallocs, row.second);
            }
        });
        EXPECT_THAT(writes, ElementsAre("<3>" + escaped + "\n")) << row.first;
    }
}

TEST(RootLogger, WithoutMemoryAnEscapedMessageIsCutBetweenEscapes) {
    if (!HasMallocStandIn()) {
        GTEST_SKIP() << "the sanitizer's malloc cannot be made to fail";
    }
    const std::string text = "ab" + std::string(2000, '\x01');
    std::string cut = "ab";
    for (int i = 0; i < 1023; ++i) {
        cut += "\\x01";
    }
    EXPECT_THAT(WritesOf([&] {
                    RootLogger::GetInstance();
                    const MallocShortage shortage;
                    RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
                }),
                ElementsAre("<3>" + cut + "\n"));
}

TEST(RootLogger, ErrnoIsPreserved) {
    EXPECT_THAT(WritesOf([] {
                    fault_send.Fail(-1, EIO);
                    errno = EXDEV;
                    TERN_LOG_ERROR(LOGGER, "lost");
                    EXPECT_EQ(errno, EXDEV);
                    TERN_LOG_ERROR(LOGGER, "kept: %d", errno);
                    EXPECT_EQ(errno, EXDEV);
                }),
                ElementsAre("<4>Messages dropped, as the log did not take them: 1\n",
                            "<3>" + Prefix() + " kept: 18\n"));
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

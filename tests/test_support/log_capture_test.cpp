#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern-basic-log/root_logger.h>
#include <tern/foundation/log.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/emulation.h"
#include "support/temp_folder.h"

namespace tern::test {
namespace {

const std::string NAME = "Name";

std::string ContentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

TEST(LogCapture, TakesMessagesWithTheirPrefixApart) {
    const LogCapture log;
    TERN_LOG_ERROR(NAME, "value %d", 1);
    TERN_LOG_TRACE(NAME, "plain");
    EXPECT_THAT(log.Entries(), testing::ElementsAre(Error(NAME, "value 1"), Trace(NAME, "plain")));
}

TEST(LogCapture, KeepsWhatBreaksThePrefix) {
    const LogCapture log;
    const auto& logger = mwl::Log::RootLogger::GetInstance();
    logger.Print(TernLogLevel::Info, "no prefix %d", 1);
    logger.Print(TernLogLevel::Info, "[%lu][%s] of another thread", 1UL, "Name");
    logger.Print(TernLogLevel::Debug, "[%lu][%s] without its mark",
                 static_cast<unsigned long>(pthread_self()), "Name");
    EXPECT_THAT(log.Entries(), testing::ElementsAre(testing::Field(&LogEntry::logger, "MALFORMED"),
                                                    testing::Field(&LogEntry::logger, "MALFORMED"),
                                                    testing::Field(&LogEntry::logger, "MALFORMED")));
}

/// Runs this program's first test with the file named as its record.
void RunWithRecord(const std::string& file) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command =
        "TERN_LOG_COVERAGE='" + file + "' '" + self +
        "' --gtest_filter=LogCapture.TakesMessagesWithTheirPrefixApart >/dev/null 2>&1";
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other threads
    EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST(LogCapture, LeavesAFileThatTheEnvironmentNamesAsItIs) {
    SKIP_WHERE_EMULATED("a program cannot start another one of its own kind");
    const TempFolder folder;
    for (const char* const content : {"precious\n", "level\tlogger\t", "level\tlogger\tformal\nx\n"}) {
        std::ofstream(folder / "file") << content;
        RunWithRecord(folder / "file");
        EXPECT_EQ(ContentOf(folder / "file"), content);
    }
    std::filesystem::create_directory(folder / "folder");
    RunWithRecord(folder / "folder");
    EXPECT_TRUE(std::filesystem::is_empty(folder / "folder"));
}

TEST(LogCapture, ThisProjectsTestsRecordTheirFormats) {
    SKIP_WHERE_EMULATED("a program cannot start another one of its own kind");
    const TempFolder folder;
    const std::string record =
        "level\tlogger\tformat\n3\tName\t[%lu][%s] value %d\n7\tName\t[%lu][%s][trace] plain\n";
    RunWithRecord(folder / "file");
    EXPECT_EQ(ContentOf(folder / "file"), record);
    // Anew with each run.
    std::ofstream(folder / "file", std::ios::app) << "6\tName\tgone by now\n";
    RunWithRecord(folder / "file");
    EXPECT_EQ(ContentOf(folder / "file"), record);
}

}  // namespace
}  // namespace tern::test

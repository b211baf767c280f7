#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <tern-foundation/unit_path.h>
#include <tern/dbus_client/reboot_system.h>
#include <tern/dbus_message/parser.h>
#include <tern/foundation/service_common.h>
#include <tern/threading/common.h>
#include <tern/utilities/device_name.h>
#include <tern/utilities/file_system.h>
#include <tern/utilities/zipper.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/static_text.h"
#include "support/temp_folder.h"

// The real logger, and every destructor of a static object counted: this program stands before __cxa_atexit.

namespace {

constexpr std::size_t MOST_OBJECTS = 4096;
/// The objects whose destructors were registered, those of the loading included.
void* gDestroyedLater[MOST_OBJECTS];
std::atomic<std::size_t> gDestroyedLaterCount{0};
/// What runs when the last static object of the process, the libraries' included, is gone.
void (*gAtTheVeryEnd)() = nullptr;

using RegisterDestructor = int (*)(void (*)(void*), void*, void*);

}  // namespace

extern "C" __attribute__((visibility("default"))) int __cxa_atexit(void (*destructor)(void*), void* object,
                                                                   void* library) {
    static const auto real = reinterpret_cast<RegisterDestructor>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    const std::size_t index = gDestroyedLaterCount.fetch_add(1);
    if (index == 0) {
        // Registered before all others, so it runs behind all others; it belongs to no library.
        static_cast<void>(real(
            [](void*) {
                if (gAtTheVeryEnd != nullptr) {
                    gAtTheVeryEnd();
                }
            },
            nullptr, nullptr));
    }
    if (index < MOST_OBJECTS) {
        gDestroyedLater[index] = object;
    }
    return real(destructor, object, library);
}

namespace {

using mwl::StaticText;
using mwl::Utilities::DeviceName;
using mwl::Utilities::FileSystem;

std::string NameOfLibrary(const void* object) {
    Dl_info info{};
    return dladdr(object, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

/// One error line each of two sources whose names are too long to be stored within a std::string itself.
void LogTwice() {
    std::string hostname;
    static_cast<void>(DeviceName::Create("", "", hostname));
    static_cast<void>(FileSystem::CheckDirectoryExist("/nowhere/at/all"));
}

/// What a child wrote to standard error that ran `body` and then left by exit(3).
std::vector<std::string> LinesOfAnExitAfter(void (*body)()) {
    const tern::test::TempFolder folder;
    const std::string path = folder.Path() + "/log";
    const pid_t pid = fork();
    if (pid == 0) {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        unsetenv("JOURNAL_STREAM");
        body();
        exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

void ExpectIntactNames(const std::vector<std::string>& lines) {
    const std::regex intact(R"(<[36]>\[\d+\]\[mwl::Utilities::(DeviceName|FileSystem)\] .*)");
    EXPECT_THAT(lines, testing::Not(testing::IsEmpty()));
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::regex_match(line, intact)) << line;
    }
}

}  // namespace

TEST(StaticText, IsAString) {
    static const StaticText text("a text that does not fit into a string itself");
    const std::string& view = text;
    EXPECT_EQ(view, "a text that does not fit into a string itself");
    EXPECT_EQ(&view, &text.Get());
    EXPECT_STREQ(text.c_str(), view.c_str());
    EXPECT_TRUE(std::is_trivially_destructible_v<StaticText>);
}

TEST(StaticText, PublicTextsAreAsStated) {
    EXPECT_EQ(mw::tern::ServiceCommon::mLogger, "Service");
    EXPECT_EQ(mwl::Threading::Common::mLogger, "Threading");
    EXPECT_EQ(FileSystem::FOLDER_SEPARATOR, "/");
    EXPECT_EQ(FileSystem::FILENAME_EXTENSION_SEPARATOR, ".");
    EXPECT_EQ(mwl::Utilities::Zipper::RELATIVE_PATH_STRING, "../");
    EXPECT_EQ(mw::tern::DBusMessage::Parser::KEY_SEPARATOR, "_");
    using mw::tern::DBusCommand::RebootSystem;
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_REMOTE, "Remote");
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_BUTTON, "Button");
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_FIRMWARE_UPDATE, "FirmwareUpdate");
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_RESTORE, "Restore");
}

// Logger names were destroyed at exit while threads that log with them were alive.
TEST(StaticText, LibrariesRegisterNoDestructorButTheLoggers) {
    const void* const logger = &mwl::Log::RootLogger::GetInstance();
    LogTwice();
    const std::size_t count = gDestroyedLaterCount;
    ASSERT_GT(count, 0U);
    ASSERT_LE(count, MOST_OBJECTS);
    bool loggerSeen = false;
    for (std::size_t i = 0; i < count; ++i) {
        loggerSeen = loggerSeen || gDestroyedLater[i] == logger;
        if (gDestroyedLater[i] != nullptr && gDestroyedLater[i] != logger) {
            EXPECT_THAT(NameOfLibrary(gDestroyedLater[i]), testing::Not(testing::HasSubstr("libtern-")))
                << "object " << i << " at " << gDestroyedLater[i];
        }
    }
    EXPECT_TRUE(loggerSeen) << "then nothing else would be seen either";
}

TEST(StaticText, DestructorOfAStaticObjectLogsIntactNames) {
    const std::vector<std::string> lines = LinesOfAnExitAfter([] {
        static const struct LogsLate {
            ~LogsLate() { LogTwice(); }
        } late;
        gAtTheVeryEnd = LogTwice;
    });
    EXPECT_EQ(lines.size(), 4U);
    ExpectIntactNames(lines);
}

TEST(StaticText, ThreadThatRunsDuringExitLogsIntactNames) {
    static std::atomic<unsigned> rounds{0};
    ExpectIntactNames(LinesOfAnExitAfter([] {
        std::thread([] {
            for (;;) {
                LogTwice();
                ++rounds;
                rounds.notify_all();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }).detach();
        rounds.wait(0);
        // Two further rounds: at least one whole one when everything that dies is dead.
        gAtTheVeryEnd = [] {
            for (unsigned seen = rounds, end = seen + 2; seen < end; seen = rounds) {
                rounds.wait(seen);
            }
        };
    }));
}

#include "support/notify_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "support/process_resources.h"
#include "temporary_place.h"

namespace tern::test {
namespace {

/// Runs `body` in a child that is not waited for.
template <typename Body>
pid_t Fork(Body body) {
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

TEST(NotifySocket, ReceivesWhatTheProcessAndItsChildrenSay) {
    NotifySocket systemd;
    EXPECT_EQ(systemd.ReceiveNow(), std::nullopt);
    sd_notify(0, "READY=1");
    EXPECT_EQ(systemd.Receive(), "READY=1");
    const pid_t child = Fork([] { sd_notify(0, "STATUS=child"); });
    EXPECT_EQ(systemd.Receive(), "STATUS=child");
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(systemd.Receive(std::chrono::milliseconds(1)), std::nullopt);
}

TEST(NotifySocket, OfSeveralTheLastOneThatLivesIsTold) {
    auto first = std::make_unique<NotifySocket>();
    {
        NotifySocket second;
        EXPECT_GT(sd_notify(0, "STATUS=second"), 0);
        EXPECT_EQ(second.ReceiveNow(), "STATUS=second");
    }
    EXPECT_GT(sd_notify(0, "STATUS=first"), 0);
    EXPECT_EQ(first->ReceiveNow(), "STATUS=first");
    // The former one goes when the new one is there.
    first = std::make_unique<NotifySocket>();
    EXPECT_GT(sd_notify(0, "STATUS=new"), 0);
    EXPECT_EQ(first->ReceiveNow(), "STATUS=new");
    first.reset();
    EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
}

TEST(NotifySocket, WorksInFoldersOfAnyName) {
    const TempFolder outer;
    for (const char* const name : ODD_NAMES) {
        const TemporaryPlace temporary(MakePlace(outer, name));
        NotifySocket systemd;
        EXPECT_GT(sd_notify(0, "READY=1"), 0) << name;
        EXPECT_EQ(systemd.ReceiveNow(), "READY=1") << name;
    }
}

// Cut short, its path lay outside of its folder, and where a first one was bound a second could not be.
TEST(NotifySocket, RefusesAFolderThatIsTooLongAndMakesNothingElsewhere) {
    const TempFolder outer;
    const std::size_t descriptors = CountDescriptors();
    const std::size_t own = std::string("/tern-test-XXXXXX/notify").size();
    {
        const TemporaryPlace temporary(MakePlace(outer, NameOfSize(outer, 107 - own)));
        NotifySocket systemd;
        sd_notify(0, "READY=1");
        EXPECT_EQ(systemd.ReceiveNow(), "READY=1");
    }
    for (const std::size_t size : {108 - own, std::size_t{106}, std::size_t{107}, std::size_t{200}}) {
        const std::string place = MakePlace(outer, NameOfSize(outer, size));
        const TemporaryPlace temporary(place);
        try {
            const NotifySocket systemd;
            ADD_FAILURE() << size;
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), testing::HasSubstr(place));
            EXPECT_THAT(error.what(), testing::HasSubstr("set TMPDIR to a folder with a shorter path"));
        }
        EXPECT_TRUE(std::filesystem::is_empty(place));
        EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(outer.Path())) {
        EXPECT_TRUE(entry.is_directory()) << entry.path();
    }
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(NotifySocket, ASignalDoesNotCutTheWait) {
    NotifySocket systemd;
    signal(SIGUSR1, [](int) {});
    const pid_t parent = getpid();
    const pid_t child = Fork([parent] {
        for (int i = 0; i < 20; ++i) {
            kill(parent, SIGUSR1);
            usleep(5000);
        }
        sd_notify(0, "READY=1");
    });
    EXPECT_EQ(systemd.Receive(), "READY=1");
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    signal(SIGUSR1, SIG_DFL);
}

TEST(NotifySocket, WaitsForARunningChildAndNoLongerThanItRuns) {
    NotifySocket systemd;
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const pid_t child = Fork([&] {
        char byte = 0;
        sd_notify(0, "STATUS=starting");
        static_cast<void>(!read(go[0], &byte, 1));
        sd_notify(0, "READY=1");
    });
    EXPECT_EQ(systemd.ReceiveFrom(child), "STATUS=starting");
    EXPECT_EQ(systemd.ReceiveFrom(child, std::chrono::milliseconds(50)), std::nullopt);
    EXPECT_EQ(write(go[1], "x", 1), 1);
    // Also what it has said just before its end.
    EXPECT_EQ(systemd.ReceiveFrom(child), "READY=1");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(systemd.ReceiveFrom(child), std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    // Not reaped.
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(systemd.ReceiveFrom(child), std::nullopt);
    EXPECT_EQ(systemd.ReceiveFrom(-1), std::nullopt);
    sd_notify(0, "READY=2");
    EXPECT_EQ(systemd.ReceiveFrom(-1), "READY=2");
    close(go[0]);
    close(go[1]);
}

TEST(NotifySocket, TheLongestLimitIsNone) {
    NotifySocket systemd;
    const pid_t child = Fork([] {
        usleep(50000);
        sd_notify(0, "READY=1");
    });
    EXPECT_EQ(systemd.ReceiveFrom(child, std::chrono::milliseconds::max()), "READY=1");
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(NotifySocket, TellsWithinASecondThatTheChildHasDied) {
    NotifySocket systemd;
    const pid_t child = Fork([] { _exit(7); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(systemd.ReceiveFrom(child), std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500) + TOLERANCE);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

}  // namespace
}  // namespace tern::test

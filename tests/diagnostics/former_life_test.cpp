#include "diagnostics/former_life.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <tern/diagnostics/recorder.h>
#include <tern/diagnostics/ring_reader.h>
#include <tern/foundation/log.h>
#include <tern/service/message_pipe.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/temp_folder.h"

// Lives are children; the real logger.

TERN_INTERPOSE(int, sd_pid_notify_with_fds,
               (pid_t pid, int unsetEnvironment, const char* state, const int* fds, unsigned count),
               (pid, unsetEnvironment, state, fds, count))

namespace {

using mw::tern::StatusCode;
using mwl::UniqueFd;
using mwl::Diagnostics::Recorder;
using mwl::Diagnostics::RingReader;
using tern::test::FaultScope;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string LOGGER = "Test";

/// systemd's notification socket, with the descriptors that come.
class Manager {
public:
    struct Notification {
        std::string text;
        UniqueFd fd;
    };

    Manager() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mPath.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(mSocket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", mPath.c_str(), 1);
    }
    ~Manager() { unsetenv("NOTIFY_SOCKET"); }

    std::optional<Notification> Receive() {
        std::array<char, 512> text{};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        iovec part{text.data(), text.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t length = recvmsg(mSocket.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (length < 0) {
            return std::nullopt;
        }
        Notification notification{std::string(text.data(), static_cast<std::size_t>(length)), UniqueFd()};
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
             header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
                int fd = -1;
                std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
                notification.fd.Reset(fd);
            }
        }
        return notification;
    }

private:
    tern::test::TempFolder mFolder;
    std::string mPath = mFolder.Path() + "/notify";
    UniqueFd mSocket{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

struct Life {
    int status = -1;
    std::string log;
};

/// A life to which systemd hands on `handedOn`, all of this name: begins its recorder, does `body`, and is
/// over.
Life Live(const std::vector<int>& handedOn, const std::function<void()>& body,
          const std::string& name = "tern-flight") {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        if (!handedOn.empty()) {
            // First out of the way of each other.
            constexpr int FAR = 100;
            std::string names;
            for (std::size_t i = 0; i < handedOn.size(); ++i) {
                dup2(handedOn[i], FAR + static_cast<int>(i));
                names += (i == 0 ? "" : ":") + name;
            }
            for (std::size_t i = 0; i < handedOn.size(); ++i) {
                dup2(FAR + static_cast<int>(i), SD_LISTEN_FDS_START + static_cast<int>(i));
            }
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            setenv("LISTEN_FDS", std::to_string(handedOn.size()).c_str(), 1);
            setenv("LISTEN_FDNAMES", names.c_str(), 1);
        }
        if (Recorder::Begin() != StatusCode::Ok) {
            _exit(98);
        }
        body();
        std::exit(0);  // NOLINT(concurrency-mt-unsafe)
    }
    close(ends[1]);
    Life life;
    std::array<char, 4096> text{};
    for (ssize_t length = 0; (length = read(ends[0], text.data(), text.size())) > 0;) {
        life.log.append(text.data(), static_cast<std::size_t>(length));
    }
    close(ends[0]);
    EXPECT_EQ(waitpid(child, &life.status, 0), child);
    return life;
}

/// What the life has left with the manager.
UniqueFd TakeLeft(Manager& manager) {
    const auto removal = manager.Receive();
    EXPECT_TRUE(removal);
    EXPECT_EQ(removal ? removal->text : "", "FDSTOREREMOVE=1\nFDNAME=tern-flight");
    auto storing = manager.Receive();
    EXPECT_TRUE(storing);
    EXPECT_EQ(storing ? storing->text : "", "FDSTORE=1\nFDNAME=tern-flight");
    return storing ? std::move(storing->fd) : UniqueFd();
}

TEST(FormerLife, FirstLifeSaysNothingAndLeavesItsMemory) {
    Manager manager;
    setenv("TERN_LOG_LEVEL", "debug", 1);
    const Life life = Live({}, [] {});
    unsetenv("TERN_LOG_LEVEL");
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(life.log, Not(HasSubstr("Former life")));
    EXPECT_THAT(life.log, Not(HasSubstr("The flight recorder ends with this process")));
    const UniqueFd left = TakeLeft(manager);
    const auto flight = RingReader::Read(left.Get());
    ASSERT_TRUE(flight.IsOk());
    EXPECT_EQ(flight->restarts, 0U);
}

TEST(FormerLife, OrderlyEndIsToldAsANotice) {
    Manager manager;
    Live({}, [] {});
    const UniqueFd left = TakeLeft(manager);
    const Life second = Live({left.Get()}, [] {});
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.log,
                AllOf(HasSubstr("<5>"), HasSubstr("[Diagnostics] Former life: It stopped in order.")));
    const UniqueFd leftAgain = TakeLeft(manager);
    const auto flight = RingReader::Read(leftAgain.Get());
    ASSERT_TRUE(flight.IsOk());
    EXPECT_EQ(flight->restarts, 1U);
    // What was said of the former life is no message of this one.
    EXPECT_THAT(flight->messages, IsEmpty());
}

TEST(FormerLife, KilledOneIsToldWithItsLastWords) {
    Manager manager;
    const Life first = Live({}, [] {
        TERN_LOG_ERROR(LOGGER, "the pump is stuck");
        raise(SIGKILL);
    });
    EXPECT_EQ(WTERMSIG(first.status), SIGKILL);
    const UniqueFd left = TakeLeft(manager);
    const Life second = Live({left.Get()}, [] {});
    EXPECT_THAT(second.log, AllOf(HasSubstr("<4>"), HasSubstr("Former life: It just ended"),
                                  HasSubstr("[Test] the pump is stuck")));
}

TEST(FormerLife, WhatWasHandedOnIsThisLifesMemoryThen) {
    Manager manager;
    Live({}, [] {});
    const UniqueFd left = TakeLeft(manager);
    const Life second = Live({left.Get()}, [] {
        const auto flight = RingReader::Read(SD_LISTEN_FDS_START);
        _exit(flight.IsOk() && flight->pid == static_cast<std::uint32_t>(getpid()) ? 0 : 1);
    });
    EXPECT_EQ(second.status, 0);
}

TEST(FormerLife, LatestOfSeveralIsTold) {
    // As with a store that has room for more than one, in which former ones were left.
    Manager manager;
    Live({}, [] {});
    const UniqueFd older = TakeLeft(manager);
    Live({}, [] {
        TERN_LOG_ERROR(LOGGER, "the pump is stuck");
        raise(SIGKILL);
    });
    const UniqueFd newer = TakeLeft(manager);
    for (const std::vector<int>& handedOn :
         {std::vector<int>{older.Get(), newer.Get()}, std::vector<int>{newer.Get(), older.Get()}}) {
        const Life life = Live(handedOn, [] {});
        EXPECT_EQ(life.status, 0);
        EXPECT_THAT(life.log, AllOf(HasSubstr("Former life: It just ended"), HasSubstr("the pump is stuck"),
                                    Not(HasSubstr("stopped in order"))));
        EXPECT_TRUE(TakeLeft(manager));
    }
}

TEST(FormerLife, StoreThatRefusesTheMemoryCostsTheNextLifeOnlyTheReason) {
    Manager manager;
    const Life first = Live({}, [] {
        TERN_LOG_ERROR(LOGGER, "the pump is stuck");
        raise(Recorder::IsRecording() ? SIGKILL : SIGTERM);
    });
    EXPECT_EQ(WTERMSIG(first.status), SIGKILL);
    // A store that is full closes what it is sent, and says nothing.
    TakeLeft(manager).Reset();
    const Life second = Live({}, [] { _exit(Recorder::IsRecording() ? 0 : 1); });
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.log, Not(HasSubstr("Former life")));
    EXPECT_TRUE(TakeLeft(manager));
}

TEST(FormerLife, MemoryThatCannotBeSentIsToldAndTheRecorderWorksOn) {
    Manager manager;
    setenv("TERN_LOG_LEVEL", "debug", 1);
    const FaultScope scope(fault_sd_pid_notify_with_fds);
    // sd_notify may come this way too.
    fault_sd_pid_notify_with_fds.Replace(
        [](pid_t pid, int unsetEnvironment, const char* state, const int* fds, unsigned count) {
            return count > 0 ? -ETOOMANYREFS
                             : fault_sd_pid_notify_with_fds.Real(pid, unsetEnvironment, state, fds, count);
        },
        2);
    const Life life = Live({}, [] { _exit(Recorder::IsRecording() ? 0 : 1); });
    unsetenv("TERN_LOG_LEVEL");
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(life.log,
                HasSubstr("The flight recorder ends with this process: Too many references: cannot splice"));
    EXPECT_TRUE(manager.Receive());
    EXPECT_FALSE(manager.Receive());
}

TEST(FormerLife, NonsenseIsToldAndDoesNotStandInTheWay) {
    Manager manager;
    const UniqueFd nonsense(memfd_create("nonsense", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(nonsense.Get(), 100000), 0);
    const Life life = Live({nonsense.Get()}, [] {});
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(
        life.log,
        HasSubstr("What the former life handed on cannot be read: this is no flight recorder's memory."));
    EXPECT_TRUE(TakeLeft(manager));
}

// A service that closes what it does not know of all that was handed on has opened something else since: that
// was the recorder's memory then.
TEST(FormerLife, NumberThatIsAnothersByNowIsLeftAlone) {
    Manager manager;
    for (const bool isFile : {true, false}) {
        const UniqueFd other(isFile ? open("/proc/self/exe", O_RDONLY | O_CLOEXEC)
                                    : socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        struct stat before {};
        ASSERT_EQ(fstat(other.Get(), &before), 0);
        const Life life = Live({other.Get()}, [&] {
            struct stat now {};
            const bool isSame = fstat(SD_LISTEN_FDS_START, &now) == 0 && now.st_dev == before.st_dev &&
                                now.st_ino == before.st_ino;
            _exit(isSame && Recorder::IsRecording() ? 0 : 1);
        });
        EXPECT_EQ(life.status, 0);
        EXPECT_THAT(life.log, Not(HasSubstr("Former life")));
        EXPECT_TRUE(TakeLeft(manager));
    }
}

TEST(FormerLife, DescriptorsOfOtherNamesAreLeftAlone) {
    Manager manager;
    const UniqueFd other(memfd_create("other", MFD_CLOEXEC));
    const Life life = Live(
        {other.Get()}, [] { _exit(RingReader::Read(SD_LISTEN_FDS_START).IsOk() ? 1 : 0); }, "http");
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(life.log, Not(HasSubstr("Former life")));
}

TEST(FormerLife, WithoutAManagerTheRecorderWorksOn) {
    unsetenv("NOTIFY_SOCKET");
    setenv("TERN_LOG_LEVEL", "debug", 1);
    const Life life = Live({}, [] { _exit(Recorder::IsRecording() ? 0 : 1); });
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(
        life.log,
        HasSubstr(
            "[Diagnostics][trace] The flight recorder ends with this process: no service manager keeps it"));
    setenv("NOTIFY_SOCKET", "/nonexistent/socket", 1);
    const Life deaf = Live({}, [] { _exit(Recorder::IsRecording() ? 0 : 1); });
    EXPECT_EQ(deaf.status, 0);
    EXPECT_THAT(deaf.log, HasSubstr("The flight recorder ends with this process: No such file or directory"));
    unsetenv("NOTIFY_SOCKET");
    unsetenv("TERN_LOG_LEVEL");
}

}  // namespace

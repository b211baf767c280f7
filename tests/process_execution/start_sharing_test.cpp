#include "process_execution/start_sharing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "support/child.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(void*, mmap64, (void* address, size_t size, int access, int flags, int fd, off_t offset),
               (address, size, access, flags, fd, offset))

namespace mwl::ProcessExecution {
namespace {

using tern::test::FaultScope;

/// What a child executes.
struct Program {
    const char* path;
    char* const* argv;
};

int Execute(void* data) {
    const Program& program = *static_cast<const Program*>(data);
    execv(program.path, program.argv);
    return 70;
}

pid_t StartShell(const std::string& script) {
    std::array<char*, 4> argv{const_cast<char*>("sh"), const_cast<char*>("-c"),
                              const_cast<char*>(script.c_str()), nullptr};
    Program program{"/bin/sh", argv.data()};
    return StartSharing(Execute, &program);
}

/// Exit status of a child, or minus the signal that ended it.
int WaitFor(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1000;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// The lines of /proc/PID/status with masks of signals. SigQ is none: it counts what is queued for the user.
std::map<std::string, std::string> ParseSignals(const std::string& path) {
    std::map<std::string, std::string> signals;
    std::ifstream status(path);
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Sig", 0) == 0 && line.rfind("SigQ", 0) != 0) {
            std::istringstream words(line);
            std::string name;
            words >> name >> signals[name];
        }
    }
    return signals;
}

/// Mappings of this process.
std::size_t CountMappings() {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        ++count;
    }
    return count;
}

void Ignore(int) {}

TEST(StartSharing, GivesTheExitStatusOfTheProgram) {
    EXPECT_EQ(WaitFor(StartShell("exit 7")), 7);
}

TEST(StartSharing, WhatTheChildReturnsIsItsExitStatus) {
    const pid_t pid = StartSharing([](void*) { return 41; }, nullptr);
    EXPECT_EQ(WaitFor(pid), 41);
}

TEST(StartSharing, TheChildKnowsItselfByItsOwnNumber) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const pid_t pid = StartSharing(
        [](void* data) {
            const pid_t own = getpid();
            return write(*static_cast<int*>(data), &own, sizeof own) == sizeof own ? 0 : 1;
        },
        &ends[1]);
    pid_t own = 0;
    EXPECT_EQ(read(ends[0], &own, sizeof own), static_cast<ssize_t>(sizeof own));
    EXPECT_EQ(own, pid);
    EXPECT_NE(own, getpid());
    EXPECT_EQ(WaitFor(pid), 0);
    close(ends[0]);
    close(ends[1]);
}

#ifndef __SANITIZE_THREAD__  // children get a copy there
TEST(StartSharing, TheChildHasThisProcessesMemoryAndTheCallerWaitsForIt) {
    SKIP_WHERE_EMULATED("the child gets a copy");
    std::atomic<int> shared{0};
    const pid_t pid = StartSharing(
        [](void* data) {
            usleep(20000);
            static_cast<std::atomic<int>*>(data)->store(5);
            return 0;
        },
        &shared);
    EXPECT_EQ(shared.load(), 5);
    EXPECT_EQ(WaitFor(pid), 0);
}

TEST(StartSharing, WithoutMemoryForItsStackThereIsNoChild) {
    FaultScope scope(fault_mmap64);
    fault_mmap64.Fail(MAP_FAILED, ENOMEM);
    errno = 0;
    EXPECT_EQ(StartShell("exit 0"), -1);
    EXPECT_EQ(errno, ENOMEM);
}
#endif

// A stack left behind would be a mapping, or two with its guard page, for each start. The allocators map some
// memory of their own meanwhile, AddressSanitizer's one more than others: a few, however many starts there
// are.
TEST(StartSharing, LeavesNoMemoryBehind) {
    constexpr std::size_t starts = 100;
    EXPECT_EQ(WaitFor(StartShell("exit 0")), 0);
    const std::size_t before = CountMappings();
    for (std::size_t i = 0; i < starts; ++i) {
        EXPECT_EQ(WaitFor(StartShell("exit 0")), 0);
    }
    EXPECT_LT(CountMappings(), before + starts / 2);
}

// The limit does not hold for root.
TEST(StartSharing, ARefusedChildIsTold) {
    if (getuid() != 0) {
        GTEST_SKIP() << "another user is needed whose limit nobody else uses up";
    }
    SKIP_WHERE_EMULATED("threads of the emulator count");
    const tern::test::ChildResult result = tern::test::RunInChild([] {
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setresuid(64321, 64321, 64321) != 0) {
            return 1;
        }
        errno = 0;
        return StartShell("exit 0") == -1 && errno == EAGAIN ? 0 : 2;
    });
    EXPECT_EQ(result.exitCode, 0);
}

// The caller's mask, nothing handled, and ignored what was ignored: as after fork(2) and execv(3).
TEST(StartSharing, TheProgramHasTheSignalsThatAForkedOneWouldHave) {
    const tern::test::TempFolder folder;
    const std::string file = folder.Path() + "/status";
    const tern::test::ChildResult result = tern::test::RunInChild([&file] {
        struct sigaction handled {};
        handled.sa_handler = Ignore;
        sigaction(SIGUSR1, &handled, nullptr);
        sigaction(SIGRTMIN + 3, &handled, nullptr);
        signal(SIGUSR2, SIG_IGN);
        sigset_t some;
        sigemptyset(&some);
        sigaddset(&some, SIGTERM);
        sigaddset(&some, SIGRTMIN + 5);
        pthread_sigmask(SIG_SETMASK, &some, nullptr);
        const std::string script = "cat /proc/self/status > " + file;
        std::array<char*, 4> argv{const_cast<char*>("sh"), const_cast<char*>("-c"),
                                  const_cast<char*>(script.c_str()), nullptr};
        const pid_t forked = fork();
        if (forked == 0) {
            execv("/bin/sh", argv.data());
            _exit(1);
        }
        if (WaitFor(forked) != 0) {
            return 2;
        }
        const auto expected = ParseSignals(file);
        if (WaitFor(StartShell(script)) != 0) {
            return 3;
        }
        const auto found = ParseSignals(file);
        if (expected.size() != 4 || found != expected) {
            for (const auto& [name, value] : found) {
                fprintf(stderr, "%s %s instead of %s\n", name.c_str(), value.c_str(),
                        expected.at(name).c_str());
            }
            return 4;
        }
        sigset_t own;
        pthread_sigmask(SIG_SETMASK, nullptr, &own);
        return sigismember(&own, SIGTERM) == 1 && sigismember(&own, SIGINT) == 0 ? 0 : 5;
    });
    EXPECT_EQ(result.exitCode, 0) << result.error;
}

pid_t parent = 0;
std::atomic<int> handledHere{0};
std::atomic<int> handledElsewhere{0};

void Count(int) {
    ++(getpid() == parent ? handledHere : handledElsewhere);
}

TEST(StartSharing, NoHandlerOfThisProcessRunsInTheChild) {
    const tern::test::ChildResult result = tern::test::RunInChild([] {
        // Signals to the group reach the children too, at every step of their way.
        setpgid(0, 0);
        parent = getpid();
        struct sigaction counted {};
        counted.sa_handler = Count;
        counted.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &counted, nullptr);
        std::atomic<bool> isDone{false};
        std::thread sender([&isDone] {
            sigset_t usr1;
            sigemptyset(&usr1);
            sigaddset(&usr1, SIGUSR1);
            pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
            while (!isDone) {
                kill(0, SIGUSR1);
            }
        });
        int strange = 0;
        for (int i = 0; i < 200; ++i) {
            std::array<char*, 2> argv{const_cast<char*>("true"), nullptr};
            Program program{"/bin/true", argv.data()};
            const int end = WaitFor(StartSharing(Execute, &program));
            strange += end != 0 && end != -SIGUSR1 ? 1 : 0;
        }
        isDone = true;
        sender.join();
        fprintf(stderr, "%d here, %d elsewhere, %d strange ends", handledHere.load(), handledElsewhere.load(),
                strange);
        return handledHere > 0 && handledElsewhere == 0 && strange == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode, 0) << result.error;
}

TEST(StartSharing, ManyThreadsStartProgramsAtOnce) {
    std::array<std::thread, 4> threads;
    std::atomic<int> right{0};
    for (std::thread& thread : threads) {
        thread = std::thread([&right] {
            for (int i = 0; i < 20; ++i) {
                right += WaitFor(StartShell("exit " + std::to_string(i))) == i ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right.load(), 80);
}

}  // namespace
}  // namespace mwl::ProcessExecution

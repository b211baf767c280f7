// What is left of programs: children that are reaped later, and runs that have to do with other threads and
// processes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "process_execution/command_fixture.h"

namespace mwl::ProcessExecution {
namespace {

// Children left at the time limit

void WaitForZombie(pid_t pid) {
    siginfo_t end{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT), 0);
}

/// Leaves a child that is killed at its time limit, and waits until it is a zombie.
pid_t LeaveAZombie() {
    FaultScope scope(fault_kill);
    pid_t killed = -1;
    fault_kill.Replace([&](pid_t pid, int number) {
        killed = pid;
        return fault_kill.Real(pid, number);
    });
    EXPECT_EQ(RunScript("exec sleep 1000", "", 20).exitCode, 1);
    WaitForZombie(killed);
    return killed;
}

TEST_F(CommandTest, ALaterRunReapsWhatWasLeft) {
    for (int i = 0; i < 3; ++i) {
        LeaveAZombie();
        ExpectEnd(RunScript("echo x"), 0, "x\n");
        EXPECT_EQ(ReapChildren(), 0);
    }
    // One that is left by a failure lives on and is reaped when it has ended.
    FaultScope scope(fault_fdopen);
    fault_fdopen.Fail(nullptr, ENOMEM);
    EXPECT_EQ(RunScript("exit 3").status, StatusCode::StreamError);
    siginfo_t end{};
    EXPECT_EQ(waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

TEST_F(CommandTest, WhatStillRunsIsReapedByAStillLaterRun) {
    FaultScope scope(fault_kill);
    pid_t running = -1;
    fault_kill.Replace([&](pid_t pid, int /*number*/) {
        running = pid;
        return 0;
    });
    EXPECT_EQ(RunScript("exec sleep 1000", "", 20).exitCode, 1);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(fault_kill.Real(running, SIGKILL), 0);  // it was neither reaped nor waited for
    WaitForZombie(running);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

TEST_F(CommandTest, TheApplicationsOwnChildrenAreLeftAlone) {
    const pid_t own = fork();
    if (own == 0) {
        _exit(42);
    }
    LeaveAZombie();
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    int status = 0;
    EXPECT_EQ(waitpid(own, &status, 0), own);
    EXPECT_EQ(WEXITSTATUS(status), 42);
}

/// Whose end is asked for during a run, besides that of its own program.
std::vector<pid_t> AskedFor(const std::function<void()>& run) {
    FaultScope scope(fault_waitpid);
    std::vector<pid_t> asked;
    fault_waitpid.Replace(
        [&](pid_t pid, int* status, int options) {
            asked.push_back(pid);
            return fault_waitpid.Real(pid, status, options);
        },
        1000000);
    run();
    return asked;
}

// Its number may be another child's by now, which is the application's own.
TEST_F(CommandTest, WhatTheApplicationReapedItselfIsNotAskedFor) {
    const pid_t zombie = LeaveAZombie();
    EXPECT_EQ(waitpid(zombie, nullptr, 0), zombie);
    EXPECT_THAT(AskedFor([] { ExpectEnd(RunScript("echo x"), 0, "x\n"); }), Not(Contains(zombie)));
}

/// Lets another process have the number of each process whose file is read.
int OpenAnotherProcess(const char* path, int flags, unsigned int mode) {
    return fault_open64.Real(strncmp(path, "/proc/", 6) == 0 ? "/proc/1/stat" : path, flags, mode);
}

TEST_F(CommandTest, AnotherProcessOfTheSameNumberIsNotAskedFor) {
    FaultScope scope(fault_open64);
    const pid_t zombie = LeaveAZombie();
    fault_open64.Replace(OpenAnotherProcess);
    EXPECT_THAT(AskedFor([] { ExpectEnd(RunScript("echo x"), 0, "x\n"); }), Not(Contains(zombie)));
    EXPECT_EQ(ReapChildren(), 1);
}

TEST_F(CommandTest, WithoutDescriptorsItIsReapedByItsNumberOrLater) {
    FaultScope scope(fault_open64);
    // Unknown from the beginning.
    fault_open64.Fail(-1, EMFILE);
    LeaveAZombie();
    EXPECT_EQ(fault_open64.Calls(), 1);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
    // Not to be had when it could be reaped.
    const pid_t zombie = LeaveAZombie();
    fault_open64.Fail(-1, EMFILE);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    WaitForZombie(zombie);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

TEST_F(CommandTest, AForkedChildDoesNotAskForItsParentsChildren) {
    const pid_t zombie = LeaveAZombie();
    const tern::test::ChildResult result = tern::test::RunInChild([zombie] {
        const std::vector<pid_t> asked = AskedFor([] { RunScript("echo x"); });
        return std::ranges::count(asked, zombie) == 0 && !asked.empty() ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode, 0);
    ExpectEnd(RunScript("echo x"), 0, "x\n");
    EXPECT_EQ(ReapChildren(), 0);
}

// A zombie that its parent leaves behind becomes the next subreaper's.
TEST_F(CommandTest, WhatIsLeftIsReapedAtTheEndOfTheProcess) {
    SKIP_WHERE_EMULATED("a process cannot become a subreaper");
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const tern::test::ChildResult result = tern::test::RunInChild([]() -> int {
        LeaveAZombie();
        exit(3);
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(ReapChildren(), 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(CommandTest, ThreadsThatLeaveChildrenAtOnceLoseNone) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(RunScript("exec sleep 1000", "", 1).exitCode, 1);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(tern::test::WaitUntil([] {
        ExpectEnd(RunScript("echo x"), 0, "x\n");
        siginfo_t end{};
        return waitid(P_ALL, 0, &end, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == ECHILD;
    }));
}

// The other program is started where a second thread's would do most harm: between the pipes and the start.
TEST_F(CommandTest, ProgramsRunAtOnceDoNotInheritEachOthersPipes) {
    FaultScope scope(fault_start);
    std::string inner;
    fault_start.Replace([&](auto... arguments) {
        inner = RunScript(LIST_DESCRIPTORS).output;
        return fault_start.Real(arguments...);
    });
    EXPECT_EQ(ParseDescriptors(RunScript(LIST_DESCRIPTORS).output), ExpectedDescriptors());
    EXPECT_EQ(ParseDescriptors(inner), ExpectedDescriptors());
}

TEST_F(CommandTest, TwoThreadsRunProgramsAtOnce) {
    const Descriptors expected = ExpectedDescriptors();
    const auto work = [&expected](const std::string& text) {
        for (int i = 0; i < 10; ++i) {
            const Outcome outcome = RunProgram(Command("/bin/cat", LIMIT_MS), {}, text);
            ASSERT_EQ(outcome.status, StatusCode::Ok);
            ASSERT_EQ(outcome.exitCode, 0);
            ASSERT_TRUE(outcome.output == text);
            EXPECT_EQ(ParseDescriptors(RunScript(LIST_DESCRIPTORS).output), expected);
        }
    };
    std::thread first(work, Text(MIB));
    std::thread second(work, std::string(MIB, 'y'));
    first.join();
    second.join();
}

// Neither the SIGPIPE that is taken back nor the kill at the time limit is a queued signal.
TEST_F(CommandTest, RunsInAProcessThatMayQueueNoSignals) {
    const tern::test::ChildResult result = tern::test::RunInChild([] {
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_SIGPENDING, &none) != 0) {
            return 1;
        }
        const Outcome early = RunScript("exec <&-; echo closed; sleep 0.2; exit 3", Text(5 * MIB));
        const Outcome late = RunScript("exec sleep 1000", "", 50);
        return early.exitCode == 3 && early.output == "closed\n" && late.status == StatusCode::Ok &&
                       late.exitCode == 1
                   ? 0
                   : 2;
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.log, Contains(testing::Field(&LogEntry::text, HasSubstr("(errno=Broken pipe)"))));
    EXPECT_THAT(result.log, Contains(Error(NAME, "Command [sh] aborted by timeout 50ms")));
}

// A log call in the child would wait for ever for a lock that another thread held at the start.
TEST_F(CommandTest, AChildThatCannotExecuteTakesNoLock) {
    LogCapture log(3);
    std::atomic<bool> stop{false};
    std::thread logger([&] {
        while (!stop) {
            mwl::Log::RootLogger::GetInstance().Print(TernLogLevel::Error, "[%lu][%s] %s",
                                                      static_cast<unsigned long>(pthread_self()), "Other",
                                                      "x");
        }
    });
    for (int i = 0; i < 50; ++i) {
        ExpectEnd(RunProgram(Command("/nowhere/tool", LIMIT_MS), {}), 1, "");
        log.Clear();
    }
    stop = true;
    logger.join();
}

}  // namespace
}  // namespace mwl::ProcessExecution

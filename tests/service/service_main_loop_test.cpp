#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-event.h>
#include <tern/service/service_main_loop.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/notify_socket.h"

using mw::tern::ServiceMainLoop;
using mw::tern::StatusCode;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, sd_event_default, (sd_event * *event), (event))
TERN_INTERPOSE(int, sd_event_set_watchdog, (sd_event * event, int on), (event, on))
TERN_INTERPOSE(int, sd_event_add_signal,
               (sd_event * event, sd_event_source** source, int signal, sd_event_signal_handler_t handler,
                void* userdata),
               (event, source, signal, handler, userdata))
TERN_INTERPOSE(int, sigemptyset, (sigset_t * set), (set))
TERN_INTERPOSE(int, sigaddset, (sigset_t * set, int signal), (set, signal))
TERN_INTERPOSE(int, pthread_sigmask, (int how, const sigset_t* set, sigset_t* old), (how, set, old))

namespace {

const std::string STOPPING = "STOPPING=1\nShutting down...";

/// Runs each body on a thread of its own, as the loop is the thread's default; the test's thread has the two
/// signals blocked for all of them.
class ServiceMainLoopTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    }

    template <typename Body>
    void OnThread(Body body) {
        std::thread(body).join();
    }

    static std::string RunMessage(int r) { return "sd_event_loop exited with " + std::to_string(r); }

    tern::test::NotifySocket mNotify;
    tern::test::LogCapture mLog;
};

bool IsBlocked(int signal) {
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, signal) == 1;
}

}  // namespace

TEST_F(ServiceMainLoopTest, BlocksTerminationAndInterruptForThisThreadOnly) {
    OnThread([] {
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGTERM);
        sigaddset(&both, SIGINT);
        pthread_sigmask(SIG_UNBLOCK, &both, nullptr);
        ASSERT_FALSE(IsBlocked(SIGTERM));
        EXPECT_EQ(ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
        EXPECT_TRUE(IsBlocked(SIGTERM));
        EXPECT_TRUE(IsBlocked(SIGINT));
        EXPECT_FALSE(IsBlocked(SIGUSR1));
    });
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ServiceMainLoopTest, FailingToBlockGivesTheErrorsStatus) {
    {
        const FaultScope scope(fault_sigemptyset);
        fault_sigemptyset.Fail(-1, EINVAL);
        EXPECT_EQ(ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::InvalidArgument);
    }
    for (const int skip : {0, 1}) {
        const FaultScope scope(fault_sigaddset);
        fault_sigaddset.Fail(-1, EPERM, 1, skip);
        EXPECT_EQ(ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::NotPermitted) << skip;
    }
    {
        const FaultScope scope(fault_pthread_sigmask);
        fault_pthread_sigmask.Fail(ENOMEM);
        EXPECT_EQ(ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::OutOfMemory);
    }
}

TEST_F(ServiceMainLoopTest, InitTakesTheThreadsDefaultLoop) {
    OnThread([] {
        ServiceMainLoop loop;
        EXPECT_EQ(loop.GetEvent(), nullptr);
        EXPECT_EQ(loop.Init(), StatusCode::Ok);
        sd_event* event = nullptr;
        sd_event_default(&event);
        EXPECT_EQ(loop.GetEvent(), event);
        EXPECT_EQ(sd_event_get_watchdog(event), 0) << "systemd announced none";
        sd_event_unref(event);
    });
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ServiceMainLoopTest, SecondInitIsBusyAndLeavesTheLoop) {
    OnThread([] {
        ServiceMainLoop loop;
        ASSERT_EQ(loop.Init(), StatusCode::Ok);
        sd_event* const first = loop.GetEvent();
        EXPECT_EQ(loop.Init(), StatusCode::Busy);
        EXPECT_EQ(loop.GetEvent(), first);
    });
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ServiceMainLoopTest, InitReportsALoopThatCannotBeMade) {
    OnThread([] {
        const FaultScope scope(fault_sd_event_default);
        fault_sd_event_default.Fail(-EMFILE);
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::ResourceUnavailable);
        EXPECT_EQ(loop.GetEvent(), nullptr);
    });
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error("Service", "Failed to init event loop (-24, Too many open files")));
}

TEST_F(ServiceMainLoopTest, InitKeepsTheLoopWhenOnlyTheWatchdogFails) {
    OnThread([] {
        const FaultScope scope(fault_sd_event_set_watchdog);
        fault_sd_event_set_watchdog.Fail(-ENOMEM);
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::OutOfMemory);
        EXPECT_NE(loop.GetEvent(), nullptr);
    });
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service", "Failed to set automatic watchdog (-12, Cannot allocate memory)")));
}

TEST_F(ServiceMainLoopTest, FeedsTheWatchdogThatSystemdAnnounces) {
    setenv("WATCHDOG_USEC", "20000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    pthread_t loopThread{};
    std::thread thread([&] {
        loopThread = pthread_self();
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::Ok);
        EXPECT_EQ(loop.Run(), StatusCode::Ok);
    });
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(mNotify.Receive(), "WATCHDOG=1");
    }
    pthread_kill(loopThread, SIGTERM);
    thread.join();
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}

TEST_F(ServiceMainLoopTest, EitherSignalEndsTheLoopInOrder) {
    for (const int signal : {SIGTERM, SIGINT}) {
        mLog.Clear();
        pthread_t loopThread{};
        StatusCode status = StatusCode::Failure;
        std::thread thread([&] {
            loopThread = pthread_self();
            ServiceMainLoop loop;
            EXPECT_EQ(loop.Init(), StatusCode::Ok);
            status = loop.Run();
        });
        ASSERT_TRUE(mLog.WaitFor(Info("Service", "Entering D-Bus event loop")));
        pthread_kill(loopThread, signal);
        thread.join();
        EXPECT_EQ(status, StatusCode::Ok);
        const std::string record =
            "ExitCallback: signalfd_siginfo:\n    - ssi_signo: " + std::to_string(signal) +
            "\n    - ssi_code: " + std::to_string(SI_TKILL) + "\n    - ssi_pid: " + std::to_string(getpid()) +
            "\n    - ssi_uid: " + std::to_string(getuid()) + "\n    - ssi_status: 0    ";
        EXPECT_THAT(
            mLog.Entries(),
            ElementsAre(Info("Service", "Entering D-Bus event loop"), tern::test::Trace("Service", record),
                        Info("Service", "Exiting now!"), Info("Service", RunMessage(0))));
        EXPECT_EQ(mNotify.Receive(), STOPPING);
        EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt) << "sent once";
    }
}

TEST_F(ServiceMainLoopTest, SignalSentToTheProcessEndsTheLoop) {
    StatusCode status = StatusCode::Failure;
    std::thread thread([&] {
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::Ok);
        status = loop.Run();
    });
    ASSERT_TRUE(mLog.WaitFor(Info("Service", "Entering D-Bus event loop")));
    kill(getpid(), SIGTERM);
    thread.join();
    EXPECT_EQ(status, StatusCode::Ok);
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

TEST_F(ServiceMainLoopTest, SignalThatCameDuringStartUpEndsTheLoopAtOnce) {
    kill(getpid(), SIGTERM);
    OnThread([] {
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::Ok);
        EXPECT_EQ(loop.Run(), StatusCode::Ok);
    });
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

TEST_F(ServiceMainLoopTest, ExitCodeBecomesTheStatus) {
    struct Row {
        int code;
        StatusCode status;
    };
    for (const Row& row :
         {Row{0, StatusCode::Ok}, Row{7, StatusCode::Ok}, Row{-ETIMEDOUT, StatusCode::Timeout}}) {
        mLog.Clear();
        OnThread([&] {
            ServiceMainLoop loop;
            EXPECT_EQ(loop.Init(), StatusCode::Ok);
            sd_event_exit(loop.GetEvent(), row.code);
            EXPECT_EQ(loop.Run(), row.status) << row.code;
        });
        EXPECT_THAT(mLog.Entries(), ElementsAre(Info("Service", "Entering D-Bus event loop"),
                                                Info("Service", RunMessage(row.code))));
        EXPECT_EQ(mNotify.Receive(), STOPPING);
    }
}

TEST_F(ServiceMainLoopTest, RunWithoutTheFirstHandlerEndsAtOnceAndStillSaysSo) {
    OnThread([] {
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::Ok);
        const FaultScope scope(fault_sd_event_add_signal);
        fault_sd_event_add_signal.Fail(-EBUSY);
        EXPECT_EQ(loop.Run(), StatusCode::Busy);
        EXPECT_EQ(fault_sd_event_add_signal.Calls(), 1) << "the second handler is not tried";
    });
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error("Service", "Failed to add SIGTERM handler (-16, Device or resource busy)"),
                            Info("Service", "Entering D-Bus event loop"), Info("Service", RunMessage(-16))));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
    EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt) << "sent once";
}

TEST_F(ServiceMainLoopTest, RunWithoutTheSecondHandlerEndsAtOnceAndStillSaysSo) {
    OnThread([] {
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Init(), StatusCode::Ok);
        const FaultScope scope(fault_sd_event_add_signal);
        fault_sd_event_add_signal.Fail(-EBUSY, 0, 1, 1);
        EXPECT_EQ(loop.Run(), StatusCode::Busy);
    });
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error("Service", "Failed to add SIGINT handler, (-16, Device or resource busy)"),
                            Info("Service", "Entering D-Bus event loop"), Info("Service", RunMessage(-16))));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
    EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt) << "sent once";
}

TEST_F(ServiceMainLoopTest, RunWithoutInitFailsAndStillSaysSo) {
    OnThread([] {
        ServiceMainLoop loop;
        EXPECT_EQ(loop.Run(), StatusCode::InvalidArgument);
    });
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error("Service", "Failed to add SIGTERM handler (-22, Invalid argument)"),
                            Info("Service", "Entering D-Bus event loop"), Info("Service", RunMessage(-22))));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
    EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt) << "sent once";
}

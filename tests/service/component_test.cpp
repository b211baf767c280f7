#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/component.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <system_error>

#include "foundation/handle.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/notify_socket.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/threads_of_children.h"
#include "support/wait_until.h"

using mw::tern::StatusCode;
using mwl::DBusService::Component;
using mwl::DBusService::IpcServer;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LogEntry;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, pthread_sigmask, (int how, const sigset_t* set, sigset_t* old), (how, set, old))
TERN_INTERPOSE(int, sd_event_default, (sd_event * *event), (event))
TERN_INTERPOSE(int, sd_event_add_signal,
               (sd_event * event, sd_event_source** source, int signal, sd_event_signal_handler_t handler,
                void* userdata),
               (event, source, signal, handler, userdata))
TERN_INTERPOSE(int, sd_bus_attach_event, (sd_bus * bus, sd_event* event, int priority),
               (bus, event, priority))
TERN_INTERPOSE(int, sd_bus_add_filter,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message_handler_t handler, void* userdata),
               (bus, slot, handler, userdata))
TERN_INTERPOSE(int, sd_bus_slot_set_floating, (sd_bus_slot * slot, int isFloating), (slot, isFloating))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument),
               (thread, attributes, start, argument))

#ifndef __SANITIZE_THREAD__  // which calls it before it can be asked for the real one
// By which pthread_atfork(3) registers.
TERN_INTERPOSE(int, __register_atfork, (void (*prepare)(), void (*parent)(), void (*child)(), void* library),
               (prepare, parent, child, library))
#endif

namespace {

const std::string NAME = "com.example.Extension";
constexpr const char* LOGGER = "DBusService::Component";
const std::string STOPPING = "STOPPING=1\nShutting down...";

/// Notes in order what the D-Bus thread tells monitor and application.
class Journal {
public:
    void Add(const std::string& event) {
        const std::lock_guard lock(mMutex);
        mEvents.push_back(mNote ? event + mNote() : event);
    }
    /// Appends what `note` returns to each event to come.
    void Note(std::function<std::string()> note) { mNote = std::move(note); }
    std::vector<std::string> Take() {
        const std::lock_guard lock(mMutex);
        return std::exchange(mEvents, {});
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mEvents;
    std::function<std::string()> mNote;
};

class JournalingMonitor : public mwl::Threading::ThreadsMonitorInterface {
public:
    explicit JournalingMonitor(Journal& journal) : mJournal(journal) {}
    void AddWorkerThread(mwl::Threading::ThreadManager&) override { mJournal.Add("AddWorkerThread"); }
    void RemoveWorkerThread(mwl::Threading::ThreadManager&) override { mJournal.Add("RemoveWorkerThread"); }
    void SetDBusThreadId(unsigned long id) override {
        mThreadId = id;
        mJournal.Add(id == pthread_self() ? "SetDBusThreadId" : "SetDBusThreadId of another");
    }
    void StopWorkerThreads() override { mJournal.Add("StopWorkerThreads"); }
    void NotifyDBusThreadToStop(bool) override { mJournal.Add("NotifyDBusThreadToStop"); }
    void NotifyDBusThreadToStopOnFailure() override { mJournal.Add("NotifyDBusThreadToStopOnFailure"); }
    bool HasFailure() override { return false; }
    /// Ends the D-Bus thread's loop, as a worker's request or systemd would.
    void Terminate() const { pthread_kill(mThreadId, SIGTERM); }

private:
    Journal& mJournal;
    std::atomic<unsigned long> mThreadId{0};
};

class JournalingServer : public IpcServer {
public:
    explicit JournalingServer(Journal& journal, StatusCode startResult = StatusCode::Ok)
        : mJournal(journal), mStartResult(startResult) {}
    void Stop() override {
        if (onStop) {
            onStop();
        }
        mJournal.Add("IpcServer::Stop");
    }
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const bool attached = sd_bus_get_event(manager.GetBus()) == loop.GetEvent();
        mJournal.Add(attached ? "IpcServer::Start" : "IpcServer::Start before attach");
        if (onStart) {
            onStart(manager, loop);
        }
        return mStartResult;
    }

    std::function<void(mw::tern::DBusServerManager&, mw::tern::EventLoop&)> onStart;
    std::function<void()> onStop;

private:
    Journal& mJournal;
    StatusCode mStartResult;
};

void UnblockTheSignals() {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGTERM);
    sigaddset(&both, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &both, nullptr);
}

bool HasOwner(const std::string& name) {
    sd_bus* opened = nullptr;
    EXPECT_GE(sd_bus_open_system(&opened), 0);
    const mwl::Handle<sd_bus, sd_bus_flush_close_unref> bus(opened);
    sd_bus_creds* creds = nullptr;
    const int r = sd_bus_get_name_creds(bus.get(), name.c_str(), 0, &creds);
    sd_bus_creds_unref(creds);
    return r >= 0;
}

/// The answer shows that the loop is entered, so that its thread holds no lock of the log.
bool IsServing(const std::string& name) {
    sd_bus* opened = nullptr;
    EXPECT_GE(sd_bus_open_system(&opened), 0);
    const mwl::Handle<sd_bus, sd_bus_flush_close_unref> bus(opened);
    return sd_bus_call_method(bus.get(), name.c_str(), "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
                              nullptr, nullptr) >= 0;
}

class ComponentTest : public testing::Test {
protected:
    ComponentTest() : mMonitor(mJournal), mServer(mJournal), mComponent(NAME, mMonitor, mServer) {}
    void SetUp() override { ASSERT_EQ(mComponent.Initialize(), StatusCode::Ok); }

    /// The component's own messages, without the two pointers' texts.
    std::vector<LogEntry> ComponentLog() const { return mLog.Entries(LOGGER); }
    static LogEntry ExitMessage(unsigned int status) {
        return Info(LOGGER, "Exit D-Bus thread, status=" + std::to_string(status));
    }
    static auto IsJoinMessage() {
        return testing::Field(&LogEntry::text,
                              testing::MatchesRegex("Join D-Bus thread mThread=\\[0x[0-9a-f]+\\]"));
    }

    tern::test::PrivateBus mBus;
    tern::test::NotifySocket mNotify;
    tern::test::LogCapture mLog;
    Journal mJournal;
    JournalingMonitor mMonitor;
    JournalingServer mServer;
    Component mComponent;
};

const LogEntry BLOCK = Info(LOGGER, "Block signals SIGTERM and SIGINT for this thread");
const LogEntry START = Info(LOGGER, "Start D-Bus service");
const LogEntry THREAD = Info(LOGGER, "Start D-Bus thread");
const LogEntry STARTED = Info(LOGGER, "D-Bus thread started");
const LogEntry COMPLETED = Info(LOGGER, "D-Bus thread execution has completed, D-Bus service stopped");

}  // namespace

#ifndef __SANITIZE_THREAD__
// First of all: later what is made once for all in a process has been made.
//
// A thread that is at that when another one forks is not in the child, which waited for its end.
TEST_F(ComponentTest, ForkedChildHasAServiceOfItsOwnWhileTheFirstIsStarted) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const std::string ownName = "com.example.Child";
    for (const int skipped : {0, 1, 2}) {
        const tern::test::ChildResult child = tern::test::RunInChild([&] {
            std::atomic<bool> isReached{false};
            std::atomic<bool> hasStarted{false};
            std::atomic<bool> hasForked{false};
            const FaultScope scope(fault___register_atfork);
            fault___register_atfork.Replace(
                [&](void (*prepare)(), void (*parent)(), void (*inChild)(), void* library) {
                    isReached = true;
                    tern::test::WaitUntil([&] { return hasForked.load(); });
                    return fault___register_atfork.Real(prepare, parent, inChild, library);
                },
                1, skipped);
            mwl::Threading::Signals signals;
            mwl::Threading::ThreadsMonitor monitor(signals);
            Component first(NAME, monitor, mServer);
            std::thread owner([&] { hasStarted = first.Start() == StatusCode::Ok; });
            tern::test::WaitUntil([&] { return isReached || hasStarted; });
            if (!isReached && !IsServing(NAME)) {
                return 1;
            }
            const pid_t forked = fork();
            if (forked == 0) {
                alarm(15);
                mwl::Threading::ThreadsMonitor ownMonitor(signals);
                Journal ownJournal;
                JournalingServer ownServer(ownJournal);
                Component own(ownName, ownMonitor, ownServer);
                const bool isServing = own.Start() == StatusCode::Ok && IsServing(ownName);
                _exit(isServing ? 0 : 1);
            }
            hasForked = true;
            int status = -1;
            waitpid(forked, &status, 0);
            owner.join();
            monitor.NotifyDBusThreadToStop(false);
            first.JoinThread();
            return status == 0 ? 0 : 2;
        });
        EXPECT_EQ(child.exitCode, 0) << "behind " << skipped << ": " << child.error;
    }
}
#endif

TEST_F(ComponentTest, InitializeBlocksTheSignalsOfTheCallingThread) {
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGTERM), 1);
    EXPECT_EQ(sigismember(&now, SIGINT), 1);
    EXPECT_THAT(mLog.Entries(), ElementsAre(BLOCK));
}

TEST_F(ComponentTest, InitializeReportsThatBlockingFailed) {
    mLog.Clear();
    const FaultScope scope(fault_pthread_sigmask);
    fault_pthread_sigmask.Fail(EINVAL);
    EXPECT_EQ(mComponent.Initialize(), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(BLOCK, Error(LOGGER, "Failed to block signals SIGTERM and SIGINT, status=28")));
}

TEST_F(ComponentTest, ServesUntilTerminatedAndStopsInOrder) {
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    EXPECT_TRUE(HasOwner(NAME));
    EXPECT_THAT(mJournal.Take(), ElementsAre("SetDBusThreadId", "IpcServer::Start"));
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(mLog.WaitFor(ExitMessage(0)));
    mComponent.JoinThread();
    EXPECT_THAT(mJournal.Take(), ElementsAre("IpcServer::Stop", "StopWorkerThreads"));
    EXPECT_FALSE(HasOwner(NAME));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
    EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt);
    EXPECT_TRUE(mLog.Contains(Info("Service", "Exiting now!")));
    EXPECT_THAT(ComponentLog(),
                ElementsAre(BLOCK, START, THREAD, STARTED, ExitMessage(0), IsJoinMessage(), COMPLETED));
}

TEST_F(ComponentTest, NameOfAnotherEndsTheStart) {
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const mwl::Handle<sd_bus, sd_bus_flush_close_unref> owner(opened);
    ASSERT_GE(sd_bus_request_name(owner.get(), NAME.c_str(), 0), 0);
    mLog.Clear();
    const LogEntry failed = Error(LOGGER, "Failed to start D-Bus thread, status=20");
    mServer.onStop = [&] { EXPECT_TRUE(mLog.WaitFor(failed)) << "Start does not wait for the thread's end"; };
    EXPECT_EQ(mComponent.Start(), StatusCode::AlreadyExists);
    ASSERT_TRUE(mLog.WaitFor(ExitMessage(20)));
    mComponent.JoinThread();
    EXPECT_THAT(mJournal.Take(), ElementsAre("SetDBusThreadId", "IpcServer::Stop", "StopWorkerThreads"));
    EXPECT_EQ(mLog.Count(Error("DBusService::Service", "mServerManager.Connect() FAILED with return 20")),
              1U);
    EXPECT_EQ(
        mLog.Count(Error("Service", "Failed to acquire name 'com.example.Extension', (-17, File exists)")),
        1U);
    EXPECT_THAT(ComponentLog(),
                ElementsAre(START, THREAD, failed, ExitMessage(20), IsJoinMessage(), COMPLETED));
    EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt) << "the loop never ran";
}

TEST_F(ComponentTest, BusThatIsNotThereEndsTheStart) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    EXPECT_EQ(mComponent.Start(), StatusCode::NotFound);
    mComponent.JoinThread();
    EXPECT_THAT(mLog.Entries("DBusService::Service"),
                ElementsAre(Error("DBusService::Service", "mServerManager.Connect() FAILED with return 44")));
    EXPECT_TRUE(mLog.Contains(ExitMessage(44)));
    EXPECT_THAT(mJournal.Take(), ElementsAre("SetDBusThreadId", "IpcServer::Stop", "StopWorkerThreads"));
}

TEST_F(ComponentTest, LoopThatCannotBeMadeEndsTheStart) {
    const FaultScope scope(fault_sd_event_default);
    fault_sd_event_default.Fail(-EMFILE);
    EXPECT_EQ(mComponent.Start(), StatusCode::ResourceUnavailable);
    mComponent.JoinThread();
    EXPECT_THAT(mLog.Entries("DBusService::Service"),
                ElementsAre(Error("DBusService::Service", "mMainLoop.Init() FAILED with return 48")));
    EXPECT_THAT(mJournal.Take(), ElementsAre("SetDBusThreadId", "IpcServer::Stop", "StopWorkerThreads"));
}

TEST_F(ComponentTest, BusThatCannotBeAttachedEndsTheStart) {
    const FaultScope scope(fault_sd_bus_attach_event);
    fault_sd_bus_attach_event.Fail(-ENOMEM);
    EXPECT_EQ(mComponent.Start(), StatusCode::OutOfMemory);
    mComponent.JoinThread();
    EXPECT_THAT(
        mLog.Entries("DBusService::Service"),
        ElementsAre(Error("DBusService::Service", "mServerManager.AttachLoop() FAILED with return 51")));
    EXPECT_THAT(mJournal.Take(), ElementsAre("SetDBusThreadId", "IpcServer::Stop", "StopWorkerThreads"));
}

TEST_F(ComponentTest, WhatTheApplicationsStartReturnsIsTheStartUpStatus) {
    JournalingServer server(mJournal, StatusCode::NotSupported);
    Component component(NAME, mMonitor, server);
    EXPECT_EQ(component.Start(), StatusCode::NotSupported);
    component.JoinThread();
    EXPECT_TRUE(mLog.Contains(Error(LOGGER, "Failed to start D-Bus thread, status=60")));
    EXPECT_THAT(mJournal.Take(),
                ElementsAre("SetDBusThreadId", "IpcServer::Start", "IpcServer::Stop", "StopWorkerThreads"));
    EXPECT_FALSE(HasOwner(NAME));
}

TEST_F(ComponentTest, WithoutMemoryForTheThreadThereIsNone) {
    mLog.Clear();
    {
        // The thread object is the only thing that the component allocates without throwing.
        const tern::test::NothrowMemoryShortage shortage;
        EXPECT_EQ(mComponent.Start(), StatusCode::ResourceUnavailable);
    }
    mComponent.JoinThread();
    EXPECT_THAT(mLog.Entries(), ElementsAre(START, Error(LOGGER, "Failed to create D-Bus thread"),
                                            Info(LOGGER, "Join D-Bus thread mThread=[(nil)]")));
    EXPECT_THAT(mJournal.Take(), IsEmpty());
}

TEST_F(ComponentTest, ThreadThatTheSystemRefusesRaisesTheStandardError) {
    const FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(mComponent.Start(), std::system_error);
    mComponent.JoinThread();
    EXPECT_TRUE(mLog.Contains(Info(LOGGER, "Join D-Bus thread mThread=[(nil)]")));
}

// A name that does not outlive its component was asked for on the bus as garbage. What is not constructible
// here does not compile where it is written.
template <typename Name>
constexpr bool TAKES_NAME =
    std::is_constructible_v<Component, Name, mwl::Threading::ThreadsMonitorInterface&, IpcServer&>;

TEST_F(ComponentTest, NameThatIsGoneAtOnceDoesNotCompile) {
    static_assert(TAKES_NAME<std::string&> && TAKES_NAME<const std::string&>);
    static_assert(!TAKES_NAME<const char(&)[22]> && !TAKES_NAME<const char*> && !TAKES_NAME<std::string> &&
                  !TAKES_NAME<const std::string>);
}

TEST_F(ComponentTest, SecondStartIsRefused) {
    const LogEntry refused = Error(LOGGER, "Do not start a component twice");
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    EXPECT_EQ(mComponent.Start(), StatusCode::Busy);
    EXPECT_TRUE(HasOwner(NAME)) << "the first goes on";
    EXPECT_EQ(mLog.Count(refused), 1U);
    mMonitor.Terminate();
    mComponent.JoinThread();
    EXPECT_EQ(mComponent.Start(), StatusCode::Busy);
    EXPECT_EQ(mLog.Count(refused), 2U);
    EXPECT_THAT(mJournal.Take(),
                ElementsAre("SetDBusThreadId", "IpcServer::Start", "IpcServer::Stop", "StopWorkerThreads"));
}

TEST_F(ComponentTest, SecondComponentOfAProcessIsRefusedWhileTheFirstRuns) {
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    const std::string otherName = "com.example.Other";
    Journal otherJournal;
    JournalingMonitor otherMonitor(otherJournal);
    JournalingServer otherServer(otherJournal);
    Component other(otherName, otherMonitor, otherServer);
    EXPECT_EQ(other.Start(), StatusCode::Busy);
    EXPECT_TRUE(mLog.Contains(Error(LOGGER, "Another component's D-Bus thread is running in this process")));
    EXPECT_THAT(otherJournal.Take(), IsEmpty());
    other.JoinThread();
    EXPECT_TRUE(HasOwner(NAME));
    mMonitor.Terminate();
    mComponent.JoinThread();
    EXPECT_EQ(other.Start(), StatusCode::Ok) << "one after the other";
    EXPECT_TRUE(HasOwner(otherName));
    otherMonitor.Terminate();
    other.JoinThread();
}

// It counted its parent's D-Bus thread, which it does not have, as running.
TEST_F(ComponentTest, ForkedChildHasAServiceOfItsOwn) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    ASSERT_TRUE(IsServing(NAME));
    const std::string ownName = "com.example.Child";
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        Journal ownJournal;
        JournalingMonitor ownMonitor(ownJournal);
        JournalingServer ownServer(ownJournal);
        Component own(ownName, ownMonitor, ownServer);
        if (own.Start() != StatusCode::Ok || !IsServing(ownName)) {
            _exit(1);
        }
        Component second(ownName, ownMonitor, ownServer);
        const bool isRefused = second.Start() == StatusCode::Busy;
        ownMonitor.Terminate();
        own.JoinThread();
        _exit(isRefused ? 0 : 2);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(HasOwner(NAME)) << "the parent's goes on";
    mMonitor.Terminate();
    mComponent.JoinThread();
}

TEST_F(ComponentTest, StartThatFailedLeavesTheProcessToAnother) {
    JournalingServer refusing(mJournal, StatusCode::NotSupported);
    Component failing(NAME, mMonitor, refusing);
    EXPECT_EQ(failing.Start(), StatusCode::NotSupported);
    failing.JoinThread();
    {
        const FaultScope scope(fault_pthread_create);
        fault_pthread_create.Fail(EAGAIN);
        Component threadless(NAME, mMonitor, refusing);
        EXPECT_THROW(threadless.Start(), std::system_error);
    }
    EXPECT_EQ(mComponent.Start(), StatusCode::Ok);
    mMonitor.Terminate();
    mComponent.JoinThread();
}

TEST_F(ComponentTest, JoinWithoutStartReturns) {
    mLog.Clear();
    mComponent.JoinThread();
    EXPECT_THAT(mLog.Entries(), ElementsAre(Info(LOGGER, "Join D-Bus thread mThread=[(nil)]")));
}

TEST_F(ComponentTest, SecondJoinRaisesTheStandardError) {
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    mMonitor.Terminate();
    mComponent.JoinThread();
    EXPECT_THROW(mComponent.JoinThread(), std::system_error);
}

TEST_F(ComponentTest, LostBusIsReportedAsFailureBeforeTheWorkersStop) {
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    static_cast<void>(mJournal.Take());
    mBus.Kill();
    mComponent.JoinThread();
    EXPECT_THAT(mJournal.Take(),
                ElementsAre("NotifyDBusThreadToStopOnFailure", "IpcServer::Stop", "StopWorkerThreads"));
    EXPECT_TRUE(mLog.Contains(Info("Service", "sd_event_loop exited with -104")));
    EXPECT_TRUE(mLog.Contains(ExitMessage(1)));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

TEST_F(ComponentTest, LostBusMakesTheProcessFail) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Component component(NAME, monitor, mServer);
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    EXPECT_FALSE(monitor.HasFailure());
    mBus.Kill();
    component.JoinThread();
    EXPECT_TRUE(monitor.HasFailure());
}

TEST_F(ComponentTest, LoopThatCannotRunIsReportedAsFailureBeforeTheWorkersStop) {
    const FaultScope scope(fault_sd_event_add_signal);
    fault_sd_event_add_signal.Fail(-ENOMEM);
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Component component(NAME, monitor, mServer);
    EXPECT_EQ(component.Start(), StatusCode::Ok) << "it was started";
    component.JoinThread();
    EXPECT_TRUE(monitor.HasFailure());
    EXPECT_THAT(mJournal.Take(), ElementsAre("IpcServer::Start", "IpcServer::Stop"));
    EXPECT_TRUE(mLog.Contains(ExitMessage(51)));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
    EXPECT_EQ(mNotify.ReceiveNow(), std::nullopt) << "sent once";

    fault_sd_event_add_signal.Fail(-ENOMEM);
    EXPECT_EQ(mComponent.Start(), StatusCode::Ok);
    mComponent.JoinThread();
    EXPECT_THAT(mJournal.Take(),
                ElementsAre("SetDBusThreadId", "IpcServer::Start", "NotifyDBusThreadToStopOnFailure",
                            "IpcServer::Stop", "StopWorkerThreads"));
}

// The loop cannot take signals that nobody blocked; the report of that must not end the process before the
// others have been stopped.
TEST_F(ComponentTest, WithoutInitializeItStillStopsInOrder) {
    const tern::test::ChildResult child = tern::test::RunInChild([&] {
        UnblockTheSignals();
        mwl::Threading::Signals signals;
        mwl::Threading::ThreadsMonitor monitor(signals);
        Component component(NAME, monitor, mServer);
        if (component.Start() != StatusCode::Ok) {
            return 1;
        }
        component.JoinThread();
        const std::vector<std::string> inOrder = {"IpcServer::Start", "IpcServer::Stop"};
        return !monitor.HasFailure() ? 2 : mJournal.Take() != inOrder ? 3 : 0;
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, testing::Contains(ExitMessage(11)));
}

TEST_F(ComponentTest, ThreadThatHasEndedIsNotSignalled) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Component component(NAME, monitor, mServer);
    std::string id;
    pid_t task = 0;
    mServer.onStart = [&](auto&, auto&) {
        id = std::to_string(static_cast<unsigned long>(pthread_self()));
        task = gettid();
    };
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    kill(getpid(), SIGTERM);
    component.JoinThread();
    // The kernel may know its number a little longer than pthread_join(3) waits.
    ASSERT_TRUE(tern::test::WaitUntil([&] { return tgkill(getpid(), task, 0) != 0; }));
    mLog.Clear();
    monitor.NotifyDBusThreadToStopOnFailure();  // as a worker does whose last run throws
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Info("Threading::ThreadsMonitor", "Notify D-Bus thread to stop [" + id + "]"),
                    Error("Threading::ThreadsMonitor", "Failed to notify thread [" + id + "], error=3")));
    EXPECT_TRUE(monitor.HasFailure());
}

TEST_F(ComponentTest, ServiceGoesAfterTheExitMessage) {
    // Goes with the watch that holds it, which goes last of all that the service owns.
    class LastWord {
    public:
        explicit LastWord(Journal& journal) : mJournal(journal) {}
        ~LastWord() { mJournal.Add("service destroyed"); }
        LastWord(const LastWord&) = delete;
        LastWord& operator=(const LastWord&) = delete;

    private:
        Journal& mJournal;
    };
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    mServer.onStart = [&](auto&, mw::tern::EventLoop& loop) {
        const auto lastWord = std::make_shared<LastWord>(mJournal);
        EXPECT_EQ(loop.AddIo(ends[0], EPOLLIN, [lastWord](auto...) { return StatusCode::Ok; }),
                  StatusCode::Ok);
    };
    mJournal.Note([this] { return mLog.Contains(ExitMessage(0)) ? " after the exit message" : ""; });
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    mMonitor.Terminate();
    mComponent.JoinThread();
    EXPECT_THAT(mJournal.Take(),
                ElementsAre("SetDBusThreadId", "IpcServer::Start", "IpcServer::Stop", "StopWorkerThreads",
                            "service destroyed after the exit message"));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ComponentTest, ConnectionIsClosedAtTheStopOnlyWhenTheLoopHasRun) {
    sd_bus* bus = nullptr;
    int isOpen = -1;
    mServer.onStart = [&](mw::tern::DBusServerManager& manager, auto&) { bus = manager.GetBus(); };
    mServer.onStop = [&] { isOpen = sd_bus_is_open(bus); };
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    mMonitor.Terminate();
    mComponent.JoinThread();
    EXPECT_EQ(isOpen, 0);

    JournalingServer refusing(mJournal, StatusCode::NotSupported);
    refusing.onStart = mServer.onStart;
    refusing.onStop = mServer.onStop;
    Component component(NAME, mMonitor, refusing);
    EXPECT_EQ(component.Start(), StatusCode::NotSupported);
    component.JoinThread();
    EXPECT_GT(isOpen, 0);
}

// The last message frees the connection, wherever it is released, and that writes into its thread's memory.
// In a child, which never releases what it kept.
TEST_F(ComponentTest, WhatIsKeptOfTheBusBeyondTheThreadIsTold) {
    const LogEntry told =
        Error(LOGGER, "A message, slot or client of the bus is still held at the end of the D-Bus thread");
    for (const bool isReleased : {false, true}) {
        const tern::test::ChildResult child = tern::test::RunInChild([&] {
            sd_bus_message* kept = nullptr;
            mServer.onStart = [&](mw::tern::DBusServerManager& manager, auto&) {
                sd_bus_message_new_signal(manager.GetBus(), &kept, "/", "com.example.Kept", "Kept");
            };
            mServer.onStop = [&] {
                if (isReleased) {
                    sd_bus_message_unref(kept);
                }
            };
            if (mComponent.Start() != StatusCode::Ok || kept == nullptr) {
                return 1;
            }
            mMonitor.Terminate();
            mComponent.JoinThread();
            return 0;
        });
        EXPECT_EQ(child.exitCode, 0) << child.error;
        EXPECT_EQ(std::count(child.log.begin(), child.log.end(), told), isReleased ? 0 : 1);
    }
}

TEST_F(ComponentTest, WhetherTheBusIsKeptIsNotToldWhenItCannotBeSeen) {
    for (const bool hasSlot : {false, true}) {
        const FaultScope addScope(fault_sd_bus_add_filter);
        const FaultScope floatScope(fault_sd_bus_slot_set_floating);
        if (hasSlot) {
            fault_sd_bus_slot_set_floating.Fail(-ESTALE);
        } else {
            fault_sd_bus_add_filter.Fail(-ENOMEM);
        }
        Component component(NAME, mMonitor, mServer);
        ASSERT_EQ(component.Start(), StatusCode::Ok);
        mMonitor.Terminate();
        component.JoinThread();
        EXPECT_EQ(hasSlot ? fault_sd_bus_slot_set_floating.Calls() : fault_sd_bus_add_filter.Calls(), 1);
        EXPECT_FALSE(HasOwner(NAME)) << "and the connection goes";
    }
    EXPECT_THAT(mLog.Entries("Service"),
                testing::Not(testing::Contains(testing::Field(&LogEntry::level, 3))));
}

TEST_F(ComponentTest, TerminationDuringStartUpStillStartsAndStopsInOrder) {
    kill(getpid(), SIGTERM);
    EXPECT_EQ(mComponent.Start(), StatusCode::Ok);
    mComponent.JoinThread();
    EXPECT_THAT(mJournal.Take(),
                ElementsAre("SetDBusThreadId", "IpcServer::Start", "IpcServer::Stop", "StopWorkerThreads"));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

TEST_F(ComponentTest, DestroyingItUnjoinedEndsTheProcess) {
    const tern::test::ChildResult child = tern::test::RunInChild([&] {
        Component component(NAME, mMonitor, mServer);
        return component.Start() == StatusCode::Ok ? 0 : 1;
    });
    EXPECT_EQ(child.signal, SIGABRT) << child.error;
}

TEST_F(ComponentTest, StartingAndStoppingManyTimesKeepsNothing) {
    const auto once = [&] {
        Component component(NAME, mMonitor, mServer);
        ASSERT_EQ(component.Start(), StatusCode::Ok);
        mMonitor.Terminate();
        component.JoinThread();
        EXPECT_EQ(mNotify.Receive(), STOPPING);
    };
    once();
    const std::size_t descriptors = tern::test::CountDescriptors();
    const std::size_t threads = tern::test::CountThreads();
    for (int i = 0; i < 200; ++i) {
        once();
        mLog.Clear();
    }
    EXPECT_EQ(tern::test::CountDescriptors(), descriptors);
    // pthread_join returns a moment before the kernel stops listing the thread.
    EXPECT_TRUE(tern::test::WaitUntil([&] { return tern::test::CountThreads() <= threads; }))
        << tern::test::CountThreads() << " instead of " << threads;
}

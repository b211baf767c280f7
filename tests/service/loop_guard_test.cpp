#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/component.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_monitor.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <stdexcept>

#include "foundation/handle.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/threads_of_children.h"

using mw::tern::DBusInterface;
using mw::tern::DBusServerManager;
using mw::tern::EventLoop;
using mw::tern::StatusCode;
using tern::test::ChildResult;
using tern::test::Critical;
using tern::test::Info;
using tern::test::LogEntry;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TERN_INTERPOSE(int, sd_event_default, (sd_event * *event), (event))

namespace {

const std::string NAME = "com.example.Throwing";
constexpr const char* PATH = "/com/example/Throwing";
constexpr const char* INTERFACE = "com.example.Throwing";

/// What the children's exit status tells, added up; 0 is a service that ended as failed and in order.
enum Slip : int {
    NOT_STARTED = 1,
    NO_FAILURE = 2,
    SERVER_NOT_STOPPED = 4,
    WORKER_NOT_STOPPED = 8,
    STILL_OPEN = 16
};

/// Throws whatever the test wants to see thrown.
std::function<void()> gThrow;

void Throw() {
    gThrow();
}

/// Every member throws.
class Throwing : public DBusInterface {
public:
    Throwing() : DBusInterface(INTERFACE) {}
    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {
            SdBusVtableStart(0), SdBusMethod("Method", "", "", &OnMethod, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusMethod("Noexcept", "", "", &OnNoexcept, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusWritableProperty("Value", "i", &OnProperty, &OnProperty, 0, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusVtableEnd()};
        return table;
    }
    void* GetUserData() override { return this; }

private:
    static int OnMethod(sd_bus_message*, void*, sd_bus_error*) {
        Throw();
        return -EINVAL;
    }
    static int OnNoexcept(sd_bus_message*, void*, sd_bus_error*) noexcept {
        Throw();
        return -EINVAL;
    }
    static int OnProperty(sd_bus*, const char*, const char*, const char*, sd_bus_message*, void*,
                          sd_bus_error*) {
        Throw();
        return -EINVAL;
    }
};

class Worker : public mwl::Threading::ThreadManager {
public:
    using ThreadManager::ThreadManager;
    void Stop() override {
        isStopped = true;
        if (doesThrow) {
            Throw();
        }
    }
    std::atomic<bool> isStopped{false};
    bool doesThrow = false;
};

class Server : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(DBusServerManager& manager, EventLoop& loop) override {
        bus = manager.GetBus();
        if (onStart) {
            onStart(manager, loop);
        }
        return StatusCode::Ok;
    }
    void Stop() override {
        isStopped = true;
        wasOpen = bus != nullptr && sd_bus_is_open(bus) > 0;
        if (onStop) {
            onStop();
        }
    }
    std::function<void(DBusServerManager&, EventLoop&)> onStart;
    std::function<void()> onStop;
    sd_bus* bus = nullptr;
    std::atomic<bool> isStopped{false};
    std::atomic<bool> wasOpen{false};
};

void Export(DBusServerManager& manager) {
    manager.AddDBusObject(PATH);
    manager.AddInterfaceToDBusObject(PATH, new Throwing);
    manager.ExportObject(PATH);
}

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;

class LoopGuardTest : public testing::Test {
protected:
    LoopGuardTest() {
        gThrow = [] { throw std::runtime_error("too cold"); };
    }

    /// Runs a service in a child, which leaves what an exception makes sd-bus and sd-event lose behind.
    ChildResult Serve(const std::function<void(sd_bus* peer)>& act = nullptr) {
        return tern::test::RunInChild([&] {
            mwl::Threading::Signals signals;
            mwl::Threading::ThreadsMonitor monitor(signals);
            Worker worker(monitor);
            worker.doesThrow = mWorkerThrows;
            worker.NotifyStarted();
            mwl::DBusService::Component component(NAME, monitor, mServer);
            component.Initialize();
            const bool isStarted = component.Start() == StatusCode::Ok;
            if (isStarted && act) {
                sd_bus* opened = nullptr;
                sd_bus_open_system(&opened);
                const Bus peer(opened);
                act(peer.get());
            }
            component.JoinThread();
            return (isStarted ? 0 : NOT_STARTED) | (monitor.HasFailure() ? 0 : NO_FAILURE) |
                   (mServer.isStopped ? 0 : SERVER_NOT_STOPPED) |
                   (worker.isStopped ? 0 : WORKER_NOT_STOPPED) | (mServer.wasOpen ? STILL_OPEN : 0);
        });
    }

    /// The same with everything exported; `member` is called.
    ChildResult ServeCall(const char* interface, const char* member, const char* types = nullptr,
                          const char* first = nullptr, const char* second = nullptr) {
        mServer.onStart = [](DBusServerManager& manager, EventLoop&) { Export(manager); };
        return Serve([=](sd_bus* peer) {
            sd_bus_error error{};
            sd_bus_call_method(peer, NAME.c_str(), PATH, interface, member, &error, nullptr, types, first,
                               second);
            if (!sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY)) {
                fprintf(stderr, "the caller got %s\n", error.name);
            }
            sd_bus_error_free(&error);
        });
    }

    static void ExpectEndInOrder(const ChildResult& child, const std::string& message) {
        EXPECT_EQ(child.signal, 0);
        EXPECT_FALSE(child.timedOut);
        EXPECT_EQ(child.exitCode, 0) << "Slip";
        EXPECT_EQ(child.error, "");
        EXPECT_THAT(CriticalOnes(child), ElementsAre(message));
        EXPECT_THAT(child.log, Contains(Info("DBusService::Component", "Exit D-Bus thread, status=1")));
        EXPECT_THAT(child.log, Not(Contains(Field(&LogEntry::level, 3)))) << "what sd-bus lost is not ours";
    }

    static std::vector<std::string> CriticalOnes(const ChildResult& child) {
        std::vector<std::string> texts;
        for (const LogEntry& entry : child.log) {
            if (entry.level == 2) {
                texts.push_back(entry.text);
            }
        }
        return texts;
    }

    tern::test::PrivateBus mBus;
    Server mServer;
    bool mWorkerThrows = false;
};

}  // namespace

#if !defined(__arm__)  // there the C libraries have no tables by which an exception could pass

TEST_F(LoopGuardTest, MethodHandlerThatThrowsEndsTheServiceInOrder) {
    ExpectEndInOrder(ServeCall(INTERFACE, "Method"),
                     "Handling method com.example.Throwing.Method on /com/example/Throwing threw "
                     "std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, WhateverIsThrownIsNamed) {
    class Odd : public std::exception {
    public:
        const char* what() const noexcept override { return nullptr; }
    };
    struct Row {
        std::function<void()> thrown;
        std::string named;
    };
    const std::vector<Row> rows = {
        {[] { throw 42; }, "int: no text"},
        {[] { throw "a text"; }, "char const*: a text"},
        {[] { throw std::string("a string"); },
         "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >: a string"},
        {[] { throw std::bad_alloc(); }, "std::bad_alloc: std::bad_alloc"},
        {[] { throw StatusCode::Busy; }, "mw::tern::StatusCode: no text"},
    };
    for (const Row& row : rows) {
        gThrow = row.thrown;
        ExpectEndInOrder(
            ServeCall(INTERFACE, "Method"),
            "Handling method com.example.Throwing.Method on /com/example/Throwing threw " + row.named);
    }
    gThrow = [] { throw Odd(); };
    EXPECT_THAT(CriticalOnes(ServeCall(INTERFACE, "Method")), ElementsAre(testing::EndsWith("Odd: no text")));
}

TEST_F(LoopGuardTest, PropertyCallbackThatThrowsEndsTheServiceInOrder) {
    constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
    ExpectEndInOrder(ServeCall(PROPERTIES, "Get", "ss", INTERFACE, "Value"),
                     "Access (Get) to property com.example.Throwing.Value on /com/example/Throwing threw "
                     "std::runtime_error: too cold");
    ExpectEndInOrder(ServeCall(PROPERTIES, "GetAll", "s", INTERFACE),
                     "Reading the properties of com.example.Throwing on /com/example/Throwing threw "
                     "std::runtime_error: too cold");
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) { Export(manager); };
    ExpectEndInOrder(Serve([](sd_bus* peer) {
                         sd_bus_set_property(peer, NAME.c_str(), PATH, INTERFACE, "Value", nullptr, "i", 1);
                     }),
                     "Access (Set) to property com.example.Throwing.Value on /com/example/Throwing threw "
                     "std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, CallThatIsMeantForNobodysPropertyIsNamedAsAMethod) {
    // Nothing of the message's body can be named when it has none.
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) {
        sd_bus_add_filter(
            manager.GetBus(), nullptr,
            [](sd_bus_message* message, void*, sd_bus_error*) {
                if (sd_bus_message_is_method_call(message, nullptr, "Get") > 0) {
                    Throw();
                }
                return 0;
            },
            nullptr);
    };
    ExpectEndInOrder(
        Serve([](sd_bus* peer) {
            sd_bus_call_method(peer, NAME.c_str(), "/", "org.freedesktop.DBus.Properties", "Get", nullptr,
                               nullptr, nullptr);
        }),
        "Handling method org.freedesktop.DBus.Properties.Get on / threw std::runtime_error: too cold");
}

int ThrowOnMessage(sd_bus_message*, void*, sd_bus_error*) {
    Throw();
    return 0;
}

TEST_F(LoopGuardTest, MatchHandlerThatThrowsEndsTheServiceInOrder) {
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) {
        manager.AddMatch(nullptr, "type='signal',interface='com.example.Sender'", ThrowOnMessage, nullptr);
    };
    ExpectEndInOrder(
        Serve([](sd_bus* peer) { sd_bus_emit_signal(peer, "/sender", "com.example.Sender", "Ping", ""); }),
        "Handling signal com.example.Sender.Ping of /sender threw std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, ReplyHandlerThatThrowsEndsTheServiceInOrder) {
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) {
        sd_bus_call_method_async(manager.GetBus(), nullptr, "org.freedesktop.DBus", "/",
                                 "org.freedesktop.DBus.Peer", "Ping", ThrowOnMessage, nullptr, nullptr);
    };
    ExpectEndInOrder(Serve(), "Handling a reply threw std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, OtherSourceThatThrowsEndsTheServiceInOrder) {
    mServer.onStart = [](DBusServerManager&, EventLoop& loop) {
        sd_event_add_defer(
            loop.GetEvent(), nullptr,
            [](sd_event_source*, void*) {
                Throw();
                return 0;
            },
            nullptr);
    };
    ExpectEndInOrder(Serve(), "Code run by the D-Bus thread threw std::runtime_error: too cold");
}

// sd-bus calls it while it handles no message, and loses a reference to the connection all the same, which
// was told as one that the application holds.
TEST_F(LoopGuardTest, TrackHandlerThatThrowsEndsTheServiceInOrder) {
    sd_bus_track* track = nullptr;
    mServer.onStart = [&](DBusServerManager& manager, EventLoop&) {
        // Called when nobody is tracked, as at first.
        sd_bus_track_new(
            manager.GetBus(), &track,
            [](sd_bus_track*, void*) {
                Throw();
                return 0;
            },
            nullptr);
    };
    mServer.onStop = [&] { sd_bus_track_unref(track); };
    ExpectEndInOrder(Serve(), "Code run by the D-Bus thread threw std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, EmptyIoCallbackEndsTheServiceInOrder) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[1]);
    mServer.onStart = [&](DBusServerManager&, EventLoop& loop) { loop.AddIo(ends[0], EPOLLIN, nullptr); };
    const ChildResult child = Serve();
    EXPECT_EQ(child.exitCode, 0) << "Slip";
    EXPECT_THAT(CriticalOnes(child),
                ElementsAre("The callback of descriptor " + std::to_string(ends[0]) + " is empty",
                            "Code run by the D-Bus thread threw std::bad_function_call: bad_function_call"));
    close(ends[0]);
}

// Ending a thread unwinds it as an exception does; keeping that from passing would end the process.
TEST_F(LoopGuardTest, ThreadMayBeEndedFromAHandler) {
    gThrow = [] { pthread_exit(nullptr); };
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) { Export(manager); };
    const ChildResult child = Serve([](sd_bus* peer) {
        // Nobody will answer, so nobody waits.
        sd_bus_call_method_async(peer, nullptr, NAME.c_str(), PATH, INTERFACE, "Method", nullptr, nullptr,
                                 "");
    });
    EXPECT_EQ(child.signal, 0) << child.error;
    EXPECT_FALSE(child.timedOut);
    EXPECT_THAT(CriticalOnes(child), IsEmpty());
}

#endif

TEST_F(LoopGuardTest, IoCallbackThatThrowsEndsTheServiceInOrder) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[1]);
    for (const bool removes : {false, true}) {
        mServer.onStart = [&](DBusServerManager&, EventLoop& loop) {
            loop.AddIo(ends[0], EPOLLIN, [&loop, removes](sd_event_source*, int fd, unsigned int) {
                if (removes) {
                    loop.RemoveIo(fd);
                }
                Throw();
                return StatusCode::Ok;
            });
        };
        const ChildResult child = Serve();
        ExpectEndInOrder(child, "The callback of descriptor " + std::to_string(ends[0]) +
                                    " threw std::runtime_error: too cold");
        EXPECT_THAT(child.log, Contains(Info("Service", "sd_event_loop exited with -131")));
    }
    close(ends[0]);
}

TEST_F(LoopGuardTest, ServerThatThrowsInItsStartFailsTheStart) {
    mServer.onStart = [](DBusServerManager&, EventLoop&) { Throw(); };
    const ChildResult child = Serve();
    EXPECT_EQ(child.exitCode, NOT_STARTED | NO_FAILURE | STILL_OPEN) << "as with any other start that fails";
    EXPECT_THAT(child.log, Contains(Critical("DBusService::Component",
                                             "IpcServer::Start threw std::runtime_error: too cold")));
    EXPECT_THAT(child.log, Contains(tern::test::Error("DBusService::Component",
                                                      "Failed to start D-Bus thread, status=1")));
}

TEST_F(LoopGuardTest, ServerThatThrowsInItsStopStillHasTheWorkersStopped) {
    mServer.onStop = [] { Throw(); };
    ExpectEndInOrder(Serve([](sd_bus*) { kill(getpid(), SIGTERM); }),
                     "IpcServer::Stop threw std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, WorkerThatThrowsInItsStopEndsTheServiceAsFailed) {
    mWorkerThrows = true;
    ExpectEndInOrder(Serve([](sd_bus*) { kill(getpid(), SIGTERM); }),
                     "StopWorkerThreads threw std::runtime_error: too cold");
}

TEST_F(LoopGuardTest, ServiceThatCannotBeMadeForAnExceptionFailsTheStart) {
    const tern::test::FaultScope scope(fault_sd_event_default);
    fault_sd_event_default.Replace([](sd_event**) -> int { throw std::bad_alloc(); });
    const ChildResult child = Serve();
    EXPECT_EQ(child.exitCode, NOT_STARTED | NO_FAILURE);
    EXPECT_THAT(CriticalOnes(child), ElementsAre("Service::Initialize threw std::bad_alloc: std::bad_alloc"));
}

TEST_F(LoopGuardTest, WhatNothingCanCatchIsLoggedBeforeTheProcessEnds) {
    const ChildResult child = ServeCall(INTERFACE, "Noexcept");
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(CriticalOnes(child),
                ElementsAre("Handling method com.example.Throwing.Noexcept on /com/example/Throwing threw "
                            "std::runtime_error: too cold",
                            "Nothing can catch it: the process ends at once"));
    EXPECT_THAT(child.error, testing::HasSubstr("terminate called")) << "the handler before takes its course";
}

TEST_F(LoopGuardTest, TerminateHandlerOfTheApplicationStillRuns) {
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) { Export(manager); };
    const ChildResult child = tern::test::RunInChild([&] {
        std::set_terminate([] { _exit(42); });
        mwl::Threading::Signals signals;
        mwl::Threading::ThreadsMonitor monitor(signals);
        mwl::DBusService::Component component(NAME, monitor, mServer);
        component.Initialize();
        component.Start();
        sd_bus* opened = nullptr;
        sd_bus_open_system(&opened);
        const Bus peer(opened);
        sd_bus_call_method(peer.get(), NAME.c_str(), PATH, INTERFACE, "Noexcept", nullptr, nullptr, nullptr);
        component.JoinThread();
        return 1;
    });
    EXPECT_EQ(child.exitCode, 42) << child.error;
    EXPECT_EQ(CriticalOnes(child).size(), 2U);
}

std::terminate_handler gFound = nullptr;

TEST_F(LoopGuardTest, TerminateHandlersThatCallEachOtherEndTheProcess) {
    mServer.onStart = [](DBusServerManager& manager, EventLoop&) {
        Export(manager);
        if (gFound == nullptr) {
            gFound = std::set_terminate([] { gFound(); });
        }
    };
    const ChildResult child = tern::test::RunInChild([&] {
        mwl::Threading::Signals signals;
        for (const bool isLast : {false, true}) {
            mwl::Threading::ThreadsMonitor monitor(signals);
            mwl::DBusService::Component component(NAME, monitor, mServer);
            component.Initialize();
            component.Start();
            sd_bus* opened = nullptr;
            sd_bus_open_system(&opened);
            const Bus peer(opened);
            if (isLast) {
                sd_bus_call_method(peer.get(), NAME.c_str(), PATH, INTERFACE, "Noexcept", nullptr, nullptr,
                                   nullptr);
            }
            kill(getpid(), SIGTERM);
            component.JoinThread();
        }
        return 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(CriticalOnes(child).size(), 2U);
}

TEST_F(LoopGuardTest, TerminateHandlerIsGivenBackWithTheThread) {
    const ChildResult child = tern::test::RunInChild([&] {
        const std::terminate_handler before = std::get_terminate();
        mwl::Threading::Signals signals;
        mwl::Threading::ThreadsMonitor monitor(signals);
        mwl::DBusService::Component component(NAME, monitor, mServer);
        component.Initialize();
        component.Start();
        const bool isOurs = std::get_terminate() != before;
        kill(getpid(), SIGTERM);
        component.JoinThread();
        return isOurs && std::get_terminate() == before ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// It counted its parent's D-Bus thread, and so neither set the handler for its own nor gave it back.
TEST_F(LoopGuardTest, ForkedChildHasTheTerminateHandlerForAThreadOfItsOwn) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult parent = tern::test::RunInChild([&] {
        const std::terminate_handler before = std::get_terminate();
        mwl::Threading::Signals signals;
        mwl::Threading::ThreadsMonitor monitor(signals);
        mwl::DBusService::Component component(NAME, monitor, mServer);
        component.Initialize();
        component.Start();
        sd_bus* opened = nullptr;
        sd_bus_open_system(&opened);
        Bus peer(opened);
        // Answered by the loop, behind which the parent's thread holds no lock of the log.
        sd_bus_call_method(peer.get(), NAME.c_str(), "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
                           nullptr, nullptr);
        peer.reset();
        const pid_t child = fork();
        if (child == 0) {
            alarm(30);
            const bool isGivenBack = std::get_terminate() == before;
            const std::terminate_handler application = [] { _exit(42); };
            std::set_terminate(application);
            const std::string name = "com.example.Child";
            mwl::Threading::ThreadsMonitor ownMonitor(signals);
            Server ownServer;
            mwl::DBusService::Component own(name, ownMonitor, ownServer);
            const bool isStarted = own.Start() == StatusCode::Ok;
            const bool isOurs = std::get_terminate() != application;
            ownMonitor.NotifyDBusThreadToStop(false);
            own.JoinThread();
            _exit((isGivenBack ? 0 : 1) | (isStarted ? 0 : 2) | (isOurs ? 0 : 4) |
                  (std::get_terminate() == application ? 0 : 8));
        }
        int status = -1;
        waitpid(child, &status, 0);
        kill(getpid(), SIGTERM);
        component.JoinThread();
        return std::get_terminate() != before ? 99 : WIFEXITED(status) ? WEXITSTATUS(status) : 98;
    });
    EXPECT_EQ(parent.exitCode, 0) << parent.error;
}

TEST_F(LoopGuardTest, ExceptionThatEndsAnotherThreadIsNotOurs) {
    const ChildResult child = Serve([](sd_bus*) { std::thread([] { Throw(); }).join(); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(CriticalOnes(child), IsEmpty());
}

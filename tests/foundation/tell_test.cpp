#include "foundation/tell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <systemd/sd-bus.h>
#include <tern/queued_processings/component.h>
#include <tern/service/component.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/message_pipe.h>
#include <tern/service/service_main_loop.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "foundation/told.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/private_bus.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/watching_doubles.h"

TERN_INTERPOSE(int, sd_event_default, (sd_event * *event), (event))

// Every place of the library that tells, with the real classes.

namespace {

using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using mwl::Tell::Event;
using mwl::Tell::Listener;
using mwl::Tell::SetListener;
using mwl::Threading::Signals;
using mwl::Threading::ThreadsMonitor;
using mwl::Threading::ThreadsWatcher;
using mwl::Threading::ThreadWatched;
using mwl::Threading::ThreadPool::ThreadPool;
using std::chrono::milliseconds;
using tern::test::FaultScope;
using tern::test::MovedClock;
using tern::test::PrivateBus;
using tern::test::RunInChild;
using tern::test::Told;
using tern::test::WaitUntil;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::NiceMock;

TEST(TellEvents, HaveNamesOfTheirOwn) {
    EXPECT_EQ(mwl::Tell::NameOf(Event::ObjectMade), "object_made");
    EXPECT_EQ(mwl::Tell::NameOf(Event::Message), "message");
    EXPECT_EQ(mwl::Tell::NameOf(static_cast<Event>(mwl::Tell::EVENTS)), "");
    const std::set<std::string_view> names(mwl::Tell::EVENT_NAMES.begin(), mwl::Tell::EVENT_NAMES.end());
    EXPECT_EQ(names.size(), mwl::Tell::EVENTS);
}

TEST(Tell, KnowsOneListenerAtATime) {
    static const Listener first{Listener::VERSION,
                                [](Event, const void*, std::uint64_t, const char*) noexcept {}};
    static const Listener second = first;
    EXPECT_EQ(SetListener(&first), nullptr);
    EXPECT_EQ(SetListener(&second), &first);
    EXPECT_EQ(SetListener(nullptr), &second);
    EXPECT_EQ(SetListener(nullptr), nullptr);
}

TEST(Tell, TakesNoListenerOfAnotherVersion) {
    static const Listener other{Listener::VERSION + 1,
                                [](Event, const void*, std::uint64_t, const char*) noexcept { FAIL(); }};
    static const Listener empty{Listener::VERSION, nullptr};
    EXPECT_EQ(SetListener(&other), nullptr);
    EXPECT_EQ(SetListener(&empty), nullptr);
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    EXPECT_EQ(SetListener(nullptr), nullptr);
}

TEST(Tell, PoolTellsOfEveryJobOnce) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    Signals signals;
    const Told told;
    ThreadPool pool(1, watcher, signals);
    pool.QueueJob([] {});
    pool.QueueUnique([] {});
    pool.QueueJob({});  // dropped when its turn comes
    pool.QueueJob([] {});
    pool.Start();
    ASSERT_TRUE(WaitUntil([] { return Told::Count(Event::JobEnded) == 3; }));
    pool.Stop(false);
    const auto valuesOf = [&](Event event) {
        std::vector<std::uint64_t> values;
        for (const Told::Entry& entry : Told::Of(event)) {
            EXPECT_EQ(entry.object, &pool);
            values.push_back(entry.value);
        }
        return values;
    };
    EXPECT_THAT(valuesOf(Event::JobQueued), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(valuesOf(Event::JobBegan), ElementsAre(3, 2, 0));
    EXPECT_THAT(valuesOf(Event::JobEnded), ElementsAre(0, 0, 0));
    EXPECT_THAT(Told::NamesOf(Event::WatchBegan), ElementsAre("ThreadPool::Thread0"));
    EXPECT_THAT(Told::NamesOf(Event::WatchEnded), ElementsAre("ThreadPool::Thread0"));
    EXPECT_GE(Told::Count(Event::WatchReported), 6U);
}

/// Runs until it is stopped, and counts.
class Worker : public mwl::QueuedProcessings::ExecutorInterface {
public:
    StatusCode Initialize() override { return StatusCode::Ok; }
    void Execute() override {
        if (onExecute) {
            onExecute();
        }
        ++runs;
    }
    void Stop() override {}

    std::function<void()> onExecute;
    std::atomic<unsigned int> runs{0};
};

TEST(Tell, QueuedComponentTellsOfWakeUpsAndRuns) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Worker worker;
    const Told told;
    {
        mwl::QueuedProcessings::Component component("Upload", "upload", monitor, worker);
        ASSERT_EQ(component.Start(), StatusCode::Ok);
        for (unsigned int i = 1; i <= 3; ++i) {
            component.WakeUp();
            ASSERT_TRUE(WaitUntil([] { return Told::Count(Event::RunEnded) == Told::Count(Event::WakeUp); }));
        }
        component.Stop();
        component.Join();
    }
    EXPECT_THAT(Told::NamesOf(Event::WakeUp), ElementsAre("Upload", "Upload", "Upload"));
    EXPECT_EQ(Told::Count(Event::RunBegan), 3U);
    EXPECT_EQ(Told::Count(Event::RunEnded), 3U);
    const void* const object = Told::Of(Event::WakeUp).front().object;
    for (const Event event : {Event::RunBegan, Event::RunEnded}) {
        for (const Told::Entry& entry : Told::Of(event)) {
            EXPECT_EQ(entry.object, object);
        }
    }
    EXPECT_EQ(Told::Count(Event::ThreadAdded), 1U);
    EXPECT_EQ(Told::Count(Event::ThreadRemoved), 1U);
}

TEST(Tell, QueuedComponentTellsOfItsException) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    Worker worker;
    worker.onExecute = [] { throw std::runtime_error("no network"); };
    const Told told;
    {
        mwl::QueuedProcessings::Component component("Upload", "upload", monitor, worker);
        ASSERT_EQ(component.Start(), StatusCode::Ok);
        component.WakeUp();
        component.Join();
    }
    EXPECT_THAT(Told::NamesOf(Event::Thrown), ElementsAre("no network"));
}

TEST(Tell, TimersTellOfTheirCallbacks) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer does not know the threads that the C library makes for expiries";
#endif
    const Told told;
    std::atomic<int> calls{0};
    mwl::Timer::Timer once(5, false, [&] { ++calls; });
    ASSERT_EQ(once.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([] { return Told::Count(Event::TimerEnded) == 1; }));
    EXPECT_EQ(Told::Count(Event::TimerBegan), 1U);
    // It was due some time before it began, and not a second before.
    EXPECT_GT(Told::Of(Event::TimerBegan)[0].value, 0U);
    EXPECT_LT(Told::Of(Event::TimerBegan)[0].value, 1000000000U * tern::test::SLOWNESS);
    once.Handler();
    EXPECT_EQ(Told::Count(Event::TimerBegan), 2U);
    EXPECT_EQ(Told::Of(Event::TimerBegan)[1].value, 0U);
    EXPECT_EQ(once.Stop(), StatusCode::Ok);
    EXPECT_EQ(calls, 2);
}

TEST(Tell, ShortPeriodTimerTellsOfItsCallbacks) {
    const Told told;
    mwl::Timer::ShortPeriodTimer timer(1, true, [] {});
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([] { return Told::Count(Event::TimerEnded) >= 3; }));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    EXPECT_EQ(Told::Count(Event::TimerBegan), Told::Count(Event::TimerEnded));
}

TEST(Tell, PipeTellsOfMessagesAndOfWaiting) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    const Told told;
    std::array<char, 4096> message{};
    ASSERT_EQ(pipe.WriteMessage(message.data(), 16), StatusCode::Ok);
    ASSERT_EQ(pipe.ReadMessage(message.data(), 16, 0), StatusCode::Ok);
    EXPECT_EQ(Told::Of(Event::PipeWritten)[0].value, 16U);
    EXPECT_EQ(Told::Of(Event::PipeRead)[0].value, 16U);
    EXPECT_EQ(pipe.ReadMessage(message.data(), 16, 0), StatusCode::ResourceUnavailable);
    EXPECT_EQ(Told::Count(Event::PipeRead), 1U);
    EXPECT_EQ(Told::Count(Event::PipeFull), 0U);

    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(pipe.WriteMessage(message.data(), message.size()), StatusCode::Ok);
    }
    EXPECT_EQ(Told::Count(Event::PipeFull), 0U);
    std::thread writer([&] {
        std::array<char, 4096> last{};
        EXPECT_EQ(pipe.WriteMessage(last.data(), last.size()), StatusCode::Ok);
    });
    EXPECT_TRUE(WaitUntil([] { return Told::Count(Event::PipeFull) == 1; }));
    EXPECT_EQ(Told::Count(Event::PipeWaited), 0U);
    EXPECT_EQ(pipe.ReadMessage(message.data(), message.size(), 0), StatusCode::Ok);
    writer.join();
    EXPECT_EQ(Told::Count(Event::PipeWaited), 1U);
    EXPECT_EQ(Told::Count(Event::PipeWritten), 18U);
    for (const Event event : {Event::PipeWritten, Event::PipeRead, Event::PipeFull, Event::PipeWaited}) {
        EXPECT_EQ(Told::Of(event)[0].object, &pipe);
    }
}

TEST(Tell, WatchedThreadTellsOfItsWatch) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    ThreadWatched watched(watcher, "pump");
    const Told told;
    watched.StartWatch(milliseconds(250));
    watched.NotifyWork();
    watched.NotifyWork();
    watched.StopWatch();
    ASSERT_EQ(Told::Count(Event::WatchBegan), 1U);
    EXPECT_EQ(Told::Of(Event::WatchBegan)[0].value, 250000000U);
    EXPECT_THAT(Told::NamesOf(Event::WatchReported), ElementsAre("pump", "pump"));
    EXPECT_THAT(Told::NamesOf(Event::WatchEnded), ElementsAre("pump"));
}

TEST(Tell, WatchOfANonsensicalPeriodIsTold) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    ThreadWatched watched(watcher, "pump");
    const Told told;
    watched.StartWatch(milliseconds(-5));
    watched.StartWatch(milliseconds::max());
    watched.StopWatch();
    ASSERT_EQ(Told::Count(Event::WatchBegan), 2U);
    EXPECT_EQ(Told::Of(Event::WatchBegan)[0].value, 0U);
    EXPECT_GT(Told::Of(Event::WatchBegan)[1].value, std::uint64_t{1} << 63);
}

int gBlockedPipe = -1;

TEST(Tell, WatcherTellsWhomItIsAboutToKillFor) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    gBlockedPipe = ends[1];
    const auto result = RunInChild([] {
        static const Listener listener{
            Listener::VERSION, [](Event event, const void*, std::uint64_t value, const char* name) noexcept {
                if (event == Event::Blocked && value > 20000000000U) {
                    static_cast<void>(!write(gBlockedPipe, name, strlen(name)));
                }
            }};
        SetListener(&listener);
        Signals signals;
        ThreadsMonitor monitor(signals);
        ThreadsWatcher watcher(monitor);
        ThreadWatched watched(watcher, "pump");
        watched.StartWatch(milliseconds(100));
        MovedClock::Hurry(100);
        for (;;) {
            pause();
        }
        return 0;
    });
    EXPECT_EQ(result.signal, SIGKILL);
    std::array<char, 64> name{};
    EXPECT_EQ(read(ends[0], name.data(), name.size() - 1), 4);
    EXPECT_STREQ(name.data(), "pump");
    close(ends[0]);
    close(ends[1]);
}

/// Does what the test says in its start.
class Server : public mwl::DBusService::IpcServer {
public:
    explicit Server(std::function<StatusCode(mw::tern::DBusServerManager&, mw::tern::EventLoop&)> start)
        : mStart(std::move(start)) {}
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        return mStart(manager, loop);
    }
    void Stop() override {
        if (mThrows) {
            throw std::runtime_error("no valve");
        }
    }
    void ThrowInStop() { mThrows = true; }

private:
    std::function<StatusCode(mw::tern::DBusServerManager&, mw::tern::EventLoop&)> mStart;
    bool mThrows = false;
};

class TellOfTheService : public testing::Test {
protected:
    TellOfTheService() {
        EXPECT_EQ(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    }
    void Run(Server& server, const std::function<void(ThreadsMonitor&)>& meanwhile) {
        Signals signals;
        ThreadsMonitor monitor(signals);
        mwl::DBusService::Component component(mName, monitor, server);
        if (component.Start() == StatusCode::Ok) {
            meanwhile(monitor);
        }
        component.JoinThread();
    }

    PrivateBus mBus;
    const std::string mName = "com.example.Told";
    const Told mTold;
};

TEST_F(TellOfTheService, StatesOfAnOrderlyLife) {
    Server server([](auto&, auto&) { return StatusCode::Ok; });
    Run(server, [](ThreadsMonitor& monitor) { monitor.NotifyDBusThreadToStop(false); });
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "running", "stopping"));
    EXPECT_EQ(Told::Count(Event::Thrown), 0U);
}

TEST_F(TellOfTheService, EachTurnOfTheLoopIsItsConnections) {
    const sd_bus* bus = nullptr;
    Server server([&](mw::tern::DBusServerManager& manager, auto&) {
        bus = manager.GetBus();
        return StatusCode::Ok;
    });
    Run(server, [](ThreadsMonitor& monitor) { monitor.NotifyDBusThreadToStop(false); });
    const std::vector<Told::Entry> turns = Told::Of(Event::TurnEnded);
    EXPECT_FALSE(turns.empty());
    EXPECT_THAT(turns, Each(testing::Field(&Told::Entry::object, bus)));
}

TEST_F(TellOfTheService, FailedStart) {
    Server server([](auto&, auto&) { return StatusCode::Failure; });
    Run(server, [](ThreadsMonitor&) { FAIL(); });
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "failed"));
}

TEST_F(TellOfTheService, ExceptionInItsStart) {
    Server server([](auto&, auto&) -> StatusCode { throw std::runtime_error("no heater"); });
    Run(server, [](ThreadsMonitor&) { FAIL(); });
    EXPECT_THAT(Told::NamesOf(Event::Thrown), ElementsAre("std::runtime_error: no heater"));
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "failed"));
}

TEST_F(TellOfTheService, ExceptionInTheMakingOfItsLoop) {
    Server server([](auto&, auto&) { return StatusCode::Ok; });
    const FaultScope scope(fault_sd_event_default);
    fault_sd_event_default.Replace([](sd_event**) -> int { throw std::bad_alloc(); });
    Run(server, [](ThreadsMonitor&) { FAIL(); });
    EXPECT_THAT(Told::NamesOf(Event::Thrown), ElementsAre("std::bad_alloc: std::bad_alloc"));
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "failed"));
}

TEST_F(TellOfTheService, ExceptionInItsStop) {
    Server server([](auto&, auto&) { return StatusCode::Ok; });
    server.ThrowInStop();
    Run(server, [](ThreadsMonitor& monitor) { monitor.NotifyDBusThreadToStop(false); });
    EXPECT_THAT(Told::NamesOf(Event::Thrown), ElementsAre("std::runtime_error: no valve"));
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "running", "stopping"));
}

TEST_F(TellOfTheService, LongExceptionIsCut) {
    const std::string text(1000, 'x');
    Server server([&](auto&, auto&) -> StatusCode { throw std::runtime_error(text); });
    Run(server, [](ThreadsMonitor&) { FAIL(); });
    const std::string told = "std::runtime_error: " + text;
    EXPECT_THAT(Told::NamesOf(Event::Thrown), ElementsAre(told.substr(0, 511)));
}

TEST_F(TellOfTheService, ExceptionInACallbackOfTheLoop) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    Server server([&](auto&, mw::tern::EventLoop& loop) {
        return loop.AddIo(pipe.GetReadFd(), EPOLLIN, [](sd_event_source*, int, unsigned int) -> StatusCode {
            throw std::string("cold");
        });
    });
    Run(server, [&](ThreadsMonitor&) { EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok); });
    EXPECT_EQ(Told::Count(Event::Thrown), 1U);
    EXPECT_THAT(Told::NamesOf(Event::Thrown)[0], testing::EndsWith(": cold"));
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "running", "failed"));
}

TEST_F(TellOfTheService, ExceptionThatEndsTheProcessOnAnotherThread) {
    Server server([](auto&, auto&) { return StatusCode::Ok; });
    const tern::test::ChildResult result = RunInChild([&] {
        // What the application has set takes its course after the telling.
        std::set_terminate([] { _exit(Told::Count(Event::Thrown) == 1 ? 42 : 1); });
        Run(server,
            [](ThreadsMonitor&) { std::thread([] { throw std::runtime_error("no network"); }).join(); });
        return 2;
    });
    EXPECT_EQ(result.exitCode, 42) << result.error;
    for (const tern::test::LogEntry& entry : result.log) {
        EXPECT_THAT(entry.text, testing::Not(testing::HasSubstr("no network")));
    }
}

TEST_F(TellOfTheService, LossOfTheBus) {
    Server server([](auto&, auto&) { return StatusCode::Ok; });
    Run(server, [&](ThreadsMonitor&) { mBus.Kill(); });
    EXPECT_THAT(Told::NamesOf(Event::StateChanged), ElementsAre("starting", "running", "lost-bus", "failed"));
}

TEST(Tell, NobodyIsToldWhileItIsOff) {
    static std::atomic<unsigned int> told{0};
    static const Listener counting{Listener::VERSION,
                                   [](Event, const void*, std::uint64_t, const char*) noexcept { ++told; }};
    const auto work = [] {
        Signals signals;
        NiceMock<mwl::Threading::MockWatcher> watcher;
        ThreadPool pool(2, watcher, signals);
        pool.Start();
        std::atomic<int> done{0};
        pool.QueueJob([&] { ++done; });
        MessagePipe pipe;
        ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
        ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
        ASSERT_TRUE(WaitUntil([&] { return done == 1; }));
        pool.Stop(false);
    };
    SetListener(&counting);
    work();
    EXPECT_GE(told, 8U);
    SetListener(nullptr);
    told = 0;
    work();
    EXPECT_EQ(told, 0U);
}

}  // namespace

#include <tern/diagnostics/diagnostics.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <systemd/sd-daemon.h>
#include <tern/diagnostics/contract.h>
#include <tern/diagnostics/diagnosis.h>
#include <tern/diagnostics/ring_reader.h>
#include <tern/foundation/process_logger.h>
#include <tern/queued_processings/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>
#include <tern/timer/timer.h>
#include <tern/typed/blocking_proxy.h>
#include <tern/typed/proxy.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_set.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <latch>
#include <limits>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "diagnostics/diagnostics_fixture.h"
#include "diagnostics/idle_executor.h"
#include "foundation/unique_fd.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/threads_of_children.h"
#include "support/wait_until.h"
#include "threading/watching_doubles.h"
#include "typed/served_bus.h"

TERN_INTERPOSE(int, sd_bus_add_filter,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message_handler_t handler, void* userdata),
               (bus, slot, handler, userdata))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE(int, memfd_create, (const char* name, unsigned int flags), (name, flags))
TERN_INTERPOSE_SYMBOL_(void*, mmap, "mmap64",
                       (void* address, std::size_t size, int protection, int flags, int fd, off_t at),
                       (address, size, protection, flags, fd, at))

namespace {

using namespace std::chrono_literals;
using mw::tern::StatusCode;
using mwl::Diagnostics::Diagnostics;
using mwl::Diagnostics::Diagnostics1;
using mwl::Diagnostics::Figures;
using mwl::Diagnostics::FlightDoing;
using mwl::Diagnostics::FlightThread;
using mwl::Diagnostics::MemberFigures;
using mwl::Diagnostics::Recorder;
using mwl::Diagnostics::RingReader;
using mwl::Typed::BlockingProxy;
using mwl::Typed::Bus;
using mwl::Typed::Outcome;
using mwl::Typed::Pending;
using mwl::Typed::Proxy;
using mwl::Typed::Sleep;
using mwl::Typed::Task;
using mwl::Typed::TaskSet;
using tern::test::DiagnosticsTest;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::Peer;
using tern::test::PrivateBus;
using tern::test::Room;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::NiceMock;
using testing::Not;
using testing::SizeIs;

/// From the heap, by all; 0 under sanitizers, which have one of their own.
std::size_t AllocatedBytes() {
    return mallinfo2().uordblks;
}

TEST_F(DiagnosticsTest, ShowsTheProcess) {
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.process.pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(figures.process.program, program_invocation_short_name);
    EXPECT_EQ(figures.process.version, "1.2.3");
    EXPECT_EQ(figures.process.libraryVersion, "0.1.0");
    EXPECT_GT(figures.process.memoryBytes, 1000000U);
    EXPECT_GE(figures.process.memoryPeakBytes, figures.process.memoryBytes);
    EXPECT_GE(figures.process.threads, 2U);
    EXPECT_GE(figures.process.descriptors, 5U);
    EXPECT_GE(figures.process.descriptorLimit, figures.process.descriptors);
    EXPECT_GT(figures.process.processorUs, 0U);
    EXPECT_LT(figures.process.uptimeUs, 1000000000U);
    EXPECT_EQ(figures.process.startedAtUs, *mProxy->Get(Diagnostics1::StartedAt));
    EXPECT_NEAR(static_cast<double>(figures.takenAtUs), static_cast<double>(time(nullptr)) * 1e6, 60e6);
}

TEST_F(DiagnosticsTest, CountsWhatTheBusThreadHandles) {
    Peer peer;
    mRoom->onDo = [](Room&) { usleep(20000); };  // its length is what is measured
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    }
    // The first one waits for the caller's credentials, and is answered in a turn without a message.
    Snapshot();
    const Figures figures = Snapshot();
    const auto& members = figures.busThread.members;
    ASSERT_THAT(members, Not(IsEmpty()));
    EXPECT_EQ(members[0].name, "com.example.Room1.Do");
    EXPECT_EQ(members[0].handled, 3U);
    EXPECT_GE(members[0].totalUs, 60000U);
    EXPECT_GE(members[0].longestUs, 20000U);
    ASSERT_THAT(members[0].latency, SizeIs(mwl::Diagnostics::LATENCY_BUCKETS));
    // 2^14 us are 16.4 ms.
    EXPECT_EQ(std::accumulate(members[0].latency.begin() + 15, members[0].latency.end(), 0U), 3U);
    EXPECT_EQ(std::accumulate(members[0].latency.begin(), members[0].latency.end(), 0U), 3U);
    EXPECT_EQ(figures.busThread.running, "tern.Diagnostics1.Snapshot");
    EXPECT_GT(figures.busThread.threadId, 0U);
    EXPECT_GT(figures.busThread.turns, 0U);  // messages that come soon enough share one
    EXPECT_GE(figures.busThread.longestTurnUs, 20000U);
    EXPECT_LT(figures.busThread.longestTurnUs, 10000000U);
    EXPECT_EQ(figures.busThread.watchdogUs, 0U);
    EXPECT_GE(figures.busThread.handled, 4U);
}

TEST_F(DiagnosticsTest, CallsSignalsAndAnswersOfOneNameAreToldApart) {
    Peer peer;
    mRoom->onDo = [](Room&) {};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
        // Follows a call of its own name.
        sd_bus_message* signal = nullptr;
        ASSERT_GE(sd_bus_message_new_signal(peer.Get(), &signal, "/room", tern::test::ROOM, "Do"), 0);
        const Peer::Message owner(signal);
        ASSERT_GE(sd_bus_message_set_destination(signal, tern::test::SERVICE), 0);
        ASSERT_GE(sd_bus_send(peer.Get(), signal, nullptr), 0);
        peer.Ping();
    }
    ASSERT_TRUE(WaitUntil([&] { return Member("signal com.example.Room1.Do").has_value(); }));
    EXPECT_EQ(Member("signal com.example.Room1.Do")->handled, 3U);
    EXPECT_EQ(Member("com.example.Room1.Do")->handled, 3U);
    EXPECT_EQ(Member("org.freedesktop.DBus.Peer.Ping")->handled, 3U);
}

TEST(DiagnosticsUnderAWatchdog, ShowItsPeriodAndTheSmallestMargin) {
    const PrivateBus bus;
    setenv("WATCHDOG_USEC", "4000000", 1);
    {
        Diagnostics diagnostics;
        Room* room = nullptr;
        Served served([&](Served& it) {
            room = &it.Export("/room");
            diagnostics = Diagnostics::Export(*it.typed);
        });
        served.onStop = [&] { diagnostics.Reset(); };
        unsetenv("WATCHDOG_USEC");
        room->onDo = [](Room&) { usleep(20000); };  // its length is what is measured
        Peer peer;
        EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
        EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
        const BlockingProxy<Diagnostics1> proxy(tern::test::SERVICE, Diagnostics1::PATH);
        const auto figures = proxy.Call(Diagnostics1::Snapshot);
        ASSERT_TRUE(figures.IsOk());
        EXPECT_EQ(figures->busThread.watchdogUs, 4000000U);
        EXPECT_GE(figures->busThread.longestTurnUs, 20000U);
        ASSERT_LT(figures->busThread.longestTurnUs, 1000000U);
        // The loop reports a quarter of the period before its end, if no turn is in its way.
        EXPECT_EQ(figures->busThread.watchdogMarginUs, 1000000U - figures->busThread.longestTurnUs);
    }
    Recorder::End();
}

TEST_F(DiagnosticsTest, GoesOnCountingWhileTheRecorderIsOff) {
    Peer peer;
    const auto call = [&] { EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), ""); };
    mRoom->onDo = [](Room&) { Recorder::End(); };
    call();
    usleep(100000);  // is not to be taken for the handler's time, of which nobody has told the end
    Snapshot();
    EXPECT_FALSE(Member("com.example.Room1.Do"));

    mRoom->onDo = [](Room&) {};
    const std::uint64_t turns = Snapshot().busThread.turns;
    call();
    call();
    EXPECT_TRUE(WaitUntil([&] { return Snapshot().busThread.turns >= turns + 2; }));
    EXPECT_EQ(Member("com.example.Room1.Do")->handled, 2U);

    // On again, each message is counted once, and the turns are told.
    ASSERT_EQ(Recorder::Begin({.isKept = false}), StatusCode::Ok);
    call();
    const Figures before = Snapshot();
    for (int i = 0; i < 10; ++i) {
        call();
    }
    EXPECT_EQ(Member("com.example.Room1.Do")->handled, 13U);
    EXPECT_TRUE(WaitUntil([&] { return Snapshot().busThread.turns > before.busThread.turns; }));
    EXPECT_TRUE(Recorder::IsRecording());
}

TEST_F(DiagnosticsTest, TenThousandMembersTakeNoMoreThanTheTable) {
    Peer peer;
    std::size_t before = 0;
    for (int i = 0; i < 10000; ++i) {
        if (i == 1000) {
            before = AllocatedBytes();
        }
        EXPECT_GE(
            sd_bus_call_method_async(peer.Get(), nullptr, tern::test::SERVICE, "/room", "com.example.Hostile",
                                     ("Member" + std::to_string(i)).c_str(), nullptr, nullptr, nullptr),
            0);
        if (i % 100 == 99) {
            peer.Ping();
        }
    }
    // The table has long been full: nine thousand more have left nothing behind. With 32 bytes each they
    // would have; what threads keep of freed memory for the next time is less.
    EXPECT_LT(AllocatedBytes(), before + (std::size_t{256} << 10U));
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.busThread.members.size(), 257U);
    const auto others = Member("(others)");
    ASSERT_TRUE(others);
    EXPECT_GE(others->handled, 9744U);
    // None is missing, and no table of the recorder's has more than its room.
    std::uint64_t handled = 0;
    for (const MemberFigures& member : figures.busThread.members) {
        handled +=
            member.name == "(others)" || member.name.starts_with("com.example.Hostile.") ? member.handled : 0;
    }
    EXPECT_GE(handled, 10000U);
    const auto flight = RingReader::Read(Recorder::GetFd());
    ASSERT_TRUE(flight.IsOk());
    const bool hasOthers = std::any_of(flight->events.begin(), flight->events.end(), [](const auto& event) {
        return event.event == "call_ended" && event.name == "(others)";
    });
    EXPECT_TRUE(hasOthers);
    EXPECT_LT(flight->namesLost, 20000U);
}

TEST_F(DiagnosticsTest, TimeOfDayThatIsSetMakesNothingOlder) {
    const Figures before = Snapshot();
    constexpr std::uint64_t MINUTE_US = 60000000;
    constexpr long YEARS = 50L * 365 * 86400;
    constexpr std::uint64_t YEARS_US = std::uint64_t{YEARS} * 1000000;
    for (const long jump : {YEARS, -YEARS}) {
        const FaultScope scope(fault_clock_gettime);
        fault_clock_gettime.Replace(
            [jump](clockid_t clock, timespec* now) {
                const int r = fault_clock_gettime.Real(clock, now);
                now->tv_sec += clock == CLOCK_REALTIME ? jump : 0;
                return r;
            },
            std::numeric_limits<int>::max());
        const Figures after = Snapshot();
        EXPECT_GE(after.process.uptimeUs, before.process.uptimeUs);
        EXPECT_LT(after.process.uptimeUs, before.process.uptimeUs + MINUTE_US);
        EXPECT_EQ(after.process.startedAtUs, before.process.startedAtUs);
        EXPECT_LT(after.busThread.longestTurnUs, MINUTE_US);
        for (const MemberFigures& member : after.busThread.members) {
            EXPECT_LT(member.longestUs, MINUTE_US) << member.name;
        }
        EXPECT_LT(after.busThread.runningUs, MINUTE_US);
        // Times of day are by the clock as it is set now, of events before it was set as well.
        const std::uint64_t expected = jump > 0 ? before.takenAtUs + YEARS_US : before.takenAtUs - YEARS_US;
        EXPECT_NEAR(static_cast<double>(after.takenAtUs), static_cast<double>(expected), 60e6);
        const auto answer = mProxy->Call(Diagnostics1::GetEvents, std::uint64_t{0}, 0U);
        ASSERT_TRUE(answer.IsOk());
        for (const auto& event : std::get<2>(*answer)) {
            EXPECT_NEAR(static_cast<double>(event.atUs), static_cast<double>(expected), 600e6);
        }
    }
}

TEST_F(DiagnosticsTest, ShowsTheConnection) {
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.connection.uniqueName.front(), ':');
    EXPECT_EQ(figures.connection.objects, 2U);
    EXPECT_EQ(figures.connection.openCalls, 0U);
}

TEST_F(DiagnosticsTest, SilenceOfAThreadThatNeverReportsGrows) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    mwl::Threading::ThreadWatched mute(watcher, "mute");
    mute.StartWatch(std::chrono::milliseconds(1000));
    EXPECT_TRUE(WaitUntil([&] {
        const Figures figures = Snapshot();
        return figures.watched.size() == 1 && figures.watched[0].silentUs >= 1000;
    }));
    mute.StopWatch();
}

TEST_F(DiagnosticsTest, ShowsPools) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadPool::ThreadPool pool(1, watcher, signals);
    pool.Start();
    std::latch begun(1);
    std::latch goOn(1);
    pool.QueueJob([&] {
        begun.count_down();
        goOn.wait();
    });
    pool.QueueJob([] {});
    pool.QueueJob([] {});
    begun.wait();
    Figures figures = Snapshot();
    ASSERT_THAT(figures.pools, SizeIs(1));
    EXPECT_EQ(figures.pools[0].threads, 1U);
    EXPECT_EQ(figures.pools[0].busy, 1U);
    EXPECT_EQ(figures.pools[0].queued, 2U);
    EXPECT_EQ(figures.pools[0].done, 0U);
    EXPECT_TRUE(WaitUntil([&] { return Snapshot().pools[0].runningUs > 0; }));
    ASSERT_THAT(figures.watched, SizeIs(1));
    EXPECT_EQ(figures.watched[0].name, "ThreadPool::Thread0");
    EXPECT_EQ(figures.watched[0].periodUs, 60000000U);
    EXPECT_EQ(figures.watched[0].limitUs, 120000000U);
    EXPECT_EQ(figures.watched[0].marginUs, figures.watched[0].limitUs - figures.watched[0].silentUs);
    EXPECT_GT(figures.watched[0].threadId, 0U);
    goOn.count_down();
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().pools[0].done == 3; }));
    figures = Snapshot();
    EXPECT_EQ(figures.pools[0].busy, 0U);
    EXPECT_EQ(figures.pools[0].queued, 0U);
    EXPECT_EQ(figures.pools[0].runningUs, 0U);
    EXPECT_GT(figures.pools[0].longestUs, 0U);
    pool.Stop(false);
}

TEST_F(DiagnosticsTest, ShowsComponentsAndSupervisedThreads) {
    tern::test::IdleExecutor executor;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::QueuedProcessings::Component component("Upload", "upload", monitor, executor);
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    component.WakeUp();
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().components.at(0).runs == 1; }));
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.components[0].name, "Upload");
    EXPECT_EQ(figures.components[0].wakeUps, 1U);
    ASSERT_THAT(figures.threads, SizeIs(1));
    EXPECT_EQ(figures.threads[0].name, "upload");
    EXPECT_EQ(figures.threads[0].state, "sleeping");
    component.Stop();
    component.Join();
    EXPECT_THAT(Snapshot().threads, IsEmpty());
}

TEST_F(DiagnosticsTest, ShowsTimers) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer does not know the threads that the C library makes for expiries";
#endif
    mwl::Timer::Timer timer(1, false, [] {});
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().timers.at(0).expiries == 1; }));
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.timers[0].kind, "Timer");
    EXPECT_EQ(figures.timers[0].periodUs, 1000U);
    EXPECT_FALSE(figures.timers[0].isPeriodic);
    EXPECT_GT(figures.timers[0].latestUs, 0U);
}

TEST_F(DiagnosticsTest, ShowsPipes) {
    mw::tern::MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    char message[4] = {};
    ASSERT_EQ(pipe.WriteMessage(message, 4), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage(message, 4), StatusCode::Ok);
    ASSERT_EQ(pipe.ReadMessage(message, 4, 0), StatusCode::Ok);
    const Figures figures = Snapshot();
    ASSERT_THAT(figures.pipes, SizeIs(1));
    EXPECT_EQ(figures.pipes[0].written, 2U);
    EXPECT_EQ(figures.pipes[0].read, 1U);
    EXPECT_EQ(figures.pipes[0].full, 0U);
}

TEST_F(DiagnosticsTest, GivesEventsOnceAndInOrder) {
    Peer peer;
    mRoom->onDo = [](Room&) {};
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    const auto first = mProxy->Call(Diagnostics1::GetEvents, std::uint64_t{0}, 5U);
    ASSERT_TRUE(first.IsOk());
    const auto& [next, lost, events] = *first;
    ASSERT_THAT(events, SizeIs(5));
    EXPECT_EQ(next, events.back().sequence);
    // What the tests before this one have recorded, and what has been overwritten since.
    EXPECT_EQ(lost, events[0].sequence - 1);
    EXPECT_NEAR(static_cast<double>(events[0].atUs), static_cast<double>(time(nullptr)) * 1e6, 60e6);
    const auto second = mProxy->Call(Diagnostics1::GetEvents, next, 0U);
    ASSERT_TRUE(second.IsOk());
    const auto& rest = std::get<2>(*second);
    EXPECT_EQ(rest.front().sequence, next + 1);
    EXPECT_TRUE(std::any_of(rest.begin(), rest.end(),
                            [](const auto& event) {
                                return event.event == "call_ended" && event.name == "com.example.Room1.Do" &&
                                       event.value > 0;
                            }) ||
                std::any_of(events.begin(), events.end(),
                            [](const auto& event) { return event.event == "call_ended"; }));
    // A number of a former life begins again.
    const auto beyond = mProxy->Call(Diagnostics1::GetEvents, ~std::uint64_t{0}, 1U);
    ASSERT_TRUE(beyond.IsOk());
    EXPECT_LT(std::get<2>(*beyond).at(0).sequence, rest.back().sequence);
}

// One such name kept all figures back, and all events.
TEST_F(DiagnosticsTest, NamesThatCannotBeSentAreMadeFit) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    // In another character set, and with a code point that is no character.
    mwl::Threading::ThreadWatched thread(watcher,
                                         "L\xfc"
                                         "fter");
    thread.StartWatch(std::chrono::milliseconds(1000));
    tern::test::IdleExecutor executor;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::QueuedProcessings::Component component("Cool\xef\xbf\xbfing", "cooling", monitor, executor);
    const std::uint64_t written = RingReader::Read(Recorder::GetFd())->written;
    component.WakeUp();
    const auto events = mProxy->Call(Diagnostics1::GetEvents, written, 0U);
    ASSERT_TRUE(events.IsOk()) << events.GetError().GetText();
    EXPECT_TRUE(std::any_of(std::get<2>(*events).begin(), std::get<2>(*events).end(), [](const auto& event) {
        return event.event == "wake_up" && event.name == "Cool???ing";
    }));
    const Figures figures = Snapshot();
    ASSERT_THAT(figures.watched, SizeIs(1));
    EXPECT_EQ(figures.watched[0].name, "L?fter");
    ASSERT_THAT(figures.components, SizeIs(1));
    EXPECT_EQ(figures.components[0].name, "Cool???ing");
    thread.StopWatch();
    mServed->On([&] {
        mDiagnostics.Reset();
        mDiagnostics = Diagnostics::Export(*mServed->typed, {.recorder = {.version = "1.0\xb2"}});
    });
    EXPECT_EQ(Snapshot().process.version, "1.0?");
    const auto version = mProxy->Get(Diagnostics1::Version);
    ASSERT_TRUE(version.IsOk()) << version.GetError().GetText();
    EXPECT_EQ(*version, "1.0?");
}

TEST_F(DiagnosticsTest, HandsTheMemoryOutForReadingOnly) {
    const auto memory = mProxy->Call(Diagnostics1::OpenRecorder);
    ASSERT_TRUE(memory.IsOk());
    const auto flight = RingReader::Read(memory->Get());
    ASSERT_TRUE(flight.IsOk());
    EXPECT_EQ(flight->pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(fcntl(memory->Get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(pwrite(memory->Get(), "x", 1, 0), -1);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memory->Get(), 0), MAP_FAILED);
    // The D-Bus thread is marked, and is in the handler that answers.
    const bool isMarked = std::any_of(flight->threads.begin(), flight->threads.end(),
                                      [](const auto& thread) { return thread.isBusThread; });
    EXPECT_TRUE(isMarked);
}

TEST_F(DiagnosticsTest, HangingHandlerIsSeenFromOutside) {
    const int fd = Recorder::GetFd();
    std::latch begun(1);
    std::latch goOn(1);
    mRoom->onDo = [&](Room&) {
        begun.count_down();
        goOn.wait();
    };
    Peer peer;
    std::vector<std::string> answers;
    peer.Send(answers, "/room", tern::test::ROOM, "Do");
    EXPECT_GE(sd_bus_flush(peer.Get()), 0);
    begun.wait();
    const auto flight = RingReader::Read(fd);
    ASSERT_TRUE(flight.IsOk());
    const auto found = std::find_if(flight->threads.begin(), flight->threads.end(),
                                    [](const auto& thread) { return thread.isBusThread; });
    ASSERT_NE(found, flight->threads.end());
    ASSERT_THAT(found->doing, SizeIs(1));
    EXPECT_EQ(found->doing[0].event, "call_began");
    EXPECT_EQ(found->doing[0].name, "com.example.Room1.Do");
    goOn.count_down();
    peer.Ping();
}

TEST_F(DiagnosticsTest, LogThresholdIsReadSetAndAnnounced) {
    const std::string before = *mProxy->Get(Diagnostics1::LogLevel);
    Peer peer;
    peer.Listen();
    ASSERT_TRUE(mProxy->Call(Diagnostics1::SetLogLevel, "warning").IsOk());
    EXPECT_EQ(*mProxy->Get(Diagnostics1::LogLevel), "warning");
    EXPECT_FALSE(mwl::ProcessLogger::Writes(5));
    EXPECT_TRUE(mwl::ProcessLogger::Writes(4));
    EXPECT_THAT(peer.Seen(), Contains(HasSubstr("LogLevel")));
    const auto refused = mProxy->Call(Diagnostics1::SetLogLevel, "loud");
    ASSERT_FALSE(refused.IsOk());
    EXPECT_EQ(refused.GetError().GetName(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(refused.GetError().GetText(),
              "'loud' is none of critical, error, warning, notice, info, debug");
    EXPECT_TRUE(mProxy->Call(Diagnostics1::SetLogLevel, before).IsOk());
}

TEST_F(DiagnosticsTest, WithoutAFormerLifeThereIsNoReason) {
    const auto why = mProxy->Call(Diagnostics1::Why);
    ASSERT_TRUE(why.IsOk());
    EXPECT_EQ(std::get<0>(*why), "none");
    EXPECT_THAT(std::get<1>(*why), IsEmpty());
    EXPECT_EQ(*mProxy->Get(Diagnostics1::Ended), "none");
    EXPECT_EQ(*mProxy->Get(Diagnostics1::Restarts), 0U);
    EXPECT_EQ(*mProxy->Get(Diagnostics1::Version), "1.2.3");
}

TEST_F(DiagnosticsTest, ResetTakesTheObjectBack) {
    EXPECT_TRUE(mProxy->Call(Diagnostics1::Why).IsOk());
    mServed->On([&] { mDiagnostics.Reset(); });
    EXPECT_FALSE(mProxy->Call(Diagnostics1::Why).IsOk());
    EXPECT_EQ(mDiagnostics.GetStatus(), StatusCode::NotInitialized);
    EXPECT_FALSE(mDiagnostics);
    // And again.
    mServed->On([&] { mDiagnostics = Diagnostics::Export(*mServed->typed); });
    EXPECT_TRUE(mProxy->Call(Diagnostics1::Why).IsOk());
}

/// What the recorder says that the D-Bus thread is in.
std::vector<std::string> WhatTheBusThreadIsIn() {
    const auto flight = RingReader::Read(Recorder::GetFd());
    EXPECT_TRUE(flight.IsOk());
    std::vector<std::string> names;
    for (const FlightThread& thread : flight->threads) {
        if (thread.isBusThread) {
            for (const FlightDoing& doing : thread.doing) {
                names.push_back(doing.name);
            }
        }
    }
    return names;
}

TEST_F(DiagnosticsTest, ResetInAHandlerLeavesTheThreadInNothing) {
    mRoom->onDo = [this](tern::test::Room&) {
        EXPECT_THAT(WhatTheBusThreadIsIn(), ElementsAre("com.example.Room1.Do"));
        mDiagnostics.Reset();
    };
    tern::test::Peer peer;
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    EXPECT_THAT(mServed->On(&WhatTheBusThreadIsIn), IsEmpty());
    // Another one begins anew.
    mServed->On([&] { mDiagnostics = Diagnostics::Export(*mServed->typed); });
    EXPECT_TRUE(mProxy->Call(Diagnostics1::Why).IsOk());
    EXPECT_THAT(mServed->On(&WhatTheBusThreadIsIn), IsEmpty());
}

TEST_F(DiagnosticsTest, HandlerThatEndsTheLoopIsOverWhenTheServiceHasStopped) {
    mRoom->onDo = [this](tern::test::Room&) { mServed->loop->End(); };
    mServed->onStop = [this] {
        mDiagnostics.Reset();
        EXPECT_THAT(WhatTheBusThreadIsIn(), IsEmpty());
    };
    tern::test::Peer peer;
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    mServed->End();
}

// A stop that hung behind such a handler was told as a handler that hung.
TEST_F(DiagnosticsTest, HandlerThatEndsTheLoopIsOverWhenTheLoopHasEnded) {
    mRoom->onDo = [this](tern::test::Room&) { mServed->loop->End(); };
    std::vector<std::string> isIn{"not looked"};
    std::uint64_t handled = 0;
    mServed->onStop = [&] {
        isIn = WhatTheBusThreadIsIn();
        const auto flight = RingReader::Read(Recorder::GetFd());
        ASSERT_TRUE(flight.IsOk());
        handled = static_cast<std::uint64_t>(
            std::count_if(flight->events.begin(), flight->events.end(), [](const auto& event) {
                return event.event == "call_ended" && event.name == "com.example.Room1.Do";
            }));
        mDiagnostics.Reset();
    };
    tern::test::Peer peer;
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    mServed->End();
    EXPECT_THAT(isIn, IsEmpty());
    EXPECT_GE(handled, 1U);
}

TEST_F(DiagnosticsTest, HandlerThatEndsTheLoopIsOverAlsoWhereTheRecorderIsBegunLater) {
    Recorder::End();
    mServed->On([&] {
        mDiagnostics.Reset();
        mDiagnostics = Diagnostics::Export(*mServed->typed, {.isRecording = false});
        EXPECT_EQ(Recorder::Begin({.isKept = false}), StatusCode::Ok);
    });
    mRoom->onDo = [this](tern::test::Room&) { mServed->loop->End(); };
    std::vector<std::string> isIn{"not looked"};
    mServed->onStop = [&] {
        isIn = WhatTheBusThreadIsIn();
        mDiagnostics.Reset();
    };
    tern::test::Peer peer;
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    mServed->End();
    EXPECT_THAT(isIn, IsEmpty());
}

TEST_F(DiagnosticsTest, APlaceThatIsTakenIsRefused) {
    EXPECT_EQ(mServed->On([&] { return Diagnostics::Export(*mServed->typed).GetStatus(); }),
              StatusCode::AlreadyExists);
}

TEST(DiagnosticsWithoutATypedBus, OpensOne) {
    const PrivateBus bus;
    mw::tern::MessagePipe end;
    ASSERT_EQ(end.Initialize(), StatusCode::Ok);
    Diagnostics diagnostics;
    {
        Served served([&](Served& it) {
            it.typed->Close();
            diagnostics = Diagnostics::Export(*it.manager, *it.loop);
            EXPECT_EQ(diagnostics.GetStatus(), StatusCode::Ok);
            // With its typed bus closed nothing can be posted to it.
            EXPECT_EQ(it.loop->AddIo(end.GetReadFd(), EPOLLIN,
                                     [&it](sd_event_source*, int, unsigned int) {
                                         it.loop->End();
                                         return StatusCode::Ok;
                                     }),
                      StatusCode::Ok);
        });
        served.onStop = [&] { diagnostics.Reset(); };
        const BlockingProxy<Diagnostics1> proxy(tern::test::SERVICE, Diagnostics1::PATH);
        EXPECT_TRUE(proxy.Call(Diagnostics1::Snapshot).IsOk());
        EXPECT_EQ(end.WriteMessage("x", 1), StatusCode::Ok);
    }
    Recorder::End();
}

/// A service that `fail` has throw on its D-Bus thread is known to have been ended by the exception `thrown`.
/// In a child, as a recorder does not forget exceptions.
void IsKnownAsTheEnd(const std::function<void(Served&)>& fail, const char* thrown) {
    SKIP_WHERE_CHILDREN_HAVE_NO_THREADS();
    const auto result = tern::test::RunInChild([&] {
        const PrivateBus bus;
        Diagnostics diagnostics;
        Served served([&](Served& it) { diagnostics = Diagnostics::Export(*it.typed); });
        served.onStop = [&] { diagnostics.Reset(); };
        fail(served);
        EXPECT_TRUE(WaitUntil([&] { return !served.typed->Post([] {}); }));
        served.End();
        EXPECT_EQ(served.result, -ENOTRECOVERABLE);
        Recorder::End();
        const auto flight = RingReader::Read(Recorder::GetFd());
        EXPECT_TRUE(flight.IsOk());
        const mwl::Diagnostics::Diagnosis diagnosis = mwl::Diagnostics::Diagnose(*flight, 0);
        EXPECT_EQ(diagnosis.kind, "exception");
        EXPECT_THAT(diagnosis.sentences, Contains(HasSubstr(thrown)));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(result.exitCode, 0) << result.error;
}

TEST(DiagnosticsOfAnException, AJobsIsKnownAsTheEnd) {
    IsKnownAsTheEnd(
        [](Served& served) { EXPECT_TRUE(served.typed->Post([] { throw std::runtime_error("of a job"); })); },
        "std::runtime_error: of a job");
}

TEST(DiagnosticsOfAnException, ATasksIsKnownAsTheEnd) {
    TaskSet tasks;
    IsKnownAsTheEnd(
        [&](Served& served) {
            served.On([&] {
                tasks.Add([](Bus& bus) -> Task<> {
                    static_cast<void>(co_await Sleep(bus, 1ms));
                    throw std::runtime_error("of a task");
                }(*served.typed));
            });
        },
        "std::runtime_error: of a task");
}

TEST(DiagnosticsOfAnException, AnAnswersHandlersIsKnownAsTheEnd) {
    Pending pending;
    IsKnownAsTheEnd(
        [&](Served& served) {
            served.On([&] {
                const Proxy<Diagnostics1> proxy(*served.typed, tern::test::SERVICE, Diagnostics1::PATH);
                pending = proxy.Get(Diagnostics1::Version).Then([](const Outcome<std::string>&) {
                    throw std::runtime_error("of a handler");
                });
            });
        },
        "std::runtime_error: of a handler");
}

TEST(DiagnosticsFailures, AreLoggedAndShowNothing) {
    const PrivateBus bus;
    LogCapture log;
    Served served;
    served.On([&] {
        mwl::Typed::Bus closed;
        EXPECT_EQ(Diagnostics::Export(closed).GetStatus(), StatusCode::NotInitialized);
        const FaultScope scope(fault_sd_bus_add_filter);
        fault_sd_bus_add_filter.Fail(-ENOMEM, ENOMEM);
        const Diagnostics diagnostics = Diagnostics::Export(*served.typed, {.isRecording = false});
        EXPECT_FALSE(diagnostics);
        EXPECT_NE(diagnostics.GetStatus(), StatusCode::Ok);
    });
    EXPECT_EQ(
        log.Count(tern::test::Error("Diagnostics", "Refused to show diagnostics on a bus that is not open")),
        1U);
    EXPECT_EQ(log.Count(tern::test::Error("Diagnostics",
                                          "Failed to watch the D-Bus thread (-12, Cannot allocate memory)")),
              1U);
}

/// To be this process's, as systemd hands it on.
void HandOn(int fd) {
    dup2(fd, SD_LISTEN_FDS_START);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_FDNAMES", "tern-flight", 1);
}

/// A life of this program to which a descriptor is handed on.
tern::test::ChildResult LiveWith(int handedOn) {
    return tern::test::RunInChild([handedOn] {
        HandOn(handedOn);
        return Recorder::Begin() == StatusCode::Ok ? 0 : 1;
    });
}

TEST(DiagnosticsOfAFormerLife, AreLogged) {
    ASSERT_EQ(Recorder::Begin(), StatusCode::Ok);
    Recorder::End();
    // The child closes the recorder's own.
    const mwl::UniqueFd kept(dup(Recorder::GetFd()));
    const auto after = LiveWith(kept.Get());
    EXPECT_EQ(after.exitCode, 0);
    EXPECT_THAT(after.log, Contains(tern::test::Notice("Diagnostics", "Former life: It stopped in order.")));
    const mwl::UniqueFd nonsense(memfd_create("nonsense", MFD_CLOEXEC));
    EXPECT_THAT(LiveWith(nonsense.Get()).log,
                Contains(tern::test::Warning(
                    "Diagnostics",
                    "Former life: What the former life handed on cannot be read: these 0 bytes are "
                    "too few for a flight recorder's memory.")));
}

TEST(DiagnosticsOfAFormerLife, AreNotKnownWhereTheRecorderIsBegunLater) {
    SKIP_WHERE_CHILDREN_HAVE_NO_THREADS();
    ASSERT_EQ(Recorder::Begin(), StatusCode::Ok);
    Recorder::End();
    const mwl::UniqueFd kept(dup(Recorder::GetFd()));
    const PrivateBus bus;
    const auto result = tern::test::RunInChild([&kept] {
        HandOn(kept.Get());
        Diagnostics diagnostics;
        Served served([&](Served& it) {
            diagnostics = Diagnostics::Export(*it.typed, {.isRecording = false});
            EXPECT_EQ(diagnostics.GetStatus(), StatusCode::Ok);
        });
        served.onStop = [&] { diagnostics.Reset(); };
        EXPECT_EQ(Recorder::Begin(), StatusCode::Ok);
        const BlockingProxy<Diagnostics1> proxy(tern::test::SERVICE, Diagnostics1::PATH);
        const auto why = proxy.Call(Diagnostics1::Why);
        EXPECT_TRUE(why.IsOk());
        // As the property, which does not change any more.
        EXPECT_EQ(std::get<0>(*why), "none");
        EXPECT_THAT(std::get<1>(*why), IsEmpty());
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.log, Contains(tern::test::Notice("Diagnostics", "Former life: It stopped in order.")));
}

TEST(DiagnosticsFailures, WithoutMemoryNothingIsRecordedAndTheRestWorks) {
    const auto result = tern::test::RunInChild([] {
        const FaultScope scope(fault_memfd_create);
        fault_memfd_create.Fail(-1, ENFILE);
        return Recorder::Begin() != StatusCode::Ok && !Recorder::IsRecording() && Recorder::GetFd() == -1 ? 0
                                                                                                          : 1;
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.log,
                Contains(tern::test::Error("Diagnostics",
                                           "The flight recorder's memory cannot be made: Too many open files "
                                           "in system (23)")));
}

TEST(DiagnosticsFailures, WithoutMemoryForTheObjectsNothingIsRecorded) {
    const auto result = tern::test::RunInChild([] {
        {
            const FaultScope scope(fault_mmap);
            fault_mmap.Replace(
                [](void* address, std::size_t size, int protection, int flags, int fd, off_t at) {
                    errno = ENOMEM;
                    return fd == -1 ? MAP_FAILED : fault_mmap.Real(address, size, protection, flags, fd, at);
                },
                1000);
            EXPECT_EQ(Recorder::Begin(), mw::tern::MakeStatusCodeFromErrno(ENOMEM));
            EXPECT_FALSE(Recorder::IsRecording());
            EXPECT_EQ(Recorder::GetFd(), -1);
        }
        EXPECT_EQ(Recorder::Begin(), StatusCode::Ok);
        EXPECT_TRUE(Recorder::IsRecording());
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.log, Contains(tern::test::Error(
                                "Diagnostics",
                                "The flight recorder's memory cannot be made: Cannot allocate memory (12)")));
}

}  // namespace

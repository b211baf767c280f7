#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tern/diagnostics/contract.h>
#include <tern/diagnostics/recorder.h>
#include <tern/diagnostics/ring_reader.h>
#include <tern/foundation/process_logger.h>
#include <tern/queued_processings/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "diagnostics/diagnostics_fixture.h"
#include "diagnostics/idle_executor.h"
#include "foundation/unique_fd.h"
#include "support/wait_until.h"
#include "threading/watching_doubles.h"

namespace {

using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using mwl::Diagnostics::Diagnostics1;
using mwl::Diagnostics::Figures;
using mwl::Diagnostics::RecordedEvent;
using mwl::Diagnostics::Recorder;
using tern::test::DiagnosticsTest;
using tern::test::Peer;
using tern::test::Room;
using tern::test::WaitUntil;
using testing::IsEmpty;
using testing::NiceMock;
using testing::SizeIs;

class DiagnosticsValuesTest : public DiagnosticsTest {
protected:
    using Events = std::tuple<std::uint64_t, std::uint64_t, std::vector<RecordedEvent>>;

    /// Next, lost, events.
    Events Get(std::uint64_t after, std::uint32_t most) {
        auto events = mProxy->Call(Diagnostics1::GetEvents, after, most);
        EXPECT_TRUE(events.IsOk());
        return events.IsOk() ? Events(std::get<0>(*events), std::get<1>(*events), std::get<2>(*events))
                             : Events();
    }
};

TEST_F(DiagnosticsValuesTest, RecorderIsShown) {
    const Figures figures = Snapshot();
    EXPECT_TRUE(figures.recorder.isRecording);
    EXPECT_EQ(figures.recorder.capacity, 65536U / 32);
    EXPECT_EQ(figures.recorder.bytes, 70656U + 65536);
    EXPECT_GT(figures.recorder.events, 0U);
    EXPECT_LE(figures.recorder.events, Snapshot().recorder.events);
    EXPECT_FALSE(figures.recorder.isStored);
    EXPECT_EQ(figures.recorder.threadsLost, 0U);
    Recorder::End();
    EXPECT_FALSE(Snapshot().recorder.isRecording);
}

TEST_F(DiagnosticsValuesTest, LimitOfDescriptorsIsTheProcesss) {
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit less{200, former.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &less), 0);
    const Figures figures = Snapshot();
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
    EXPECT_EQ(figures.process.descriptorLimit, 200U);
}

// That is the moment when somebody looks.
TEST_F(DiagnosticsValuesTest, ProcessWithoutAFreeDescriptorIsShown) {
    tern::test::IdleExecutor executor;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::QueuedProcessings::Component component("Upload", "upload", monitor, executor);
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    const Figures before = Snapshot();
    rlimit former{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit less{100, former.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &less), 0);
    std::vector<mwl::UniqueFd> taken;
    do {
        taken.emplace_back(dup(STDERR_FILENO));
    } while (taken.back());
    const Figures figures = Snapshot();
    taken.clear();
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
    component.Stop();
    component.Join();
    EXPECT_EQ(figures.process.descriptors, 100U);
    EXPECT_EQ(figures.process.descriptorLimit, 100U);
    EXPECT_GE(figures.process.uptimeUs, before.process.uptimeUs);
    // It has not gone.
    ASSERT_THAT(before.threads, SizeIs(1));
    EXPECT_NE(before.threads[0].state, "");
    ASSERT_THAT(figures.threads, SizeIs(1));
    EXPECT_EQ(figures.threads[0].state, "");
}

TEST_F(DiagnosticsValuesTest, ConnectionIsShownWhileACallIsOpen) {
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.connection.pendingCalls, 0U);
    EXPECT_EQ(figures.connection.waitingJobs, 0U);
    // The one that is answered has been taken out of the queue.
    EXPECT_EQ(figures.connection.queuedIn, 0U);
    EXPECT_EQ(figures.connection.queuedOut, 0U);
}

TEST_F(DiagnosticsValuesTest, EveryLevelIsSetAndReadBack) {
    const std::string before = *mProxy->Get(Diagnostics1::LogLevel);
    const std::array<const char*, 6> names{"critical", "error", "warning", "notice", "info", "debug"};
    int level = 2;
    for (const char* const name : names) {
        ASSERT_TRUE(mProxy->Call(Diagnostics1::SetLogLevel, name).IsOk());
        EXPECT_EQ(*mProxy->Get(Diagnostics1::LogLevel), name);
        EXPECT_TRUE(mwl::ProcessLogger::Writes(level)) << name;
        EXPECT_FALSE(mwl::ProcessLogger::Writes(level + 1)) << name;
        ++level;
    }
    for (const char* const none : {"off", "", "Debug", "debug ", "7"}) {
        EXPECT_FALSE(mProxy->Call(Diagnostics1::SetLogLevel, none).IsOk()) << none;
        EXPECT_EQ(*mProxy->Get(Diagnostics1::LogLevel), "debug");
    }
    EXPECT_TRUE(mProxy->Call(Diagnostics1::SetLogLevel, before).IsOk());
}

TEST_F(DiagnosticsValuesTest, AThousandEventsAreGivenAtMost) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    std::array<char, 4> message{};
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(pipe.WriteMessage(message.data(), static_cast<unsigned>(message.size())), StatusCode::Ok);
        ASSERT_EQ(pipe.ReadMessage(message.data(), message.size(), 0), StatusCode::Ok);
    }
    for (const std::uint32_t most : {0U, 1000U, 1001U, 0xffffffffU}) {
        EXPECT_THAT(std::get<2>(Get(0, most)), SizeIs(1000)) << most;
    }
    EXPECT_THAT(std::get<2>(Get(0, 999)), SizeIs(999));
    const auto [next, lost, events] = Get(0, 1);
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(next, events[0].sequence);
    EXPECT_EQ(lost, events[0].sequence - 1);
    // Going on where it ended, nothing is lost.
    const auto [last, none, more] = Get(next, 1000);
    EXPECT_EQ(none, 0U);
    EXPECT_EQ(more.front().sequence, next + 1);
    EXPECT_EQ(last, more.back().sequence);
    EXPECT_EQ(last, next + 1000);
    // Of pipes each value is the number of bytes.
    bool isSeen = false;
    for (const RecordedEvent& event : more) {
        if (event.event == "pipe_written" || event.event == "pipe_read") {
            EXPECT_EQ(event.value, 4U);
            EXPECT_EQ(event.threadId, static_cast<std::uint32_t>(gettid()));
            isSeen = true;
        }
    }
    EXPECT_TRUE(isSeen);
}

TEST_F(DiagnosticsValuesTest, WithoutNewEventsTheNumberStays) {
    // The recorder is off, so that being asked is no event.
    Recorder::End();
    const std::uint64_t written = Snapshot().recorder.events;
    auto [next, lost, events] = Get(written, 10);
    EXPECT_EQ(next, written);
    EXPECT_EQ(lost, 0U);
    EXPECT_THAT(events, IsEmpty());
    std::tie(next, lost, events) = Get(written - 1, 10);
    EXPECT_EQ(next, written);
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(lost, 0U);
    // One more than there are belongs to a former life.
    std::tie(next, lost, events) = Get(written + 1, 10);
    ASSERT_THAT(events, SizeIs(10));
    EXPECT_EQ(lost, events[0].sequence - 1);
}

TEST_F(DiagnosticsValuesTest, LimitsOfWatchedThreadsAreTheWatchers) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    struct Case {
        std::uint64_t periodMs, limitUs;
    };
    for (const Case& some : {Case{0, 20000000}, Case{9999, 20000000}, Case{10000, 20000000},
                             Case{10001, 20002000}, Case{60000, 120000000}}) {
        mwl::Threading::ThreadWatched thread(watcher, "pump");
        thread.StartWatch(std::chrono::milliseconds(some.periodMs));
        const Figures figures = Snapshot();
        ASSERT_THAT(figures.watched, SizeIs(1));
        EXPECT_EQ(figures.watched[0].name, "pump");
        EXPECT_EQ(figures.watched[0].periodUs, some.periodMs * 1000);
        EXPECT_EQ(figures.watched[0].limitUs, some.limitUs);
        EXPECT_LT(figures.watched[0].silentUs, some.limitUs);
        EXPECT_EQ(figures.watched[0].marginUs, some.limitUs - figures.watched[0].silentUs);
        thread.StopWatch();
    }
    // Without end.
    mwl::Threading::ThreadWatched thread(watcher, "pump");
    thread.StartWatch(std::chrono::milliseconds::max());
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.watched.at(0).periodUs, 1000000000000000U);
    EXPECT_EQ(figures.watched.at(0).limitUs, 2000000000000000U);
    thread.StopWatch();
}

// Nobody is told of reports and ends then: a thread that reports was shown as just before its kill.
TEST_F(DiagnosticsValuesTest, NothingIsCountedWhileTheRecorderIsOff) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    mwl::Threading::ThreadWatched thread(watcher, "pump");
    thread.StartWatch(std::chrono::milliseconds(1000));
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadPool::ThreadPool pool(1, watcher, signals);
    pool.Start();
    std::latch begun(1);
    std::latch goOn(1);
    pool.QueueJob([&] {
        begun.count_down();
        goOn.wait();
    });
    begun.wait();
    Figures figures = Snapshot();
    ASSERT_THAT(figures.pools, SizeIs(1));
    EXPECT_EQ(figures.pools[0].busy, 1U);
    EXPECT_GT(figures.pools[0].runningUs, 0U);
    Recorder::End();
    goOn.count_down();
    pool.Stop(false);
    thread.NotifyWork();
    figures = Snapshot();
    thread.StopWatch();
    ASSERT_THAT(figures.pools, SizeIs(1));
    EXPECT_EQ(figures.pools[0].busy, 0U);
    EXPECT_EQ(figures.pools[0].runningUs, 0U);
    ASSERT_THAT(figures.watched, SizeIs(1));
    EXPECT_EQ(figures.watched[0].silentUs, 0U);
    EXPECT_EQ(figures.watched[0].marginUs, figures.watched[0].limitUs);
}

TEST_F(DiagnosticsValuesTest, ShortPeriodTimersHaveTheirKind) {
    mwl::Timer::ShortPeriodTimer timer(7, true, [] {});
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().timers.at(0).expiries >= 2; }));
    const Figures figures = Snapshot();
    timer.Stop();
    EXPECT_EQ(figures.timers[0].kind, "ShortPeriodTimer");
    EXPECT_EQ(figures.timers[0].periodUs, 7000U);
    EXPECT_TRUE(figures.timers[0].isPeriodic);
    EXPECT_EQ(figures.timers[0].latestUs, 0U);
}

TEST_F(DiagnosticsValuesTest, PipeThatWasFullHasItsLongestWait) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    std::array<char, 4096> message{};
    for (int i = 0; i < 16; ++i) {  // all that a pipe holds
        ASSERT_EQ(pipe.WriteMessage(message.data(), message.size()), StatusCode::Ok);
    }
    std::thread writer([&pipe, last = message] {
        EXPECT_EQ(pipe.WriteMessage(last.data(), static_cast<unsigned>(last.size())), StatusCode::Ok);
    });
    EXPECT_TRUE(WaitUntil([&] { return Snapshot().pipes.at(0).full == 1; }));
    usleep(2000);  // the wait that is measured
    EXPECT_EQ(pipe.ReadMessage(message.data(), message.size(), 0), StatusCode::Ok);
    writer.join();
    const Figures figures = Snapshot();
    EXPECT_EQ(figures.pipes[0].written, 17U);
    EXPECT_EQ(figures.pipes[0].read, 1U);
    EXPECT_EQ(figures.pipes[0].full, 1U);
    EXPECT_GE(figures.pipes[0].longestWaitUs, 2000U);
    EXPECT_LT(figures.pipes[0].longestWaitUs, 60000000U);
}

TEST_F(DiagnosticsValuesTest, ComponentsHaveTheirLongestRunAndTheOneNow) {
    class Executor : public mwl::QueuedProcessings::ExecutorInterface {
    public:
        std::atomic<bool> mayEnd{false};

    private:
        StatusCode Initialize() override { return StatusCode::Ok; }
        void Execute() override {
            while (!mayEnd) {
                usleep(500);
            }
        }
        void Stop() override {}
    } executor;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::QueuedProcessings::Component component("Upload", "upload", monitor, executor);
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    component.WakeUp();
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().components.at(0).runningUs >= 2000; }));
    EXPECT_EQ(Snapshot().components[0].runs, 0U);
    EXPECT_EQ(Snapshot().components[0].longestUs, 0U);
    executor.mayEnd = true;
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().components.at(0).runs == 1; }));
    const Figures figures = Snapshot();
    EXPECT_GE(figures.components[0].longestUs, 2000U);
    EXPECT_EQ(figures.components[0].runningUs, 0U);
    component.Stop();
    component.Join();
}

}  // namespace

#include "foundation/known_objects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tern/queued_processings/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "foundation/told.h"
#include "support/wait_until.h"
#include "threading/supervision_doubles.h"
#include "threading/watching_doubles.h"

namespace {

using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using mwl::KnownObjects::Kind;
using mwl::KnownObjects::Known;
using mwl::KnownObjects::MOST;
using mwl::Threading::Signals;
using mwl::Threading::ThreadsMonitor;
using mwl::Threading::ThreadWatched;
using std::chrono::milliseconds;
using tern::test::Told;
using testing::NiceMock;

std::vector<Known> Of(Kind kind) {
    std::array<Known, MOST> all{};
    const std::size_t count = mwl::KnownObjects::Copy(all);
    std::vector<Known> found;
    std::copy_if(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count), std::back_inserter(found),
                 [kind](const Known& known) { return known.kind == kind; });
    return found;
}

TEST(KnownObjects, PoolIsKnownWhileItLives) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    Signals signals;
    {
        const mwl::Threading::ThreadPool::ThreadPool pool(3, watcher, signals);
        ASSERT_EQ(Of(Kind::Pool).size(), 1U);
        EXPECT_EQ(Of(Kind::Pool)[0].object, &pool);
        EXPECT_EQ(Of(Kind::Pool)[0].number, 3U);
    }
    EXPECT_TRUE(Of(Kind::Pool).empty());
}

TEST(KnownObjects, TimersAreKnownWithTheirPeriods) {
    {
        const mwl::Timer::Timer timer(1500, true, [] {});
        const mwl::Timer::ShortPeriodTimer quick(2, false, [] {});
        ASSERT_EQ(Of(Kind::Timer).size(), 1U);
        EXPECT_EQ(Of(Kind::Timer)[0].number, 1500U);
        EXPECT_TRUE(Of(Kind::Timer)[0].isPeriodic);
        ASSERT_EQ(Of(Kind::ShortPeriodTimer).size(), 1U);
        EXPECT_EQ(Of(Kind::ShortPeriodTimer)[0].number, 2U);
        EXPECT_FALSE(Of(Kind::ShortPeriodTimer)[0].isPeriodic);
    }
    EXPECT_TRUE(Of(Kind::Timer).empty());
    EXPECT_TRUE(Of(Kind::ShortPeriodTimer).empty());
}

TEST(KnownObjects, PipeIsKnownOnceItIsInitialised) {
    {
        MessagePipe pipe;
        EXPECT_TRUE(Of(Kind::Pipe).empty());
        ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
        ASSERT_EQ(Of(Kind::Pipe).size(), 1U);
        EXPECT_EQ(Of(Kind::Pipe)[0].object, &pipe);
        EXPECT_EQ(pipe.Initialize(), StatusCode::Ok);
        EXPECT_EQ(Of(Kind::Pipe).size(), 1U);
    }
    EXPECT_TRUE(Of(Kind::Pipe).empty());
}

TEST(KnownObjects, WhatAnObjectDoesNotHaveIsZero) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(Of(Kind::Pipe).size(), 1U);
    EXPECT_EQ(Of(Kind::Pipe)[0].number, 0U);
    EXPECT_EQ(Of(Kind::Pipe)[0].threadId, 0);
    EXPECT_FALSE(Of(Kind::Pipe)[0].isPeriodic);
    EXPECT_EQ(Of(Kind::Pipe)[0].GetName(), "");
}

TEST(KnownObjects, ComponentIsKnownByItsName) {
    NiceMock<mwl::Threading::MockMonitor> monitor;
    class Executor : public mwl::QueuedProcessings::ExecutorInterface {
        StatusCode Initialize() override { return StatusCode::Ok; }
        void Execute() override {}
        void Stop() override {}
    } executor;
    {
        const mwl::QueuedProcessings::Component component("Upload", "upload", monitor, executor);
        ASSERT_EQ(Of(Kind::Component).size(), 1U);
        EXPECT_EQ(Of(Kind::Component)[0].GetName(), "Upload");
    }
    EXPECT_TRUE(Of(Kind::Component).empty());
}

TEST(KnownObjects, NamesAreCutAtACharacter) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    const std::string name(46, 'x');
    ThreadWatched fits(watcher, name + "y");
    ThreadWatched cut(watcher, name + "\xc3\xa4");
    fits.StartWatch(milliseconds(1));
    cut.StartWatch(milliseconds(1));
    ASSERT_EQ(Of(Kind::Watched).size(), 2U);
    EXPECT_EQ(Of(Kind::Watched)[0].GetName(), name + "y");
    EXPECT_EQ(Of(Kind::Watched)[1].GetName(), name);
    fits.StopWatch();
    cut.StopWatch();
}

TEST(KnownObjects, WatchedThreadIsKnownWhileItIsWatched) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    ThreadWatched watched(watcher, "pump");
    EXPECT_TRUE(Of(Kind::Watched).empty());
    watched.StartWatch(milliseconds(250));
    watched.StartWatch(milliseconds(500));
    ASSERT_EQ(Of(Kind::Watched).size(), 1U);
    EXPECT_EQ(Of(Kind::Watched)[0].number, 500U);
    EXPECT_EQ(Of(Kind::Watched)[0].threadId, gettid());
    EXPECT_EQ(Of(Kind::Watched)[0].GetName(), "pump");
    watched.StopWatch();
    EXPECT_TRUE(Of(Kind::Watched).empty());
}

TEST(KnownObjects, WatchedThreadThatTheWatcherRefusesIsNotKnown) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    ThreadWatched watched(watcher, "pump");
    EXPECT_CALL(watcher, Register).WillOnce(testing::Throw(std::runtime_error("no thread")));
    EXPECT_THROW(watched.StartWatch(milliseconds(1)), std::runtime_error);
    EXPECT_TRUE(Of(Kind::Watched).empty());
}

TEST(KnownObjects, SupervisedThreadIsKnownAsOftenAsItRegistered) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    {
        mwl::Threading::MockWorker own(monitor, pthread_self());
        mwl::Threading::MockWorker foreign(monitor, pthread_self() + 1);
        own.NotifyStarted();
        own.NotifyStarted();
        foreign.NotifyStarted();
        ASSERT_EQ(Of(Kind::Supervised).size(), 3U);
        EXPECT_EQ(Of(Kind::Supervised)[0].threadId, gettid());
        EXPECT_EQ(Of(Kind::Supervised)[2].threadId, 0);
        own.NotifyStopped();
        EXPECT_EQ(Of(Kind::Supervised).size(), 2U);
    }
    // Those that nobody took back ended with their objects.
    EXPECT_TRUE(Of(Kind::Supervised).empty());
}

TEST(KnownObjects, WhatComesAndGoesIsTold) {
    const Told told;
    {
        const mwl::Timer::Timer timer(1500, true, [] {});
    }
    ASSERT_EQ(Told::All().size(), 2U);
    EXPECT_EQ(Told::All()[0].event, mwl::Tell::Event::ObjectMade);
    EXPECT_EQ(Told::All()[0].value, static_cast<std::uint64_t>(Kind::Timer));
    EXPECT_EQ(Told::All()[1].event, mwl::Tell::Event::ObjectGone);
    EXPECT_EQ(Told::All()[1].object, Told::All()[0].object);
}

TEST(KnownObjects, MoreThanThereIsRoomForAreCountedAndDoNoHarm) {
    std::vector<std::unique_ptr<mwl::Timer::Timer>> timers;
    for (std::size_t i = 0; i < MOST + 10; ++i) {
        timers.push_back(std::make_unique<mwl::Timer::Timer>(1, false, [] {}));
    }
    EXPECT_EQ(Of(Kind::Timer).size(), MOST);
    EXPECT_EQ(mwl::KnownObjects::GetMissed(), 10U);
    timers.clear();
    EXPECT_TRUE(Of(Kind::Timer).empty());
    const mwl::Timer::Timer timer(1, false, [] {});
    EXPECT_EQ(Of(Kind::Timer).size(), 1U);
}

TEST(KnownObjects, ChildForkedWhileOthersComeAndGoMayUseThem) {
    std::atomic<bool> isOver{false};
    std::thread churner([&] {
        while (!isOver) {
            const mwl::Timer::Timer timer(1, false, [] {});
        }
    });
    for (int i = 0; i < 50; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            MessagePipe pipe;
            _exit(pipe.Initialize() == StatusCode::Ok && Of(Kind::Pipe).size() == 1 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    isOver = true;
    churner.join();
}

}  // namespace

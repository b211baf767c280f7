#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "typed/bus_fixture.h"

namespace mwl::Typed {
namespace {

// ---- the end

TEST_F(BusTest, ImplementationsLiveUntilTheirExportedGoes) {
    bool isDead = false;
    bool wasDeadInStop = true;
    room->onDeath = [&] { isDead = true; };
    mServed->onStop = [&] {
        wasDeadInStop = isDead;
        room->SetLevel(5);  // nobody is told
        mServed->exported.clear();
        EXPECT_TRUE(isDead);
    };
    mServed->End();
    EXPECT_FALSE(wasDeadInStop);
    EXPECT_TRUE(isDead);
    EXPECT_EQ(mServed->result, 0);
}

TEST_F(BusTest, AnExportedThatDiesElsewhereAfterTheEndIsLeftToTheBus) {
    bool isDead = false;
    room->onDeath = [&] { isDead = true; };
    mServed->End();
    mServed->exported.clear();
    EXPECT_FALSE(isDead);
    mServed->typed.reset();
    EXPECT_TRUE(isDead);
}

TEST_F(BusTest, AnExportedMayOutliveTheBus) {
    mServed->End();
    mServed->typed.reset();
    mServed->exported.clear();
    mServed.reset();
}

TEST_F(BusTest, ClosedItTakesNothing) {
    mServed->onStop = [&] {
        Bus& bus = *mServed->typed;
        EXPECT_EQ(bus.GetBus(), nullptr);
        EXPECT_EQ(bus.Export(OTHER, std::make_unique<Room>()).GetStatus(), StatusCode::NotInitialized);
        EXPECT_EQ(bus.AddObjectManager("/x"), StatusCode::NotInitialized);
        Room adopted;
        EXPECT_EQ(bus.Adopt(adopted, "/x"), StatusCode::NotInitialized);
        EXPECT_FALSE(bus.Post([] {}));
        EXPECT_EQ(bus.Open(*mServed->manager, *mServed->loop), StatusCode::NotInitialized);
        bus.Flush();
        bus.Close();
        EXPECT_EQ(bus.GetCounters().objects, 1U);
    };
    mServed->End();
    EXPECT_FALSE(mServed->typed->Post([] {}));
}

TEST_F(BusTest, WhatAJobThrowsIsTheServicesEnd) {
    EXPECT_TRUE(mServed->typed->Post([] { throw std::runtime_error("no disk"); }));
    mServed->End();
    EXPECT_EQ(mServed->result, -ENOTRECOVERABLE);
}

}  // namespace

TEST(Bus, RefusesWhatIsNotReady) {
    tern::test::PrivateBus daemon;
    tern::test::LogCapture log(5);
    mw::tern::DBusServerManager manager("");
    TestLoop loop;
    Bus bus;
    EXPECT_EQ(bus.Open(manager, loop), StatusCode::InvalidArgument) << "not connected";
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    mw::tern::EventLoop none;
    EXPECT_EQ(bus.Open(manager, none), StatusCode::InvalidArgument) << "no loop";
    EXPECT_FALSE(bus.Post([] {}));
    EXPECT_EQ(bus.GetBus(), nullptr);
    EXPECT_EQ(bus.Export(PATH, std::make_unique<Room>()).GetStatus(), StatusCode::NotInitialized);
    EXPECT_EQ(bus.GetCounters().objects, 0U);
    bus.Flush();
    bus.Close();
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    EXPECT_EQ(bus.Open(manager, loop), StatusCode::Ok);
    EXPECT_EQ(bus.Open(manager, loop), StatusCode::Busy);
    Bus second;
    EXPECT_EQ(second.Open(manager, loop), StatusCode::Busy) << "one for a thread";
    bus.Close();
    EXPECT_EQ(second.Open(manager, loop), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Bus, AFailedOpenLeavesNothingBehind) {
    tern::test::PrivateBus daemon;
    tern::test::LogCapture log(5);
    mw::tern::DBusServerManager manager("");
    TestLoop loop;
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    Bus bus;
    {
        const FaultScope scope(fault_sd_event_add_defer);
        fault_sd_event_add_defer.Fail(-ENOMEM);
        EXPECT_EQ(bus.Open(manager, loop), StatusCode::OutOfMemory);
    }
    {
        const FaultScope scope(fault_sd_event_add_exit);
        fault_sd_event_add_exit.Fail(-ENOMEM);
        EXPECT_EQ(bus.Open(manager, loop), StatusCode::OutOfMemory);
    }
    {
        const FaultScope scope(fault_eventfd);
        fault_eventfd.Fail(-1, EMFILE);
        EXPECT_EQ(bus.Open(manager, loop), StatusCode::ResourceUnavailable);
    }
    EXPECT_EQ(log.Count(tern::test::Error("Typed", "Failed to open the typed bus, status=51")), 2U);
    EXPECT_EQ(log.Count(tern::test::Error("Typed", "Failed to open the typed bus, status=48")), 1U);
    EXPECT_EQ(bus.GetBus(), nullptr);
    EXPECT_FALSE(bus.Post([] {}));
    EXPECT_EQ(bus.Open(manager, loop), StatusCode::Ok);
}

/// What an author writes: the bus is a member, and nothing is thought of the end.
class Server : public DBusService::IpcServer {
public:
    explicit Server(StatusCode result) : mResult(result) {}
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        EXPECT_EQ(mBus.Open(manager, loop), StatusCode::Ok);
        EXPECT_EQ(mBus.AddObjectManager(ROOT), StatusCode::Ok);
        auto room = std::make_unique<Room>();
        room->onLater = [this](Reply<std::uint32_t> reply, std::uint32_t) {
            mReply.emplace(std::move(reply));
        };
        room->onGuarded = [](const Caller&, std::uint32_t number) { return number; };
        mObject = mBus.Export(PATH, std::move(room));
        return mResult;
    }
    void Stop() override {
        // Where the loop has run it is closed already.
        EXPECT_EQ(mBus.GetBus() == nullptr, mResult == StatusCode::Ok);
        mBus.Close();
    }

private:
    const StatusCode mResult;
    Bus mBus;
    Exported mObject;
    std::optional<Reply<std::uint32_t>> mReply;
};

TEST(BusInAComponent, IsDestroyedOnTheMainThreadWithNothingOfTheConnectionLeft) {
    tern::test::PrivateBus daemon;
    tern::test::LogCapture log(4);
    ASSERT_EQ(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    const std::string name = tern::test::SERVICE;
    std::vector<std::string> answers;
    {
        Threading::Signals signals;
        Threading::ThreadsMonitor monitor(signals);
        Server server(StatusCode::Ok);
        DBusService::Component component(name, monitor, server);
        ASSERT_EQ(component.Start(), StatusCode::Ok);
        Peer peer;
        EXPECT_EQ(peer.Call(PATH, ROOM, "Guarded", "u", 4U), "4");
        peer.Send(answers, PATH, ROOM, "Later", "u", 4U);
        peer.Ping();
        kill(getpid(), SIGTERM);
        component.JoinThread();
        ASSERT_TRUE(peer.WaitForAnswers(answers, 1));
        EXPECT_FALSE(monitor.HasFailure());
    }
    EXPECT_THAT(answers, ElementsAre("org.freedesktop.DBus.Error.NoReply: the service is stopping"));
    EXPECT_THAT(log.Entries(), IsEmpty()) << "a slot or message that is left would be told";
}

TEST(BusInAComponent, IsClosedByItsAuthorWhereTheLoopNeverRan) {
    tern::test::PrivateBus daemon;
    tern::test::LogCapture log(3);
    ASSERT_EQ(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    const std::string name = tern::test::SERVICE;
    Threading::Signals signals;
    Threading::ThreadsMonitor monitor(signals);
    Server server(StatusCode::NotSupported);
    DBusService::Component component(name, monitor, server);
    EXPECT_EQ(component.Start(), StatusCode::NotSupported);
    component.JoinThread();
    EXPECT_THAT(log.Entries("Typed"), IsEmpty());
    EXPECT_THAT(
        log.Entries("DBusService::Component"),
        ElementsAre(tern::test::Error("DBusService::Component", "Failed to start D-Bus thread, status=60")));
}

// The first wrong call of a newcomer is a worker's.
TEST(BusDeathTest, DebugBuildsNoticeAnotherThread) {
#ifdef NDEBUG
    GTEST_SKIP() << "only debug builds look";
#else
    tern::test::PrivateBus daemon;
    mw::tern::DBusServerManager manager("");
    TestLoop loop;
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    Bus bus;
    ASSERT_EQ(bus.Open(manager, loop), StatusCode::Ok);
    EXPECT_DEATH(
        {
            std::thread worker([&] { bus.Flush(); });
            worker.join();
        },
        "IsHere");
#endif
}

}  // namespace mwl::Typed

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/diagnostics/contract.h>
#include <tern/diagnostics/diagnostics.h>
#include <tern/diagnostics/recorder.h>
#include <tern/service/message_pipe.h>
#include <tern/typed/blocking_proxy.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "typed/served_bus.h"

TERN_INTERPOSE(int, memfd_create, (const char* name, unsigned int flags), (name, flags))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))

// In a process that has never recorded anything.

namespace {

using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using mwl::Diagnostics::Diagnostics;
using mwl::Diagnostics::Diagnostics1;
using mwl::Diagnostics::Figures;
using mwl::Diagnostics::MemberFigures;
using mwl::Diagnostics::Recorder;
using mwl::Typed::BlockingProxy;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::Peer;
using tern::test::PrivateBus;
using tern::test::Room;
using tern::test::Served;
using testing::SizeIs;

void OnlyWhatItWouldHoldIsMissing(bool isAskedFor) {
    const PrivateBus bus;
    const LogCapture log;
    Diagnostics diagnostics;
    Room* room = nullptr;
    Served served([&](Served& it) {
        room = &it.Export("/room");
        diagnostics = Diagnostics::Export(*it.typed, {.isRecording = isAskedFor});
        EXPECT_EQ(diagnostics.GetStatus(), StatusCode::Ok);
    });
    served.onStop = [&] { diagnostics.Reset(); };
    EXPECT_FALSE(Recorder::IsRecording());
    EXPECT_EQ(Recorder::GetFd(), -1);
    const BlockingProxy<Diagnostics1> proxy(tern::test::SERVICE, Diagnostics1::PATH);
    const auto expectNone = [](const auto& answer) {
        ASSERT_FALSE(answer.IsOk());
        EXPECT_EQ(answer.GetError().GetName(), "tern.Diagnostics1.Error.NotRecording");
        EXPECT_EQ(answer.GetError().GetText(), "this service has no flight recorder");
    };
    expectNone(proxy.Call(Diagnostics1::GetMessages));
    expectNone(proxy.Call(Diagnostics1::GetEvents, std::uint64_t{0}, 0U));
    expectNone(proxy.Call(Diagnostics1::OpenRecorder));

    room->onDo = [](Room&) { usleep(20000); };  // its length is what is measured
    Peer peer;
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    const auto figures = proxy.Call(Diagnostics1::Snapshot);
    // Both handlers have ended by now; an answer comes before its handler's end.
    const auto elapsedUs = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began)
            .count());
    ASSERT_TRUE(figures.IsOk());
    EXPECT_FALSE(figures->recorder.isRecording);
    EXPECT_EQ(figures->recorder.bytes, 0U);
    EXPECT_EQ(figures->recorder.capacity, 0U);
    EXPECT_EQ(figures->recorder.events, 0U);
    EXPECT_FALSE(figures->recorder.isStored);
    // Objects are known, but nobody has counted.
    ASSERT_THAT(figures->pipes, SizeIs(1));
    EXPECT_EQ(figures->pipes[0].written, 0U);
    // The D-Bus thread is watched all the same, by the clock.
    const MemberFigures& member = figures->busThread.members.at(0);
    EXPECT_EQ(member.name, "com.example.Room1.Do");
    EXPECT_EQ(member.handled, 2U);
    EXPECT_GE(member.totalUs, 40000U);
    EXPECT_GE(member.longestUs, 20000U);
    EXPECT_LE(member.totalUs, elapsedUs);
    EXPECT_EQ(figures->busThread.running, "tern.Diagnostics1.Snapshot");
    EXPECT_LT(figures->busThread.runningUs, 10000000U);
    EXPECT_GT(figures->busThread.turns, 0U);
}

TEST(WithoutARecorder, OnlyWhatItWouldHoldIsMissing) {
    OnlyWhatItWouldHoldIsMissing(false);
}

// No clock is trusted never to jump back, as that of a processor may: the longest was without end then.
TEST(WithoutARecorder, ClockThatJumpsBackInAHandlerMakesItTakeNoTime) {
    const PrivateBus bus;
    const FaultScope scope(fault_clock_gettime);
    std::atomic<long> jump{100};
    fault_clock_gettime.Replace(
        [&jump](clockid_t clock, timespec* now) {
            const int r = fault_clock_gettime.Real(clock, now);
            now->tv_sec += clock == CLOCK_MONOTONIC ? jump.load() : 0;
            return r;
        },
        std::numeric_limits<int>::max());
    Diagnostics diagnostics;
    Room* room = nullptr;
    Served served([&](Served& it) {
        room = &it.Export("/room");
        diagnostics = Diagnostics::Export(*it.typed, {.isRecording = false});
    });
    served.onStop = [&] { diagnostics.Reset(); };
    room->onDo = [](Room&) {};
    Peer peer;
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    room->onDo = [&](Room&) { jump = 0; };
    EXPECT_EQ(peer.Call("/room", tern::test::ROOM, "Do"), "");
    peer.Ping();
    const BlockingProxy<Diagnostics1> proxy(tern::test::SERVICE, Diagnostics1::PATH);
    const auto figures = proxy.Call(Diagnostics1::Snapshot);
    ASSERT_TRUE(figures.IsOk());
    bool isFound = false;
    for (const MemberFigures& member : figures->busThread.members) {
        constexpr std::uint64_t MINUTE_US = 60000000;
        EXPECT_LT(member.totalUs, MINUTE_US) << member.name;
        EXPECT_LT(member.longestUs, MINUTE_US) << member.name;
        EXPECT_EQ(member.latency.back(), 0U) << member.name;
        isFound = isFound || (member.name == "com.example.Room1.Do" && member.handled == 2);
    }
    EXPECT_TRUE(isFound);
}

TEST(WithoutARecorder, ItIsTheSameWhenItsMemoryCannotBeMade) {
    const FaultScope scope(fault_memfd_create);
    fault_memfd_create.Fail(-1, ENFILE, 1000);
    OnlyWhatItWouldHoldIsMissing(true);
}

}  // namespace

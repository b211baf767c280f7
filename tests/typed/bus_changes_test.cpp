// What a bus announces of properties that change.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "typed/bus_fixture.h"

namespace mwl::Typed {
namespace {

// ---- changes

TEST_F(BusTest, AllChangesOfAHandlerAreOneSignal) {
    room->onDo = [](Room& it) {
        it.SetLevel(7);
        it.ChangeMode();
        it.SetLevel(8);
        it.ChangeExtra();
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre(std::string("changed ") + PATH + " " + ROOM + " Level=8 Mode? Extra?"));
    EXPECT_EQ(mServed->Count().changes, 1U);
}

TEST_F(BusTest, EachTurnHasItsOwnSignal) {
    room->onDo = [](Room& it) { it.SetLevel(it.level + 1); };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Do(), "");
    }
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=2",
                                           "changed /com/example/rooms/one com.example.Room1 Level=3",
                                           "changed /com/example/rooms/one com.example.Room1 Level=4"));
}

TEST_F(BusTest, AChangeIsAnnouncedAfterTheSignalsAndTheReplyOfItsHandler) {
    room->onDo = [](Room& it) {
        it.SetLevel(9);
        it.Measure(1);
    };
    std::vector<std::string> answers;
    mPeer->Send(answers, PATH, ROOM, "Do");
    // One message after the other, up to the answer.
    ASSERT_TRUE(WaitUntil([&] {
        if (answers.empty()) {
            mPeer->Process();
        }
        return !answers.empty();
    }));
    EXPECT_THAT(mPeer->Taken(), ElementsAre("Measured /com/example/rooms/one 1"));
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=9"));
}

TEST_F(BusTest, FlushAnnouncesBeforeWhatFollows) {
    room->onDo = [&](Room& it) {
        it.SetLevel(9);
        mServed->typed->Flush();
        it.Measure(1);
        it.SetLevel(10);
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=9",
                                           "Measured /com/example/rooms/one 1",
                                           "changed /com/example/rooms/one com.example.Room1 Level=10"));
}

TEST_F(BusTest, AnAcceptedWriteAnnouncesItself) {
    EXPECT_EQ(mPeer->Call(PATH, "org.freedesktop.DBus.Properties", "Set", "ssv", ROOM, "Target", "u", 50U),
              "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Target=50"));
}

TEST_F(BusTest, EachInterfaceHasItsOwnSignal) {
    Door* door = nullptr;
    mServed->On([&] {
        auto made = std::make_unique<Door>();
        door = made.get();
        mServed->exported.push_back(mServed->typed->Export(PATH, std::move(made)));
    });
    EXPECT_THAT(mPeer->Seen(), ElementsAre("added /com/example/rooms/one com.example.Door1 Locked=0"));
    room->onDo = [&](Room& it) {
        door->Lock();
        it.SetLevel(2);
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Door1 Locked=1",
                                           "changed /com/example/rooms/one com.example.Room1 Level=2"));
}

TEST_F(BusTest, ChangesOfAJobAreAnnounced) {
    mServed->On([&] { room->SetLevel(3); });
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=3"));
}

TEST_F(BusTest, ARemovedObjectAnnouncesNoChange) {
    room->onDo = [&](Room& it) {
        it.SetLevel(3);
        mServed->exported.clear();
        it.SetLevel(4);
        it.Measure(1);
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("removed /com/example/rooms/one com.example.Room1"));
}

TEST_F(BusTest, APropertyThatCannotBeReadDoesNotHoldBackTheOthers) {
    mServed->On([&] {
        room->isLevelBroken = true;
        room->SetLevel(2);
        room->ChangeMode();
    });
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Mode?"));
    EXPECT_EQ(mServed->Count().unannounced, 1U);
    EXPECT_EQ(mLog.Entries("Typed").size(), 1U);
    EXPECT_THAT(
        mLog.Entries("Typed").front().text,
        StartsWith("Failed to announce the change of com.example.Room1.Level of /com/example/rooms/one ("));
}

TEST_F(BusTest, AGetterMayChangeAndFlushWhileItIsAnnounced) {
    int reads = 0;
    room->onReadLevel = [&](Room& it) {
        if (++reads == 1) {
            it.ChangeMode();
            mServed->typed->Flush();
        }
    };
    mServed->On([&] { room->SetLevel(2); });
    // The second one goes out in a later turn.
    EXPECT_THAT(mPeer->WaitForSignals(2),
                ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=2",
                            "changed /com/example/rooms/one com.example.Room1 Mode?"));
}

/// The change of the second was announced before the second itself.
TEST_F(BusTest, AGetterMayFlushWhileItsObjectComes) {
    constexpr const char* THIRD = "/com/example/rooms/three";
    mServed->On([&] {
        mServed->Export(OTHER).onReadLevel = [&](Room&) { mServed->typed->Flush(); };
        mServed->Export(THIRD).SetLevel(3);
        room->SetLevel(2);
    });
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre(std::string("added ") + OTHER + VALUES,
                            std::string("added ") + THIRD + " com.example.Room1 Level=3 Serial=3 Target=5",
                            "changed /com/example/rooms/one com.example.Room1 Level=2"));
}

/// The same of one that comes while others are announced, and is announced in the next turn.
TEST_F(BusTest, AGetterMayExportAndChangeWhileItsObjectComes) {
    constexpr const char* THIRD = "/com/example/rooms/three";
    mServed->On([&] {
        mServed->Export(OTHER).onReadLevel = [&](Room& it) {
            it.onReadLevel = nullptr;
            mServed->Export(THIRD).SetLevel(3);
        };
    });
    EXPECT_THAT(mPeer->WaitForSignals(2),
                ElementsAre(std::string("added ") + OTHER + VALUES,
                            std::string("added ") + THIRD + " com.example.Room1 Level=3 Serial=3 Target=5"));
    EXPECT_THAT(mPeer->Seen(), IsEmpty());
}

TEST_F(BusTest, AGetterMayRemoveItsObjectWhileItIsAnnounced) {
    room->onReadLevel = [&](Room& it) {
        mServed->exported.clear();
        EXPECT_EQ(it.level, 2U) << "still there";
    };
    mServed->On([&] { room->SetLevel(2); });
    mPeer->Seen();
    EXPECT_THAT(Do(), StartsWith("org.freedesktop.DBus.Error.UnknownObject: "));
    EXPECT_EQ(mServed->Count().objects, 0U);
}

TEST_F(BusTest, APeriodHoldsBackLaterChangesAndLosesNone) {
    using std::chrono::steady_clock;
    constexpr std::chrono::milliseconds PERIOD(200);
    mServed->On([&] { mServed->typed->SetChangePeriod(PERIOD); });
    room->onDo = [](Room& it) { it.SetLevel(it.level + 1); };
    const auto began = steady_clock::now();
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=2"))
        << "the first at once";
    EXPECT_EQ(Do(), "");
    EXPECT_EQ(Do(), "");
    const bool isWithin = steady_clock::now() - began < PERIOD;
    const std::vector<std::string> early = mPeer->Seen();
    if (isWithin && steady_clock::now() - began < PERIOD) {
        EXPECT_THAT(early, IsEmpty());
    }
    if (early.empty()) {
        EXPECT_EQ(mPeer->WaitForSignals(1).back(),
                  "changed /com/example/rooms/one com.example.Room1 Level=4");
        EXPECT_GE(steady_clock::now() - began, PERIOD);
    }
    // Flush does not wait for it.
    EXPECT_EQ(Do(), "");
    mServed->On([&] { mServed->typed->Flush(); });
    EXPECT_EQ(mPeer->WaitForSignals(1).back(), "changed /com/example/rooms/one com.example.Room1 Level=5");
    // Without a period at the end of the turn again.
    mServed->On([&] { mServed->typed->SetChangePeriod(std::chrono::milliseconds(-1)); });
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=6"));
}

TEST_F(BusTest, EachPeriodEndsWithWhatItHasHeldBack) {
    mServed->On([&] { mServed->typed->SetChangePeriod(std::chrono::milliseconds(20)); });
    for (unsigned level = 10; level < 20; level += 2) {
        mServed->On([&] { room->SetLevel(level); });
        mServed->On([&] { room->SetLevel(level + 1); });
        // Nothing but the end of the period wakes the loop meanwhile.
        const std::string wanted =
            "changed /com/example/rooms/one com.example.Room1 Level=" + std::to_string(level + 1);
        std::vector<std::string> seen;
        do {
            seen = mPeer->WaitForSignals(1);
        } while (!seen.empty() && seen.back() != wanted);
        ASSERT_FALSE(seen.empty()) << wanted;
    }
}

TEST_F(BusTest, WhatThePeriodHoldsBackIsAnnouncedWhenTheLoopEnds) {
    mServed->On([&] {
        mServed->typed->SetChangePeriod(std::chrono::hours(1));
        room->SetLevel(2);
    });
    EXPECT_EQ(mPeer->WaitForSignals(1).size(), 1U);
    mServed->On([&] { room->SetLevel(3); });
    EXPECT_THAT(mPeer->Seen(), IsEmpty());
    mServed->End();
    EXPECT_THAT(mPeer->WaitForSignals(1),
                ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=3"));
}

TEST_F(BusTest, AnotherPeriodSetsFreeWhatTheFormerOneHoldsBack) {
    mServed->On([&] {
        mServed->typed->SetChangePeriod(std::chrono::hours(1));
        room->SetLevel(2);
    });
    EXPECT_EQ(mPeer->WaitForSignals(1).size(), 1U);
    mServed->On([&] { room->SetLevel(3); });
    EXPECT_THAT(mPeer->Seen(), IsEmpty());
    mServed->On([&] { mServed->typed->SetChangePeriod(std::chrono::milliseconds(0)); });
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=3"));
}

TEST_F(BusTest, AFloodOfJobsDoesNotSilenceTheBus) {
    std::atomic<bool> goOn{true};
    std::thread flood([&] {
        while (goOn) {
            static_cast<void>(mServed->typed->Post([] {}));  // refused now and then
        }
    });
    std::chrono::steady_clock::duration longest{0};
    for (int i = 0; i < 100; ++i) {
        const auto asked = std::chrono::steady_clock::now();
        mPeer->Ping();
        longest = std::max(longest, std::chrono::steady_clock::now() - asked);
    }
    goOn = false;
    flood.join();
    EXPECT_LT(longest, tern::test::TOLERANCE);
    RecordProperty("longest_us", static_cast<int>(longest / std::chrono::microseconds(1)));
}

TEST_F(BusTest, WithoutATimerChangesAreAnnouncedTooEarly) {
    const FaultScope scope(fault_sd_event_add_time);
    fault_sd_event_add_time.Fail(-ENOMEM);
    mServed->On([&] {
        mServed->typed->SetChangePeriod(std::chrono::hours(1));
        room->SetLevel(2);
    });
    EXPECT_EQ(mPeer->WaitForSignals(1).back(), "changed /com/example/rooms/one com.example.Room1 Level=2");
    mServed->On([&] { room->SetLevel(3); });
    EXPECT_EQ(mPeer->WaitForSignals(1).back(), "changed /com/example/rooms/one com.example.Room1 Level=3");
    EXPECT_TRUE(mLog.Contains(tern::test::Error(
        "Typed", "Failed to wait for the end of the period of changes (-12, Cannot allocate memory)")));
}

TEST_F(BusTest, ATurnWithoutMemoryIsTheServicesEnd) {
    const FaultScope scope(fault_sd_bus_emit_interfaces_added_strv);
    fault_sd_bus_emit_interfaces_added_strv.Replace([](auto...) -> int { throw std::bad_alloc(); });
    mServed->On([&] { mServed->Export(OTHER); });
    EXPECT_TRUE(WaitUntil([&] { return !mServed->typed->Post([] {}); }));
    mServed->End();
    EXPECT_EQ(mServed->result, -ENOTRECOVERABLE);
    EXPECT_TRUE(mLog.Contains(
        tern::test::Critical("Typed", "A turn of the typed bus threw std::bad_alloc: std::bad_alloc")));
}

TEST_F(BusTest, AnAdoptedInterfaceAnnouncesItsChanges) {
    constexpr const char* OLD = "/com/example/old";
    auto* const old = new Room;  // the manager's own
    mServed->On([&] {
        ASSERT_EQ(mServed->manager->AddDBusObject(OLD), StatusCode::Ok);
        ASSERT_EQ(mServed->manager->AddInterfaceToDBusObject(OLD, old), StatusCode::Ok);
        ASSERT_EQ(mServed->manager->ExportObject(OLD), StatusCode::Ok);
    });
    old->onDo = [](Room& it) {
        it.SetLevel(6);
        it.Measure(2);
    };
    old->onLater = [](Reply<std::uint32_t> reply, std::uint32_t number) { reply.Return(number); };
    // Nobody sends them yet, and nobody answers later.
    EXPECT_EQ(mPeer->Call(OLD, ROOM, "Do"), "");
    EXPECT_EQ(mPeer->Call(OLD, ROOM, "Later", "u", 1U),
              "org.freedesktop.DBus.Error.Failed: the interface has no typed bus");
    EXPECT_THAT(mPeer->Seen(), IsEmpty());
    EXPECT_EQ(mLog.Entries("Typed").size(), 1U) << "told once";
    mServed->On([&] {
        EXPECT_EQ(mServed->typed->Adopt(*old, OLD), StatusCode::Ok);
        EXPECT_EQ(mServed->typed->Adopt(*old, OLD), StatusCode::InvalidArgument);
        EXPECT_EQ(mServed->typed->Adopt(*room, PATH), StatusCode::InvalidArgument) << "an exported one";
    });
    EXPECT_EQ(mPeer->Call(OLD, ROOM, "Do"), "");
    EXPECT_EQ(mPeer->Call(OLD, ROOM, "Later", "u", 1U), "1");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("Measured /com/example/old 2",
                                           "changed /com/example/old com.example.Room1 Level=6"));
    EXPECT_THAT(mPeer->Managed(ROOT), UnorderedElementsAre("/com/example/old com.example.Room1",
                                                           "/com/example/rooms/one com.example.Room1"));
}

}  // namespace
}  // namespace mwl::Typed

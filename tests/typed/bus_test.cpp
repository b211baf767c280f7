#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/component.h>
#include <tern/service/ipc_server.h>
#include <tern/service/service_main_loop.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <tern/typed/bus.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/served_bus.h"

TERN_INTERPOSE(int, sd_event_add_defer,
               (sd_event * event, sd_event_source** source, sd_event_handler_t handler, void* userdata),
               (event, source, handler, userdata))
TERN_INTERPOSE(int, sd_event_add_exit,
               (sd_event * event, sd_event_source** source, sd_event_handler_t handler, void* userdata),
               (event, source, handler, userdata))
TERN_INTERPOSE(int, sd_event_add_time,
               (sd_event * event, sd_event_source** source, clockid_t clock, uint64_t time, uint64_t accuracy,
                sd_event_time_handler_t handler, void* userdata),
               (event, source, clock, time, accuracy, handler, userdata))
TERN_INTERPOSE(int, eventfd, (unsigned int count, int flags), (count, flags))
TERN_INTERPOSE(int, sd_bus_add_object_vtable,
               (sd_bus * bus, sd_bus_slot** slot, const char* path, const char* interface,
                const sd_bus_vtable* table, void* userdata),
               (bus, slot, path, interface, table, userdata))
TERN_INTERPOSE(int, sd_bus_emit_interfaces_added_strv, (sd_bus * bus, const char* path, char** interfaces),
               (bus, path, interfaces))
TERN_INTERPOSE(int, sd_bus_emit_interfaces_removed_strv, (sd_bus * bus, const char* path, char** interfaces),
               (bus, path, interfaces))

namespace mwl::Typed {
namespace {

using tern::test::Door;
using tern::test::DOOR;
using tern::test::FaultScope;
using tern::test::Peer;
using tern::test::Room;
using tern::test::ROOM;
using tern::test::Served;
using tern::test::TestLoop;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr const char* PATH = "/com/example/rooms/one";
constexpr const char* OTHER = "/com/example/rooms/two";
constexpr const char* ROOT = "/com/example";
/// How an announced room looks; sd-bus leaves out what only invalidates.
const std::string VALUES = " com.example.Room1 Level=1 Serial=3 Target=5";

/// A service with a room, and a peer that listens.
class BusTest : public testing::Test {
protected:
    BusTest() {
        mServed.emplace([this](Served& served) {
            room = &served.Export(PATH);
            EXPECT_EQ(served.typed->AddObjectManager(ROOT), StatusCode::Ok);
            onStart(served);
        });
        mPeer.emplace();
        mPeer->Ping();  // what there was before is out
        mPeer->Listen();
    }
    std::string Do(const char* path = PATH) { return mPeer->Call(path, ROOM, "Do"); }
    virtual void onStart(Served&) {}

    tern::test::PrivateBus mDaemon;
    tern::test::LogCapture mLog{5};
    std::optional<Served> mServed;
    std::optional<Peer> mPeer;
    Room* room = nullptr;
};

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
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /com/example/rooms/one com.example.Room1 Level=2",
                                           "changed /com/example/rooms/one com.example.Room1 Mode?"));
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

// ---- objects

TEST_F(BusTest, ManagedObjectsAreNoneOneAndMany) {
    mServed->On([&] { mServed->exported.clear(); });
    EXPECT_THAT(mPeer->Managed(ROOT), IsEmpty());
    mServed->On([&] { mServed->Export(PATH); });
    EXPECT_THAT(mPeer->Managed(ROOT), ElementsAre("/com/example/rooms/one com.example.Room1"));
    std::set<std::string> all{"/com/example/rooms/one com.example.Room1"};
    mServed->On([&] {
        for (int i = 0; i < 50; ++i) {
            const std::string path = "/com/example/rooms/number" + std::to_string(i);
            mServed->Export(path);
            all.insert(path + " com.example.Room1");
        }
    });
    EXPECT_EQ(mPeer->Managed(ROOT), all);
    EXPECT_EQ(mServed->Count().objects, 51U);
}

TEST_F(BusTest, ObjectsComeAndGoWithOneSignalEach) {
    mServed->On([&] { mServed->Export(OTHER).SetLevel(1); });
    EXPECT_THAT(mPeer->Seen(), ElementsAre(std::string("added ") + OTHER + VALUES))
        << "with its change in it";
    EXPECT_EQ(mPeer->Call(OTHER, "org.freedesktop.DBus.Properties", "Get", "ss", ROOM, "Level"), "1");
    mServed->On([&] { mServed->exported.pop_back(); });
    EXPECT_THAT(mPeer->Seen(), ElementsAre(std::string("removed ") + OTHER + " com.example.Room1"));
    const Bus::Counters counters = mServed->Count();
    EXPECT_EQ(counters.added, 2U) << "the first one too";
    EXPECT_EQ(counters.removed, 1U);
    EXPECT_EQ(counters.unannounced, 0U);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(BusTest, AnObjectThatComesAndGoesInATurnIsNotAnnounced) {
    mServed->On([&] {
        mServed->Export(OTHER).SetLevel(3);
        mServed->exported.pop_back();
    });
    EXPECT_THAT(mPeer->Seen(), IsEmpty());
}

TEST_F(BusTest, ASuccessorAtTheSamePathIsAnnouncedAfterTheRemoval) {
    mServed->On([&] {
        mServed->exported.clear();
        mServed->Export(PATH).level = 9;
    });
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre("removed /com/example/rooms/one com.example.Room1",
                            "added /com/example/rooms/one com.example.Room1 Level=9 Serial=3 Target=5"));
}

TEST_F(BusTest, AHandlerMayReplaceItsOwnObject) {
    // sd-bus frees the place when the handler has returned, and not before.
    std::vector<int> results;
    const FaultScope scope(fault_sd_bus_add_object_vtable);
    fault_sd_bus_add_object_vtable.Replace(
        [&](auto... arguments) {
            results.push_back(fault_sd_bus_add_object_vtable.Real(arguments...));
            return results.back();
        },
        10);
    room->onDo = [&](Room& it) {
        it.level = 5;
        mServed->exported.clear();
        mServed->Export(PATH).level = it.level + 1;
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre("removed /com/example/rooms/one com.example.Room1",
                            "added /com/example/rooms/one com.example.Room1 Level=6 Serial=3 Target=5"));
    EXPECT_EQ(mPeer->Call(PATH, "org.freedesktop.DBus.Properties", "Get", "ss", ROOM, "Level"), "6");
    EXPECT_THAT(results, ElementsAre(-EEXIST, testing::Ge(0)));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(BusTest, TellsOfASuccessorThatIsRefusedLater) {
    const FaultScope scope(fault_sd_bus_add_object_vtable);
    fault_sd_bus_add_object_vtable.Fail(-ENOMEM, 0, 1, 1);
    bool isDead = false;
    room->onDo = [&](Room&) {
        mServed->exported.clear();
        mServed->Export(PATH).onDeath = [&] { isDead = true; };
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("removed /com/example/rooms/one com.example.Room1"));
    EXPECT_TRUE(isDead);
    EXPECT_EQ(mServed->Count().objects, 0U);
    EXPECT_TRUE(mLog.Contains(tern::test::Error(
        "Typed",
        "Failed to export com.example.Room1 of /com/example/rooms/one (-12, Cannot allocate memory)")));
}

TEST_F(BusTest, AHandlerMayDestroyItsOwnObject) {
    bool isDead = false;
    room->onDeath = [&] { isDead = true; };
    room->onDo = [&](Room& it) {
        mServed->exported.clear();
        it.level = 77;  // a live object until the handler has returned
        EXPECT_FALSE(isDead);
    };
    EXPECT_EQ(Do(), "");
    mPeer->Ping();
    EXPECT_TRUE(isDead);
    EXPECT_THAT(Do(), StartsWith("org.freedesktop.DBus.Error.UnknownObject: "));
}

TEST_F(BusTest, AnObjectMayBeRemovedWhileAllOfItIsRead) {
    room->onReadLevel = [&](Room& it) {
        mServed->exported.clear();
        it.level = 3;
    };
    EXPECT_THAT(mPeer->Call(PATH, "org.freedesktop.DBus.Properties", "GetAll", "s", ROOM),
                StartsWith("org.freedesktop.DBus.Error.Unknown"));
    EXPECT_THAT(mPeer->Managed(ROOT), IsEmpty());
}

TEST_F(BusTest, AHandlerMayExportEmitAndCallBack) {
    room->onDo = [&](Room& it) {
        mServed->Export(OTHER);
        it.Measure(4);
        // To the bus, from within a handler.
        EXPECT_GE(sd_bus_call_method(mServed->typed->GetBus(), "org.freedesktop.DBus", "/",
                                     "org.freedesktop.DBus", "GetId", nullptr, nullptr, nullptr),
                  0);
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre("Measured /com/example/rooms/one 4", std::string("added ") + OTHER + VALUES));
}

TEST_F(BusTest, AnImplementationMayOwnFurtherObjects) {
    mServed->On([&] {
        auto child = std::make_unique<Exported>(mServed->typed->Export(OTHER, std::make_unique<Room>()));
        room->onDeath = [child = std::shared_ptr<Exported>(std::move(child))]() mutable { child.reset(); };
    });
    EXPECT_EQ(mPeer->Seen().size(), 1U);
    mServed->On([&] { mServed->exported.clear(); });
    EXPECT_THAT(mPeer->WaitForSignals(2), ElementsAre("removed /com/example/rooms/one com.example.Room1",
                                                      "removed /com/example/rooms/two com.example.Room1"));
    EXPECT_EQ(mServed->Count().objects, 0U);
}

TEST_F(BusTest, AWorkerMayDropObjectsWhileTheyAreCalled) {
    constexpr int ROUNDS = 300 / tern::test::SLOWNESS;
    std::atomic<bool> goOn{true};
    std::atomic<int> died{0};
    std::thread worker([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            Exported mine;
            mServed->On([&] {
                auto made = std::make_unique<Room>();
                made->onDo = [](Room& it) { it.SetLevel(it.level + 1); };
                made->onDeath = [&] { ++died; };
                mine = mServed->typed->Export(OTHER, std::move(made));
                EXPECT_EQ(mine.GetStatus(), StatusCode::Ok);
            });
            std::this_thread::yield();
        }
        goOn = false;
    });
    std::vector<std::string> answers;
    std::size_t sent = 0;
    while (goOn) {
        mPeer->Send(answers, OTHER, ROOM, "Do");
        ++sent;
        while (sent - answers.size() > 10) {
            ASSERT_TRUE(mPeer->WaitForAnswers(answers, sent - 10));
        }
    }
    worker.join();
    ASSERT_TRUE(mPeer->WaitForAnswers(answers, sent));
    for (const std::string& answer : answers) {
        EXPECT_TRUE(answer.empty() || answer.starts_with("org.freedesktop.DBus.Error.Unknown")) << answer;
    }
    EXPECT_TRUE(WaitUntil([&] { return died == ROUNDS; }));
    const Bus::Counters counters = mServed->Count();
    EXPECT_EQ(counters.objects, 1U);
    EXPECT_EQ(counters.added - 1, counters.removed) << "none announced without its end";
}

TEST_F(BusTest, WithoutAnObjectManagerAboveNothingIsAnnounced) {
    mServed->On([&] {
        mServed->Export("/elsewhere").SetLevel(4);
        mServed->Export(ROOT);  // at the manager's own path
    });
    EXPECT_THAT(mPeer->Seen(), ElementsAre("changed /elsewhere com.example.Room1 Level=4"));
    EXPECT_EQ(mPeer->Managed(ROOT).size(), 1U);
    mServed->On([&] { mServed->exported.clear(); });
    EXPECT_THAT(mPeer->Seen(), ElementsAre("removed /com/example/rooms/one com.example.Room1"));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(BusTest, AnObjectManagerIsAddedOnceAndRefusesNoPath) {
    mServed->On([&] {
        EXPECT_EQ(mServed->typed->AddObjectManager(ROOT), StatusCode::Ok);
        EXPECT_EQ(mServed->typed->AddObjectManager("no path"), StatusCode::InvalidArgument);
        EXPECT_EQ(mServed->typed->AddObjectManager("/other"), StatusCode::Ok);
    });
    EXPECT_THAT(mPeer->Managed("/other"), IsEmpty());
    EXPECT_TRUE(mLog.Contains(
        tern::test::Error("Typed", "Failed to add an object manager at no path (-22, Invalid argument)")));
}

TEST_F(BusTest, ExportIsAllOrNothing) {
    bool isDead = false;
    mServed->On([&] {
        auto first = std::make_unique<Door>();
        auto second = std::make_unique<Room>();
        second->onDeath = [&] { isDead = true; };
        const Exported refused = mServed->typed->Export(PATH, std::move(first), std::move(second));
        EXPECT_FALSE(refused);
        EXPECT_EQ(refused.GetStatus(), StatusCode::AlreadyExists);
        EXPECT_TRUE(isDead);
    });
    EXPECT_THAT(mPeer->Managed(ROOT), ElementsAre("/com/example/rooms/one com.example.Room1")) << "no door";
    EXPECT_THAT(mPeer->Seen(), IsEmpty());
    EXPECT_TRUE(mLog.Contains(tern::test::Error(
        "Typed", "Failed to export com.example.Room1 of /com/example/rooms/one (-17, File exists)")));
}

TEST_F(BusTest, ExportsSeveralInterfacesAsOneObject) {
    mServed->On([&] {
        mServed->exported.push_back(
            mServed->typed->Export(OTHER, std::make_unique<Room>(), std::make_unique<Door>()));
        EXPECT_TRUE(mServed->exported.back());
    });
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre(std::string("added ") + OTHER + VALUES + " com.example.Door1 Locked=0"));
    mServed->On([&] { mServed->exported.back().Reset(); });
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre("removed /com/example/rooms/two com.example.Room1 com.example.Door1"));
}

TEST_F(BusTest, RefusesWhatIsNoObject) {
    mServed->On([&] {
        EXPECT_EQ(mServed->typed->Export("no path", std::make_unique<Room>()).GetStatus(),
                  StatusCode::InvalidArgument);
        EXPECT_EQ(mServed->typed->Export(OTHER, std::unique_ptr<Room>()).GetStatus(),
                  StatusCode::InvalidArgument);
        EXPECT_EQ(mServed->typed->Export(OTHER, std::vector<std::unique_ptr<InterfaceBase>>()).GetStatus(),
                  StatusCode::InvalidArgument);
    });
    EXPECT_EQ(
        mLog.Count(tern::test::Error(
            "Typed", "Refused to export /com/example/rooms/two without an interface, or with a null one")),
        2U);
    EXPECT_TRUE(mLog.Contains(
        tern::test::Error("Typed", "Failed to export com.example.Room1 of no path (-22, Invalid argument)")));
}

TEST_F(BusTest, ExportedMovesItsObject) {
    mServed->On([&] {
        Exported first = std::move(mServed->exported.front());
        EXPECT_FALSE(mServed->exported.front());
        EXPECT_TRUE(first);
        Exported second = mServed->typed->Export(OTHER, std::make_unique<Room>());
        second = std::move(first);  // the other one goes
        Exported& same = second;
        second = std::move(same);
        EXPECT_TRUE(second);
        mServed->exported.front() = std::move(second);
    });
    EXPECT_THAT(mPeer->Managed(ROOT), ElementsAre("/com/example/rooms/one com.example.Room1"));
    EXPECT_EQ(Exported().GetStatus(), StatusCode::NotInitialized);
}

TEST_F(BusTest, TellsOfWhatCannotBeAnnounced) {
    const FaultScope added(fault_sd_bus_emit_interfaces_added_strv);
    const FaultScope removed(fault_sd_bus_emit_interfaces_removed_strv);
    fault_sd_bus_emit_interfaces_added_strv.Fail(-ENOMEM);
    fault_sd_bus_emit_interfaces_removed_strv.Fail(-ENOMEM);
    mServed->On([&] { mServed->Export(OTHER); });
    mPeer->Ping();
    mServed->On([&] { mServed->exported.pop_back(); });
    EXPECT_EQ(mServed->Count().unannounced, 2U);
    EXPECT_EQ(mLog.Count(tern::test::Error(
                  "Typed",
                  "Failed to announce that /com/example/rooms/two comes or goes (-12, Cannot "
                  "allocate memory) (0 like it not logged)")),
              2U);
}

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

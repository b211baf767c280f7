// The objects of a bus: how they come, go and are announced.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "typed/bus_fixture.h"

namespace mwl::Typed {
namespace {

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
    mPeer->Ping();  // the end of the turn in which it was refused
    EXPECT_TRUE(isDead);
    EXPECT_EQ(mServed->Count().objects, 0U);
    EXPECT_TRUE(mLog.Contains(tern::test::Error(
        "Typed",
        "Failed to export com.example.Room1 of /com/example/rooms/one (-12, Cannot allocate memory)")));
}

/// Until the handler has returned sd-bus reads the values of the former one: its Level was announced as that
/// of its successor, whose own change nobody heard of then.
TEST_F(BusTest, ASuccessorThatWaitsForItsPlaceIsAnnouncedWithItsOwnValues) {
    const auto replaceAndFlush = [&](Room& it) {
        it.level = 5;
        mServed->exported.clear();
        mServed->Export(PATH).SetLevel(6);
        Room& other = mServed->Export(OTHER);
        mServed->typed->Flush();
        other.SetLevel(7);
        mServed->typed->Flush();
    };
    room->onDo = replaceAndFlush;
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->Seen(),
                ElementsAre("removed /com/example/rooms/one com.example.Room1",
                            std::string("added ") + OTHER + VALUES,
                            std::string("changed ") + OTHER + " com.example.Room1 Level=7",
                            "added /com/example/rooms/one com.example.Room1 Level=6 Serial=3 Target=5"));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(BusTest, TheFormerObjectIsDestroyedWhenItsSuccessorHasItsPlace) {
    room->onDeath = [&] {
        mServed->typed->Flush();
        const Exported second = mServed->typed->Export(PATH, std::make_unique<Room>());
        EXPECT_EQ(second.GetStatus(), StatusCode::AlreadyExists);
    };
    room->onDo = [&](Room&) {
        mServed->exported.clear();
        mServed->Export(PATH).SetLevel(6);
    };
    EXPECT_EQ(Do(), "");
    EXPECT_THAT(mPeer->WaitForSignals(2),
                ElementsAre("removed /com/example/rooms/one com.example.Room1",
                            "added /com/example/rooms/one com.example.Room1 Level=6 Serial=3 Target=5"));
    EXPECT_EQ(mServed->Count().objects, 1U);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(tern::test::Error("Typed",
                                              "Failed to export com.example.Room1 of /com/example/rooms/one "
                                              "(-17, File exists)")));
}

TEST_F(BusTest, ASuccessorWithoutAnObjectManagerAboveAnnouncesItsChanges) {
    constexpr const char* ELSEWHERE = "/org/example/room";
    mServed->On([&] {
        mServed->Export(ELSEWHERE).onDo = [&](Room& it) {
            it.level = 5;
            mServed->exported.clear();
            mServed->Export(ELSEWHERE).SetLevel(6);
            mServed->typed->Flush();
        };
    });
    EXPECT_EQ(Do(ELSEWHERE), "");
    EXPECT_THAT(mPeer->Seen(), ElementsAre("removed /com/example/rooms/one com.example.Room1",
                                           "changed /org/example/room com.example.Room1 Level=6"));
}

TEST_F(BusTest, OneSuccessorInATurnIsTaken) {
    const auto exportTwo = [&] {
        mServed->exported.clear();
        mServed->Export(PATH).level = 9;
        const Exported second = mServed->typed->Export(PATH, std::make_unique<Room>());
        EXPECT_EQ(second.GetStatus(), StatusCode::AlreadyExists);
        EXPECT_FALSE(second);
        // A further interface does not make it another.
        EXPECT_EQ(
            mServed->typed->Export(PATH, std::make_unique<Door>(), std::make_unique<Room>()).GetStatus(),
            StatusCode::AlreadyExists);
    };
    const std::vector<std::string> replaced{
        "removed /com/example/rooms/one com.example.Room1",
        "added /com/example/rooms/one com.example.Room1 Level=9 Serial=3 Target=5"};
    const auto refused = tern::test::Error(
        "Typed", "Failed to export com.example.Room1 of /com/example/rooms/one (-17, File exists)");
    mServed->On(exportTwo);
    EXPECT_EQ(mPeer->Seen(), replaced);
    EXPECT_THAT(mLog.Entries("Typed"), ElementsAre(refused, refused));
    // In a handler of the former one the first of them waits for its place.
    mServed->On([&] {
        mServed->exported.clear();
        mServed->Export(PATH).onDo = [&](Room&) { exportTwo(); };
    });
    mPeer->Seen();
    EXPECT_EQ(Do(), "");
    EXPECT_EQ(mPeer->Seen(), replaced);
    EXPECT_THAT(mLog.Entries("Typed"), ElementsAre(refused, refused, refused, refused));
    EXPECT_EQ(mServed->Count().objects, 1U);
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

}  // namespace
}  // namespace mwl::Typed

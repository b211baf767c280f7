#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "service/dbus_server_manager_fixture.h"

using namespace tern::test::managers;

TEST_F(DBusServerManagerTest, ConnectClaimsTheName) {
    DBusServerManager manager(NAME);
    EXPECT_EQ(manager.GetBus(), nullptr);
    EXPECT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_NE(manager.GetBus(), nullptr);
    ExpectOwner(NAME, true);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, EmptyNameConnectsWithoutRequest) {
    DBusServerManager manager("");
    EXPECT_EQ(manager.Connect(), StatusCode::Ok);
    const char* unique = nullptr;
    EXPECT_GE(sd_bus_get_unique_name(manager.GetBus(), &unique), 0);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, SecondConnectKeepsTheFirstConnection) {
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    sd_bus* const first = manager.GetBus();
    EXPECT_EQ(manager.Connect(), StatusCode::AlreadyExists);
    EXPECT_EQ(manager.GetBus(), first);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, NameOfAnotherIsRefusedAndTheConnectionKept) {
    const Bus owner = OpenPeer();
    ASSERT_GE(sd_bus_request_name(owner.get(), NAME, 0), 0);
    DBusServerManager manager(NAME);
    EXPECT_EQ(manager.Connect(), StatusCode::AlreadyExists);
    EXPECT_NE(manager.GetBus(), nullptr);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service", "Failed to acquire name 'com.example.Server', (-17, File exists)")));
    // Connected it is, so the second call does not ask for the name again.
    sd_bus* const first = manager.GetBus();
    mLog.Clear();
    ASSERT_GE(sd_bus_release_name(owner.get(), NAME), 0);
    EXPECT_EQ(manager.Connect(), StatusCode::AlreadyExists);
    EXPECT_EQ(manager.GetBus(), first);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    ExpectOwner(NAME, false);
}

TEST_F(DBusServerManagerTest, MalformedNameIsRefused) {
    DBusServerManager manager("not a bus name");
    EXPECT_EQ(manager.Connect(), StatusCode::InvalidArgument);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service", "Failed to acquire name 'not a bus name', (-22, Invalid argument)")));
}

TEST_F(DBusServerManagerTest, BusThatIsNotThereGivesTheErrorsStatus) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    DBusServerManager manager(NAME);
    EXPECT_EQ(manager.Connect(), StatusCode::NotFound);
    EXPECT_EQ(manager.GetBus(), nullptr);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service", "Failed to connect to system bus (-2, No such file or directory)")));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", mBus.Address().c_str(), 1);
    EXPECT_EQ(manager.Connect(), StatusCode::Ok) << "may be tried again";
}

TEST_F(DBusServerManagerTest, AttachNeedsALoopThatWasMade) {
    EventLoop unmade;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.AttachLoop(unmade), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, AttachNeedsAConnection) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    EXPECT_EQ(manager.AttachLoop(loop), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error("Service", "Failed to attach event loop (-22, Invalid argument)")));
}

TEST_F(DBusServerManagerTest, AttachedConnectionIsNotAttachedAgain) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    EXPECT_EQ(manager.AttachLoop(loop), StatusCode::Busy);
    TestLoop other;
    EXPECT_EQ(manager.AttachLoop(other), StatusCode::Busy);
    EXPECT_EQ(sd_bus_get_event(manager.GetBus()), loop.GetEvent());
    const LogEntry refused = Error("Service", "Failed to attach event loop (-16, Device or resource busy)");
    EXPECT_THAT(mLog.Entries(), ElementsAre(refused, refused));
}

TEST_F(DBusServerManagerTest, AttachReportsSdBusErrors) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    {
        const FaultScope scope(fault_sd_bus_attach_event);
        fault_sd_bus_attach_event.Fail(-ENOMEM);
        EXPECT_EQ(manager.AttachLoop(loop), StatusCode::OutOfMemory);
    }
    {
        const FaultScope scope(fault_sd_event_add_time);
        fault_sd_event_add_time.Fail(-EMFILE);
        EXPECT_EQ(manager.AttachLoop(loop), StatusCode::ResourceUnavailable);
    }
    {
        const FaultScope scope(fault_sd_event_source_set_prepare);
        fault_sd_event_source_set_prepare.Fail(-ENOMEM);
        EXPECT_EQ(manager.AttachLoop(loop), StatusCode::OutOfMemory);
    }
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error("Service", "Failed to attach event loop (-12, Cannot allocate memory)"),
                            Error("Service", "Failed to attach event loop (-24, Too many open files)"),
                            Error("Service", "Failed to attach event loop (-12, Cannot allocate memory)")));
    EXPECT_EQ(sd_bus_get_event(manager.GetBus()), nullptr);
    EXPECT_EQ(manager.AttachLoop(loop), StatusCode::Ok) << "may be tried again";
}

TEST_F(DBusServerManagerTest, LostBusEndsTheLoopWithANegativeCode) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    mBus.Kill();
    EXPECT_EQ(loop.Run(), -ECONNRESET);
}

int Swallow(sd_bus_message* message, void* userdata, sd_bus_error*) {
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
        ++*static_cast<int*>(userdata);
    }
    return 1;
}

// A filter of the application that takes the signal for itself once left the service alive and deaf.
TEST_F(DBusServerManagerTest, LostBusEndsTheLoopWhateverAFilterHides) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    int seen = 0;
    ASSERT_GE(sd_bus_add_filter(manager.GetBus(), nullptr, Swallow, &seen), 0);
    mBus.Kill();
    EXPECT_EQ(loop.Run(), -ECONNRESET);
    EXPECT_EQ(seen, 1) << "the application is still told";
}

TEST_F(DBusServerManagerTest, LostBusEndsTheLoopWhateverAMatchHides) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    int seen = 0;
    ASSERT_EQ(
        manager.AddMatch(nullptr, "type='signal',interface='org.freedesktop.DBus.Local'", Swallow, &seen),
        StatusCode::Ok);
    mBus.Kill();
    EXPECT_EQ(loop.Run(), -ECONNRESET);
    EXPECT_EQ(seen, 1);
}

TEST_F(DBusServerManagerTest, WhoeverWaitsForAReplyIsToldBeforeTheLoopEnds) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    // Nobody answers this one: its name is the caller's own, and the loop does not run.
    const char* self = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(manager.GetBus(), &self), 0);
    std::string error;
    ASSERT_GE(sd_bus_call_method_async(
                  manager.GetBus(), nullptr, self, "/", "com.example.Nothing", "Nothing",
                  [](sd_bus_message* reply, void* text, sd_bus_error*) {
                      *static_cast<std::string*>(text) = sd_bus_message_get_error(reply)->name;
                      return 0;
                  },
                  &error, nullptr),
              0);
    mBus.Kill();
    EXPECT_EQ(loop.Run(), -ECONNRESET);
    // The latter from systemd 262 on.
    EXPECT_THAT(error, AnyOf(SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED));
}

// sd-bus tells nobody when the connection is closed from this side.
TEST_F(DBusServerManagerTest, ConnectionClosedByTheApplicationEndsTheLoop) {
    TestLoop loop;
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    sd_bus_close(manager.GetBus());
    EXPECT_EQ(loop.Run(), -ECONNRESET);
}

TEST_F(DBusServerManagerTest, LoopOutlivesTheManagerThatUsedIt) {
    TestLoop loop;
    {
        DBusServerManager manager(NAME);
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    }
    EXPECT_EQ(sd_event_run(loop.GetEvent(), 0), 0) << "nothing of the connection is left in it";
    int code = 0;
    EXPECT_EQ(sd_event_get_exit_code(loop.GetEvent(), &code), -ENODATA) << "nor is its end a loss";
}

/// Emits a signal on the peer's connection and has the manager's dispatch it.
void EmitAndProcess(sd_bus* peer, sd_bus* bus) {
    EXPECT_GE(sd_bus_emit_signal(peer, "/", "com.example.Sender", "Ping", ""), 0);
    EXPECT_GE(sd_bus_flush(peer), 0);
    // A call after it on the same connection: once it is answered, the signal has been routed.
    for (sd_bus* const connection : {peer, bus}) {
        EXPECT_GE(sd_bus_call_method(connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer",
                                     "Ping", nullptr, nullptr, nullptr),
                  0);
    }
    while (sd_bus_process(bus, nullptr) > 0) {
    }
}

int Count(sd_bus_message*, void* userdata, sd_bus_error*) {
    ++*static_cast<int*>(userdata);
    return 0;
}

TEST_F(DBusServerManagerTest, MatchesSeeSignalsUntilTheirSlotIsGone) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    int seen = 0;
    sd_bus_slot* slot = nullptr;
    ASSERT_EQ(manager.AddMatch(&slot, "type='signal',interface='com.example.Sender'", Count, &seen),
              StatusCode::Ok);
    const Bus peer = OpenPeer();
    EmitAndProcess(peer.get(), manager.GetBus());
    EXPECT_EQ(seen, 1);
    sd_bus_slot_unref(slot);
    EmitAndProcess(peer.get(), manager.GetBus());
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(manager.AddMatch(nullptr, "not a match", Count, &seen), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, MatchWithoutASlotLastsAsLongAsTheConnection) {
    const Bus peer = OpenPeer();
    int seen = 0;
    {
        DBusServerManager manager("");
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AddMatch(nullptr, "type='signal',interface='com.example.Sender'", Count, &seen),
                  StatusCode::Ok);
        EmitAndProcess(peer.get(), manager.GetBus());
        EmitAndProcess(peer.get(), manager.GetBus());
        EXPECT_EQ(seen, 2);
    }
    DBusServerManager next("");
    ASSERT_EQ(next.Connect(), StatusCode::Ok);
    EmitAndProcess(peer.get(), next.GetBus());
    EXPECT_EQ(seen, 2);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, ReleasesTheConnectionBeforeTheInterfaces) {
    std::vector<std::string> events;
    {
        DBusServerManager manager(NAME);
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
        manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.Counter", &events));
        ASSERT_EQ(manager.ExportObject(PATH), StatusCode::Ok);
        fault_sd_bus_unref.Replace([&](sd_bus* bus) {
            events.push_back("unref");
            return fault_sd_bus_unref.Real(bus);
        });
    }
    fault_sd_bus_unref.Reset();
    EXPECT_THAT(events, ElementsAre("unref", "deleted com.example.Counter"));
    ExpectOwner(NAME, false);
}

TEST_F(DBusServerManagerTest, ConnectingAndLeavingManyTimesKeepsNoDescriptor) {
    const auto once = [] {
        TestLoop loop;
        DBusServerManager manager(NAME);
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
    };
    once();
    const std::size_t before = tern::test::CountDescriptors();
    for (int i = 0; i < 50; ++i) {
        once();
    }
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "foundation/handle.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/wait_until.h"

using mw::tern::DBusInterface;
using mw::tern::DBusServerManager;
using mw::tern::EventLoop;
using mw::tern::StatusCode;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogEntry;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, sd_bus_attach_event, (sd_bus * bus, sd_event* event, int priority),
               (bus, event, priority))
TERN_INTERPOSE(int, sd_event_add_time,
               (sd_event * event, sd_event_source** source, clockid_t clock, uint64_t time, uint64_t accuracy,
                sd_event_time_handler_t handler, void* userdata),
               (event, source, clock, time, accuracy, handler, userdata))
TERN_INTERPOSE(int, sd_event_source_set_prepare, (sd_event_source * source, sd_event_handler_t handler),
               (source, handler))
TERN_INTERPOSE(int, sd_bus_new, (sd_bus * *bus), (bus))
TERN_INTERPOSE(sd_bus*, sd_bus_unref, (sd_bus * bus), (bus))

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;
using Message = mwl::Handle<sd_bus_message, sd_bus_message_unref>;

constexpr const char* NAME = "com.example.Server";
constexpr const char* PATH = "/com/example/Server";

Bus OpenPeer() {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    return Bus(bus);
}

class TestLoop : public EventLoop {
public:
    TestLoop() { sd_event_new(&mEvent); }
    /// Until something ends the loop; a test that waits in vain sees STUCK.
    int Run() {
        sd_event_source* limit = nullptr;
        EXPECT_GE(sd_event_add_time_relative(
                      mEvent, &limit, CLOCK_MONOTONIC,
                      std::chrono::microseconds(tern::test::GENEROUS_LIMIT).count(), 0,
                      [](sd_event_source* source, uint64_t, void*) {
                          return sd_event_exit(sd_event_source_get_event(source), STUCK);
                      },
                      nullptr),
                  0);
        const int r = sd_event_loop(mEvent);
        sd_event_source_unref(limit);
        return r;
    }
    static constexpr int STUCK = 77;
};

/// An interface with one property, whose value sd-bus reads and writes in place, and one method.
class Counter : public DBusInterface {
public:
    explicit Counter(std::string name, std::vector<std::string>* events = nullptr)
        : DBusInterface(std::move(name)), mEvents(events) {}
    ~Counter() override {
        if (mEvents != nullptr) {
            mEvents->push_back("deleted " + GetName());
        }
    }
    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {
            SdBusVtableStart(SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusMethod("Add", "u", "u", &OnAdd, 0),
            SdBusMethodWithOffset("AddToSecond", "u", "u", &OnAddTo, offsetof(State, second), 0),
            SdBusSignal("Overflow", "u", 0),
            SdBusProperty("First", "u", nullptr, offsetof(State, first), 0),
            SdBusWritableProperty("Second", "u", nullptr, nullptr, offsetof(State, second), 0),
            SdBusMethod("Fail", "", "", &OnFail, 0),
            SdBusVtableEnd()};
        return table;
    }
    void* GetUserData() override { return &mState; }

private:
    struct State {
        unsigned int first = 1;
        unsigned int second = 2;
    };
    static int OnAdd(sd_bus_message* message, void* userdata, sd_bus_error* error) {
        return OnAddTo(message, &static_cast<State*>(userdata)->first, error);
    }
    static int OnAddTo(sd_bus_message* message, void* userdata, sd_bus_error*) {
        unsigned int amount = 0;
        const int r = sd_bus_message_read(message, "u", &amount);
        if (r < 0) {
            return r;
        }
        auto* const number = static_cast<unsigned int*>(userdata);
        *number += amount;
        return sd_bus_reply_method_return(message, "u", *number);
    }
    static int OnFail(sd_bus_message*, void*, sd_bus_error*) { return -EACCES; }

    State mState;
    std::vector<std::string>* mEvents;
};

/// An interface with a table of the test's.
class Table : public DBusInterface {
public:
    Table(std::string name, std::vector<sd_bus_vtable> entries)
        : DBusInterface(std::move(name)), mEntries(std::move(entries)) {}
    const sd_bus_vtable* GetVtable() const override { return mEntries.empty() ? nullptr : mEntries.data(); }
    void* GetUserData() override { return nullptr; }

private:
    std::vector<sd_bus_vtable> mEntries;
};

DBusInterface* MakeBadInterface(const std::string& name) {
    return new Table(name, {DBusInterface::SdBusVtableStart(0),
                            DBusInterface::SdBusMethod("Bad", "not a signature", "", nullptr, 0),
                            DBusInterface::SdBusVtableEnd()});
}

class DBusServerManagerTest : public testing::Test {
protected:
    static void ExpectOwner(const char* name, bool owned) {
        const Bus peer = OpenPeer();
        sd_bus_creds* creds = nullptr;
        const int r = sd_bus_get_name_creds(peer.get(), name, SD_BUS_CREDS_UNIQUE_NAME, &creds);
        EXPECT_EQ(r >= 0, owned) << r;
        sd_bus_creds_unref(creds);
    }

    tern::test::PrivateBus mBus;
    tern::test::LogCapture mLog;
};

/// Serves one object on a thread until destroyed.
class Server {
public:
    Server() : mThread([this] { Main(); }) {}
    ~Server() {
        // Asked over the bus: the loop belongs to its thread.
        const Bus peer = OpenPeer();
        sd_bus_call_method(peer.get(), NAME, PATH, "com.example.Control", "Stop", nullptr, nullptr, nullptr);
        mThread.join();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    class Control : public DBusInterface {
    public:
        Control() : DBusInterface("com.example.Control") {}
        const sd_bus_vtable* GetVtable() const override {
            static const sd_bus_vtable table[] = {
                SdBusVtableStart(0), SdBusMethod("Stop", "", "", &OnStop, SD_BUS_VTABLE_UNPRIVILEGED),
                SdBusVtableEnd()};
            return table;
        }
        void* GetUserData() override { return nullptr; }

    private:
        static int OnStop(sd_bus_message* message, void*, sd_bus_error*) {
            sd_event_exit(sd_bus_get_event(sd_bus_message_get_bus(message)), 0);
            return sd_bus_reply_method_return(message, "");
        }
    };

    void Main() {
        TestLoop loop;
        DBusServerManager manager(NAME);
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AttachLoop(loop), StatusCode::Ok);
        ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
        ASSERT_EQ(manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.Counter")), StatusCode::Ok);
        ASSERT_EQ(manager.AddInterfaceToDBusObject(PATH, new Control), StatusCode::Ok);
        ASSERT_EQ(manager.ExportObject(PATH), StatusCode::Ok);
        EXPECT_EQ(loop.Run(), 0);
    }

    std::thread mThread;
};

unsigned int ReadNumber(sd_bus* bus, const char* property) {
    unsigned int number = 0;
    EXPECT_GE(
        sd_bus_get_property_trivial(bus, NAME, PATH, "com.example.Counter", property, nullptr, 'u', &number),
        0);
    return number;
}

}  // namespace

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

TEST_F(DBusServerManagerTest, PathsAreUnique) {
    DBusServerManager manager("");
    EXPECT_EQ(manager.AddDBusObject("/a"), StatusCode::Ok);
    EXPECT_EQ(manager.AddDBusObject("/a"), StatusCode::InvalidArgument);
    EXPECT_EQ(manager.AddDBusObject("/a/b"), StatusCode::Ok);
    EXPECT_EQ(manager.AddDBusObject(""), StatusCode::Ok) << "looked at only when exported";
    EXPECT_EQ(manager.AddDBusObject(""), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, InterfaceForAnUnknownPathStaysWithTheCaller) {
    std::vector<std::string> events;
    {
        DBusServerManager manager("");
        ASSERT_EQ(manager.AddDBusObject("/a"), StatusCode::Ok);
        Counter counter("com.example.Counter", &events);
        EXPECT_EQ(manager.AddInterfaceToDBusObject("/b", &counter), StatusCode::InvalidArgument);
        EXPECT_EQ(manager.AddInterfaceToDBusObject("/", &counter), StatusCode::InvalidArgument);
        EXPECT_THAT(events, IsEmpty());
    }
    EXPECT_THAT(events, ElementsAre("deleted com.example.Counter"));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

// An interface that two objects owned was deleted twice; a null one crashed the export.
TEST_F(DBusServerManagerTest, InterfaceIsAddedOnceAndNotNull) {
    std::vector<std::string> events;
    {
        DBusServerManager manager("");
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AddDBusObject("/a"), StatusCode::Ok);
        ASSERT_EQ(manager.AddDBusObject("/b"), StatusCode::Ok);
        auto* const counter = new Counter("com.example.Counter", &events);
        ASSERT_EQ(manager.AddInterfaceToDBusObject("/a", counter), StatusCode::Ok);
        EXPECT_EQ(manager.AddInterfaceToDBusObject("/a", counter), StatusCode::InvalidArgument);
        EXPECT_EQ(manager.AddInterfaceToDBusObject("/b", counter), StatusCode::InvalidArgument);
        EXPECT_EQ(manager.AddInterfaceToDBusObject("/b", nullptr), StatusCode::InvalidArgument);
        EXPECT_THAT(
            mLog.Entries(),
            ElementsAre(
                Error("Service",
                      "Refused to add interface: com.example.Counter to DBus object: /a, it belongs to "
                      "an object already"),
                Error("Service",
                      "Refused to add interface: com.example.Counter to DBus object: /b, it belongs to "
                      "an object already"),
                Error("Service", "Refused to add a null interface to DBus object: /b")));
        mLog.Clear();
        EXPECT_EQ(manager.AddInterfaceToDBusObject("/c", nullptr), StatusCode::InvalidArgument)
            << "the path comes first";
        EXPECT_EQ(manager.ExportObject("/b"), StatusCode::Ok) << "nothing has changed";
        EXPECT_EQ(manager.ExportObject("/a"), StatusCode::Ok);
        EXPECT_THAT(events, IsEmpty());
        EXPECT_THAT(mLog.Entries(), IsEmpty());
    }
    EXPECT_THAT(events, ElementsAre("deleted com.example.Counter"));
}

double ThreadTime() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Each object once cost a walk over all others: 16,000 took seconds.
TEST_F(DBusServerManagerTest, ObjectsCostTheSameHoweverManyThereAre) {
    constexpr int PORTION = 1000;
    constexpr int COUNT = 32 * PORTION;
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    const auto path = [](int number) { return "/com/example/object/number" + std::to_string(number); };
    const auto addPortion = [&](int first) {
        const double start = ThreadTime();
        for (int i = first; i < first + PORTION; ++i) {
            EXPECT_EQ(manager.AddDBusObject(path(i)), StatusCode::Ok);
        }
        return ThreadTime() - start;
    };
    const double first = addPortion(0);
    for (int i = PORTION; i < COUNT - PORTION; i += PORTION) {
        addPortion(i);
    }
    const double last = addPortion(COUNT - PORTION);
    EXPECT_LT(last, 10 * first) << "a walk over all takes 32 times as long";
    // Nor does it matter in which order they are used: the first one, behind all others, is found as fast.
    const auto use = [&](int number) {
        const double start = ThreadTime();
        for (int i = 0; i < PORTION; ++i) {
            EXPECT_EQ(manager.ExportObject(path(number)), StatusCode::Ok);
        }
        return ThreadTime() - start;
    };
    const double newest = use(COUNT - 1);
    EXPECT_LT(use(0), 10 * newest);
    EXPECT_LT(use(COUNT / 2), 10 * newest);
}

TEST_F(DBusServerManagerTest, ExportOfAnUnknownPathIsRefusedOfAnEmptyObjectIsNot) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.ExportObject("/a"), StatusCode::InvalidArgument);
    ASSERT_EQ(manager.AddDBusObject("/a"), StatusCode::Ok);
    EXPECT_EQ(manager.ExportObject("/a"), StatusCode::Ok);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DBusServerManagerTest, WithoutAConnectionNothingIsExportedOrMatched) {
    DBusServerManager manager("");
    const sd_bus_message_handler_t ignore = [](sd_bus_message*, void*, sd_bus_error*) { return 0; };
    EXPECT_EQ(manager.AddMatch(nullptr, "type='signal'", ignore, nullptr), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::Ok) << "there is nothing to register";
    ASSERT_EQ(manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.Counter")), StatusCode::Ok);
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::InvalidArgument);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service",
                          "sd_bus_add_object_vtable FAILED for interface: com.example.Counter in DBus "
                          "object: /com/example/Server"),
                    Error("Service", "Failed to issue method call: Invalid argument\n")));
}

TEST_F(DBusServerManagerTest, RefusedVtableEndsTheExportThere) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
    manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.First"));
    manager.AddInterfaceToDBusObject(PATH, MakeBadInterface("com.example.Bad"));
    manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.Last"));
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::InvalidArgument);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service",
                          "sd_bus_add_object_vtable FAILED for interface: com.example.Bad in DBus object: "
                          "/com/example/Server"),
                    Error("Service", "Failed to issue method call: Invalid argument\n"),
                    Error("Service",
                          "Refused entry 1 of the vtable of interface: com.example.Bad, method 'Bad' (-22, "
                          "Invalid argument)")));
    // The one before stays registered, the one after was not reached.
    const Counter again("com.example.First");
    EXPECT_EQ(sd_bus_add_object_vtable(manager.GetBus(), nullptr, PATH, "com.example.First",
                                       again.GetVtable(), nullptr),
              -EEXIST);
    EXPECT_GE(sd_bus_add_object_vtable(manager.GetBus(), nullptr, PATH, "com.example.Last", again.GetVtable(),
                                       nullptr),
              0);
}

TEST_F(DBusServerManagerTest, RefusedVtableNamesTheEntryAtFault) {
    const sd_bus_vtable start = DBusInterface::SdBusVtableStart(0);
    const sd_bus_vtable end = DBusInterface::SdBusVtableEnd();
    const sd_bus_message_handler_t handler = [](sd_bus_message*, void*, sd_bus_error*) { return 1; };
    const sd_bus_vtable good = DBusInterface::SdBusMethod("Good", "u", "u", handler, 0);
    sd_bus_vtable unknown = good;
    unknown.type = '?';
    struct Row {
        std::vector<sd_bus_vtable> entries;
        std::string message;  // what follows the name; empty for none
    };
    const std::vector<Row> rows = {
        {{start, good, DBusInterface::SdBusMethod("No-dash", "", "", handler, 0), end},
         "2,method 'No-dash',-22"},
        {{start, DBusInterface::SdBusMethod(nullptr, "", "", handler, 0), end}, "1,method '',-22"},
        {{start, DBusInterface::SdBusMethod("Result", "", "((", handler, 0), good, end},
         "1,method 'Result',-22"},
        {{start, DBusInterface::SdBusMethod("Handler", "u", "", nullptr, 0), end}, "1,method 'Handler',-22"},
        {{start, good, DBusInterface::SdBusSignal("Signal", "u)", 0), end}, "2,signal 'Signal',-22"},
        {{start, DBusInterface::SdBusProperty("Getter", "a{sv}", nullptr, 0, 0), end},
         "1,property 'Getter',-22"},
        {{start, DBusInterface::SdBusWritableProperty("Pair", "uu", nullptr, nullptr, 0, 0), end},
         "1,writable property 'Pair',-22"},
        {{start, good, DBusInterface::SdBusSignal("Other", "u", 0), good, end}, "3,method 'Good',-17"},
        {{start, unknown, end}, "1,unknown type '',-22"},
        {{good, end}, "0,method 'Good',-22"},
        {{}, ""},
    };
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    int number = 0;
    for (const Row& row : rows) {
        mLog.Clear();
        const std::string path = "/" + std::to_string(++number);
        ASSERT_EQ(manager.AddDBusObject(path), StatusCode::Ok);
        ASSERT_EQ(manager.AddInterfaceToDBusObject(path, new Table("com.example.Table", row.entries)),
                  StatusCode::Ok);
        ASSERT_NE(manager.ExportObject(path), StatusCode::Ok) << number;
        std::vector<std::string> named;
        for (const LogEntry& entry : mLog.Entries()) {
            const std::string begin = "Refused entry ";
            if (entry.text.rfind(begin, 0) == 0) {
                named.push_back(entry.text.substr(begin.size()));
            }
        }
        if (row.message.empty()) {
            EXPECT_THAT(named, IsEmpty()) << number;
            continue;
        }
        const auto first = row.message.find(',');
        const auto last = row.message.rfind(',');
        const int error = std::stoi(row.message.substr(last + 1));
        EXPECT_THAT(named, ElementsAre(row.message.substr(0, first) +
                                       " of the vtable of interface: com.example.Table, " +
                                       row.message.substr(first + 1, last - first - 1) + " (" +
                                       std::to_string(error) + ", " + strerror(-error) + ")"))
            << number;
        EXPECT_EQ(mLog.Entries().back().text.rfind("Refused entry ", 0), 0U)
            << "after the two of the refusal";
    }
}

// sd-bus 252 keeps the members before the one that it refuses, with pointers to what it has freed: a peer
// that called one of them had it use that memory.
TEST_F(DBusServerManagerTest, NoMemberOfARefusedVtableCanBeCalled) {
    static bool isCalled = false;
    const sd_bus_message_handler_t handler = [](sd_bus_message* message, void*, sd_bus_error*) {
        isCalled = true;
        return sd_bus_reply_method_return(message, "");
    };
    DBusServerManager manager(NAME);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
    manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.Counter"));
    manager.AddInterfaceToDBusObject(
        PATH,
        new Table("com.example.Half",
                  {DBusInterface::SdBusVtableStart(0),
                   DBusInterface::SdBusMethod("Good", "", "", handler, SD_BUS_VTABLE_UNPRIVILEGED),
                   DBusInterface::SdBusMethod("Bad", "(", "", handler, 0), DBusInterface::SdBusVtableEnd()}));
    ASSERT_EQ(manager.ExportObject(PATH), StatusCode::InvalidArgument);
    const Bus peer = OpenPeer();
    std::string error;
    ASSERT_GE(sd_bus_call_method_async(
                  peer.get(), nullptr, NAME, PATH, "com.example.Half", "Good",
                  [](sd_bus_message* reply, void* text, sd_bus_error*) {
                      const sd_bus_error* const got = sd_bus_message_get_error(reply);
                      *static_cast<std::string*>(text) = got == nullptr ? "none" : got->name;
                      return 0;
                  },
                  &error, nullptr),
              0);
    ASSERT_TRUE(tern::test::WaitUntil([&] {
        sd_bus_process(manager.GetBus(), nullptr);
        sd_bus_process(peer.get(), nullptr);
        return !error.empty();
    }));
    EXPECT_EQ(error, SD_BUS_ERROR_UNKNOWN_METHOD);
    EXPECT_FALSE(isCalled);
}

TEST_F(DBusServerManagerTest, RefusalThatNoEntryCausesNamesNone) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
    manager.AddInterfaceToDBusObject(PATH, new Counter("not an interface name"));
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::InvalidArgument);
    EXPECT_EQ(mLog.Entries().size(), 2U);
    // An entry of another size than here is not looked at.
    std::vector<sd_bus_vtable> table = {DBusInterface::SdBusVtableStart(0), DBusInterface::SdBusVtableEnd()};
    table[0].x.start.element_size = 3;
    ASSERT_EQ(manager.AddDBusObject("/other"), StatusCode::Ok);
    manager.AddInterfaceToDBusObject("/other", new Table("com.example.Table", table));
    mLog.Clear();
    EXPECT_EQ(manager.ExportObject("/other"), StatusCode::InvalidArgument);
    EXPECT_EQ(mLog.Entries().size(), 2U);
}

TEST_F(DBusServerManagerTest, WithoutMemoryNoEntryIsNamed) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
    manager.AddInterfaceToDBusObject(PATH, MakeBadInterface("com.example.Bad"));
    const FaultScope scope(fault_sd_bus_new);
    fault_sd_bus_new.Fail(-ENOMEM);
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::InvalidArgument);
    EXPECT_EQ(mLog.Entries().size(), 2U);
}

TEST_F(DBusServerManagerTest, InterfaceExportedTwiceIsRefused) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    ASSERT_EQ(manager.AddDBusObject(PATH), StatusCode::Ok);
    manager.AddInterfaceToDBusObject(PATH, new Counter("com.example.Counter"));
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::Ok);
    EXPECT_EQ(manager.ExportObject(PATH), StatusCode::AlreadyExists);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Error("Service",
                          "sd_bus_add_object_vtable FAILED for interface: com.example.Counter in DBus "
                          "object: /com/example/Server"),
                    Error("Service", "Failed to issue method call: File exists\n")));
}

TEST_F(DBusServerManagerTest, PathThatSdBusRefusesFailsAtExport) {
    DBusServerManager manager("");
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    for (const std::string path : {"", "no/slash", "/trailing/", "/sp ace"}) {
        mLog.Clear();
        ASSERT_EQ(manager.AddDBusObject(path), StatusCode::Ok);
        manager.AddInterfaceToDBusObject(path, new Counter("com.example.Counter"));
        EXPECT_EQ(manager.ExportObject(path), StatusCode::InvalidArgument) << path;
        EXPECT_THAT(mLog.Entries(),
                    ElementsAre(Error("Service",
                                      "sd_bus_add_object_vtable FAILED for interface: com.example.Counter in "
                                      "DBus object: " +
                                          path),
                                Error("Service", "Failed to issue method call: Invalid argument\n")));
    }
}

TEST_F(DBusServerManagerTest, ServesMethodsAndProperties) {
    const Server server;
    const Bus peer = OpenPeer();
    ASSERT_TRUE(tern::test::WaitUntil([&] {
        return sd_bus_call_method(peer.get(), NAME, PATH, "org.freedesktop.DBus.Peer", "Ping", nullptr,
                                  nullptr, nullptr) >= 0;
    }));
    sd_bus_message* reply = nullptr;
    ASSERT_GE(
        sd_bus_call_method(peer.get(), NAME, PATH, "com.example.Counter", "Add", nullptr, &reply, "u", 41),
        0);
    unsigned int sum = 0;
    EXPECT_GE(sd_bus_message_read(reply, "u", &sum), 0);
    sd_bus_message_unref(reply);
    EXPECT_EQ(sum, 42U);
    EXPECT_EQ(ReadNumber(peer.get(), "First"), 42U);
    EXPECT_GE(sd_bus_call_method(peer.get(), NAME, PATH, "com.example.Counter", "AddToSecond", nullptr,
                                 nullptr, "u", 5),
              0);
    EXPECT_EQ(ReadNumber(peer.get(), "Second"), 7U);
    EXPECT_GE(sd_bus_set_property(peer.get(), NAME, PATH, "com.example.Counter", "Second", nullptr, "u", 9),
              0);
    EXPECT_EQ(ReadNumber(peer.get(), "Second"), 9U);
    EXPECT_LT(sd_bus_set_property(peer.get(), NAME, PATH, "com.example.Counter", "First", nullptr, "u", 9), 0)
        << "read-only";
    // A handler's failure reaches the caller as an error, and the service goes on.
    EXPECT_EQ(sd_bus_call_method(peer.get(), NAME, PATH, "com.example.Counter", "Fail", nullptr, nullptr, ""),
              -EACCES);
    EXPECT_EQ(ReadNumber(peer.get(), "First"), 42U);
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

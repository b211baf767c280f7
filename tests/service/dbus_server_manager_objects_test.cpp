// Objects and their interfaces: adding, exporting, serving.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <vector>

#include "service/dbus_server_manager_fixture.h"

using namespace tern::test::managers;

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

// The connection has gone before the interfaces, and its address was still handed out.
TEST_F(DBusServerManagerTest, InterfaceThatIsDeletedWithTheManagerFindsNoConnection) {
    class Farewell : public DBusInterface {
    public:
        Farewell(const DBusServerManager& manager, std::vector<int>& results)
            : DBusInterface("com.example.Farewell"), mManager(manager), mResults(results) {}
        ~Farewell() override {
            mResults.push_back(
                mManager.GetBus() == nullptr
                    ? sd_bus_emit_signal(mManager.GetBus(), "/a", "com.example.Farewell", "Gone", "")
                    : 0);
        }
        const sd_bus_vtable* GetVtable() const override { return nullptr; }
        void* GetUserData() override { return nullptr; }

    private:
        const DBusServerManager& mManager;
        std::vector<int>& mResults;
    };
    std::vector<int> results;
    {
        DBusServerManager manager("");
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        ASSERT_EQ(manager.AddDBusObject("/a"), StatusCode::Ok);
        ASSERT_EQ(manager.AddInterfaceToDBusObject("/a", new Farewell(manager, results)), StatusCode::Ok);
    }
    EXPECT_THAT(results, ElementsAre(-EINVAL));
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

#pragma once

// What the tests of DBusServerManager share: a private bus, interfaces and a server. Include it in the one
// source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>

#include <cerrno>
#include <ctime>
#include <thread>
#include <vector>

#include "foundation/handle.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/wait_until.h"

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

namespace tern::test::managers {

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

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;
using Message = mwl::Handle<sd_bus_message, sd_bus_message_unref>;

inline constexpr const char* NAME = "com.example.Server";
inline constexpr const char* PATH = "/com/example/Server";

inline Bus OpenPeer() {
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

inline DBusInterface* MakeBadInterface(const std::string& name) {
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

inline unsigned int ReadNumber(sd_bus* bus, const char* property) {
    unsigned int number = 0;
    EXPECT_GE(
        sd_bus_get_property_trivial(bus, NAME, PATH, "com.example.Counter", property, nullptr, 'u', &number),
        0);
    return number;
}

}  // namespace tern::test::managers

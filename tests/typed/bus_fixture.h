#pragma once

// What the tests of Bus share: a service with a room, and the calls that they make fail. Include it in the
// one source of a test program.

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

#include <string>

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

inline constexpr const char* PATH = "/com/example/rooms/one";
inline constexpr const char* OTHER = "/com/example/rooms/two";
inline constexpr const char* ROOT = "/com/example";
/// How an announced room looks; sd-bus leaves out what only invalidates.
inline const std::string VALUES = " com.example.Room1 Level=1 Serial=3 Target=5";

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

}  // namespace mwl::Typed

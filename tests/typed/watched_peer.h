#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <string>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/wait_until.h"
#include "typed/raw_peer.h"
#include "typed/served_bus.h"

// What watching a peer needs of sd-bus and sd-event. Include this in the one source of a test program.
TERN_INTERPOSE(int, sd_bus_add_match_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* rule, sd_bus_message_handler_t handler,
                sd_bus_message_handler_t installed, void* userdata),
               (bus, slot, rule, handler, installed, userdata))
TERN_INTERPOSE(int, sd_bus_call_async,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* message, sd_bus_message_handler_t handler,
                void* userdata, uint64_t limit),
               (bus, slot, message, handler, userdata, limit))
TERN_INTERPOSE(int, sd_event_add_time_relative,
               (sd_event * event, sd_event_source** source, clockid_t clock, uint64_t time, uint64_t accuracy,
                sd_event_time_handler_t handler, void* userdata),
               (event, source, clock, time, accuracy, handler, userdata))

namespace tern::test {

/// A service that follows a peer, which the test leads. A test that has watchers among its members calls
/// mServed.End in its destructor, so that they go when the bus has closed.
class WatchedPeerTest : public testing::Test {
protected:
    explicit WatchedPeerTest(const char* name) { mPeer.Own(name); }

    /// Waits until the loop has ended by itself.
    void WaitForEnd() {
        EXPECT_TRUE(WaitUntil([&] { return !mServed.typed->Post([] {}); })) << "the loop does not end";
        mServed.End();
    }
    /// Has the message bus refuse a match, after `skip` others: what sd-bus takes and the message bus does
    /// not.
    static void RefuseMatch(int skip) {
        fault_sd_bus_add_match_async.Replace(
            [](sd_bus* bus, sd_bus_slot** slot, const char*, auto... arguments) {
                return fault_sd_bus_add_match_async.Real(bus, slot, "path='/a',path_namespace='/a'",
                                                         arguments...);
            },
            1, skip);
    }

    PrivateBus mDaemon;
    LogCapture mLog{5};
    RawPeer mPeer;
    Served mServed;
};

}  // namespace tern::test

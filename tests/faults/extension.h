#pragma once

#include <systemd/sd-bus.h>
#include <tern/service/dbus_message_pipe.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>

#include <atomic>

#include "running.h"

namespace tern::test {

/// What an extension puts on its bus: an object with a method, a property and a match, and a pipe by which
/// other threads send it messages.
class ExtensionServer : public mwl::DBusService::IpcServer {
public:
    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;

    /// To be written to by any thread.
    mw::tern::DBusMessagePipe& Pipe() { return mPipe; }
    /// Messages that came through the pipe.
    unsigned Received() const { return mReceived; }
    bool IsStopped() const { return mStopped; }
    /// Has the next message taken off the loop together with its watch; the result is told.
    void RemoveWatchAtNextMessage() { mRemoveWatch = true; }
    /// Cuts the connection, as a bus that dies does.
    void LoseBus() const;
    /// Of the removal; -1 before it.
    int RemovalStatus() const { return mRemovalStatus; }

private:
    mw::tern::StatusCode OnMessage();

    mw::tern::DBusMessagePipe mPipe;
    mw::tern::EventLoop* mLoop = nullptr;
    std::atomic<int> mBusFd{-1};
    sd_bus_slot* mMatch = nullptr;
    std::atomic<unsigned> mReceived{0};
    std::atomic<bool> mStopped{false};
    std::atomic<bool> mRemoveWatch{false};
    std::atomic<int> mRemovalStatus{-1};
};

/// A whole extension in this process, and its client.
class Extension : public Running<ExtensionServer> {
public:
    using Running::Running;

    /// As a client of the bus: calls "Count" with a dictionary of two entries.
    bool Call();
    /// Sets the property and reads it back.
    bool UseProperty();
};

}  // namespace tern::test

#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/status_code.h>
#include <tern/service/dbus_message_pipe.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>

#include <functional>
#include <mutex>
#include <vector>

namespace thermostat {

/// Carries measurements from the control loop's thread to the D-Bus thread as ready-made "Measured" signals.
///
/// sd-bus messages are not thread-safe and belong to their bus's thread, which makes and releases all of them
/// here: it lends a few blank ones to the control loop, which fills one in and gives it back. A message is in
/// one pipe, or in one thread's hands, never in two.
///
/// A bus that does not read fills the connection's queue: what cannot be sent then is lost, the first loss is
/// logged, and their number when the sending works again.
class MeasurementChannel {
public:
    /// D-Bus thread. From now on each filled message runs `onMeasured` and is then sent.
    mw::tern::StatusCode Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop,
                              std::function<void(sd_bus*, double celsius)> onMeasured);
    /// D-Bus thread, after its loop has ended: ends every wait in `Send`, takes back and releases every
    /// message.
    void Close();

    /// Control thread. Waits a moment for a blank message; a D-Bus thread that is busy for longer loses this
    /// measurement, which the next one makes good. False when nothing was handed over.
    bool Send(double celsius);

private:
    mw::tern::StatusCode Lend();
    mw::tern::StatusCode OnFilled();
    int Announce(sd_bus_message* message);
    mw::tern::StatusCode EndAsFailed();

    mw::tern::DBusMessagePipe mBlank;
    mw::tern::DBusMessagePipe mFilled;
    sd_bus* mBus = nullptr;
    std::function<void(sd_bus*, double)> mOnMeasured;
    int mLent = 0;            ///< messages in the pipes or with the control loop
    unsigned long mLost = 0;  ///< measurements since the sending failed
    std::mutex mSending;
    bool mClosed = false;                   ///< guarded by mSending
    std::vector<sd_bus_message*> mRefused;  ///< filled, but refused by the pipe; guarded by mSending
};

}  // namespace thermostat

#pragma once

#include <tern/diagnostics/recorder.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <memory>
#include <string>

namespace mw::tern {
class DBusServerManager;
class EventLoop;
}  // namespace mw::tern

namespace mwl::Typed {
class Bus;
}  // namespace mwl::Typed

namespace mwl::Diagnostics {

/// What is shown and recorded.
struct Options {
    /// Whether the flight recorder is begun, unless it has been already. Without one what is counted of the
    /// library's objects is shown as 0, and messages and events are refused. The former life's end is shown
    /// only if the recorder has been begun by then; one that is begun later logs it.
    bool isRecording = true;
    /// Of the flight recorder, where it is begun here. Its version is the service's, also where nothing is
    /// recorded.
    RecorderOptions recorder{};
};

/// Shows on the bus, on the service's own name at /tern/diagnostics, what the service is doing and how its
/// former life ended: the interface tern.Diagnostics1 (contract.h). In IpcServer::Start, when the bus is
/// open, a line is all:
///
///     mDiagnostics = mwl::Diagnostics::Diagnostics::Export(mBus);
///     return mDiagnostics.GetStatus();
///
/// or Export(manager, loop), where there is no typed bus;
/// and in IpcServer::Stop, when the bus has been closed, or at the latest before the bus is destroyed:
///
///     mDiagnostics.Reset();
///
/// Closed to all but root, the service's own user and whoever has CAP_SYS_ADMIN, as far as the bus's policy
/// lets them through. Costs a call about a hundredth of its processor time, some 200 KiB of memory, and no
/// wake-up. What a filter of the application's, added later (sd_bus_add_filter(3)), keeps for itself is not
/// seen.
///
/// The flight recorder goes on when this is destroyed, until the process ends (Recorder). D-Bus thread only,
/// but for the constructor and for destroying one that has none. Manager and loop outlive it.
class TERN_API Diagnostics {
public:
    /// None; GetStatus is NotInitialized.
    Diagnostics() noexcept;
    /// Takes over what `other` shows, which then shows nothing.
    Diagnostics(Diagnostics&& other) noexcept;
    /// What was shown before goes.
    Diagnostics& operator=(Diagnostics&& other) noexcept;
    ~Diagnostics();

    /// Shows them on a bus that is open. In the result: Ok; or what Typed::Bus::Export, the loop or the
    /// recorder said, logged: then nothing is shown. A recorder that cannot be begun is logged and does not
    /// stand in the way.
    [[nodiscard]] static Diagnostics Export(Typed::Bus& bus, const Options& options = {});
    /// The same for a service without a typed bus: one is opened. Busy when the thread has one that is open.
    [[nodiscard]] static Diagnostics Export(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop,
                                            const Options& options = {});

    /// Whether there is something on the bus.
    explicit operator bool() const noexcept;
    /// Ok, or why Export failed.
    StatusCode GetStatus() const noexcept;
    /// Takes all that Export did back, but the recorder. A handler that calls it is recorded as ended here.
    /// Harmless to repeat.
    void Reset() noexcept;

private:
    struct State;

    std::unique_ptr<State> mState;
    StatusCode mStatus = StatusCode::NotInitialized;
};

}  // namespace mwl::Diagnostics

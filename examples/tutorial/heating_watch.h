#pragma once

#include <tern/service/ipc_server.h>
#include <tern/typed/bus.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/task.h>

#include <optional>

#include "thermostat_contract.h"

namespace heating_watch {

using my_thermostat::Thermostat1;

/// Watches the thermostat, and has it boost while the room is much too cold. D-Bus thread only.
class HeatingWatch : public mwl::DBusService::IpcServer {
public:
    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override { mBus.Close(); }

private:
    enum class State { Unknown, Warm, Cold, NoAnswer };

    void OnAppear();
    void OnVanish();
    /// Looks at the room once a second.
    mwl::Typed::Task<> Guard();
    /// Whether that is new, and so worth a line in the log.
    bool Enter(State state);

    mwl::Typed::Bus mBus;
    std::optional<mwl::Typed::Proxy<Thermostat1>> mThermostat;
    std::optional<mwl::Typed::PropertyCache<Thermostat1>> mProperties;
    mwl::Typed::Subscription mMeasured;
    mwl::Typed::PeerWatch mPeer;
    mwl::Typed::Task<> mGuard;
    std::optional<double> mRoom;  ///< degrees Celsius, the last that was measured
    State mState = State::Unknown;
};

}  // namespace heating_watch

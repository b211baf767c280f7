#pragma once

#include <tern/foundation/status_code.h>
#include <tern/threading/unique_function.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "room.h"
#include "thermostat_contract.h"

namespace thermostat {

/// The object behind com.example.Thermostat1. D-Bus thread only.
class ThermostatInterface final : public mwl::Typed::Implements<ThermostatInterface, Thermostat1> {
public:
    using ExportDone = mwl::UniqueFunction<void(const std::string& path, mw::tern::StatusCode result)>;

    /// The functions of the extension that the interface calls; each runs on the D-Bus thread.
    struct Actions {
        std::function<void(unsigned int seconds)> boost;
        /// False when the target could not be stored, and then it has not changed.
        std::function<bool(double celsius)> setTarget;
        /// Begins an export, which runs `done` when the archive is complete or has failed; destroys it when
        /// nobody waits any more. One at a time.
        std::function<void(const std::string& password, ExportDone done)> exportLog;
        /// False for a trial that is not known; empty where trials are not allowed.
        std::function<bool(const std::string& what)> trial;
    };

    /// The room outlives the interface.
    ThermostatInterface(const Room& room, Actions actions);

    /// Which function is which member; the compiler makes the vtable of it.
    static constexpr auto Describe() {
        using mwl::Typed::Bind;
        using Self = ThermostatInterface;
        return mwl::Typed::Bindings<
            Bind<Thermostat1::Boost, &Self::Boost>, Bind<Thermostat1::ExportLog, &Self::ExportLog>,
            Bind<Thermostat1::Trial, &Self::Trial>, Bind<Thermostat1::Temperature, &Self::mTemperature>,
            Bind<Thermostat1::Target, &Self::GetTarget, &Self::SetTarget>,
            Bind<Thermostat1::Heating, &Self::mHeating>>();
    }

    /// A new measurement is announced on the bus, with Heating where that has changed.
    void SetTemperature(double celsius);

private:
    mwl::Typed::Outcome<void> Boost(std::uint32_t seconds);
    void ExportLog(mwl::Typed::Reply<std::string> reply, const std::string& password);
    mwl::Typed::Outcome<void> Trial(const std::string& what);
    double GetTarget() const { return mRoom.GetTarget(); }
    mwl::Typed::Outcome<void> SetTarget(double celsius);

    const Room& mRoom;
    Actions mActions;
    double mTemperature;
    bool mHeating = false;
    std::weak_ptr<const bool> mExport;  ///< the export that runs
};

}  // namespace thermostat

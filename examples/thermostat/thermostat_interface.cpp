#include "thermostat_interface.h"

#include <memory>
#include <utility>

#include "names.h"

using mw::tern::StatusCode;
using mwl::Typed::Error;
using mwl::Typed::Outcome;
using mwl::Typed::Reply;

namespace thermostat {

namespace {

constexpr std::uint32_t MAX_BOOST_SECONDS = 3600;

constexpr const char* BUSY_ERROR = "com.example.Thermostat1.Error.Busy";

}  // namespace

ThermostatInterface::ThermostatInterface(const Room& room, Actions actions)
    : mRoom(room), mActions(std::move(actions)), mTemperature(room.GetTemperature()) {}

void ThermostatInterface::SetTemperature(double celsius) {
    mTemperature = celsius;
    Changed<Thermostat1::Temperature>();
    if (mHeating != mRoom.IsHeating()) {
        mHeating = !mHeating;
        Changed<Thermostat1::Heating>();
    }
    // A signal that cannot be sent, for example to a bus that does not read, is lost and logged; the next one
    // makes up for it.
    static_cast<void>(Emit<Thermostat1::Measured>(celsius));
}

Outcome<void> ThermostatInterface::Boost(std::uint32_t seconds) {
    if (seconds > MAX_BOOST_SECONDS) {
        return Error::InvalidArgs(std::to_string(seconds) + " seconds are more than an hour");
    }
    mActions.boost(seconds);
    return {};
}

void ThermostatInterface::ExportLog(Reply<std::string> reply, const std::string& password) {
    if (password.empty()) {
        reply.Fail(Error::InvalidArgs("the log is exported only with a password"));
        return;
    }
    if (!mExport.expired()) {
        reply.Fail(Error(BUSY_ERROR, "an export is running already, try again when it is done"));
        return;
    }
    const auto running = std::make_shared<const bool>(true);
    mExport = running;
    mActions.exportLog(password, [this, running, reply = std::move(reply)](const std::string& path,
                                                                           StatusCode result) mutable {
        const std::string status = mw::tern::ConvertStatusCodeToString(result);
        if (result == StatusCode::Ok) {
            reply.Return(path);
        } else {
            reply.Fail(Error::Failed("the archive " + path + " could not be written: " + status));
        }
        static_cast<void>(Emit<Thermostat1::LogExported>(path, status));
    });
}

Outcome<void> ThermostatInterface::Trial(const std::string& what) {
    if (!mActions.trial) {
        return Error::AccessDenied("trials need debug=1 in the settings");
    }
    if (!mActions.trial(what)) {
        return Error::InvalidArgs("there is no trial '" + what + "'");
    }
    return {};
}

Outcome<void> ThermostatInterface::SetTarget(double celsius) {
    if (!(celsius >= MIN_TARGET && celsius <= MAX_TARGET)) {
        return Error::InvalidArgs("the target has to be between 5 and 30 degrees");
    }
    if (!mActions.setTarget(celsius)) {
        return Error::Failed("the target could not be stored");
    }
    return {};
}

}  // namespace thermostat

#pragma once

#include <tern/synchronizer/observer.h>

#include "thermostat_server.h"

namespace thermostat {

/// Hands every measurement to the D-Bus thread. Control thread only.
class BusReporter : public mwl::tern::Synchronizer::Observer {
public:
    /// Both outlive the reporter.
    BusReporter(mwl::tern::Synchronizer::SubjectInterface& subject, ThermostatServer& server);
    /// A measurement that cannot be handed over is lost: the first loss is logged, and the number of losses
    /// when it works again.
    void OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) override;

private:
    ThermostatServer& mServer;
    unsigned long mLost = 0;  ///< measurements since the handing over failed
};

}  // namespace thermostat

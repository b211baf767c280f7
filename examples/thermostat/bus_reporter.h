#pragma once

#include <tern/synchronizer/observer.h>

#include "measurement_channel.h"

namespace thermostat {

/// Hands every measurement to the D-Bus thread. Control thread only.
class BusReporter : public mwl::tern::Synchronizer::Observer {
public:
    /// Both outlive the reporter.
    BusReporter(mwl::tern::Synchronizer::SubjectInterface& subject, MeasurementChannel& channel);
    void OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) override;

private:
    MeasurementChannel& mChannel;
};

}  // namespace thermostat

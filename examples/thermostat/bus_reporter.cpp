#include "bus_reporter.h"

#include <tern/foundation/log.h>
#include <tern/synchronizer/subject_interface.h>

#include "measurement.h"
#include "names.h"

namespace thermostat {

BusReporter::BusReporter(mwl::tern::Synchronizer::SubjectInterface& subject, ThermostatServer& server)
    : Observer(subject), mServer(server) {
    Measurement kind;
    subject.Attach(*this, kind);
}

void BusReporter::OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) {
    const bool isShown = mServer.Show(static_cast<const Measurement*>(notification)->GetCelsius());
    if (!isShown && ++mLost == 1) {
        TERN_LOG_NOTICE(LOGGER, "Measurements are not shown on the bus: it is closed or does not keep up");
    } else if (isShown && mLost > 0) {
        TERN_LOG_NOTICE(LOGGER, "Measurements are shown again, %lu were lost", mLost);
        mLost = 0;
    }
}

}  // namespace thermostat

#include "bus_reporter.h"

#include <tern/synchronizer/subject_interface.h>

#include "measurement.h"

namespace thermostat {

BusReporter::BusReporter(mwl::tern::Synchronizer::SubjectInterface& subject, MeasurementChannel& channel)
    : Observer(subject), mChannel(channel) {
    Measurement kind;
    subject.Attach(*this, kind);
}

void BusReporter::OnNotify(mwl::tern::Synchronizer::NotificationInterface* notification) {
    // One that is lost is made good by the next.
    static_cast<void>(mChannel.Send(static_cast<const Measurement*>(notification)->GetCelsius()));
}

}  // namespace thermostat

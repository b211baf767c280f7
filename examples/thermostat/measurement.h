#pragma once

#include <tern/synchronizer/notification_interface.h>

namespace thermostat {

/// A measurement on its way to whom it concerns, on the control thread.
class Measurement : public mwl::tern::Synchronizer::NotificationInterface {
public:
    static constexpr auto IDENTIFIER = mwl::tern::Synchronizer::NotificationIdentifier{1};

    explicit Measurement(double celsius = 0.0, bool heating = false)
        : NotificationInterface(IDENTIFIER), mCelsius(celsius), mHeating(heating) {}

    double GetCelsius() const { return mCelsius; }
    bool IsHeating() const { return mHeating; }

private:
    double mCelsius;
    bool mHeating;
};

}  // namespace thermostat

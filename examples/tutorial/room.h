#pragma once

#include <atomic>

namespace my_thermostat {

/// A simulated room: it cools towards the outside and warms while the heater is on.
///
/// Thread-safe: one thread steps it, others read it and set what it shall do.
class Room {
public:
    /// A tenth of a second passes. Returns the temperature in degrees Celsius.
    double Step();

    void SetTarget(double celsius) { mTarget = celsius; }
    double GetTarget() const { return mTarget; }
    double GetTemperature() const { return mTemperature; }
    /// Heats for this many steps, whatever the target says.
    void Boost(unsigned int steps) { mBoostSteps = steps; }

private:
    std::atomic<double> mTarget{20.0};
    std::atomic<double> mTemperature{17.0};
    std::atomic<unsigned int> mBoostSteps{0};
};

}  // namespace my_thermostat

#pragma once

#include <atomic>

namespace thermostat {

/// A simulated room: it cools towards the outside and warms while the heater is on. Stands in for sensor and
/// relay.
///
/// Thread-safe: the control loop steps it, the D-Bus thread sets target and boost.
class Room {
public:
    /// One sampling period passes. One thread only. Returns the measured temperature in degrees Celsius.
    double Step();

    /// The sensor's reading, in degrees Celsius; before the first step too.
    double GetTemperature() const { return mTemperature; }
    void SetTarget(double celsius) { mTarget = celsius; }
    double GetTarget() const { return mTarget; }
    /// Heats for this many steps, whatever the target says.
    void Boost(unsigned int steps) { mBoostSteps = steps; }
    bool IsHeating() const { return mHeating; }

private:
    std::atomic<double> mTarget{20.0};
    std::atomic<unsigned int> mBoostSteps{0};
    std::atomic<bool> mHeating{false};
    std::atomic<double> mTemperature{17.0};  ///< written by Step only
};

}  // namespace thermostat

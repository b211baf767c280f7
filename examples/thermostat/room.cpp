#include "room.h"

namespace thermostat {

namespace {

constexpr double OUTSIDE = 8.0;
constexpr double LOSS_PER_STEP = 0.002;
constexpr double HEATER_PER_STEP = 0.05;
constexpr double HYSTERESIS = 0.1;

}  // namespace

double Room::Step() {
    unsigned int boost = mBoostSteps;
    const bool boosting = boost > 0;
    if (boosting) {
        // A boost set meanwhile wins.
        mBoostSteps.compare_exchange_strong(boost, boost - 1);
    }
    const double before = mTemperature;
    if (boosting || before < mTarget - HYSTERESIS) {
        mHeating = true;
    } else if (before > mTarget + HYSTERESIS) {
        mHeating = false;
    }
    const double after = before + (OUTSIDE - before) * LOSS_PER_STEP + (mHeating ? HEATER_PER_STEP : 0.0);
    mTemperature = after;
    return after;
}

}  // namespace thermostat

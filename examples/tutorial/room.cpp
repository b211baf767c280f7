#include "room.h"

namespace my_thermostat {

namespace {

constexpr double OUTSIDE = 8.0;
constexpr double LOSS_PER_STEP = 0.002;
constexpr double HEATER_PER_STEP = 0.05;

}  // namespace

double Room::Step() {
    unsigned int boost = mBoostSteps;
    const bool heating = boost > 0 || mTemperature < mTarget;
    if (boost > 0) {
        mBoostSteps.compare_exchange_strong(boost, boost - 1);  // a boost set meanwhile wins
    }
    const double celsius = mTemperature;
    mTemperature = celsius + (OUTSIDE - celsius) * LOSS_PER_STEP + (heating ? HEATER_PER_STEP : 0.0);
    return mTemperature;
}

}  // namespace my_thermostat

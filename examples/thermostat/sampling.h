#pragma once

#include <tern/foundation/component_runtime_interface.h>
#include <tern/timer/short_period_timer.h>

#include <functional>

namespace thermostat {

/// The sampling timer as a member of the extension's group of components. Main thread only.
class Sampling : public mw::tern::ComponentRuntimeInterface {
public:
    Sampling(unsigned int periodMs, std::function<void()> onSample)
        : mTimer(periodMs, true, std::move(onSample)) {}

    mw::tern::StatusCode Initialize() override { return mw::tern::StatusCode::Ok; }
    mw::tern::StatusCode Start() override { return mTimer.Start(); }
    /// Waits for the next sample at most.
    mw::tern::StatusCode Stop() override { return mTimer.Stop(); }
    mw::tern::StatusCode Destroy() override { return mw::tern::StatusCode::Ok; }

private:
    mwl::Timer::ShortPeriodTimer mTimer;
};

}  // namespace thermostat

#pragma once

#include <tern/foundation/component_runtime_interface.h>
#include <tern/queued_processings/component.h>

namespace thermostat {

/// The control thread as a member of the extension's group of components. Main thread only, except for
/// WakeUp.
class ControlWorker : public mw::tern::ComponentRuntimeInterface {
public:
    /// Both outlive the worker.
    ControlWorker(mwl::Threading::ThreadsMonitorInterface& monitor,
                  mwl::QueuedProcessings::ExecutorInterface& executor)
        : mComponent("control", "control", monitor, executor) {}

    mw::tern::StatusCode Initialize() override { return mw::tern::StatusCode::Ok; }
    mw::tern::StatusCode Start() override { return mComponent.Start(); }
    mw::tern::StatusCode Stop() override {
        mComponent.Stop();
        mComponent.Join();
        return mw::tern::StatusCode::Ok;
    }
    mw::tern::StatusCode Destroy() override { return mw::tern::StatusCode::Ok; }

    /// Any thread.
    void WakeUp() { mComponent.WakeUp(); }

private:
    mwl::QueuedProcessings::Component mComponent;
};

}  // namespace thermostat

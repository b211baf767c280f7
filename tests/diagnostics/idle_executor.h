#pragma once

#include <tern/queued_processings/executor_interface.h>

namespace tern::test {

/// Of a component that only has to be there.
class IdleExecutor : public mwl::QueuedProcessings::ExecutorInterface {
    mw::tern::StatusCode Initialize() override { return mw::tern::StatusCode::Ok; }
    void Execute() override {}
    void Stop() override {}
};

}  // namespace tern::test

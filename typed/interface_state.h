#pragma once

#include <tern/typed/interface_base.h>
#include <tern/typed/task_set.h>

#include <cstdint>

#include "typed/log_limit.h"

namespace mwl::Typed {

/// Grows without the classes derived from InterfaceBase noticing.
struct InterfaceBase::State {
    Attachment* attachment = nullptr;
    std::string path;
    /// A bit for each property that announces its changes and has changed, by its number among them.
    std::uint64_t changes = 0;
    /// Which answer calls of this interface.
    TaskSet tasks;
    bool hasLoggedThatItIsAlone = false;
    LogLimit failures;  ///< of the service
    LogLimit refusals;  ///< for a reason that is reported to the caller
};

}  // namespace mwl::Typed

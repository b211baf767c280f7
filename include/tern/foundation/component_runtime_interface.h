#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mw::tern {

/// A part of the application that is initialised, started, stopped and destroyed, alone or as a member of a
/// CompositeRuntime.
///
/// The intended order is Initialize, Start, Stop, Destroy. Each operation answers StatusCode::Ok or the
/// reason of its failure; what threads may call it is the implementation's.
class TERN_API ComponentRuntimeInterface {
public:
    virtual ~ComponentRuntimeInterface() = default;
    /// Makes the component ready to start; its threads do not run yet.
    virtual StatusCode Initialize() = 0;
    /// Undoes Initialize.
    virtual StatusCode Destroy() = 0;
    /// Sets it to work.
    virtual StatusCode Start() = 0;
    /// Undoes Start.
    virtual StatusCode Stop() = 0;
};

}  // namespace mw::tern

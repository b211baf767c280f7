#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mwl::DBusService {

/// The main thread's operations on the D-Bus thread; see `Component`.
class TERN_API ComponentInterface {
public:
    virtual ~ComponentInterface();
    /// See Component::Initialize.
    virtual StatusCode Initialize() const = 0;
    /// See Component::Start.
    virtual StatusCode Start() = 0;
    /// See Component::JoinThread.
    virtual void JoinThread() = 0;
};

}  // namespace mwl::DBusService

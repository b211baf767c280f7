#pragma once

#include <tern/foundation/api.h>

namespace mwl::tern::Synchronizer {

class NotificationInterface;

/// Receives notifications of a subject; see Observer, which also ends its registrations by itself.
class TERN_API ObserverInterface {
public:
    virtual ~ObserverInterface() = default;
    /// Called by SubjectInterface::Notify on the notifying thread. `notification` is never null and is valid
    /// during the call only.
    virtual void OnNotify(NotificationInterface* notification) = 0;
};

}  // namespace mwl::tern::Synchronizer

#pragma once

#include <tern/foundation/api.h>

namespace mwl::tern::Synchronizer {

class NotificationInterface;
class ObserverInterface;

/// Publishes notifications to the observers registered for their identifier; see Subject.
class TERN_API SubjectInterface {
public:
    virtual ~SubjectInterface() = default;
    /// Registers the observer for the notification's identifier.
    virtual void Attach(ObserverInterface& observer, NotificationInterface& notification) = 0;
    /// Ends the observer's registration for the notification's identifier.
    virtual void Detach(const ObserverInterface& observer, NotificationInterface& notification) = 0;
    /// Ends every registration of the observer.
    virtual void Detach(const ObserverInterface& observer) = 0;
    /// Calls the observers registered for the notification's identifier.
    virtual void Notify(NotificationInterface& notification) = 0;
};

}  // namespace mwl::tern::Synchronizer

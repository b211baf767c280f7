#pragma once

#include <tern/foundation/api.h>
#include <tern/synchronizer/observer_interface.h>

namespace mwl::tern::Synchronizer {

class SubjectInterface;

/// A receiver of notifications that ends its registrations when it is destroyed. Derive from it and override
/// OnNotify. It starts without a registration: whoever holds the subject attaches it, once a kind.
///
/// One thread at a time, together with its subject, which must outlive it. An exception of the subject's
/// Detach in the destructor ends the process.
class TERN_API Observer : public ObserverInterface {
public:
    /// Stores the subject and calls this class's own Init, not that of a derived class.
    explicit Observer(SubjectInterface& subject);
    /// Ends every registration at the subject.
    ~Observer() override;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    /// Logs (error) that the identifier is not supported.
    void OnNotify(NotificationInterface* notification) override;
    /// Does nothing. A derived class that overrides it calls it from its own constructor.
    virtual void Init();

private:
    SubjectInterface& mSubject;
};

}  // namespace mwl::tern::Synchronizer

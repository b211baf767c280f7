#pragma once

#include <tern/foundation/api.h>
#include <tern/synchronizer/notification_interface.h>
#include <tern/synchronizer/subject_interface.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace mwl::tern::Synchronizer {

/// Fans notifications out, on the caller's thread, to the observers registered for their identifier.
///
/// Attaching, detaching and looking for a pair take as long among many observers as among few; what counts is
/// for how many identifiers the one observer is attached. Notifying grows with the length of the list.
///
/// One thread at a time: there is no lock. An observer may, while it is being notified, attach and detach
/// itself and others, notify again, and destroy itself or others; it must not destroy the subject. Observers
/// are not owned. An Observer refers to its subject until its own end, so the subject outlives it.
class TERN_API Subject : public SubjectInterface {
public:
    Subject() = default;
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    /// Appends the pair (identifier of the notification, observer); a pair that is there already is not added
    /// again. Only the notification's identifier is kept. During a Notify of that identifier the new observer
    /// is notified as well; one that this Notify has called already and that was detached since is not called
    /// by it again. An observer is known by its address: an observer created where another was destroyed
    /// counts as the other one.
    void Attach(ObserverInterface& observer, NotificationInterface& notification) override;
    /// Removes that pair; nothing happens when there is none. The others keep their order. During a
    /// Notify this may take memory; without any, std::bad_alloc passes through and the pair stays.
    void Detach(const ObserverInterface& observer, NotificationInterface& notification) override;
    /// Removes every pair of the observer. During a Notify it is not called any more, and nobody else is
    /// skipped or called twice. Memory as above, pair by pair.
    void Detach(const ObserverInterface& observer) override;
    /// Calls OnNotify of every observer registered for the notification's identifier, in the order of their
    /// registration, each once, however often it is detached and attached again meanwhile. An exception of an
    /// observer ends the walk and passes through.
    void Notify(NotificationInterface& notification) override;
    /// Whether exactly this pair is registered.
    bool Exist(std::pair<NotificationIdentifier, ObserverInterface*> registration) const;

private:
    using Pair = std::pair<NotificationIdentifier, ObserverInterface*>;
    /// In the list in the order in which they were attached. A registration that was detached leaves its
    /// place empty, with no observer, until the list is closed up.
    struct Registration {
        Pair pair;
        std::uint64_t links;  ///< of the index, which the list is as well
    };
    /// A Notify under way.
    struct Walk {
        bool HasCalled(const Registration& registration) const;

        std::uint64_t begun;       ///< the length of the list when it began: what is behind that is newer
        std::uint64_t reached;     ///< how far it is: up to and with the registration called last
        std::vector<Pair> passed;  ///< those detached since the walk was past them
        Walk* outer;               ///< the walk that this one interrupted
    };

    std::size_t FindAfter(std::uint64_t position) const;
    std::vector<Registration>::iterator Remove(std::vector<Registration>::iterator entry);

    std::vector<Registration> mRegistrations;
    Walk* mInnermostWalk = nullptr;
};

}  // namespace mwl::tern::Synchronizer

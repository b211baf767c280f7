#include <tern/synchronizer/observer_interface.h>
#include <tern/synchronizer/subject.h>

#include <algorithm>

namespace mwl::tern::Synchronizer {

/// Lets the subject know of the walk for as long as it lasts, however it ends.
class Subject::WalkScope {
public:
    explicit WalkScope(Subject& subject) : mSubject(subject), mWalk{0, subject.mInnermostWalk} {
        mSubject.mInnermostWalk = &mWalk;
    }
    ~WalkScope() { mSubject.mInnermostWalk = mWalk.outer; }
    WalkScope(const WalkScope&) = delete;
    WalkScope& operator=(const WalkScope&) = delete;

    /// The position to look at now; the walk is already past it.
    std::size_t Advance() { return mWalk.next++; }
    bool AtEnd() const { return mWalk.next >= mSubject.mRegistrations.size(); }

private:
    Subject& mSubject;
    Walk mWalk;
};

void Subject::Attach(ObserverInterface& observer, NotificationInterface& notification) {
    const std::pair registration(notification.GetIdentifier(), &observer);
    if (!Exist(registration)) {
        mRegistrations.push_back(registration);
    }
}

void Subject::Detach(const ObserverInterface& observer, NotificationInterface& notification) {
    for (std::size_t i = 0; i < mRegistrations.size(); ++i) {
        if (mRegistrations[i].first == notification.GetIdentifier() &&
            mRegistrations[i].second == &observer) {
            Remove(i);
            return;
        }
    }
}

void Subject::Detach(const ObserverInterface& observer) {
    for (std::size_t i = mRegistrations.size(); i-- > 0;) {
        if (mRegistrations[i].second == &observer) {
            Remove(i);
        }
    }
}

// By index, and the size looked at each time: an observer may change the list while it is being called.
void Subject::Notify(NotificationInterface& notification) {
    WalkScope walk(*this);
    while (!walk.AtEnd()) {
        const auto [identifier, observer] = mRegistrations[walk.Advance()];
        if (identifier == notification.GetIdentifier() && observer != nullptr) {
            observer->OnNotify(&notification);
        }
    }
}

bool Subject::Exist(std::pair<NotificationIdentifier, ObserverInterface*> registration) const {
    return std::find(mRegistrations.begin(), mRegistrations.end(), registration) != mRegistrations.end();
}

void Subject::Remove(std::size_t position) {
    mRegistrations.erase(mRegistrations.begin() + static_cast<std::ptrdiff_t>(position));
    // What follows has moved up by one, so the walks that are past the gap step back with it.
    for (Walk* walk = mInnermostWalk; walk != nullptr; walk = walk->outer) {
        if (position < walk->next) {
            --walk->next;
        }
    }
}

}  // namespace mwl::tern::Synchronizer

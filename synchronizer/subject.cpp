#include <tern/synchronizer/observer_interface.h>
#include <tern/synchronizer/subject.h>

#include <algorithm>

namespace mwl::tern::Synchronizer {

namespace {

using Registration = std::pair<NotificationIdentifier, ObserverInterface*>;

}  // namespace

/// Lets the subject know of the walk for as long as it lasts, however it ends. Every Walk is one of these.
class Subject::WalkScope : private Walk {
public:
    explicit WalkScope(Subject& subject)
        : Walk{0, subject.mInnermostWalk}, mSubject(subject), mFirstNew(subject.mRegistrations.size()) {
        mSubject.mInnermostWalk = this;
    }
    ~WalkScope() { mSubject.mInnermostWalk = outer; }
    WalkScope(const WalkScope&) = delete;
    WalkScope& operator=(const WalkScope&) = delete;

    static WalkScope* Innermost(const Subject& subject) {
        return static_cast<WalkScope*>(subject.mInnermostWalk);
    }
    WalkScope* Outer() const { return static_cast<WalkScope*>(outer); }

    /// The position to look at now; the walk is already past it.
    std::size_t Advance() { return next++; }
    bool AtEnd() const { return next >= mSubject.mRegistrations.size(); }

    /// Before the pair at the position is removed: one that the walk is past does not come again when it is
    /// attached again, or an observer that detaches and attaches itself would be called for ever.
    void KeepPassed(std::size_t position) {
        if (position < next) {
            mPassed.push_back(mSubject.mRegistrations[position]);
        }
    }
    /// After that: what follows has moved up by one, so a walk that is past the gap steps back with it.
    void CloseGap(std::size_t position) {
        if (position < next) {
            --next;
        }
        if (position < mFirstNew) {
            --mFirstNew;
        }
    }
    /// Whether the walk is back at a pair that it passed before; only one attached meanwhile can be that.
    bool IsAgainAt(const Registration& registration) const {
        return next > mFirstNew && std::find(mPassed.begin(), mPassed.end(), registration) != mPassed.end();
    }

private:
    Subject& mSubject;
    std::size_t mFirstNew;  ///< position of the first pair attached since the walk began
    std::vector<Registration> mPassed;
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
        const Registration registration = mRegistrations[walk.Advance()];
        if (registration.first == notification.GetIdentifier() && registration.second != nullptr &&
            !walk.IsAgainAt(registration)) {
            registration.second->OnNotify(&notification);
        }
    }
}

bool Subject::Exist(std::pair<NotificationIdentifier, ObserverInterface*> registration) const {
    return std::find(mRegistrations.begin(), mRegistrations.end(), registration) != mRegistrations.end();
}

// What takes memory comes first: without it the list and the walks stay as they were.
void Subject::Remove(std::size_t position) {
    for (WalkScope* walk = WalkScope::Innermost(*this); walk != nullptr; walk = walk->Outer()) {
        walk->KeepPassed(position);
    }
    mRegistrations.erase(mRegistrations.begin() + static_cast<std::ptrdiff_t>(position));
    for (WalkScope* walk = WalkScope::Innermost(*this); walk != nullptr; walk = walk->Outer()) {
        walk->CloseGap(position);
    }
}

}  // namespace mwl::tern::Synchronizer

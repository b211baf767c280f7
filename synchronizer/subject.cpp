#include <tern/synchronizer/observer_interface.h>
#include <tern/synchronizer/subject.h>

#include <algorithm>
#include <atomic>

namespace mwl::tern::Synchronizer {

namespace {

/// A number higher than all before. Of the whole process, so that a subject needs no counter.
std::uint64_t NextNumber() {
    static std::atomic<std::uint64_t> latest{0};
    return latest.fetch_add(1, std::memory_order_relaxed) + 1;
}

/// Puts the pointer to something of this block in its place, and the former one back at the end of the block.
template <typename Type>
class ScopedPointer {
public:
    ScopedPointer(Type*& place, Type* pointer) : mPlace(place), mFormer(place) { mPlace = pointer; }
    ~ScopedPointer() { mPlace = mFormer; }
    ScopedPointer(const ScopedPointer&) = delete;
    ScopedPointer& operator=(const ScopedPointer&) = delete;

private:
    Type*& mPlace;
    Type* const mFormer;
};

}  // namespace

void Subject::Attach(ObserverInterface& observer, NotificationInterface& notification) {
    const Pair pair(notification.GetIdentifier(), &observer);
    if (!Exist(pair)) {
        mRegistrations.push_back({pair, NextNumber()});
    }
}

void Subject::Detach(const ObserverInterface& observer, NotificationInterface& notification) {
    const auto found = std::find_if(mRegistrations.begin(), mRegistrations.end(), [&](const auto& entry) {
        return entry.pair.first == notification.GetIdentifier() && entry.pair.second == &observer;
    });
    if (found != mRegistrations.end()) {
        static_cast<void>(Remove(found));
    }
}

void Subject::Detach(const ObserverInterface& observer) {
    for (auto entry = mRegistrations.begin(); entry != mRegistrations.end();) {
        entry = entry->pair.second == &observer ? Remove(entry) : entry + 1;
    }
}

// Where a walk stands is told by the number of the registration that it called last: whatever an observer
// does to the list while it is called, the walk goes on with the next higher number.
void Subject::Notify(NotificationInterface& notification) {
    Walk walk{NextNumber(), 0, {}, mInnermostWalk};
    const ScopedPointer innermost(mInnermostWalk, &walk);
    std::size_t position = 0;
    while (position < mRegistrations.size()) {
        const Registration& registration = mRegistrations[position];
        if (registration.pair.first == notification.GetIdentifier() && registration.pair.second != nullptr &&
            !walk.HasCalled(registration)) {
            walk.reached = registration.number;
            registration.pair.second->OnNotify(&notification);
            if (position >= mRegistrations.size() || mRegistrations[position].number != walk.reached) {
                position = FindAfter(walk.reached);
                continue;
            }
        }
        ++position;
    }
}

bool Subject::Exist(std::pair<NotificationIdentifier, ObserverInterface*> registration) const {
    return std::any_of(mRegistrations.begin(), mRegistrations.end(),
                       [&](const Registration& entry) { return entry.pair == registration; });
}

/// One attached since the walk began may be one that it called and that was detached and attached again.
bool Subject::Walk::HasCalled(const Registration& registration) const {
    return registration.number > begun &&
           std::find(passed.begin(), passed.end(), registration.pair) != passed.end();
}

/// The position of the first registration with a higher number.
std::size_t Subject::FindAfter(std::uint64_t number) const {
    const auto next = std::upper_bound(
        mRegistrations.begin(), mRegistrations.end(), number,
        [](std::uint64_t passed, const Registration& entry) { return passed < entry.number; });
    return static_cast<std::size_t>(next - mRegistrations.begin());
}

// What takes memory comes first: without it the list stays as it was.
std::vector<Subject::Registration>::iterator Subject::Remove(std::vector<Registration>::iterator entry) {
    for (Walk* walk = mInnermostWalk; walk != nullptr; walk = walk->outer) {
        // One that the walk is past does not come again when it is attached again, or an observer that
        // detaches and attaches itself would be called for ever.
        if (entry->number <= walk->reached) {
            walk->passed.push_back(entry->pair);
        }
    }
    return mRegistrations.erase(entry);
}

}  // namespace mwl::tern::Synchronizer

#include <tern/synchronizer/subject.h>

#include <tern/synchronizer/observer_interface.h>

#include <algorithm>
#include <bit>
#include <cstdint>

namespace mwl::tern::Synchronizer {

namespace {

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

/// The part of the index in an entry of the list. A link is a position plus one; none is 0.
struct Links {
    std::uint32_t first;  ///< of the chain that begins at this place
    std::uint32_t next;   ///< behind this registration, in the chain that it is in
};

/// The list of a subject as an index to itself. Of as many places as the largest power of two within the
/// list's length, each begins a chain of those whose observer leads to it; chains are built again when the
/// length reaches the next power. So nothing is kept beside the list, and a registration is found in a step
/// or two, however many there are.
template <typename Registration>
class Index {
public:
    explicit Index(std::vector<Registration>& list) : mList(list) {}

    /// The link to the newest of those whose observer leads to the same place. REQUIRES: the list is not
    /// empty.
    std::uint32_t First(const ObserverInterface* observer) const { return Get(Place(observer)).first; }

    /// The link behind this one.
    std::uint32_t Next(std::uint32_t link) const { return Get(link - 1).next; }

    /// The link to this pair, 0 without one.
    template <typename Pair>
    std::uint32_t Find(const Pair& pair) const {
        std::uint32_t link = mList.empty() ? 0 : First(pair.second);
        while (link != 0 && mList[link - 1].pair != pair) {
            link = Next(link);
        }
        return link;
    }

    /// Enters the last of the list.
    void EnterLast() {
        if (std::has_single_bit(mList.size())) {
            EnterAll();
        } else {
            Enter(mList.size() - 1);
        }
    }

    /// Takes one out; it stays in the list. REQUIRES: it has its observer still.
    void TakeOut(std::size_t position) {
        const auto own = static_cast<std::uint32_t>(position + 1);
        const std::size_t place = Place(mList[position].pair.second);
        std::uint32_t before = First(mList[position].pair.second);
        if (before == own) {
            Set(place, {Next(own), Get(place).next});
            return;
        }
        while (Next(before) != own) {
            before = Next(before);
        }
        Set(before - 1, {Get(before - 1).first, Next(own)});
    }

    /// Enters all again that have an observer.
    void EnterAll() {
        for (std::size_t position = 0; position < mList.size(); ++position) {
            Set(position, {0, 0});
        }
        for (std::size_t position = 0; position < mList.size(); ++position) {
            if (mList[position].pair.second != nullptr) {
                Enter(position);
            }
        }
    }

private:
    /// Where the chain of this observer begins.
    std::size_t Place(const ObserverInterface* observer) const {
        // The lowest bits of an address are always the same; the multiplication spreads the rest.
        const std::uint64_t spread =
            (reinterpret_cast<std::uintptr_t>(observer) >> 3) * std::uint64_t{0x9E3779B97F4A7C15};
        return static_cast<std::size_t>(spread >> 32) & (std::bit_floor(mList.size()) - 1);
    }
    Links Get(std::size_t position) const { return std::bit_cast<Links>(mList[position].links); }
    void Set(std::size_t position, Links links) {
        mList[position].links = std::bit_cast<std::uint64_t>(links);
    }
    void Enter(std::size_t position) {
        const std::size_t place = Place(mList[position].pair.second);
        Set(position, {Get(position).first, Get(place).first});
        Set(place, {static_cast<std::uint32_t>(position + 1), Get(place).next});
    }

    std::vector<Registration>& mList;
};

/// How many of the first so many places are empty.
template <typename Registration>
std::size_t EmptyPlaces(const std::vector<Registration>& list, std::uint64_t count) {
    const auto end = list.begin() + static_cast<std::ptrdiff_t>(count);
    return static_cast<std::size_t>(std::count_if(
        list.begin(), end, [](const Registration& entry) { return entry.pair.second == nullptr; }));
}

/// Leaves no place empty, and corrects the position of each walk. Takes no memory.
template <typename Registration, typename Walk>
void CloseUp(std::vector<Registration>& list, Walk* innermost) {
    for (Walk* walk = innermost; walk != nullptr; walk = walk->outer) {
        walk->begun -= EmptyPlaces(list, walk->begun);
        walk->reached -= EmptyPlaces(list, walk->reached);
    }
    std::erase_if(list, [](const Registration& entry) { return entry.pair.second == nullptr; });
    Index(list).EnterAll();
}

}  // namespace

// Where the list grows into the next power of two it is closed up instead, if half of it is empty by then: so
// it grows no further than the observers do, and moving them costs each of them its share only.
void Subject::Attach(ObserverInterface& observer, NotificationInterface& notification) {
    const Pair pair(notification.GetIdentifier(), &observer);
    if (Exist(pair)) {
        return;
    }
    const std::size_t size = mRegistrations.size();
    if (std::has_single_bit(size + 1) && size != 0 && EmptyPlaces(mRegistrations, size) * 2 >= size) {
        CloseUp(mRegistrations, mInnermostWalk);
    }
    mRegistrations.push_back({pair, 0});
    Index(mRegistrations).EnterLast();
}

void Subject::Detach(const ObserverInterface& observer, NotificationInterface& notification) {
    const Pair pair(notification.GetIdentifier(), const_cast<ObserverInterface*>(&observer));
    const std::uint32_t link = Index(mRegistrations).Find(pair);
    if (link != 0) {
        static_cast<void>(Remove(mRegistrations.begin() + static_cast<std::ptrdiff_t>(link - 1)));
    }
}

void Subject::Detach(const ObserverInterface& observer) {
    if (mRegistrations.empty()) {
        return;
    }
    const Index index(mRegistrations);
    for (std::uint32_t link = index.First(&observer); link != 0;) {
        const auto entry = mRegistrations.begin() + static_cast<std::ptrdiff_t>(link - 1);
        link = index.Next(link);
        if (entry->pair.second == &observer) {
            static_cast<void>(Remove(entry));
        }
    }
}

// Each walk keeps its own position: whatever an observer does to the list while it is called, closing it up
// included, the walk goes on behind the registration that it called last.
void Subject::Notify(NotificationInterface& notification) {
    Walk walk{mRegistrations.size(), 0, {}, mInnermostWalk};
    std::size_t empty = 0;
    {
        const ScopedPointer innermost(mInnermostWalk, &walk);
        std::size_t position = 0;
        while (position < mRegistrations.size()) {
            const Registration& registration = mRegistrations[position];
            if (registration.pair.second == nullptr) {
                const std::size_t next = FindAfter(position);
                empty += next - position;
                position = next;
            } else if (registration.pair.first == notification.GetIdentifier() &&
                       // A registration that is newer than the walk may be one that the walk called, detached
                       // and attached again.
                       (position < walk.begun || !walk.HasCalled(registration))) {
                walk.reached = position + 1;
                registration.pair.second->OnNotify(&notification);
                position = static_cast<std::size_t>(walk.reached);
            } else {
                ++position;
            }
        }
    }
    if (empty * 2 > mRegistrations.size()) {
        CloseUp(mRegistrations, mInnermostWalk);
    }
}

bool Subject::Exist(std::pair<NotificationIdentifier, ObserverInterface*> registration) const {
    // It only reads the list.
    return Index(const_cast<std::vector<Registration>&>(mRegistrations)).Find(registration) != 0;
}

bool Subject::Walk::HasCalled(const Registration& registration) const {
    return std::find(passed.begin(), passed.end(), registration.pair) != passed.end();
}

/// The first position behind this one whose place is not empty; the length of the list without one.
std::size_t Subject::FindAfter(std::uint64_t position) const {
    std::size_t next = static_cast<std::size_t>(position) + 1;
    while (next < mRegistrations.size() && mRegistrations[next].pair.second == nullptr) {
        ++next;
    }
    return next;
}

// The step that takes memory comes first: when there is none, the list stays as it was. Returns the place
// after it.
std::vector<Subject::Registration>::iterator Subject::Remove(std::vector<Registration>::iterator entry) {
    const auto position = static_cast<std::size_t>(entry - mRegistrations.begin());
    for (Walk* walk = mInnermostWalk; walk != nullptr; walk = walk->outer) {
        // A registration that the walk has passed is not called again when it is attached again, or an
        // observer that detaches and attaches itself would be called for ever.
        if (position < walk->reached) {
            walk->passed.push_back(entry->pair);
        }
    }
    Index(mRegistrations).TakeOut(position);
    entry->pair.second = nullptr;
    return entry + 1;
}

}  // namespace mwl::tern::Synchronizer

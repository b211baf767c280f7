#include "typed/changes.h"

#include <tern/foundation/log.h>
#include <tern/typed/interface_base.h>

#include <algorithm>
#include <ctime>
#include <limits>

#include "foundation/error_text.h"
#include "platform/static_text.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

constexpr std::uint64_t NEVER = std::numeric_limits<std::uint64_t>::max();
/// How late the end of a period may be seen; microseconds.
constexpr std::uint64_t ACCURACY = 1000;

}  // namespace

void Changes::ReserveInterfaces(std::size_t count) {
    const std::size_t wanted = mInterfaces + count;
    for (std::vector<InterfaceBase*>* const room : {&mChanged, &mAnnounced}) {
        if (room->capacity() < wanted) {
            room->reserve(std::max(wanted, 2 * room->capacity()));
        }
    }
}

void Changes::RemoveInterface(InterfaceBase& interface) noexcept {
    --mInterfaces;
    Forget(interface);
    mHeldUntil.erase(&interface);
}

void Changes::Add(InterfaceBase& interface) noexcept {
    mChanged.push_back(&interface);
    mWake();
}

void Changes::Forget(InterfaceBase& interface) noexcept {
    InterfaceBase::Names names;
    if (interface.TakeChanges(names) > 0) {
        std::erase(mChanged, &interface);
        std::replace(mAnnounced.begin(), mAnnounced.end(), &interface, static_cast<InterfaceBase*>(nullptr));
    }
}

void Changes::SetPeriod(std::uint64_t period) {
    mPeriod = period;
    mHeldUntil.clear();
    if (!mChanged.empty()) {
        mWake();
    }
}

void Changes::Announce(sd_bus* bus, sd_event* loop, Which which,
                       const std::function<bool(const InterfaceBase&)>& isNotAnnounced) {
    if (mIsAnnouncing) {
        return;
    }
    /// Whatever happens, what was not announced waits for the next time.
    struct Rest {
        Changes& changes;
        ~Rest() {
            for (InterfaceBase* const interface : changes.mAnnounced) {
                if (interface != nullptr) {
                    changes.mChanged.push_back(interface);
                }
            }
            changes.mAnnounced.clear();
            changes.mIsAnnouncing = false;
        }
    };
    std::uint64_t now = 0;
    std::uint64_t next = NEVER;
    if (mPeriod > 0) {
        static_cast<void>(sd_event_now(loop, CLOCK_MONOTONIC, &now));  // a known clock
    }
    {
        mIsAnnouncing = true;
        const Rest rest{*this};
        mAnnounced.swap(mChanged);
        // By index: a getter may export and remove what it likes.
        for (std::size_t i = 0; i < mAnnounced.size(); ++i) {
            InterfaceBase* const interface = mAnnounced[i];
            if (interface == nullptr || isNotAnnounced(*interface)) {
                continue;
            }
            if (mPeriod > 0) {
                std::uint64_t& heldUntil = mHeldUntil[interface];
                if (which == Which::Due && now < heldUntil) {
                    next = std::min(next, heldUntil);
                    continue;
                }
                heldUntil = now + mPeriod;
            }
            mAnnounced[i] = nullptr;
            AnnounceOne(bus, *interface);
        }
    }
    if (next != NEVER) {
        WakeAt(loop, next);
    }
}

void Changes::AnnounceOne(sd_bus* bus, InterfaceBase& interface) {
    InterfaceBase::Names names;
    const std::size_t count = interface.TakeChanges(names);
    if (count == 0) {
        return;
    }
    // A copy: the interface may leave its path in one of its getters.
    mPath = interface.GetPath();
    Send(bus, interface, names.data(), count);
}

void Changes::Send(sd_bus* bus, const InterfaceBase& interface, char** names, std::size_t count) {
    const int r = sd_bus_emit_properties_changed_strv(bus, mPath.c_str(), interface.GetName().c_str(), names);
    if (r >= 0) {
        ++mSent;
        return;
    }
    if (count > 1 && interface.GetAttachment() != nullptr) {
        // A property that cannot be read must not hold back the others.
        for (std::size_t i = 0; i < count; ++i) {
            char* one[] = {names[i], nullptr};
            Send(bus, interface, one, 1);
        }
        return;
    }
    ++mUnsent;
    unsigned long omitted = 0;
    if (mLimit.Allows(omitted)) {
        TERN_LOG_ERROR(LOGGER,
                       "Failed to announce the change of %s.%s of %s (%d, %s) (%lu like it not logged)",
                       interface.GetName().c_str(), names[0], mPath.c_str(), r, ErrorText(-r), omitted);
    }
}

void Changes::WakeAt(sd_event* loop, std::uint64_t time) {
    int r = 0;
    if (mTimer == nullptr) {
        sd_event_source* timer = nullptr;
        r = sd_event_add_time(loop, &timer, CLOCK_MONOTONIC, time, ACCURACY, OnTime, this);
        mTimer.reset(timer);
    } else {
        r = sd_event_source_set_time(mTimer.get(), time);
        r = r < 0 ? r : sd_event_source_set_enabled(mTimer.get(), SD_EVENT_ONESHOT);
    }
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to wait for the end of the period of changes (%d, %s)", r,
                       ErrorText(-r));
        // Too early is better than never.
        mHeldUntil.clear();
        mWake();
    }
}

int Changes::OnTime(sd_event_source*, uint64_t, void* userdata) {
    static_cast<Changes*>(userdata)->mWake();
    return 0;
}

}  // namespace mwl::Typed

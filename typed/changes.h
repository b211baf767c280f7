#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "typed/handles.h"
#include "typed/log_limit.h"

namespace mwl::Typed {

class InterfaceBase;

/// The interfaces whose properties have changed since the last announcement, and the announcements.
///
/// D-Bus thread only.
class Changes {
public:
    /// Which of the changes.
    enum class Which { Due, All };

    /// `wake` is called when there is something for the end of the turn.
    explicit Changes(std::function<void()> wake) : mWake(std::move(wake)) {}
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;

    /// Room for so many more interfaces. Throws std::bad_alloc; nothing has changed then.
    void ReserveInterfaces(std::size_t count);
    /// One more interface may change. REQUIRES: there is room for it.
    void AddInterface() noexcept { ++mInterfaces; }
    /// It no longer does; what is noted of it is forgotten.
    void RemoveInterface(InterfaceBase& interface) noexcept;

    /// Attachment::OnChanged.
    void Add(InterfaceBase& interface) noexcept;
    /// The noted changes of the interface need no announcement.
    void Forget(InterfaceBase& interface) noexcept;

    /// Microseconds; 0 for none. Changes that the former period holds back are announced at the end of this
    /// turn.
    void SetPeriod(std::uint64_t period);
    /// Announces; what is not due wakes the turn again when it is. Getters run meanwhile, which may do
    /// anything; a call by one of them does nothing. What is of an object that is not announced is left
    /// for the next time.
    void Announce(sd_bus* bus, sd_event* loop, Which which,
                  const std::function<bool(const InterfaceBase&)>& isNotAnnounced);
    /// Releases what belongs to the loop.
    void Close() noexcept { mTimer.reset(); }

    std::uint64_t GetSent() const noexcept { return mSent; }
    std::uint64_t GetUnsent() const noexcept { return mUnsent; }

private:
    void AnnounceOne(sd_bus* bus, InterfaceBase& interface);
    void Send(sd_bus* bus, const InterfaceBase& interface, char** names, std::size_t count);
    void WakeAt(sd_event* loop, std::uint64_t time);
    static int OnTime(sd_event_source* source, uint64_t now, void* userdata);

    const std::function<void()> mWake;
    std::size_t mInterfaces = 0;
    /// Room for all interfaces in both, so that a change needs no memory.
    std::vector<InterfaceBase*> mChanged;
    std::vector<InterfaceBase*> mAnnounced;
    bool mIsAnnouncing = false;
    std::uint64_t mPeriod = 0;
    /// Until when the period holds the changes of an interface back. CLOCK_MONOTONIC.
    std::unordered_map<const InterfaceBase*, std::uint64_t> mHeldUntil;
    EventSource mTimer;
    std::string mPath;
    std::uint64_t mSent = 0;
    std::uint64_t mUnsent = 0;
    LogLimit mLimit;
};

}  // namespace mwl::Typed

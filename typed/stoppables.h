#pragma once

#include <tern/typed/stoppable.h>

namespace mwl::Typed {

/// The waiting objects of a bus, in the order in which they began to wait. D-Bus thread only.
class Stoppables {
public:
    Stoppables() = default;
    /// Objects that still wait are in no list any more, and are not notified.
    ~Stoppables();
    Stoppables(const Stoppables&) = delete;
    Stoppables& operator=(const Stoppables&) = delete;

    /// Puts it at the end. False, and it does not wait: StopAll has been called. REQUIRES: it is in no list.
    bool Add(Stoppable& waiting) noexcept;
    /// Notifies each, first the one that has waited longest, and takes it out; nothing waits from now on.
    void StopAll() noexcept;
    /// Notifies each that is in the list now, in the same order; those that join meanwhile are left for the
    /// next time.
    void TellAll() noexcept;
    bool IsEmpty() const noexcept { return mFirst == nullptr; }

private:
    friend class Stoppable;

    Stoppable* mFirst = nullptr;
    Stoppable* mLast = nullptr;
    bool mIsStopped = false;
};

}  // namespace mwl::Typed

#pragma once

/// Between what waits on the D-Bus thread and the bus that ends it. Applications do not need it.

#include <tern/foundation/api.h>

namespace mwl::Typed {

class Stoppables;

/// Something that waits for an event of the D-Bus thread, such as a call for its reply or a task for a timer,
/// and that is notified when the bus closes and the event will not come any more.
///
/// It waits in a list without memory of its own, in the order of joining (Stoppables::Add), and leaves by
/// itself when it is destroyed. D-Bus thread only.
class TERN_API Stoppable {
public:
    Stoppable(const Stoppable&) = delete;
    Stoppable& operator=(const Stoppable&) = delete;

    /// Whether it is in a list.
    bool IsWaiting() const noexcept { return mList != nullptr; }
    /// The event has come, or nobody waits for it any more: it will not be notified. Harmless when in no
    /// list.
    void Leave() noexcept;

protected:
    Stoppable() = default;
    ~Stoppable() { Leave(); }

    /// The bus closes. It is in no list any more. May destroy this one and any other, and run user code; what
    /// would wait from now on is refused.
    virtual void OnStop() noexcept = 0;

private:
    friend class Stoppables;

    Stoppables* mList = nullptr;
    Stoppable* mPrevious = nullptr;
    Stoppable* mNext = nullptr;
};

}  // namespace mwl::Typed

#include <tern/typed/bus.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <utility>

#include "typed/bus_access.h"
#include "typed/bus_core.h"
#include "typed/reply_state.h"

namespace mwl::Typed {

Exported::Exported() noexcept = default;

Exported::Exported(Exported&& other) noexcept
    : mState(std::move(other.mState)),
      mId(std::exchange(other.mId, 0)),
      mPlace(std::move(other.mPlace)),
      mStatus(std::exchange(other.mStatus, StatusCode::NotInitialized)) {}

Exported& Exported::operator=(Exported&& other) noexcept {
    if (this != &other) {
        // The new one is in place when the old one goes, which may be what runs.
        Exported former(std::move(*this));
        mState = std::move(other.mState);
        mId = std::exchange(other.mId, 0);
        mPlace = std::move(other.mPlace);
        mStatus = std::exchange(other.mStatus, StatusCode::NotInitialized);
    }
    return *this;
}

Exported::~Exported() {
    Reset();
}

void Exported::Reset() noexcept {
    const std::shared_ptr<ReplyState> state = std::move(mState);
    const std::uint64_t id = std::exchange(mId, 0);
    mStatus = StatusCode::NotInitialized;
    if (state == nullptr) {
        return;
    }
    const auto remove = [shared = state.get(), id] {
        if (shared->core != nullptr) {
            shared->core->Remove(id);
        }
    };
    if (state->dispatcher.IsHere()) {
        remove();
    } else {
        // Refused when the bus has closed: its destructor sees to the object.
        static_cast<void>(state->dispatcher.Post(std::move(mPlace), remove));
    }
}

struct Bus::State {
    BusCore core;

    ReplyState& Shared() const { return *core.GetState(); }
    void AssertHere() const { assert(!core.IsOpen() || Shared().dispatcher.IsHere()); }
};

Bus::Bus() : mState(std::make_unique<State>()) {}

Bus::~Bus() {
    mState->AssertHere();
}

StatusCode Bus::Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    mState->AssertHere();
    return mState->core.Open(manager, loop);
}

void Bus::Close() {
    mState->AssertHere();
    mState->core.Close();
}

StatusCode Bus::AddObjectManager(const std::string& path) {
    mState->AssertHere();
    return mState->core.AddObjectManager(path);
}

Exported Bus::Export(std::string path, std::vector<std::unique_ptr<InterfaceBase>> interfaces) {
    mState->AssertHere();
    Exported exported;
    exported.mPlace = Dispatcher::Reserve();
    exported.mId = mState->core.Export(std::move(path), std::move(interfaces), exported.mStatus);
    if (exported.mId != 0) {
        exported.mState = mState->core.GetState();
    }
    return exported;
}

StatusCode Bus::Adopt(InterfaceBase& interface, std::string path) {
    mState->AssertHere();
    return mState->core.Adopt(interface, std::move(path));
}

bool Bus::Post(Job job) {
    return mState->Shared().dispatcher.Post(std::move(job));
}

void Bus::Flush() {
    mState->AssertHere();
    mState->core.Flush();
}

void Bus::SetChangePeriod(std::chrono::milliseconds period) {
    mState->AssertHere();
    // A day is as good as any longer one, and can be added to any time.
    constexpr std::chrono::milliseconds LONGEST = std::chrono::hours(24);
    const std::chrono::microseconds limited = std::clamp(period, std::chrono::milliseconds(0), LONGEST);
    mState->core.SetChangePeriod(static_cast<std::uint64_t>(limited.count()));
}

void Bus::SetOpenCalls(std::size_t limit) {
    mState->AssertHere();
    mState->Shared().calls.SetLimit(limit);
}

void Bus::SetPendingCalls(std::size_t limit) {
    mState->AssertHere();
    mState->Shared().clients.limit = limit;
}

void Bus::SetWaitingJobs(std::size_t limit) {
    mState->Shared().dispatcher.SetLimit(limit);
}

Bus::Counters Bus::GetCounters() const {
    mState->AssertHere();
    return mState->core.GetCounters();
}

sd_bus* Bus::GetBus() const {
    return mState->core.GetBus();
}

const std::shared_ptr<ReplyState>& BusAccess::GetState(const Bus& bus) noexcept {
    return bus.mState->core.GetState();
}

}  // namespace mwl::Typed

#include <tern/typed/peer_watch.h>

#include <optional>
#include <string>
#include <utility>

#include "platform/static_text.h"
#include "typed/bus_access.h"
#include "typed/bus_core.h"
#include "typed/name_owner.h"

namespace mwl::Typed {

struct PeerWatch::State final : NameOwner::Listener, std::enable_shared_from_this<State> {
    State(std::shared_ptr<ReplyState> replies, OnAppear appear, OnVanish vanish)
        : bus(std::move(replies)), onAppear(std::move(appear)), onVanish(std::move(vanish)) {}

    void Begin(const std::string& name) {
        owner = NameOwner::Of(bus, name);
        id = owner->Add(weak_from_this());
        if (owner->GetState() != NameOwner::State::Asking) {
            // Refused when the bus is not open, and without use when the connection is lost.
            static_cast<void>(bus->dispatcher.Post(Dispatcher::Reserve(), [weak = weak_from_this()] {
                const auto self = weak.lock();
                if (self != nullptr && sd_bus_is_open(self->bus->core->GetBus()) > 0) {
                    self->OnOwner();
                }
            }));
        }
    }
    void End() noexcept {
        AssertDBusThread(*bus);
        isEnded = true;
        if (owner != nullptr) {
            owner->Remove(id);
        }
    }
    /// Reports what has not been reported. REQUIRES: something else holds this.
    void OnOwner() override {
        const std::string now = owner->GetOwner();
        if (isEnded || owner->GetState() == NameOwner::State::Stopped || told == now) {
            return;
        }
        const std::optional<std::string> former = std::exchange(told, now);
        const bool wasThere = former.has_value() && !former->empty();
        const bool isAbsentAtFirst = !former.has_value() && now.empty();
        if ((wasThere || isAbsentAtFirst) && onVanish) {
            onVanish();
        }
        if (!now.empty() && !isEnded && onAppear) {
            onAppear(now);
        }
    }

    const std::shared_ptr<ReplyState> bus;
    OnAppear onAppear;
    OnVanish onVanish;
    std::shared_ptr<NameOwner> owner;
    std::uint64_t id = 0;
    bool isEnded = false;
    /// The owner that was reported last, empty for none; nothing before the first time.
    std::optional<std::string> told;
};

PeerWatch::PeerWatch() noexcept = default;

PeerWatch::PeerWatch(const Bus& bus, const std::string& name, OnAppear onAppear, OnVanish onVanish)
    : mState(std::make_shared<State>(BusAccess::GetState(bus), std::move(onAppear), std::move(onVanish))) {
    AssertDBusThread(*mState->bus);
    mState->Begin(name);
}

PeerWatch::PeerWatch(PeerWatch&& other) noexcept = default;

PeerWatch& PeerWatch::operator=(PeerWatch&& other) noexcept {
    if (this != &other) {
        // The new one is in place when the old one goes, which may be what runs.
        const PeerWatch former(std::move(*this));
        mState = std::move(other.mState);
    }
    return *this;
}

PeerWatch::~PeerWatch() {
    Reset();
}

void PeerWatch::Reset() noexcept {
    if (const std::shared_ptr<State> state = std::move(mState)) {
        state->End();
    }
}

const std::string& PeerWatch::GetOwner() const noexcept {
    static const StaticText NONE("");
    return mState != nullptr ? mState->owner->GetOwner() : NONE.Get();
}

StatusCode PeerWatch::GetStatus() const noexcept {
    return mState != nullptr ? mState->owner->GetStatus() : StatusCode::NotInitialized;
}

}  // namespace mwl::Typed

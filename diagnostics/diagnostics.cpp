#include <tern/diagnostics/diagnostics.h>

#include <tern/foundation/log.h>
#include <tern/typed/bus.h>

#include <utility>

#include "diagnostics/bus_watch.h"
#include "diagnostics/diagnostics_interface.h"
#include "foundation/error_text.h"
#include "platform/static_text.h"

namespace mwl::Diagnostics {

namespace {

const StaticText LOGGER("Diagnostics");

}  // namespace

/// All that there is while something is shown; destroyed in the opposite order.
struct Diagnostics::State {
    std::unique_ptr<Typed::Bus> ownBus;  ///< where there was none
    BusWatch watch;
    Typed::Exported object;

    StatusCode Begin(Typed::Bus& bus, const Options& options);
};

StatusCode Diagnostics::State::Begin(Typed::Bus& bus, const Options& options) {
    if (bus.GetBus() == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Refused to show diagnostics on a bus that is not open");
        return StatusCode::NotInitialized;
    }
    if (options.isRecording) {
        static_cast<void>(Recorder::Begin(options.recorder));  // logged
    }
    if (const int r = watch.Begin(bus.GetBus()); r < 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to watch the D-Bus thread (%d, %s)", r, ErrorText(-r));
        return mw::tern::MakeStatusCodeFromReturnCode(r);
    }
    object = bus.Export(Diagnostics1::PATH,
                        std::make_unique<DiagnosticsInterface>(bus, watch, options.recorder.version));
    return object.GetStatus();
}

Diagnostics::Diagnostics() noexcept = default;
Diagnostics::Diagnostics(Diagnostics&& other) noexcept
    : mState(std::move(other.mState)), mStatus(std::exchange(other.mStatus, StatusCode::NotInitialized)) {}

Diagnostics& Diagnostics::operator=(Diagnostics&& other) noexcept {
    mState = std::move(other.mState);
    mStatus = std::exchange(other.mStatus, StatusCode::NotInitialized);
    return *this;
}

Diagnostics::~Diagnostics() = default;

Diagnostics Diagnostics::Export(Typed::Bus& bus, const Options& options) {
    Diagnostics diagnostics;
    auto state = std::make_unique<State>();
    diagnostics.mStatus = state->Begin(bus, options);
    if (diagnostics.mStatus == StatusCode::Ok) {
        diagnostics.mState = std::move(state);
    }
    return diagnostics;
}

Diagnostics Diagnostics::Export(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop,
                                const Options& options) {
    Diagnostics diagnostics;
    auto state = std::make_unique<State>();
    state->ownBus = std::make_unique<Typed::Bus>();
    diagnostics.mStatus = state->ownBus->Open(manager, loop);
    if (diagnostics.mStatus == StatusCode::Ok) {
        diagnostics.mStatus = state->Begin(*state->ownBus, options);
    }
    if (diagnostics.mStatus == StatusCode::Ok) {
        diagnostics.mState = std::move(state);
    }
    return diagnostics;
}

Diagnostics::operator bool() const noexcept {
    return mState != nullptr;
}

StatusCode Diagnostics::GetStatus() const noexcept {
    return mStatus;
}

void Diagnostics::Reset() noexcept {
    mState.reset();
    mStatus = StatusCode::NotInitialized;
}

}  // namespace mwl::Diagnostics

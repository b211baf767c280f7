#include "dbus_client/call_time_limit.h"

#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include <algorithm>

#include "foundation/handle.h"

namespace mw::tern {

namespace {

/// How long the calling thread may leave its watchdog unfed; 0 when it has none to feed.
std::uint64_t PatienceUs() {
    std::uint64_t periodUs = 0;
    if (sd_watchdog_enabled(0, &periodUs) <= 0) {
        return 0;
    }
    // A thread without a loop is lent one for this question.
    sd_event* event = nullptr;
    if (sd_event_default(&event) < 0) {
        return 0;
    }
    const mwl::Handle<sd_event, sd_event_unref> loop(event);
    return sd_event_get_watchdog(event) > 0 ? periodUs / 4 : 0;
}

}  // namespace

CallTimeLimit::CallTimeLimit(sd_bus* bus, unsigned calls) : mPatienceUs(bus == nullptr ? 0 : PatienceUs()) {
    if (mPatienceUs == 0) {
        return;
    }
    // 0 would mean no limit of its own.
    const std::uint64_t limitUs = std::max<std::uint64_t>(mPatienceUs / calls, 1);
    if (sd_bus_get_method_call_timeout(bus, &mFormerUs) >= 0 && limitUs < mFormerUs &&
        sd_bus_set_method_call_timeout(bus, limitUs) >= 0) {
        mBus = bus;
    }
}

CallTimeLimit::~CallTimeLimit() {
    if (mBus != nullptr) {
        sd_bus_set_method_call_timeout(mBus, mFormerUs);
    }
}

std::uint64_t CallTimeLimit::LeftUs() const {
    if (mPatienceUs == 0) {
        return UINT64_MAX;
    }
    const auto gone = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - mBegin);
    return mPatienceUs - std::min(mPatienceUs, static_cast<std::uint64_t>(gone.count()));
}

}  // namespace mw::tern

#include "diagnostics/former_life.h"

#include <tern/foundation/log.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "diagnostics/process_facts.h"
#include "diagnostics/ticks.h"
#include "platform/static_text.h"

namespace mwl::Diagnostics {

namespace {

const StaticText LOGGER("Diagnostics");

constexpr std::size_t MOST_LINES = 5;

constinit std::mutex gMutex;

/// Guarded by the mutex. Never destroyed, as a thread may ask when main has returned.
FormerLife& Kept() {
    static FormerLife* const kept = new FormerLife;
    return *kept;
}

}  // namespace

FormerLife ReadFormerLife(const std::vector<int>& handedOn) {
    FormerLife former;
    std::optional<Flight> latest;
    for (const int fd : handedOn) {
        auto flight = RingReader::Read(fd);
        if (!flight.IsOk()) {
            former.end = {
                "unreadable",
                {"What the former life handed on cannot be read: " + flight.GetError().GetText() + "."}};
        } else if (!latest || flight->beganNs >= latest->beganNs) {
            latest = std::move(*flight);
        }
    }
    if (latest) {
        // Of another boot the clocks have nothing to do with each other.
        const bool isSameBoot = latest->bootId == ReadBootId();
        former.end = Diagnose(*latest, isSameBoot ? NanosecondsOf(CLOCK_MONOTONIC) : 0);
        former.restarts = latest->restarts + 1;
    }
    return former;
}

FormerLife GetFormerLife() {
    const std::lock_guard lock(gMutex);
    return Kept();
}

void SetFormerLife(FormerLife former) {
    const std::lock_guard lock(gMutex);
    Kept() = std::move(former);
}

void LogFormerLife(const FormerLife& former) {
    if (former.end.kind == "none") {
        return;
    }
    const std::size_t lines = std::min(former.end.sentences.size(), MOST_LINES);
    for (std::size_t i = 0; i < lines; ++i) {
        if (former.end.kind == "stopped") {
            TERN_LOG_NOTICE(LOGGER, "Former life: %s", former.end.sentences[i].c_str());
        } else {
            TERN_LOG_WARNING(LOGGER, "Former life: %s", former.end.sentences[i].c_str());
        }
    }
}

}  // namespace mwl::Diagnostics

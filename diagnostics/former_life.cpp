#include "diagnostics/former_life.h"

#include <tern/foundation/log.h>

#include <algorithm>
#include <atomic>
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

/// Never destroyed, as a thread may ask at any time, also when main has returned. Without a lock, which a
/// child that is forked meanwhile would find taken.
struct Kept {
    FormerLife former;
    const Kept* before;  ///< a parent's
};
constinit std::atomic<const Kept*> gKept{nullptr};

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
    const Kept* const kept = gKept.load(std::memory_order_acquire);
    return kept == nullptr ? FormerLife() : kept->former;
}

void SetFormerLife(FormerLife former) {
    gKept.store(new Kept{std::move(former), gKept.load(std::memory_order_relaxed)},
                std::memory_order_release);
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

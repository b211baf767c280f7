#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/diagnostics/contract.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/handle.h"

namespace mwl::Diagnostics {

/// Sees what the D-Bus thread handles and for how long: a filter in front of all that were there before marks
/// the begin of a message's handling, the next turn of the loop its end, as a turn dispatches one message.
/// D-Bus thread only; no timer, no wake-up.
class BusWatch {
public:
    BusWatch();
    BusWatch(const BusWatch&) = delete;
    BusWatch& operator=(const BusWatch&) = delete;

    /// Begins to look; the bus is attached to a loop. 0, or the negative error number of the failing call; it
    /// does not look then.
    int Begin(sd_bus* bus);
    /// Of this moment.
    BusThreadFigures GetFigures() const;

private:
    /// One of those that are told apart.
    struct Member {
        std::string name;
        std::uint32_t hash = 0;
        std::uint16_t recorded = 0;  ///< name in the recorder; 0 before it is known
        std::uint64_t handled = 0;
        std::uint64_t totalNs = 0;
        std::uint64_t longestNs = 0;
        std::array<std::uint32_t, LATENCY_BUCKETS> latency{};
    };
    static constexpr std::size_t MEMBERS = 256;
    static constexpr std::size_t PLACES = 1024;
    static constexpr std::size_t NOTHING = static_cast<std::size_t>(-1);

    static int OnMessage(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnTurn(sd_event_source* source, void* userdata);

    void BeginMessage(sd_bus_message* message);
    void EndMessage(std::uint64_t nowNs);
    void CountTurn(sd_event* event, std::uint64_t nowNs);
    std::size_t FindMember(std::string_view prefix, std::string_view interface, std::string_view member);

    std::vector<Member> mMembers;                 ///< the first one is "(others)"
    std::array<std::uint16_t, PLACES> mPlaces{};  ///< by hash: index into mMembers, 0 for none
    std::size_t mRunning = NOTHING;
    std::uint64_t mRunningSinceNs = 0;
    std::uint64_t mHandled = 0;
    std::uint64_t mTurns = 0;
    std::uint64_t mLongestTurnNs = 0;
    std::uint32_t mThreadId = 0;
    std::uint64_t mWatchdogNs = 0;
    Handle<sd_bus_slot, sd_bus_slot_unref> mFilter;
    Handle<sd_event_source, sd_event_source_disable_unref> mTurn;
};

}  // namespace mwl::Diagnostics

#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/diagnostics/contract.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/ticks.h"
#include "foundation/handle.h"

namespace mwl::Diagnostics {

/// Sees what the D-Bus thread handles and for how long: a filter in front of all that were there before marks
/// the begin of a message's handling, the next message or the end of the loop's turn its end. The frame tells
/// of turns while a recorder is on; else they are seen by a source of the loop, which costs more. D-Bus
/// thread only; no timer, no wake-up.
class BusWatch {
public:
    BusWatch();
    ~BusWatch();
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
        std::uint64_t hash = 0;
        std::uint16_t recorded = 0;  ///< name in the recorder; 0 before it is known
        std::uint64_t handled = 0;
        std::uint64_t totalTicks = 0;
        std::uint64_t longestTicks = 0;
        std::array<std::uint32_t, LATENCY_BUCKETS> latency{};
    };
    static constexpr std::uint64_t NS_PER_US = 1000;
    static constexpr std::size_t MEMBERS = 256;
    static constexpr std::size_t PLACES = 1024;
    static constexpr std::size_t NOTHING = static_cast<std::size_t>(-1);

    /// As in the message before.
    struct Last {
        int type = 0;
        std::size_t index = 0;
        std::string interface;
        std::string member;
    };

    static int OnMessage(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnTurn(sd_event_source* source, void* userdata);
    static void OnTurnTold(void* argument, std::uint64_t ticks);

    int AddTurnSource();
    void BeginMessage(sd_bus_message* message);
    void EndMessage(std::uint64_t now);
    void EndTurn(std::uint64_t now);
    void CountTurn(std::uint64_t now);
    std::size_t FindMember(int type, const char* interface, const char* member);
    std::size_t LookUpMember(int type, const char* interface, const char* member);
    std::size_t LookUpMember(std::string_view prefix, std::string_view interface, std::string_view member);
    /// Of the message that is being handled; no clock is trusted never to jump back.
    std::uint64_t RunningTicks(std::uint64_t now) const noexcept {
        return now > mRunningSince ? now - mRunningSince : 0;
    }
    std::uint64_t Now() const noexcept { return ReadTicks(mIsCounter); }
    std::uint64_t ToUs(std::uint64_t ticks) const noexcept {
        // Signed, as processors convert no others; nothing takes three centuries.
        return static_cast<std::uint64_t>(static_cast<double>(static_cast<std::int64_t>(ticks)) * mUsPerTick);
    }

    // All durations are in ticks of the recorder where there is one, else in nanoseconds: reading a clock is
    // a good part of what this costs.
    bool mIsCounter = false;
    bool mIsRecordersClock = false;
    double mUsPerTick = 0.001;
    std::vector<Member> mMembers;                 ///< the first one is "(others)"
    std::array<std::uint16_t, PLACES> mPlaces{};  ///< by hash: index into mMembers, 0 for none
    Last mLast;
    std::size_t mRunning = NOTHING;
    std::uint64_t mRunningSince = 0;
    std::uint64_t mHandled = 0;
    std::uint64_t mTurns = 0;
    std::uint64_t mTurnBegan = 0;
    std::uint64_t mLongestTurnUs = 0;
    std::uint32_t mThreadId = 0;
    std::uint64_t mWatchdogNs = 0;
    sd_bus* mBus = nullptr;  ///< the filter holds a reference
    bool mIsTold = false;    ///< of the turns, while recording is on
    Handle<sd_bus_slot, sd_bus_slot_unref> mFilter;
    Handle<sd_event_source, sd_event_source_disable_unref> mTurn;  ///< where nobody tells
};

}  // namespace mwl::Diagnostics

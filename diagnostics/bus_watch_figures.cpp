#include <algorithm>
#include <vector>

#include "diagnostics/bus_watch.h"

// Apart from what runs for every message, as this is made small (CMakeLists.txt).

namespace mwl::Diagnostics {

BusThreadFigures BusWatch::GetFigures() const {
    BusThreadFigures figures;
    figures.threadId = mThreadId;
    figures.handled = mHandled;
    figures.turns = mTurns;
    figures.longestTurnUs = mLongestTurnUs;
    if (mRunning != NOTHING) {
        figures.running = mMembers[mRunning].name;
        figures.runningUs = ToUs(RunningTicks(Now()));
    }
    figures.watchdogUs = mWatchdogNs / NS_PER_US;
    // The loop reports at three quarters of the period at the latest, if no turn is in its way.
    const std::uint64_t spare = mWatchdogNs / 4 / NS_PER_US;
    figures.watchdogMarginUs = spare - std::min(spare, mLongestTurnUs);
    std::vector<const Member*> members;
    for (const Member& member : mMembers) {
        if (member.handled > 0) {
            members.push_back(&member);
        }
    }
    std::sort(members.begin(), members.end(),
              [](const Member* a, const Member* b) { return a->totalTicks > b->totalTicks; });
    for (const Member* const member : members) {
        figures.members.push_back({member->name,
                                   member->handled,
                                   ToUs(member->totalTicks),
                                   ToUs(member->longestTicks),
                                   {member->latency.begin(), member->latency.end()}});
    }
    return figures;
}

}  // namespace mwl::Diagnostics

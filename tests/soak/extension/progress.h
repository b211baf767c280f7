#pragma once

#include <atomic>
#include <cstdint>

namespace soak {

/// What the extension has done so far. Any thread. Each of them is a property on the bus, by its place in
/// here.
struct Progress {
    using Counter = std::atomic<std::uint64_t>;

    Counter commands{0};
    Counter archives{0};
    Counter reloads{0};
    Counter folderEvents{0};
    Counter folderRestarts{0};
    Counter timerTicks{0};
    Counter onceTicks{0};
    Counter shortTicks{0};
    Counter clientCalls{0};
    Counter clientSignals{0};
    Counter clientChanges{0};
    Counter clientWatches{0};
    Counter failures{0};
};

}  // namespace soak

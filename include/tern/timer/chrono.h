#pragma once

#include <tern/foundation/api.h>

#include <chrono>
#include <string>
#include <unordered_map>

namespace mwl::Timer {

/// A named stopwatch: adds up the wall-clock time of many intervals and reports the total in the log.
///
///     Chrono chrono("parse");
///     for (const auto& file : files) {
///         const unsigned int id = chrono.Start();
///         Parse(file);
///         chrono.Stop(id, "file");
///     }
///     chrono.Report();  // notice: "############ [Report] parse TOTAL Time: 1234 ms"
///
/// It measures CLOCK_REALTIME: a clock that is set back between Start and Stop takes its milliseconds off
/// the total, which never falls below 0. Thread-safety: one thread at a time. The constructor and Start need
/// memory, std::bad_alloc without, and then nothing has begun; nothing else fails.
class TERN_API Chrono {
public:
    /// `name` is printed by Report. The total is 0, nothing is being measured.
    explicit Chrono(const std::string& name);
    virtual ~Chrono();

    /// Begins a measurement and returns its id. Fixed by the interface: the id is always 0, because one
    /// measurement is open at a time, and another Start before Stop begins it again.
    unsigned int Start();
    /// Ends measurement `id` and adds its whole milliseconds, truncated, to the total; does nothing for an id
    /// that is not being measured. The label only says to the reader what was measured.
    void Stop(unsigned int id, const std::string& label);
    /// Adds to the total, which is truncated to whole milliseconds. A negative number takes away, not below
    /// 0; beyond the largest total it stays there; what is not a number adds nothing. Totals above 2^53 are
    /// rounded to what a double holds.
    void Store(double milliseconds);
    /// Logs the total in milliseconds at notice level and returns it. It is not reset.
    unsigned long long Report();

private:
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

    unsigned int mId = 0;  ///< nothing changes it: there is one slot
    std::unordered_map<unsigned int, TimePoint> mOpen;
    unsigned long long mTotalMs = 0;
    std::string mName;
};

}  // namespace mwl::Timer

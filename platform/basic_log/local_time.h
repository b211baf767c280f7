#pragma once

namespace mwl::Log {

/// A moment as a local clock shows it.
struct LocalTime {
    int month;  ///< 0 is January
    int day;    ///< 1 is the first
    int hour;
    int minute;
    int second;
    int millisecond;
};

/// Now, in local time. localtime_r(3) takes a lock that a child forked beside other threads could find held
/// for ever, so it is asked for no more than the distance from UTC, four times an hour, and not in such a
/// child, which goes on with its parent's.
LocalTime NowInLocalTime() noexcept;

}  // namespace mwl::Log

#pragma once

#include <string>

#include "control_loop.h"
#include "job_pool.h"

namespace thermostat {

/// Ways to break the service on purpose, for tests and for who wants to see it recover. An extension of your
/// own does without; here the setting debug=1 opens them.
///
/// D-Bus thread only.
class Trials {
public:
    /// Both outlive the trials.
    Trials(ControlLoop& loop, JobPool& pool) : mLoop(loop), mPool(pool) {}

    /// Begins one of these; false when there is no such trial.
    ///
    ///     hang-bus       the D-Bus thread never comes back
    ///     hang-control   nor does the control loop's next step
    ///     hang-pool      nor does a job of the pool
    ///     fail-control   the control loop's next step throws
    ///     fail-pool      a job of the pool throws, which nobody catches
    ///     abort          the process aborts immediately
    ///     exit           the process ends immediately with status 3
    bool Begin(const std::string& what);

private:
    ControlLoop& mLoop;
    JobPool& mPool;
};

}  // namespace thermostat

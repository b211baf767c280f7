#pragma once

#include <systemd/sd-bus.h>
#include <tern/service/event_loop.h>
#include <tern/service/message_pipe.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "examples/thermostat/job_pool.h"
#include "jobs.h"

namespace soak {

/// Answers calls when the job that they asked for is done: keeps the call, has the pool run the job, and
/// replies when its result has come back through a pipe. D-Bus thread only.
class JobDesk {
public:
    /// Pool and jobs outlive the desk.
    JobDesk(thermostat::JobPool& pool, Jobs& jobs) : mPool(pool), mJobs(jobs) {}

    mwl::StatusCode Open(mw::tern::EventLoop& loop);
    /// The reply is "u", the job's status.
    void Submit(sd_bus_message* call, std::function<mwl::StatusCode(Jobs& jobs)> job);
    /// Calls that are not answered by now never will be, and a job that is done finds nobody to tell.
    void Close();

private:
    struct Result {
        std::uint64_t number;
        mwl::StatusCode status;
    };
    mwl::StatusCode OnDone();

    thermostat::JobPool& mPool;
    Jobs& mJobs;
    mw::tern::MessagePipe mResults;
    std::map<std::uint64_t, sd_bus_message*> mCalls;
    std::uint64_t mNumber = 0;
};

}  // namespace soak

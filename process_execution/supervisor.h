#pragma once

#include <tern/foundation/status_code.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "process_execution/child_process.h"
#include "process_execution/input_feeder.h"
#include "process_execution/output_stream.h"

namespace mwl::ProcessExecution {

/// Watches a started program until it has ended or its time is up, feeding its input and reading its output
/// meanwhile. The time limit counts from the construction. The objects that it refers to must outlive it. One
/// thread at a time.
class Supervisor {
public:
    /// `name` is for the messages.
    Supervisor(const std::string& name, unsigned int timeoutMs, ChildProcess& child, InputFeeder& input,
               OutputStream& output);

    /// Blocks until the end, at most for the time limit and a pass. Every failure is logged; the last one's
    /// status is returned. `waitStatus` is as of waitpid(2), SIGKILL's for a program whose time was up.
    StatusCode Run(int& waitStatus);

private:
    using Clock = OutputStream::Clock;

    std::int64_t ElapsedMs() const;
    /// The moment at which the time is up.
    Clock::time_point EndOfTime() const;
    /// Waits for the next event; true when the input may take more.
    bool WaitForEvent();
    int NextWaitMs();
    /// Looks whether the program has ended; true when the run is over.
    bool CheckEnd(bool inTime);
    void KillOnTimeout();

    const std::string& mName;
    const std::int64_t mTimeoutMs;
    ChildProcess& mChild;
    InputFeeder& mInput;
    OutputStream& mOutput;
    const Clock::time_point mStart = Clock::now();
    StatusCode mStatus = StatusCode::Ok;
    int mWaitStatus = 0;
    int mBackOffMs = 1;  ///< next wait for a program whose end nothing reports
};

}  // namespace mwl::ProcessExecution

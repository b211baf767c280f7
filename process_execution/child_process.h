#pragma once

#include <sys/types.h>
#include <tern/foundation/status_code.h>

#include <memory>
#include <string>
#include <vector>

#include "foundation/unique_fd.h"
#include "process_execution/left_children.h"
#include "process_execution/pipe.h"

namespace mwl::ProcessExecution {

/// One program started with its standard streams on pipes. Destroying it closes the parent's ends; the
/// program is neither killed nor waited for, but remembered as left when its end has not been seen. One
/// thread at a time.
class ChildProcess {
public:
    ChildProcess() = default;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    /// Makes the pipes, starts a child and executes `path` in it with `argv` (ended by a null pointer). Ok as
    /// soon as there is a child; otherwise the failure is logged, the status is that of errno, everything is
    /// closed again. A child that cannot execute ends with exit status 1: see LogStartFailure.
    StatusCode Start(const std::string& path, const std::vector<char*>& argv);

    pid_t GetPid() const { return mPid; }
    /// A descriptor that polls readable when the program has ended (pidfd_open(2)), -1 where there is none.
    int GetPidFd() const { return mPidFd.Get(); }
    /// Looks whether the program has ended, as waitpid(2) with WNOHANG does, with its results.
    pid_t TryWait(int& waitStatus);
    /// The end that the program's standard input is fed by.
    UniqueFd TakeInput() { return std::move(mInput.writeEnd); }
    /// The end that its output is read from.
    UniqueFd TakeOutput() { return std::move(mOutput.readEnd); }
    /// Closes this process's copies of the child's ends. Until then a write to the input cannot find it
    /// closed.
    void CloseChildEnds();

    /// Waits until the child has executed the program or failed to, at most 100 ms. Call it after
    /// CloseChildEnds.
    void AwaitStart();
    /// Logs what has kept the child from executing the program up to now, if anything has. It never blocks,
    /// so look when the child has ended or is left to itself. A failure is logged once.
    void LogStartFailure();

private:
    pid_t mPid = -1;
    UniqueFd mPidFd;
    std::unique_ptr<LeftChild> mLeft;  ///< as long as the child is to be reaped; created before the child
    Pipe mInput;
    Pipe mOutput;
    Pipe mFailure;
};

}  // namespace mwl::ProcessExecution

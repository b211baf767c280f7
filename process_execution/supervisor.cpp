#include "process_execution/supervisor.h"

#include <poll.h>
#include <signal.h>
#include <tern/foundation/log.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "foundation/error_text.h"
#include "process_execution/logger.h"

namespace mwl::ProcessExecution {

namespace {

/// Longest wait of one pass, in milliseconds. An event ends it earlier.
constexpr int PASS_MS = 100;
constexpr std::chrono::milliseconds PASS{PASS_MS};

}  // namespace

Supervisor::Supervisor(const std::string& name, unsigned int timeoutMs, ChildProcess& child,
                       InputFeeder& input, OutputStream& output)
    : mName(name), mTimeoutMs(timeoutMs), mChild(child), mInput(input), mOutput(output) {}

StatusCode Supervisor::Run(int& waitStatus) {
    bool over = false;
    while (!over) {
        const bool feed = WaitForEvent();
        const bool inTime = ElapsedMs() <= mTimeoutMs;
        // Also when the time is up: the program may have ended while this process was stopped.
        over = CheckEnd(inTime);
        if (!over && !inTime) {
            KillOnTimeout();
            over = true;
        }
        if (over) {
            mOutput.ReadRest(std::max(Clock::now(), EndOfTime()) + PASS);
        } else {
            mOutput.Read(std::min(Clock::now() + PASS, EndOfTime()));
            if (feed) {
                mInput.Feed();
            }
        }
    }
    waitStatus = mWaitStatus;
    return mStatus;
}

std::int64_t Supervisor::ElapsedMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - mStart).count();
}

Supervisor::Clock::time_point Supervisor::EndOfTime() const {
    return mStart + std::chrono::milliseconds(mTimeoutMs + 1);
}

bool Supervisor::WaitForEvent() {
    pollfd events[] = {{mOutput.GetDescriptor(), POLLIN | POLLHUP, 0},
                       {mInput.GetDescriptor(), POLLOUT, 0},
                       {mChild.GetPidFd(), POLLIN, 0}};
    const int waitMs = NextWaitMs();
    if (poll(events, 3, waitMs) >= 0) {
        return events[1].revents != 0;
    }
    const int error = errno;
    mStatus = mw::tern::MakeStatusCodeFromErrno(error);
    TERN_LOG_ERROR(LOGGER, "PID[%d] Poll failed: %s", mChild.GetPid(), ErrorText(error));
    // The run goes on: left now, the program would go on unwatched. A poll that fails for good must not spin.
    if (error != EINTR) {
        std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    }
    return true;
}

int Supervisor::NextWaitMs() {
    std::int64_t waitMs = PASS_MS;
    // A program that has closed its output is mostly about to end. Where no descriptor reports the end, it is
    // looked for soon, then ever more seldom.
    if (mOutput.GetDescriptor() < 0 && mChild.GetPidFd() < 0) {
        waitMs = mBackOffMs;
        mBackOffMs = std::min(2 * mBackOffMs, PASS_MS);
    }
    const std::int64_t leftMs = mTimeoutMs + 1 - ElapsedMs();
    return static_cast<int>(std::clamp<std::int64_t>(leftMs, 0, waitMs));
}

bool Supervisor::CheckEnd(bool inTime) {
    const pid_t pid = mChild.GetPid();
    const pid_t ended = mChild.TryWait(mWaitStatus);
    if (ended < 0) {
        mStatus = mw::tern::MakeStatusCodeFromErrno(errno);
        mChild.LogStartFailure();
        TERN_LOG_ERROR(LOGGER, "Failed to execute command [%s]", mName.c_str());
        return true;
    }
    if (ended == pid) {
        mChild.LogStartFailure();
        TERN_LOG_TRACE(LOGGER, "PID[%d] Process completed, exit status [%d]", pid, mWaitStatus);
        return true;
    }
    if (inTime) {
        TERN_LOG_TRACE(LOGGER, "PID[%d] Process running, status [%d]", pid, mWaitStatus);
    }
    return false;
}

void Supervisor::KillOnTimeout() {
    const pid_t pid = mChild.GetPid();
    const bool isKilled = kill(pid, SIGKILL) == 0;
    const int error = errno;
    // It may have failed since the last look.
    mChild.LogStartFailure();
    if (!isKilled) {
        mStatus = mw::tern::MakeStatusCodeFromErrno(error);
        TERN_LOG_ERROR(LOGGER, "PID[%d] Kill failed: %s", pid, ErrorText(error));
        return;
    }
    // As if waited for, which is not done on purpose: a program stuck in the kernel would hold the caller.
    // A later run reaps it.
    mWaitStatus = SIGKILL;
    TERN_LOG_ERROR(LOGGER, "Command [%s] aborted by timeout %dms", mName.c_str(),
                   static_cast<int>(mTimeoutMs));
}

}  // namespace mwl::ProcessExecution

#include "process_execution/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/error_text.h"
#include "process_execution/logger.h"
#include "process_execution/start_sharing.h"

namespace mwl::ProcessExecution {

namespace {

/// Longest wait for a child to execute its program, in milliseconds: far more than it takes.
constexpr int START_LIMIT_MS = 100;

enum class Stage : int { Stdin, Stdout, Stderr, Execute };

/// The message of a child that cannot execute to its parent.
struct StartFailure {
    Stage stage;
    int error;
};

/// The data of the child.
struct Plan {
    const char* path;
    char* const* argv;
    int input;
    int output;
    int report;
};

/// The child does not log: another thread of the parent may hold the logger's or the allocator's locks, and
/// the message would land in the program's output.
int FailInChild(const Plan& plan, Stage stage) {
    const StartFailure failure{stage, errno};
    // The pipe is empty and of this child alone: nothing is left to do when even this fails.
    static_cast<void>(!write(plan.report, &failure, sizeof failure));
    return 1;
}

/// Executes the program; otherwise returns the exit status. See StartSharing for what may be done here. The
/// other ends of the pipes close themselves.
int RunChild(void* data) {
    const Plan& plan = *static_cast<const Plan*>(data);
    if (dup2(plan.input, STDIN_FILENO) < 0) {
        return FailInChild(plan, Stage::Stdin);
    }
    if (dup2(plan.output, STDOUT_FILENO) < 0) {
        return FailInChild(plan, Stage::Stdout);
    }
    if (dup2(plan.output, STDERR_FILENO) < 0) {
        return FailInChild(plan, Stage::Stderr);
    }
    static_cast<void>(execv(plan.path, plan.argv));
    return FailInChild(plan, Stage::Execute);
}

/// By number, because C libraries before 2.36 have no function for it. A kernel before 5.3 answers ENOSYS.
int OpenPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    static_cast<void>(pid);
    return -1;
#endif
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (mLeft != nullptr) {
        LeftChildren::Remember(std::move(mLeft));
    }
}

StatusCode ChildProcess::Start(const std::string& path, const std::vector<char*>& argv) {
    if (!mInput.Open()) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Cannot open stdin pipe");
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    if (!mOutput.Open()) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Cannot open stdout pipe");
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    // Non-blocking, so that asking an ended child for its failure never waits for another holder of the end.
    if (!mFailure.Open(O_NONBLOCK)) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Cannot open failure pipe");
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    Plan plan{path.c_str(), argv.data(), mInput.readEnd.Get(), mOutput.writeEnd.Get(),
              mFailure.writeEnd.Get()};
    // Before the start: there must be memory to remember the child by.
    auto left = std::make_unique<LeftChild>();
    left->parent = getpid();
    mPid = StartSharing(RunChild, &plan);
    if (mPid < 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Fork process failed with error code: [%s]", ErrorText(error));
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    left->pid = mPid;
    mLeft = std::move(left);
    mPidFd.Reset(OpenPidFd(mPid));
    return StatusCode::Ok;
}

pid_t ChildProcess::TryWait(int& waitStatus) {
    const pid_t ended = waitpid(mPid, &waitStatus, WNOHANG);
    const int error = errno;
    if (ended == mPid || (ended < 0 && error == ECHILD)) {
        mLeft.reset();  // its number may be another process's from now on
    }
    errno = error;
    return ended;
}

void ChildProcess::CloseChildEnds() {
    mInput.readEnd.Reset();
    mOutput.writeEnd.Reset();
    mFailure.writeEnd.Reset();
}

void ChildProcess::AwaitStart() {
    // Executing closes the child's end, mostly before Start returns (see StartSharing). A program that
    // another thread starts may hold a copy until it does too.
    pollfd report{mFailure.readEnd.Get(), POLLIN, 0};
    static_cast<void>(poll(&report, 1, START_LIMIT_MS));
}

void ChildProcess::LogStartFailure() {
    StartFailure failure{};
    if (read(mFailure.readEnd.Get(), &failure, sizeof failure) != static_cast<ssize_t>(sizeof failure)) {
        return;
    }
    switch (failure.stage) {
        case Stage::Stdin:
            TERN_LOG_ERROR(LOGGER, "Duplicate Stdin failed with error code: [%s]", ErrorText(failure.error));
            break;
        case Stage::Stdout:
            TERN_LOG_ERROR(LOGGER, "Duplicate Stdout failed with error code: [%s]", ErrorText(failure.error));
            break;
        case Stage::Stderr:
            TERN_LOG_ERROR(LOGGER, "Duplicate Stderr failed with error code: [%s]", ErrorText(failure.error));
            break;
        case Stage::Execute:
            // 0 is intended: the child's own side knows itself by this number.
            TERN_LOG_ERROR(LOGGER, "PID[%d] Failed to execute command with error [%s]", 0,
                           ErrorText(failure.error));
            break;
    }
}

}  // namespace mwl::ProcessExecution

#include "process_execution/child_process.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/error_text.h"
#include "process_execution/logger.h"
#include "process_execution/quick_fork.h"

namespace mwl::ProcessExecution {

namespace {

enum class Stage : int { Stdin, Stdout, Stderr, Execute };

/// What a child that cannot execute sends to its parent.
struct StartFailure {
    Stage stage;
    int error;
};

/// What a child needs of its parent.
struct Plan {
    const char* path;
    char* const* argv;
    const Pipe& input;
    const Pipe& output;
    int reportFd;
};

/// The child does not log: another thread of the parent may hold the logger's or the allocator's locks, and
/// the message would land in the program's output. Gives the child's exit status.
int FailInChild(int reportFd, Stage stage) {
    const StartFailure failure{stage, errno};
    // The pipe is empty and of this child alone: nothing is left to do when even this fails.
    static_cast<void>(!write(reportFd, &failure, sizeof failure));
    return 1;
}

/// The child until it executes the program: nothing here may allocate, lock or change anything of the
/// parent's.
int RunChild(void* argument) {
    const Plan& plan = *static_cast<const Plan*>(argument);
    if (dup2(plan.input.readEnd.Get(), STDIN_FILENO) < 0) {
        return FailInChild(plan.reportFd, Stage::Stdin);
    }
    if (dup2(plan.output.writeEnd.Get(), STDOUT_FILENO) < 0) {
        return FailInChild(plan.reportFd, Stage::Stdout);
    }
    if (dup2(plan.output.writeEnd.Get(), STDERR_FILENO) < 0) {
        return FailInChild(plan.reportFd, Stage::Stderr);
    }
    static_cast<void>(close(plan.input.writeEnd.Get()));
    static_cast<void>(close(plan.output.readEnd.Get()));
    static_cast<void>(execv(plan.path, plan.argv));
    return FailInChild(plan.reportFd, Stage::Execute);
}

/// By number, as C libraries before 2.36 have no function for it. A kernel before 5.3 answers ENOSYS.
int OpenPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    static_cast<void>(pid);
    return -1;
#endif
}

}  // namespace

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
        return mw::tern::MakeStatusCodeFromErrno(errno);
    }
    Plan plan{path.c_str(), argv.data(), mInput, mOutput, mFailure.writeEnd.Get()};
    mPid = QuickFork(RunChild, &plan);
    if (mPid < 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Fork process failed with error code: [%s]", ErrorText(error));
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    mPidFd.Reset(OpenPidFd(mPid));
    return StatusCode::Ok;
}

void ChildProcess::CloseChildEnds() {
    mInput.readEnd.Reset();
    mOutput.writeEnd.Reset();
    mFailure.writeEnd.Reset();
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
            // 0 is meant: it is the number that fork gave the process which this message is about.
            TERN_LOG_ERROR(LOGGER, "PID[%d] Failed to execute command with error [%s]", 0,
                           ErrorText(failure.error));
            break;
    }
}

}  // namespace mwl::ProcessExecution

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

namespace mwl::ProcessExecution {

namespace {

/// Longest wait for a child to execute its program, in milliseconds: far more than it takes.
constexpr int START_LIMIT_MS = 100;

enum class Stage : int { Stdin, Stdout, Stderr, Execute };

/// What a child that cannot execute sends to its parent.
struct StartFailure {
    Stage stage;
    int error;
};

/// The child does not log: another thread of the parent may have held the logger's or the allocator's locks
/// at the fork, and the message would land in the program's output.
[[noreturn]] void FailInChild(int reportFd, Stage stage) {
    const StartFailure failure{stage, errno};
    // The pipe is empty and of this child alone: nothing is left to do when even this fails.
    static_cast<void>(!write(reportFd, &failure, sizeof failure));
    _exit(1);
}

/// Between fork and exec: nothing here may allocate, lock or run the parent's clean-up.
[[noreturn]] void RunChild(const char* path, char* const* argv, const Pipe& input, const Pipe& output,
                           int reportFd) {
    if (dup2(input.readEnd.Get(), STDIN_FILENO) < 0) {
        FailInChild(reportFd, Stage::Stdin);
    }
    if (dup2(output.writeEnd.Get(), STDOUT_FILENO) < 0) {
        FailInChild(reportFd, Stage::Stdout);
    }
    if (dup2(output.writeEnd.Get(), STDERR_FILENO) < 0) {
        FailInChild(reportFd, Stage::Stderr);
    }
    static_cast<void>(close(input.writeEnd.Get()));
    static_cast<void>(close(output.readEnd.Get()));
    static_cast<void>(execv(path, argv));
    FailInChild(reportFd, Stage::Execute);
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
        return mw::tern::MakeStatusCodeFromErrno(errno);
    }
    const char* const program = path.c_str();
    // Before the fork: there must be memory to remember the child by.
    auto left = std::make_unique<LeftChild>();
    left->parent = getpid();
    mPid = fork();
    if (mPid < 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Fork process failed with error code: [%s]", ErrorText(error));
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    if (mPid == 0) {
        RunChild(program, argv.data(), mInput, mOutput, mFailure.writeEnd.Get());
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
    // Executing closes the child's end. A program that another thread starts may hold a copy until it does
    // too.
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
            // 0 is meant: it is the number that fork gave the process which this message is about.
            TERN_LOG_ERROR(LOGGER, "PID[%d] Failed to execute command with error [%s]", 0,
                           ErrorText(failure.error));
            break;
    }
}

}  // namespace mwl::ProcessExecution

#include "process_execution/input_feeder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "foundation/error_text.h"
#include "process_execution/logger.h"

namespace mwl::ProcessExecution {

namespace {

/// How far ahead the end of the text is looked for: more than a pipe takes in one write, and still in the
/// cache when it is written.
constexpr std::size_t WINDOW = 1024UL * 1024;

/// The capacity of a pipe by default.
constexpr std::size_t PIPE_SIZE = 64UL * 1024;
/// The capacity that it gets for a longer input, so that feeder and program wait for each other more seldom.
constexpr int LARGE_PIPE_SIZE = 256 * 1024;

/// write(2) that answers EPIPE without a SIGPIPE: the signal, which goes to the writing thread, is held off
/// and taken back. A signal that was pending before is not ours and stays. No other thread and no handler is
/// touched.
ssize_t WriteWithoutSigpipe(int fd, const char* data, std::size_t size) {
    sigset_t sigpipe;
    sigset_t former;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &former);
    bool pending = false;
    if (sigismember(&former, SIGPIPE) != 0) {  // otherwise it cannot have been pending
        sigset_t before;
        pending = sigpending(&before) == 0 && sigismember(&before, SIGPIPE) != 0;
    }
    const ssize_t written = write(fd, data, size);
    const int error = errno;
    if (written < 0 && error == EPIPE && !pending) {
        const timespec now{};
        while (sigtimedwait(&sigpipe, nullptr, &now) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    errno = error;
    return written;
}

}  // namespace

InputFeeder::InputFeeder(UniqueFd pipe, const char* text, pid_t pid)
    : mPipe(std::move(pipe)), mText(text), mLeft(strnlen(text, WINDOW)), mPid(pid) {
    if (mLeft == 0) {
        mPipe.Reset();
        return;
    }
    // Only this end: the program's own stays blocking, because programs expect that. It cannot fail on a
    // pipe.
    int on = 1;
    static_cast<void>(ioctl(mPipe.Get(), FIONBIO, &on));
    if (mLeft > PIPE_SIZE) {
        // Refused to users with many large pipes; then it goes on with the small one.
        static_cast<void>(fcntl(mPipe.Get(), F_SETPIPE_SZ, LARGE_PIPE_SIZE));
    }
}

void InputFeeder::Feed() {
    if (!mPipe) {
        return;
    }
    const ssize_t written = WriteWithoutSigpipe(mPipe.Get(), mText, mLeft);
    if (written < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (written < 0) {
        TERN_LOG_INFO(LOGGER, "PID[%d] write to pipe %d failed (errno=%s)", mPid, mPipe.Get(),
                      ErrorText(errno));
        mPipe.Reset();
        return;
    }
    mText += written;
    mLeft -= static_cast<std::size_t>(written);
    if (mLeft == 0) {
        mLeft = strnlen(mText, WINDOW);
    }
    if (mLeft == 0) {
        mPipe.Reset();
    }
}

}  // namespace mwl::ProcessExecution

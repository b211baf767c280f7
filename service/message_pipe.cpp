#include <tern/service/message_pipe.h>

#include <fcntl.h>
#include <signal.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "foundation/error_text.h"

using mwl::ErrorText;

namespace mw::tern {

namespace {

/// Keeps a write without a reader from ending the process. A handler and not SIG_IGN, because programs run by
/// this process would inherit the latter. Under systemd the signal is ignored already, and nothing is
/// changed.
void SurviveSigpipe() {
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
        action.sa_handler == SIG_DFL) {
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        static_cast<void>(sigaction(SIGPIPE, &action, nullptr));  // cannot fail with these arguments
    }
}

/// The error of a read or write of `size` bytes, 0 when all were moved. A short transfer sets no errno.
int TransferError(ssize_t transferred, unsigned int size) {
    if (transferred < 0) {
        return errno;
    }
    return static_cast<std::size_t>(transferred) < size ? EIO : 0;
}

}  // namespace

MessagePipe::~MessagePipe() {
    for (const int fd : {mReadFd, mWriteFd}) {
        if (fd != -1) {
            close(fd);
        }
    }
}

// Meant: no guard against a second call. It makes a new pipe and leaves the old descriptors open.
StatusCode MessagePipe::Initialize() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Initialize fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    SurviveSigpipe();
    mReadFd = ends[0];
    mWriteFd = ends[1];
    if (fcntl(mReadFd, F_SETFL, O_NONBLOCK) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Initialize fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    mReadPoll = {mReadFd, POLLIN, 0};
    return StatusCode::Ok;
}

StatusCode MessagePipe::WriteMessage(const void* data, unsigned int size) {
    const std::lock_guard lock(mWriteMutex);
    if (mWriteFd == -1) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Pipe is not initialized yet");
        return StatusCode::NotInitialized;
    }
    const int error = TransferError(write(mWriteFd, data, size), size);
    if (error != 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] WriteMessage fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

StatusCode MessagePipe::ReadMessage(void* data, unsigned int size, unsigned int timeoutMs) {
    // Looked at before the wait: nothing would ever end it.
    if (mReadFd == -1) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Pipe is not initialized yet");
        return StatusCode::NotInitialized;
    }
    if (timeoutMs != 0) {
        const int ready = poll(&mReadPoll, 1, static_cast<int>(std::min<unsigned int>(timeoutMs, INT_MAX)));
        const int error = errno;
        if (ready < 0 && error == EINTR) {
            TERN_LOG_INFO(ServiceCommon::mLogger, "[MessagePipe] Received Stop signal");
            return StatusCode::Interrupted;
        }
        if (ready < 0) {
            TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Polling fails: %s", ErrorText(error));
            return StatusCode::Failure;
        }
        if (ready == 0) {
            return StatusCode::Timeout;
        }
    }
    const int error = TransferError(read(mReadFd, data, size), size);
    if (error != 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] ReadMessage fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

}  // namespace mw::tern

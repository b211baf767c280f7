#include <tern/service/message_pipe.h>

#include <fcntl.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <new>

#include "foundation/error_text.h"
#include "foundation/known_objects.h"
#include "foundation/tell.h"
#include "platform/survive_sigpipe.h"

using mwl::ErrorText;

namespace mw::tern {

namespace {

/// The error of a read or write of `size` bytes, 0 when all were moved. A short transfer sets no errno.
int TransferError(ssize_t transferred, unsigned int size) {
    if (transferred < 0) {
        return errno;
    }
    return static_cast<std::size_t>(transferred) < size ? EIO : 0;
}

/// write(2) for a listener, to whom a wait for room is reported; finding that out takes a system call.
ssize_t WriteAndTell(const void* pipe, int fd, const void* data, std::size_t size) {
    pollfd room{fd, POLLOUT, 0};
    if (poll(&room, 1, 0) != 0) {
        return write(fd, data, size);
    }
    TERN_TELL(PipeFull, pipe_full, pipe, 0);
    const ssize_t written = write(fd, data, size);
    TERN_TELL(PipeWaited, pipe_waited, pipe, 0);
    return written;
}

/// The messages that Close takes out of a pipe and puts back.
class Content {
public:
    /// Holds nothing. Has room for two takings: what was in the pipe, and what one more write added.
    explicit Content(int pipe)
        : mCapacity(static_cast<std::size_t>(std::max(fcntl(pipe, F_GETPIPE_SZ), PIPE_BUF))),
          mBytes(new (std::nothrow) char[2 * mCapacity]) {}

    /// Takes all that is in the pipe, whose read end does not block. Without memory it is only counted.
    void Take(int readFd) {
        char lost[PIPE_BUF];
        ssize_t taken = 0;
        do {
            taken = mBytes == nullptr ? read(readFd, lost, sizeof lost)
                                      : read(readFd, mBytes.get() + mSize, mCapacity);
            mSize += static_cast<std::size_t>(std::max(taken, static_cast<ssize_t>(0)));
        } while (mBytes == nullptr && taken > 0);
    }

    std::size_t GetSize() const { return mSize; }

    /// Puts the first `size` bytes back into the pipe, which is empty. 0 or the error number.
    int PutBack(int writeFd, std::size_t size) const {
        if (size == 0) {
            return 0;
        }
        return mBytes == nullptr
                   ? ENOMEM
                   : TransferError(write(writeFd, mBytes.get(), size), static_cast<unsigned int>(size));
    }

private:
    std::size_t mCapacity;
    std::unique_ptr<char[]> mBytes;
    std::size_t mSize = 0;
};

}  // namespace

MessagePipe::~MessagePipe() {
    mwl::KnownObjects::Remove(mwl::KnownObjects::Kind::Pipe, this);
    for (const int fd : {mReadFd, mWriteFd.load()}) {
        if (fd != -1) {
            close(fd);
        }
    }
}

// Fixed by the interface: no guard against a second call. It makes a new pipe and leaves the old descriptors
// open.
StatusCode MessagePipe::Initialize() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Initialize fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    mwl::SurviveSigpipe();
    mReadFd = ends[0];
    mWriteFd = ends[1];
    mIsClosed = false;
    mIsClosedLogged = false;
    mIsRevoked = false;
    mOvertaken = 0;
    if (fcntl(mReadFd, F_SETFL, O_NONBLOCK) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Initialize fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    mReadPoll = {mReadFd, POLLIN, 0};
    mwl::KnownObjects::Add({.object = this, .kind = mwl::KnownObjects::Kind::Pipe});
    return StatusCode::Ok;
}

StatusCode MessagePipe::WriteMessage(const void* data, unsigned int size) {
    // Nothing is logged under the lock: a log that is slow would hold up Close.
    std::unique_lock lock(mWriteMutex);
    if (mIsClosed) {
        lock.unlock();
        return FailClosed(EPIPE);
    }
    if (mWriteFd == -1) {
        lock.unlock();
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Pipe is not initialized yet");
        return StatusCode::NotInitialized;
    }
    const ssize_t written =
        mwl::Tell::IsOn() ? WriteAndTell(this, mWriteFd, data, size) : write(mWriteFd, data, size);
    const int error = TransferError(written, size);
    if (mIsClosed) {
        mOvertaken = static_cast<unsigned int>(std::max(written, static_cast<ssize_t>(0)));
        lock.unlock();
        // Close is under way and has the last word. It has let go every writer that waited in write(2), so
        // success means nothing yet.
        std::unique_lock closing(mReadMutex);
        const bool isWritten = error == 0 && !mIsRevoked;
        closing.unlock();
        return isWritten ? StatusCode::Ok : FailClosed(EPIPE);
    }
    lock.unlock();
    if (error != 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] WriteMessage fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    TERN_TELL(PipeWritten, pipe_written, this, size);
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
    std::unique_lock lock(mReadMutex);
    const ssize_t taken = read(mReadFd, data, size);
    const int error = TransferError(taken, size);
    lock.unlock();
    if (taken == 0 && mIsClosed) {
        return FailClosed(error);
    }
    if (error != 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] ReadMessage fails : %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    TERN_TELL(PipeRead, pipe_read, this, size);
    return StatusCode::Ok;
}

// No error: it is how an orderly stop ends for a worker that had something to say.
StatusCode MessagePipe::FailClosed(int error) {
    if (!mIsClosedLogged.exchange(true)) {
        TERN_LOG_INFO(ServiceCommon::mLogger, "[MessagePipe] Pipe is closed");
    }
    return MakeStatusCodeFromErrno(error);
}

// A writer in write(2) comes out when there is room, no reader, or a signal. There is no reader to lose:
// closing the read end would not do while a poll(2) or a forked child still has it, would take it from the
// reader's event loop, and would lose what was written. Signals are the application's. So it is given room:
// what is in the pipe is taken out, and put back without what the writer added.
void MessagePipe::Close() {
    int error = 0;
    {
        const std::lock_guard reading(mReadMutex);
        if (mWriteFd == -1) {
            return;
        }
        mIsClosed = true;
        std::unique_lock writing(mWriteMutex, std::try_to_lock);
        if (!writing.owns_lock()) {
            // A message larger than the room waits again: not with this flag, which each wait looks at first.
            // Cannot fail with valid arguments.
            static_cast<void>(fcntl(mWriteFd, F_SETFL, O_NONBLOCK));
            Content content(mWriteFd);
            content.Take(mReadFd);
            writing.lock();
            content.Take(mReadFd);
            // With less there than it wrote, its write was over and the reader had it before this began.
            mIsRevoked = mOvertaken <= content.GetSize();
            error = content.PutBack(mWriteFd, content.GetSize() - (mIsRevoked ? mOvertaken : 0));
        }
        close(mWriteFd.exchange(-1));
    }
    if (error != 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[MessagePipe] Close fails : %s", ErrorText(error));
    }
}

}  // namespace mw::tern

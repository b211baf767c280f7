#pragma once

#include <poll.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <mutex>

namespace mw::tern {

/// Carries messages of a fixed size between threads of one process over a pipe(7): any number of writers, one
/// reader, which either waits with a time limit or is called by an event loop that watches the read
/// descriptor.
///
///     MessagePipe pipe;
///     pipe.Initialize();
///     loop.AddIo(pipe.GetReadFd(), EPOLLIN, [&pipe](sd_event_source*, int, unsigned int) {
///         Message message;
///         if (pipe.ReadMessage(&message, sizeof message, 0) == StatusCode::Ok) { ... }
///         return StatusCode::Ok;                      // a failure would switch the watch off
///     });
///     ...                                             // on any thread:
///     pipe.WriteMessage(&message, sizeof message);
///
/// There is no framing: a message is the bytes of one write, and the reader asks for the same number.
/// Messages of at most PIPE_BUF bytes arrive whole; use no larger ones.
///
/// Thread-safety: WriteMessage from any thread; ReadMessage from one thread; Initialize before both, and the
/// destructor after both. The descriptors belong to the pipe: remove them from an event loop before the pipe
/// is destroyed, and do not close them. They are close-on-exec from birth.
///
/// SIGPIPE: Initialize gives this signal, where it still has its default action, a handler that does nothing.
/// So a write to a pipe without a reader is an error (IoError), not the end of the process, and programs that
/// the process runs keep the default action. A signal that the application handles or ignores is left as it
/// is.
class TERN_API MessagePipe {
public:
    MessagePipe() = default;
    /// Closes the descriptors; messages not yet read are lost.
    virtual ~MessagePipe();
    MessagePipe(const MessagePipe&) = delete;
    MessagePipe& operator=(const MessagePipe&) = delete;

    /// Makes the pipe, and its read end non-blocking (pipe2(2), fcntl(2)). Ok, or the logged status of the
    /// failing call's errno; then the object is only good for being destroyed. Call it once: a second call
    /// makes another pipe, and the first one's descriptors stay open for good.
    StatusCode Initialize();

    /// -1 before Initialize. Borrowed.
    int GetReadFd() const { return mReadFd; }
    /// -1 before Initialize. Borrowed.
    int GetWriteFd() const { return mWriteFd; }

    /// Writes one message of `size` bytes with one write(2), which blocks while the pipe is full (64 KiB as a
    /// rule, see pipe(7)) and holds up the other writers meanwhile. Beware of a reader that writes to its own
    /// full pipe: it waits for itself.
    ///
    /// Ok: written. Otherwise logged: NotInitialized before Initialize; IoError when no reader is left, or
    /// when only a part was written (a signal at a full pipe and a message above PIPE_BUF: the stream is out
    /// of step then); Interrupted when a signal without automatic restart, such as the stop signal, ended the
    /// wait and nothing was written; else the status of errno. Raises std::system_error when the lock fails.
    StatusCode WriteMessage(const void* data, unsigned int size);

    /// Reads one message of `size` bytes. With `timeoutMs` 0 it does not wait; otherwise it waits at most so
    /// many milliseconds (values beyond INT_MAX count as INT_MAX, about 24 days; monotonic clock).
    ///
    /// Ok: `data` is filled. Otherwise the content of `data` is unspecified:
    /// NotInitialized before Initialize (logged);
    /// Timeout when nothing came within the limit;
    /// Interrupted when a signal handler ran during the wait, as the stop signal's does (logged at info
    /// level); Failure when the wait itself failed (logged); ResourceUnavailable when nothing is there and
    /// `timeoutMs` is 0 (logged); IoError when less than a message was there: its bytes are consumed
    /// (logged); else the status of errno of read(2) (logged).
    StatusCode ReadMessage(void* data, unsigned int size, unsigned int timeoutMs);

private:
    // Plain numbers: what Initialize made stays with the object however it ended.
    int mReadFd = -1;
    int mWriteFd = -1;
    std::mutex mWriteMutex;
    pollfd mReadPoll{-1, 0, 0};
};

}  // namespace mw::tern

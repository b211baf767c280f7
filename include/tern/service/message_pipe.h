#pragma once

#include <poll.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <atomic>
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
///     ...                                             // when nobody reads any more, as in IpcServer::Stop:
///     pipe.Close();
///
/// There is no framing: a message is the bytes of one write, and the reader asks for the same number.
/// Messages of at most PIPE_BUF bytes arrive whole; use no larger ones.
///
/// The pipe holds both of its ends, so a writer at a full pipe waits until somebody reads, also when the
/// reader has gone for good. `Close` ends that wait. Whoever stops reading calls it, before the writers are
/// joined.
///
/// | operation    | before Initialize | initialised     | closed                                      |
/// |--------------|-------------------|-----------------|---------------------------------------------|
/// | WriteMessage | NotInitialized    | writes, waits   | IoError immediately                         |
/// | ReadMessage  | NotInitialized    | reads, waits    | what was written, then IoError immediately  |
/// | Close        | no effect         | closes          | no effect                                   |
/// | Initialize   | makes the pipe    | makes a new one | makes a new one (both leave a descriptor)   |
///
/// Thread-safety: WriteMessage and Close from any thread; ReadMessage from one thread; Initialize before all,
/// and the destructor after all. The descriptors belong to the pipe: remove them from an event loop before
/// the pipe is destroyed, and do not close them. They are close-on-exec from birth.
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
    /// -1 before Initialize and after Close. Borrowed.
    int GetWriteFd() const { return mWriteFd; }

    /// Writes one message of `size` bytes with one write(2), which blocks while the pipe is full (usually 64
    /// KiB, see pipe(7)) and holds up the other writers meanwhile. Beware of a reader that writes to its own
    /// full pipe: it waits for itself.
    ///
    /// A signal ends only the wait of the writer that is in write(2): one that comes a moment before, or to a
    /// writer that still waits for its turn, is lost. `Close` ends every wait, however far the writer has
    /// come.
    ///
    /// Ok: written. Otherwise the reader never gets the message, and what it refers to is still the caller's:
    /// IoError when the pipe is closed (logged once a pipe, at info level). And with an error message:
    /// NotInitialized before Initialize; IoError when no reader is left, or when only a part was written (a
    /// signal at a full pipe and a message above PIPE_BUF: the stream is out of step then); Interrupted when
    /// a signal without automatic restart, such as the stop signal, ended the wait and nothing was written;
    /// else the status of errno. Raises std::system_error when the lock fails.
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
    /// (logged); IoError when the pipe is closed and all has been read (logged once a pipe, at info level);
    /// else the status of errno of read(2) (logged).
    StatusCode ReadMessage(void* data, unsigned int size, unsigned int timeoutMs);

    /// Closes the pipe for writers: a writer that waits, in write(2) or for its turn, and every later one
    /// returns IoError, as at a pipe without a reader. Never waits for a reader, and never provokes SIGPIPE.
    /// Messages that were written before can still be read; then the read end is at end of file, which also
    /// ends the wait of a reader. A loop that still runs sees end of file again and again: remove the read
    /// descriptor from it, or let the callback return the failure of ReadMessage, which switches the watch
    /// off.
    ///
    /// Any thread, the reader's included, and any number of times; before Initialize it has no effect. The
    /// destructor does not call it: by then no writer may be left.
    ///
    /// Logged, and what was written is lost, only if memory runs out at the very moment when a writer waits.
    /// Raises std::system_error when a lock fails.
    void Close();

private:
    StatusCode FailClosed(int error);

    // Plain numbers: descriptors that Initialize created stay with the object however it ended.
    int mReadFd = -1;
    std::atomic<int> mWriteFd{-1};  // changed by Close under both locks
    std::mutex mWriteMutex;
    pollfd mReadPoll{-1, 0, 0};

    // Held around each read and by Close, which takes mWriteMutex under it. Not while waiting for a message.
    std::mutex mReadMutex;
    std::atomic<bool> mIsClosed{false};
    std::atomic<bool> mIsClosedLogged{false};
    bool mIsRevoked = false;      // under mReadMutex: the write that Close overtook does not count
    unsigned int mOvertaken = 0;  // under mWriteMutex: bytes of the write that Close overtook
};

}  // namespace mw::tern

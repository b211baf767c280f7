#pragma once

#include <tern/foundation/status_code.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

#include "foundation/handle.h"
#include "foundation/unique_fd.h"
#include "process_execution/long_text.h"

namespace mwl::ProcessExecution {

/// Reads a program's output from its pipe without blocking and appends it to a string. At debug level
/// each line is logged, in pieces of at most 127 bytes, numbered from 0; as logging may take far longer than
/// reading, it is what the time given is for. One thread at a time.
class OutputStream {
public:
    using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC

    /// `output` is what is appended to; it must outlive the stream, and nobody else may change it meanwhile.
    explicit OutputStream(std::string& output);

    /// Takes the pipe and makes it non-blocking. A failure is logged: StreamError when no stream can be
    /// opened on it, the status of errno otherwise; the pipe is closed then.
    StatusCode Open(UniqueFd pipe);

    /// The descriptor to be polled for reading, -1 at its end.
    int GetDescriptor() const { return mFd; }
    /// Reads what is there now, at most 1 MiB, so that a program that never stops writing cannot hold the
    /// reader. Reads no further than it has logged, and logs no line after `until`: the next call goes on.
    void Read(Clock::time_point until);
    /// Reads what is there now, and nothing that is written meanwhile: all that an ended program left. Lines
    /// that are not logged by `until` are summed up in one.
    void ReadRest(Clock::time_point until);

private:
    /// Collects up to `limit` bytes, in one read; false when there is no more for now.
    bool ReadChunk(std::size_t limit);
    /// Logs the complete pieces of what has not been logged yet, with `all` the last incomplete one too.
    /// False when the time was up before.
    bool TraceLines(bool all, Clock::time_point until);

    std::string& mOutput;
    LongText mText;       ///< appends to it
    std::size_t mTraced;  ///< where in it the next line to be logged begins
    int mLine = 0;
    Handle<FILE, fclose> mStream;  ///< owns the descriptor; nothing is read through it
    int mFd = -1;
    const std::unique_ptr<char[]> mBuffer;
};

}  // namespace mwl::ProcessExecution

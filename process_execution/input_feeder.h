#pragma once

#include <sys/types.h>

#include <cstddef>

#include "foundation/unique_fd.h"

namespace mwl::ProcessExecution {

/// Feeds a text to a program's standard input, as much at a time as the pipe takes, then closes it. The text
/// must outlive it. One thread at a time.
class InputFeeder {
public:
    /// `pid` is for the message. With an empty text the pipe is closed immediately.
    InputFeeder(UniqueFd pipe, const char* text, pid_t pid);

    /// The descriptor to be polled for writing, -1 when everything is written or nobody reads any more.
    int GetDescriptor() const { return mPipe.Get(); }
    /// Writes what the pipe takes now, without blocking and without a SIGPIPE. A failed write is logged and
    /// ends the feeding.
    void Feed();

private:
    UniqueFd mPipe;
    const char* mText;
    std::size_t mLeft;  ///< bytes at mText known to be left, 0 at the end of the text
    pid_t mPid;
};

}  // namespace mwl::ProcessExecution

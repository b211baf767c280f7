#include "process_execution/pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace mwl::ProcessExecution {

namespace {

/// Moves a descriptor that took the number of a missing standard descriptor.
bool MoveAboveStandard(UniqueFd& fd) {
    if (fd.Get() > STDERR_FILENO) {
        return true;
    }
    const int moved = fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) {
        return false;
    }
    fd.Reset(moved);
    return true;
}

}  // namespace

bool Pipe::Open(int flags) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | flags) != 0) {
        return false;
    }
    readEnd.Reset(ends[0]);
    writeEnd.Reset(ends[1]);
    if (!MoveAboveStandard(readEnd) || !MoveAboveStandard(writeEnd)) {
        const int error = errno;
        readEnd.Reset();
        writeEnd.Reset();
        errno = error;
        return false;
    }
    return true;
}

}  // namespace mwl::ProcessExecution

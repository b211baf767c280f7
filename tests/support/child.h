#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "log_capture.h"
#include "wait_until.h"

namespace tern::test {

/// How a child ended and what it logged and printed.
struct ChildResult {
    int exitCode = -1;      ///< exit status, -1 when a signal ended it
    int signal = 0;         ///< the signal that ended it, 0 when it exited
    bool timedOut = false;  ///< it was killed at the time limit
    /// What it logged, in order.
    std::vector<LogEntry> log;
    std::string error;  ///< its standard error
};

/// Runs `body` in a forked child and waits for its end, at most `limit`; then the child is killed. The
/// child's messages (threshold 7) are collected, also those that a LogCapture of its own takes. When `body`
/// returns, the child leaves with that exit status without running static destructors; when it throws, with
/// 125 and a line on standard error. Call it while the test program has no other thread. Throws
/// std::system_error when there is no child to be had.
ChildResult RunInChild(const std::function<int()>& body, std::chrono::milliseconds limit = GENEROUS_LIMIT);

/// How a child of this process is, in words for a failure message: "process 7 has ended with exit status 1",
/// "process 7 was ended by signal 11 (Segmentation fault)", "process 7 is running", "there is no process 7 to
/// wait for". It is not reaped.
std::string DescribeChild(pid_t child);

}  // namespace tern::test

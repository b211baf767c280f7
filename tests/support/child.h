#pragma once

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
/// child's messages (threshold 7) are collected. When `body` returns, the child leaves with that exit status
/// without running static destructors. Call it while the test program has no other thread.
ChildResult RunInChild(const std::function<int()>& body, std::chrono::milliseconds limit = GENEROUS_LIMIT);

}  // namespace tern::test

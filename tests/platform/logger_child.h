#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tern::test {

// What the logger decides at first use is tested in children, each with a first use of its own.

/// Forks a child whose standard error is `errorFd`; it fails when an expectation in `body` does.
pid_t StartChild(int errorFd, const std::function<void()>& body);
/// Waits for the child's end, which has to be a success.
void ExpectSuccess(pid_t pid);

/// Runs `body` in a child that makes its standard error itself.
void InChild(const std::function<void()>& body);

/// Everything that a child wrote to standard error, one element a write: it is a socket that keeps their
/// boundaries.
std::vector<std::string> WritesOf(const std::function<void()>& body);
/// Everything that a child wrote to standard error, a terminal.
std::string TerminalOf(const std::function<void()>& body);

/// Lets standard error of this process, a child, pass for the journal's stream.
void PretendJournal();

/// In a child: standard error is a stream socket. Returns the end to read from.
int MakeStandardErrorASocket();

/// Longer than any wait of one message, shorter than two.
constexpr std::chrono::milliseconds ONE_WAIT{1900};
/// What no message waits that is dropped at once; a busy machine's pauses are shorter.
constexpr std::chrono::milliseconds NO_WAIT{900};

/// Logs an error with just this text.
void Print(const std::string& text);
/// Prints what `text` makes of 0, 1, ... until one message had to wait. Returns how many were taken before.
int PrintUntilOneWaits(const std::function<std::string(int)>& text);

/// What `body` takes.
std::chrono::milliseconds DurationOf(const std::function<void()>& body);

/// Everything that can be read from `fd` without waiting.
std::string ReadAll(int fd);

}  // namespace tern::test

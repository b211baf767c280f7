#pragma once

#include <cstddef>

#include "patience.h"

namespace mwl::Log {

/// Writes all of a line to standard error, usually with one system call, and waits in none of them: a pipe, a
/// socket or a terminal that takes nothing is waited for as long as `patience` allows. The descriptor's own
/// flags, which other processes may share, stay as they are. A reader that has gone costs the line, not the
/// process (SurviveSigpipe). Returns false when not all was written; the next line then begins with a
/// newline, so that it does not continue this one. The byte in front of `line` is writable, for that newline.
///
/// The kind of standard error (a file, a pipe...) is looked at by the first line, and again when it turns out
/// to be something else by now, for example after dup2(2). Thread-safe without locks or memory, in a forked
/// child too.
bool WriteToStandardError(char* line, std::size_t size, Patience& patience) noexcept;

}  // namespace mwl::Log

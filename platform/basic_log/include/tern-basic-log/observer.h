#pragma once

#include <tern-basic-log/root_logger.h>

#include <cstddef>

namespace mwl::Log {

// Beyond what every logger has: a device maker's logger may lack these functions. A caller that can do
// without them declares them weak and looks whether they are there.

/// Is given each message of warning level or worse that is written, before it is written: its text without a
/// newline and without a zero at its end, valid during the call. On the thread that logs, from any place: it
/// waits for nothing, takes no lock that is held while logging, and logs nothing.
using Observer = void (*)(TernLogLevel level, const char* text, std::size_t length) noexcept;

/// Sets the process's one observer; null takes it out. A call to the former one may still be under way. Any
/// thread.
__attribute__((visibility("default"))) void SetObserver(Observer observer) noexcept;

/// Sets the threshold, 0 to 7; more counts as 7. Any thread.
__attribute__((visibility("default"))) void SetThreshold(unsigned char level) noexcept;

}  // namespace mwl::Log

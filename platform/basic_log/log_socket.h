#pragma once

#include <sys/uio.h>

#include <cstddef>

#include "patience.h"

namespace mwl::Log {

/// The fate of a message that was sent to a log daemon's socket.
enum class Sent : unsigned char {
    Yes,
    NotInTime,  ///< the daemon does not read
    TooLarge,   ///< for a datagram
    Stream,     ///< a socket of streams: SendToLogStream
    Refused     ///< no such socket, nobody behind it, no descriptor for ours...
};

/// Sends the parts as one datagram to the socket at `path`, a literal, with the descriptor `file` attached
/// unless it is negative. Waits for a daemon that does not read as long as `patience` allows. A socket of its
/// own for each message: no state that a forked child or closefrom(3) could spoil, no locks, no memory.
Sent SendToLogSocket(const char* path, iovec* parts, std::size_t count, int file,
                     Patience& patience) noexcept;

/// As above for a socket of streams, where a zero byte ends the message.
Sent SendToLogStream(const char* path, const iovec* parts, std::size_t count, Patience& patience) noexcept;

}  // namespace mwl::Log

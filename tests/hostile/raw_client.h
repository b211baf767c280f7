#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/unique_fd.h"

namespace hostile {

/// A peer on the message bus that writes its messages byte by byte itself: what a library would refuse to
/// make, or take minutes for, goes out. What is sent to it is read by nobody. One thread; every failure
/// throws std::runtime_error.
class RawClient {
public:
    /// On the bus at "unix:path=...".
    explicit RawClient(const std::string& address);

    /// Calls a method of the attacked service and wants no answer. Returns when the bus has taken the bytes.
    void Call(std::string_view member, std::string_view signature, std::string_view body);

private:
    void Send(std::string_view destination, std::string_view path, std::string_view interface,
              std::string_view member, std::string_view signature, std::string_view body);
    void Write(std::string_view bytes) const;

    mwl::UniqueFd mSocket;
    std::uint32_t mSerial = 0;
};

}  // namespace hostile

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace hostile {

/// One message that a hostile peer sends.
struct Attack {
    const char* name;
    const char* description;
    const char* member;     ///< the method that is called
    const char* signature;  ///< of its body
    /// The body, about so many bytes and no more, and within the rules of D-Bus: the message bus drops
    /// others.
    std::string (*make)(std::size_t bytes);
    const char* logLevel = "info";  ///< of the service
};

const std::vector<Attack>& Attacks();

}  // namespace hostile

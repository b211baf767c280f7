#pragma once

#include <cstddef>

namespace mw::tern::DBusMessage {

/// How many bytes of keys one parse may still make. Each name is in the message once but in every key below
/// it: without a bound, one long name above many short entries makes gigabytes out of a message of megabytes.
class KeyBudget {
public:
    static constexpr std::size_t LIMIT = std::size_t{64} * 1024 * 1024;

    /// False, and nothing taken, when so much is not left.
    bool Take(std::size_t bytes) noexcept {
        if (bytes > mLeft) {
            return false;
        }
        mLeft -= bytes;
        return true;
    }

private:
    std::size_t mLeft = LIMIT;
};

}  // namespace mw::tern::DBusMessage

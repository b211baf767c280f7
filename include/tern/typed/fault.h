#pragma once

#include <tern/foundation/api.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace mwl::Typed {

/// Why a value could not be read, and where in it. Empty until a codec fills it on its failing path, which
/// costs the others nothing; a failure that sd-bus itself reported has no text.
///
/// Every operation returns what the codec then returns, so that it can write `return fault.Refuse("...")`. A
/// text that does not fit is cut between two characters, so that the result is UTF-8 whatever the message
/// held; control characters are shown as '?'. One thread at a time. Nothing here throws.
struct Fault {
    char text[160];  ///< for example "'s' where 'u' is wanted"; empty when there is none
    char where[64];  ///< the way from the value to the faulty part of it, for example ".Zones[3].Name"

    Fault() noexcept {
        text[0] = '\0';
        where[0] = '\0';
    }

    /// Another reason, of a codec of one's own. Returns `error`.
    [[gnu::cold]] TERN_API int Refuse(std::string_view reason, int error = -EINVAL) noexcept;
    /// "'s' where 'u' is wanted". Returns -EINVAL, as do those below.
    [[gnu::cold]] TERN_API int WrongType(const char* found, const char* wanted) noexcept;
    /// "2 elements where 3 are wanted"
    [[gnu::cold]] TERN_API int WrongCount(std::size_t found, std::size_t wanted) noexcept;
    /// "more than 1048576 elements", see MAX_ELEMENTS
    [[gnu::cold]] TERN_API int TooMany() noexcept;
    /// "'fast' is not one of its values"
    [[gnu::cold]] TERN_API int NotAValue(std::string_view value) noexcept;
    /// "7 is not one of its values"
    [[gnu::cold]] TERN_API int NotAValue(std::int64_t value) noexcept;
    /// As above.
    [[gnu::cold]] TERN_API int NotAValue(std::uint64_t value) noexcept;
    /// "the key 'Seconds' is missing"
    [[gnu::cold]] TERN_API int Missing(std::string_view key) noexcept;
    /// "the key 'Seconds' is unknown"
    [[gnu::cold]] TERN_API int Unknown(std::string_view key) noexcept;

    /// The fault concerns the field `key` of the value: puts ".key" in front. Returns `result`.
    [[gnu::cold]] TERN_API int Below(std::string_view key, int result) noexcept;
    /// As above, for the element `index`: "[3]".
    [[gnu::cold]] TERN_API int At(std::size_t index, int result) noexcept;
};

}  // namespace mwl::Typed

#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace mw::tern::DBusMessage {

/// How much memory one parse may still take: keys, values, their objects, the map's nodes, and the path that
/// the walk keeps. A message makes far more of it than it is long itself: one long name above many short
/// entries is in every key below it, and an empty string of eight bytes becomes a node, an object and a key.
///
/// It counts the memory that the allocator hands out for a request, not the request alone; for many small
/// requests the difference is the larger part.
class MemoryBudget {
public:
    static constexpr std::size_t LIMIT = std::size_t{64} * 1024 * 1024;

    /// The memory that an allocation of so many bytes takes: the C library puts a size before each, rounds up
    /// to its alignment, and has a smallest piece.
    static constexpr std::size_t Allocation(std::size_t bytes) noexcept {
#ifdef __i386__
        constexpr std::size_t ALIGNMENT = 16;  // the C library's, stricter than any type's
#else
        constexpr std::size_t ALIGNMENT = alignof(std::max_align_t);
#endif
        constexpr std::size_t SMALLEST = 4 * sizeof(void*);
        return std::max(SMALLEST, (bytes + sizeof(void*) + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT);
    }
    /// The memory that a string of so many bytes takes outside its object: none when it fits in there.
    static std::size_t Text(std::size_t length) noexcept {
        return length <= std::string().capacity() ? 0 : Allocation(length + 1);
    }

    /// False, and nothing taken, when so much is not left.
    bool Take(std::size_t bytes) noexcept {
        if (bytes > mLeft) {
            return false;
        }
        mLeft -= bytes;
        return true;
    }
    /// Of what was taken before.
    void GiveBack(std::size_t bytes) noexcept {
        mLeft += bytes;
    }

private:
    std::size_t mLeft = LIMIT;
};

}  // namespace mw::tern::DBusMessage

#pragma once

#include <tern/foundation/api.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace mwl::KnownObjects {

// Which of the library's objects exist, for a listener (tell.h) that begins long after they were created.
// Kept always, because creating and destroying them is rare: a lock and a row, no memory from the heap.
// Nobody follows the addresses.

/// The kind of an object.
enum class Kind : std::uint8_t { Supervised = 1, Watched, Pool, Component, Timer, ShortPeriodTimer, Pipe };

/// The number of rows. An object that is created while all are taken is not known; see GetMissed.
inline constexpr std::size_t MOST = 256;

/// One object.
struct Known {
    static constexpr std::size_t LONGEST_NAME = 47;

    const void* object = nullptr;
    std::uint64_t number = 0;   ///< a pool's threads, a timer's or watched thread's period in milliseconds
    std::int32_t threadId = 0;  ///< the kernel's, of a supervised or watched thread; 0 when not known
    Kind kind{};
    bool isPeriodic = false;                    ///< of a timer
    std::array<char, LONGEST_NAME + 1> name{};  ///< cut at a character's boundary; may be empty

    std::string_view GetName() const noexcept { return name.data(); }
};

/// Adds the object and reports it (object_made). An object of the same address and kind that is there already
/// is replaced, except for supervised threads, which may be there several times. Any thread.
void Add(const Known& known, std::string_view name = {}) noexcept;
/// Takes the latest of this kind and address out and reports it (object_gone); nothing when there is none.
/// Any thread.
void Remove(Kind kind, const void* object) noexcept;
/// The same for all of this kind and address.
void RemoveAll(Kind kind, const void* object) noexcept;

/// All that are known now, in the order in which they were added. Returns their number.
TERN_API std::size_t Copy(std::array<Known, MOST>& all) noexcept;
/// As Copy; meanwhile nothing is added or removed, and `begin` is called: reports after it are of objects
/// that come or go after it. `begin` waits for nothing.
TERN_API std::size_t CopyAnd(std::array<Known, MOST>& all, void (*begin)(void*) noexcept,
                             void* argument) noexcept;
/// How many objects were not added because all rows were taken.
TERN_API std::uint64_t GetMissed() noexcept;

}  // namespace mwl::KnownObjects

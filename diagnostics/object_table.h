#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "foundation/known_objects.h"

namespace mwl::Diagnostics {

/// What has been counted of each of the library's objects, found by its address, which is never followed.
/// Rows stand one behind the other, so that few objects take little memory; their numbers are in a table by
/// address.
///
/// Rows are taken and given back by one thread at a time (under the lock of the known objects), which is rare
/// and may walk the table; everything else by all threads at once.
class ObjectTable {
public:
    /// Of one object. What the figures are depends on its kind. The period is that of a watch that recording
    /// found when it began.
    ///
    /// | kind      | asked               | begun      | done        | largest                    |
    /// |-----------|---------------------|------------|-------------|----------------------------|
    /// | Pool      | jobs queued now     | jobs begun | jobs ended  |                            |
    /// | Component | wake-ups            | runs begun | runs ended  |                            |
    /// | Timer     |                     | callbacks  | their ends  | lateness, nanoseconds      |
    /// | Pipe      | messages written    | times full | read        | wait for room, ticks       |
    /// | Watched   | period, nanoseconds |            |             | ticks of the latest report |
    struct alignas(64) Row {
        std::atomic<const void*> object{nullptr};
        std::atomic<std::uint16_t> name{0};  ///< in the ring
        std::atomic<KnownObjects::Kind> kind{};
        std::atomic<std::uint64_t> asked{0};
        std::atomic<std::uint64_t> begun{0};
        std::atomic<std::uint64_t> done{0};
        std::atomic<std::uint64_t> longest{0};  ///< from a begin to its end, ticks
        std::atomic<std::uint64_t> largest{0};
    };

    /// Null for an object that has no row.
    Row* Find(const void* object) noexcept {
        std::uint16_t number = NONE;
        static_cast<void>(FindPlace(object, number));
        return number == NONE ? nullptr : &mRows[number - 1U];
    }

    /// A row, all figures 0; the one that the object has already. Null when there is no room.
    Row* Take(const void* object, KnownObjects::Kind kind, std::uint16_t name) noexcept;
    void GiveBack(const void* object) noexcept;
    /// Gives all rows back.
    void Clear() noexcept;

private:
    static constexpr std::size_t ROWS = KnownObjects::MOST;
    /// By address. Numbers of rows are their indexes + 1.
    static constexpr std::size_t PLACES = 2 * ROWS;
    static constexpr std::size_t PROBES = 64;
    static constexpr std::uint16_t NONE = 0;
    /// Of a place whose row was given back, behind which others may be found.
    static constexpr std::uint16_t GONE = 0xffff;

    static std::size_t PlaceOf(const void* object) noexcept {
        // Objects lie apart by 16 bytes at least.
        const std::uint64_t mixed =
            (reinterpret_cast<std::uintptr_t>(object) >> 4U) * std::uint64_t{0x9e3779b97f4a7c15};
        return static_cast<std::size_t>(mixed >> 55U) % PLACES;
    }
    /// Where the object's number is, with it; NONE when it has no row.
    std::size_t FindPlace(const void* object, std::uint16_t& number) const noexcept {
        std::size_t place = PlaceOf(object);
        for (std::size_t i = 0; i < PROBES; ++i, place = (place + 1) % PLACES) {
            const std::uint16_t found = mPlaces[place].load(std::memory_order_acquire);
            if (found == NONE) {
                break;
            }
            if (found != GONE && mRows[found - 1U].object.load(std::memory_order_acquire) == object) {
                number = found;
                break;
            }
        }
        return place;
    }

    std::array<std::atomic<std::uint16_t>, PLACES> mPlaces{};
    std::array<Row, ROWS> mRows;
};

}  // namespace mwl::Diagnostics

#pragma once

#include <tern/foundation/status_code.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "diagnostics/ring_format.h"
#include "diagnostics/ticks.h"
#include "foundation/unique_fd.h"

namespace mwl::Diagnostics {

using mw::tern::StatusCode;

/// The flight recorder's memory as its writer sees it: a memfd of fixed size, mapped. Everything but Create
/// and Calibrate's first call may be called by all threads at once: without locks, memory from the heap and
/// system calls. Never unmapped, as a thread may be writing at any time; not mapped in a forked child.
class Ring {
public:
    /// What stands in the header and does not change.
    struct Identity {
        std::string program;
        std::string serviceVersion;
        std::string bootId;
        std::uint32_t restarts = 0;
        std::uint64_t processStartedNs = 0;
        std::uint64_t watchdogNs = 0;
    };

    constexpr Ring() noexcept = default;
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    /// Makes the memory, with room for so many bytes of events, rounded up to a power of two and put within
    /// the limits of the format. Ok, or the status of the failing call's errno; nothing is there then.
    /// `error` is that number.
    StatusCode Create(std::size_t eventBytes, const Identity& identity, int& error);
    /// Takes back what Create made in the parent; in a forked child, where it is not mapped.
    void Forget() noexcept;

    explicit operator bool() const noexcept { return mHeader != nullptr; }
    /// Borrowed; -1 before Create.
    int GetFd() const noexcept { return mFd; }
    std::size_t GetBytes() const noexcept { return mBytes; }
    std::size_t GetCapacity() const noexcept { return static_cast<std::size_t>(mMask + 1); }
    const Format::Header& GetHeader() const noexcept { return *mHeader; }
    std::uint64_t Ticks() const noexcept { return ReadTicks(mIsCounter); }
    /// What ticks are of: ReadTicks.
    bool IsCounter() const noexcept { return mIsCounter; }
    /// A duration of so many ticks in nanoseconds, by what has been measured so far.
    std::uint64_t ToNanoseconds(std::uint64_t ticks) const noexcept;

    /// Number of the name, which is cut at Name::LONGEST bytes; OTHERS when the table is full, which is
    /// counted. Names stand one behind the other, so that a page of the table is memory once the ones before
    /// are full.
    std::uint16_t Intern(std::string_view name) noexcept;

    /// An entry for the calling thread; NO_THREAD when all are taken, which is counted.
    std::uint16_t ClaimThread(std::uint32_t id, std::string_view name) noexcept;
    void ReleaseThread(std::uint16_t number) noexcept;
    /// REQUIRES: number is a claimed one.
    Format::Thread& GetThread(std::uint16_t number) const noexcept { return mThreads[number]; }
    void SetBusThread(std::uint16_t number) noexcept;

    /// Appends an event of the thread with this id, the kernel's.
    void Write(std::uint64_t ticks, Tell::Event event, std::uint32_t threadId, std::uint16_t name,
               std::uint64_t value) noexcept {
        const std::uint64_t index = mHeader->eventHead.fetch_add(1, std::memory_order_relaxed);
        Format::Event& entry = mEvents[index & mMask];
        entry.sequence.store(0, std::memory_order_relaxed);
        // Released, so that nobody sees one of them beside the former sequence number.
        entry.ticks.store(ticks, std::memory_order_release);
        entry.what.store(static_cast<std::uint64_t>(event) | static_cast<std::uint64_t>(name) << 16U |
                             static_cast<std::uint64_t>(threadId) << 32U,
                         std::memory_order_release);
        entry.value.store(value, std::memory_order_release);
        entry.sequence.store(index + 1, std::memory_order_release);
        if (__builtin_expect((index & CALIBRATE_EVERY) == CALIBRATE_EVERY, 0)) {
            Calibrate();
        }
    }

    /// Appends a message, cut where it is longer than an entry.
    void WriteMessage(unsigned level, std::string_view text, bool isException,
                      std::uint32_t threadId) noexcept;
    /// Notes how ticks and clocks stand to each other now.
    void Calibrate() noexcept;
    /// Marks the end of this life; End::None takes the mark back.
    void MarkEnd(Format::End end) noexcept;

private:
    static constexpr std::uint64_t CALIBRATE_EVERY = 0x3ff;
    /// By hash; more than there are names, so that a search ends soon and finds an empty one.
    static constexpr std::size_t PLACES = 1024;
    static_assert(PLACES > Format::NAMES);

    std::uint16_t AddName(std::string_view text, std::uint32_t hash) noexcept;

    Format::Header* mHeader = nullptr;
    Format::Name* mNames = nullptr;
    /// Numbers of names, NO_NAME where nothing is. Nobody else's business, so beside the ring.
    std::array<std::atomic<std::uint16_t>, PLACES> mPlaces{};
    std::atomic<std::uint32_t> mNamesTaken{0};
    Format::Thread* mThreads = nullptr;
    Format::Message* mMessages = nullptr;
    Format::Event* mEvents = nullptr;
    std::uint64_t mMask = 0;
    std::size_t mBytes = 0;
    int mFd = -1;  ///< as the memory, for ever
    bool mIsCounter = false;
};

/// As many bytes of a text as fit into `room`, without a part of a character.
std::size_t FittingLength(std::string_view text, std::size_t room) noexcept;

}  // namespace mwl::Diagnostics

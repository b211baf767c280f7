#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "foundation/tell_events.h"

namespace mwl::Diagnostics::Format {

// The flight recorder's memory, as it lies in a memfd: header, names, threads, messages, events, in this
// order and without gaps. Fixed widths, the byte order of the machine, which the magic number tells. Written
// by all threads of one process without locks, read by anybody, who trusts none of it (ring_reader.h).
//
// Every word is an atomic: a reader may come at any time, and the writer may be killed at any time. An entry
// of messages and events has a sequence number, counting from 1, in its first word: zero while it is written,
// and the last that is stored.

inline constexpr std::uint32_t MAGIC = 0x4b435454;  ///< "TTCK" in little endian
inline constexpr std::uint32_t VERSION = 2;

using Word = std::atomic<std::uint64_t>;
static_assert(sizeof(Word) == 8, "the words of a ring are plain ones");

/// The same instant by three clocks.
struct Instant {
    Word ticks;        ///< see Header::tickSource
    Word monotonicNs;  ///< CLOCK_MONOTONIC
    Word realtimeNs;   ///< CLOCK_REALTIME
};

/// How the writer left; see Header::end.
enum class End : std::uint32_t { None = 0, Stopped = 1, Failed = 2 };

inline constexpr std::uint32_t TICKS_ARE_NANOSECONDS = 0;  ///< of CLOCK_MONOTONIC
inline constexpr std::uint32_t TICKS_ARE_COUNTS = 1;       ///< of the processor's constant counter

struct Header {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint64_t totalBytes;
    std::uint32_t names;     ///< entries
    std::uint32_t threads;   ///< entries
    std::uint32_t messages;  ///< entries
    std::uint32_t events;    ///< entries, a power of two
    std::uint32_t pid;
    std::uint32_t restarts;  ///< lives before this one
    std::uint32_t tickSource;
    std::uint32_t eventNames;        ///< how many of the list are used
    std::uint64_t processStartedNs;  ///< CLOCK_REALTIME
    std::uint64_t watchdogNs;        ///< systemd's period; 0 for none
    std::array<char, 40> bootId;     ///< texts end with a zero
    std::array<char, 64> program;
    std::array<char, 64> serviceVersion;
    Instant first;                         ///< when recording began
    Instant last;                          ///< now and then, see Recorder
    Word eventHead;                        ///< events claimed so far
    Word messageHead;                      ///< messages claimed so far
    Word namesLost;                        ///< events whose name had no room
    Word threadsLost;                      ///< threads that had no room
    std::atomic<std::uint32_t> busThread;  ///< number of the D-Bus thread's entry + 1; 0 for none
    std::atomic<std::uint32_t> end;        ///< End, stored last of all
    Word endedNs;                          ///< CLOCK_MONOTONIC
    std::array<std::array<char, 24>, 64>
        eventNameList;  ///< of the events by their numbers, for readers of another version
};
inline constexpr std::size_t HEADER_BYTES = 4096;
static_assert(sizeof(Header) <= HEADER_BYTES && Tell::EVENTS <= 64);

inline constexpr std::uint32_t FREE = 0;
inline constexpr std::uint32_t CLAIMED = 1;  ///< being written
inline constexpr std::uint32_t READY = 2;

/// A name, written once.
struct Name {
    static constexpr std::size_t LONGEST = 55;

    std::atomic<std::uint32_t> state;
    std::uint32_t hash;
    std::array<char, LONGEST + 1> text;
};
static_assert(sizeof(Name) == 64);

inline constexpr std::uint32_t NAMES = 512;
/// Numbers of names are their places + 1.
inline constexpr std::uint16_t NO_NAME = 0;
inline constexpr std::uint16_t OTHERS = 0xffff;

/// What a thread is in.
struct Doing {
    Word ticks;  ///< since when
    Word what;   ///< event | name << 16
};

struct Thread {
    static constexpr std::size_t DEEPEST = 4;

    std::atomic<std::uint32_t> state;      ///< FREE, CLAIMED, READY
    std::atomic<std::uint32_t> id;         ///< the kernel's
    std::array<Word, 2> name;              ///< as the kernel has it, 16 bytes with the zero at its end
    std::atomic<std::uint32_t> depth;      ///< entries of `doing`, stored last; may be beyond DEEPEST
    std::atomic<std::uint32_t> watchName;  ///< name under which it is watched; NO_NAME while it is not
    Word watchNs;                          ///< the period that it promised
    Word reportedTicks;                    ///< its last report
    std::array<Doing, DEEPEST> doing;
    std::array<Word, 2> reserved;
};
static_assert(sizeof(Thread) == 128);

inline constexpr std::uint32_t THREADS = 64;
inline constexpr std::uint16_t NO_THREAD = 0xffff;

struct Message {
    static constexpr std::size_t LONGEST = 224;

    Word sequence;
    Word realtimeNs;
    Word what;    ///< level | length << 8 | cut << 24 | exception << 25
    Word thread;  ///< the kernel's id
    std::array<Word, LONGEST / 8> text;
};
static_assert(sizeof(Message) == 256);

inline constexpr std::uint32_t MESSAGES = 100;

struct Event {
    Word sequence;
    Word ticks;
    /// event | name << 16 | thread << 32; of the thread the kernel's id, as its entry may be another one's by
    /// now
    Word what;
    Word value;
};
static_assert(sizeof(Event) == 32);

inline constexpr std::size_t LEAST_EVENT_BYTES = 4096;
inline constexpr std::size_t MOST_EVENT_BYTES = 16U << 20U;

inline constexpr std::size_t NAMES_AT = HEADER_BYTES;
inline constexpr std::size_t THREADS_AT = NAMES_AT + NAMES * sizeof(Name);
inline constexpr std::size_t MESSAGES_AT = THREADS_AT + THREADS * sizeof(Thread);
inline constexpr std::size_t EVENTS_AT = MESSAGES_AT + MESSAGES * sizeof(Message);
static_assert(EVENTS_AT % alignof(Event) == 0);

}  // namespace mwl::Diagnostics::Format

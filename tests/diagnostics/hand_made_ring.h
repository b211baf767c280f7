#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "diagnostics/ring_format.h"

namespace tern::test {

/// The memory of a flight recorder put together byte by byte, with room for CAPACITY events and nothing in it
/// but an event list of one letter each ("a" is number 0). Ticks are nanoseconds, all clocks stand at 1000.
class HandMadeRing {
public:
    static constexpr std::size_t CAPACITY = 128;

    HandMadeRing()
        : mBytes(mwl::Diagnostics::Format::EVENTS_AT + CAPACITY * sizeof(mwl::Diagnostics::Format::Event)) {
        using namespace mwl::Diagnostics::Format;
        Set(offsetof(Header, magic), MAGIC);
        Set(offsetof(Header, version), VERSION);
        Set(offsetof(Header, totalBytes), std::uint64_t{mBytes.size()});
        Set(offsetof(Header, names), NAMES);
        Set(offsetof(Header, threads), THREADS);
        Set(offsetof(Header, messages), MESSAGES);
        Set(offsetof(Header, events), std::uint32_t{CAPACITY});
        SetInstant(offsetof(Header, first), 1000, 1000, 1000);
        SetInstant(offsetof(Header, last), 1000, 1000, 1000);
        for (char letter = 'a'; letter <= 'z'; ++letter) {
            NameEvent(static_cast<std::size_t>(letter - 'a'), std::string_view(&letter, 1));
        }
        Set(offsetof(Header, eventNames), std::uint32_t{26});
    }

    const std::vector<std::byte>& Get() const { return mBytes; }

    template <class T>
    void Set(std::size_t at, T value) {
        std::memcpy(mBytes.data() + at, &value, sizeof value);
    }
    void SetText(std::size_t at, std::string_view text) {
        std::memcpy(mBytes.data() + at, text.data(), text.size());
    }
    void SetInstant(std::size_t at, std::uint64_t ticks, std::uint64_t monotonic, std::uint64_t realtime) {
        using mwl::Diagnostics::Format::Instant;
        Set(at + offsetof(Instant, ticks), ticks);
        Set(at + offsetof(Instant, monotonicNs), monotonic);
        Set(at + offsetof(Instant, realtimeNs), realtime);
    }
    void NameEvent(std::size_t number, std::string_view name) {
        SetText(offsetof(mwl::Diagnostics::Format::Header, eventNameList) + number * 24, name);
    }
    /// `number` counts from 1.
    void SetName(std::size_t number, std::string_view name,
                 std::uint32_t state = mwl::Diagnostics::Format::READY) {
        using namespace mwl::Diagnostics::Format;
        const std::size_t at = NAMES_AT + (number - 1) * sizeof(Name);
        Set(at + offsetof(Name, state), state);
        SetText(at + offsetof(Name, text), name);
    }
    static std::size_t ThreadAt(std::size_t place) {
        using namespace mwl::Diagnostics::Format;
        return THREADS_AT + place * sizeof(Thread);
    }
    void SetThread(std::size_t place, std::uint32_t id, std::string_view name,
                   std::uint32_t state = mwl::Diagnostics::Format::READY) {
        using mwl::Diagnostics::Format::Thread;
        Set(ThreadAt(place) + offsetof(Thread, state), state);
        Set(ThreadAt(place) + offsetof(Thread, id), id);
        SetText(ThreadAt(place) + offsetof(Thread, name), name);
    }
    void SetDoing(std::size_t place, std::size_t depth, std::uint64_t ticks, std::uint64_t event,
                  std::uint64_t name) {
        using namespace mwl::Diagnostics::Format;
        const std::size_t at = ThreadAt(place) + offsetof(Thread, doing) + depth * sizeof(Doing);
        Set(at + offsetof(Doing, ticks), ticks);
        Set(at + offsetof(Doing, what), event | name << 16U);
    }
    static std::size_t MessageAt(std::uint64_t sequence) {
        using namespace mwl::Diagnostics::Format;
        return MESSAGES_AT + (sequence - 1) % MESSAGES * sizeof(Message);
    }
    void SetMessage(std::uint64_t sequence, std::uint64_t realtime, std::uint64_t what, std::uint64_t thread,
                    std::string_view text) {
        using mwl::Diagnostics::Format::Message;
        const std::size_t at = MessageAt(sequence);
        Set(at + offsetof(Message, sequence), sequence);
        Set(at + offsetof(Message, realtimeNs), realtime);
        Set(at + offsetof(Message, what), what);
        Set(at + offsetof(Message, thread), thread);
        SetText(at + offsetof(Message, text), text);
    }
    static std::size_t EventAt(std::uint64_t sequence) {
        using namespace mwl::Diagnostics::Format;
        return EVENTS_AT + (sequence - 1) % CAPACITY * sizeof(Event);
    }
    void SetEvent(std::uint64_t sequence, std::uint64_t ticks, std::uint64_t event, std::uint64_t name,
                  std::uint64_t thread, std::uint64_t value) {
        using mwl::Diagnostics::Format::Event;
        const std::size_t at = EventAt(sequence);
        Set(at + offsetof(Event, sequence), sequence);
        Set(at + offsetof(Event, ticks), ticks);
        Set(at + offsetof(Event, what), event | name << 16U | thread << 32U);
        Set(at + offsetof(Event, value), value);
    }

private:
    std::vector<std::byte> mBytes;
};

}  // namespace tern::test

#include <tern/diagnostics/ring_reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "diagnostics/ring_format.h"

// Memory that claims to be a flight recorder's. The input is taken for the parts that are worth changing
// (header, and what follows it) of a memory of the smallest size, so that an input is not refused for its
// length alone.

namespace {

using namespace mwl::Diagnostics;

void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void RequireText(const std::string& text) {
    for (const char c : text) {
        Require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
    }
}

void Check(std::span<const std::byte> bytes) {
    const auto flight = RingReader::Parse(bytes);
    if (!flight.IsOk()) {
        Require(!flight.GetError().GetText().empty());
        return;
    }
    Require(flight->threads.size() <= Format::THREADS && flight->messages.size() <= Format::MESSAGES &&
            flight->events.size() <= flight->capacity);
    RequireText(flight->program);
    for (const FlightThread& thread : flight->threads) {
        Require(thread.doing.size() <= Format::Thread::DEEPEST);
        RequireText(thread.name);
        RequireText(thread.watchName);
    }
    for (const FlightMessage& message : flight->messages) {
        RequireText(message.text);
    }
    std::uint64_t former = 0;
    for (const FlightEvent& event : flight->events) {
        Require(event.sequence > former && event.monotonicNs <= flight->latestNs);
        former = event.sequence;
        RequireText(event.event);
        RequireText(event.name);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Check(std::as_bytes(std::span(data, size)));

    std::vector<std::byte> bytes(Format::EVENTS_AT + Format::LEAST_EVENT_BYTES);
    std::memcpy(bytes.data(), data, std::min(size, bytes.size()));
    const auto set = [&](std::size_t at, auto value) {
        std::memcpy(bytes.data() + at, &value, sizeof value);
    };
    set(offsetof(Format::Header, magic), Format::MAGIC);
    set(offsetof(Format::Header, version), Format::VERSION);
    set(offsetof(Format::Header, totalBytes), std::uint64_t{bytes.size()});
    set(offsetof(Format::Header, names), Format::NAMES);
    set(offsetof(Format::Header, threads), Format::THREADS);
    set(offsetof(Format::Header, messages), Format::MESSAGES);
    set(offsetof(Format::Header, events),
        static_cast<std::uint32_t>(Format::LEAST_EVENT_BYTES / sizeof(Format::Event)));
    Check(bytes);
    return 0;
}

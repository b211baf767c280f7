#include <tern/diagnostics/ring_reader.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "diagnostics/ring.h"
#include "foundation/unique_fd.h"

namespace {

using mwl::UniqueFd;
using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEvent;
using mwl::Diagnostics::FlightMessage;
using mwl::Diagnostics::FlightThread;
using mwl::Diagnostics::Ring;
using mwl::Diagnostics::RingReader;
using mwl::Diagnostics::StatusCode;
using mwl::Tell::Event;
using testing::HasSubstr;
namespace Format = mwl::Diagnostics::Format;

using Bytes = std::vector<std::byte>;

/// A ring in which there is something of everything.
Bytes MakeBytes() {
    static Ring& ring = *[] {
        Ring* const made = new Ring;
        int error = 0;
        EXPECT_EQ(made->Create(4096, {"tester", "1", "boot", 0, 0, 0}, error), StatusCode::Ok);
        const std::uint16_t name = made->Intern("pump");
        const std::uint16_t thread = made->ClaimThread(12, "worker");
        made->SetBusThread(thread);
        Format::Thread& entry = made->GetThread(thread);
        entry.watchName = name;
        entry.watchNs = 5;
        entry.reportedTicks = made->Ticks();
        entry.doing[0].ticks = made->Ticks();
        entry.doing[0].what = static_cast<std::uint64_t>(Event::JobBegan) | std::uint64_t{name} << 16;
        entry.depth = 1;
        for (int i = 0; i < 200; ++i) {
            made->Write(made->Ticks(), Event::JobEnded, 12, name, 1000);
        }
        made->WriteMessage(3, "it is cold", false, 12);
        return made;
    }();
    Bytes bytes(ring.GetBytes());
    EXPECT_EQ(pread(ring.GetFd(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return bytes;
}

template <class T>
void Set(Bytes& bytes, std::size_t at, T value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

std::string ErrorOf(const Bytes& bytes) {
    const auto flight = RingReader::Parse(bytes);
    return flight.IsOk() ? "" : flight.GetError().GetText();
}

/// Everything that a flight holds fits what is promised of it.
void ExpectSound(const Flight& flight) {
    EXPECT_LE(flight.threads.size(), Format::THREADS);
    EXPECT_LE(flight.messages.size(), Format::MESSAGES);
    EXPECT_LE(flight.events.size(), flight.capacity);
    for (const FlightThread& thread : flight.threads) {
        EXPECT_LE(thread.doing.size(), Format::Thread::DEEPEST);
    }
    for (const FlightMessage& message : flight.messages) {
        EXPECT_LE(message.text.size(), Format::Message::LONGEST);
        EXPECT_EQ(message.text.find_first_of("\x1b\n\x7f"), std::string::npos);
    }
    std::uint64_t former = 0;
    for (const FlightEvent& event : flight.events) {
        EXPECT_GT(event.sequence, former);
        former = event.sequence;
        EXPECT_LE(event.monotonicNs, flight.latestNs);
    }
}

TEST(RingReader, ReadsAllThatThereIs) {
    const auto flight = RingReader::Parse(MakeBytes());
    ASSERT_TRUE(flight.IsOk());
    ExpectSound(*flight);
    EXPECT_EQ(flight->events.size(), 128U);
    ASSERT_EQ(flight->threads.size(), 1U);
    const FlightThread& thread = flight->threads[0];
    EXPECT_EQ(thread.name, "worker");
    EXPECT_TRUE(thread.isBusThread);
    EXPECT_EQ(thread.watchName, "pump");
    ASSERT_EQ(thread.doing.size(), 1U);
    EXPECT_EQ(thread.doing[0].event, "job_began");
    EXPECT_EQ(thread.doing[0].name, "pump");
    ASSERT_EQ(flight->messages.size(), 1U);
    EXPECT_EQ(flight->messages[0].text, "it is cold");
}

TEST(RingReader, RefusesWhatIsTooShort) {
    Bytes bytes = MakeBytes();
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4095}}) {
        EXPECT_THAT(ErrorOf(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size))),
                    HasSubstr("too few"));
    }
    bytes.pop_back();
    EXPECT_THAT(ErrorOf(bytes), HasSubstr("do not fit"));
}

TEST(RingReader, RefusesWhatIsNoRing) {
    EXPECT_THAT(ErrorOf(Bytes(100000)), HasSubstr("no flight recorder"));
    Bytes bytes = MakeBytes();
    Set(bytes, offsetof(Format::Header, magic), __builtin_bswap32(Format::MAGIC));
    EXPECT_THAT(ErrorOf(bytes), HasSubstr("other byte order"));
}

TEST(RingReader, RefusesAnotherVersion) {
    Bytes bytes = MakeBytes();
    Set(bytes, offsetof(Format::Header, version), Format::VERSION + 1);
    EXPECT_THAT(ErrorOf(bytes), HasSubstr("version 3, not 2"));
}

TEST(RingReader, RefusesSizesThatDoNotFit) {
    for (const std::size_t at : {offsetof(Format::Header, names), offsetof(Format::Header, threads),
                                 offsetof(Format::Header, messages), offsetof(Format::Header, events)}) {
        for (const std::uint32_t size : {0U, 1U, 127U, 256U, 0x80000000U, 0xffffffffU}) {
            Bytes bytes = MakeBytes();
            Set(bytes, at, size);
            EXPECT_THAT(ErrorOf(bytes), HasSubstr("do not fit"));
        }
    }
    Bytes bytes = MakeBytes();
    Set(bytes, offsetof(Format::Header, totalBytes), ~std::uint64_t{0});
    EXPECT_THAT(ErrorOf(bytes), HasSubstr("do not fit"));
}

TEST(RingReader, RefusesAClockOfNoSense) {
    Bytes bytes = MakeBytes();
    Set(bytes, offsetof(Format::Header, tickSource), Format::TICKS_ARE_COUNTS);
    Set(bytes, offsetof(Format::Header, last), std::uint64_t{0});
    EXPECT_THAT(ErrorOf(bytes), HasSubstr("clock"));
}

TEST(RingReader, AClockThatJumpedGivesNoTimesBeyondNumbers) {
    Bytes bytes = MakeBytes();
    Set(bytes, offsetof(Format::Header, tickSource), Format::TICKS_ARE_NANOSECONDS);
    Set(bytes, offsetof(Format::Header, first) + 8, ~std::uint64_t{0} - 5);
    const auto flight = RingReader::Parse(bytes);
    ASSERT_TRUE(flight.IsOk());
    ExpectSound(*flight);
}

TEST(RingReader, StartOfTheProcessIsByTheClockAsItWasSetLast) {
    constexpr std::size_t FIRST_REALTIME =
        offsetof(Format::Header, first) + offsetof(Format::Instant, realtimeNs);
    constexpr std::uint64_t LATER = 50ULL * 365 * 86400 * 1000000000;
    Bytes bytes = MakeBytes();
    std::uint64_t began = 0;
    std::memcpy(&began, bytes.data() + FIRST_REALTIME, sizeof began);
    // A device without a clock of its own: began in 1970 or so, two seconds after its start; then the time
    // came.
    Set(bytes, FIRST_REALTIME, began - LATER);
    Set(bytes, offsetof(Format::Header, processStartedNs), began - LATER - 2000000000);
    const auto flight = RingReader::Parse(bytes);
    ASSERT_TRUE(flight.IsOk());
    const auto beganRealtime = flight->beganNs + static_cast<std::uint64_t>(flight->toRealtimeNs);
    EXPECT_NEAR(static_cast<double>(beganRealtime - flight->processStartedNs), 2e9, 1e8);
    // What is not known stays so.
    Set(bytes, offsetof(Format::Header, processStartedNs), std::uint64_t{0});
    EXPECT_EQ(RingReader::Parse(bytes)->processStartedNs, 0U);
}

TEST(RingReader, LeavesOutEntriesThatWereBeingWritten) {
    Bytes bytes = MakeBytes();
    Set(bytes, Format::EVENTS_AT + 5 * sizeof(Format::Event), std::uint64_t{0});
    Set(bytes, Format::MESSAGES_AT, std::uint64_t{0});
    const auto flight = RingReader::Parse(bytes);
    ASSERT_TRUE(flight.IsOk());
    EXPECT_EQ(flight->events.size(), 127U);
    EXPECT_TRUE(flight->messages.empty());
}

TEST(RingReader, CleansTexts) {
    Bytes bytes = MakeBytes();
    const std::string hostile = "\x1b[2J\xff\xc2\x85 \xe2\x82\xac\n";
    const std::size_t message = Format::MESSAGES_AT;
    std::memcpy(bytes.data() + message + offsetof(Format::Message, text), hostile.data(), hostile.size());
    Set(bytes, message + offsetof(Format::Message, what),
        std::uint64_t{0xff} | static_cast<std::uint64_t>(hostile.size()) << 8);
    const auto flight = RingReader::Parse(bytes);
    ASSERT_TRUE(flight.IsOk());
    EXPECT_EQ(flight->messages.at(0).text, "?[2J??? \xe2\x82\xac?");
    EXPECT_EQ(flight->messages.at(0).level, 7U);
}

TEST(RingReader, SurvivesAnyBytes) {
    const Bytes sound = MakeBytes();
    std::mt19937 random(4711);  // NOLINT(cert-msc51-cpp): the same every time
    unsigned parsed = 0;
    for (int round = 0; round < 3000; ++round) {
        Bytes bytes = sound;
        const std::size_t begin = round % 2 == 0 ? 64 : Format::THREADS_AT;
        for (int i = 0; i < 64; ++i) {
            bytes[begin + random() % (bytes.size() - begin)] = static_cast<std::byte>(random());
        }
        for (int i = 0; i < 64; ++i) {
            const std::size_t thread = Format::THREADS_AT + random() % sizeof(Format::Thread);
            bytes[thread] = static_cast<std::byte>(random());
        }
        const auto flight = RingReader::Parse(bytes);
        if (flight.IsOk()) {
            ++parsed;
            ExpectSound(*flight);
        }
    }
    EXPECT_GT(parsed, 1000U);
}

TEST(RingReader, RefusesDescriptorsThatAreNoMemory) {
    EXPECT_THAT(RingReader::Read(-1).GetError().GetText(), HasSubstr("Bad file descriptor"));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_THAT(RingReader::Read(ends[0]).GetError().GetText(), HasSubstr("no flight recorder"));
    close(ends[0]);
    close(ends[1]);
    const UniqueFd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_THAT(RingReader::Read(folder.Get()).GetError().GetText(), HasSubstr("no flight recorder"));
    const UniqueFd device(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    EXPECT_THAT(RingReader::Read(device.Get()).GetError().GetText(), HasSubstr("no flight recorder"));
    const UniqueFd large(memfd_create("large", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(large.Get(), off_t{1} << 34), 0);
    EXPECT_THAT(RingReader::Read(large.Get()).GetError().GetText(), HasSubstr("too many"));
    const UniqueFd writable(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(RingReader::Read(writable.Get()).IsOk());
}

}  // namespace

#include <tern/diagnostics/ring_reader.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "diagnostics/hand_made_ring.h"
#include "diagnostics/ring_format.h"
#include "foundation/unique_fd.h"
#include "support/interpose.h"

TERN_INTERPOSE(ssize_t, pread64, (int fd, void* bytes, size_t size, off64_t at), (fd, bytes, size, at))

namespace {

using mwl::UniqueFd;
using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEnd;
using mwl::Diagnostics::FlightEvent;
using mwl::Diagnostics::FlightMessage;
using mwl::Diagnostics::FlightThread;
using mwl::Diagnostics::RingReader;
using tern::test::FaultScope;
using tern::test::HandMadeRing;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace mwl::Diagnostics::Format;

constexpr std::size_t FIRST = offsetof(Header, first);
constexpr std::size_t LAST = offsetof(Header, last);

Flight Read(const HandMadeRing& ring) {
    const auto flight = RingReader::Parse(ring.Get());
    EXPECT_TRUE(flight.IsOk()) << flight.GetError().GetText();
    return flight.IsOk() ? *flight : Flight();
}

std::vector<std::uint64_t> SequencesOf(const Flight& flight) {
    std::vector<std::uint64_t> sequences;
    for (const FlightEvent& event : flight.events) {
        sequences.push_back(event.sequence);
    }
    return sequences;
}

// Tools of another version look for it there.
TEST(RingFormat, LiesWhereItsVersionHasIt) {
    EXPECT_EQ(VERSION, 2U);
    EXPECT_EQ(offsetof(Header, totalBytes), 8U);
    EXPECT_EQ(offsetof(Header, names), 16U);
    EXPECT_EQ(offsetof(Header, pid), 32U);
    EXPECT_EQ(offsetof(Header, processStartedNs), 48U);
    EXPECT_EQ(offsetof(Header, bootId), 64U);
    EXPECT_EQ(offsetof(Header, program), 104U);
    EXPECT_EQ(offsetof(Header, serviceVersion), 168U);
    EXPECT_EQ(FIRST, 232U);
    EXPECT_EQ(LAST, 256U);
    EXPECT_EQ(offsetof(Header, eventHead), 280U);
    EXPECT_EQ(offsetof(Header, busThread), 312U);
    EXPECT_EQ(offsetof(Header, end), 316U);
    EXPECT_EQ(offsetof(Header, eventNameList), 328U);
    EXPECT_EQ(sizeof(Header), 328U + 64 * 24);
    EXPECT_EQ(offsetof(Thread, doing), 48U);
    EXPECT_EQ(offsetof(Message, text), 32U);
    EXPECT_EQ(NAMES_AT, 4096U);
    EXPECT_EQ(THREADS_AT, 36864U);
    EXPECT_EQ(MESSAGES_AT, 45056U);
    EXPECT_EQ(EVENTS_AT, 70656U);
}

TEST(RingReaderValues, EmptyRingHasNothing) {
    const Flight flight = Read(HandMadeRing());
    EXPECT_EQ(flight.pid, 0U);
    EXPECT_EQ(flight.end, FlightEnd::None);
    EXPECT_EQ(flight.beganNs, 1000U);
    EXPECT_EQ(flight.latestNs, 1000U);
    EXPECT_EQ(flight.capacity, 128U);
    EXPECT_THAT(flight.threads, IsEmpty());
    EXPECT_THAT(flight.messages, IsEmpty());
    EXPECT_THAT(flight.events, IsEmpty());
}

TEST(RingReaderValues, HeaderIsReadWhole) {
    HandMadeRing ring;
    ring.Set(offsetof(Header, pid), std::uint32_t{0x81020304});
    ring.Set(offsetof(Header, restarts), std::uint32_t{7});
    ring.SetText(offsetof(Header, program), std::string(63, 'p') + "q");
    ring.SetText(offsetof(Header, serviceVersion), "1.2.3");
    ring.SetText(offsetof(Header, bootId), "c0ffee");
    ring.Set(offsetof(Header, processStartedNs), std::uint64_t{50});
    ring.Set(offsetof(Header, watchdogNs), std::uint64_t{2000000000});
    ring.SetInstant(FIRST, 1000, 3000, 100);
    ring.SetInstant(LAST, 1000, 5000, 9100);
    ring.Set(offsetof(Header, eventHead), std::uint64_t{0});
    ring.Set(offsetof(Header, namesLost), std::uint64_t{11});
    ring.Set(offsetof(Header, threadsLost), std::uint64_t{12});
    ring.Set(offsetof(Header, endedNs), std::uint64_t{4900});
    ring.Set(offsetof(Header, end), static_cast<std::uint32_t>(End::Stopped));
    Flight flight = Read(ring);
    EXPECT_EQ(flight.pid, 0x81020304U);
    EXPECT_EQ(flight.restarts, 7U);
    EXPECT_EQ(flight.program, std::string(63, 'p') + "q");
    EXPECT_EQ(flight.version, "1.2.3");
    EXPECT_EQ(flight.bootId, "c0ffee");
    // 2000 ns passed, but the clock of the day went on by 9000: it was set on by 7000.
    EXPECT_EQ(flight.processStartedNs, 7050U);
    EXPECT_EQ(flight.watchdogNs, 2000000000U);
    EXPECT_EQ(flight.beganNs, 3000U);
    EXPECT_EQ(flight.latestNs, 5000U);
    EXPECT_EQ(flight.toRealtimeNs, 4100);
    EXPECT_EQ(flight.namesLost, 11U);
    EXPECT_EQ(flight.threadsLost, 12U);
    EXPECT_EQ(flight.end, FlightEnd::Stopped);
    EXPECT_EQ(flight.endedNs, 4900U);

    ring.Set(offsetof(Header, end), static_cast<std::uint32_t>(End::Failed));
    flight = Read(ring);
    EXPECT_EQ(flight.end, FlightEnd::Failed);
    EXPECT_EQ(flight.endedNs, 4900U);

    for (const std::uint32_t end : {0U, 3U, 0xffffffffU}) {
        ring.Set(offsetof(Header, end), end);
        flight = Read(ring);
        EXPECT_EQ(flight.end, FlightEnd::None);
        EXPECT_EQ(flight.endedNs, 0U);
    }
    // A last instant of before the first is not the latest.
    ring.SetInstant(LAST, 1000, 2000, 100);
    EXPECT_EQ(Read(ring).latestNs, 3000U);
    EXPECT_EQ(Read(ring).toRealtimeNs, -1900);
}

TEST(RingReaderValues, CountsBecomeNanosecondsByTheTwoInstants) {
    HandMadeRing ring;
    ring.Set(offsetof(Header, tickSource), TICKS_ARE_COUNTS);
    // Half a nanosecond each.
    ring.SetInstant(FIRST, 100000, 5000000, 0);
    ring.SetInstant(LAST, 104000, 5002000, 0);
    ring.NameEvent(0, "job_ended");
    ring.SetEvent(1, 100000 - 600, 0, 0, 1, 600);
    ring.SetEvent(2, 100000, 0, 0, 1, 0);
    ring.SetEvent(3, 100000 + 600, 0, 0, 1, 7);
    ring.Set(offsetof(Header, eventHead), std::uint64_t{3});
    const Flight flight = Read(ring);
    ASSERT_EQ(flight.events.size(), 3U);
    EXPECT_EQ(flight.events[0].monotonicNs, 5000000U - 300);
    EXPECT_EQ(flight.events[0].value, 300U);
    EXPECT_EQ(flight.events[1].monotonicNs, 5000000U);
    EXPECT_EQ(flight.events[2].monotonicNs, 5000000U + 300);
    EXPECT_EQ(flight.events[2].value, 3U);
}

TEST(RingReaderValues, CounterSlowerThanTheClockIsRead) {
    HandMadeRing ring;
    ring.Set(offsetof(Header, tickSource), TICKS_ARE_COUNTS);
    // 25 MHz, and fewer ticks than nanoseconds since the system's start.
    ring.SetInstant(FIRST, 100, 4000, 0);
    ring.SetInstant(LAST, 200, 8000, 0);
    ring.SetEvent(1, 150, 0, 0, 1, 0);
    ring.Set(offsetof(Header, eventHead), std::uint64_t{1});
    EXPECT_EQ(Read(ring).events.at(0).monotonicNs, 6000U);
}

TEST(RingReaderValues, ClockOfNoSenseIsRefused) {
    struct Case {
        std::uint64_t ticks, ns;
        bool isGood;
    };
    // Of a counter that goes on by so many ticks in so many nanoseconds: between 0.01 and 1000 of them each.
    for (const Case& some : {Case{1, 1000, true}, Case{1, 1001, false}, Case{100, 1, true},
                             Case{101, 1, false}, Case{0, 1000, false}, Case{1000, 0, false},
                             Case{~std::uint64_t{0}, 1000, false}, Case{1000, ~std::uint64_t{0}, false}}) {
        HandMadeRing ring;
        ring.SetInstant(FIRST, 7000, 9000, 0);
        ring.SetInstant(LAST, 7000 + some.ticks, 9000 + some.ns, 0);
        ring.Set(offsetof(Header, tickSource), TICKS_ARE_COUNTS);
        const auto flight = RingReader::Parse(ring.Get());
        EXPECT_EQ(flight.IsOk(), some.isGood) << some.ticks << " in " << some.ns;
        // It does not matter where ticks are nanoseconds.
        ring.Set(offsetof(Header, tickSource), TICKS_ARE_NANOSECONDS);
        EXPECT_TRUE(RingReader::Parse(ring.Get()).IsOk());
    }
}

TEST(RingReaderValues, TimesBeyondNumbersAreTheLastOnes) {
    HandMadeRing ring;
    constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
    ring.SetInstant(FIRST, 1000, MOST - 5, 0);
    ring.NameEvent(1, "pipe_waited");
    ring.SetEvent(1, 1005, 0, 0, 1, 0);
    ring.SetEvent(2, 1006, 0, 0, 1, 0);
    ring.SetEvent(3, MOST, 1, 0, 1, MOST);
    ring.Set(offsetof(Header, eventHead), std::uint64_t{3});
    Flight flight = Read(ring);
    ASSERT_EQ(flight.events.size(), 3U);
    EXPECT_EQ(flight.events[0].monotonicNs, MOST);
    EXPECT_EQ(flight.events[1].monotonicNs, MOST);
    EXPECT_EQ(flight.events[2].monotonicNs, MOST);
    EXPECT_EQ(flight.events[2].value, 9200000000000000000U);
    // Before the clock's own beginning there is nothing.
    ring.SetInstant(FIRST, 1000, 300, 0);
    ring.SetEvent(1, 700, 0, 0, 1, 0);
    ring.SetEvent(2, 699, 0, 0, 1, 0);
    ring.SetEvent(3, 701, 0, 0, 1, 0);
    flight = Read(ring);
    EXPECT_EQ(flight.events.at(0).monotonicNs, 0U);
    EXPECT_EQ(flight.events.at(1).monotonicNs, 0U);
    EXPECT_EQ(flight.events.at(2).monotonicNs, 1U);
}

TEST(RingReaderValues, EventIsReadWhole) {
    HandMadeRing ring;
    ring.SetName(3, "pump");
    ring.SetEvent(1, 1234, 2, 3, 0x87654321, 99);
    ring.Set(offsetof(Header, eventHead), std::uint64_t{1});
    const Flight flight = Read(ring);
    EXPECT_EQ(flight.written, 1U);
    ASSERT_EQ(flight.events.size(), 1U);
    const FlightEvent& event = flight.events[0];
    EXPECT_EQ(event.sequence, 1U);
    EXPECT_EQ(event.monotonicNs, 1234U);
    EXPECT_EQ(event.threadId, 0x87654321U);
    EXPECT_EQ(event.event, "c");
    EXPECT_EQ(event.name, "pump");
    EXPECT_EQ(event.value, 99U);
}

TEST(RingReaderValues, ValuesOfWhatEndsAreDurations) {
    HandMadeRing ring;
    ring.Set(offsetof(Header, tickSource), TICKS_ARE_COUNTS);
    ring.SetInstant(FIRST, 0, 0, 0);
    ring.SetInstant(LAST, 1000, 2000, 0);
    const std::vector<std::string> durations{"call_ended", "job_ended", "run_ended", "timer_ended",
                                             "pipe_waited"};
    const std::vector<std::string> others{"call_began", "job_began", "timer_began", "watch_ended",
                                          "pipe_written"};
    std::size_t number = 0;
    for (const auto* names : {&durations, &others}) {
        for (const std::string& name : *names) {
            ring.NameEvent(number, name);
            ring.SetEvent(number + 1, 10, number, 0, 1, 50);
            ++number;
        }
    }
    ring.Set(offsetof(Header, eventHead), std::uint64_t{number});
    const Flight flight = Read(ring);
    ASSERT_EQ(flight.events.size(), 10U);
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(flight.events[i].value, i < 5 ? 100U : 50U) << flight.events[i].event;
    }
}

TEST(RingReaderValues, OnlyTheLatestEventsAreThere) {
    HandMadeRing ring;
    for (std::uint64_t sequence = 1; sequence <= 130; ++sequence) {
        ring.SetEvent(sequence, 1000 + sequence, 0, 0, 1, sequence);
    }
    ring.Set(offsetof(Header, eventHead), std::uint64_t{130});
    Flight flight = Read(ring);
    ASSERT_EQ(flight.events.size(), 128U);
    EXPECT_EQ(flight.events.front().sequence, 3U);
    EXPECT_EQ(flight.events.front().value, 3U);
    EXPECT_EQ(flight.events.back().sequence, 130U);
    EXPECT_EQ(flight.events.back().value, 130U);
    EXPECT_EQ(flight.latestNs, 1130U);
    // Claimed and not written yet: the entry of a round before is still there.
    ring.Set(offsetof(Header, eventHead), std::uint64_t{131});
    flight = Read(ring);
    ASSERT_EQ(flight.events.size(), 127U);
    EXPECT_EQ(flight.events.front().sequence, 4U);
    EXPECT_EQ(flight.events.back().sequence, 130U);
    // Fewer are claimed than written: no more are read.
    ring.Set(offsetof(Header, eventHead), std::uint64_t{5});
    EXPECT_THAT(SequencesOf(Read(ring)), ElementsAre(3, 4, 5));
    EXPECT_EQ(Read(ring).written, 5U);
}

TEST(RingReaderValues, NamesAreFoundByTheirNumbers) {
    HandMadeRing ring;
    ring.SetName(1, "first");
    ring.SetName(2, "unfinished", CLAIMED);
    ring.SetName(3, "nobody's", FREE);
    ring.SetName(NAMES, std::string(Name::LONGEST, 'n') + "x");
    const std::vector<std::uint64_t> numbers{0, 1, 2, 3, NAMES, NAMES + 1, 0xfffe, 0xffff};
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ring.SetEvent(i + 1, 1000, 0, numbers[i], 1, 0);
    }
    ring.Set(offsetof(Header, eventHead), std::uint64_t{numbers.size()});
    std::vector<std::string> names;
    for (const FlightEvent& event : Read(ring).events) {
        names.push_back(event.name);
    }
    EXPECT_THAT(names,
                ElementsAre("", "first", "", "", std::string(Name::LONGEST, 'n') + "x", "", "", "(others)"));
}

TEST(RingReaderValues, EventsOfAnotherVersionHaveANumberOrItsName) {
    HandMadeRing ring;
    ring.NameEvent(63, "last_of_all");
    const std::vector<std::uint64_t> numbers{0, 25, 26, 62, 63, 64, 0xffff};
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ring.SetEvent(i + 1, 1000, numbers[i], 0, 1, 0);
    }
    ring.Set(offsetof(Header, eventHead), std::uint64_t{numbers.size()});
    const auto names = [&ring] {
        std::vector<std::string> all;
        for (const FlightEvent& event : Read(ring).events) {
            all.push_back(event.event);
        }
        return all;
    };
    EXPECT_THAT(names(),
                ElementsAre("a", "z", "event-26", "event-62", "event-63", "event-64", "event-65535"));
    // More than there is room for: what there is room for.
    for (const std::uint32_t known : {64U, 65U, 0xffffffffU}) {
        ring.Set(offsetof(Header, eventNames), known);
        EXPECT_THAT(names(), ElementsAre("a", "z", "", "", "last_of_all", "event-64", "event-65535"));
    }
}

TEST(RingReaderValues, ThreadIsReadWhole) {
    HandMadeRing ring;
    ring.SetName(1, "pump");
    ring.SetName(2, "Start");
    ring.SetThread(5, 4711, "worker-with-15c");
    ring.Set(offsetof(Header, busThread), std::uint32_t{6});
    const std::size_t at = HandMadeRing::ThreadAt(5);
    ring.Set(at + offsetof(Thread, watchName), std::uint32_t{1});
    ring.Set(at + offsetof(Thread, watchNs), std::uint64_t{250});
    ring.Set(at + offsetof(Thread, reportedTicks), std::uint64_t{1800});
    ring.SetDoing(5, 0, 1300, 0, 2);
    ring.SetDoing(5, 1, 1400, 1, 0);
    ring.SetDoing(5, 2, 1500, 2, 1);
    ring.Set(at + offsetof(Thread, depth), std::uint32_t{2});
    const Flight flight = Read(ring);
    ASSERT_EQ(flight.threads.size(), 1U);
    const FlightThread& thread = flight.threads[0];
    EXPECT_EQ(thread.id, 4711U);
    EXPECT_EQ(thread.name, "worker-with-15c");
    EXPECT_TRUE(thread.isBusThread);
    EXPECT_EQ(thread.watchName, "pump");
    EXPECT_EQ(thread.watchPeriodNs, 250U);
    EXPECT_EQ(thread.reportedNs, 1800U);
    ASSERT_EQ(thread.doing.size(), 2U);
    EXPECT_EQ(thread.doing[0].event, "a");
    EXPECT_EQ(thread.doing[0].name, "Start");
    EXPECT_EQ(thread.doing[0].sinceNs, 1300U);
    EXPECT_EQ(thread.doing[1].event, "b");
    EXPECT_EQ(thread.doing[1].name, "");
    EXPECT_EQ(thread.doing[1].sinceNs, 1400U);
    EXPECT_EQ(flight.latestNs, 1800U);
}

TEST(RingReaderValues, ThreadThatNobodyWatchesHasNoReport) {
    HandMadeRing ring;
    ring.SetThread(0, 12, "idle");
    ring.Set(HandMadeRing::ThreadAt(0) + offsetof(Thread, watchNs), std::uint64_t{250});
    ring.Set(HandMadeRing::ThreadAt(0) + offsetof(Thread, reportedTicks), std::uint64_t{1800});
    const Flight flight = Read(ring);
    ASSERT_EQ(flight.threads.size(), 1U);
    EXPECT_FALSE(flight.threads[0].isBusThread);
    EXPECT_EQ(flight.threads[0].watchPeriodNs, 0U);
    EXPECT_EQ(flight.threads[0].reportedNs, 0U);
    EXPECT_EQ(flight.latestNs, 1000U);
}

TEST(RingReaderValues, OnlyThreadsThatAreThereAreTold) {
    HandMadeRing ring;
    ring.SetThread(0, 1, "first");
    ring.SetThread(1, 2, "unfinished", CLAIMED);
    ring.SetThread(2, 3, "gone", FREE);
    ring.SetThread(3, 0, "without id");
    ring.SetThread(THREADS - 1, 64, "last");
    ring.Set(offsetof(Header, busThread), THREADS);
    const Flight flight = Read(ring);
    ASSERT_EQ(flight.threads.size(), 2U);
    EXPECT_EQ(flight.threads[0].name, "first");
    EXPECT_FALSE(flight.threads[0].isBusThread);
    EXPECT_EQ(flight.threads[1].name, "last");
    EXPECT_TRUE(flight.threads[1].isBusThread);
}

TEST(RingReaderValues, DeeperThanThereIsRoomForIsTheRoom) {
    HandMadeRing ring;
    ring.SetThread(0, 1, "deep");
    for (std::size_t depth = 0; depth < Thread::DEEPEST; ++depth) {
        ring.SetDoing(0, depth, 2000 + depth, depth, 0);
    }
    for (const std::uint32_t depth : {4U, 5U, 0xffffffffU}) {
        ring.Set(HandMadeRing::ThreadAt(0) + offsetof(Thread, depth), depth);
        const Flight flight = Read(ring);
        ASSERT_EQ(flight.threads.at(0).doing.size(), 4U);
        EXPECT_EQ(flight.threads[0].doing[3].event, "d");
        EXPECT_EQ(flight.threads[0].doing[3].sinceNs, 2003U);
        EXPECT_EQ(flight.latestNs, 2003U);
    }
}

TEST(RingReaderValues, MessageIsReadWhole) {
    HandMadeRing ring;
    ring.SetMessage(1, 777, 3U | 10U << 8U, 4711, "it is cold and more");
    ring.SetMessage(2, 778, 4U | 2U << 8U | 1U << 24U, 4712, "ab");
    ring.SetMessage(3, 779, 8U | 3U << 8U | 1U << 25U, 4713, "bad");
    ring.SetMessage(4, 780, 7U | 0xffffU << 8U, 1, std::string(Message::LONGEST, 'm'));
    ring.Set(HandMadeRing::MessageAt(5) + offsetof(Message, realtimeNs), ~std::uint64_t{0});
    ring.Set(offsetof(Header, messageHead), std::uint64_t{4});
    const Flight flight = Read(ring);
    ASSERT_EQ(flight.messages.size(), 4U);
    const FlightMessage& plain = flight.messages[0];
    EXPECT_EQ(plain.sequence, 1U);
    EXPECT_EQ(plain.realtimeNs, 777U);
    EXPECT_EQ(plain.level, 3U);
    EXPECT_EQ(plain.threadId, 4711U);
    EXPECT_EQ(plain.text, "it is cold");
    EXPECT_FALSE(plain.isCut);
    EXPECT_FALSE(plain.isException);
    const FlightMessage& cut = flight.messages[1];
    EXPECT_EQ(cut.level, 4U);
    EXPECT_EQ(cut.text, "ab");
    EXPECT_TRUE(cut.isCut);
    EXPECT_FALSE(cut.isException);
    const FlightMessage& exception = flight.messages[2];
    EXPECT_EQ(exception.level, 7U);
    EXPECT_EQ(exception.text, "bad");
    EXPECT_FALSE(exception.isCut);
    EXPECT_TRUE(exception.isException);
    EXPECT_EQ(flight.messages[3].level, 7U);
    EXPECT_EQ(flight.messages[3].text, std::string(Message::LONGEST, 'm'));
}

TEST(RingReaderValues, OnlyTheLatestMessagesAreThere) {
    HandMadeRing ring;
    for (std::uint64_t sequence = 1; sequence <= 102; ++sequence) {
        ring.SetMessage(sequence, sequence, 3U | 1U << 8U, 1, "m");
    }
    ring.Set(offsetof(Header, messageHead), std::uint64_t{102});
    Flight flight = Read(ring);
    ASSERT_EQ(flight.messages.size(), 100U);
    EXPECT_EQ(flight.messages.front().sequence, 3U);
    EXPECT_EQ(flight.messages.back().sequence, 102U);
    ring.Set(offsetof(Header, messageHead), std::uint64_t{103});
    flight = Read(ring);
    ASSERT_EQ(flight.messages.size(), 99U);
    EXPECT_EQ(flight.messages.front().sequence, 4U);
}

/// A memfd that holds the ring.
UniqueFd Store(const HandMadeRing& ring) {
    UniqueFd fd(memfd_create("ring", MFD_CLOEXEC));
    EXPECT_EQ(write(fd.Get(), ring.Get().data(), ring.Get().size()), static_cast<ssize_t>(ring.Get().size()));
    return fd;
}

TEST(RingReaderValues, WhatChangesWhileItIsReadIsLeftOut) {
    HandMadeRing ring;
    for (std::size_t sequence = 1; sequence <= 3; ++sequence) {
        ring.SetEvent(sequence, 1000, 0, 0, 1, 5);
        ring.SetMessage(sequence, 1, 3U | 1U << 8U, 1, "m");
        ring.SetThread(sequence, static_cast<std::uint32_t>(sequence), "t");
        ring.SetDoing(sequence, 0, 1000, 0, 0);
        ring.Set(HandMadeRing::ThreadAt(sequence) + offsetof(Thread, depth), std::uint32_t{1});
    }
    ring.Set(offsetof(Header, eventHead), std::uint64_t{3});
    ring.Set(offsetof(Header, messageHead), std::uint64_t{3});
    const UniqueFd fd = Store(ring);
    const auto change = [&](std::size_t at) {
        const std::uint64_t word = 0x1234567;
        EXPECT_EQ(pwrite(fd.Get(), &word, sizeof word, static_cast<off_t>(at)), 8);
    };
    const FaultScope scope(fault_pread64);
    // Between the first reading and the second: the last word of the second of each.
    fault_pread64.Replace([&](int from, void* bytes, std::size_t size, off_t at) {
        const ssize_t count = fault_pread64.Real(from, bytes, size, at);
        change(HandMadeRing::EventAt(2) + sizeof(Event) - 8);
        change(HandMadeRing::MessageAt(2) + sizeof(Message) - 8);
        change(HandMadeRing::ThreadAt(2) + sizeof(Thread) - 8);
        return count;
    });
    const auto flight = RingReader::Read(fd.Get());
    ASSERT_TRUE(flight.IsOk());
    EXPECT_THAT(SequencesOf(*flight), ElementsAre(1, 3));
    ASSERT_EQ(flight->messages.size(), 2U);
    EXPECT_EQ(flight->messages[1].sequence, 3U);
    ASSERT_EQ(flight->threads.size(), 3U);
    EXPECT_EQ(flight->threads[0].doing.size(), 1U);
    EXPECT_EQ(flight->threads[1].doing.size(), 0U);
    EXPECT_EQ(flight->threads[2].doing.size(), 1U);
}

TEST(RingReaderValues, InterruptedAndShortReadsGoOn) {
    HandMadeRing ring;
    ring.SetEvent(1, 1000, 3, 0, 1, 5);
    ring.Set(offsetof(Header, eventHead), std::uint64_t{1});
    const UniqueFd fd = Store(ring);
    const FaultScope scope(fault_pread64);
    int calls = 0;
    fault_pread64.Replace(
        [&](int from, void* bytes, std::size_t size, off_t at) -> ssize_t {
            if (++calls % 2 == 0) {
                errno = EINTR;
                return -1;
            }
            return fault_pread64.Real(from, bytes, size < 10000 ? size : 10000, at);
        },
        1000);
    const auto flight = RingReader::Read(fd.Get());
    ASSERT_TRUE(flight.IsOk());
    EXPECT_EQ(flight->events.at(0).event, "d");
    EXPECT_GT(calls, 28);
}

TEST(RingReaderValues, FailingReadsAreTold) {
    const UniqueFd fd = Store(HandMadeRing());
    const FaultScope scope(fault_pread64);
    for (const int failing : {0, 1}) {
        fault_pread64.Fail(-1, ENOMEM, 1, failing);
        EXPECT_THAT(RingReader::Read(fd.Get()).GetError().GetText(), HasSubstr("Cannot allocate memory"));
        // It was cut off meanwhile.
        fault_pread64.Fail(0, 0, 1, failing);
        EXPECT_THAT(RingReader::Read(fd.Get()).GetError().GetText(), HasSubstr("Input/output error"));
    }
}

}  // namespace

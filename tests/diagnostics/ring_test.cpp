#include "diagnostics/ring.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tern/diagnostics/ring_reader.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <deque>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/interpose.h"

TERN_INTERPOSE(int, memfd_create, (const char* name, unsigned int flags), (name, flags))
TERN_INTERPOSE(int, madvise, (void* address, size_t length, int advice), (address, length, advice))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))

namespace {

using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEnd;
using mwl::Diagnostics::FlightEvent;
using mwl::Diagnostics::Ring;
using mwl::Diagnostics::RingReader;
using mwl::Diagnostics::StatusCode;
using mwl::Tell::Event;
using tern::test::FaultScope;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
namespace Format = mwl::Diagnostics::Format;

/// Its memory is never unmapped, as the recorder's is not.
Ring& MakeRing(std::size_t bytes = 4096) {
    static std::deque<Ring> rings;
    Ring& ring = rings.emplace_back();
    int error = 0;
    Ring::Identity identity;
    identity.program = "tester";
    identity.serviceVersion = "1.2";
    identity.restarts = 3;
    identity.watchdogNs = 10;
    EXPECT_EQ(ring.Create(bytes, identity, error), StatusCode::Ok) << error;
    return ring;
}

Flight ReadOf(const Ring& ring) {
    auto flight = RingReader::Read(ring.GetFd());
    EXPECT_TRUE(flight.IsOk()) << flight.GetError().GetText();
    return flight.IsOk() ? std::move(*flight) : Flight();
}

TEST(Ring, SaysWhoseItIs) {
    const Flight flight = ReadOf(MakeRing());
    EXPECT_EQ(flight.program, "tester");
    EXPECT_EQ(flight.version, "1.2");
    EXPECT_EQ(flight.restarts, 3U);
    EXPECT_EQ(flight.watchdogNs, 10U);
    EXPECT_EQ(flight.pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(flight.end, FlightEnd::None);
    EXPECT_THAT(flight.events, IsEmpty());
}

TEST(Ring, SizeIsRoundedUpAndLimited) {
    EXPECT_EQ(MakeRing(0).GetCapacity(), 4096U / 32);
    EXPECT_EQ(MakeRing(4097).GetCapacity(), 8192U / 32);
    EXPECT_EQ(MakeRing(65536).GetCapacity(), 2048U);
    EXPECT_EQ(MakeRing(std::size_t{1} << 30).GetCapacity(), (std::size_t{16} << 20) / 32);
}

TEST(Ring, MemoryIsSealedAgainstOtherSizes) {
    const Ring& ring = MakeRing();
    EXPECT_EQ(ftruncate(ring.GetFd(), 10), -1);
    EXPECT_EQ(ftruncate(ring.GetFd(), 1 << 20), -1);
    EXPECT_EQ(fcntl(ring.GetFd(), F_ADD_SEALS, F_SEAL_WRITE), -1);
    EXPECT_EQ(fcntl(ring.GetFd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(Ring, FailuresOfItsMakingLeaveNothing) {
    Ring ring;
    int error = 0;
    {
        const FaultScope scope(fault_memfd_create);
        fault_memfd_create.Fail(-1, EMFILE);
        EXPECT_NE(ring.Create(4096, {}, error), StatusCode::Ok);
        EXPECT_EQ(error, EMFILE);
        EXPECT_FALSE(ring);
    }
    {
        // Without it a forked child would write into its parent's memory.
        const FaultScope scope(fault_madvise);
        fault_madvise.Fail(-1, ENOSYS);
        EXPECT_NE(ring.Create(4096, {}, error), StatusCode::Ok);
        EXPECT_EQ(error, ENOSYS);
    }
    EXPECT_FALSE(ring);
    EXPECT_EQ(ring.GetFd(), -1);
}

TEST(Ring, KeepsEventsInOrder) {
    Ring& ring = MakeRing();
    const std::uint16_t name = ring.Intern("com.example.Thermostat1.Boost");
    const std::uint16_t thread = ring.ClaimThread(4711, "dbus");
    const std::uint64_t begin = ring.Ticks();
    ring.Write(begin, Event::CallBegan, 4711, name, 7);
    ring.Write(ring.Ticks(), Event::CallEnded, 4711, name, ring.Ticks() - begin);
    // Whose it is does not depend on who has the entry later.
    ring.ReleaseThread(thread);
    EXPECT_EQ(ring.ClaimThread(4712, "another"), thread);
    const Flight flight = ReadOf(ring);
    ASSERT_THAT(flight.events, SizeIs(2));
    EXPECT_EQ(flight.events[0].sequence, 1U);
    EXPECT_EQ(flight.events[0].event, "call_began");
    EXPECT_EQ(flight.events[0].name, "com.example.Thermostat1.Boost");
    EXPECT_EQ(flight.events[0].threadId, 4711U);
    EXPECT_EQ(flight.events[0].value, 7U);
    EXPECT_EQ(flight.events[1].event, "call_ended");
    EXPECT_LT(flight.events[1].value, 1000000000U);
    EXPECT_GE(flight.events[1].monotonicNs, flight.events[0].monotonicNs);
}

TEST(Ring, TicksAreNanosecondsToThousandths) {
    Ring& ring = MakeRing();
    const std::uint64_t ticks = ring.Ticks();
    const std::uint64_t nanoseconds = mwl::Diagnostics::NanosecondsOf(CLOCK_MONOTONIC);
    while (mwl::Diagnostics::NanosecondsOf(CLOCK_MONOTONIC) - nanoseconds < 20000000) {
    }
    const double measured = static_cast<double>(ring.ToNanoseconds(ring.Ticks() - ticks));
    const double real = static_cast<double>(mwl::Diagnostics::NanosecondsOf(CLOCK_MONOTONIC) - nanoseconds);
    EXPECT_NEAR(measured / real, 1, 0.05);
}

// Who read it then, or was killed there, had times that were off by as long as nothing had happened before.
TEST(Ring, ClocksAreReadBeforeWhatTheyShowIsNoted) {
    Ring& ring = MakeRing();
    const Flight before = ReadOf(ring);
    const FaultScope scope(fault_clock_gettime);
    constexpr time_t QUIET = 1000;
    std::vector<Flight> meanwhile;
    fault_clock_gettime.Replace(
        [&](clockid_t clock, timespec* now) {
            meanwhile.push_back(ReadOf(ring));
            const int r = fault_clock_gettime.Real(clock, now);
            now->tv_sec += QUIET;
            return r;
        },
        std::numeric_limits<int>::max());
    ring.Calibrate();
    fault_clock_gettime.Reset();
    ASSERT_THAT(meanwhile, Not(IsEmpty()));
    for (const Flight& flight : meanwhile) {
        EXPECT_EQ(flight.toRealtimeNs, before.toRealtimeNs);
        EXPECT_EQ(flight.latestNs, before.latestNs);
    }
}

TEST(Ring, OldestEventsAreOverwritten) {
    Ring& ring = MakeRing();
    for (std::uint64_t i = 1; i <= 1000; ++i) {
        ring.Write(ring.Ticks(), Event::JobQueued, 0, Format::NO_NAME, i);
    }
    const Flight flight = ReadOf(ring);
    ASSERT_THAT(flight.events, SizeIs(128));
    EXPECT_EQ(flight.written, 1000U);
    for (std::size_t i = 0; i < 128; ++i) {
        EXPECT_EQ(flight.events[i].sequence, 873 + i);
        EXPECT_EQ(flight.events[i].value, 873 + i);
    }
}

TEST(Ring, FullTableOfNamesCallsFurtherOnesOthersAndCountsThem) {
    Ring& ring = MakeRing();
    std::set<std::uint16_t> ids;
    for (unsigned i = 0; i < Format::NAMES; ++i) {
        ids.insert(ring.Intern("com.example.Member" + std::to_string(i)));
    }
    EXPECT_EQ(ids.size(), Format::NAMES);
    EXPECT_EQ(ids.count(Format::OTHERS), 0U);
    EXPECT_EQ(ring.Intern("one.more"), Format::OTHERS);
    for (unsigned i = 0; i < 10000; ++i) {
        EXPECT_EQ(ring.Intern("hostile" + std::to_string(i)), Format::OTHERS);
    }
    EXPECT_EQ(ids.count(ring.Intern("com.example.Member17")), 1U);
    ring.Write(ring.Ticks(), Event::CallBegan, 0, Format::OTHERS, 0);
    const Flight flight = ReadOf(ring);
    EXPECT_EQ(flight.namesLost, 10001U);
    ASSERT_THAT(flight.events, SizeIs(1));
    EXPECT_EQ(flight.events[0].name, "(others)");
}

TEST(Ring, NamesStandOneBehindTheOther) {
    Ring& ring = MakeRing();
    for (std::uint16_t i = 1; i <= 60; ++i) {
        EXPECT_EQ(ring.Intern("com.example.Member" + std::to_string(i)), i);
    }
    EXPECT_EQ(ring.Intern("com.example.Member42"), 42);
}

TEST(Ring, LongNamesAreCutAtACharacter) {
    Ring& ring = MakeRing();
    ring.Write(0, Event::StateChanged, 0, ring.Intern(std::string(54, 'x') + "\xc3\xa4tz"), 0);
    EXPECT_EQ(ReadOf(ring).events.at(0).name, std::string(54, 'x'));
}

TEST(Ring, FullTableOfThreadsIsCounted) {
    Ring& ring = MakeRing();
    for (unsigned i = 0; i < Format::THREADS; ++i) {
        EXPECT_EQ(ring.ClaimThread(i + 1, "worker"), i);
    }
    EXPECT_EQ(ring.ClaimThread(1000, "late"), Format::NO_THREAD);
    EXPECT_EQ(ReadOf(ring).threadsLost, 1U);
    EXPECT_THAT(ReadOf(ring).threads, SizeIs(Format::THREADS));
    ring.ReleaseThread(13);
    EXPECT_EQ(ring.ClaimThread(1001, "later"), 13);
}

TEST(Ring, KeepsTheLatestHundredMessages) {
    Ring& ring = MakeRing();
    for (unsigned i = 1; i <= 250; ++i) {
        ring.WriteMessage(4, "message " + std::to_string(i), false, 12);
    }
    ring.WriteMessage(2, "std::runtime_error: cold", true, 13);
    const Flight flight = ReadOf(ring);
    ASSERT_THAT(flight.messages, SizeIs(100));
    EXPECT_EQ(flight.messages.front().text, "message 152");
    EXPECT_EQ(flight.messages.front().level, 4U);
    EXPECT_FALSE(flight.messages.front().isException);
    EXPECT_EQ(flight.messages.back().text, "std::runtime_error: cold");
    EXPECT_TRUE(flight.messages.back().isException);
    EXPECT_EQ(flight.messages.back().threadId, 13U);
}

TEST(Ring, LongMessagesAreCutAtACharacterAndMarked) {
    Ring& ring = MakeRing();
    ring.WriteMessage(3, std::string(224, 'x'), false, 0);
    ring.WriteMessage(3, std::string(223, 'x') + "\xe2\x82\xac", false, 0);
    const Flight flight = ReadOf(ring);
    ASSERT_THAT(flight.messages, SizeIs(2));
    EXPECT_EQ(flight.messages[0].text.size(), 224U);
    EXPECT_FALSE(flight.messages[0].isCut);
    EXPECT_EQ(flight.messages[1].text, std::string(223, 'x'));
    EXPECT_TRUE(flight.messages[1].isCut);
}

TEST(Ring, EndIsMarkedAndTheMarkTakenBack) {
    Ring& ring = MakeRing();
    ring.MarkEnd(Format::End::Failed);
    EXPECT_EQ(ReadOf(ring).end, FlightEnd::Failed);
    EXPECT_GE(ReadOf(ring).endedNs, ReadOf(ring).beganNs);
    ring.MarkEnd(Format::End::None);
    EXPECT_EQ(ReadOf(ring).end, FlightEnd::None);
}

TEST(Ring, IsNotMappedInAForkedChild) {
    const Ring& ring = MakeRing();
    const pid_t child = fork();
    if (child == 0) {
        unsigned char residency[1];
        const void* const page = &ring.GetHeader();
        // ENOMEM: nothing is mapped there.
        _exit(mincore(const_cast<void*>(page), 1, residency) == -1 && errno == ENOMEM ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(Ring, ReaderSeesNoTornEventWhileAllWrite) {
    Ring& ring = MakeRing(65536);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> writers;
    for (std::uint64_t w = 1; w <= 3; ++w) {
        writers.emplace_back([&, w] {
            const std::uint16_t name = ring.Intern("writer" + std::to_string(w));
            const std::uint16_t thread = ring.ClaimThread(static_cast<std::uint32_t>(w), "writer");
            for (std::uint64_t n = 0; !isOver; ++n) {
                ring.Write(ring.Ticks(), Event::WakeUp, static_cast<std::uint32_t>(w), name,
                           w * 1000000000 + n);
            }
            ring.ReleaseThread(thread);
        });
    }
    std::size_t seen = 0;
    for (int i = 0; i < 50 || seen < 1000; ++i) {
        std::uint64_t former = 0;
        for (const FlightEvent& event : ReadOf(ring).events) {
            ASSERT_EQ(event.name, "writer" + std::to_string(event.value / 1000000000));
            ASSERT_EQ(event.threadId, event.value / 1000000000);
            ASSERT_GT(event.sequence, former);
            former = event.sequence;
            ++seen;
        }
    }
    isOver = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST(Ring, ThreadsThatClaimAtOnceGetEntriesOfTheirOwn) {
    Ring& ring = MakeRing();
    constexpr unsigned ROUNDS = 20000;
    // Both go on at the same instant, as far as there are two processors.
    std::atomic<unsigned> arrived{0};
    const auto meet = [&arrived](unsigned round) {
        arrived.fetch_add(1);
        while (arrived.load() < 2 * round) {
            std::this_thread::yield();
        }
    };
    std::array<std::uint16_t, 2> got{};
    unsigned shared = 0;
    const auto claim = [&](unsigned self) {
        for (unsigned round = 0; round < ROUNDS; ++round) {
            meet(3 * round + 1);
            got[self] = ring.ClaimThread(self + 1, "worker");
            meet(3 * round + 2);
            if (self == 0 && got[0] == got[1]) {
                ++shared;
            }
            meet(3 * round + 3);
            ring.ReleaseThread(got[self]);
        }
    };
    std::thread other([&] { claim(1); });
    claim(0);
    other.join();
    EXPECT_EQ(shared, 0U);
}

TEST(Ring, NamesOfAllThreadsAreThereWhenAllInternAtOnce) {
    Ring& ring = MakeRing();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_NE(ring.Intern("name" + std::to_string(i)), Format::OTHERS);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::uint16_t id = ring.Intern("name50");
    ring.Write(0, Event::WakeUp, 0, id, 0);
    EXPECT_EQ(ReadOf(ring).events.at(0).name, "name50");
}

}  // namespace

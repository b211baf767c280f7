#include "diagnostics/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <tern/diagnostics/ring_reader.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/interpose.h"

// What is told is told here, at times of the test's own: the recorder takes CLOCK_MONOTONIC where it cannot
// read whether the processor's counter may be used.
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE_SYMBOL_(int, open, "open64", (const char* path, int flags), (path, flags))

namespace {

using mw::tern::StatusCode;
using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEnd;
using mwl::Diagnostics::FlightEvent;
using mwl::Diagnostics::FlightThread;
using mwl::Diagnostics::ObjectTable;
using mwl::Diagnostics::Recording;
using mwl::Diagnostics::RingReader;
using mwl::Tell::Event;
using tern::test::FaultScope;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = mwl::KnownObjects::Kind;
namespace Format = mwl::Diagnostics::Format;

std::atomic<std::int64_t> gNow{1000};

/// An object: nothing but an address.
struct alignas(16) Something {
    char unused = 0;
};

Flight ReadNow() {
    auto flight = RingReader::Read(Recording::GetRing().GetFd());
    EXPECT_TRUE(flight.IsOk()) << flight.GetError().GetText();
    return flight.IsOk() ? std::move(*flight) : Flight();
}

class RecordingTest : public testing::Test {
protected:
    RecordingTest() : mClock(fault_clock_gettime), mFiles(fault_open) {
        fault_clock_gettime.Replace(
            [](clockid_t clock, timespec* now) {
                if (clock != CLOCK_MONOTONIC) {
                    return fault_clock_gettime.Real(clock, now);
                }
                *now = {static_cast<time_t>(gNow / 1000000000), static_cast<long>(gNow % 1000000000)};
                return 0;
            },
            1000000000);
        fault_open.Replace(
            [](const char*, int) {
                errno = EACCES;
                return -1;
            },
            1000000000);
        gNow = 1000;
        Start();
        EXPECT_FALSE(Recording::GetRing().IsCounter());
        mBefore = ReadNow().written;
    }
    ~RecordingTest() override { Recording::Stop(); }

    void Start() {
        int error = 0;
        EXPECT_EQ(Recording::Start(4096, {}, error), StatusCode::Ok) << error;
        // Whatever the library itself tells meanwhile is not for this test.
        mListener = mwl::Tell::SetListener(nullptr);
        ASSERT_NE(mListener, nullptr);
    }
    void TellIt(Event event, const void* object, std::uint64_t value = 0, const char* name = nullptr) {
        mListener->onEvent(event, object, value, name);
    }
    /// An object that is known under this name.
    void Make(const Something& object, Kind kind, const char* name) {
        TellIt(Event::ObjectMade, &object, static_cast<std::uint64_t>(kind), name);
    }
    static ObjectTable::Row* RowOf(const Something& object) { return Recording::GetObjects().Find(&object); }
    std::vector<FlightEvent> Events() const {
        std::vector<FlightEvent> events;
        for (FlightEvent& event : ReadNow().events) {
            if (event.sequence > mBefore) {
                events.push_back(std::move(event));
            }
        }
        return events;
    }
    static FlightThread OwnThread() {
        for (const FlightThread& thread : ReadNow().threads) {
            if (thread.id == static_cast<std::uint32_t>(gettid())) {
                return thread;
            }
        }
        ADD_FAILURE() << "the thread is not there";
        return {};
    }
    std::vector<std::string> Doing() const {
        std::vector<std::string> doing;
        for (const auto& each : OwnThread().doing) {
            doing.push_back(each.event + " " + each.name + " " + std::to_string(each.sinceNs));
        }
        return doing;
    }

    const mwl::Tell::Listener* mListener = nullptr;
    std::uint64_t mBefore = 0;

private:
    FaultScope<int(clockid_t, timespec*)> mClock;
    FaultScope<int(const char*, int)> mFiles;
};

TEST_F(RecordingTest, EventIsWrittenWithItsTimeThreadNameAndValue) {
    const Something pool;
    Make(pool, Kind::Pool, "workers");
    gNow = 5000;
    TellIt(Event::JobQueued, &pool, 3);
    gNow = 5500;
    TellIt(Event::PipeWritten, nullptr, 77);
    const std::vector<FlightEvent> events = Events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].event, "job_queued");
    EXPECT_EQ(events[0].name, "workers");
    EXPECT_EQ(events[0].monotonicNs, 5000U);
    EXPECT_EQ(events[0].threadId, static_cast<std::uint32_t>(gettid()));
    EXPECT_EQ(events[0].value, 3U);
    EXPECT_EQ(events[1].event, "pipe_written");
    EXPECT_EQ(events[1].name, "");
    EXPECT_EQ(events[1].monotonicNs, 5500U);
    EXPECT_EQ(events[1].value, 77U);
}

TEST_F(RecordingTest, WhatEndsHasItsDurationAndTheLongestIsKept) {
    const std::vector<std::pair<Event, Event>> all{{Event::JobBegan, Event::JobEnded},
                                                   {Event::RunBegan, Event::RunEnded},
                                                   {Event::TimerBegan, Event::TimerEnded},
                                                   {Event::PipeFull, Event::PipeWaited},
                                                   {Event::CallBegan, Event::CallEnded}};
    for (const auto& [begin, end] : all) {
        const Something object;
        Make(object, Kind::Component, "thing");
        ObjectTable::Row* const row = RowOf(object);
        ASSERT_NE(row, nullptr);
        gNow = 10000;
        for (const std::int64_t duration : {300, 500, 400}) {
            TellIt(begin, &object);
            EXPECT_THAT(Doing(), ElementsAre(std::string(mwl::Tell::NameOf(begin)) + " thing " +
                                             std::to_string(gNow)));
            gNow += duration;
            TellIt(end, &object);
            EXPECT_THAT(Doing(), IsEmpty());
            EXPECT_EQ(Events().back().value, static_cast<std::uint64_t>(duration));
            EXPECT_EQ(Events().back().event, mwl::Tell::NameOf(end));
            EXPECT_EQ(Events().back().name, "thing");
        }
        EXPECT_EQ(row->longest, 500U) << mwl::Tell::NameOf(end);
        TellIt(Event::ObjectGone, &object, static_cast<std::uint64_t>(Kind::Component));
        EXPECT_EQ(RowOf(object), nullptr);
    }
}

struct Figures {
    Event event;
    std::uint64_t value;
    std::uint64_t asked, begun, done, largest;
};

TEST_F(RecordingTest, EachEventCountsItsFigure) {
    for (const Figures& wanted : {
             Figures{Event::JobQueued, 7, 7, 0, 0, 0},
             Figures{Event::JobBegan, 5, 5, 1, 0, 0},
             Figures{Event::JobEnded, 9, 0, 0, 1, 0},
             Figures{Event::WakeUp, 9, 1, 0, 0, 0},
             Figures{Event::RunBegan, 9, 0, 1, 0, 0},
             Figures{Event::RunEnded, 9, 0, 0, 1, 0},
             Figures{Event::TimerBegan, 9, 0, 1, 0, 9},
             Figures{Event::TimerEnded, 9, 0, 0, 1, 0},
             Figures{Event::PipeFull, 9, 0, 1, 0, 0},
             Figures{Event::PipeWaited, 9, 0, 0, 0, 0},
             Figures{Event::PipeWritten, 9, 1, 0, 0, 0},
             Figures{Event::PipeRead, 9, 0, 0, 1, 0},
             Figures{Event::ThreadAdded, 9, 0, 0, 0, 0},
             Figures{Event::ThreadRemoved, 9, 0, 0, 0, 0},
             Figures{Event::CallBegan, 9, 0, 0, 0, 0},
             Figures{Event::CallEnded, 9, 0, 0, 0, 0},
         }) {
        const Something object;
        Make(object, Kind::Pipe, "thing");
        TellIt(wanted.event, &object, wanted.value);
        const ObjectTable::Row* const row = RowOf(object);
        EXPECT_EQ(row->asked, wanted.asked) << mwl::Tell::NameOf(wanted.event);
        EXPECT_EQ(row->begun, wanted.begun) << mwl::Tell::NameOf(wanted.event);
        EXPECT_EQ(row->done, wanted.done) << mwl::Tell::NameOf(wanted.event);
        EXPECT_EQ(row->largest, wanted.largest) << mwl::Tell::NameOf(wanted.event);
        EXPECT_EQ(row->longest, 0U) << mwl::Tell::NameOf(wanted.event);
        TellIt(Event::ObjectGone, &object, static_cast<std::uint64_t>(Kind::Pipe));
    }
}

TEST_F(RecordingTest, LargestLatenessAndWaitAreKept) {
    const Something timer;
    Make(timer, Kind::Timer, "timer");
    for (const std::uint64_t late : {20U, 30U, 10U}) {
        TellIt(Event::TimerBegan, &timer, late);
        TellIt(Event::TimerEnded, &timer);
    }
    EXPECT_EQ(RowOf(timer)->largest, 30U);
    const Something pipe;
    Make(pipe, Kind::Pipe, "pipe");
    for (const std::int64_t wait : {200, 300, 100}) {
        TellIt(Event::PipeFull, &pipe);
        gNow += wait;
        TellIt(Event::PipeWaited, &pipe);
    }
    EXPECT_EQ(RowOf(pipe)->largest, 300U);
}

TEST_F(RecordingTest, FourAreKnownOfWhatIsDeeper) {
    for (int depth = 1; depth <= 6; ++depth) {
        gNow = 1000 + depth;
        TellIt(Event::RunBegan, nullptr);
    }
    const auto four = ElementsAre("run_began  1001", "run_began  1002", "run_began  1003", "run_began  1004");
    EXPECT_THAT(Doing(), four);
    gNow = 2000;
    TellIt(Event::RunEnded, nullptr);
    TellIt(Event::RunEnded, nullptr);
    EXPECT_EQ(Events().back().value, 0U) << "of what was too deep nobody knows the begin";
    EXPECT_THAT(Doing(), four);
    TellIt(Event::RunEnded, nullptr);
    EXPECT_EQ(Events().back().value, 996U);
    EXPECT_THAT(Doing(), ElementsAre("run_began  1001", "run_began  1002", "run_began  1003"));
    for (const std::uint64_t duration : {997U, 998U, 999U}) {
        TellIt(Event::RunEnded, nullptr);
        EXPECT_EQ(Events().back().value, duration);
    }
    EXPECT_THAT(Doing(), IsEmpty());
}

TEST_F(RecordingTest, EndOfWhatWasNotSeenToBeginChangesNothing) {
    TellIt(Event::JobEnded, nullptr);
    EXPECT_EQ(Events().back().value, 0U);
    EXPECT_THAT(Doing(), IsEmpty());
    TellIt(Event::RunBegan, nullptr);
    gNow = 1300;
    TellIt(Event::JobEnded, nullptr);
    EXPECT_EQ(Events().back().value, 0U);
    EXPECT_THAT(Doing(), ElementsAre("run_began  1000"));
    TellIt(Event::RunEnded, nullptr);
    EXPECT_EQ(Events().back().value, 300U);
    EXPECT_THAT(Doing(), IsEmpty());
}

TEST_F(RecordingTest, NanosecondsStayAsTheyAre) {
    constexpr std::uint64_t ODD = (std::uint64_t{1} << 60U) + 1;
    EXPECT_EQ(Recording::GetRing().ToNanoseconds(ODD), ODD);
    gNow = 500000;
    Recording::GetRing().Calibrate();
    EXPECT_EQ(Recording::GetRing().ToNanoseconds(ODD), ODD);
}

TEST_F(RecordingTest, ClockThatGoesBackMakesDurationsOfNothing) {
    TellIt(Event::JobBegan, nullptr);
    gNow = 999;
    TellIt(Event::JobEnded, nullptr);
    EXPECT_EQ(Events().back().value, 0U);
}

TEST_F(RecordingTest, RunningIsTheOldestOfAllThreads) {
    const Something pool;
    const Something other;
    EXPECT_EQ(Recording::RunningTicks(&pool), 0U);
    TellIt(Event::JobBegan, &other);
    gNow = 2000;
    TellIt(Event::JobBegan, &pool);
    // There is one, if only just now.
    EXPECT_EQ(Recording::RunningTicks(&pool), 1U);
    gNow = 2001;
    EXPECT_EQ(Recording::RunningTicks(&pool), 1U);
    gNow = 2500;
    std::latch begun(1);
    std::latch goOn(1);
    std::thread younger([&] {
        TellIt(Event::JobBegan, &pool);
        begun.count_down();
        goOn.wait();
        TellIt(Event::JobEnded, &pool);
    });
    begun.wait();
    gNow = 2600;
    EXPECT_EQ(Recording::RunningTicks(&pool), 600U);
    TellIt(Event::JobEnded, &pool);
    EXPECT_EQ(Recording::RunningTicks(&pool), 100U);
    EXPECT_EQ(Recording::RunningTicks(&other), 1600U);
    goOn.count_down();
    younger.join();
    EXPECT_EQ(Recording::RunningTicks(&pool), 0U);
    TellIt(Event::JobEnded, &other);
    EXPECT_EQ(Recording::RunningTicks(&other), 0U);
}

TEST_F(RecordingTest, ThreadThatEndsIsInNothing) {
    const Something pool;
    std::thread([&] { TellIt(Event::JobBegan, &pool); }).join();
    EXPECT_EQ(Recording::RunningTicks(&pool), 0U);
    // Whoever has the entry next begins in nothing.
    std::thread([&] {
        TellIt(Event::WakeUp, nullptr);
        EXPECT_THAT(Doing(), IsEmpty());
    }).join();
}

TEST_F(RecordingTest, ThreadHasTheKernelsName) {
    std::thread([&] {
        prctl(PR_SET_NAME, "pump-of-15-char");
        TellIt(Event::WakeUp, nullptr);
        EXPECT_EQ(OwnThread().name, "pump-of-15-char");
    }).join();
}

TEST_F(RecordingTest, WatchedThreadHasItsPeriodAndItsLastReport) {
    const Something watch;
    Make(watch, Kind::Watched, "pump");
    gNow = 3000;
    TellIt(Event::WatchBegan, &watch, 250, "pump");
    EXPECT_EQ(RowOf(watch)->largest, 3000U);
    EXPECT_EQ(OwnThread().watchName, "pump");
    EXPECT_EQ(OwnThread().watchPeriodNs, 250U);
    EXPECT_EQ(OwnThread().reportedNs, 3000U);
    const std::size_t written = Events().size();
    gNow = 3100;
    TellIt(Event::WatchReported, &watch, 0);
    EXPECT_EQ(RowOf(watch)->largest, 3100U);
    EXPECT_EQ(OwnThread().reportedNs, 3100U);
    EXPECT_EQ(Events().size(), written) << "reports are too many to be written";
    // Of another watch's end this one knows nothing.
    TellIt(Event::WatchEnded, &watch, 0, "another");
    EXPECT_EQ(OwnThread().watchName, "pump");
    TellIt(Event::WatchEnded, &watch, 0, "pump");
    EXPECT_EQ(OwnThread().watchName, "");
    const std::vector<FlightEvent> events = Events();
    ASSERT_EQ(events.size(), written + 2);
    EXPECT_EQ(events[written].name, "another");
    EXPECT_EQ(events[written + 1].event, "watch_ended");
}

TEST_F(RecordingTest, WatchIsOverAlsoWhenAnotherThreadEndsIt) {
    const Something own;
    Make(own, Kind::Watched, "pump");
    TellIt(Event::WatchBegan, &own, 250, "pump");
    const Something seen;
    const Something unseen;
    const auto isOverOf = [&](const Something& watch, Event begin) {
        Make(watch, Kind::Watched, "pump");
        std::latch begun(1);
        std::latch ended(1);
        std::thread watched([&] {
            TellIt(begin, &watch, 0, "pump");
            EXPECT_EQ(OwnThread().watchName, "pump");
            begun.count_down();
            ended.wait();
            EXPECT_EQ(OwnThread().watchName, "");
            // It may not know yet.
            TellIt(Event::WatchReported, &watch, 0, "pump");
            EXPECT_EQ(OwnThread().watchName, "");
        });
        begun.wait();
        TellIt(Event::WatchEnded, &watch, 0, "pump");
        TellIt(Event::ObjectGone, &watch, static_cast<std::uint64_t>(Kind::Watched));
        // Its own has the same name, and goes on.
        EXPECT_EQ(OwnThread().watchName, "pump");
        ended.count_down();
        watched.join();
    };
    isOverOf(seen, Event::WatchBegan);
    isOverOf(unseen, Event::WatchReported);
    TellIt(Event::WatchEnded, &own, 0, "pump");
    EXPECT_EQ(OwnThread().watchName, "");
}

// Another thread ends the watch, and takes the object out a moment later: a thread that reported between the
// two was shown as watched for the rest of its life.
TEST_F(RecordingTest, WatchThatIsReportedToWhileItEndsIsOver) {
    const Something watch;
    Make(watch, Kind::Watched, "pump");
    TellIt(Event::WatchBegan, &watch, 250, "pump");
    TellIt(Event::WatchEnded, &watch, 0, "pump");
    TellIt(Event::WatchReported, &watch, 0, "pump");
    TellIt(Event::ObjectGone, &watch, static_cast<std::uint64_t>(Kind::Watched));
    EXPECT_EQ(OwnThread().watchName, "");
    TellIt(Event::WatchReported, &watch, 0, "pump");
    EXPECT_EQ(OwnThread().watchName, "");
    // Another kind of object at the same address is no watch.
    Make(watch, Kind::Watched, "pump");
    TellIt(Event::WatchReported, &watch, 0, "pump");
    TellIt(Event::ObjectGone, &watch, static_cast<std::uint64_t>(Kind::Component));
    EXPECT_EQ(OwnThread().watchName, "pump");
    TellIt(Event::ObjectGone, &watch, static_cast<std::uint64_t>(Kind::Watched));
}

TEST_F(RecordingTest, ThreadThatTakesTheBusThreadsPlaceIsNone) {
    std::thread([this] {
        TellIt(Event::WakeUp, nullptr);
        Recording::SetBusThread();
        EXPECT_TRUE(OwnThread().isBusThread);
    }).join();
    std::thread([this] {
        TellIt(Event::WakeUp, nullptr);
        EXPECT_FALSE(OwnThread().isBusThread);
    }).join();
}

TEST_F(RecordingTest, WatchWhoseBeginWasNotSeenIsKnownWithItsFirstReport) {
    const Something watch;
    Make(watch, Kind::Watched, "pump");
    TellIt(Event::WatchReported, &watch);
    EXPECT_EQ(OwnThread().watchName, "") << "without a name";
    gNow = 3100;
    TellIt(Event::WatchReported, &watch, 0, "pump");
    EXPECT_EQ(OwnThread().watchName, "pump");
    EXPECT_EQ(OwnThread().reportedNs, 3100U);
    TellIt(Event::WatchReported, nullptr, 0, "another");
    EXPECT_EQ(OwnThread().watchName, "pump");
    // One that ended while recording was off is none.
    Recording::Stop();
    Start();
    EXPECT_EQ(OwnThread().watchName, "");
    TellIt(Event::WatchReported, nullptr, 0, "another");
    EXPECT_EQ(OwnThread().watchName, "another");
    EXPECT_EQ(OwnThread().watchPeriodNs, 0U);
    TellIt(Event::WatchEnded, nullptr, 0, "another");
    EXPECT_EQ(OwnThread().watchName, "");
}

TEST_F(RecordingTest, SupervisedThreadsHaveNoFigures) {
    const Something component;
    Make(component, Kind::Component, "pump");
    ObjectTable::Row* const row = RowOf(component);
    row->begun = 5;
    // It may have the address of the component that it belongs to.
    Make(component, Kind::Supervised, "thread of pump");
    EXPECT_EQ(RowOf(component), row);
    EXPECT_EQ(row->begun, 5U);
    TellIt(Event::ObjectGone, &component, static_cast<std::uint64_t>(Kind::Supervised));
    EXPECT_EQ(RowOf(component), row);
    TellIt(Event::ObjectGone, &component, static_cast<std::uint64_t>(Kind::Component));
    EXPECT_EQ(RowOf(component), nullptr);
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(RecordingTest, CallsOfTheBusThreadAreRecordedUnderTheirMember) {
    const std::uint16_t name = Recording::Intern("com.example.Room1.Boost");
    Recording::RecordCallBegan(name, 4000);
    EXPECT_THAT(Doing(), ElementsAre("call_began com.example.Room1.Boost 4000"));
    Recording::RecordCallEnded(name, 4321);
    EXPECT_THAT(Doing(), IsEmpty());
    const std::vector<FlightEvent> events = Events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].event, "call_began");
    EXPECT_EQ(events[0].monotonicNs, 4000U);
    EXPECT_EQ(events[0].value, 0U);
    EXPECT_EQ(events[1].event, "call_ended");
    EXPECT_EQ(events[1].name, "com.example.Room1.Boost");
    EXPECT_EQ(events[1].value, 321U);
    Recording::SetBusThread();
    EXPECT_TRUE(OwnThread().isBusThread);
    std::thread([&] {
        TellIt(Event::WakeUp, nullptr);
        EXPECT_FALSE(OwnThread().isBusThread);
    }).join();
}

TEST_F(RecordingTest, TurnsOfOneBusAreWatchedAtATime) {
    const Something bus;
    const Something other;
    std::vector<std::uint64_t> turns;
    const auto handler = [](void* argument, std::uint64_t ticks) {
        static_cast<std::vector<std::uint64_t>*>(argument)->push_back(ticks);
    };
    EXPECT_TRUE(Recording::WatchTurns(&bus, handler, &turns));
    EXPECT_FALSE(Recording::WatchTurns(&other, handler, &turns));
    EXPECT_FALSE(Recording::WatchTurns(&bus, handler, &turns));
    gNow = 6000;
    TellIt(Event::TurnEnded, &bus);
    gNow = 7000;
    TellIt(Event::TurnEnded, &other);
    gNow = 8000;
    TellIt(Event::TurnEnded, &bus);
    EXPECT_THAT(turns, ElementsAre(6000, 8000));
    EXPECT_THAT(Events(), IsEmpty());
    Recording::ForgetTurns(&other);
    EXPECT_FALSE(Recording::WatchTurns(&other, handler, &turns));
    Recording::ForgetTurns(&bus);
    TellIt(Event::TurnEnded, &bus);
    EXPECT_EQ(turns.size(), 2U);
    EXPECT_TRUE(Recording::WatchTurns(&other, handler, &turns));
    Recording::ForgetTurns(&other);
}

TEST_F(RecordingTest, WhatExistsWhenItBeginsIsKnownAndTheFormerIsForgotten) {
    const Something former;
    Make(former, Kind::Pool, "former");
    Recording::Stop();
    EXPECT_FALSE(Recording::IsOn());
    EXPECT_EQ(ReadNow().end, FlightEnd::Stopped);
    Start();
    EXPECT_TRUE(Recording::IsOn());
    EXPECT_EQ(ReadNow().end, FlightEnd::None);
    EXPECT_EQ(RowOf(former), nullptr);
}

TEST_F(RecordingTest, WhatEndsWhileItIsOffIsNotGoingOnForEver) {
    const Something pool;
    TellIt(Event::JobBegan, &pool);
    Recording::Stop();
    // The job ends here, which nobody is told.
    gNow = 5000;
    Start();
    EXPECT_THAT(Doing(), IsEmpty());
    EXPECT_EQ(Recording::RunningTicks(&pool), 0U);
    TellIt(Event::JobBegan, &pool);
    EXPECT_THAT(Doing(), ElementsAre("job_began  5000"));
    // One that began before recording did has no duration that is known.
    Recording::Stop();
    Start();
    gNow = 6000;
    TellIt(Event::JobEnded, &pool);
    EXPECT_EQ(Events().back().value, 0U);
    EXPECT_THAT(Doing(), IsEmpty());
}

/// Runs it in a child with a recording of its own, as a failure is not forgotten in a process.
void InAChild(const std::function<void()>& run) {
    const pid_t child = fork();
    if (child == 0) {
        run();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(RecordingTest, ServiceThatSaidFailedHasFailed) {
    InAChild([this] {
        EXPECT_TRUE(Recording::IsChildOfOne());
        Start();
        for (const char* const state : {"starting", "running", "stopping", "lost-bus", "faile", "failed!"}) {
            TellIt(Event::StateChanged, nullptr, 0, state);
        }
        Recording::Stop();
        EXPECT_EQ(ReadNow().end, FlightEnd::Stopped);
        Start();
        TellIt(Event::StateChanged, nullptr, 0, "failed");
        EXPECT_EQ(ReadNow().events.back().event, "state_changed");
        EXPECT_EQ(ReadNow().events.back().name, "failed");
        gNow = 9000;
        Recording::Stop();
        EXPECT_EQ(ReadNow().end, FlightEnd::Failed);
        EXPECT_EQ(ReadNow().endedNs, 9000U);
    });
}

TEST_F(RecordingTest, ServiceThatRanAfterItFailedToStartHasNotFailed) {
    InAChild([this] {
        Start();
        for (const char* const state : {"starting", "failed", "starting", "running", "stopping"}) {
            TellIt(Event::StateChanged, nullptr, 0, state);
        }
        Recording::Stop();
        EXPECT_EQ(ReadNow().end, FlightEnd::Stopped);
        Start();
        TellIt(Event::StateChanged, nullptr, 0, "failed");
        Recording::Stop();
        EXPECT_EQ(ReadNow().end, FlightEnd::Failed);
    });
}

TEST_F(RecordingTest, ExceptionIsAFailureAndToldWithItsThread) {
    InAChild([this] {
        Start();
        prctl(PR_SET_NAME, "pump");
        TellIt(Event::Thrown, nullptr, 0, "std::runtime_error: cold");
        const std::string suffix = ", in the thread 'pump'";
        const std::size_t room = Format::Message::LONGEST;
        TellIt(Event::Thrown, nullptr, 0, std::string(room - suffix.size(), 'x').c_str());
        TellIt(Event::Thrown, nullptr, 0, std::string(room - suffix.size() + 1, 'y').c_str());
        TellIt(Event::Thrown, nullptr, 0, std::string(1000, 'z').c_str());
        const Flight flight = ReadNow();
        ASSERT_EQ(flight.messages.size(), 4U);
        EXPECT_EQ(flight.messages[0].text, "std::runtime_error: cold, in the thread 'pump'");
        EXPECT_EQ(flight.messages[0].level, 2U);
        EXPECT_TRUE(flight.messages[0].isException);
        EXPECT_EQ(flight.messages[0].threadId, static_cast<std::uint32_t>(gettid()));
        EXPECT_EQ(flight.messages[1].text, std::string(room - suffix.size(), 'x') + suffix);
        EXPECT_FALSE(flight.messages[1].isCut);
        // Where there is no room for both it is the text that stays.
        EXPECT_EQ(flight.messages[2].text, std::string(room - suffix.size() + 1, 'y'));
        EXPECT_FALSE(flight.messages[2].isCut);
        EXPECT_EQ(flight.messages[3].text, std::string(room, 'z'));
        EXPECT_TRUE(flight.messages[3].isCut);
        Recording::Stop();
        EXPECT_EQ(ReadNow().end, FlightEnd::Failed);
    });
}

TEST_F(RecordingTest, ForkedChildBeginsInNothing) {
    const Something pool;
    const Something other;
    TellIt(Event::JobBegan, &pool);
    std::latch begun(1);
    std::latch goOn(1);
    std::thread busy([&] {
        TellIt(Event::JobBegan, &other);
        begun.count_down();
        goOn.wait();
    });
    begun.wait();
    InAChild([&] {
        EXPECT_FALSE(Recording::IsOn());
        EXPECT_EQ(mwl::Tell::SetListener(nullptr), nullptr);
        Start();
        EXPECT_EQ(Recording::RunningTicks(&pool), 0U);
        EXPECT_EQ(Recording::RunningTicks(&other), 0U);
        TellIt(Event::WakeUp, nullptr);
        EXPECT_EQ(OwnThread().id, static_cast<std::uint32_t>(gettid()));
        EXPECT_THAT(Doing(), IsEmpty());
    });
    goOn.count_down();
    busy.join();
    EXPECT_TRUE(Recording::IsOn());
    EXPECT_EQ(Recording::RunningTicks(&pool), 1U);
    // After a fork it is told again.
    mListener = mwl::Tell::SetListener(nullptr);
    ASSERT_NE(mListener, nullptr);
    TellIt(Event::JobEnded, &pool);
}

}  // namespace

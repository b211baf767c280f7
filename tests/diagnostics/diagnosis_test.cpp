#include <tern/diagnostics/diagnosis.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using mwl::Diagnostics::Diagnose;
using mwl::Diagnostics::Diagnosis;
using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEnd;
using mwl::Diagnostics::FlightThread;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::uint64_t S = 1000000000;
constexpr std::uint64_t MS = 1000000;
constexpr std::uint64_t LATEST = 1000 * S;

/// A life of a thousand seconds, last heard of at 00:16:40 on the first of January 1970.
Flight MakeFlight() {
    Flight flight;
    flight.pid = 42;
    flight.program = "tern-thermostat";
    flight.processStartedNs = 100 * S;
    flight.latestNs = LATEST;
    flight.events.push_back({1, 900 * S, 7, "job_ended", "", 5});
    flight.written = 1;
    return flight;
}

FlightThread MakeThread(const std::string& event, const std::string& name, std::uint64_t sinceNs) {
    FlightThread thread;
    thread.id = 7;
    thread.name = "worker";
    thread.doing.push_back({event, name, sinceNs});
    return thread;
}

void AddEvent(Flight& flight, const std::string& event, const std::string& name, std::uint64_t value = 0,
              std::uint64_t atNs = LATEST) {
    flight.events.push_back({flight.written + 1, atNs, 7, event, name, value});
    ++flight.written;
}

TEST(Diagnosis, OrderlyStop) {
    Flight flight = MakeFlight();
    flight.end = FlightEnd::Stopped;
    flight.endedNs = LATEST;
    const Diagnosis diagnosis = Diagnose(flight, 0);
    EXPECT_EQ(diagnosis.kind, "stopped");
    ASSERT_THAT(diagnosis.sentences, SizeIs(2));
    EXPECT_EQ(diagnosis.sentences[0], "It stopped in order.");
    EXPECT_EQ(diagnosis.sentences[1],
              "Process 42 (tern-thermostat) ended at 1970-01-01 00:16:40 UTC, 15 min 0 s after its start.");
}

TEST(Diagnosis, FailureInOrder) {
    Flight flight = MakeFlight();
    flight.end = FlightEnd::Failed;
    flight.messages.push_back({1, 999 * S, 3, 7, "[1][Heater] no heater", false, false});
    const Diagnosis diagnosis = Diagnose(flight, 0);
    EXPECT_EQ(diagnosis.kind, "failed");
    EXPECT_EQ(
        diagnosis.sentences.back(),
        "Its last message of warning level or worse, at 1970-01-01 00:16:39 UTC: [1][Heater] no heater");
}

TEST(Diagnosis, ExceptionGoesBeforeEverything) {
    Flight flight = MakeFlight();
    flight.end = FlightEnd::Failed;
    AddEvent(flight, "thrown", "std::runtime_error: no he");
    AddEvent(flight, "state_changed", "failed");
    flight.messages.push_back({1, 999 * S, 2, 7, "std::runtime_error: no heater", false, true});
    const Diagnosis diagnosis = Diagnose(flight, 0);
    EXPECT_EQ(diagnosis.kind, "exception");
    EXPECT_EQ(diagnosis.sentences[0], "An exception ended it: std::runtime_error: no heater.");
}

TEST(Diagnosis, ExceptionNamesWhatItsThreadWasIn) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("call_began", "a.B", LATEST));
    flight.threads.push_back(MakeThread("job_began", "", LATEST - S));
    flight.threads.back().id = 8;
    flight.threads.back().watchName = "ThreadPool::Thread1";
    AddEvent(flight, "thrown", "int: no te");
    flight.messages.push_back({1, 999 * S, 2, 8, "int: no text, in the thread 'worker'", false, true});
    EXPECT_EQ(Diagnose(flight, 0).sentences[0],
              "An exception ended it: int: no text, in the thread 'worker'; the watched thread "
              "'ThreadPool::Thread1' was in a job of a thread pool.");
}

TEST(Diagnosis, ExceptionOfLongAgoIsNoCause) {
    Flight flight = MakeFlight();
    AddEvent(flight, "thrown", "std::runtime_error: no he", 0, LATEST - 60 * S);
    EXPECT_EQ(Diagnose(flight, 0).kind, "cut-off");
}

TEST(Diagnosis, LostBus) {
    Flight flight = MakeFlight();
    flight.end = FlightEnd::Failed;
    AddEvent(flight, "state_changed", "lost-bus");
    EXPECT_EQ(Diagnose(flight, 0).kind, "lost-bus");
}

TEST(Diagnosis, BlockedThreadAndWhatItWasIn) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("run_began", "Upload", LATEST - 21 * S));
    flight.threads[0].watchName = "pump";
    AddEvent(flight, "blocked", "pump", 20500000000);
    const Diagnosis diagnosis = Diagnose(flight, LATEST + S);
    EXPECT_EQ(diagnosis.kind, "blocked");
    EXPECT_EQ(diagnosis.sentences[0],
              "The watcher killed it, as the watched thread 'pump' had not reported for 20.5 s; it had been "
              "in a run of "
              "the component 'Upload' for 21.0 s.");
}

TEST(Diagnosis, HangingHandlerOfTheBusThread) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("job_began", "", LATEST - 500 * S));
    flight.threads.push_back(MakeThread("call_began", "com.example.Thermostat1.Boost", LATEST - 9 * S));
    flight.threads[1].isBusThread = true;
    const Diagnosis diagnosis = Diagnose(flight, LATEST + 2 * S);
    EXPECT_EQ(diagnosis.kind, "hanging");
    EXPECT_EQ(diagnosis.sentences[0],
              "The D-Bus thread was in the handler of 'com.example.Thermostat1.Boost' when it ended, for 9.0 "
              "s at least and "
              "11.0 s at most.");
    EXPECT_EQ(diagnosis.sentences[1],
              "The thread 'worker' (7) was in a job of a thread pool when it ended, for 8 min 20 s at least "
              "and 8 min 22 s "
              "at most.");
}

TEST(Diagnosis, HangingIsConcludedFromTheWatchdogToo) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("call_began", "a.B", LATEST));
    flight.threads[0].isBusThread = true;
    EXPECT_EQ(Diagnose(flight, LATEST + 5 * S).kind, "cut-off");
    flight.watchdogNs = 5 * S;
    EXPECT_EQ(Diagnose(flight, LATEST + 5 * S).kind, "hanging");
}

TEST(Diagnosis, StartThatDoesNotEndIsHanging) {
    Flight flight = MakeFlight();
    AddEvent(flight, "state_changed", "starting", 0, LATEST - S);
    const Diagnosis diagnosis = Diagnose(flight, LATEST + 2 * S);
    EXPECT_EQ(diagnosis.kind, "hanging");
    EXPECT_EQ(diagnosis.sentences[0],
              "It had not finished its start when it ended, after 1.0 s at least and 3.0 s at most.");
    AddEvent(flight, "state_changed", "running");
    EXPECT_EQ(Diagnose(flight, LATEST + 2 * S).kind, "cut-off");
}

TEST(Diagnosis, StopThatIsCutOffSoonIsTold) {
    Flight flight = MakeFlight();
    AddEvent(flight, "state_changed", "running", 0, LATEST - 9 * S);
    AddEvent(flight, "state_changed", "stopping");
    const Diagnosis diagnosis = Diagnose(flight, LATEST + 2 * S);
    EXPECT_EQ(diagnosis.kind, "cut-off");
    EXPECT_EQ(diagnosis.sentences[1], "It had not finished its stop when it ended.");
    flight.watchdogNs = 4 * S;
    flight.threads.push_back(MakeThread("job_began", "", LATEST));
    const Diagnosis hanging = Diagnose(flight, LATEST + 2 * S);
    EXPECT_EQ(hanging.kind, "hanging");
    EXPECT_EQ(hanging.sentences[1],
              "When it was last heard of, the thread 'worker' (7) was in a job of a thread pool.");
}

TEST(Diagnosis, ShortWorkIsNoHanging) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("job_began", "", LATEST - S / 2));
    const Diagnosis diagnosis = Diagnose(flight, LATEST + S);
    EXPECT_EQ(diagnosis.kind, "cut-off");
    EXPECT_THAT(diagnosis.sentences[0], HasSubstr("just ended"));
    EXPECT_THAT(diagnosis.sentences.back(), HasSubstr("its last event was job_ended"));
}

TEST(Diagnosis, SuddenEndNamesWhatWasGoingOnLatestFirst) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("job_began", "", LATEST - S / 2));
    flight.threads.push_back(MakeThread("call_began", "a.B", LATEST));
    flight.threads.back().isBusThread = true;
    flight.threads.emplace_back();  // in nothing
    const Diagnosis diagnosis = Diagnose(flight, 0);
    EXPECT_EQ(diagnosis.kind, "cut-off");
    ASSERT_THAT(diagnosis.sentences, SizeIs(3));
    EXPECT_EQ(diagnosis.sentences[1],
              "When it was last heard of, the D-Bus thread was in the handler of 'a.B'; the thread 'worker' "
              "(7) was in a job of a thread pool.");
}

TEST(Diagnosis, TimesAreToldInUnitsOfTheirSize) {
    struct Case {
        std::uint64_t nanoseconds;
        const char* words;
    };
    for (const Case& some :
         {Case{1, "0.00 s"}, Case{350 * MS, "0.35 s"}, Case{999 * MS, "1.00 s"}, Case{S, "1.0 s"},
          Case{9800 * MS, "9.8 s"}, Case{59 * S + 900 * MS, "59.9 s"}, Case{60 * S, "1 min 0 s"},
          Case{125 * S, "2 min 5 s"}, Case{3599 * S, "59 min 59 s"}, Case{3600 * S, "1 h 0 min"},
          Case{11520 * S, "3 h 12 min"}, Case{86399 * S, "23 h 59 min"}, Case{86400 * S, "1 d 0 h"},
          Case{439200 * S, "5 d 2 h"}}) {
        Flight flight = MakeFlight();
        flight.end = FlightEnd::Stopped;
        flight.endedNs = 100 * S + some.nanoseconds;
        EXPECT_THAT(Diagnose(flight, 0).sentences.back(),
                    EndsWith(" UTC, " + std::string(some.words) + " after its start."));
    }
    // It cannot have ended before its start, nor is that worth a word.
    for (const std::uint64_t started : {0 * S, LATEST, LATEST + 1}) {
        Flight flight = MakeFlight();
        flight.processStartedNs = started;
        EXPECT_THAT(Diagnose(flight, 0).sentences.back(), Not(HasSubstr("after its start")));
    }
}

TEST(Diagnosis, TimeOfDayIsThatOfTheEnd) {
    Flight flight = MakeFlight();
    flight.version = "1.2";
    flight.toRealtimeNs = static_cast<std::int64_t>(86400 * S);
    EXPECT_EQ(Diagnose(flight, 0).sentences.back(),
              "Process 42 (tern-thermostat 1.2) was last heard of at 1970-01-02 00:16:40 UTC, 1 d 0 h "
              "after its start; its last event was job_ended.");
}

TEST(Diagnosis, EachKindOfWorkHasItsWords) {
    struct Case {
        const char* event;
        const char* name;
        const char* words;
    };
    for (const Case& some : {Case{"call_began", "a.B", "in the handler of 'a.B'"},
                             Case{"call_began", "", "in the handler of a message"},
                             Case{"job_began", "workers", "in a job of a thread pool"},
                             Case{"run_began", "Upload", "in a run of the component 'Upload'"},
                             Case{"run_began", "", "in a run of the component"},
                             Case{"timer_began", "tick", "in the callback of a timer"},
                             Case{"pipe_full", "", "waiting for room in a message pipe that nobody reads"},
                             Case{"event-77", "x", "in event-77 'x'"}, Case{"event-77", "", "in event-77"}}) {
        Flight flight = MakeFlight();
        flight.threads.push_back(MakeThread(some.event, some.name, LATEST));
        EXPECT_EQ(Diagnose(flight, 0).sentences.at(1),
                  "When it was last heard of, the thread 'worker' (7) was " + std::string(some.words) + ".");
    }
}

TEST(Diagnosis, WhatIsPartOfSomethingIsToldWithIt) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("call_began", "a.B", LATEST - 5 * S));
    flight.threads[0].doing.push_back({"run_began", "Inner", LATEST - 4 * S});
    flight.threads[0].doing.push_back({"pipe_full", "", LATEST - 3 * S});
    EXPECT_EQ(Diagnose(flight, 0).sentences[0],
              "The thread 'worker' (7) was waiting for room in a message pipe that nobody reads, in the "
              "handler of 'a.B', when it ended, for 3.0 s at least.");
}

TEST(Diagnosis, CausesAreTenSecondsOldAtMost) {
    for (const bool isLate : {false, true}) {
        const std::uint64_t at = LATEST - 10 * S - (isLate ? 1 : 0);
        Flight flight = MakeFlight();
        AddEvent(flight, "thrown", "x", 0, at);
        EXPECT_EQ(Diagnose(flight, 0).kind, isLate ? "cut-off" : "exception");
        flight = MakeFlight();
        AddEvent(flight, "blocked", "pump", S, at);
        EXPECT_EQ(Diagnose(flight, 0).kind, isLate ? "cut-off" : "blocked");
        flight = MakeFlight();
        AddEvent(flight, "state_changed", "lost-bus", 0, at);
        EXPECT_EQ(Diagnose(flight, 0).kind, isLate ? "cut-off" : "lost-bus");
    }
}

TEST(Diagnosis, HangingBeginsAfterASecondSeenOrTenPerhaps) {
    const auto kindOf = [](std::uint64_t least, std::uint64_t more, bool isBusThread = false) {
        Flight flight = MakeFlight();
        flight.watchdogNs = 6 * S;
        flight.threads.push_back(MakeThread("job_began", "", LATEST - least));
        flight.threads[0].isBusThread = isBusThread;
        return Diagnose(flight, LATEST + more).kind;
    };
    EXPECT_EQ(kindOf(S - 1, 0), "cut-off");
    EXPECT_EQ(kindOf(S, 0), "hanging");
    EXPECT_EQ(kindOf(0, 10 * S - 1), "cut-off");
    EXPECT_EQ(kindOf(0, 10 * S), "hanging");
    // Half of the period of systemd's watchdog, for the thread that feeds it.
    EXPECT_EQ(kindOf(0, 3 * S - 1, true), "cut-off");
    EXPECT_EQ(kindOf(0, 3 * S, true), "hanging");
    EXPECT_EQ(kindOf(0, 3 * S, false), "cut-off");
    // Seen to be over before its own last instant: nothing more is known.
    EXPECT_EQ(kindOf(0, 0 - 500 * S), "cut-off");
}

TEST(Diagnosis, TwoHangingThreadsAreToldTheLongestFirst) {
    Flight flight = MakeFlight();
    for (const std::uint64_t seconds : {3U, 9U, 5U}) {
        flight.threads.push_back(MakeThread("job_began", "", LATEST - seconds * S));
        flight.threads.back().watchName = "T" + std::to_string(seconds);
    }
    const Diagnosis diagnosis = Diagnose(flight, 0);
    ASSERT_THAT(diagnosis.sentences, SizeIs(3));
    EXPECT_THAT(diagnosis.sentences[0], StartsWith("The watched thread 'T9' was "));
    EXPECT_THAT(diagnosis.sentences[0], EndsWith("for 9.0 s at least."));
    EXPECT_THAT(diagnosis.sentences[1], StartsWith("The watched thread 'T5' was "));
}

TEST(Diagnosis, ThreeBusyThreadsAreToldTheLatestFirst) {
    Flight flight = MakeFlight();
    for (const std::uint64_t ms : {400U, 100U, 300U, 200U}) {
        flight.threads.push_back(MakeThread("run_began", "C" + std::to_string(ms), LATEST - ms * MS));
    }
    EXPECT_EQ(Diagnose(flight, 0).sentences.at(1),
              "When it was last heard of, the thread 'worker' (7) was in a run of the component 'C100'; the "
              "thread 'worker' (7) was in a run of the component 'C200'; the thread 'worker' (7) was in a "
              "run of the component 'C300'.");
}

TEST(Diagnosis, BlockedThreadThatIsInNothingIsToldAlone) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("run_began", "Other", LATEST - 2 * S));
    flight.threads.emplace_back().watchName = "pump";
    AddEvent(flight, "blocked", "pump", 20 * S);
    EXPECT_EQ(Diagnose(flight, 0).sentences[0],
              "The watcher killed it, as the watched thread 'pump' had not reported for 20.0 s.");
}

TEST(Diagnosis, ExceptionWithoutItsMessageIsOfATypeThatIsNotKnown) {
    Flight flight = MakeFlight();
    flight.threads.push_back(MakeThread("job_began", "", LATEST));
    flight.threads.back().id = 0;
    AddEvent(flight, "thrown", "x");
    flight.messages.push_back({1, 999 * S, 3, 7, "no heater", false, false});
    EXPECT_EQ(Diagnose(flight, 0).sentences[0], "An exception ended it: of a type that is not known.");
}

TEST(Diagnosis, LatestExceptionIsTheOne) {
    Flight flight = MakeFlight();
    AddEvent(flight, "thrown", "x");
    flight.messages.push_back({1, 998 * S, 2, 9, "first", false, true});
    flight.messages.push_back({2, 999 * S, 2, 9, "second", false, true});
    EXPECT_EQ(Diagnose(flight, 0).sentences[0], "An exception ended it: second.");
}

TEST(Diagnosis, TwoMessagesAreToldTheLastFirst) {
    Flight flight = MakeFlight();
    flight.messages.push_back({1, 997 * S, 3, 7, "one", false, false});
    flight.messages.push_back({2, 998 * S, 3, 7, "two", false, false});
    flight.messages.push_back({3, 999 * S, 2, 7, "thrown", false, true});
    flight.messages.push_back({4, 999 * S, 4, 7, "three", false, false});
    const Diagnosis diagnosis = Diagnose(flight, 0);
    ASSERT_THAT(diagnosis.sentences, SizeIs(4));
    EXPECT_EQ(diagnosis.sentences[2],
              "Its last message of warning level or worse, at 1970-01-01 00:16:39 UTC: three");
    EXPECT_EQ(diagnosis.sentences[3], "The one before it, at 1970-01-01 00:16:38 UTC: two");
}

TEST(Diagnosis, AnEmptyFlightIsCutOff) {
    const Diagnosis diagnosis = Diagnose(Flight(), 0);
    EXPECT_EQ(diagnosis.kind, "cut-off");
    EXPECT_THAT(diagnosis.sentences, SizeIs(2));
}

TEST(Diagnosis, ClocksThatMakeNoSenseDoNoHarm) {
    Flight flight = MakeFlight();
    flight.latestNs = UINT64_MAX;
    flight.toRealtimeNs = INT64_MIN;
    flight.processStartedNs = UINT64_MAX;
    flight.threads.push_back(MakeThread("call_began", "a.B", UINT64_MAX));
    EXPECT_EQ(Diagnose(flight, 1).kind, "cut-off");
}

}  // namespace

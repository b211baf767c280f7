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
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr std::uint64_t S = 1000000000;
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

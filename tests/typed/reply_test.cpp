#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/reply.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/raw_peer.h"
#include "typed/served_bus.h"

TERN_INTERPOSE(int, sd_bus_message_new_method_return, (sd_bus_message * call, sd_bus_message** reply),
               (call, reply))

TERN_INTERPOSE(int, sd_bus_send, (sd_bus * bus, sd_bus_message* message, uint64_t* cookie),
               (bus, message, cookie))
TERN_INTERPOSE(int, sd_bus_reply_method_error, (sd_bus_message * call, const sd_bus_error* error),
               (call, error))
TERN_INTERPOSE(int, sd_bus_add_match_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* match, sd_bus_message_handler_t callback,
                sd_bus_message_handler_t installed, void* userdata),
               (bus, slot, match, callback, installed, userdata))
TERN_INTERPOSE(int, sd_event_add_time_relative,
               (sd_event * event, sd_event_source** source, clockid_t clock, uint64_t delay,
                uint64_t accuracy, sd_event_time_handler_t handler, void* userdata),
               (event, source, clock, delay, accuracy, handler, userdata))

namespace {

/// What its author's codec cannot write.
struct Odd {};
enum class Way { Refuse, Throw, Exhaust };
Way gWay = Way::Refuse;

}  // namespace

template <>
struct mwl::Typed::Codec<Odd> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Odd&) {
        if (gWay == Way::Throw) {
            throw std::runtime_error("odd");
        }
        return gWay == Way::Refuse ? -EINVAL : -ENOMEM;
    }
    static int Read(sd_bus_message*, Odd&, Fault&) { return 1; }
};

namespace mwl::Typed {
namespace {

struct Odd1 {
    static constexpr const char* NAME = "com.example.Odd1";
    static constexpr Method<Odd()> Get{"Get", {"odd"}, OPEN};
    static constexpr Method<Results<std::uint32_t, std::string>()> Both{"Both", {"number", "text"}, OPEN};
    static constexpr Method<void()> Nothing{"Nothing", {}, OPEN};
    static constexpr Members<Get, Both, Nothing> ALL{};
};
class OddInterface : public Implements<OddInterface, Odd1> {
public:
    static constexpr auto Describe() {
        return Bindings<Bind<Odd1::Get, &OddInterface::Get>, Bind<Odd1::Both, &OddInterface::Both>,
                        Bind<Odd1::Nothing, &OddInterface::Nothing>>();
    }

private:
    void Get(Reply<Odd> reply) { reply.Return(Odd()); }
    void Both(Reply<Results<std::uint32_t, std::string>> reply) {
        reply.Return(Results<std::uint32_t, std::string>(5U, "five"));
    }
    void Nothing(Reply<void> reply) { reply.Return(); }
};

using tern::test::FaultScope;
using tern::test::Peer;
using tern::test::Room;
using tern::test::ROOM;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* PATH = "/com/example/room";
constexpr const char* STOPPING = "org.freedesktop.DBus.Error.NoReply: the service is stopping";
constexpr const char* DROPPED = "org.freedesktop.DBus.Error.Failed: the service dropped the call";

/// A service whose `Later` keeps its replies for the test.
class ReplyTest : public testing::Test {
protected:
    using Number = std::uint32_t;
    struct Kept {
        Reply<Number> reply;
        Number number;
    };

    ReplyTest() {
        mServed.emplace([this](Served& served) {
            room = &served.Export(PATH);
            room->onLater = [this](Reply<Number> reply, Number number) {
                const std::lock_guard lock(mMutex);
                mKept.push_back({std::move(reply), number});
            };
        });
        mPeer.emplace();
    }

    void Send(Number number) { mPeer->Send(mAnswers, PATH, ROOM, "Later", "u", number); }
    /// Sends that many calls and waits until their replies are here.
    void SendAndTake(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            Send(static_cast<Number>(i));
        }
        EXPECT_TRUE(WaitUntil([&] {
            const std::lock_guard lock(mMutex);
            return mKept.size() >= count;
        }));
        mPeer->Ping();  // what the handlers' turn sends besides has been sent
    }
    std::vector<std::string> Answers(std::size_t count) {
        EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, count));
        return mAnswers;
    }

    tern::test::PrivateBus mDaemon;
    tern::test::LogCapture mLog{5};
    std::optional<Served> mServed;
    std::optional<Peer> mPeer;
    std::mutex mMutex;
    std::vector<Kept> mKept;
    std::vector<std::string> mAnswers;
    Room* room = nullptr;
};

TEST_F(ReplyTest, AnswersFromAnotherThread) {
    SendAndTake(1);
    EXPECT_EQ(mServed->Count().openCalls, 1U);
    EXPECT_TRUE(mKept[0].reply.IsWanted());
    mKept[0].reply.Return(42);
    EXPECT_FALSE(mKept[0].reply.IsWanted());
    EXPECT_THAT(Answers(1), ElementsAre("42"));
    const Bus::Counters counters = mServed->Count();
    EXPECT_EQ(counters.openCalls, 0U);
    EXPECT_EQ(counters.deferred, 1U);
    EXPECT_EQ(counters.droppedCalls, 0U);
}

TEST_F(ReplyTest, AnswersOnTheDBusThread) {
    room->onLater = [](Reply<Number> reply, Number number) { reply.Return(number + 1); };
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Later", "u", 1U), "2");
    mPeer->Ping();  // the handler has ended, not only answered
    room->onLater = [](Reply<Number> reply, Number) { reply.Fail(StatusCode::Busy); };
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Later", "u", 1U), "mwl.StatusCode.Busy: Busy");
}

TEST_F(ReplyTest, AnErrorIsSentAsItIs) {
    SendAndTake(1);
    mKept[0].reply.Fail(Error("com.example.Error.TooHot", "it is \xc3\xa4rgerlich"));
    EXPECT_THAT(Answers(1), ElementsAre("com.example.Error.TooHot: it is \xc3\xa4rgerlich"));
}

TEST_F(ReplyTest, HundredCallsAreAnsweredByEightThreadsInAnyOrder) {
    constexpr std::size_t CALLS = 100;
    mServed->On([&] { mServed->typed->SetOpenCalls(CALLS); });
    SendAndTake(CALLS);
    std::latch together(8);
    std::vector<std::thread> workers;
    for (std::size_t worker = 0; worker < 8; ++worker) {
        workers.emplace_back([&, worker] {
            together.arrive_and_wait();
            // Each its own, the last ones first.
            for (std::size_t i = CALLS; i-- > 0;) {
                if (i % 8 == worker) {
                    mKept[i].reply.Return(1000 + mKept[i].number);
                }
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    const std::vector<std::string> answers = Answers(CALLS);
    std::set<std::string> wanted;
    for (std::size_t i = 0; i < CALLS; ++i) {
        wanted.insert(std::to_string(1000 + i));
    }
    EXPECT_EQ(std::set<std::string>(answers.begin(), answers.end()), wanted);
    EXPECT_EQ(answers.size(), CALLS);
    EXPECT_EQ(mServed->Count().openCalls, 0U);
}

TEST_F(ReplyTest, TheFirstAnswerCounts) {
    SendAndTake(1);
    mKept[0].reply.Return(1);
    mKept[0].reply.Return(2);
    mKept[0].reply.Fail(Error::Failed("late"));
    mKept.clear();
    EXPECT_THAT(Answers(1), ElementsAre("1"));
    mPeer->Ping();
    EXPECT_EQ(mAnswers.size(), 1U);
    EXPECT_EQ(mServed->Count().droppedCalls, 0U);
}

TEST_F(ReplyTest, OneThatIsDroppedAnswersForItself) {
    SendAndTake(2);
    mKept.pop_back();
    EXPECT_THAT(Answers(1), ElementsAre(DROPPED));
    mServed->On([&] { mKept.clear(); });  // on the D-Bus thread as well
    EXPECT_THAT(Answers(2), ElementsAre(DROPPED, DROPPED));
    EXPECT_EQ(mServed->Count().droppedCalls, 2U);
}

TEST_F(ReplyTest, OneThatIsReplacedAnswersForItself) {
    SendAndTake(2);
    mKept[0].reply = std::move(mKept[1].reply);
    EXPECT_THAT(Answers(1), ElementsAre(DROPPED));
    Reply<Number>& same = mKept[0].reply;
    mKept[0].reply = std::move(same);
    EXPECT_TRUE(mKept[0].reply.IsWanted());
    EXPECT_FALSE(mKept[1].reply.IsWanted());
    mKept[1].reply.Return(1);  // moved from: nothing
    mKept[0].reply.Return(2);
    EXPECT_THAT(Answers(2), ElementsAre(DROPPED, "2"));
}

TEST_F(ReplyTest, AHandlerThatThrowsAnswersOnce) {
    room->onLater = [](Reply<Number>, Number) { throw std::runtime_error("no disk"); };
    Send(1);
    EXPECT_THAT(Answers(1), ElementsAre(DROPPED));
    mPeer->Ping();  // the handler has ended, not only answered
    EXPECT_EQ(mLog.Entries("Typed").size(), 1U);
    // One that has answered before it throws has answered.
    room->onLater = [](Reply<Number> reply, Number number) {
        reply.Return(number);
        throw std::runtime_error("no disk");
    };
    Send(2);
    EXPECT_THAT(Answers(2), ElementsAre(DROPPED, "2"));
    mPeer->Ping();
    EXPECT_EQ(mAnswers.size(), 2U);
}

TEST_F(ReplyTest, OneMoreThanTheLimitIsRefusedAtOnce) {
    constexpr const char* REFUSED =
        "org.freedesktop.DBus.Error.LimitsExceeded: too many calls are waiting for their answer";
    SendAndTake(Bus::OPEN_CALLS);
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Later", "u", 1U), REFUSED);
    EXPECT_EQ(mServed->Count().refusedCalls, 1U);
    EXPECT_EQ(mServed->Count().openCalls, Bus::OPEN_CALLS);
    // One answered, one more taken.
    mKept[0].reply.Return(1);
    EXPECT_THAT(Answers(1), ElementsAre("1"));
    Send(1000);
    EXPECT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mMutex);
        return mKept.size() == Bus::OPEN_CALLS + 1;
    }));
    mServed->On([&] { mServed->typed->SetOpenCalls(0); });
    mKept.clear();
    EXPECT_EQ(Answers(Bus::OPEN_CALLS + 1).size(), Bus::OPEN_CALLS + 1);
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Later", "u", 1U), REFUSED);
}

TEST_F(ReplyTest, NoLimitOfJobsRefusesAnAnswer) {
    SendAndTake(2);
    mServed->typed->SetWaitingJobs(0);
    EXPECT_FALSE(mServed->typed->Post([] {}));
    mKept[0].reply.Return(5);
    mKept.pop_back();
    EXPECT_THAT(Answers(2), ElementsAre("5", DROPPED));
    mServed->typed->SetWaitingJobs(Dispatcher::LIMIT);
}

TEST_F(ReplyTest, AnAnswerFollowsWhatItsThreadPostedBefore) {
    mPeer->Listen();
    SendAndTake(1);
    EXPECT_TRUE(mServed->typed->Post([&] { room->Measure(1); }));
    std::thread worker([&] { mKept[0].reply.Return(5); });
    worker.join();
    EXPECT_THAT(Answers(1), ElementsAre("5"));
    // Both come over the same connection: the signal was before the answer.
    EXPECT_THAT(mPeer->Seen(), ElementsAre("Measured /com/example/room 1"));
}

TEST_F(ReplyTest, AValueThatCannotBeSentIsAFailureInside) {
    room->onText = [&](Reply<std::string> reply) { reply.Return("\xff\xfe"); };
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Text"),
              "org.freedesktop.DBus.Error.Failed: the service failed internally");
    mPeer->Ping();  // the handler has ended, not only answered
    EXPECT_EQ(mServed->Count().unsentReplies, 1U);
    ASSERT_EQ(mLog.Entries("Typed").size(), 1U);
    EXPECT_THAT(mLog.Entries("Typed")[0].text,
                StartsWith("Failed to answer com.example.Room1.Text of /com/example/room, asked by :"));
    // The connection has survived, and so has the service.
    room->onText = [&](Reply<std::string> reply) { reply.Return("gr\xc3\xbcn"); };
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Text"), "gr\xc3\xbcn");
}

TEST_F(ReplyTest, AnAnswerIsNothingOrSeveralValues) {
    mServed->On([&] {
        mServed->exported.push_back(mServed->typed->Export("/odd", std::make_unique<OddInterface>()));
    });
    EXPECT_EQ(mPeer->Call("/odd", "com.example.Odd1", "Nothing"), "");
    EXPECT_EQ(mPeer->Call("/odd", "com.example.Odd1", "Both"), "5");
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ReplyTest, WhatAnAuthorsCodecDoesStaysInside) {
    mServed->On([&] {
        mServed->exported.push_back(mServed->typed->Export("/odd", std::make_unique<OddInterface>()));
    });
    gWay = Way::Refuse;
    constexpr const char* INSIDE = "org.freedesktop.DBus.Error.Failed: the service failed internally";
    EXPECT_EQ(mPeer->Call("/odd", "com.example.Odd1", "Get"), INSIDE);
    mPeer->Ping();
    mLog.Clear();
    gWay = Way::Throw;
    EXPECT_EQ(mPeer->Call("/odd", "com.example.Odd1", "Get"), INSIDE);
    mPeer->Ping();
    EXPECT_TRUE(mLog.Contains(
        tern::test::Error("Typed", "Making an answer threw std::runtime_error: odd (0 like it not logged)")));
    gWay = Way::Exhaust;
    EXPECT_EQ(mPeer->Call("/odd", "com.example.Odd1", "Get"),
              "org.freedesktop.DBus.Error.NoMemory: out of memory");
    EXPECT_EQ(mServed->Count().unsentReplies, 3U);
}

TEST_F(ReplyTest, DeparturesAreWatchedWhileCallsAreOpenAndAWhileLonger) {
    const FaultScope matches(fault_sd_bus_add_match_async);
    fault_sd_bus_add_match_async.Fail(0, 0, 0);  // counts
    const FaultScope linger(fault_sd_event_add_time_relative);
    const auto call = [&](std::size_t number) {
        Send(0);
        EXPECT_TRUE(WaitUntil([&] {
            const std::lock_guard lock(mMutex);
            return mKept.size() == 1;
        }));
        mKept.clear();
        EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, number));
    };
    EXPECT_EQ(fault_sd_bus_add_match_async.Calls(), 0) << "not before somebody waits";
    call(1);
    call(2);
    call(3);
    EXPECT_EQ(fault_sd_bus_add_match_async.Calls(), 1);
    // In a service where the while is over at once.
    mServed.reset();
    fault_sd_event_add_time_relative.Replace(
        [](sd_event* event, sd_event_source** source, clockid_t clock, uint64_t, auto... others) {
            return fault_sd_event_add_time_relative.Real(event, source, clock, 0, others...);
        });
    mServed.emplace([this](Served& served) {
        served.Export(PATH).onLater = [this](Reply<Number> reply, Number number) {
            const std::lock_guard lock(mMutex);
            mKept.push_back({std::move(reply), number});
        };
    });
    call(4);
    // The timer was due with the answer: its turn comes before the next job.
    mServed->Count();
    mServed->Count();
    call(5);
    EXPECT_EQ(fault_sd_bus_add_match_async.Calls(), 3);
}

TEST_F(ReplyTest, TheBusMayRefuseToTellOfDepartures) {
    const FaultScope matches(fault_sd_bus_add_match_async);
    fault_sd_bus_add_match_async.Replace([](sd_bus* bus, sd_bus_slot** slot, const char*,
                                            sd_bus_message_handler_t, sd_bus_message_handler_t installed,
                                            void* userdata) {
        return sd_bus_call_method_async(bus, slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "NoSuchMethod", installed, userdata, nullptr);
    });
    SendAndTake(1);
    EXPECT_TRUE(WaitUntil([&] { return !mLog.Entries("Typed").empty(); }));
    EXPECT_THAT(mLog.Entries("Typed")[0].text, StartsWith("The bus refused to tell of callers that leave: "
                                                          "org.freedesktop.DBus.Error.UnknownMethod, "));
    mKept[0].reply.Return(4);
    EXPECT_THAT(Answers(1), ElementsAre("4"));
}

TEST_F(ReplyTest, AReplyThatCannotBeMadeIsAFailure) {
    SendAndTake(1);
    const FaultScope scope(fault_sd_bus_message_new_method_return);
    // Of the service's Return; sd-bus's own answers do not go this way.
    fault_sd_bus_message_new_method_return.Fail(-ENOMEM);
    mKept[0].reply.Return(5);
    EXPECT_THAT(Answers(1), ElementsAre("org.freedesktop.DBus.Error.NoMemory: out of memory"));
    EXPECT_EQ(mServed->Count().unsentReplies, 1U);
}

TEST_F(ReplyTest, AnAnswerThatIsNotSentIsReplacedByAFailure) {
    SendAndTake(1);
    const FaultScope scope(fault_sd_bus_send);
    fault_sd_bus_send.Fail(-ENOBUFS);
    mKept[0].reply.Return(5);
    EXPECT_THAT(Answers(1), ElementsAre("org.freedesktop.DBus.Error.Failed: the service failed internally"));
    EXPECT_EQ(mServed->Count().unsentReplies, 1U);
}

TEST_F(ReplyTest, AnErrorThatIsNotSentIsReplacedByAShorterOne) {
    SendAndTake(2);
    {
        const FaultScope scope(fault_sd_bus_reply_method_error);
        fault_sd_bus_reply_method_error.Fail(-ENOMEM);
        mKept[0].reply.Fail(Error("com.example.Error.Long", "a long text"));
        EXPECT_THAT(Answers(1), ElementsAre("org.freedesktop.DBus.Error.NoMemory: out of memory"));
        EXPECT_EQ(mServed->Count().unsentReplies, 1U);
    }
    // On a connection that is lost nobody hears: it is tried once.
    const FaultScope scope(fault_sd_bus_reply_method_error);
    fault_sd_bus_reply_method_error.Fail(-ENOTCONN);
    mKept[1].reply.Fail(Error("com.example.Error.Long", "a long text"));
    EXPECT_EQ(mServed->Count().unsentReplies, 2U);
}

TEST_F(ReplyTest, ACallThatWantsNoAnswerGetsNone) {
    sd_bus_message* call = nullptr;
    Peer::Check(
        sd_bus_message_new_method_call(mPeer->Get(), &call, tern::test::SERVICE, PATH, ROOM, "Later"));
    const Peer::Message owner(call);
    Peer::Check(sd_bus_message_append(call, "u", 1U));
    Peer::Check(sd_bus_message_set_expect_reply(call, 0));
    Peer::Check(sd_bus_send(mPeer->Get(), call, nullptr));
    mPeer->Ping();
    ASSERT_EQ(mKept.size(), 1U);
    EXPECT_FALSE(mKept[0].reply.IsWanted());
    EXPECT_EQ(mServed->Count().openCalls, 1U) << "work for it is under way";
    mKept[0].reply.Return(1);
    mPeer->Ping();
    EXPECT_EQ(mServed->Count().openCalls, 0U);
    EXPECT_EQ(mServed->Count().unsentReplies, 0U);
}

TEST_F(ReplyTest, WhoHasLeftTheBusWaitsForNothing) {
    std::vector<std::string> ignored;
    Peer other;
    other.Send(ignored, PATH, ROOM, "Later", "u", 7U);
    SendAndTake(1);
    EXPECT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mMutex);
        return mKept.size() == 2;
    }));
    Reply<Number>& others = mKept[0].number == 7 ? mKept[0].reply : mKept[1].reply;
    Reply<Number>& mine = mKept[0].number == 7 ? mKept[1].reply : mKept[0].reply;
    EXPECT_TRUE(others.IsWanted());
    other.Leave();
    EXPECT_TRUE(WaitUntil([&] { return !others.IsWanted(); }));
    EXPECT_TRUE(mine.IsWanted());
    others.Return(1);
    mine.Return(2);
    EXPECT_THAT(Answers(1), ElementsAre("2"));
    EXPECT_EQ(mServed->Count().unsentReplies, 0U);
    // The next one is seen as well: the watch is there, or comes again.
    Peer third;
    mKept.clear();
    third.Send(ignored, PATH, ROOM, "Later", "u", 8U);
    EXPECT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mMutex);
        return mKept.size() == 1;
    }));
    third.Leave();
    EXPECT_TRUE(WaitUntil([&] { return !mKept[0].reply.IsWanted(); }));
}

// sd-bus lets a signal of any sender pass a rule for the message bus's.
TEST_F(ReplyTest, AnotherCannotSayThatACallerHasLeft) {
    tern::test::RawPeer liar;
    SendAndTake(1);
    liar.Ping();
    liar.EmitTo(tern::test::SERVICE, "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                "sss", mPeer->Name().c_str(), mPeer->Name().c_str(), "");
    liar.Ping();
    EXPECT_TRUE(mKept[0].reply.IsWanted());
    mKept[0].reply.Return(5);
    EXPECT_THAT(Answers(1), ElementsAre("5"));
}

// The bus tells of departures from a moment on that the service does not know; the caller may leave before.
TEST_F(ReplyTest, WhoLeavesWithTheCallStillOnItsWayIsNoticed) {
    for (int i = 0; i < 20; ++i) {
        std::vector<std::string> ignored;
        Peer hasty;
        hasty.Send(ignored, PATH, ROOM, "Later", "u", 1U);
        hasty.Leave();
    }
    EXPECT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mMutex);
        return mKept.size() == 20;
    }));
    EXPECT_TRUE(WaitUntil([&] {
        return std::none_of(mKept.begin(), mKept.end(),
                            [](const Kept& kept) { return kept.reply.IsWanted(); });
    }));
}

TEST_F(ReplyTest, OpenCallsAreAnsweredWhenTheLoopEnds) {
    SendAndTake(10);
    std::thread worker([&] {
        // Answers while the loop ends: each call is answered by one of the two.
        for (std::size_t i = 0; i < 5; ++i) {
            mKept[i].reply.Return(static_cast<Number>(i));
        }
    });
    mServed->End();
    worker.join();
    const std::vector<std::string> answers = Answers(10);
    EXPECT_EQ(answers.size(), 10U);
    EXPECT_GE(std::count(answers.begin(), answers.end(), STOPPING), 5);
    for (const std::string& answer : answers) {
        EXPECT_TRUE(answer == STOPPING || answer.size() == 1) << answer;
    }
    // Too late, and without harm: to answer, to fail, to drop; also when the bus has gone.
    mKept[6].reply.Return(1);
    mKept[7].reply.Fail(Error::Failed("late"));
    EXPECT_FALSE(mKept[8].reply.IsWanted());
    mServed->typed.reset();
    mKept[9].reply.Return(1);
    mKept.clear();
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ReplyTest, TheEndHasItsOrder) {
    mPeer->Listen();
    SendAndTake(1);
    constexpr std::size_t JOBS = 2 * Dispatcher::SHARE;
    std::size_t ran = 0;
    const auto held = std::make_shared<int>(1);
    bool hasStopped = false;
    mServed->onStop = [&] {
        hasStopped = true;
        EXPECT_EQ(held.use_count(), 1) << "the jobs that did not run have been dropped";
        EXPECT_FALSE(mServed->typed->Post([] {}));
        // The connection is closed: nothing can be sent any more.
        EXPECT_EQ(mServed->typed->GetBus(), nullptr);
        EXPECT_LE(sd_bus_is_open(mServed->manager->GetBus()), 0);
        EXPECT_EQ(mServed->typed->GetCounters().openCalls, 0U);
    };
    EXPECT_TRUE(mServed->typed->Post([&] {
        room->SetLevel(9);
        mServed->loop->End();
        for (std::size_t i = 0; i < JOBS; ++i) {
            EXPECT_TRUE(mServed->typed->Post([&ran, held] { ++ran; }));
        }
    }));
    // The change comes first over the connection: it is there when the answer is.
    EXPECT_TRUE(WaitUntil([&] {
        if (mAnswers.empty()) {
            mPeer->Process();
        }
        return !mAnswers.empty();
    }));
    EXPECT_THAT(mPeer->Taken(), ElementsAre("changed /com/example/room com.example.Room1 Level=9"));
    EXPECT_THAT(mAnswers, ElementsAre(STOPPING));
    mServed->End();
    EXPECT_TRUE(hasStopped);
    EXPECT_LT(ran, JOBS);
}

TEST_F(ReplyTest, TheConnectionIsLostWithCallsOpen) {
    SendAndTake(3);
    mDaemon.Kill();
    EXPECT_TRUE(WaitUntil([&] { return !mServed->typed->Post([] {}); })) << "the loop ends by itself";
    mServed->End();
    EXPECT_LT(mServed->result, 0);
    for (Kept& kept : mKept) {
        EXPECT_FALSE(kept.reply.IsWanted());
        kept.reply.Return(1);
    }
    EXPECT_THAT(mLog.Entries("Typed"), IsEmpty());
}

}  // namespace
}  // namespace mwl::Typed

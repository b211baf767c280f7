#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/implements.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task_handler.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/allocations.h"
#include "support/log_capture.h"
#include "typed/served_bus.h"
#include "typed/task_bus.h"

namespace mwl::Typed {
namespace {

using tern::test::Gate;
using tern::test::LogCapture;
using tern::test::Ordered;
using tern::test::Peer;
using tern::test::Served;
using tern::test::Witness;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

constexpr const char* PATH = "/com/example/hall";
constexpr const char* HALL = "com.example.Hall1";

struct Hall1 {
    using Number = std::uint32_t;
    static constexpr const char* NAME = HALL;
    static constexpr Method<Number(Number)> Twice{"Twice", {"number", "result"}, OPEN};
    static constexpr Method<std::string(std::string)> Text{"Text", {"text", "result"}, OPEN};
    static constexpr Method<void(Number)> Work{"Work", {"number"}, OPEN};
    static constexpr Method<void(Number)> Check{"Check", {"number"}, OPEN};
    static constexpr Method<Number(Number)> Ask{"Ask", {"number", "result"}, OPEN};
    static constexpr Method<Results<Number, Number>()> Both{"Both", {"a", "b"}, OPEN};
    static constexpr Method<Number()> Free{"Free", {"number"}, OPEN};
    static constexpr Members<Twice, Text, Work, Check, Ask, Both, Free> ALL{};
};

Task<> Pass(Gate& gate) {
    co_await gate;
}

/// Waits at its gate in each handler.
class Hall : public Implements<Hall, Hall1> {
public:
    using Number = Hall1::Number;
    static constexpr auto Describe() {
        return Bindings<
            Bind<Hall1::Twice, &Hall::Twice>, Bind<Hall1::Text, &Hall::Text>, Bind<Hall1::Work, &Hall::Work>,
            Bind<Hall1::Check, &Hall::Check>, Bind<Hall1::Ask, &Hall::Ask>, Bind<Hall1::Both, &Hall::Both>,
            Bind<Hall1::Free, [](Hall& it) -> Task<Number> { co_return co_await it.Twice(4); }>>();
    }
    ~Hall() override {
        if (onDeath) {
            onDeath();
        }
    }

    std::function<void()> onDeath;
    std::function<Task<>(Number)> onWork;
    Gate gate;
    int alive = 0;

private:
    Task<Number> Twice(Number number) {
        const Witness witness(alive);
        co_await gate;
        co_return number * 2;
    }
    Task<std::string> Text(std::string text) {
        co_await gate;
        co_return text + "!";
    }
    Task<> Work(Number number) { return onWork(number); }
    Task<StatusCode> Check(Number number) {
        co_await gate;
        co_return number == 0 ? StatusCode::Ok : StatusCode::Busy;
    }
    Task<Outcome<Number>> Ask(Number number) {
        co_await gate;
        if (number == 0) {
            co_return Error("com.example.Error.None", "nothing");
        }
        co_return number;
    }
    Task<Results<Number, Number>> Both() {
        co_await gate;
        co_return Results<Number, Number>(1, 2);
    }
};

class TaskHandlerTest : public testing::Test {
protected:
    TaskHandlerTest() {
        mServed.emplace([this](Served& served) {
            auto made = std::make_unique<Hall>();
            hall = made.get();
            served.exported.push_back(served.typed->Export(PATH, std::move(made)));
            EXPECT_EQ(served.exported.back().GetStatus(), StatusCode::Ok);
        });
        mPeer.emplace();
    }
    /// Sends without waiting for the answer.
    template <typename... Argument>
    void Send(const char* member, Argument... argument) {
        mPeer->Send(answers, PATH, HALL, member, argument...);
    }
    bool Wait(std::size_t count) { return mPeer->WaitForAnswers(answers, count); }
    bool WaitForOpenCalls(std::size_t count) {
        return tern::test::WaitUntil([&] { return mServed->Count().openCalls == count; });
    }
    void Open() {
        mServed->On([this] { hall->gate.Open(); });
    }

    tern::test::PrivateBus mDaemon;
    LogCapture mLog{6};
    std::optional<Served> mServed;
    std::optional<Peer> mPeer;
    Hall* hall = nullptr;
    std::vector<std::string> answers;
};

TEST_F(TaskHandlerTest, AnswersWhenItIsDone) {
    Send("Twice", "u", 21U);
    ASSERT_TRUE(WaitForOpenCalls(1));
    EXPECT_THAT(answers, IsEmpty());
    Open();
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre("42"));
    EXPECT_EQ(mServed->On([&] { return hall->alive; }), 0);
    EXPECT_EQ(mServed->Count().openCalls, 0U);
}

TEST_F(TaskHandlerTest, AnswersAtOnceWhenItDoesNotWait) {
    mServed->On([&] { hall->onWork = [](Hall::Number) -> Task<> { co_return; }; });
    Open();
    Send("Twice", "u", 1U);
    Send("Text", "s", "a text that does not fit into the string object itself");
    Send("Work", "u", 1U);
    Send("Check", "u", 0U);
    Send("Check", "u", 1U);
    Send("Ask", "u", 7U);
    Send("Ask", "u", 0U);
    Send("Both");
    Send("Free");
    ASSERT_TRUE(Wait(9));
    EXPECT_THAT(answers,
                ElementsAre("2", "a text that does not fit into the string object itself!", "", "",
                            "mwl.StatusCode.Busy: Busy", "7", "com.example.Error.None: nothing", "1", "8"));
}

TEST_F(TaskHandlerTest, TakesItsArgumentsAlong) {
    Send("Text", "s", "a text that does not fit into the string object itself");
    ASSERT_TRUE(WaitForOpenCalls(1));
    mPeer->Ping();
    Open();
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre("a text that does not fit into the string object itself!"));
}

TEST_F(TaskHandlerTest, WhatItThrowsIsAnsweredAsByOtherHandlers) {
    for (const bool waits : {false, true}) {
        answers.clear();
        mLog.Clear();
        Gate gate;
        mServed->On([&] {
            hall->onWork = [waits, &gate](Hall::Number number) -> Task<> {
                if (waits) {
                    co_await gate;
                }
                switch (number) {
                    case 0:
                        throw Error("com.example.Error.Own", "own");
                    case 1:
                        throw std::bad_alloc();
                    case 2:
                        throw std::runtime_error("secret");
                    default:
                        throw 5;
                }
            };
        });
        for (Hall::Number number = 0; number < 4; ++number) {
            Send("Work", "u", number);
            if (waits) {
                ASSERT_TRUE(WaitForOpenCalls(1));
                mServed->On([&] {
                    const Ordered ordered;
                    Gate open;
                    std::swap(open, gate);
                    open.Open();
                });
            }
            ASSERT_TRUE(Wait(number + 1));
        }
        EXPECT_THAT(answers, ElementsAre("com.example.Error.Own: own",
                                         "org.freedesktop.DBus.Error.NoMemory: out of memory",
                                         "org.freedesktop.DBus.Error.Failed: the service failed internally",
                                         "org.freedesktop.DBus.Error.Failed: the service failed internally"));
        std::vector<std::string> texts;
        for (const auto& entry : mLog.Entries("Typed")) {
            texts.push_back(entry.text);
        }
        const std::string asked = "com.example.Hall1.Work of /com/example/hall, asked by " + mPeer->Name();
        EXPECT_THAT(texts,
                    ElementsAre(asked + ", refused: com.example.Error.Own (0 like it not logged)",
                                asked + ", threw std::bad_alloc: std::bad_alloc (0 like it not logged)",
                                asked + ", threw std::runtime_error: secret (0 like it not logged)",
                                asked + ", threw int: no text (0 like it not logged)"));
    }
}

TEST_F(TaskHandlerTest, WithoutMemoryForTheCoroutineItAnswersSo) {
    mServed->On([&] {
        hall->onWork = [this](Hall::Number) {
            const tern::test::MemoryShortage shortage;
            return Pass(hall->gate);
        };
    });
    Send("Work", "u", 1U);
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre("org.freedesktop.DBus.Error.NoMemory: out of memory"));
}

TEST_F(TaskHandlerTest, CountsAmongTheOpenCalls) {
    mServed->On([&] { mServed->typed->SetOpenCalls(2); });
    for (Hall::Number i = 0; i < 3; ++i) {
        Send("Twice", "u", i);
    }
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre(StartsWith("org.freedesktop.DBus.Error.LimitsExceeded")));
}

TEST_F(TaskHandlerTest, EndsBeforeItsObjectIsDestroyed) {
    int aliveAtDeath = -1;
    Hall* const it = hall;
    mServed->On([&] { hall->onDeath = [&, it] { aliveAtDeath = it->alive; }; });
    Send("Twice", "u", 1U);
    ASSERT_TRUE(WaitForOpenCalls(1));
    mServed->On([&] { mServed->exported.clear(); });
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre("org.freedesktop.DBus.Error.Failed: the service dropped the call"));
    mPeer->Ping();
    mServed->End();
    EXPECT_EQ(aliveAtDeath, 0);
}

TEST_F(TaskHandlerTest, MayTakeItsOwnObjectFromTheBus) {
    bool isAliveMeanwhile = false;
    bool isDead = false;
    bool goesOn = false;
    mServed->On([&] {
        hall->onDeath = [&] { isDead = true; };
        hall->onWork = [&](Hall::Number) -> Task<> {
            static_cast<void>(co_await Sleep(*mServed->typed, 1ms));
            mServed->exported.clear();
            isAliveMeanwhile = !isDead;
            static_cast<void>(co_await Sleep(*mServed->typed, 1ms));
            goesOn = true;
        };
    });
    Send("Work", "u", 1U);
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre("org.freedesktop.DBus.Error.Failed: the service dropped the call"));
    mPeer->Ping();
    mServed->End();
    EXPECT_TRUE(isAliveMeanwhile);
    EXPECT_TRUE(isDead);
    EXPECT_FALSE(goesOn);
}

/// The object had no coroutines yet when it left the bus; this one was kept afterwards, and ended after the
/// object's members.
TEST_F(TaskHandlerTest, MayTakeItsOwnObjectFromTheBusBeforeItWaits) {
    std::vector<std::string> seen;
    struct AtEnd {
        std::vector<std::string>& seen;
        ~AtEnd() { seen.push_back("ended"); }
    };
    mServed->On([&] {
        hall->onDeath = [&] { seen.push_back("dead"); };
        hall->onWork = [&](Hall::Number) -> Task<> {
            const AtEnd atEnd{seen};
            mServed->exported.clear();
            co_await hall->gate;
        };
    });
    Send("Work", "u", 1U);
    ASSERT_TRUE(Wait(1));
    EXPECT_THAT(answers, ElementsAre("org.freedesktop.DBus.Error.Failed: the service dropped the call"));
    mPeer->Ping();
    mServed->End();
    EXPECT_THAT(seen, ElementsAre("ended", "dead"));
}

TEST_F(TaskHandlerTest, IsAnsweredAndEndsWhenTheBusCloses) {
    std::optional<StatusCode> status;
    int alive = 0;
    mServed->On([&] {
        hall->onWork = [&](Hall::Number) -> Task<> {
            const Witness witness(alive);
            status = co_await Sleep(*mServed->typed, 1h);
            co_await hall->gate;  // never opened
        };
    });
    Send("Work", "u", 1U);
    Send("Twice", "u", 1U);
    ASSERT_TRUE(WaitForOpenCalls(2));
    mServed->onStop = [&] {
        EXPECT_EQ(hall->alive, 0);
        EXPECT_EQ(alive, 0);
    };
    mServed->End();
    ASSERT_TRUE(Wait(2));
    EXPECT_THAT(answers, UnorderedElementsAre("org.freedesktop.DBus.Error.NoReply: the service is stopping",
                                              "org.freedesktop.DBus.Error.NoReply: the service is stopping"));
    EXPECT_EQ(status, StatusCode::Stopping);
    EXPECT_EQ(mServed->result, 0);
}

/// What still waits then is destroyed with what it holds: here the objects, its own among them, which was
/// destroyed while its coroutine was.
TEST_F(TaskHandlerTest, MayHoldItsOwnObjectWhenTheBusCloses) {
    struct AtEnd {
        std::vector<std::string>& seen;
        ~AtEnd() { seen.push_back("ended"); }
    };
    std::vector<std::string> seen;
    mServed->On([&] {
        hall->onDeath = [&] { seen.push_back("dead"); };
        hall->onWork = [&](Hall::Number) -> Task<> {
            const AtEnd atEnd{seen};
            const std::vector<Exported> objects = std::move(mServed->exported);
            co_await hall->gate;  // never opened
        };
        auto made = std::make_unique<Hall>();
        Hall& other = *made;
        other.onDeath = [&] { seen.push_back("other dead"); };
        other.onWork = [&](Hall::Number) -> Task<> {
            const AtEnd atEnd{seen};
            co_await other.gate;  // the same
        };
        mServed->exported.push_back(mServed->typed->Export("/com/example/other", std::move(made)));
    });
    mPeer->Send(answers, "/com/example/other", HALL, "Work", "u", 1U);
    Send("Work", "u", 1U);
    ASSERT_TRUE(WaitForOpenCalls(2));
    mServed->onStop = [&] { EXPECT_THAT(seen, testing::SizeIs(4)); };
    mServed->End();
    ASSERT_TRUE(Wait(2));
    EXPECT_THAT(answers, testing::Each("org.freedesktop.DBus.Error.NoReply: the service is stopping"));
    EXPECT_THAT(seen, ElementsAre("ended", "ended", testing::EndsWith("dead"), testing::EndsWith("dead")));
    EXPECT_EQ(mServed->result, 0);
}

TEST_F(TaskHandlerTest, ManyRunAtOnceAndEndInAnyOrder) {
    constexpr Hall::Number COUNT = 50;
    mServed->On([&] {
        hall->onWork = [&](Hall::Number number) -> Task<> {
            static_cast<void>(co_await Sleep(*mServed->typed, std::chrono::milliseconds(number * 7 % 10)));
        };
    });
    for (Hall::Number i = 0; i < COUNT; ++i) {
        Send("Work", "u", i);
    }
    ASSERT_TRUE(Wait(COUNT));
    EXPECT_THAT(answers, testing::Each(""));
    EXPECT_EQ(mServed->Count().openCalls, 0U);
}

}  // namespace
}  // namespace mwl::Typed

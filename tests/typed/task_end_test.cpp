// How tasks end: by an exception, by themselves, and with the bus.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "typed/task_coroutines.h"

namespace mwl::Typed {
namespace {

// ---- exceptions

TEST(Task, WhatItThrowsIsRethrownWhereItIsAwaited) {
    Gate gate;
    LogCapture log(4);
    std::vector<std::string> notes;
    {
        const Task<> early = Note(Throw("early"), notes);
        const Task<> late = Note(ThrowBehind(gate, "late"), notes);
        gate.Open();
    }
    EXPECT_THAT(notes, ElementsAre("early", "late"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Task, WhatItThrowsGoesThroughAllThatAwaitIt) {
    Gate gate;
    std::vector<std::string> notes;
    const auto outer = [](Gate& at) -> Task<> { co_await ThrowBehind(at, "inside"); };
    const Task<> task = Note(outer(gate), notes);
    gate.Open();
    EXPECT_THAT(notes, ElementsAre("inside"));
}

TEST(Task, AnExceptionThatNobodyAwaitsEndsTheLoop) {
    const PrivateBus daemon;
    TaskBus served;
    LogCapture log(4);
    Gate gate;
    const Task<> task = ThrowBehind(gate, "lost");
    EXPECT_EQ(served.GetExitCode(), std::nullopt);
    gate.Open();
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: lost")));
    EXPECT_EQ(served.GetExitCode(), -ENOTRECOVERABLE);
    EXPECT_FALSE(served.RunUntil([&] { return false; }));  // the loop has ended
}

TEST(Task, AnExceptionBeforeItsFirstWaitEndsTheLoopWhenItIsDestroyed) {
    const PrivateBus daemon;
    TaskBus served;
    LogCapture log(4);
    {
        const Task<> task = Throw("at once");
        EXPECT_THAT(log.Entries(), IsEmpty());
    }
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: at once")));
    EXPECT_EQ(served.GetExitCode(), -ENOTRECOVERABLE);
}

TEST(Task, AnExceptionWithoutABusIsLogged) {
    LogCapture log(4);
    { const Task<> task = Throw("alone"); }
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: alone")));
}

// ---- tasks that end themselves

TEST(Task, OneThatDestroysItselfGoesOnToItsNextWait) {
    Gate gate;
    Gate second;
    int alive = 0;
    std::vector<int> steps;
    Task<> self;
    const auto run = [&](Witness) -> Task<> {
        co_await gate;
        self = {};
        steps.push_back(alive);
        co_await second;
        steps.push_back(99);
    };
    self = run(Witness(alive));
    gate.Open();
    EXPECT_THAT(steps, ElementsAre(1));
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(second.IsAwaited());
}

TEST(Task, OneThatDestroysItselfEndsAtAWaitThatWouldNotWait) {
    Gate gate;
    Gate open;
    open.Open();
    int alive = 0;
    Task<> self;
    const auto run = [&](Witness) -> Task<> {
        co_await gate;
        self = {};
        for (;;) {
            co_await open;
        }
    };
    self = run(Witness(alive));
    gate.Open();
    EXPECT_EQ(alive, 0);
}

TEST(Task, OneThatDestroysItselfMayReturnOrThrow) {
    LogCapture log(4);
    for (const bool throws : {false, true}) {
        int alive = 0;
        Gate start;
        Task<> self;
        const auto run = [&](Witness) -> Task<> {
            co_await start;
            self = {};
            if (throws) {
                throw std::runtime_error("last words");
            }
        };
        self = run(Witness(alive));
        start.Open();
        EXPECT_EQ(alive, 0);
    }
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: last words")));
}

TEST(Task, OneThatDestroysWhoAwaitsItGoesOnWithWhatThatHolds) {
    Gate gate;
    Gate second;
    int alive = 0;
    std::vector<std::string> seen;
    Task<> outermost;
    const auto inner = [&](const std::string& text) -> Task<> {
        co_await gate;
        outermost = {};
        seen.push_back(text + std::to_string(alive));
        co_await second;
        seen.emplace_back("never");
    };
    const auto outer = [&](Witness) -> Task<> {
        const std::string text = "a text that is long enough to be on the heap ";
        co_await inner(text);
        seen.emplace_back("never");
    };
    const auto outest = [&](Witness) -> Task<> {
        co_await outer(Witness(alive));
        seen.emplace_back("never");
    };
    outermost = outest(Witness(alive));
    gate.Open();
    EXPECT_THAT(seen, ElementsAre("a text that is long enough to be on the heap 2"));
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(second.IsAwaited());
}

TEST(Task, OneThatDestroysWhoAwaitsItMayReturn) {
    Gate gate;
    int alive = 0;
    Task<> outermost;
    bool hasGoneOn = false;
    const auto inner = [&]() -> Task<> {
        co_await gate;
        outermost = {};
    };
    const auto outer = [&](Witness) -> Task<> {
        co_await inner();
        hasGoneOn = true;
    };
    outermost = outer(Witness(alive));
    gate.Open();
    EXPECT_FALSE(hasGoneOn);
    EXPECT_EQ(alive, 0);
}

TEST(Task, OneThatRunsBelowAnotherIsDestroyedWhenItWaitsAgain) {
    Gate gate;
    Gate never;
    int alive = 0;
    std::vector<int> steps;
    Task<> self;
    const auto destroyer = [&]() -> Task<> {
        self = {};
        steps.push_back(1);
        co_await never;
    };
    const auto run = [&](Witness) -> Task<> {
        co_await gate;
        Task<> other = destroyer();
        steps.push_back(alive);
        co_await never;
        steps.push_back(99);
    };
    self = run(Witness(alive));
    gate.Open();
    EXPECT_THAT(steps, ElementsAre(1, 1));
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(never.IsAwaited());
}

TEST(Task, IsDestroyedBetweenTheEndOfWhatItAwaitsAndGoingOn) {
    // `second` is done while `first`, which was done before, is being told: it destroys who awaits `second`.
    Gate gate;
    Gate inner;
    int alive = 0;
    bool hasGoneOn = false;
    Task<> victim;
    const auto wait = [&](Witness) -> Task<> {
        co_await Pass(inner);
        hasGoneOn = true;
    };
    const auto run = [&]() -> Task<> {
        co_await Pass(gate);
        inner.Open();
        victim = {};
    };
    victim = wait(Witness(alive));
    const Task<> task = run();
    gate.Open();
    EXPECT_TRUE(task.IsDone());
    EXPECT_FALSE(hasGoneOn);
    EXPECT_EQ(alive, 0);
}

// ---- the end of the bus

class TaskStop : public testing::Test {
protected:
    tern::test::PrivateBus mDaemon;
    LogCapture mLog{4};
    TaskBus mServed;
    Bus& mBus = *mServed.bus;
};

TEST_F(TaskStop, WhatWaitsIsResumedAndMayGoOnAwaiting) {
    std::vector<StatusCode> seen;
    const auto run = [](Bus& bus, std::vector<StatusCode>& to) -> Task<> {
        for (int i = 0; i < 3; ++i) {
            to.push_back(co_await Sleep(bus, 1h));
        }
    };
    const Task<> task = run(mBus, seen);
    EXPECT_EQ(mServed.End(), 0);
    EXPECT_THAT(seen, ElementsAre(StatusCode::Stopping, StatusCode::Stopping, StatusCode::Stopping));
    EXPECT_TRUE(task.IsDone());
}

TEST_F(TaskStop, OneThatDoesNotHeedItIsLeftWhereItIs) {
    int alive = 0;
    unsigned times = 0;
    const auto run = [&](Witness) -> Task<> {
        for (;;) {
            static_cast<void>(co_await Sleep(mBus, 1h));
            ++times;
        }
    };
    {
        const Task<> task = run(Witness(alive));
        EXPECT_EQ(mServed.End(), 0);
        EXPECT_EQ(times, Detail::TaskFrame::AWAITS_WHILE_STOPPING);
        EXPECT_FALSE(task.IsDone());
        EXPECT_EQ(alive, 1);
        EXPECT_THAT(
            mLog.Entries("Typed"),
            ElementsAre(tern::test::Error(
                "Typed", "A task goes on awaiting although the bus closes, and is left where it is")));
    }
    EXPECT_EQ(alive, 0);
}

TEST_F(TaskStop, OneThatBeginsItsSuccessorDoesNotFillTheStack) {
    TaskSet tasks;
    struct Starter {
        Bus& bus;
        TaskSet& set;
        unsigned begun = 0;
        Task<> Run() {
            ++begun;
            if (co_await Sleep(bus, 1h) != StatusCode::Ok) {
                set.Add(Run());
            }
        }
    } starter{mBus, tasks};
    tasks.Add(starter.Run());
    EXPECT_EQ(mServed.End(), 0);
    EXPECT_GT(starter.begun, 1U);
    EXPECT_LT(starter.begun, 1000U);
    EXPECT_EQ(mLog.Entries("Typed").size(), 1U);
}

TEST_F(TaskStop, NestedOnesEndFromTheInside) {
    std::vector<int> order;
    const auto inner = [&]() -> Task<StatusCode> {
        const StatusCode status = co_await Sleep(mBus, 1h);
        order.push_back(1);
        co_return status;
    };
    const auto outer = [&]() -> Task<> {
        EXPECT_EQ(co_await inner(), StatusCode::Stopping);
        order.push_back(2);
    };
    const Task<> task = outer();
    EXPECT_EQ(mServed.End(), 0);
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST_F(TaskStop, OneThatIsResumedMayDestroyOthersAndItself) {
    int alive = 0;
    std::array<Task<>, 3> tasks;
    const auto run = [&](Witness, std::size_t next) -> Task<> {
        static_cast<void>(co_await Sleep(mBus, 1h));
        tasks[next] = {};
        tasks[0] = {};
        static_cast<void>(co_await Sleep(mBus, 1h));
        ADD_FAILURE() << "goes on";
    };
    tasks[0] = run(Witness(alive), 1);
    tasks[1] = run(Witness(alive), 2);
    tasks[2] = run(Witness(alive), 2);
    EXPECT_EQ(mServed.End(), 0);
    EXPECT_EQ(alive, 0);
}

TEST_F(TaskStop, AnExceptionAtTheEndMakesTheLoopFail) {
    const auto run = [&]() -> Task<> {
        static_cast<void>(co_await Sleep(mBus, 1h));
        throw std::runtime_error("late");
    };
    const Task<> task = run();
    EXPECT_EQ(mServed.End(), -ENOTRECOVERABLE);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: late")));
}

TEST_F(TaskStop, OneThatIsLeftOverIsDestroyedByAnotherThread) {
    Gate gate;
    int alive = 0;
    std::optional<Task<>> task = Hold(gate, alive);
    EXPECT_EQ(mServed.End(), 0);
    mServed.bus.reset();
    std::thread other([&] { task.reset(); });
    other.join();
    EXPECT_EQ(alive, 0);
}

TEST(TaskCycles, ThousandBusesWithTasksComeAndGo) {
    const PrivateBus daemon;
    int alive = 0;
    int done = 0;
    const auto nested = [](Bus& bus, int& count, Witness) -> Task<StatusCode> {
        co_await Sleep(bus, 0ms);
        ++count;
        co_return co_await Sleep(bus, 1h);
    };
    const auto run = [nested](Bus& bus, int& count, int& living, Witness) -> Task<> {
        const StatusCode status = co_await nested(bus, count, Witness(living));
        EXPECT_EQ(status, StatusCode::Stopping);
        co_await Sleep(bus, 1h);
    };
    for (int i = 0; i < 1000; ++i) {
        TaskBus served;
        TaskSet tasks;
        tasks.Add(run(*served.bus, done, alive, Witness(alive)));
        tasks.Add(run(*served.bus, done, alive, Witness(alive)));
        const Task<> other = run(*served.bus, done, alive, Witness(alive));
        if (i % 2 == 0) {
            ASSERT_TRUE(served.RunUntil([&] { return done == 3; }));
        }
        if (i % 3 == 0) {
            tasks.Clear();
        }
        if (i % 5 != 0) {
            ASSERT_EQ(served.End(), 0);
        }
        done = 0;
    }
    EXPECT_EQ(alive, 0);
}

}  // namespace
}  // namespace mwl::Typed

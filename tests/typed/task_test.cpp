#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_set.h>

#include <array>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/allocations.h"
#include "support/log_capture.h"
#include "typed/task_bus.h"

namespace mwl::Typed {
namespace {

using tern::test::AllocationCount;
using tern::test::Critical;
using tern::test::Foreign;
using tern::test::Gate;
using tern::test::LogCapture;
using tern::test::PrivateBus;
using tern::test::TaskBus;
using tern::test::Witness;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

Task<int> Give(int value) {
    co_return value;
}
Task<> Pass(Gate& gate) {
    co_await gate;
}
Task<int> GiveBehind(Gate& gate, int value) {
    co_await gate;
    co_return value;
}
Task<> Hold(Gate& gate, int& alive) {
    const Witness witness(alive);
    co_await gate;
}
Task<> Throw(const char* text) {
    throw std::runtime_error(text);
    co_return;
}
Task<> ThrowBehind(Gate& gate, const char* text) {
    co_await gate;
    throw std::runtime_error(text);
}
template <class R>
Task<> Note(Task<R> task, std::vector<std::string>& notes) {
    try {
        if constexpr (std::is_void_v<R>) {
            co_await task;
            notes.emplace_back("done");
        } else {
            notes.push_back(std::to_string(co_await task));
        }
    } catch (const std::exception& error) {
        notes.emplace_back(error.what());
    }
}

// ---- beginning and end

TEST(Task, BeginsAtOnceAndRunsToItsFirstWait) {
    Gate gate;
    std::vector<int> steps;
    const auto run = [](Gate& at, std::vector<int>& seen) -> Task<> {
        seen.push_back(1);
        co_await at;
        seen.push_back(3);
    };
    const Task<> task = run(gate, steps);
    steps.push_back(2);
    EXPECT_FALSE(task.IsDone());
    gate.Open();
    EXPECT_THAT(steps, ElementsAre(1, 2, 3));
    EXPECT_TRUE(task.IsDone());
}

TEST(Task, OneThatNeverWaitsIsDoneAtOnce) {
    EXPECT_TRUE(Give(1).IsDone());
}

TEST(Task, AnEmptyOneIsDone) {
    const Task<> task;
    EXPECT_TRUE(task.IsDone());
    EXPECT_FALSE(task);
}

TEST(Task, CostsOneAllocation) {
    Gate gate;
    const AllocationCount count;
    {
        const Task<> task = Pass(gate);
        EXPECT_EQ(count.Get(), 1U);
        gate.Open();
    }
    EXPECT_EQ(count.Get(), 1U);
}

TEST(Task, AwaitingCostsNoAllocation) {
    Gate gate;
    const auto outer = [](Gate& at) -> Task<int> { co_return co_await GiveBehind(at, 7) + 1; };
    const AllocationCount count;
    const Task<int> task = outer(gate);
    gate.Open();
    EXPECT_EQ(count.Get(), 2U);
    EXPECT_TRUE(task.IsDone());
}

TEST(Task, TheCallThrowsWhenThereIsNoMemoryForTheFrame) {
    Gate gate;
    bool hasThrown = false;
    {
        const tern::test::MemoryShortage shortage;
        try {
            const Task<> task = Pass(gate);
        } catch (const std::bad_alloc&) {
            hasThrown = true;
        }
    }
    EXPECT_TRUE(hasThrown);
    EXPECT_FALSE(gate.IsAwaited());
}

TEST(Task, EndsWhereItWaitsWhenItIsDestroyed) {
    Gate gate;
    int alive = 0;
    {
        const Task<> task = Hold(gate, alive);
        EXPECT_EQ(alive, 1);
        EXPECT_TRUE(gate.IsAwaited());
    }
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(gate.IsAwaited());
}

TEST(Task, EndsWithWhatItAwaits) {
    Gate gate;
    int alive = 0;
    const auto outer = [](Gate& at, int& count) -> Task<> {
        const Witness witness(count);
        co_await Hold(at, count);
    };
    {
        const Task<> task = outer(gate, alive);
        EXPECT_EQ(alive, 2);
    }
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(gate.IsAwaited());
}

TEST(Task, MayBeDestroyedWhenItIsDone) {
    Gate gate;
    int alive = 0;
    Task<> task = Hold(gate, alive);
    gate.Open();
    EXPECT_EQ(alive, 0);
    EXPECT_TRUE(task.IsDone());
    task = {};
    EXPECT_FALSE(task);
}

TEST(Task, IsMoved) {
    Gate gate;
    int alive = 0;
    Task<> first = Hold(gate, alive);
    Task<> second = std::move(first);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): this is what is tested
    EXPECT_TRUE(second);
    first = std::move(second);
    EXPECT_EQ(alive, 1);
    Task<>& same = first;
    first = std::move(same);
    EXPECT_EQ(alive, 1);
    gate.Open();
    EXPECT_TRUE(first.IsDone());
}

TEST(Task, AssigningEndsTheFormerOne) {
    Gate gate;
    Gate other;
    int alive = 0;
    Task<> task = Hold(gate, alive);
    task = Hold(other, alive);
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(gate.IsAwaited());
    EXPECT_TRUE(other.IsAwaited());
}

// ---- awaiting

TEST(Task, GivesItsResultToWhoAwaitsIt) {
    Gate gate;
    std::vector<std::string> notes;
    const Task<> early = Note(Give(1), notes);
    const Task<> late = Note(GiveBehind(gate, 2), notes);
    EXPECT_THAT(notes, ElementsAre("1"));
    gate.Open();
    EXPECT_THAT(notes, ElementsAre("1", "2"));
}

TEST(Task, ItsResultIsMovedOut) {
    const auto make = []() -> Task<std::unique_ptr<int>> { co_return std::make_unique<int>(5); };
    std::unique_ptr<int> got;
    const auto take = [](Task<std::unique_ptr<int>> from, std::unique_ptr<int>& to) -> Task<> {
        to = co_await from;
    };
    const Task<> task = take(make(), got);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(*got, 5);
}

TEST(Task, AnOutcomeIsMadeFromAnErrorOrAStatusToo) {
    const auto run = [](int what) -> Task<Outcome<int>> {
        if (what == 0) {
            co_return Error::Failed("no");
        }
        if (what == 1) {
            co_return StatusCode::Busy;
        }
        co_return 5;
    };
    std::vector<std::string> seen;
    const auto look = [](Task<Outcome<int>> task, std::vector<std::string>& to) -> Task<> {
        const Outcome<int> outcome = co_await task;
        to.push_back(outcome.IsOk() ? std::to_string(*outcome) : outcome.GetError().GetText());
    };
    for (int i = 0; i < 3; ++i) {
        const Task<> task = look(run(i), seen);
    }
    EXPECT_THAT(seen, ElementsAre("no", "Busy", "5"));
}

TEST(Task, IsTakenOverWhereItIsAwaited) {
    Gate gate;
    std::optional<bool> wasEmpty;
    const auto run = [](Gate& at, std::optional<bool>& isEmpty) -> Task<> {
        Task<> inner = Pass(at);
        co_await inner;
        isEmpty = !inner;
    };
    const Task<> task = run(gate, wasEmpty);
    gate.Open();
    EXPECT_EQ(wasEmpty, true);
}

TEST(Task, AnEmptyOneCannotBeAwaited) {
    std::vector<std::string> notes;
    const Task<> task = Note(Task<int>(), notes);
    EXPECT_THAT(notes, ElementsAre("an empty Task is awaited"));
}

TEST(Task, AChainOfAnyLengthTakesNoStack) {
    // As deep as this the calls would take tens of megabytes.
    constexpr int LENGTH = 100000;
    Gate gate;
    const auto link = [](Task<int> former) -> Task<int> { co_return co_await former + 1; };
    Task<int> chain = GiveBehind(gate, 0);
    for (int i = 0; i < LENGTH; ++i) {
        chain = link(std::move(chain));
    }
    std::vector<std::string> notes;
    const Task<> task = Note(std::move(chain), notes);
    gate.Open();
    EXPECT_THAT(notes, ElementsAre(std::to_string(LENGTH)));
}

TEST(Task, AwaitsManyThatAreDoneAtOnce) {
    constexpr int TIMES = 100000;
    const auto run = []() -> Task<int> {
        int sum = 0;
        for (int i = 0; i < TIMES; ++i) {
            sum += co_await Give(1);
        }
        co_return sum;
    };
    std::vector<std::string> notes;
    const Task<> task = Note(run(), notes);
    EXPECT_THAT(notes, ElementsAre(std::to_string(TIMES)));
}

TEST(Task, IsAwaitedByOtherCoroutines) {
    Gate gate;
    int got = 0;
    const auto run = [](Gate& at, int& to) -> Foreign { to = co_await GiveBehind(at, 4); };
    const Foreign coroutine = run(gate, got);
    gate.Open();
    EXPECT_EQ(got, 4);
}

TEST(Task, WhatAnotherCoroutineThrowsWhereItIsResumedGoesNoFurther) {
    const PrivateBus daemon;
    TaskBus served;
    LogCapture log(4);
    Gate gate;
    const auto run = [](Gate& at) -> Foreign {
        co_await Pass(at);
        throw std::runtime_error("foreign");
    };
    const Foreign coroutine = run(gate);
    gate.Open();
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(Critical("Typed", "A coroutine threw std::runtime_error: foreign")));
    EXPECT_EQ(served.GetExitCode(), -ENOTRECOVERABLE);
}

/// Awaitables of each kind of await_suspend.
struct Refuses {
    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<>) const noexcept { return false; }
    int await_resume() const noexcept { return 1; }
};
struct Transfers {
    bool await_ready() const noexcept { return false; }
    std::coroutine_handle<> await_suspend(std::coroutine_handle<> waiting) const noexcept { return waiting; }
    int await_resume() const noexcept { return 2; }
};
struct ThrowsWaiting {
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<>) const { throw std::runtime_error("cannot wait"); }
    int await_resume() const noexcept { return 3; }
};
struct Free {};
Refuses operator co_await(Free) noexcept {
    return {};
}

template <class A>
Task<int> AwaitOne(A awaitable) {
    co_return co_await awaitable;
}

TEST(Task, AwaitsWhateverKeepsTheRules) {
    LogCapture log(4);
    std::vector<std::string> notes;
    const std::array<Task<>, 4> tasks{Note(AwaitOne(Refuses()), notes), Note(AwaitOne(Transfers()), notes),
                                      Note(AwaitOne(ThrowsWaiting()), notes), Note(AwaitOne(Free()), notes)};
    EXPECT_THAT(notes, ElementsAre("1", "2", "cannot wait", "1"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

// ---- functions without a variable and with a co_await in a condition, which g++ 12.2 lays out wrongly

Task<> PassIf(Gate& gate, int& steps) {
    if (co_await GiveBehind(gate, 5) == 5) {
        ++steps;
    }
}
Task<> PassWhile(Gate& gate, Gate& other, int& steps) {
    while (co_await GiveBehind(steps == 0 ? gate : other, steps) < 2) {
        ++steps;
    }
}
Task<int> PassBoth(Gate& gate, Gate& other, int& steps) {
    while (co_await GiveBehind(gate, 0) == 0) {
        if (co_await GiveBehind(other, 1) == 1) {
            ++steps;
            co_return 7;
        }
    }
    co_return 8;
}
Task<> ThrowIf(Gate& gate) {
    if (co_await GiveBehind(gate, 1) == 1) {
        throw std::runtime_error("if");
    }
}
Task<> HoldIf(Gate& gate, Witness) {
    if (co_await GiveBehind(gate, 1) == 1) {
        co_return;
    }
}
struct Conditional {
    Gate& gate;
    int steps = 0;
    Task<> Run() {
        if (co_await GiveBehind(gate, 1) == 1) {
            ++steps;
        }
    }
};

TEST(TaskCondition, IsResumedAndGoesOn) {
    Gate gate;
    Gate other;
    int steps = 0;
    const Task<> task = PassIf(gate, steps);
    Conditional conditional{gate};
    gate.Open();
    EXPECT_EQ(steps, 1);
    EXPECT_TRUE(task.IsDone());
    const Task<> member = conditional.Run();
    EXPECT_EQ(conditional.steps, 1);
    steps = 0;
    const Task<> loop = PassWhile(gate, other, steps);
    EXPECT_FALSE(loop.IsDone());
    other.Open();
    EXPECT_TRUE(loop.IsDone());
    EXPECT_EQ(steps, 2);
}

TEST(TaskCondition, GivesResultsAndExceptionsAndIsAwaited) {
    Gate gate;
    Gate other;
    Gate third;
    int steps = 0;
    std::vector<std::string> notes;
    const Task<> both = Note(PassBoth(gate, other, steps), notes);
    const Task<> thrower = Note(ThrowIf(third), notes);
    gate.Open();
    EXPECT_THAT(notes, IsEmpty());
    other.Open();
    third.Open();
    EXPECT_THAT(notes, ElementsAre("7", "if"));
}

TEST(TaskCondition, EndsWhereItWaitsAndWhenItIsDone) {
    Gate gate;
    int alive = 0;
    {
        const Task<> task = HoldIf(gate, Witness(alive));
        EXPECT_EQ(alive, 1);
    }
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(gate.IsAwaited());
    gate.Open();
    { const Task<> task = HoldIf(gate, Witness(alive)); }
    EXPECT_EQ(alive, 0);
    TaskSet tasks;
    Gate another;
    tasks.Add(HoldIf(another, Witness(alive)));
    another.Open();
    EXPECT_EQ(alive, 0);
}

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

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "typed/task_coroutines.h"

namespace mwl::Typed {
namespace {

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

}  // namespace
}  // namespace mwl::Typed

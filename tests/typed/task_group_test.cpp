#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/all.h>
#include <tern/typed/first.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_group.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "support/log_capture.h"
#include "typed/task_bus.h"

namespace mwl::Typed {
namespace {

using tern::test::Gate;
using tern::test::LogCapture;
using tern::test::TaskBus;
using tern::test::Witness;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using namespace std::chrono_literals;

Task<> Pass(Gate& gate) {
    co_await gate;
}
template <class T>
Task<T> Give(Gate& gate, T value) {
    co_await gate;
    co_return value;
}
Task<int> Throw(Gate& gate, const char* text) {
    co_await gate;
    throw std::runtime_error(text);
}
Task<int> Hold(Gate& gate, Witness, int value = 0) {
    co_await gate;
    co_return value;
}
Task<> Note(Task<> task, std::vector<std::string>& notes) {
    try {
        co_await task;
        notes.emplace_back("done");
    } catch (const std::exception& error) {
        notes.emplace_back(error.what());
    }
}

class Group : public testing::Test {
protected:
    LogCapture mLog{4};
    std::array<Gate, 3> gates;
    std::vector<std::string> notes;
    int alive = 0;
};
using AllTest = Group;
using FirstTest = Group;

// ---- All

TEST_F(AllTest, GivesEveryResultWhenAllAreDone) {
    const auto run = [&]() -> Task<> {
        auto [number, nothing, text] =
            co_await All(Give(gates[0], 5), Pass(gates[1]), Give<std::string>(gates[2], "x"));
        static_assert(std::is_same_v<decltype(nothing), std::monostate>);
        notes.push_back(std::to_string(number) + text);
    };
    const Task<> task = run();
    gates[1].Open();
    gates[2].Open();
    EXPECT_FALSE(task.IsDone());
    gates[0].Open();
    EXPECT_THAT(notes, ElementsAre("5x"));
}

TEST_F(AllTest, GoesOnAtOnceWhenAllAreDone) {
    gates[0].Open();
    const auto run = [&]() -> Task<> {
        auto [a, b] = co_await All(Give(gates[0], std::make_unique<int>(1)), Give(gates[0], 2));
        notes.push_back(std::to_string(*a + b));
    };
    const Task<> task = run();
    EXPECT_THAT(notes, ElementsAre("3"));
}

TEST_F(AllTest, WaitsForThoseThatAreNotDoneYet) {
    gates[0].Open();
    const auto run = [&]() -> Task<> {
        auto [a, b] = co_await All(Give(gates[0], 1), Give(gates[1], 2));
        notes.push_back(std::to_string(a + b));
    };
    const Task<> task = run();
    EXPECT_THAT(notes, IsEmpty());
    gates[1].Open();
    EXPECT_THAT(notes, ElementsAre("3"));
}

TEST_F(AllTest, TakesAList) {
    const auto run = [&]() -> Task<> {
        std::vector<Task<int>> tasks;
        for (int i = 0; i < 3; ++i) {
            tasks.push_back(Give(gates[static_cast<std::size_t>(i)], i));
        }
        for (const int result : co_await All(std::move(tasks))) {
            notes.push_back(std::to_string(result));
        }
        std::vector<Task<>> none;
        co_await All(std::move(none));
        std::vector<Task<>> passing;
        passing.push_back(Pass(gates[0]));
        co_await All(std::move(passing));
        notes.emplace_back("end");
    };
    const Task<> task = run();
    for (const std::size_t i : {2U, 0U, 1U}) {
        gates[i].Open();
    }
    EXPECT_THAT(notes, ElementsAre("0", "1", "2", "end"));
}

TEST_F(AllTest, AnExceptionEndsTheOthers) {
    const auto run = [&]() -> Task<> {
        co_await All(Hold(gates[0], Witness(alive)), Throw(gates[1], "early"));
    };
    const Task<> task = Note(run(), notes);
    EXPECT_EQ(alive, 1);
    gates[1].Open();
    EXPECT_THAT(notes, ElementsAre("early"));
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(gates[0].IsAwaited());
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(AllTest, AnExceptionBeforeTheAwaitIsRethrownAndAnotherLogged) {
    gates[1].Open();
    const auto run = [&]() -> Task<> {
        co_await All(Hold(gates[0], Witness(alive)), Throw(gates[1], "first"), Throw(gates[1], "second"));
    };
    const Task<> task = Note(run(), notes);
    EXPECT_THAT(notes, ElementsAre("first"));
    EXPECT_EQ(alive, 0);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(tern::test::Error(
                    "Typed", "A task threw std::runtime_error, and who awaited it did not look: second")));
}

TEST_F(AllTest, RefusesAnEmptyTask) {
    const auto run = [&]() -> Task<> { co_await All(Hold(gates[0], Witness(alive)), Task<int>()); };
    const Task<> task = Note(run(), notes);
    EXPECT_THAT(notes, ElementsAre("an empty Task is awaited"));
    EXPECT_EQ(alive, 0);
}

TEST_F(AllTest, EndsWithWhoAwaitsIt) {
    const auto run = [&]() -> Task<> {
        co_await All(Hold(gates[0], Witness(alive)), Hold(gates[1], Witness(alive)));
    };
    {
        const Task<> task = run();
        gates[0].Open();
        EXPECT_EQ(alive, 2);
    }
    EXPECT_EQ(alive, 0);
}

TEST_F(AllTest, OneOfThemMayDestroyWhoAwaitsThem) {
    Task<> outer;
    const auto inner = [&](Witness) -> Task<> {
        co_await gates[0];
        outer = {};
        notes.push_back(std::to_string(alive));
        co_await gates[1];
        notes.emplace_back("never");
    };
    const auto run = [&](Witness) -> Task<> {
        co_await All(inner(Witness(alive)), Hold(gates[2], Witness(alive)));
    };
    outer = run(Witness(alive));
    gates[0].Open();
    EXPECT_THAT(notes, ElementsAre("3"));
    EXPECT_EQ(alive, 0);
}

// ---- First

TEST_F(FirstTest, GivesTheResultOfTheOneThatIsDoneFirst) {
    const auto run = [&]() -> Task<> {
        auto done =
            co_await First(Hold(gates[0], Witness(alive)), Give<std::string>(gates[1], "x"), Pass(gates[2]));
        static_assert(std::is_same_v<decltype(done), std::variant<int, std::string, std::monostate>>);
        notes.push_back(std::to_string(done.index()) + std::get<1>(done) + std::to_string(alive));
    };
    const Task<> task = run();
    gates[1].Open();
    EXPECT_THAT(notes, ElementsAre("1x0"));
    EXPECT_FALSE(gates[0].IsAwaited());
    EXPECT_FALSE(gates[2].IsAwaited());
}

TEST_F(FirstTest, OfSeveralThatAreDoneTheFirstOfTheListCounts) {
    gates[1].Open();
    const auto run = [&]() -> Task<> {
        auto done = co_await First(Give(gates[0], 1), Give(gates[1], 2), Give(gates[1], 3));
        notes.push_back(std::to_string(done.index()) + std::to_string(std::get<1>(done)));
    };
    const Task<> task = run();
    EXPECT_THAT(notes, ElementsAre("12"));
}

TEST_F(FirstTest, TakesAList) {
    const auto run = [&]() -> Task<> {
        std::vector<Task<int>> numbers;
        numbers.push_back(Give(gates[0], 10));
        numbers.push_back(Give(gates[1], 11));
        EXPECT_THAT(co_await First(std::move(numbers)), Pair(1U, 11));
        std::vector<Task<>> passing;
        passing.push_back(Pass(gates[0]));
        passing.push_back(Pass(gates[2]));
        EXPECT_EQ(co_await First(std::move(passing)), 1U);
        co_await First(std::vector<Task<>>());
    };
    const Task<> task = Note(run(), notes);
    gates[1].Open();
    gates[2].Open();
    EXPECT_THAT(notes, ElementsAre("the first of no tasks is awaited"));
}

TEST_F(FirstTest, AnExceptionOfTheFirstIsRethrown) {
    const auto run = [&]() -> Task<> {
        co_await First(Hold(gates[0], Witness(alive)), Throw(gates[1], "first"));
    };
    const Task<> task = Note(run(), notes);
    gates[1].Open();
    EXPECT_THAT(notes, ElementsAre("first"));
    EXPECT_EQ(alive, 0);
}

TEST_F(FirstTest, AnExceptionOfALoserIsLogged) {
    gates[0].Open();
    const auto run = [&]() -> Task<> { co_await First(Give(gates[0], 1), Throw(gates[0], "lost")); };
    const Task<> task = Note(run(), notes);
    EXPECT_THAT(notes, ElementsAre("done"));
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(tern::test::Error(
                    "Typed", "A task threw std::runtime_error, and who awaited it did not look: lost")));
}

TEST_F(FirstTest, OnlyOneOfTwoThatAreDoneTogetherIsHeard) {
    // Both are done while the first is being told.
    const auto both = [&]() -> Task<> {
        co_await Pass(gates[0]);
        gates[1].Open();
        gates[2].Open();
    };
    const auto run = [&]() -> Task<> {
        auto done = co_await First(Pass(gates[1]), Pass(gates[2]));
        notes.push_back(std::to_string(done.index()));
    };
    const Task<> task = run();
    const Task<> opener = both();
    gates[0].Open();
    EXPECT_THAT(notes, ElementsAre("0"));
}

/// Opens a gate where it ends.
struct Opening {
    explicit Opening(Gate& given) : gate(given) {}
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;
    ~Opening() { gate.Open(); }

    Gate& gate;
};
Task<> PassAndOpen(Gate& gate, Gate& other) {
    const Opening opening(other);
    co_await gate;
}
Task<> PassOpenAndThrow(Gate& gate, Gate& other) {
    const Opening opening(other);
    co_await gate;
    throw std::runtime_error("too late");
}

TEST_F(FirstTest, OneMayBringAnotherToItsEndWhileAllAreDestroyed) {
    const auto run = [&](Witness) -> Task<> {
        co_await First(PassAndOpen(gates[0], gates[1]), PassAndOpen(gates[1], gates[0]));
        notes.emplace_back("never");
    };
    Task<> task = run(Witness(alive));
    task = {};
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_EQ(alive, 0);
}

TEST_F(AllTest, OneMayMakeAnotherThrowWhileAllAreDestroyed) {
    const auto run = [&](Witness) -> Task<> {
        std::vector<Task<>> tasks;
        tasks.push_back(PassOpenAndThrow(gates[0], gates[1]));
        tasks.push_back(PassOpenAndThrow(gates[1], gates[0]));
        co_await All(std::move(tasks));
        notes.emplace_back("never");
    };
    Task<> task = run(Witness(alive));
    task = {};
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_EQ(alive, 0);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(tern::test::Error(
                    "Typed", "A task threw std::runtime_error, and who awaited it did not look: too late")));
}

TEST_F(FirstTest, WhoIsDestroyedByOneOfThemDoesNotGoOnWhenAnotherIsDone) {
    for (const bool isAwaited : {false, true}) {
        Gate start;
        Gate other;
        Gate never;
        Task<> outermost;
        notes.clear();
        const auto inner = [&](Witness) -> Task<> {
            co_await start;
            outermost = {};
            other.Open();
            notes.push_back(std::to_string(alive));
            co_await never;
            notes.emplace_back("never");
        };
        const auto outer = [&](Witness) -> Task<> {
            co_await First(inner(Witness(alive)), Pass(other));
            notes.emplace_back("goes on");
        };
        const auto outest = [&](Witness) -> Task<> {
            co_await outer(Witness(alive));
            notes.emplace_back("goes on, too");
        };
        outermost = isAwaited ? outest(Witness(alive)) : outer(Witness(alive));
        start.Open();
        EXPECT_THAT(notes, ElementsAre(isAwaited ? "3" : "2"));
        EXPECT_EQ(alive, 0);
        EXPECT_FALSE(never.IsAwaited());
    }
}

TEST(FirstOnABus, LimitsATaskByTimeAndTakesWhateverIsAwaited) {
    const tern::test::PrivateBus daemon;
    TaskBus served;
    Bus& bus = *served.bus;
    Gate gate;
    int alive = 0;
    std::vector<std::string> notes;
    const auto run = [&]() -> Task<> {
        auto done = co_await First(Hold(gate, Witness(alive)), Sleep(bus, 5ms));
        notes.push_back(std::to_string(done.index()) + std::to_string(alive));
        auto [a, b] = co_await All(Sleep(bus, 1ms), Sleep(bus, 2ms));
        notes.emplace_back(a == StatusCode::Ok && b == StatusCode::Ok ? "both" : "not both");
    };
    const Task<> task = run();
    ASSERT_TRUE(served.RunUntil([&] { return task.IsDone(); }));
    EXPECT_THAT(notes, ElementsAre("10", "both"));
}

TEST(FirstOnABus, EndsWithTheBus) {
    const tern::test::PrivateBus daemon;
    TaskBus served;
    Bus& bus = *served.bus;
    std::vector<std::string> notes;
    const auto run = [&]() -> Task<> {
        auto done = co_await First(Sleep(bus, 1h), Sleep(bus, 2h));
        notes.push_back(std::to_string(done.index()));
        auto [a, b] = co_await All(Sleep(bus, 1h), Sleep(bus, 2h));
        notes.emplace_back(a == StatusCode::Stopping && b == StatusCode::Stopping ? "both" : "not both");
    };
    const Task<> task = run();
    EXPECT_EQ(served.End(), 0);
    EXPECT_THAT(notes, ElementsAre("0", "both"));
}

}  // namespace
}  // namespace mwl::Typed

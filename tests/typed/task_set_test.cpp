#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/task.h>
#include <tern/typed/task_set.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "typed/task_bus.h"

namespace mwl::Typed {
namespace {

using tern::test::Critical;
using tern::test::Gate;
using tern::test::LogCapture;
using tern::test::TaskBus;
using tern::test::Witness;
using testing::ElementsAre;
using testing::IsEmpty;

Task<> Hold(Gate& gate, Witness) {
    co_await gate;
}
Task<int> Give(Gate& gate) {
    co_await gate;
    co_return 5;
}

TEST(TaskSet, KeepsATaskUntilItIsDone) {
    Gate gate;
    int alive = 0;
    TaskSet tasks;
    EXPECT_TRUE(tasks.IsEmpty());
    tasks.Add(Hold(gate, Witness(alive)));
    EXPECT_EQ(tasks.GetSize(), 1U);
    EXPECT_EQ(alive, 1);
    gate.Open();
    EXPECT_TRUE(tasks.IsEmpty());
    EXPECT_EQ(alive, 0);
}

TEST(TaskSet, OnesThatAreDoneOrEmptyAreNotKept) {
    Gate gate;
    int alive = 0;
    gate.Open();
    TaskSet tasks;
    tasks.Add(Hold(gate, Witness(alive)));
    tasks.Add(Give(gate));
    tasks.Add(Task<>());
    EXPECT_TRUE(tasks.IsEmpty());
    EXPECT_EQ(alive, 0);
}

TEST(TaskSet, TasksLeaveInAnyOrder) {
    std::array<Gate, 4> gates;
    int alive = 0;
    TaskSet tasks;
    for (Gate& gate : gates) {
        tasks.Add(Hold(gate, Witness(alive)));
    }
    for (const std::size_t i : {1U, 3U, 0U, 2U}) {
        gates[i].Open();
    }
    EXPECT_TRUE(tasks.IsEmpty());
    EXPECT_EQ(alive, 0);
}

TEST(TaskSet, EndsWhatIsLeftInTheOrderOfAdding) {
    struct Noting {
        std::vector<int>& notes;
        int number;
        ~Noting() { notes.push_back(number); }
    };
    Gate first;
    Gate second;
    std::vector<int> notes;
    const auto run = [](Gate& gate, std::vector<int>& to, int number) -> Task<> {
        const Noting noting{to, number};
        co_await gate;
    };
    {
        TaskSet tasks;
        tasks.Add(run(first, notes, 1));
        tasks.Add(run(second, notes, 2));
    }
    EXPECT_THAT(notes, ElementsAre(1, 2));
    EXPECT_FALSE(first.IsAwaited());
}

TEST(TaskSet, ClearLeavesWhatIsAddedMeanwhileAndTheDestructorDoesNot) {
    Gate gate;
    Gate other;
    int alive = 0;
    {
        TaskSet tasks;
        struct Adding {
            TaskSet& tasks;
            Gate& gate;
            int& alive;
            ~Adding() { tasks.Add(Hold(gate, Witness(alive))); }
        };
        const auto run = [&]() -> Task<> {
            const Adding adding{tasks, other, alive};
            co_await gate;
        };
        tasks.Add(run());
        tasks.Clear();
        EXPECT_EQ(tasks.GetSize(), 1U);
        EXPECT_EQ(alive, 1);
        tasks.Clear();
        tasks.Add(run());
    }
    EXPECT_EQ(alive, 0);
}

TEST(TaskSet, MayBeClearedAndDestroyedByItsOwnTasks) {
    for (const bool destroys : {false, true}) {
        Gate gate;
        Gate never;
        Gate idle;
        int alive = 0;
        std::optional<TaskSet> tasks(std::in_place);
        std::vector<int> seen;
        const auto run = [&](Witness) -> Task<> {
            co_await gate;
            if (destroys) {
                tasks.reset();
            } else {
                tasks->Clear();
            }
            seen.push_back(alive);
            co_await never;
            ADD_FAILURE() << "goes on";
        };
        tasks->Add(Hold(idle, Witness(alive)));
        tasks->Add(run(Witness(alive)));
        gate.Open();
        EXPECT_THAT(seen, ElementsAre(1));
        EXPECT_EQ(alive, 0);
    }
}

TEST(TaskSet, ItsOwnerMayBeHeldByTheTaskThatClearEnds) {
    struct Owner {
        explicit Owner(int& count) : witness(count) {}
        Witness witness;
        TaskSet tasks;
    };
    for (const bool isFirst : {true, false}) {
        Gate gate;
        int owners = 0;
        int others = 0;
        auto owner = std::make_shared<Owner>(owners);
        Owner& cleared = *owner;
        const auto keep = [](std::shared_ptr<Owner>, Gate& never) -> Task<> { co_await never; };
        Gate idle;
        if (!isFirst) {
            cleared.tasks.Add(Hold(idle, Witness(others)));
        }
        cleared.tasks.Add(keep(std::move(owner), gate));
        Gate last;
        if (isFirst) {
            cleared.tasks.Add(Hold(last, Witness(others)));
        }
        EXPECT_EQ(owners, 1);
        EXPECT_EQ(others, 1);
        cleared.tasks.Clear();
        EXPECT_EQ(owners, 0);
        EXPECT_EQ(others, 0);
    }
}

class TaskSetException : public testing::Test {
protected:
    tern::test::PrivateBus mDaemon;
    LogCapture mLog{4};
    TaskBus mServed;
    Gate mGate;
    TaskSet mTasks;
};

TEST_F(TaskSetException, EndsTheLoop) {
    const auto run = [&]() -> Task<> {
        co_await mGate;
        throw std::runtime_error("in a set");
    };
    mTasks.Add(run());
    mGate.Open();
    EXPECT_TRUE(mTasks.IsEmpty());
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: in a set")));
    EXPECT_EQ(mServed.loop->Run(), -ENOTRECOVERABLE);
}

TEST_F(TaskSetException, EndsTheLoopAlsoWhenThrownBeforeTheFirstWait) {
    const auto run = []() -> Task<> {
        throw std::runtime_error("at once");
        co_return;
    };
    mTasks.Add(run());
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Critical("Typed", "A task threw std::runtime_error: at once")));
    EXPECT_EQ(mServed.GetExitCode(), -ENOTRECOVERABLE);
}

}  // namespace
}  // namespace mwl::Typed

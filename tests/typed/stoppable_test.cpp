#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "typed/stoppables.h"

namespace tern::test {
namespace {

using mwl::Typed::Stoppable;
using mwl::Typed::Stoppables;

class Waiting final : public Stoppable {
public:
    explicit Waiting(std::function<void()> onStop) : mOnStop(std::move(onStop)) {}

private:
    void OnStop() noexcept override { mOnStop(); }

    const std::function<void()> mOnStop;
};

TEST(Stoppables, TellsInTheOrderOfJoiningWhoHasNotLeft) {
    Stoppables list;
    std::vector<int> told;
    std::vector<std::unique_ptr<Waiting>> waiting;
    for (int i = 0; i < 6; ++i) {
        waiting.push_back(std::make_unique<Waiting>([&told, i] { told.push_back(i); }));
        EXPECT_TRUE(list.Add(*waiting.back()));
    }
    waiting[0]->Leave();
    waiting[2].reset();
    waiting[5].reset();

    list.StopAll();

    EXPECT_EQ(told, (std::vector{1, 3, 4}));
    EXPECT_FALSE(waiting[3]->IsWaiting());
}

TEST(Stoppables, OneThatIsToldMayEndItselfAndOthers) {
    Stoppables list;
    int told = 0;
    std::vector<std::unique_ptr<Waiting>> waiting(3);
    waiting[0] = std::make_unique<Waiting>([&] {
        ++told;
        waiting[1].reset();
        waiting[0].reset();
    });
    waiting[1] = std::make_unique<Waiting>([&] { told += 10; });
    waiting[2] = std::make_unique<Waiting>([&] { ++told; });
    for (const auto& one : waiting) {
        list.Add(*one);
    }

    list.StopAll();

    EXPECT_EQ(told, 2);
}

TEST(Stoppables, RefusesWhatWouldWaitOnceStopped) {
    Stoppables list;
    int told = 0;
    Waiting late([&] { told += 10; });
    bool isAccepted = true;
    Waiting first([&] {
        ++told;
        isAccepted = list.Add(late);
    });
    list.Add(first);

    list.StopAll();

    EXPECT_FALSE(isAccepted);
    EXPECT_FALSE(late.IsWaiting());
    EXPECT_EQ(told, 1);
}

TEST(Stoppables, TellsThoseOfOneTimeAndLeavesWhoJoinsMeanwhile) {
    Stoppables list;
    std::vector<int> told;
    Waiting late([&] { told.push_back(3); });
    Waiting second([&] { told.push_back(2); });
    Waiting first([&] {
        told.push_back(1);
        list.Add(late);
    });
    list.Add(first);
    list.Add(second);
    EXPECT_FALSE(list.IsEmpty());

    list.TellAll();
    EXPECT_EQ(told, (std::vector{1, 2}));
    EXPECT_TRUE(late.IsWaiting());

    list.TellAll();
    EXPECT_EQ(told, (std::vector{1, 2, 3}));
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_TRUE(list.Add(first)) << "it is not stopped";
}

TEST(Stoppables, OneOutlivesTheList) {
    Waiting waiting([] { FAIL() << "told by a list that has gone"; });
    {
        Stoppables list;
        list.Add(waiting);
    }
    EXPECT_FALSE(waiting.IsWaiting());
}

}  // namespace
}  // namespace tern::test

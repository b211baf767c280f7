#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/foundation/lifecycle_interface.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/log_capture.h"

using mwl::LifecycleInterface;
using mwl::LifecycleStep;
using mwl::StatusCode;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr LifecycleStep NONE{0};
constexpr int NOT_EXECUTED = 0;
constexpr int SUCCEEDED = 1;
constexpr int FAILED = 2;

class Machine : public LifecycleInterface {
public:
    /// Calls of the work operations, in order.
    std::vector<LifecycleStep> calls;
    /// What the next calls answer; Ok when nothing is said.
    std::map<LifecycleStep, StatusCode> answers;
    std::function<void()> during;

    std::vector<int> Statuses() const {
        return {GetStepStatus(LifecycleStep::Configure), GetStepStatus(LifecycleStep::Initialize),
                GetStepStatus(LifecycleStep::Start), GetStepStatus(LifecycleStep::Stop)};
    }

    void RunTo(LifecycleStep last) {
        const std::pair<LifecycleStep, void (LifecycleInterface::*)()> steps[] = {
            {LifecycleStep::Configure, &LifecycleInterface::Configure},
            {LifecycleStep::Initialize, &LifecycleInterface::Initialize},
            {LifecycleStep::Start, &LifecycleInterface::Start},
            {LifecycleStep::Stop, &LifecycleInterface::Stop}};
        for (const auto& [step, run] : steps) {
            if (step <= last) {
                (this->*run)();
            }
        }
    }

protected:
    StatusCode OnConfigure() override { return Answer(LifecycleStep::Configure); }
    StatusCode OnInitialize() override { return Answer(LifecycleStep::Initialize); }
    StatusCode OnStart() override { return Answer(LifecycleStep::Start); }
    StatusCode OnStop() override { return Answer(LifecycleStep::Stop); }

private:
    StatusCode Answer(LifecycleStep step) {
        calls.push_back(step);
        if (during) {
            during();
        }
        return answers.count(step) == 0 ? StatusCode::Ok : answers[step];
    }
};

}  // namespace

TEST(LifecycleInterface, StepsAreNumberedFromOne) {
    EXPECT_EQ(static_cast<int>(LifecycleStep::Configure), 1);
    EXPECT_EQ(static_cast<int>(LifecycleStep::Initialize), 2);
    EXPECT_EQ(static_cast<int>(LifecycleStep::Start), 3);
    EXPECT_EQ(static_cast<int>(LifecycleStep::Stop), 4);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<LifecycleStep>, int>));
}

TEST(LifecycleInterface, IsAbstractWithAVirtualDestructor) {
    EXPECT_TRUE(std::is_abstract_v<LifecycleInterface>);
    EXPECT_TRUE(std::has_virtual_destructor_v<LifecycleInterface>);
}

TEST(LifecycleInterface, NothingHasRunAtFirst) {
    const Machine machine;
    EXPECT_THAT(machine.Statuses(), ElementsAre(NOT_EXECUTED, NOT_EXECUTED, NOT_EXECUTED, NOT_EXECUTED));
    EXPECT_FALSE(machine.HasError());
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), NONE);
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(NONE, NOT_EXECUTED));
}

TEST(LifecycleInterface, StatusOfAValueThatIsNoStepIsZero) {
    Machine machine;
    machine.RunTo(LifecycleStep::Stop);
    for (const int value : {-1, 0, 5}) {
        EXPECT_EQ(machine.GetStepStatus(static_cast<LifecycleStep>(value)), NOT_EXECUTED) << value;
    }
}

TEST(LifecycleInterface, StepsRunInOrderAndAreRecorded) {
    Machine machine;
    const std::pair<void (LifecycleInterface::*)(), LifecycleStep> steps[] = {
        {&LifecycleInterface::Configure, LifecycleStep::Configure},
        {&LifecycleInterface::Initialize, LifecycleStep::Initialize},
        {&LifecycleInterface::Start, LifecycleStep::Start},
        {&LifecycleInterface::Stop, LifecycleStep::Stop}};
    std::vector<LifecycleStep> expected;
    for (const auto& [run, step] : steps) {
        (machine.*run)();
        expected.push_back(step);
        EXPECT_EQ(machine.calls, expected);
        EXPECT_EQ(machine.GetStepStatus(step), SUCCEEDED);
        EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), step);
        EXPECT_THAT(machine.GetLastExecutedStep(), Pair(step, SUCCEEDED));
        EXPECT_FALSE(machine.HasError());
    }
}

TEST(LifecycleInterface, LogsNothing) {
    const tern::test::LogCapture log;
    Machine machine;
    machine.answers[LifecycleStep::Start] = StatusCode::Failure;
    machine.Start();
    machine.RunTo(LifecycleStep::Stop);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(LifecycleInterface, StepsOutOfOrderAreRefused) {
    Machine machine;
    machine.Initialize();
    machine.Start();
    machine.Stop();
    EXPECT_THAT(machine.calls, IsEmpty());
    EXPECT_THAT(machine.Statuses(), ElementsAre(NOT_EXECUTED, NOT_EXECUTED, NOT_EXECUTED, NOT_EXECUTED));
    machine.Configure();
    machine.Start();
    EXPECT_THAT(machine.calls, ElementsAre(LifecycleStep::Configure));
}

TEST(LifecycleInterface, SuccessfulStepsAreNotRepeated) {
    Machine machine;
    machine.Configure();
    machine.Configure();
    machine.Initialize();
    machine.Configure();
    machine.Initialize();
    machine.Start();
    machine.Configure();
    machine.Initialize();
    machine.Start();
    EXPECT_THAT(machine.calls,
                ElementsAre(LifecycleStep::Configure, LifecycleStep::Initialize, LifecycleStep::Start));
}

TEST(LifecycleInterface, NothingRunsAfterASuccessfulStop) {
    Machine machine;
    machine.RunTo(LifecycleStep::Stop);
    machine.RunTo(LifecycleStep::Stop);
    EXPECT_EQ(machine.calls.size(), 4U);
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Stop);
}

TEST(LifecycleInterface, FailedConfigureCanBeTriedAgain) {
    Machine machine;
    machine.answers[LifecycleStep::Configure] = StatusCode::InvalidArgument;
    machine.Configure();
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Configure), FAILED);
    EXPECT_TRUE(machine.HasError());
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), NONE);
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(LifecycleStep::Configure, FAILED));
    machine.Initialize();
    EXPECT_THAT(machine.calls, ElementsAre(LifecycleStep::Configure));

    machine.answers.clear();
    machine.Configure();
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Configure), SUCCEEDED);
    EXPECT_FALSE(machine.HasError());
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Configure);
}

TEST(LifecycleInterface, FailedInitializeRefusesStartAllowsStopAndCanBeTriedAgain) {
    Machine machine;
    machine.answers[LifecycleStep::Initialize] = StatusCode::Timeout;
    machine.RunTo(LifecycleStep::Start);
    EXPECT_THAT(machine.Statuses(), ElementsAre(SUCCEEDED, FAILED, NOT_EXECUTED, NOT_EXECUTED));
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(LifecycleStep::Initialize, FAILED));
    machine.Stop();
    EXPECT_THAT(machine.Statuses(), ElementsAre(SUCCEEDED, FAILED, NOT_EXECUTED, SUCCEEDED));
    // A Stop without a Start is behind a step that was not executed.
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(LifecycleStep::Initialize, FAILED));
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Configure);

    machine.answers.clear();
    machine.Initialize();
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Initialize), SUCCEEDED);
    EXPECT_FALSE(machine.HasError());
}

TEST(LifecycleInterface, FailedStartAllowsStop) {
    Machine machine;
    machine.answers[LifecycleStep::Start] = StatusCode::Failure;
    machine.RunTo(LifecycleStep::Start);
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Initialize);
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(LifecycleStep::Start, FAILED));
    machine.Stop();
    EXPECT_THAT(machine.Statuses(), ElementsAre(SUCCEEDED, SUCCEEDED, FAILED, SUCCEEDED));
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(LifecycleStep::Stop, SUCCEEDED));
}

TEST(LifecycleInterface, FailedStartCanBeTriedAgain) {
    Machine machine;
    machine.answers[LifecycleStep::Start] = StatusCode::Failure;
    machine.RunTo(LifecycleStep::Start);
    machine.answers.clear();
    machine.Start();
    EXPECT_THAT(machine.Statuses(), ElementsAre(SUCCEEDED, SUCCEEDED, SUCCEEDED, NOT_EXECUTED));
    machine.Stop();
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Stop);
}

// What has not started has nothing to stop.
TEST(LifecycleInterface, StopIsRefusedBeforeStartWhenNothingFailed) {
    Machine machine;
    machine.Configure();
    machine.Stop();
    machine.Initialize();
    machine.Stop();
    EXPECT_THAT(machine.calls, ElementsAre(LifecycleStep::Configure, LifecycleStep::Initialize));
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Stop), NOT_EXECUTED);
}

TEST(LifecycleInterface, FailedStopCanBeTriedAgain) {
    Machine machine;
    machine.answers[LifecycleStep::Stop] = StatusCode::Busy;
    machine.RunTo(LifecycleStep::Stop);
    EXPECT_THAT(machine.GetLastExecutedStep(), Pair(LifecycleStep::Stop, FAILED));
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Start);
    EXPECT_TRUE(machine.HasError());
    machine.answers.clear();
    machine.Stop();
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Stop), SUCCEEDED);
    machine.Stop();
    EXPECT_EQ(machine.calls.size(), 5U) << "a Stop after the successful one ran";
}

// Fixed by the interface: the failure stays on record, and it is what allows a Stop.
TEST(LifecycleInterface, StopIsRepeatedWhileAFailureIsOnRecord) {
    Machine machine;
    machine.answers[LifecycleStep::Configure] = StatusCode::Failure;
    machine.Configure();
    machine.Stop();
    machine.Stop();
    EXPECT_THAT(machine.calls,
                ElementsAre(LifecycleStep::Configure, LifecycleStep::Stop, LifecycleStep::Stop));
}

// Fixed by the interface: a record is overwritten only by its own step, so the early Stop still counts.
TEST(LifecycleInterface, StopAfterAFailureMakesTheOneAfterTheRepeatRefused) {
    Machine machine;
    machine.answers[LifecycleStep::Configure] = StatusCode::Failure;
    machine.Configure();
    machine.Stop();
    machine.answers.clear();
    machine.RunTo(LifecycleStep::Start);
    EXPECT_EQ(machine.GetLastContinuousSuccessfulStep(), LifecycleStep::Stop);
    machine.Stop();
    EXPECT_THAT(machine.calls,
                ElementsAre(LifecycleStep::Configure, LifecycleStep::Stop, LifecycleStep::Configure,
                            LifecycleStep::Initialize, LifecycleStep::Start));
}

TEST(LifecycleInterface, StepIsRecordedOnlyWhenItsWorkReturns) {
    Machine machine;
    std::vector<int> seen;
    machine.during = [&] { seen.push_back(machine.GetStepStatus(LifecycleStep::Configure)); };
    machine.Configure();
    EXPECT_THAT(seen, ElementsAre(NOT_EXECUTED));
}

TEST(LifecycleInterface, ExceptionOfTheWorkPassesAndLeavesTheRecord) {
    Machine machine;
    machine.during = [] { throw std::runtime_error("no disk"); };
    EXPECT_THROW(machine.Configure(), std::runtime_error);
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Configure), NOT_EXECUTED);
    machine.during = nullptr;
    machine.Configure();
    EXPECT_EQ(machine.GetStepStatus(LifecycleStep::Configure), SUCCEEDED);
}

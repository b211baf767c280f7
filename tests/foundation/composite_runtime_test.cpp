#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/foundation/component_runtime_interface.h>
#include <tern/foundation/composite_runtime.h>

#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/log_capture.h"

using mw::tern::ComponentRuntimeInterface;
using mw::tern::CompositeRuntime;
using mw::tern::StatusCode;
using tern::test::Critical;
using tern::test::Error;
using tern::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string LOGGER = "tern.CompositeRuntime";

using Calls = std::vector<std::string>;

/// Writes "name.Operation" to the shared list, and answers what it was told to.
class Member : public ComponentRuntimeInterface {
public:
    Member(std::string name, Calls& calls) : mName(std::move(name)), mCalls(calls) {}

    StatusCode Initialize() override { return Answer("Initialize"); }
    StatusCode Destroy() override { return Answer("Destroy"); }
    StatusCode Start() override { return Answer("Start"); }
    StatusCode Stop() override { return Answer("Stop"); }

    std::map<std::string, StatusCode> answers;
    std::function<void()> during;

private:
    StatusCode Answer(const std::string& operation) {
        mCalls.push_back(mName + "." + operation);
        if (during) {
            during();
        }
        return answers.count(operation) == 0 ? StatusCode::Ok : answers[operation];
    }

    std::string mName;
    Calls& mCalls;
};

struct CompositeRuntimeTest : testing::Test {
    Calls calls;
    Member a{"a", calls};
    Member b{"b", calls};
    Member c{"c", calls};
};

}  // namespace

TEST(CompositeRuntime, IsAComponent) {
    EXPECT_TRUE((std::is_base_of_v<ComponentRuntimeInterface, CompositeRuntime>));
    EXPECT_TRUE(std::has_virtual_destructor_v<ComponentRuntimeInterface>);
    EXPECT_TRUE(std::is_abstract_v<ComponentRuntimeInterface>);
}

TEST(CompositeRuntime, EmptyGroupSucceedsAtOnce) {
    const LogCapture log;
    CompositeRuntime group({});
    EXPECT_EQ(group.Count(), 0U);
    EXPECT_EQ(group.Initialize(), StatusCode::Ok);
    EXPECT_EQ(group.Start(), StatusCode::Ok);
    EXPECT_EQ(group.Stop(), StatusCode::Ok);
    EXPECT_EQ(group.Destroy(), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(CompositeRuntimeTest, RunsForwardsInOrderAndBackwardsInReverse) {
    const LogCapture log;
    CompositeRuntime group{&a, &b, &c};
    EXPECT_EQ(group.Count(), 3U);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 0U);
    EXPECT_EQ(group.GetSuccessStartCount(), 0U);

    EXPECT_EQ(group.Initialize(), StatusCode::Ok);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 3U);
    EXPECT_EQ(group.GetSuccessStartCount(), 0U);
    EXPECT_EQ(group.Start(), StatusCode::Ok);
    EXPECT_EQ(group.GetSuccessStartCount(), 3U);
    EXPECT_EQ(group.Stop(), StatusCode::Ok);
    EXPECT_EQ(group.GetSuccessStartCount(), 0U);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 3U);
    EXPECT_EQ(group.Destroy(), StatusCode::Ok);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 0U);
    EXPECT_THAT(calls,
                ElementsAre("a.Initialize", "b.Initialize", "c.Initialize", "a.Start", "b.Start", "c.Start",
                            "c.Stop", "b.Stop", "a.Stop", "c.Destroy", "b.Destroy", "a.Destroy"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(CompositeRuntimeTest, RepeatedPassesDoNothing) {
    CompositeRuntime group{&a};
    group.Initialize();
    group.Initialize();
    group.Start();
    group.Start();
    group.Stop();
    group.Stop();
    group.Destroy();
    group.Destroy();
    EXPECT_THAT(calls, ElementsAre("a.Initialize", "a.Start", "a.Stop", "a.Destroy"));
}

TEST_F(CompositeRuntimeTest, FailedInitializeNamesTheMemberAndIsResumedThere) {
    const LogCapture log;
    CompositeRuntime group{&a, &b, &c};
    b.answers["Initialize"] = StatusCode::Timeout;
    EXPECT_EQ(group.Initialize(), StatusCode::Timeout);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 1U);
    EXPECT_THAT(log.Entries(), ElementsAre(Critical(LOGGER, "Object 2 in Initialize group failed  ")));

    b.answers.clear();
    EXPECT_EQ(group.Initialize(), StatusCode::Ok);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 3U);
    EXPECT_THAT(calls, ElementsAre("a.Initialize", "b.Initialize", "b.Initialize", "c.Initialize"));
    EXPECT_EQ(log.Entries().size(), 1U);
}

TEST_F(CompositeRuntimeTest, FailedInitializeLeavesOnlyWhatSucceededToDestroy) {
    CompositeRuntime group{&a, &b, &c};
    b.answers["Initialize"] = StatusCode::Failure;
    group.Initialize();
    calls.clear();
    EXPECT_EQ(group.Destroy(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("a.Destroy"));
}

TEST_F(CompositeRuntimeTest, FailedStartNamesTheMemberAndIsResumedThere) {
    CompositeRuntime group{&a, &b, &c};
    group.Initialize();
    calls.clear();
    const LogCapture log;
    c.answers["Start"] = static_cast<StatusCode>(1234);
    EXPECT_EQ(group.Start(), static_cast<StatusCode>(1234)) << "a member's status passes unchanged";
    EXPECT_EQ(group.GetSuccessStartCount(), 2U);
    EXPECT_THAT(log.Entries(), ElementsAre(Critical(LOGGER, "Object 3 in start group failed  ")));
    c.answers.clear();
    EXPECT_EQ(group.Start(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("a.Start", "b.Start", "c.Start", "c.Start"));
}

// Fixed by the interface: the order of the two is the caller's to keep.
TEST_F(CompositeRuntimeTest, StartDoesNotAskForInitialize) {
    CompositeRuntime group{&a};
    EXPECT_EQ(group.Start(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("a.Start"));
    EXPECT_EQ(group.GetSuccessInitializeCount(), 0U);
}

TEST_F(CompositeRuntimeTest, FailedStopHaltsTheReversePassAndIsTriedAgain) {
    CompositeRuntime group{&a, &b, &c};
    group.Initialize();
    group.Start();
    calls.clear();
    const LogCapture log;
    b.answers["Stop"] = StatusCode::Busy;
    EXPECT_EQ(group.Stop(), StatusCode::Busy);
    EXPECT_EQ(group.GetSuccessStartCount(), 2U);
    EXPECT_THAT(calls, ElementsAre("c.Stop", "b.Stop"));
    b.answers.clear();
    EXPECT_EQ(group.Stop(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("c.Stop", "b.Stop", "b.Stop", "a.Stop"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(CompositeRuntimeTest, FailedDestroyHaltsTheReversePassAndIsTriedAgain) {
    CompositeRuntime group{&a, &b, &c};
    group.Initialize();
    calls.clear();
    const LogCapture log;
    c.answers["Destroy"] = StatusCode::IoError;
    EXPECT_EQ(group.Destroy(), StatusCode::IoError);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 3U);
    c.answers.clear();
    EXPECT_EQ(group.Destroy(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("c.Destroy", "c.Destroy", "b.Destroy", "a.Destroy"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(CompositeRuntimeTest, AddedMemberIsTakenInByTheNextPass) {
    CompositeRuntime group{&a};
    group.Initialize();
    group.Start();
    calls.clear();
    group.Add(&b);
    EXPECT_EQ(group.Count(), 2U);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(group.GetSuccessInitializeCount(), 1U);
    group.Initialize();
    group.Start();
    EXPECT_THAT(calls, ElementsAre("b.Initialize", "b.Start"));
}

TEST_F(CompositeRuntimeTest, MemberMayAddAnother) {
    CompositeRuntime group{&a};
    a.during = [&] {
        a.during = nullptr;
        for (int i = 0; i < 100; ++i) {
            group.Add(&b);
        }
    };
    EXPECT_EQ(group.Initialize(), StatusCode::Ok);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 101U);
    EXPECT_EQ(calls.size(), 101U);
}

// The pass that was interrupted went on counting where it had been: below zero, or past the last member.
TEST_F(CompositeRuntimeTest, MemberMayStopTheGroupThatIsStopping) {
    CompositeRuntime group{&a, &b};
    EXPECT_EQ(group.Start(), StatusCode::Ok);
    calls.clear();
    b.during = [&] {
        b.during = nullptr;
        EXPECT_EQ(group.Stop(), StatusCode::Ok);
    };
    EXPECT_EQ(group.Stop(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("b.Stop", "b.Stop", "a.Stop"));
    EXPECT_EQ(group.GetSuccessStartCount(), 0U);
    EXPECT_EQ(group.Stop(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("b.Stop", "b.Stop", "a.Stop"));
}

TEST_F(CompositeRuntimeTest, MemberMayStartTheGroupThatIsStarting) {
    CompositeRuntime group{&a, &b};
    a.during = [&] {
        a.during = nullptr;
        EXPECT_EQ(group.Start(), StatusCode::Ok);
    };
    EXPECT_EQ(group.Start(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("a.Start", "a.Start", "b.Start"));
    EXPECT_EQ(group.GetSuccessStartCount(), 2U);
    calls.clear();
    EXPECT_EQ(group.Stop(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("b.Stop", "a.Stop"));
}

// The message named the member that came first after the undoing.
TEST_F(CompositeRuntimeTest, MemberThatFailsMayUndoTheGroupBefore) {
    const LogCapture log;
    CompositeRuntime group{&a, &b, &c};
    c.answers["Initialize"] = StatusCode::Failure;
    c.answers["Start"] = StatusCode::Failure;
    c.during = [&] { group.Destroy(); };
    EXPECT_EQ(group.Initialize(), StatusCode::Failure);
    EXPECT_EQ(group.GetSuccessInitializeCount(), 0U);
    c.during = [&] { group.Stop(); };
    EXPECT_EQ(group.Start(), StatusCode::Failure);
    EXPECT_EQ(group.GetSuccessStartCount(), 0U);
    EXPECT_THAT(calls, ElementsAre("a.Initialize", "b.Initialize", "c.Initialize", "b.Destroy", "a.Destroy",
                                   "a.Start", "b.Start", "c.Start", "b.Stop", "a.Stop"));
    EXPECT_THAT(log.Entries(), ElementsAre(Critical(LOGGER, "Object 3 in Initialize group failed  "),
                                           Critical(LOGGER, "Object 3 in start group failed  ")));
}

TEST_F(CompositeRuntimeTest, DestructorStopsAndDestroysWhatSucceeded) {
    {
        CompositeRuntime group{&a, &b, &c};
        group.Initialize();
        b.answers["Start"] = StatusCode::Failure;
        group.Start();
        calls.clear();
    }
    EXPECT_THAT(calls, ElementsAre("a.Stop", "c.Destroy", "b.Destroy", "a.Destroy"));
}

TEST_F(CompositeRuntimeTest, DestructorDestroysAlthoughStoppingFailed) {
    {
        CompositeRuntime group{&a, &b};
        group.Initialize();
        group.Start();
        b.answers["Stop"] = StatusCode::Failure;
        calls.clear();
    }
    EXPECT_THAT(calls, ElementsAre("b.Stop", "b.Destroy", "a.Destroy"));
}

TEST_F(CompositeRuntimeTest, GroupsNest) {
    CompositeRuntime inner{&b, &c};
    const LogCapture log;
    {
        CompositeRuntime outer{&a, &inner};
        c.answers["Initialize"] = StatusCode::NotFound;
        EXPECT_EQ(outer.Initialize(), StatusCode::NotFound);
        EXPECT_EQ(outer.GetSuccessInitializeCount(), 1U);
        EXPECT_EQ(inner.GetSuccessInitializeCount(), 1U);
        c.answers.clear();
        EXPECT_EQ(outer.Initialize(), StatusCode::Ok);
    }
    EXPECT_THAT(calls, ElementsAre("a.Initialize", "b.Initialize", "c.Initialize", "c.Initialize",
                                   "c.Destroy", "b.Destroy", "a.Destroy"));
    EXPECT_THAT(log.Entries(), ElementsAre(Critical(LOGGER, "Object 2 in Initialize group failed  "),
                                           Critical(LOGGER, "Object 2 in Initialize group failed  ")));
}

// It once crashed the first operation, far from where it was added.
TEST_F(CompositeRuntimeTest, NullMemberIsRefused) {
    const LogCapture log;
    CompositeRuntime group{&a, nullptr, &b};
    group.Add(nullptr);
    EXPECT_EQ(group.Count(), 2U);
    const auto refused = Error(LOGGER, "Refused to add a null object to the group");
    EXPECT_THAT(log.Entries(), ElementsAre(refused, refused));
    EXPECT_EQ(group.Initialize(), StatusCode::Ok);
    EXPECT_EQ(group.Destroy(), StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("a.Initialize", "b.Initialize", "b.Destroy", "a.Destroy"));
}

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/synchronizer/notification_interface.h>
#include <tern/synchronizer/observer_interface.h>
#include <tern/synchronizer/subject.h>
#include <tern/synchronizer/subject_interface.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/allocations.h"
#include "support/log_capture.h"

using mwl::tern::Synchronizer::NotificationIdentifier;
using mwl::tern::Synchronizer::NotificationInterface;
using mwl::tern::Synchronizer::ObserverInterface;
using mwl::tern::Synchronizer::Subject;
using mwl::tern::Synchronizer::SubjectInterface;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr NotificationIdentifier ONE{1};
constexpr NotificationIdentifier TWO{2};
constexpr NotificationIdentifier THREE{3};

/// Writes its name to the shared list when notified, then does what it was told to.
class Recorder : public ObserverInterface {
public:
    Recorder(std::string name, std::vector<std::string>& calls) : mName(std::move(name)), mCalls(calls) {}

    void OnNotify(NotificationInterface* notification) override {
        last = notification;
        mCalls.push_back(mName);
        if (mCalls.size() > 1000) {
            throw std::runtime_error("the walk does not end");
        }
        if (action) {
            action();
        }
    }

    NotificationInterface* last = nullptr;
    std::function<void()> action;

private:
    std::string mName;
    std::vector<std::string>& mCalls;
};

class SubjectTest : public testing::Test {
protected:
    /// The names of the observers called by one Notify.
    std::vector<std::string> CalledBy(NotificationInterface& notification) {
        calls.clear();
        subject.Notify(notification);
        return calls;
    }

    void AttachAll() {
        subject.Attach(a, one);
        subject.Attach(b, one);
        subject.Attach(c, one);
    }

    /// Whether the call finds no memory. Takes none itself.
    template <typename Call>
    static bool Refuses(Call call) {
        try {
            call();
        } catch (const std::bad_alloc&) {
            return true;
        }
        return false;
    }

    void Reattach(Recorder& observer) {
        subject.Detach(observer, one);
        subject.Attach(observer, one);
    }

    std::vector<std::string> calls;
    Recorder a{"a", calls};
    Recorder b{"b", calls};
    Recorder c{"c", calls};
    NotificationInterface one{ONE};
    NotificationInterface two{TWO};
    NotificationInterface three{THREE};
    Subject subject;
};

}  // namespace

TEST(NotificationInterface, CarriesItsIdentifier) {
    EXPECT_EQ(NotificationInterface(ONE).GetIdentifier(), ONE);
    EXPECT_EQ(NotificationInterface(NotificationIdentifier{-7}).GetIdentifier(), NotificationIdentifier{-7});
    EXPECT_TRUE(std::has_virtual_destructor_v<NotificationInterface>);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<NotificationIdentifier>, std::int32_t>));
}

TEST_F(SubjectTest, IsASubjectInterface) {
    EXPECT_TRUE((std::is_base_of_v<SubjectInterface, Subject>));
    EXPECT_TRUE(std::has_virtual_destructor_v<SubjectInterface>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ObserverInterface>);
}

TEST_F(SubjectTest, NotifiesNobodyAtFirst) {
    const tern::test::LogCapture log;
    EXPECT_THAT(CalledBy(one), IsEmpty());
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(SubjectTest, NotifiesOnlyTheRegistrationsOfTheIdentifier) {
    subject.Attach(a, one);
    subject.Attach(a, two);
    subject.Attach(b, three);
    EXPECT_THAT(CalledBy(two), ElementsAre("a"));
    EXPECT_EQ(a.last, &two);
    EXPECT_THAT(CalledBy(three), ElementsAre("b"));
}

TEST_F(SubjectTest, GoesByTheIdentifierAndNotByTheNotificationObject) {
    {
        NotificationInterface temporary(ONE);
        subject.Attach(a, temporary);
    }
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
    EXPECT_EQ(a.last, &one);
}

TEST_F(SubjectTest, NotifiesInTheOrderOfRegistration) {
    subject.Attach(b, one);
    subject.Attach(a, one);
    subject.Attach(c, one);
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "a", "c"));
}

TEST_F(SubjectTest, AttachingTwiceLeavesOneRegistration) {
    subject.Attach(a, one);
    subject.Attach(a, one);
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
    subject.Detach(a, one);
    EXPECT_THAT(CalledBy(one), IsEmpty());
}

TEST_F(SubjectTest, ExistTellsTheExactPair) {
    subject.Attach(a, one);
    subject.Attach(b, two);
    EXPECT_TRUE(subject.Exist({ONE, &a}));
    EXPECT_TRUE(subject.Exist({TWO, &b}));
    EXPECT_FALSE(subject.Exist({TWO, &a}));
    EXPECT_FALSE(subject.Exist({ONE, &b}));
    EXPECT_FALSE(subject.Exist({ONE, nullptr}));
}

TEST_F(SubjectTest, DetachOfANotificationRemovesThatPairOnly) {
    AttachAll();
    subject.Attach(b, two);
    subject.Detach(b, one);
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "c"));
    EXPECT_THAT(CalledBy(two), ElementsAre("b"));
}

TEST_F(SubjectTest, DetachOfAnObserverRemovesAllItsPairsAndKeepsTheOrderOfTheRest) {
    for (NotificationInterface* const notification : {&one, &two, &three}) {
        subject.Attach(a, *notification);
        subject.Attach(b, *notification);
        subject.Attach(c, *notification);
    }
    subject.Detach(b);
    for (NotificationInterface* const notification : {&one, &two, &three}) {
        EXPECT_THAT(CalledBy(*notification), ElementsAre("a", "c"));
        EXPECT_FALSE(subject.Exist({notification->GetIdentifier(), &b}));
    }
}

TEST_F(SubjectTest, DetachOfWhatIsNotRegisteredDoesNothing) {
    subject.Detach(a, one);
    subject.Detach(a);
    subject.Attach(a, one);
    subject.Detach(b, one);
    subject.Detach(a, two);
    subject.Detach(b);
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
}

TEST_F(SubjectTest, ReattachedObserverComesLast) {
    AttachAll();
    subject.Detach(a, one);
    subject.Attach(a, one);
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "c", "a"));
}

TEST_F(SubjectTest, ObserverThatDetachesItselfSkipsNobody) {
    AttachAll();
    a.action = [&] { subject.Detach(a, one); };
    b.action = [&] { subject.Detach(b); };
    c.action = a.action;
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c"));
    EXPECT_THAT(CalledBy(one), ElementsAre("c"));
}

TEST_F(SubjectTest, ObserverDetachedByAnotherIsNotCalledAnyMore) {
    AttachAll();
    a.action = [&] { subject.Detach(b); };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "c"));
}

TEST_F(SubjectTest, DetachingAnEarlierObserverSkipsNobody) {
    AttachAll();
    b.action = [&] { subject.Detach(a); };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c"));
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "c"));
}

TEST_F(SubjectTest, DetachingEverybodyEndsTheWalk) {
    AttachAll();
    a.action = [&] {
        subject.Detach(a);
        subject.Detach(c);
        subject.Detach(b);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
}

TEST_F(SubjectTest, ObserversAttachedMeanwhileAreNotifiedToo) {
    std::vector<std::unique_ptr<Recorder>> more;
    subject.Attach(a, one);
    a.action = [&] {
        a.action = nullptr;
        for (int i = 0; i < 100; ++i) {  // enough for the list to move
            more.push_back(std::make_unique<Recorder>("more", calls));
            subject.Attach(*more.back(), one);
            subject.Attach(*more.back(), two);
        }
    };
    EXPECT_EQ(CalledBy(one).size(), 101U);
}

TEST_F(SubjectTest, ObserverMayDestroyItselfWhenNotified) {
    auto mortal = std::make_unique<Recorder>("mortal", calls);
    subject.Attach(*mortal, one);
    subject.Attach(a, one);
    mortal->action = [&] {
        subject.Detach(*mortal);
        // The action is destroyed with its observer: nothing of it is used after this.
        const auto last = std::move(mortal->action);
        mortal.reset();
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("mortal", "a"));
}

TEST_F(SubjectTest, WalkInsideAWalkAndDetachingInTheInnerOneSkipsNobodyInTheOuterOne) {
    AttachAll();
    b.action = [&] {
        b.action = [&] { subject.Detach(a); };
        subject.Notify(one);
        b.action = nullptr;
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "a", "b", "c", "c"));
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "c"));
}

// Once the walk reached the new registration, called the observer again, which registered itself anew, and so
// on without end.
TEST_F(SubjectTest, ObserverThatReattachesItselfIsCalledOnceAWalk) {
    subject.Attach(a, one);
    a.action = [&] { Reattach(a); };
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
    a.action = [&] {
        subject.Detach(a);
        subject.Attach(a, two);
        subject.Attach(a, one);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a"));
    EXPECT_THAT(CalledBy(two), ElementsAre("a"));
}

TEST_F(SubjectTest, ObserverThatReattachesItselfSkipsNobody) {
    AttachAll();
    a.action = [&] { Reattach(a); };
    b.action = [&] { Reattach(b); };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c"));
    EXPECT_THAT(CalledBy(one), ElementsAre("c", "a", "b"));
    EXPECT_THAT(CalledBy(one), ElementsAre("c", "a", "b"));
}

TEST_F(SubjectTest, ObserversThatReattachEachOtherAreCalledOnceAWalk) {
    subject.Attach(a, one);
    subject.Attach(b, one);
    a.action = [&] { Reattach(b); };
    b.action = [&] { Reattach(a); };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b"));
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "a"));
}

TEST_F(SubjectTest, ObserverReattachedBeforeItWasCalledIsCalled) {
    AttachAll();
    a.action = [&] { Reattach(b); };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "c", "b"));
}

TEST_F(SubjectTest, ReattachingInAWalkInsideAWalkCallsEachOnceAWalk) {
    AttachAll();
    b.action = [&] {
        b.action = [&] {
            Reattach(a);
            Reattach(b);
        };
        subject.Notify(one);
        b.action = nullptr;
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "a", "b", "c", "c"));
    EXPECT_THAT(CalledBy(one), ElementsAre("c", "a", "b"));
}

TEST_F(SubjectTest, ReattachedObserverIsCalledByAWalkThatBeginsAfterwards) {
    subject.Attach(a, one);
    subject.Attach(b, one);
    a.action = [&] {
        a.action = nullptr;
        Reattach(a);
        subject.Notify(one);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "a", "b"));
}

TEST_F(SubjectTest, ReattachedObserverThatOnlyAnInnerWalkHasCalledIsCalledByTheOuterOne) {
    AttachAll();
    a.action = [&] {
        a.action = nullptr;
        c.action = [&] {
            c.action = nullptr;
            Reattach(c);
            Reattach(a);
        };
        subject.Notify(one);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "a", "b", "c", "b", "c"));
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "c", "a"));
}

TEST_F(SubjectTest, ObserverThatGoesOnReattachingTakesNoMoreMemoryForIt) {
    AttachAll();
    b.action = [&] {
        for (int i = 0; i < 10; ++i) {
            Reattach(b);
        }
        const tern::test::AllocationCount allocations;
        for (int i = 0; i < 1000; ++i) {
            Reattach(b);
        }
        EXPECT_EQ(allocations.Get(), 0U);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c"));
}

TEST_F(SubjectTest, NotifyTakesNoMemory) {
    AttachAll();
    CalledBy(one);  // the names' place
    calls.clear();
    const tern::test::AllocationCount allocations;
    subject.Notify(one);
    EXPECT_EQ(allocations.Get(), 0U);
}

// Fixed by the interface: only the address tells observers apart.
TEST_F(SubjectTest, ObserverMadeWhereACalledOneWasIsCalledFromTheNextWalkOn) {
    std::optional<Recorder> place(std::in_place, "first", calls);
    subject.Attach(*place, one);
    subject.Attach(a, one);
    a.action = [&] {
        a.action = nullptr;
        subject.Detach(*place);
        place.emplace("second", calls);
        subject.Attach(*place, one);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("first", "a"));
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "second"));
}

TEST_F(SubjectTest, DetachWithoutMemoryDuringAWalkThrowsAndLeavesThePair) {
    AttachAll();
    b.action = [&] {
        bool refused = false;
        bool refusedAll = false;
        {
            const tern::test::MemoryShortage shortage;
            refused = Refuses([&] { subject.Detach(b, one); });
            refusedAll = Refuses([&] { subject.Detach(b); });
        }
        EXPECT_TRUE(refused);
        EXPECT_TRUE(refusedAll);
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c"));
    EXPECT_TRUE(subject.Exist({ONE, &b}));
    b.action = nullptr;
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c"));
}

TEST_F(SubjectTest, ExceptionOfAnObserverEndsTheWalkAndPasses) {
    AttachAll();
    b.action = [] { throw std::runtime_error("not now"); };
    EXPECT_THROW(subject.Notify(one), std::runtime_error);
    EXPECT_THAT(calls, ElementsAre("a", "b"));
    b.action = nullptr;
    subject.Detach(a);
    EXPECT_THAT(CalledBy(one), ElementsAre("b", "c"));
}

// The plainest list there is says what the order has to be, while pairs come and go by the thousand.
TEST_F(SubjectTest, KeepsOrderAndPairsHoweverManyComeAndGo) {
    std::mt19937 random(4711);
    std::vector<std::unique_ptr<Recorder>> observers;
    std::map<const ObserverInterface*, std::string> nameOf;
    for (int number = 0; number < 200; ++number) {
        observers.push_back(std::make_unique<Recorder>(std::to_string(number), calls));
        nameOf[observers.back().get()] = std::to_string(number);
    }
    NotificationInterface* const kinds[] = {&one, &two, &three};
    std::vector<std::pair<NotificationIdentifier, ObserverInterface*>> expected;
    for (int step = 0; step < 6000; ++step) {
        // In long tides, so that the list is full at times and empty at others.
        const bool rising = step / 500 % 2 == 0;
        const std::size_t number = random() % observers.size();
        Recorder& observer = *observers[number];
        NotificationInterface& kind = *kinds[random() % 3];
        const std::pair<NotificationIdentifier, ObserverInterface*> pair(kind.GetIdentifier(), &observer);
        const auto choice = random() % 10;
        if (choice < (rising ? 8 : 2)) {
            subject.Attach(observer, kind);
            if (std::find(expected.begin(), expected.end(), pair) == expected.end()) {
                expected.push_back(pair);
            }
        } else if (choice < 9) {
            subject.Detach(observer, kind);
            std::erase(expected, pair);
        } else {
            subject.Detach(observer);
            std::erase_if(expected, [&](const auto& entry) { return entry.second == &observer; });
        }
        ASSERT_EQ(subject.Exist(pair), std::find(expected.begin(), expected.end(), pair) != expected.end());
        if (step % 97 == 0) {
            std::vector<std::string> names;
            for (const auto& [identifier, registered] : expected) {
                if (identifier == kind.GetIdentifier()) {
                    names.push_back(nameOf.at(registered));
                }
            }
            ASSERT_EQ(CalledBy(kind), names) << "after step " << step;
        }
    }
}

TEST_F(SubjectTest, OneObserverOfManyKindsIsNotifiedOfEachAndEndsThemAll) {
    std::vector<NotificationInterface> kinds;
    for (int number = 0; number < 300; ++number) {
        kinds.emplace_back(NotificationIdentifier{number});
        subject.Attach(a, kinds.back());
        subject.Attach(b, kinds.back());
    }
    for (NotificationInterface& kind : kinds) {
        EXPECT_THAT(CalledBy(kind), ElementsAre("a", "b"));
    }
    subject.Detach(a);
    for (NotificationInterface& kind : kinds) {
        EXPECT_THAT(CalledBy(kind), ElementsAre("b"));
    }
}

// So many that the list is closed up while both walks stand in the middle of it.
TEST_F(SubjectTest, DetachingMostOfManyDuringAWalkInsideAWalkSkipsNobodyAndCallsNobodyTwice) {
    std::vector<std::unique_ptr<Recorder>> early;
    for (int number = 0; number < 100; ++number) {
        early.push_back(std::make_unique<Recorder>("early", calls));
        subject.Attach(*early.back(), two);
    }
    AttachAll();
    std::vector<std::unique_ptr<Recorder>> late;
    const auto churn = [&] {
        for (const auto& observer : early) {
            subject.Detach(*observer);
        }
        early.clear();
        for (int number = 0; number < 500; ++number) {
            Recorder passing("passing", calls);
            subject.Attach(passing, one);
            subject.Detach(passing);
        }
        late.push_back(std::make_unique<Recorder>("late", calls));
        subject.Attach(*late.back(), one);
    };
    int turn = 0;
    b.action = [&] {
        ++turn;
        if (turn == 1) {
            subject.Notify(one);
            churn();
        } else if (turn == 2) {
            churn();
        }
    };
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "a", "b", "c", "late", "c", "late", "late"));
    EXPECT_THAT(CalledBy(one), ElementsAre("a", "b", "c", "late", "late"));
    EXPECT_THAT(CalledBy(two), IsEmpty());
}

TEST_F(SubjectTest, ComingAndGoingTakesNoMoreMemoryThanThereAreObservers) {
    AttachAll();
    for (int round = 0; round < 10; ++round) {
        Reattach(a);
    }
    const tern::test::AllocationCount allocations;
    for (int round = 0; round < 1000; ++round) {
        Reattach(a);
        Reattach(c);
    }
    EXPECT_EQ(allocations.Get(), 0U);
}

TEST_F(SubjectTest, PlacesOfThoseThatAreGoneAreTakenAgain) {
    for (const std::size_t count : {1U, 3U, 7U, 15U, 31U}) {
        Subject crowded;
        std::vector<Recorder> observers(count, Recorder("", calls));
        for (Recorder& observer : observers) {
            crowded.Attach(observer, one);
        }
        for (const Recorder& observer : observers) {
            crowded.Detach(observer);
        }
        const tern::test::AllocationCount allocations;
        for (Recorder& observer : observers) {
            crowded.Attach(observer, one);
        }
        EXPECT_EQ(allocations.Get(), 0U) << count;
    }
}

TEST_F(SubjectTest, NotifyMakesRoomWhereMostAreGone) {
    std::vector<Recorder> observers(8, Recorder("", calls));
    for (std::size_t i = 0; i < 5; ++i) {
        subject.Attach(observers[i], one);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        subject.Detach(observers[i]);
    }
    subject.Notify(one);
    const tern::test::AllocationCount allocations;
    for (Recorder& observer : observers) {
        subject.Attach(observer, one);
    }
    EXPECT_EQ(allocations.Get(), 0U);
}

// Processor time, and a bound half way between what grows with the number and what grows with its square.
TEST_F(SubjectTest, AttachingAmongManyTakesAsLongAsAmongFew) {
    const auto secondsFor = [&](std::size_t count) {
        std::vector<Recorder> observers(count, Recorder("", calls));
        Subject crowded;
        timespec begin{};
        timespec end{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
        for (Recorder& observer : observers) {
            crowded.Attach(observer, one);
        }
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        return static_cast<double>(end.tv_sec - begin.tv_sec) +
               static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
    };
    const double few = std::max({secondsFor(1000), secondsFor(1000), secondsFor(1000)});
    EXPECT_LT(secondsFor(20'000), few * 100);
}

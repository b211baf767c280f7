#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <tern/synchronizer/notification_interface.h>
#include <tern/synchronizer/observer.h>
#include <tern/synchronizer/subject.h>

#include <climits>
#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/log_capture.h"

using mwl::tern::Synchronizer::NotificationIdentifier;
using mwl::tern::Synchronizer::NotificationInterface;
using mwl::tern::Synchronizer::Observer;
using mwl::tern::Synchronizer::ObserverInterface;
using mwl::tern::Synchronizer::Subject;
using mwl::tern::Synchronizer::SubjectInterface;
using tern::test::Error;
using tern::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string LOGGER = "Synchronizer::ObserverInterface";

class Listener : public Observer {
public:
    using Observer::Observer;
    void OnNotify(NotificationInterface* notification) override {
        received.push_back(notification->GetIdentifier());
    }
    void Init() override { ++initCalls; }

    std::vector<NotificationIdentifier> received;
    int initCalls = 0;
};

/// Does as it was told when notified.
class Doer : public Observer {
public:
    using Observer::Observer;
    void OnNotify(NotificationInterface*) override {
        // Moved out: the action may destroy the observer and with it what holds the action.
        const auto act = std::move(action);
        act();
    }

    std::function<void()> action;
};

class ThrowingSubject : public SubjectInterface {
public:
    void Attach(ObserverInterface&, NotificationInterface&) override {}
    void Detach(const ObserverInterface&, NotificationInterface&) override {}
    void Detach(const ObserverInterface&) override { throw std::runtime_error("no list"); }
    void Notify(NotificationInterface&) override {}
};

}  // namespace

TEST(Observer, IsAnObserverInterface) {
    EXPECT_TRUE((std::is_base_of_v<ObserverInterface, Observer>));
}

TEST(Observer, StartsUnregistered) {
    Subject subject;
    Listener listener(subject);
    NotificationInterface notification{NotificationIdentifier{1}};
    subject.Notify(notification);
    EXPECT_THAT(listener.received, IsEmpty());
}

TEST(Observer, ReceivesWhatItIsAttachedFor) {
    const LogCapture log;
    Subject subject;
    Listener listener(subject);
    NotificationInterface notification{NotificationIdentifier{1}};
    subject.Attach(listener, notification);
    subject.Notify(notification);
    EXPECT_THAT(listener.received, ElementsAre(NotificationIdentifier{1}));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Observer, LogsWhatItDoesNotSupport) {
    const LogCapture log;
    Subject subject;
    Observer observer(subject);
    for (const int identifier : {42, 0, -1, INT_MIN}) {
        NotificationInterface notification{NotificationIdentifier{identifier}};
        subject.Attach(observer, notification);
        subject.Notify(notification);
    }
    const auto text = [](const std::string& identifier) {
        return Error(LOGGER, "[OnNotify] Unsuppored Nofitication ID: " + identifier +
                                 ". You need to implement OnNotify on your object");
    };
    EXPECT_THAT(log.Entries(), ElementsAre(text("42"), text("0"), text("-1"), text("-2147483648")));
}

// A derived class does not exist yet when this class is constructed.
TEST(Observer, ConstructorDoesNotCallADerivedInit) {
    Subject subject;
    Listener listener(subject);
    EXPECT_EQ(listener.initCalls, 0);
    static_cast<Observer&>(listener).Init();
    EXPECT_EQ(listener.initCalls, 1) << "Init is virtual";
}

TEST(Observer, EndsAllItsRegistrationsWhenDestroyed) {
    Subject subject;
    Listener other(subject);
    NotificationInterface one{NotificationIdentifier{1}};
    NotificationInterface two{NotificationIdentifier{2}};
    NotificationInterface three{NotificationIdentifier{3}};
    const ObserverInterface* gone = nullptr;
    {
        Listener listener(subject);
        gone = &listener;
        for (NotificationInterface* const notification : {&one, &two, &three}) {
            subject.Attach(listener, *notification);
            subject.Attach(other, *notification);
        }
    }
    for (NotificationInterface* const notification : {&one, &two, &three}) {
        EXPECT_FALSE(subject.Exist({notification->GetIdentifier(), const_cast<ObserverInterface*>(gone)}));
        subject.Notify(*notification);
    }
    EXPECT_EQ(other.received.size(), 3U);
}

TEST(Observer, MayEndInItsOwnOnNotify) {
    Subject subject;
    Listener before(subject);
    auto mortal = std::make_unique<Doer>(subject);
    Listener after(subject);
    NotificationInterface one{NotificationIdentifier{1}};
    NotificationInterface two{NotificationIdentifier{2}};
    for (Observer* const observer : {static_cast<Observer*>(&before), static_cast<Observer*>(mortal.get()),
                                     static_cast<Observer*>(&after)}) {
        subject.Attach(*observer, one);
        subject.Attach(*observer, two);
    }
    ObserverInterface* const gone = mortal.get();
    mortal->action = [&] { mortal.reset(); };
    subject.Notify(one);
    EXPECT_EQ(mortal, nullptr);
    EXPECT_FALSE(subject.Exist({one.GetIdentifier(), gone}));
    EXPECT_FALSE(subject.Exist({two.GetIdentifier(), gone}));
    subject.Notify(two);
    EXPECT_THAT(before.received, ElementsAre(one.GetIdentifier(), two.GetIdentifier()));
    EXPECT_THAT(after.received, ElementsAre(one.GetIdentifier(), two.GetIdentifier()));
}

TEST(Observer, MayEndOthersInItsOnNotify) {
    Subject subject;
    auto called = std::make_unique<Listener>(subject);
    Doer doer(subject);
    auto waiting = std::make_unique<Listener>(subject);
    Listener last(subject);
    NotificationInterface notification{NotificationIdentifier{1}};
    for (Observer* const observer : {static_cast<Observer*>(called.get()), static_cast<Observer*>(&doer),
                                     static_cast<Observer*>(waiting.get()), static_cast<Observer*>(&last)}) {
        subject.Attach(*observer, notification);
    }
    doer.action = [&] {
        called.reset();
        waiting.reset();
    };
    subject.Notify(notification);
    EXPECT_THAT(last.received, ElementsAre(notification.GetIdentifier()));
}

TEST(Observer, SubjectThatThrowsWhileItIsDestroyedEndsTheProcess) {
    const tern::test::ChildResult child = tern::test::RunInChild([] {
        ThrowingSubject subject;
        try {
            const Observer observer(subject);
        } catch (const std::runtime_error&) {
            return 1;
        }
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
}

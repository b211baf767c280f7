#include "typed/call_fixture.h"

namespace mwl::Typed::Tests {
namespace {

TEST_F(Calls, GivesTheResultToAHandlerAfterThenHasReturned) {
    std::promise<std::string> done;
    Pending pending;
    const bool isWaiting = On([&] {
        bool hasRun = false;
        pending = proxy->Call(Peer1::Echo, "warm").Then([&](Outcome<std::string> outcome) {
            hasRun = true;
            done.set_value(outcome.IsOk() ? *outcome : Said(outcome));
        });
        EXPECT_FALSE(hasRun);
        return pending.IsWaiting();
    });
    EXPECT_TRUE(isWaiting);
    EXPECT_EQ(done.get_future().get(), "warm");
    On([&] {
        EXPECT_FALSE(pending.IsWaiting());
        const Bus::Counters counters = served->typed->GetCounters();
        EXPECT_EQ(counters.calls, 1U);
        EXPECT_EQ(counters.pendingCalls, 0U);
        pending.Reset();
    });
}

Story Tell(const Proxy<Peer1>& proxy, std::vector<std::string>& told, std::promise<void>& done) {
    Outcome<Number> sum = co_await proxy.Call(Peer1::Add, 2U, 3U);
    for (int i = 0; i < 2 && sum.IsOk(); ++i) {
        sum = co_await proxy.Call(Peer1::Add, *sum, 1U).Within(10s);
    }
    told.push_back(sum.IsOk() ? std::to_string(*sum) : Said(sum));
    told.push_back(Said(co_await proxy.Call(Peer1::Hold, 1U).Within(20ms)));
    told.push_back(Said(co_await proxy.Call(Peer1::Wrong)));
    told.push_back(Said(co_await proxy.Call(Peer1::Echo, std::string_view("\xff"))));
    Call<Number> kept = proxy.Call(Peer1::Add, 1U, 1U);
    const Outcome<Number> two = co_await kept;
    told.push_back(two.IsOk() ? std::to_string(*two) : Said(two));
    told.push_back(Said(co_await kept));
    done.set_value();
}

TEST_F(Calls, AreAwaitedOneAfterTheOther) {
    std::vector<std::string> told;
    std::promise<void> done;
    Story story;
    On([&] { story = Tell(*proxy, told, done); });
    done.get_future().wait();
    On([&] { EXPECT_TRUE(story.IsDone()); });
    EXPECT_THAT(
        told, ElementsAre(
                  "7", "org.freedesktop.DBus.Error.NoReply: Method call timed out",
                  "mwl.Typed.Error.WrongReply: a reply of 'u' where 's' is wanted",
                  "org.freedesktop.DBus.Error.InvalidArgs: argument 'text' cannot be sent: Invalid argument",
                  "2", "mwl.StatusCode.NotInitialized: the call has been used already"));
}

Story Add(const Proxy<Peer1>& proxy, Number& sum) {
    const Outcome<Number> outcome = co_await proxy.Call(Peer1::Add, sum, 1U);
    sum = outcome.IsOk() ? *outcome : 0;
}

TEST_F(Calls, TakeNoMemoryButSdBussOwnWhenAwaited) {
    Number sum = 4;
    Story story;
    const std::size_t sending = On([&] {
        const tern::test::AllocationCount count;
        story = Add(*proxy, sum);
        return count.Get();
    });
    EXPECT_EQ(sending, 1U) << "the coroutine's frame";
    EXPECT_TRUE(WaitUntil([&] { return On([&] { return story.IsDone(); }); }));
    EXPECT_EQ(sum, 5U);
}

TEST_F(Calls, WithAHandlerTakeOneAllocation) {
    Pending pending;
    const std::size_t sending = On([&] {
        const tern::test::AllocationCount count;
        pending = proxy->Call(Peer1::Add, 1U, 1U).Then([](Outcome<Number>) {});
        return count.Get();
    });
    EXPECT_EQ(sending, 1U);
    On([&] { pending.Reset(); });
}

TEST_F(Calls, AreCancelledInEachStateByTheirDestruction) {
    bool hasRun = false;
    const auto never = [&](Outcome<Number>) { hasRun = true; };
    On([&] {
        { const Call<Number> unsent = proxy->Call(Peer1::Add, 1U, 1U); }
        { const Pending pending = proxy->Call(Peer1::Add, 1U, 1U).Then(never); }
        Call<Number> given = proxy->Call(Peer1::Add, 1U, 1U);
        { const Pending pending = std::move(given).Then(never); }
        Pending first = proxy->Call(Peer1::Add, 1U, 1U).Then(never);
        Pending second = std::move(first);
        EXPECT_FALSE(first.IsWaiting());
        EXPECT_TRUE(second.IsWaiting());
        second = Pending();
        // One that has failed at once, before its handler had its turn.
        {
            const Pending failed =
                proxy->Call(Peer1::Echo, "\xff").Then([&](Outcome<std::string>) { hasRun = true; });
        }
        EXPECT_EQ(served->typed->GetCounters().pendingCalls, 0U);
    });
    Settle();
    EXPECT_FALSE(hasRun);
    Pending done;
    EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Add, 1U, 1U); })), "");
    EXPECT_EQ(CountPending(), 0U);
}

TEST_F(Calls, OfACoroutineAreCancelledWithItsFrame) {
    struct Guard {
        explicit Guard(int& count) : mCount(count) {}
        ~Guard() { ++mCount; }
        int& mCount;
    };
    int destroyed = 0;
    bool hasGoneOn = false;
    const auto wait = [](const Proxy<Peer1>& room, int& count, bool& isPast) -> Story {
        const Guard guard(count);
        static_cast<void>(co_await room.Call(Peer1::Hold, 1U));
        isPast = true;
    };
    Story story;
    On([&] { story = wait(*proxy, destroyed, hasGoneOn); });
    Settle();
    EXPECT_EQ(CountPending(), 1U);
    On([&] { story = Story(); });
    EXPECT_EQ(CountPending(), 0U);
    const Outcome<Number> let = Ask(*served, [&] { return proxy->Call(Peer1::Let); });
    EXPECT_EQ(*let, 1U) << "the peer has not noticed";
    Settle();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(hasGoneOn);
}

TEST_F(Calls, OnceGivenAwayCannotBeUsedAgain) {
    std::vector<std::string> said;
    std::promise<void> done;
    Pending first;
    Pending second;
    On([&] {
        Call<Number> call = proxy->Call(Peer1::Add, 1U, 1U);
        first = std::move(call).Then([&](Outcome<Number> outcome) {
            said.push_back(Said(outcome));
            done.set_value();
        });
        // What is meant to be seen.
        second = std::move(call).Then([&](Outcome<Number> outcome) { said.push_back(Said(outcome)); });
    });
    done.get_future().wait();
    On([&] {
        first.Reset();
        second.Reset();
    });
    EXPECT_THAT(said, ElementsAre("mwl.StatusCode.NotInitialized: the call has been used already", ""));
}

}  // namespace
}  // namespace mwl::Typed::Tests

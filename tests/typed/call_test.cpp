#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <tern/typed/call.h>
#include <tern/typed/proxy.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <coroutine>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/allocations.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/peer_service.h"

TERN_INTERPOSE(int, sd_bus_call_async,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* call, sd_bus_message_handler_t handler,
                void* userdata, uint64_t limit),
               (bus, slot, call, handler, userdata, limit))
TERN_INTERPOSE(int, sd_bus_message_new_method_call,
               (sd_bus * bus, sd_bus_message** call, const char* destination, const char* path,
                const char* interface, const char* member),
               (bus, call, destination, path, interface, member))

namespace mwl::Typed {
namespace {

using namespace std::chrono_literals;
using tern::test::Ask;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::PEER;
using tern::test::Peer1;
using tern::test::PEER_PATH;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Number = Peer1::Number;

/// The least of a coroutine: begins at once, and ends with this object.
class Story {
public:
    struct promise_type {  // NOLINT(readability-identifier-naming): the language's name
        Story get_return_object() { return Story(Handle::from_promise(*this)); }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { throw; }
    };
    using Handle = std::coroutine_handle<promise_type>;

    Story() = default;
    explicit Story(Handle handle) : mHandle(handle) {}
    Story(Story&& other) noexcept : mHandle(std::exchange(other.mHandle, {})) {}
    Story& operator=(Story&& other) noexcept {
        std::swap(mHandle, other.mHandle);
        return *this;
    }
    ~Story() {
        if (mHandle) {
            mHandle.destroy();
        }
    }
    bool IsDone() const { return mHandle && mHandle.done(); }

private:
    Handle mHandle;
};

/// A client's bus and proxy. The daemon comes first, threads later.
class CallTest : public testing::Test {
protected:
    void Begin(Served::Start start = nullptr) {
        served.emplace(std::move(start));
        proxy.emplace(*served->typed, PEER, PEER_PATH);
    }
    void TearDown() override {
        served.reset();
        service.reset();
    }
    template <typename Function>
    auto On(Function function) {
        return served->On(function);
    }

    PrivateBus daemon{
        "<limit name='max_replies_per_connection'>20000</limit>"
        "<limit name='max_incoming_bytes'>200000000</limit>"
        "<limit name='max_outgoing_bytes'>200000000</limit>"
        "<limit name='max_message_size'>128000000</limit>"};
    std::optional<PeerService> service;
    std::optional<Served> served;
    std::optional<Proxy<Peer1>> proxy;
};

/// With the service on a thread of this process.
class Calls : public CallTest {
protected:
    Calls() {
        service.emplace();
        Begin();
    }
    /// The service has taken what was sent before.
    void Settle() {
        EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Count); })), "");
    }
    std::size_t CountPending() {
        return On([&] { return served->typed->GetCounters().pendingCalls; });
    }
};

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

TEST_F(Calls, TellWhoFailedThemAndWhy) {
    const auto ask = [&](const char* destination, const char* path, const char* interface,
                         const char* member) {
        const auto remote = std::make_shared<Remote>(*served->typed, destination, path);
        const Outcome<void> outcome = Ask(*served, [&] { return Call<void>(remote, interface, member); });
        EXPECT_FALSE(outcome.IsOk());
        return outcome.IsOk() ? StatusCode::Ok : outcome.GetError().GetStatus();
    };
    const char* const name = Peer1::NAME;
    EXPECT_EQ(ask(PEER, PEER_PATH, name, "Missing"), StatusCode::NotSupported);
    EXPECT_EQ(ask(PEER, PEER_PATH, "com.example.Missing1", "Add"), StatusCode::NotSupported);
    EXPECT_EQ(ask(PEER, "/missing", name, "Add"), StatusCode::NotFound);
    EXPECT_EQ(ask("com.example.Missing", PEER_PATH, name, "Add"), StatusCode::NotFound);
    EXPECT_EQ(ask(":1.99999", PEER_PATH, name, "Add"), StatusCode::NotFound);
    EXPECT_EQ(ask("no name", PEER_PATH, name, "Add"), StatusCode::InvalidArgument);
    EXPECT_EQ(ask(PEER, "no path", name, "Add"), StatusCode::InvalidArgument);
    EXPECT_EQ(ask(PEER, PEER_PATH, "no interface", "Add"), StatusCode::InvalidArgument);
    EXPECT_EQ(ask(PEER, PEER_PATH, name, "no member"), StatusCode::InvalidArgument);

    EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Fail); })),
              "com.example.Error.TooHot: more than 100 degrees");
    EXPECT_EQ(Said(Ask(*served,
                       [&] { return Proxy<Peer1>(*served->typed, "nobody", PEER_PATH).Call(Peer1::Fail); })),
              "org.freedesktop.DBus.Error.InvalidArgs: 'nobody' is no name of a service");
    EXPECT_EQ(
        Said(Ask(*served, [&] { return Proxy<Peer1>(*served->typed, PEER, "path").Call(Peer1::Fail); })),
        "org.freedesktop.DBus.Error.InvalidArgs: 'path' is no path of an object");
    EXPECT_EQ(On([&] { return served->typed->GetCounters().unsentCalls; }), 6U);
}

TEST_F(Calls, EndAtTheirTimeLimitAndALateReplyIsDropped) {
    int runs = 0;
    std::promise<StatusCode> done;
    Pending pending;
    const auto begin = std::chrono::steady_clock::now();
    On([&] {
        pending = proxy->Call(Peer1::Hold, 1U).Within(50ms).Then([&](Outcome<Number> outcome) {
            ++runs;
            done.set_value(outcome.IsOk() ? StatusCode::Ok : outcome.GetError().GetStatus());
        });
    });
    EXPECT_EQ(done.get_future().get(), StatusCode::Timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 50ms + tern::test::TOLERANCE);
    EXPECT_EQ(*Ask(*served, [&] { return proxy->Call(Peer1::Let); }), 1U);
    Settle();
    EXPECT_EQ(runs, 1);
    On([&] { pending.Reset(); });
}

TEST_F(Calls, HaveTheProxysTimeLimitUnlessTheySayAnother) {
    const auto limitOf = [&](auto make) {
        const FaultScope scope(fault_sd_bus_call_async);
        std::atomic<std::uint64_t> seen{0};
        fault_sd_bus_call_async.Replace([&](sd_bus* bus, sd_bus_slot** slot, sd_bus_message* call,
                                            sd_bus_message_handler_t handler, void* userdata,
                                            std::uint64_t limit) {
            seen = limit;
            return fault_sd_bus_call_async.Real(bus, slot, call, handler, userdata, limit);
        });
        static_cast<void>(Ask(*served, make));
        return seen.load();
    };
    const auto add = [&] { return proxy->Call(Peer1::Add, 1U, 1U); };
    EXPECT_EQ(limitOf(add), 5000000U);
    proxy->SetTimeout(3s);
    EXPECT_EQ(proxy->GetRemote()->GetTimeout(), 3s);
    EXPECT_EQ(limitOf(add), 3000000U);
    EXPECT_EQ(limitOf([&] { return add().Within(2s); }), 2000000U);
    EXPECT_EQ(limitOf([&] { return add().Within(0ms); }), 1U);
    EXPECT_EQ(limitOf([&] { return add().Within(-5ms); }), 1U);
    EXPECT_EQ(limitOf([&] { return add().Within(std::chrono::hours(24)); }), 86400000000U);
    EXPECT_EQ(limitOf([&] { return add().Within(Remote::NO_LIMIT); }), UINT64_MAX);
    proxy->SetTimeout(Remote::NO_LIMIT);
    EXPECT_EQ(limitOf(add), UINT64_MAX);
}

TEST_F(Calls, TellATimeoutOfThePeersOwn) {
    const Outcome<void> late =
        Ask(*served, [&] { return Call<void>(proxy->GetRemote(), Peer1::NAME, "Late"); });
    EXPECT_EQ(Said(late), "org.freedesktop.DBus.Error.Timeout: the boiler does not answer");
    EXPECT_EQ(late.GetError().GetStatus(), StatusCode::Timeout);
}

TEST_F(Calls, TakeSignalsBetweenCallAndReplyInOrder) {
    std::vector<std::string> seen;
    std::promise<void> done;
    Pending pending;
    sd_bus_slot* slot = nullptr;
    On([&] {
        sd_bus_match_signal(
            served->typed->GetBus(), &slot, PEER, PEER_PATH, Peer1::NAME, "Told",
            [](sd_bus_message*, void* userdata, sd_bus_error*) {
                static_cast<std::vector<std::string>*>(userdata)->push_back("signal");
                return 0;
            },
            &seen);
        pending = proxy->Call(Peer1::Tell, 4U).Then([&](Outcome<void> outcome) {
            seen.push_back("reply" + Said(outcome));
            done.set_value();
        });
    });
    done.get_future().wait();
    On([&] {
        sd_bus_slot_unref(slot);
        pending.Reset();
    });
    EXPECT_THAT(seen, ElementsAre("signal", "reply"));
}

TEST_F(Calls, CountAndLogRepliesThatAreNotWhatTheContractSays) {
    LogCapture log(4);
    EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Wrong); })),
              "mwl.Typed.Error.WrongReply: a reply of 'u' where 's' is wanted");
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(tern::test::Warning("Typed",
                                                "com.example.Peer /peer: a reply of 'u' where 's' is "
                                                "wanted (0 like it not logged)")));
    for (int i = 0; i < 15; ++i) {
        static_cast<void>(Ask(*served, [&] { return proxy->Call(Peer1::Wrong); }));
    }
    EXPECT_EQ(log.Entries("Typed").size(), 10U);
    EXPECT_EQ(On([&] { return served->typed->GetCounters().wrongReplies; }), 16U);
}

TEST_F(Calls, AreNotSentWithAValueThatCannotBe) {
    const auto said = [&](auto make) { return Said(Ask(*served, make)); };
    EXPECT_EQ(said([&] { return proxy->Call(Peer1::Echo, "\xff"); }),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 'text' cannot be sent: Invalid argument");
    EXPECT_EQ(said([&] {
                  Call<void> call(proxy->GetRemote(), Peer1::NAME, "Add");
                  call.RefuseArgument(1, nullptr, -E2BIG);
                  call.RefuseArgument(0, nullptr, -EINVAL);
                  EXPECT_EQ(call.GetMessage(), nullptr);
                  return call;
              }),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 2 cannot be sent: Argument list too long");
    EXPECT_EQ(said([&] {
                  Call<void> call(proxy->GetRemote(), Peer1::NAME, "Add");
                  call.RefuseArgument(0, nullptr, -ENOMEM);
                  return call;
              }),
              "org.freedesktop.DBus.Error.NoMemory: argument 1 cannot be sent: Cannot allocate memory");
    Settle();  // the connection is as good as before
}

TEST_F(Calls, AppendedByHandAreAsGoodAsOthers) {
    const Outcome<Number> sum = Ask(*served, [&] {
        Call<Number> call(proxy->GetRemote(), Peer1::NAME, "Add");
        EXPECT_GE(sd_bus_message_append(call.GetMessage(), "uu", 20U, 3U), 0);
        return call;
    });
    EXPECT_EQ(*sum, 23U);
}

TEST_F(Calls, TellWhatSdBusCouldNotDo) {
    const struct {
        int error;
        StatusCode status;
    } table[] = {{-ENOTCONN, StatusCode::IoError},   {-ECONNRESET, StatusCode::IoError},
                 {-ESHUTDOWN, StatusCode::IoError},  {-ENOBUFS, StatusCode::ResourceUnavailable},
                 {-ENOMEM, StatusCode::OutOfMemory}, {-EPERM, StatusCode::AccessDenied}};
    for (const auto& row : table) {
        const FaultScope scope(fault_sd_bus_call_async);
        fault_sd_bus_call_async.Fail(row.error);
        const Outcome<Number> sent = Ask(*served, [&] { return proxy->Call(Peer1::Add, 1U, 1U); });
        EXPECT_EQ(sent.GetError().GetStatus(), row.status) << row.error;
        EXPECT_THAT(sent.GetError().GetText(), StartsWith("the call cannot be sent: "));
    }
    const FaultScope scope(fault_sd_bus_message_new_method_call);
    fault_sd_bus_message_new_method_call.Fail(-ENOMEM);
    const Outcome<Number> made = Ask(*served, [&] { return proxy->Call(Peer1::Add, 1U, 1U); });
    EXPECT_EQ(made.GetError().GetStatus(), StatusCode::OutOfMemory);
}

TEST_F(Calls, ThatFailAtOnceGoOnAtOnceWhenAwaited) {
    const auto echo = [](const Proxy<Peer1>& peer, std::string& said) -> Story {
        said = Said(co_await peer.Call(Peer1::Echo, "\xff"));
    };
    std::string said;
    On([&] {
        const Story story = echo(*proxy, said);
        EXPECT_TRUE(story.IsDone());
    });
    EXPECT_THAT(said, HasSubstr("cannot be sent"));
}

TEST_F(Calls, ThatFailAtOnceTellTheirHandlerAtTheEndOfTheTurn) {
    std::vector<int> order;
    Pending first;
    Pending second;
    On([&] {
        first = proxy->Call(Peer1::Echo, "\xff").Then([&](Outcome<std::string>) {
            order.push_back(2);
            second = proxy->Call(Peer1::Echo, "\xff").Then([&](Outcome<std::string>) { order.push_back(4); });
            order.push_back(3);
        });
        order.push_back(1);
    });
    EXPECT_TRUE(WaitUntil([&] { return On([&] { return order.size() == 4; }); }));
    EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
    On([&] {
        first.Reset();
        second.Reset();
    });
}

TEST_F(Calls, ThatNobodyWaitsForAreMarkedSo) {
    LogCapture log(4);
    On([&] {
        proxy->Call(Peer1::Nothing).Detach();
        proxy->Call(Peer1::Echo, "\xff").Detach();
        Proxy<Peer1>(*served->typed, "nobody", "/").Call(Peer1::Nothing).Detach();
    });
    // Nobody answers this one: it is done as soon as it has been sent.
    EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Nothing); })), "");
    EXPECT_EQ(*Ask(*served, [&] { return proxy->Call(Peer1::Count); }), 2U);
    EXPECT_EQ(On([&] { return served->typed->GetCounters().calls; }), 3U);
    EXPECT_THAT(
        log.Entries("Typed"),
        ElementsAre(tern::test::Warning("Typed",
                                        "com.example.Peer /peer: failed to call Echo: argument 'text' "
                                        "cannot be sent: Invalid argument (0 like it not logged)"),
                    tern::test::Warning("Typed",
                                        "nobody /: failed to call a method: 'nobody' is no name of a "
                                        "service (0 like it not logged)")));
}

TEST_F(Calls, HandlersMayEndTheirOwnPendingAndOthers) {
    std::promise<void> done;
    bool hasOtherRun = false;
    auto kept = std::make_shared<int>(5);
    const std::weak_ptr<int> watched = kept;
    std::optional<Pending> own;
    Pending other;
    On([&] {
        own = proxy->Call(Peer1::Hold, 1U).Then([&, kept = std::move(kept)](Outcome<Number>) {
            own.reset();
            other.Reset();
            EXPECT_EQ(*kept, 5);
            done.set_value();
        });
        other = proxy->Call(Peer1::Hold, 1U).Then([&](Outcome<Number>) { hasOtherRun = true; });
    });
    EXPECT_EQ(*Ask(*served, [&] { return proxy->Call(Peer1::Let); }), 2U);
    done.get_future().wait();
    Settle();
    EXPECT_FALSE(hasOtherRun);
    EXPECT_TRUE(watched.expired());
}

TEST_F(Calls, ThatAreReleasedRunTheirHandlerWithoutAnOwner) {
    std::promise<void> done;
    auto kept = std::make_shared<int>(5);
    const std::weak_ptr<int> watched = kept;
    On([&] {
        proxy->Call(Peer1::Add, 1U, 1U)
            .Then([&done, kept = std::move(kept)](Outcome<Number> outcome) {
                EXPECT_TRUE(outcome.IsOk());
                done.set_value();
            })
            .Release();
        Pending().Release();
    });
    done.get_future().wait();
    Settle();
    EXPECT_TRUE(watched.expired());
}

TEST_F(Calls, BeyondTheLimitAreNotSent) {
    std::vector<Pending> waiting;
    On([&] {
        served->typed->SetPendingCalls(2);
        for (int i = 0; i < 2; ++i) {
            waiting.push_back(proxy->Call(Peer1::Hold, 1U).Then([](Outcome<Number>) {}));
        }
    });
    const auto add = [&] { return proxy->Call(Peer1::Add, 1U, 1U); };
    EXPECT_EQ(Said(Ask(*served, add)),
              "org.freedesktop.DBus.Error.LimitsExceeded: too many calls wait for their reply");
    On([&] { waiting.pop_back(); });
    EXPECT_EQ(Said(Ask(*served, add)), "");
    On([&] { waiting.clear(); });
}

TEST_F(Calls, MayBeTenThousandAtATime) {
    constexpr std::size_t COUNT = 10000;
    std::size_t right = 0;
    std::promise<void> done;
    std::vector<Pending> waiting(COUNT);
    On([&] {
        for (std::size_t i = 0; i < COUNT; ++i) {
            waiting[i] = proxy->Call(Peer1::Hold, static_cast<Number>(i))
                             .Within(Remote::NO_LIMIT)
                             .Then([&, i](Outcome<Number> outcome) {
                                 right += outcome.IsOk() && *outcome == i ? 1 : 0;
                                 if (right == COUNT) {
                                     done.set_value();
                                 }
                             });
        }
        EXPECT_EQ(served->typed->GetCounters().pendingCalls, COUNT);
    });
    EXPECT_EQ(*Ask(*served, [&] { return proxy->Call(Peer1::Let).Within(Remote::NO_LIMIT); }), COUNT);
    EXPECT_EQ(done.get_future().wait_for(tern::test::GENEROUS_LIMIT), std::future_status::ready);
    EXPECT_EQ(On([&] { return right; }), COUNT);
    On([&] { waiting.clear(); });
}

TEST_F(Calls, TakeAReplyOf64MiB) {
    // sd-bus makes its buffer fit with each piece that it reads, which sanitizers have copied each time.
    constexpr Number SIZE = (tern::test::SLOWNESS == 1 ? 64U : 4U) << 20U;
    const Outcome<std::string> text =
        Ask(*served, [&] { return proxy->Call(Peer1::Big, SIZE).Within(tern::test::GENEROUS_LIMIT); });
    ASSERT_EQ(Said(text), "");
    EXPECT_EQ(text->size(), SIZE);
}

TEST_F(Calls, HandlersThatThrowEndTheLoop) {
    LogCapture log(2);
    Pending pending;
    On([&] {
        pending =
            proxy->Call(Peer1::Add, 1U, 1U).Then([](Outcome<Number>) { throw std::runtime_error("hot"); });
    });
    EXPECT_TRUE(WaitUntil([&] { return !served->typed->Post([] {}); }));
    served->End();
    EXPECT_EQ(served->result, -ENOTRECOVERABLE);
    EXPECT_THAT(log.Entries("Typed"), ElementsAre(tern::test::Critical(
                                          "Typed", "A turn of the typed bus threw std::runtime_error: hot")));
}

TEST_F(Calls, HandlersThatThrowAtTheEndOfATurnEndTheLoopToo) {
    LogCapture log(2);
    Pending pending;
    On([&] {
        pending = proxy->Call(Peer1::Echo, "\xff").Then([](Outcome<std::string>) {
            throw std::runtime_error("hot");
        });
    });
    EXPECT_TRUE(WaitUntil([&] { return !served->typed->Post([] {}); }));
    served->End();
    EXPECT_EQ(served->result, -ENOTRECOVERABLE);
    EXPECT_EQ(log.Entries("Typed").size(), 1U);
}

TEST_F(Calls, AreCompletedWhenTheLoopEndsInOrderAndRefusedFromThenOn) {
    LogCapture log(4);
    std::vector<std::string> said;
    bool hasOtherRun = false;
    std::vector<Pending> waiting(5);
    std::vector<bool> wasOpen;
    On([&] {
        waiting[0] = proxy->Call(Peer1::Hold, 1U).Then([&](Outcome<Number> outcome) {
            said.push_back("first " + Said(outcome));
            wasOpen.push_back(sd_bus_is_open(served->typed->GetBus()) > 0);
            waiting[1].Reset();
            waiting[3] = proxy->Call(Peer1::Add, 1U, 1U).Then([&](Outcome<Number> late) {
                said.push_back("late " + Said(late));
            });
        });
        waiting[1] = proxy->Call(Peer1::Hold, 1U).Then([&](Outcome<Number>) { hasOtherRun = true; });
        waiting[2] = proxy->Call(Peer1::Hold, 1U).Then([&](Outcome<Number> outcome) {
            said.push_back("last " + Said(outcome));
            wasOpen.push_back(sd_bus_is_open(served->typed->GetBus()) > 0);
        });
    });
    served->onStop = [&] {
        waiting[4] = proxy->Call(Peer1::Add, 1U, 1U).Then([&](Outcome<Number>) { hasOtherRun = true; });
        proxy->Call(Peer1::Add, 1U, 1U).Then([&](Outcome<Number>) { hasOtherRun = true; }).Release();
        const auto add = [](const Proxy<Peer1>& peer, std::vector<std::string>& told) -> Story {
            told.push_back("awaited " + Said(co_await peer.Call(Peer1::Add, 1U, 1U)));
        };
        const Story story = add(*proxy, said);
        waiting.clear();
    };
    served->End();
    EXPECT_THAT(
        said,
        ElementsAre("first mwl.StatusCode.Stopping: Stopping", "last mwl.StatusCode.Stopping: Stopping",
                    "late mwl.StatusCode.Stopping: Stopping", "awaited mwl.StatusCode.Stopping: Stopping"));
    EXPECT_THAT(wasOpen, ElementsAre(true, true));
    EXPECT_FALSE(hasOtherRun);
    EXPECT_EQ(log.Count(tern::test::Warning("Typed",
                                            "com.example.Peer /peer: called without an open bus, so the "
                                            "handler does not run (0 like it not logged)")),
              2U);
}

TEST_F(Calls, OfAHandlerThatNeverGivesUpDoNotKeepTheBusFromClosing) {
    LogCapture log(3);
    int runs = 0;
    std::function<void()> again = [&] {
        proxy->Call(Peer1::Hold, 1U)
            .Then([&](Outcome<Number>) {
                ++runs;
                again();
            })
            .Release();
    };
    On([&] { again(); });
    served->End();
    EXPECT_GT(runs, 50);
    EXPECT_LT(runs, 200);
}

TEST_F(Calls, OfACoroutineAreCompletedWhenTheLoopEnds) {
    std::vector<std::string> said;
    const auto wait = [](const Proxy<Peer1>& peer, std::vector<std::string>& told) -> Story {
        told.push_back(Said(co_await peer.Call(Peer1::Hold, 1U)));
        told.push_back(Said(co_await peer.Call(Peer1::Hold, 1U)));
    };
    Story story;
    On([&] { story = wait(*proxy, said); });
    served->onStop = [&] { story = Story(); };
    served->End();
    EXPECT_THAT(said, ElementsAre("mwl.StatusCode.Stopping: Stopping", "mwl.StatusCode.Stopping: Stopping"));
}

TEST_F(Calls, EndWithIoErrorWhenTheBusDies) {
    LogCapture log(1);
    std::vector<StatusCode> ended;
    std::vector<Pending> waiting;
    On([&] {
        for (int i = 0; i < 3; ++i) {
            waiting.push_back(proxy->Call(Peer1::Hold, 1U).Then([&](Outcome<Number> outcome) {
                ended.push_back(outcome.IsOk() ? StatusCode::Ok : outcome.GetError().GetStatus());
            }));
        }
    });
    Settle();
    On([&] { served->onStop = [&] { waiting.clear(); }; });
    daemon.Kill();
    EXPECT_TRUE(WaitUntil([&] { return !served->typed->Post([] {}); }));
    served->End();
    EXPECT_THAT(ended, ElementsAre(StatusCode::IoError, StatusCode::IoError, StatusCode::IoError));
}

TEST_F(CallTest, OfAPeerThatIsKilledMeanwhileIsNotFound) {
    const pid_t child = PeerService::Fork();
    Begin();
    std::promise<StatusCode> done;
    Pending pending;
    On([&] {
        pending = proxy->Call(Peer1::Hold, 1U).Then([&](Outcome<Number> outcome) {
            done.set_value(outcome.IsOk() ? StatusCode::Ok : outcome.GetError().GetStatus());
        });
    });
    EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Count); })), "");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(done.get_future().get(), StatusCode::NotFound);
    On([&] { pending.Reset(); });
}

TEST_F(CallTest, BeforeTheBusIsOpenTellsSo) {
    LogCapture log(4);
    Bus bus;
    const Proxy<Peer1> early(bus, PEER, PEER_PATH);
    std::string said;
    const auto add = [](const Proxy<Peer1>& peer, std::string& told) -> Story {
        told = Said(co_await peer.Call(Peer1::Add, 1U, 1U));
    };
    const Story story = add(early, said);
    EXPECT_EQ(said, "mwl.StatusCode.NotInitialized: NotInitialized");
    const Pending pending = early.Call(Peer1::Add, 1U, 1U).Then([](Outcome<Number>) { FAIL(); });
    EXPECT_FALSE(pending.IsWaiting());
    EXPECT_EQ(log.Entries("Typed").size(), 1U);
}

TEST_F(CallTest, OutlivesTheBus) {
    std::optional<Proxy<Peer1>> late;
    {
        Served ended;
        late.emplace(*ended.typed, PEER, PEER_PATH);
        ended.End();
    }
    std::string said;
    const auto add = [](const Proxy<Peer1>& peer, std::string& told) -> Story {
        told = Said(co_await peer.Call(Peer1::Add, 1U, 1U));
    };
    const Story story = add(*late, said);
    EXPECT_EQ(said, "mwl.StatusCode.Stopping: Stopping");
}

TEST_F(CallTest, IsMadeAndDroppedAThousandTimes) {
    service.emplace();
    std::atomic<int> ended{0};
    for (int i = 0; i < 1000; ++i) {
        Served cycle;
        Proxy<Peer1> peer(*cycle.typed, PEER, PEER_PATH);
        Pending pending;
        cycle.On([&] { pending = peer.Call(Peer1::Hold, 1U).Then([&](Outcome<Number>) { ++ended; }); });
        cycle.onStop = [&] { pending.Reset(); };
        cycle.End();
    }
    EXPECT_EQ(ended, 1000);
}

}  // namespace
}  // namespace mwl::Typed

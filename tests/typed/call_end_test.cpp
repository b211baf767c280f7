// How calls end that are under way: by handlers, limits, the loop, the bus, the peer.

#include "typed/call_fixture.h"

namespace mwl::Typed::Tests {
namespace {

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
}  // namespace mwl::Typed::Tests

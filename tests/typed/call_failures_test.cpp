// Calls that fail: at the peer, at their time limit, in what is said, before they are sent.

#include "typed/call_fixture.h"

namespace mwl::Typed::Tests {
namespace {

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

}  // namespace
}  // namespace mwl::Typed::Tests

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/future.h>
#include <tern/typed/proxy.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "typed/peer_service.h"

namespace mwl::Typed {
namespace {

using namespace std::chrono_literals;
using tern::test::GENEROUS_LIMIT;
using tern::test::PEER;
using tern::test::Peer1;
using tern::test::PEER_PATH;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using tern::test::Served;
using tern::test::WaitUntil;

using Number = Peer1::Number;

class FutureTest : public tern::test::PeerProxyTest {
protected:
    template <typename R>
    static StatusCode StatusOf(const Outcome<R>& outcome) {
        return outcome.IsOk() ? StatusCode::Ok : outcome.GetError().GetStatus();
    }
    /// The service has taken what was sent before.
    Number Let() { return *proxy.CallFromWorker(Peer1::Let).Wait(GENEROUS_LIMIT); }
    std::size_t CountPending() { return served.Count().pendingCalls; }
};

TEST_F(FutureTest, GivesTheOutcomeOnce) {
    Future<Number> sum = proxy.CallFromWorker(Peer1::Add, 2U, 3U);
    EXPECT_TRUE(static_cast<bool>(sum));
    EXPECT_EQ(*sum.Wait(GENEROUS_LIMIT), 5U);
    EXPECT_FALSE(static_cast<bool>(sum));
    EXPECT_EQ(StatusOf(sum.Wait(GENEROUS_LIMIT)), StatusCode::NotInitialized);
    EXPECT_EQ(StatusOf(Future<Number>().Wait(0ms)), StatusCode::NotInitialized);
    EXPECT_FALSE(Future<Number>().IsDone());
}

TEST_F(FutureTest, TakesItsValuesAlong) {
    std::string text = "warm";
    Future<std::string> views = proxy.CallFromWorker(Peer1::Echo, std::string_view(text));
    Future<std::string> pointers = proxy.CallFromWorker(Peer1::Echo, text.c_str());
    Future<std::string> moved = proxy.CallFromWorker(Peer1::Echo, std::string(text));
    text.assign(4, '!');
    EXPECT_EQ(*views.Wait(GENEROUS_LIMIT), "warm");
    EXPECT_EQ(*pointers.Wait(GENEROUS_LIMIT), "warm");
    EXPECT_EQ(*moved.Wait(GENEROUS_LIMIT), "warm");
    EXPECT_EQ(*proxy.CallFromWorker(Peer1::Echo, "cold").Wait(GENEROUS_LIMIT), "cold");
    EXPECT_EQ(Said(proxy.CallFromWorker(Peer1::Echo, static_cast<const char*>(nullptr)).Wait(GENEROUS_LIMIT)),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 'text' cannot be sent: Invalid argument");
}

TEST_F(FutureTest, MayBeWaitedForAgainAfterALimitHasPassed) {
    Future<Number> held = proxy.CallFromWorker(Peer1::Hold, 4U);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(StatusOf(held.Wait(30ms)), StatusCode::Timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 30ms + tern::test::TOLERANCE);
    EXPECT_EQ(StatusOf(held.Wait(0ms)), StatusCode::Timeout);
    EXPECT_EQ(StatusOf(held.Wait(-1ms)), StatusCode::Timeout);
    EXPECT_FALSE(held.IsDone());
    EXPECT_EQ(Let(), 1U);
    EXPECT_TRUE(WaitUntil([&] { return held.IsDone(); }));
    EXPECT_EQ(*held.Wait(0ms), 4U);
}

TEST_F(FutureTest, WaitsWithoutALimit) {
    Future<Number> held = proxy.CallFromWorker(Peer1::Hold, 4U);
    std::thread waiting([&] { EXPECT_EQ(*held.Wait(Remote::NO_LIMIT), 4U); });
    EXPECT_TRUE(WaitUntil([&] { return CountPending() == 1; }));
    EXPECT_EQ(Let(), 1U);
    waiting.join();
}

TEST_F(FutureTest, TellsTheCallsOwnTimeout) {
    proxy.SetTimeout(20ms);
    const Outcome<Number> late = proxy.CallFromWorker(Peer1::Hold, 4U).Wait(GENEROUS_LIMIT);
    EXPECT_EQ(StatusOf(late), StatusCode::Timeout);
    EXPECT_EQ(Said(late), "org.freedesktop.DBus.Error.NoReply: Method call timed out");
}

TEST_F(FutureTest, RefusesAWaitOnTheBusThread) {
    Future<Number> sum = proxy.CallFromWorker(Peer1::Add, 2U, 3U);
    EXPECT_TRUE(WaitUntil([&] { return sum.IsDone(); }));
    served.On([&] {
        EXPECT_EQ(StatusOf(sum.Wait(Remote::NO_LIMIT)), StatusCode::Deadlock);
        Future<Number> own = proxy.CallFromWorker(Peer1::Add, 2U, 3U);
        EXPECT_EQ(StatusOf(own.Wait(Remote::NO_LIMIT)), StatusCode::Deadlock);
    });
    EXPECT_EQ(*sum.Wait(0ms), 5U);
    EXPECT_EQ(CountPending(), 0U);
}

TEST_F(FutureTest, IsForManyThreads) {
    constexpr int THREADS = 8;
    constexpr Number CALLS = 50;
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (Number thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&, thread] {
            for (Number i = 0; i < CALLS; ++i) {
                const Outcome<Number> sum =
                    proxy.CallFromWorker(Peer1::Add, 1000 * thread, i).Wait(GENEROUS_LIMIT);
                right += sum.IsOk() && *sum == 1000 * thread + i ? 1 : 0;
                // This one is given up in whatever state it is.
                const Future<Number> dropped = proxy.CallFromWorker(Peer1::Add, thread, i);
                EXPECT_TRUE(static_cast<bool>(dropped));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, THREADS * static_cast<int>(CALLS));
    EXPECT_TRUE(WaitUntil([&] { return CountPending() == 0; }));
}

TEST_F(FutureTest, DestroyedBeforeItIsSentSendsNothing) {
    std::latch isBusy(1);
    std::latch goOn(1);
    served.typed->Post([&] {
        isBusy.count_down();
        goOn.wait();
    });
    isBusy.wait();
    { const Future<Number> posted = proxy.CallFromWorker(Peer1::Hold, 1U); }
    goOn.count_down();
    EXPECT_EQ(Let(), 0U);
    EXPECT_EQ(CountPending(), 0U);
}

TEST_F(FutureTest, DestroyedWhileItWaitsGivesUp) {
    {
        Future<Number> running = proxy.CallFromWorker(Peer1::Hold, 1U);
        EXPECT_EQ(*proxy.CallFromWorker(Peer1::Count).Wait(GENEROUS_LIMIT), 0U);
        EXPECT_EQ(CountPending(), 1U);
        running = Future<Number>();
        EXPECT_EQ(CountPending(), 0U);
    }
    { const Future<Number> again = proxy.CallFromWorker(Peer1::Hold, 1U); }
    EXPECT_TRUE(WaitUntil([&] { return CountPending() == 0; }));
}

TEST_F(FutureTest, IsCancelledOnTheBusThreadToo) {
    std::optional<Future<Number>> running(proxy.CallFromWorker(Peer1::Hold, 1U));
    EXPECT_EQ(*proxy.CallFromWorker(Peer1::Count).Wait(GENEROUS_LIMIT), 0U);
    served.On([&] {
        running.reset();
        EXPECT_EQ(served.typed->GetCounters().pendingCalls, 0U);
        // Not sent yet.
        const Future<Number> unsent = proxy.CallFromWorker(Peer1::Hold, 2U);
    });
    EXPECT_EQ(Let(), 1U);
}

TEST_F(FutureTest, CancellationIsNeverRefused) {
    Future<Number> running = proxy.CallFromWorker(Peer1::Hold, 1U);
    EXPECT_EQ(*proxy.CallFromWorker(Peer1::Count).Wait(GENEROUS_LIMIT), 0U);
    served.typed->SetWaitingJobs(0);
    Outcome<Number> refused = proxy.CallFromWorker(Peer1::Add, 1U, 1U).Wait(GENEROUS_LIMIT);
    EXPECT_EQ(StatusOf(refused), StatusCode::ResourceUnavailable);
    running.Reset();
    served.typed->SetWaitingJobs(100);
    EXPECT_EQ(CountPending(), 0U);
}

TEST_F(FutureTest, EndsWithTheBus) {
    Future<Number> running = proxy.CallFromWorker(Peer1::Hold, 1U);
    EXPECT_EQ(*proxy.CallFromWorker(Peer1::Count).Wait(GENEROUS_LIMIT), 0U);
    std::thread waiting([&] { EXPECT_EQ(StatusOf(running.Wait(GENEROUS_LIMIT)), StatusCode::Stopping); });
    std::latch isBusy(1);
    std::latch goOn(1);
    served.typed->Post([&] {
        isBusy.count_down();
        goOn.wait();
        served.loop->End();
    });
    isBusy.wait();
    // Behind it, so that it is dropped.
    Future<Number> posted = proxy.CallFromWorker(Peer1::Add, 1U, 1U);
    goOn.count_down();
    served.End();
    waiting.join();
    const StatusCode status = StatusOf(posted.Wait(GENEROUS_LIMIT));
    EXPECT_EQ(status, StatusCode::Stopping);
    EXPECT_EQ(StatusOf(proxy.CallFromWorker(Peer1::Add, 1U, 1U).Wait(0ms)), StatusCode::Stopping);
}

TEST_F(FutureTest, BeforeTheBusIsOpenTellsSo) {
    const Bus bus;
    const Proxy<Peer1> early(bus, PEER, PEER_PATH);
    EXPECT_EQ(StatusOf(early.CallFromWorker(Peer1::Add, 1U, 1U).Wait(0ms)), StatusCode::NotInitialized);
}

TEST_F(FutureTest, OutlivesProxyAndBus) {
    served.End();  // the name is the next one's
    std::optional<Future<Number>> late;
    std::optional<Future<Number>> running;
    {
        Served ended;
        {
            const Proxy<Peer1> shortLived(*ended.typed, PEER, PEER_PATH);
            running.emplace(shortLived.CallFromWorker(Peer1::Hold, 1U));
            late.emplace(shortLived.CallFromWorker(Peer1::Add, 2U, 3U));
        }
        EXPECT_EQ(*late->Wait(GENEROUS_LIMIT), 5U);
        late.emplace(Proxy<Peer1>(*ended.typed, PEER, PEER_PATH).CallFromWorker(Peer1::Add, 2U, 3U));
        EXPECT_TRUE(WaitUntil([&] { return late->IsDone(); }));
    }
    EXPECT_EQ(*late->Wait(0ms), 5U);
    EXPECT_EQ(StatusOf(running->Wait(0ms)), StatusCode::Stopping);
}

TEST_F(FutureTest, IsMadeAndDroppedAThousandTimes) {
    served.End();
    std::atomic<int> stopped{0};
    for (int i = 0; i < 1000; ++i) {
        Served cycle;
        const Proxy<Peer1> peer(*cycle.typed, PEER, PEER_PATH);
        std::thread worker([&] {
            Future<Number> held = peer.CallFromWorker(Peer1::Hold, 1U);
            const Future<Number> dropped = peer.CallFromWorker(Peer1::Add, 1U, 1U);
            stopped += StatusOf(held.Wait(GENEROUS_LIMIT)) == StatusCode::Stopping ? 1 : 0;
        });
        cycle.End();
        worker.join();
    }
    EXPECT_EQ(stopped, 1000);
}

}  // namespace
}  // namespace mwl::Typed

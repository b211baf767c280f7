#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <tern/service/event_loop.h>
#include <tern/typed/dispatcher.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <latch>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/thread_state.h"

TERN_INTERPOSE(int, eventfd, (unsigned int count, int flags), (count, flags))
TERN_INTERPOSE(int, eventfd_read, (int fd, eventfd_t* count), (fd, count))
TERN_INTERPOSE(int, sd_event_add_io,
               (sd_event * event, sd_event_source** source, int fd, uint32_t events,
                sd_event_io_handler_t handler, void* userdata),
               (event, source, fd, events, handler, userdata))

namespace mwl::Typed {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;
using tern::test::Critical;
using tern::test::FaultScope;
using tern::test::OtherThread;
using testing::ElementsAre;
using testing::IsEmpty;

class TestLoop : public mw::tern::EventLoop {
public:
    TestLoop() { EXPECT_GE(sd_event_new(&mEvent), 0); }

    static constexpr int STUCK = 77;
    /// Until something ends the loop; a test that waits in vain sees STUCK.
    int Run() {
        sd_event_source* limit = nullptr;
        EXPECT_GE(sd_event_add_time_relative(
                      mEvent, &limit, CLOCK_MONOTONIC, microseconds(tern::test::GENEROUS_LIMIT).count(), 0,
                      [](sd_event_source* source, uint64_t, void*) {
                          return sd_event_exit(sd_event_source_get_event(source), STUCK);
                      },
                      nullptr),
                  0);
        const int r = sd_event_loop(mEvent);
        sd_event_source_unref(limit);
        return r;
    }
    void End() { sd_event_exit(mEvent, 0); }
    /// One turn: what is ready first, or nothing.
    void Turn() { EXPECT_GE(sd_event_run(mEvent, 0), 0); }
};

class DispatcherTest : public testing::Test {
protected:
    DispatcherTest() { EXPECT_EQ(mDispatcher.Open(mLoop), StatusCode::Ok); }
    ~DispatcherTest() override { mDispatcher.Close(); }

    /// A descriptor that is always ready, watched as the bus's is, at the same priority.
    std::unique_ptr<sd_event_source, void (*)(sd_event_source*)> WatchReady(std::function<void()>& callback) {
        const int fd = eventfd(1, EFD_CLOEXEC);
        sd_event_source* source = nullptr;
        EXPECT_GE(sd_event_add_io(
                      mLoop.GetEvent(), &source, fd, 1,
                      [](sd_event_source*, int, uint32_t, void* function) {
                          (*static_cast<std::function<void()>*>(function))();
                          return 0;
                      },
                      &callback),
                  0);
        sd_event_source_set_io_fd_own(source, 1);
        return {source, [](sd_event_source* s) { sd_event_source_disable_unref(s); }};
    }

    tern::test::LogCapture mLog{5};
    TestLoop mLoop;
    Dispatcher mDispatcher;
};

TEST_F(DispatcherTest, RunsJobsOfAnyThreadInOrderOnTheLoopsThread) {
    std::vector<int> ran;
    const std::thread::id here = std::this_thread::get_id();
    std::thread poster([&] {
        EXPECT_FALSE(mDispatcher.IsHere());
        for (int i = 0; i < 200; ++i) {
            EXPECT_TRUE(mDispatcher.Post([&, i] {
                ran.push_back(i);
                EXPECT_EQ(std::this_thread::get_id(), here);
                EXPECT_TRUE(mDispatcher.IsHere());
            }));
        }
        EXPECT_TRUE(mDispatcher.Post([&] { mLoop.End(); }));
    });
    EXPECT_EQ(mLoop.Run(), 0);
    poster.join();
    ASSERT_EQ(ran.size(), 200U);
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST_F(DispatcherTest, NothingRunsWithinPost) {
    bool ran = false;
    EXPECT_TRUE(mDispatcher.Post([&] { ran = true; }));
    EXPECT_FALSE(ran);
    EXPECT_EQ(mDispatcher.GetWaiting(), 1U);
    mLoop.Turn();
    EXPECT_TRUE(ran);
    EXPECT_EQ(mDispatcher.GetWaiting(), 0U);
}

TEST_F(DispatcherTest, AJobThatPostsIsFollowedByWhatItPosted) {
    std::vector<int> ran;
    EXPECT_TRUE(mDispatcher.Post([&] {
        ran.push_back(1);
        EXPECT_TRUE(mDispatcher.Post([&] {
            ran.push_back(3);
            EXPECT_TRUE(mDispatcher.Post([&] { mLoop.End(); }));
        }));
    }));
    EXPECT_TRUE(mDispatcher.Post([&] { ran.push_back(2); }));
    EXPECT_EQ(mLoop.Run(), 0);
    EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST_F(DispatcherTest, RunsNoMoreThanItsShareInATurn) {
    std::size_t ran = 0;
    std::vector<std::size_t> seenByTheBus;
    std::function<void()> turn = [&] { seenByTheBus.push_back(ran); };
    const auto bus = WatchReady(turn);
    for (std::size_t i = 0; i < 3 * Dispatcher::SHARE; ++i) {
        ASSERT_TRUE(mDispatcher.Post([&] { ++ran; }));
    }
    while (ran < 3 * Dispatcher::SHARE) {
        mLoop.Turn();
    }
    // Whichever is first, from then on they take turns.
    std::vector<std::size_t> steps;
    for (std::size_t i = 1; i < seenByTheBus.size(); ++i) {
        steps.push_back(seenByTheBus[i] - seenByTheBus[i - 1]);
    }
    EXPECT_THAT(steps, testing::Each(testing::Le(Dispatcher::SHARE)));
    EXPECT_GE(seenByTheBus.size(), 2U);
}

TEST_F(DispatcherTest, AFloodOfJobsDoesNotSilenceTheBus) {
    std::atomic<bool> goOn{true};
    std::thread flood([&] {
        while (goOn) {
            static_cast<void>(
                mDispatcher.Post([] {}));  // refused now and then, as it is faster than the loop
        }
    });
    // A thousand turns of the bus; each may wait for one share of jobs.
    int turns = 0;
    auto last = steady_clock::now();
    steady_clock::duration longest{0};
    std::function<void()> turn = [&] {
        const auto now = steady_clock::now();
        longest = std::max(longest, now - last);
        last = now;
        if (++turns == 1000) {
            mLoop.End();
        }
    };
    const auto bus = WatchReady(turn);
    EXPECT_EQ(mLoop.Run(), 0);
    goOn = false;
    flood.join();
    EXPECT_EQ(turns, 1000);
    EXPECT_LT(longest, tern::test::TOLERANCE);
    RecordProperty("longest_wait_us",
                   static_cast<int>(std::chrono::duration_cast<microseconds>(longest).count()));
}

TEST_F(DispatcherTest, RefusesOneMoreThanItsLimit) {
    auto held = std::make_shared<int>(1);
    for (std::size_t i = 0; i < Dispatcher::LIMIT; ++i) {
        ASSERT_TRUE(mDispatcher.Post([held] {}));
    }
    EXPECT_EQ(held.use_count(), 1 + static_cast<long>(Dispatcher::LIMIT));
    bool ran = false;
    EXPECT_FALSE(mDispatcher.Post([&ran, held] { ran = true; }));
    EXPECT_EQ(held.use_count(), 1 + static_cast<long>(Dispatcher::LIMIT)) << "destroyed";
    EXPECT_EQ(mDispatcher.GetRefused(), 1U);
    EXPECT_EQ(mDispatcher.GetWaiting(), Dispatcher::LIMIT);
    mLoop.Turn();
    EXPECT_TRUE(mDispatcher.Post([] {})) << "there is room again";
    while (mDispatcher.GetWaiting() > 0) {
        mLoop.Turn();
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(DispatcherTest, TheLimitCanBeSet) {
    mDispatcher.SetLimit(2);
    EXPECT_TRUE(mDispatcher.Post([] {}));
    EXPECT_TRUE(mDispatcher.Post([] {}));
    EXPECT_FALSE(mDispatcher.Post([] {}));
    mDispatcher.SetLimit(0);
    EXPECT_EQ(mDispatcher.GetWaiting(), 2U) << "what waits stays";
    mLoop.Turn();
    EXPECT_EQ(mDispatcher.GetWaiting(), 0U);
    EXPECT_FALSE(mDispatcher.Post([] {}));
    EXPECT_EQ(mDispatcher.GetRefused(), 2U);
}

TEST_F(DispatcherTest, TellsWhyItRefuses) {
    Dispatcher unopened;
    EXPECT_EQ(unopened.GetStatus(), StatusCode::NotInitialized);
    EXPECT_EQ(mDispatcher.GetStatus(), StatusCode::Ok);
    mDispatcher.SetLimit(0);
    EXPECT_FALSE(mDispatcher.Post([] {}));
    EXPECT_EQ(mDispatcher.GetStatus(), StatusCode::Ok) << "at its limit it is open all the same";
    mDispatcher.Close();
    EXPECT_EQ(mDispatcher.GetStatus(), StatusCode::Stopping);
}

TEST_F(DispatcherTest, APlaceIsNeverRefusedAndKeepsTheOrder) {
    std::vector<int> ran;
    mDispatcher.SetLimit(1);
    Dispatcher::Place place = Dispatcher::Reserve();
    EXPECT_TRUE(place);
    EXPECT_TRUE(mDispatcher.Post([&] { ran.push_back(1); }));
    EXPECT_TRUE(mDispatcher.Post(std::move(place), [&] { ran.push_back(2); }));
    EXPECT_FALSE(place);  // NOLINT(bugprone-use-after-move): used up
    EXPECT_FALSE(mDispatcher.Post([&] { ran.push_back(3); }));
    EXPECT_FALSE(mDispatcher.Post(std::move(place), [&] { ran.push_back(4); })) << "without a place";
    mLoop.Turn();
    EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST_F(DispatcherTest, CloseDropsWhatWaitsWithNoLockHeld) {
    /// Posts when it dies, as an unanswered reply does.
    struct Poster {
        Dispatcher* dispatcher;
        int* died;
        bool* wasTaken;
        ~Poster() {
            ++*died;
            *wasTaken = dispatcher->Post([] {});
        }
    };
    int died = 0;
    bool wasTaken = true;
    bool ran = false;
    for (int i = 0; i < 100000; ++i) {  // more than a recursion would survive
        ASSERT_TRUE(mDispatcher.Post(Dispatcher::Reserve(), [] {}));
    }
    ASSERT_TRUE(mDispatcher.Post([&ran, poster = std::unique_ptr<Poster>(
                                            new Poster{&mDispatcher, &died, &wasTaken})] { ran = true; }));
    mDispatcher.Close();
    EXPECT_EQ(died, 1);
    EXPECT_FALSE(wasTaken);
    EXPECT_FALSE(ran);
    EXPECT_EQ(mDispatcher.GetWaiting(), 0U);
    EXPECT_FALSE(mDispatcher.Post([] {}));
    EXPECT_FALSE(mDispatcher.Post(Dispatcher::Reserve(), [] {}));
    EXPECT_TRUE(mDispatcher.IsHere()) << "still the same thread";
    mDispatcher.Close();
}

TEST_F(DispatcherTest, ARefusedJobMayPost) {
    struct Poster {
        Dispatcher* dispatcher;
        ~Poster() {
            EXPECT_TRUE(dispatcher->Post(Dispatcher::Reserve(), [] {}));
        }
    };
    mDispatcher.SetLimit(0);
    EXPECT_FALSE(mDispatcher.Post([poster = std::unique_ptr<Poster>(new Poster{&mDispatcher})] {}));
    EXPECT_EQ(mDispatcher.GetWaiting(), 1U);
}

TEST_F(DispatcherTest, AJobMayCloseAndDestroyItsDispatcher) {
    auto dispatcher = std::make_unique<Dispatcher>();
    ASSERT_EQ(dispatcher->Open(mLoop), StatusCode::Ok);
    bool ranLater = false;
    ASSERT_TRUE(dispatcher->Post([&] { dispatcher.reset(); }));
    ASSERT_TRUE(dispatcher->Post([&] { ranLater = true; }));
    mLoop.Turn();
    EXPECT_EQ(dispatcher, nullptr);
    mLoop.Turn();
    EXPECT_FALSE(ranLater);
}

TEST_F(DispatcherTest, WhatAJobThrowsEndsTheServiceAsFailed) {
    bool ranLater = false;
    ASSERT_TRUE(mDispatcher.Post([] { throw std::runtime_error("disk full"); }));
    ASSERT_TRUE(mDispatcher.Post([&] { ranLater = true; }));
    EXPECT_EQ(mLoop.Run(), -ENOTRECOVERABLE);
    EXPECT_FALSE(ranLater);
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Critical("Typed", "A job for the D-Bus thread threw std::runtime_error: disk full")));
}

TEST_F(DispatcherTest, AnEmptyJobDoesNothing) {
    bool ran = false;
    EXPECT_TRUE(mDispatcher.Post(nullptr));
    EXPECT_TRUE(mDispatcher.Post([&] { ran = true; }));
    mLoop.Turn();
    EXPECT_TRUE(ran);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(DispatcherTest, ManyThreadsLoseNothing) {
    constexpr int THREADS = 4;
    constexpr int JOBS = 20000 / tern::test::SLOWNESS;
    std::atomic<int> posted{0};
    int ran = 0;
    std::vector<std::thread> posters;
    std::atomic<int> left{THREADS};
    for (int i = 0; i < THREADS; ++i) {
        posters.emplace_back([&] {
            for (int n = 0; n < JOBS; ++n) {
                posted += mDispatcher.Post([&] { ++ran; }) ? 1 : 0;
            }
            if (--left == 0) {
                EXPECT_TRUE(mDispatcher.Post(Dispatcher::Reserve(), [&] { mLoop.End(); }));
            }
        });
    }
    EXPECT_EQ(mLoop.Run(), 0);
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_EQ(ran, posted);
    EXPECT_EQ(posted + static_cast<int>(mDispatcher.GetRefused()), THREADS * JOBS);
}

// The wake-up is taken back and the job taken out in one step, or the next job is not woken for.
TEST_F(DispatcherTest, OthersWaitWhileTheLastJobIsTakenOut) {
    std::optional<OtherThread> other;
    bool ran = false;
    FaultScope scope(fault_eventfd_read);
    fault_eventfd_read.Replace([&](int fd, eventfd_t* count) {
        other.emplace([&] { EXPECT_TRUE(mDispatcher.Post([&] { ran = true; })); });
        EXPECT_TRUE(other->IsHeldUp());
        return fault_eventfd_read.Real(fd, count);
    });
    EXPECT_TRUE(mDispatcher.Post([] {}));
    mLoop.Turn();
    other.reset();
    mLoop.Turn();
    EXPECT_TRUE(ran);
}

TEST_F(DispatcherTest, OpensOnceAndAnewWhenClosed) {
    EXPECT_EQ(mDispatcher.Open(mLoop), StatusCode::Busy);
    ASSERT_TRUE(mDispatcher.Post([] {}));
    mDispatcher.Close();
    EXPECT_EQ(mDispatcher.Open(mLoop), StatusCode::Ok);
    bool ran = false;
    EXPECT_TRUE(mDispatcher.Post([&] { ran = true; }));
    mLoop.Turn();
    EXPECT_TRUE(ran);
}

}  // namespace

TEST(Dispatcher, RefusesWhatComesBeforeItIsOpen) {
    Dispatcher dispatcher;
    EXPECT_FALSE(dispatcher.Post([] {}));
    EXPECT_FALSE(dispatcher.IsHere());
    EXPECT_EQ(dispatcher.GetRefused(), 0U) << "that is for the limit";
    dispatcher.Close();
}

TEST(Dispatcher, AFailedOpenLeavesNothingBehind) {
    TestLoop loop;
    const std::size_t descriptors = tern::test::CountDescriptors();
    Dispatcher dispatcher;
    {
        const FaultScope scope(fault_eventfd);
        fault_eventfd.Fail(-1, EMFILE);
        EXPECT_EQ(dispatcher.Open(loop), StatusCode::ResourceUnavailable);
    }
    {
        const FaultScope scope(fault_sd_event_add_io);
        fault_sd_event_add_io.Fail(-ENOMEM);
        EXPECT_EQ(dispatcher.Open(loop), StatusCode::OutOfMemory);
    }
    EXPECT_EQ(tern::test::CountDescriptors(), descriptors);
    EXPECT_FALSE(dispatcher.Post([] {}));
    EXPECT_EQ(dispatcher.Open(loop), StatusCode::Ok);
    dispatcher.Close();
}

}  // namespace mwl::Typed

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/typed/all.h>
#include <tern/typed/first.h>
#include <tern/typed/on_pool.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_set.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/allocations.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "typed/task_bus.h"

TERN_INTERPOSE(int, eventfd, (unsigned int count, int flags), (count, flags))
TERN_INTERPOSE(int, eventfd_write, (int fd, eventfd_t value), (fd, value))
TERN_INTERPOSE(int, sd_event_add_io,
               (sd_event * event, sd_event_source** source, int fd, uint32_t events,
                sd_event_io_handler_t handler, void* userdata),
               (event, source, fd, events, handler, userdata))

namespace mwl::Typed {
namespace {

using tern::test::AllocationCount;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::MemoryShortage;
using tern::test::TaskBus;
using tern::test::WaitUntil;
using tern::test::Witness;
using testing::ElementsAre;
using testing::IsEmpty;
using Threading::ThreadPool::ThreadPool;
using namespace std::chrono_literals;

/// The watched threads that a pool needs.
struct Workers {
    explicit Workers(unsigned count) : pool(std::in_place, count, watcher, signals) {}
    ~Workers() {
        if (pool.has_value()) {
            pool->Stop(false);
        }
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    Threading::Signals signals;
    Threading::ThreadsMonitor monitor{signals};
    Threading::ThreadsWatcher watcher{monitor};
    std::optional<ThreadPool> pool;
};

/// Lets a job wait until the test says so.
class Latch {
public:
    void Open() { mPromise.set_value(); }
    /// For the job; says that it has begun.
    void Pass() {
        hasBegun = true;
        mFuture.wait();
    }

    std::atomic<bool> hasBegun{false};

private:
    std::promise<void> mPromise;
    std::shared_future<void> mFuture = mPromise.get_future().share();
};

class OnPoolTest : public testing::Test {
protected:
    /// Begins it, and notes what comes of it.
    template <class F>
    Task<> Note(F function) {
        OnPool job(mBus, *mWorkers->pool, std::move(function));
        const auto outcome = co_await job;
        notes.push_back(outcome.IsOk() ? "done"
                                       : outcome.GetError().GetName() + ": " + outcome.GetError().GetText());
    }
    bool RunUntilNoted(std::size_t count = 1) {
        return mServed->RunUntil([&] { return notes.size() >= count; });
    }
    void Start() { mWorkers->pool->Start(); }

    tern::test::PrivateBus mDaemon;
    LogCapture mLog{4};
    std::optional<TaskBus> mServed{std::in_place};
    Bus& mBus = *mServed->bus;
    std::optional<Workers> mWorkers{std::in_place, 2U};
    std::vector<std::string> notes;
};

const std::string STOPPING = "mwl.StatusCode.Stopping: Stopping";

// ---- results

TEST_F(OnPoolTest, RunsOnAWorkerAndGoesOnOnTheDBusThread) {
    Start();
    std::optional<std::thread::id> ran;
    std::optional<std::thread::id> wentOn;
    const auto run = [&]() -> Task<> {
        const Outcome<std::thread::id> id =
            co_await OnPool(mBus, *mWorkers->pool, [] { return std::this_thread::get_id(); });
        if (id.IsOk()) {
            ran = *id;
        }
        wentOn = std::this_thread::get_id();
    };
    const Task<> task = run();
    EXPECT_FALSE(task.IsDone());
    ASSERT_TRUE(mServed->RunUntil([&] { return task.IsDone(); }));
    ASSERT_TRUE(ran.has_value());
    EXPECT_NE(*ran, std::this_thread::get_id());
    EXPECT_EQ(wentOn, std::this_thread::get_id());
}

TEST_F(OnPoolTest, LeavesTheLoopToOthers) {
    Start();
    Latch latch;
    const Task<> task = Note([&] { latch.Pass(); });
    const auto open = [&]() -> Task<> {
        static_cast<void>(co_await Sleep(mBus, 1ms));
        latch.Open();
    };
    const Task<> opening = open();
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_THAT(notes, ElementsAre("done"));
}

TEST_F(OnPoolTest, MovesFunctionArgumentsAndResult) {
    Start();
    std::vector<int> seen;
    const auto run = [&]() -> Task<> {
        OnPool named(mBus, *mWorkers->pool, [held = std::make_unique<int>(7)]() mutable {
            ++*held;
            return std::move(held);
        });
        const Outcome<std::unique_ptr<int>> captured = co_await named;
        seen.push_back(captured.IsOk() ? **captured : -1);
        const Outcome<std::unique_ptr<int>> given = co_await OnPool(
            mBus, *mWorkers->pool,
            [](std::unique_ptr<int> held, int more) {
                *held += more;
                return held;
            },
            std::make_unique<int>(1), 2);
        seen.push_back(given.IsOk() ? **given : -1);
    };
    const Task<> task = run();
    ASSERT_TRUE(mServed->RunUntil([&] { return task.IsDone(); }));
    EXPECT_THAT(seen, ElementsAre(8, 3));
}

std::size_t CountLetters(const std::string& text) {
    return text.size();
}

TEST_F(OnPoolTest, CopiesWhatIsNotGivenAway) {
    Start();
    std::string text(100, 'x');
    std::vector<std::size_t> seen;
    const auto run = [&]() -> Task<> {
        const Outcome<std::size_t> copied = co_await OnPool(mBus, *mWorkers->pool, &CountLetters, text);
        seen.push_back(copied.IsOk() ? *copied : 0);
        const Outcome<std::size_t> moved =
            co_await OnPool(mBus, *mWorkers->pool, &CountLetters, std::move(text));
        seen.push_back(moved.IsOk() ? *moved : 0);
        const Outcome<std::size_t> member = co_await OnPool(mBus, *mWorkers->pool, &CountLetters, "four");
        seen.push_back(member.IsOk() ? *member : 0);
    };
    const Task<> task = run();
    ASSERT_TRUE(mServed->RunUntil([&] { return task.IsDone(); }));
    EXPECT_THAT(seen, ElementsAre(100U, 100U, 4U));
}

TEST_F(OnPoolTest, GivesWhatTheFunctionReturns) {
    static_assert(std::is_same_v<OnPool<void (*)()>::Result, void>);
    static_assert(std::is_same_v<OnPool<StatusCode (*)()>::Result, void>);
    static_assert(std::is_same_v<OnPool<Outcome<double> (*)()>::Result, double>);
    static_assert(std::is_same_v<OnPool<std::string (*)()>::Result, std::string>);
    Start();
    TaskSet tasks;
    tasks.Add(Note([] {}));
    ASSERT_TRUE(RunUntilNoted(1));
    tasks.Add(Note([] { return StatusCode::Ok; }));
    ASSERT_TRUE(RunUntilNoted(2));
    tasks.Add(Note([] { return StatusCode::Busy; }));
    ASSERT_TRUE(RunUntilNoted(3));
    tasks.Add(Note([]() -> Outcome<int> { return Error("com.example.Error.No", "no number"); }));
    ASSERT_TRUE(RunUntilNoted(4));
    tasks.Add(Note([]() -> Outcome<int> { return 1; }));
    ASSERT_TRUE(RunUntilNoted(5));
    EXPECT_THAT(notes, ElementsAre("done", "done", "mwl.StatusCode.Busy: Busy",
                                   "com.example.Error.No: no number", "done"));
}

TEST_F(OnPoolTest, WhatIsThrownIsAnError) {
    Start();
    TaskSet tasks;
    tasks.Add(Note([] { throw Error("com.example.Error.No", "not today"); }));
    ASSERT_TRUE(RunUntilNoted(1));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    tasks.Add(Note([]() -> int { throw std::runtime_error("the disk is full of secrets"); }));
    ASSERT_TRUE(RunUntilNoted(2));
    tasks.Add(Note([] { throw 7; }));
    ASSERT_TRUE(RunUntilNoted(3));
    tasks.Add(Note([] { throw std::bad_alloc(); }));
    ASSERT_TRUE(RunUntilNoted(4));
    const std::string failed = "org.freedesktop.DBus.Error.Failed: the job failed internally";
    EXPECT_THAT(notes, ElementsAre("com.example.Error.No: not today", failed, failed,
                                   "org.freedesktop.DBus.Error.NoMemory: OutOfMemory"));
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(tern::test::Error(
                        "Typed", "A job on a pool threw std::runtime_error: the disk is full of secrets"),
                    tern::test::Error("Typed", "A job on a pool threw int: no text"),
                    tern::test::Error("Typed", "A job on a pool threw std::bad_alloc: std::bad_alloc")));
    EXPECT_FALSE(mServed->GetExitCode().has_value());
}

TEST_F(OnPoolTest, IsAwaitedWithOthers) {
    Start();
    Latch latch;
    std::string seen;
    const auto run = [&]() -> Task<> {
        auto [a, b] = co_await All(OnPool(mBus, *mWorkers->pool, [] { return 1; }),
                                   OnPool(mBus, *mWorkers->pool, [] { return std::string("two"); }));
        seen = std::to_string(*a) + *b;
        const auto done =
            co_await First(OnPool(mBus, *mWorkers->pool, [&] { latch.Pass(); }), Sleep(mBus, 5ms));
        seen += done.index() == 1 ? ", too late" : ", in time";
    };
    const Task<> task = run();
    ASSERT_TRUE(mServed->RunUntil([&] { return task.IsDone(); }));
    EXPECT_EQ(seen, "1two, too late");
    latch.Open();
    mWorkers->pool->Stop(false);  // the job has the latch
}

// ---- cancelling

TEST_F(OnPoolTest, OneThatHasNotBegunDoesNotRunWhenItIsDestroyed) {
    int alive = 0;
    std::atomic<bool> hasRun{false};
    Task<> task = Note([&hasRun, witness = Witness(alive)] { hasRun = true; });
    EXPECT_EQ(alive, 1);
    task = {};
    EXPECT_EQ(alive, 0);
    const Task<> behind = Note([] {});
    Start();
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_FALSE(hasRun);
}

TEST_F(OnPoolTest, OneThatRunsComesToItsEndWhenItIsDestroyed) {
    Start();
    Latch latch;
    std::atomic<bool> hasEnded{false};
    auto result = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = result;
    Task<> task = Note([&, result = std::move(result)] {
        latch.Pass();
        hasEnded = true;
        return result;
    });
    ASSERT_TRUE(WaitUntil([&] { return latch.hasBegun.load(); }));
    task = {};
    EXPECT_FALSE(watched.expired());
    latch.Open();
    ASSERT_TRUE(WaitUntil([&] { return watched.expired(); }));
    EXPECT_TRUE(hasEnded);
    EXPECT_THAT(notes, IsEmpty());
}

TEST_F(OnPoolTest, OneThatIsDoneIsDestroyedBeforeTheLoopHasSeenIt) {
    Start();
    auto result = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = result;
    FaultScope scope(fault_eventfd_write);
    std::atomic<bool> hasWoken{false};
    fault_eventfd_write.Replace([&](int fd, eventfd_t value) {
        const int r = fault_eventfd_write.Real(fd, value);
        hasWoken = true;
        return r;
    });
    Task<> task = Note([result = std::move(result)] { return result; });
    ASSERT_TRUE(WaitUntil([&] { return hasWoken.load(); }));
    task = {};
    ASSERT_TRUE(WaitUntil([&] { return watched.expired(); }));
    EXPECT_THAT(notes, IsEmpty());
}

TEST_F(OnPoolTest, WhatIsThrownWithoutAnybodyWaitingIsLogged) {
    Start();
    Latch latch;
    Task<> task = Note([&] {
        latch.Pass();
        throw std::runtime_error("too late");
    });
    ASSERT_TRUE(WaitUntil([&] { return latch.hasBegun.load(); }));
    task = {};
    latch.Open();
    EXPECT_TRUE(
        mLog.WaitFor(tern::test::Error("Typed", "A job on a pool threw std::runtime_error: too late")));
}

// ---- the end of bus and pool

TEST_F(OnPoolTest, EndsWithStoppingWhenTheBusCloses) {
    Start();
    Latch latch;
    const Task<> running = Note([&] { latch.Pass(); });
    ASSERT_TRUE(WaitUntil([&] { return latch.hasBegun.load(); }));
    EXPECT_EQ(mServed->End(), 0);
    EXPECT_TRUE(running.IsDone());
    bool hasRun = false;
    const Task<> later = Note([&] { hasRun = true; });
    EXPECT_TRUE(later.IsDone());
    EXPECT_THAT(notes, ElementsAre(STOPPING, STOPPING));
    latch.Open();
    mWorkers->pool->Stop(false);
    EXPECT_FALSE(hasRun);
}

TEST_F(OnPoolTest, TheBusMayGoWhileItRuns) {
    Start();
    Latch latch;
    std::atomic<bool> hasEnded{false};
    Task<> task = Note([&] {
        latch.Pass();
        hasEnded = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return latch.hasBegun.load(); }));
    mServed.reset();
    EXPECT_THAT(notes, ElementsAre(STOPPING));
    task = {};
    latch.Open();
    EXPECT_TRUE(WaitUntil([&] { return hasEnded.load(); }));
}

TEST_F(OnPoolTest, IsRefusedBeforeTheBusIsOpen) {
    Bus closed;
    bool hasRun = false;
    std::string seen;
    const auto run = [&]() -> Task<> {
        const Outcome<void> outcome = co_await OnPool(closed, *mWorkers->pool, [&] { hasRun = true; });
        seen = outcome.IsOk() ? "done" : outcome.GetError().GetName();
    };
    const Task<> task = run();
    EXPECT_EQ(seen, "mwl.StatusCode.NotInitialized");
    EXPECT_FALSE(mWorkers->pool->HasPendingJobs());
    EXPECT_FALSE(hasRun);
}

TEST_F(OnPoolTest, APoolThatIsDestroyedDropsIt) {
    int alive = 0;
    const Task<> task = Note([witness = Witness(alive)] {});
    EXPECT_EQ(alive, 1);
    mWorkers->pool.reset();
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_THAT(notes, ElementsAre("org.freedesktop.DBus.Error.Failed: the pool dropped the job"));
    EXPECT_EQ(alive, 0);
}

TEST_F(OnPoolTest, APoolWithoutThreadsKeepsItUntilTheBusCloses) {
    mWorkers.reset();
    mWorkers.emplace(0U);
    Start();
    int alive = 0;
    const Task<> task = Note([witness = Witness(alive)] {});
    const Task<> other = [](Bus& bus) -> Task<> { static_cast<void>(co_await Sleep(bus, 1ms)); }(mBus);
    ASSERT_TRUE(mServed->RunUntil([&] { return other.IsDone(); }));
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_EQ(mServed->End(), 0);
    EXPECT_THAT(notes, ElementsAre(STOPPING));
    EXPECT_EQ(alive, 0);
}

/// The thread ends in the middle, as pthread_cancel(3) would end it.
TEST_F(OnPoolTest, AThreadThatEndsDropsIt) {
    const auto leave = [] { pthread_exit(nullptr); };
    using Job = Detail::PoolJob<decltype(leave), void>;
    auto given = leave;
    const auto job = std::make_shared<Job>(std::move(given));
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* of) -> void* {
                      static_cast<Job*>(of)->Run();
                      return nullptr;
                  },
                  job.get()),
              0);
    pthread_join(thread, nullptr);
    eventfd_t count = 0;
    EXPECT_EQ(eventfd_read(job->GetEvent(), &count), 0);
    const Outcome<void> outcome = job->Take();
    ASSERT_FALSE(outcome.IsOk());
    EXPECT_EQ(outcome.GetError().GetText(), "the pool dropped the job");
}

// ---- what can be refused

TEST_F(OnPoolTest, ADescriptorThatIsNotThereIsAnError) {
    FaultScope scope(fault_eventfd);
    fault_eventfd.Fail(-1, EMFILE);
    const Task<> task = Note([] {});
    EXPECT_THAT(notes, ElementsAre("org.freedesktop.DBus.Error.LimitsExceeded: ResourceUnavailable"));
    EXPECT_FALSE(mWorkers->pool->HasPendingJobs());
}

TEST_F(OnPoolTest, ALoopThatRefusesIsAnError) {
    FaultScope scope(fault_sd_event_add_io);
    fault_sd_event_add_io.Fail(-ENOMEM);
    const Task<> task = Note([] {});
    EXPECT_THAT(notes, ElementsAre("org.freedesktop.DBus.Error.NoMemory: OutOfMemory"));
    EXPECT_FALSE(mWorkers->pool->HasPendingJobs());
}

/// Uses up the memory when it is moved and the test has said so.
struct Greedy {
    Greedy(std::optional<MemoryShortage>& taken, const bool& armed) : mTaken(&taken), mArmed(&armed) {}
    Greedy(Greedy&& other) noexcept : mTaken(other.mTaken), mArmed(other.mArmed) {
        if (*mArmed) {
            mTaken->emplace();
        }
    }
    Greedy& operator=(Greedy&&) = delete;
    ~Greedy() = default;
    void operator()() const {}

    std::optional<MemoryShortage>* mTaken;
    const bool* mArmed;
};

TEST_F(OnPoolTest, APoolThatHasNoMemoryIsAnError) {
    std::optional<MemoryShortage> shortage;
    bool isArmed = false;
    // The job is told first that it is dropped.
    FaultScope scope(fault_eventfd_write);
    fault_eventfd_write.Replace([&](int fd, eventfd_t value) {
        shortage.reset();
        return fault_eventfd_write.Real(fd, value);
    });
    const auto run = [&]() -> Task<> {
        OnPool job(mBus, *mWorkers->pool, Greedy(shortage, isArmed));
        isArmed = true;
        const Outcome<void> outcome = co_await job;
        notes.push_back(outcome.IsOk() ? "done" : outcome.GetError().GetName());
    };
    const Task<> task = run();
    EXPECT_TRUE(task.IsDone());
    EXPECT_FALSE(shortage.has_value());
    EXPECT_THAT(notes, ElementsAre("org.freedesktop.DBus.Error.NoMemory"));
    EXPECT_FALSE(mWorkers->pool->HasPendingJobs());
}

struct Stubborn {
    explicit Stubborn(const bool& armed) : mArmed(&armed) {}
    Stubborn(Stubborn&& other) : mArmed(other.mArmed) {
        if (*mArmed) {
            throw std::runtime_error("stays where it is");
        }
    }
    Stubborn& operator=(Stubborn&&) = delete;
    ~Stubborn() = default;
    void operator()() const {}

    const bool* mArmed;
};

TEST_F(OnPoolTest, WhatMovingTheFunctionThrowsComesFromTheAwait) {
    bool isArmed = false;
    const auto run = [&]() -> Task<> {
        OnPool job(mBus, *mWorkers->pool, Stubborn(isArmed));
        isArmed = true;
        try {
            static_cast<void>(co_await job);
        } catch (const std::runtime_error& error) {
            notes.emplace_back(error.what());
        }
    };
    const Task<> task = run();
    EXPECT_THAT(notes, ElementsAre("stays where it is"));
}

// ---- what it costs

TEST_F(OnPoolTest, CostsOneAllocationBesidesThePools) {
    std::size_t ofPool = 0;
    {
        const AllocationCount count;
        mWorkers->pool->QueueUnique([held = std::make_shared<int>(1)] {});
        ofPool = count.Get() - 1;
    }
    const AllocationCount count;
    const Task<> task = Note([] {});
    EXPECT_EQ(count.Get(), 1 /* the task */ + 1 + ofPool);
}

TEST_F(OnPoolTest, GivesItsDescriptorsBack) {
    Start();
    const std::size_t before = tern::test::CountDescriptors();
    TaskSet tasks;
    for (int i = 0; i < 50; ++i) {
        tasks.Add(Note([] {}));
    }
    ASSERT_TRUE(RunUntilNoted(50));
    EXPECT_TRUE(WaitUntil([&] { return tern::test::CountDescriptors() == before; }));
}

// ---- a thousand of everything

TEST_F(OnPoolTest, AThousandBeginningsAndEnds) {
    mServed.reset();
    mWorkers.reset();
    std::atomic<int> jobs{0};
    for (int cycle = 0; cycle < 1000; ++cycle) {
        std::optional<TaskBus> served(std::in_place);
        std::optional<Workers> workers(std::in_place, 2U);
        if (cycle % 2 == 0) {
            workers->pool->Start();
        }
        std::vector<Task<>> tasks;
        int ended = 0;
        const auto run = [&](Bus& bus, ThreadPool& pool) -> Task<> {
            static_cast<void>(co_await OnPool(bus, pool, [&jobs] { return ++jobs; }));
            static_cast<void>(co_await OnPool(
                bus, pool, [](std::string text) { return text; }, std::string(100, 'x')));
            ++ended;
        };
        for (int i = 0; i < 4; ++i) {
            tasks.push_back(run(*served->bus, *workers->pool));
        }
        switch (cycle % 5) {
            case 0:  // all come to their ends
                workers->pool->Start();
                ASSERT_TRUE(served->RunUntil([&] { return ended == 4; }));
                break;
            case 1:  // the tasks go first
                tasks.clear();
                break;
            case 2:  // the bus closes first
                EXPECT_EQ(served->End(), 0);
                EXPECT_EQ(ended, 4);
                break;
            case 3:  // the pool goes first
                workers->pool->Stop(false);
                workers->pool.reset();
                tasks.clear();
                break;
            default:  // some turns of the loop, then everything at once
                for (int turn = 0; turn < 3; ++turn) {
                    ASSERT_GE(sd_event_run(served->loop->GetEvent(), 0), 0);
                }
                tasks.erase(tasks.begin());
                served.reset();
                break;
        }
        tasks.clear();
    }
    EXPECT_GT(jobs, 0);
}

}  // namespace
}  // namespace mwl::Typed

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <systemd/sd-event.h>
#include <tern/typed/loop_wait.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_set.h>
#include <tern/typed/wait_for.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "typed/task_bus.h"

TERN_INTERPOSE(int, sd_event_add_time,
               (sd_event * event, sd_event_source** source, clockid_t clock, uint64_t time, uint64_t accuracy,
                sd_event_time_handler_t handler, void* userdata),
               (event, source, clock, time, accuracy, handler, userdata))
TERN_INTERPOSE(int, sd_event_source_set_priority, (sd_event_source * source, int64_t priority),
               (source, priority))

namespace mwl::Typed {
namespace {

using tern::test::FaultScope;
using tern::test::Foreign;
using tern::test::LogCapture;
using tern::test::TaskBus;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::uint64_t MicrosecondsOf(Detail::WaitLimit limit) {
    return limit.GetMicroseconds();
}

TEST(WaitLimit, IsInMicrosecondsRoundedUpWhateverTheUnit) {
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(2s)), 2000000U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(1ns)), 1U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(1001ns)), 2U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(std::chrono::duration<double>(0.5))), 500000U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(std::chrono::duration<unsigned char>(200))), 200000000U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(0ms)), 0U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(-5s)), 0U);
    EXPECT_EQ(MicrosecondsOf(
                  Detail::WaitLimit(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN()))),
              0U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(std::chrono::nanoseconds::min())), 0U);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(24h * 365 * 100)), Detail::WaitLimit::FOREVER);
    EXPECT_EQ(MicrosecondsOf(Detail::WaitLimit(std::chrono::hours::max())), Detail::WaitLimit::FOREVER);
    EXPECT_EQ(MicrosecondsOf(
                  Detail::WaitLimit(std::chrono::duration<double>(std::numeric_limits<double>::infinity()))),
              Detail::WaitLimit::FOREVER);
}

class LoopWaitTest : public testing::Test {
protected:
    template <class A>
    Task<> Note(A awaitable) {
        NoteOne(co_await awaitable);
    }
    void NoteOne(StatusCode status) { notes.push_back(status); }
    void NoteOne(const Outcome<std::uint32_t>& seen) {
        notes.push_back(seen.IsOk() ? StatusCode::Ok : seen.GetError().GetStatus());
        events.push_back(seen.IsOk() ? *seen : 0);
    }
    bool RunUntilNoted(std::size_t count = 1) {
        return mServed->RunUntil([&] { return notes.size() >= count; });
    }

    tern::test::PrivateBus mDaemon;
    LogCapture mLog{4};
    std::optional<TaskBus> mServed{std::in_place};
    Bus& mBus = *mServed->bus;
    std::vector<StatusCode> notes;
    std::vector<std::uint32_t> events;
};
using SleepTest = LoopWaitTest;
using WaitForTest = LoopWaitTest;

// ---- Sleep

TEST_F(SleepTest, LastsAtLeastItsTime) {
    const auto begin = Clock::now();
    const Task<> task = Note(Sleep(mBus, 30ms));
    EXPECT_THAT(notes, IsEmpty());
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_GE(Clock::now() - begin, 30ms);
    EXPECT_LT(Clock::now() - begin, 30ms + tern::test::TOLERANCE);
    EXPECT_THAT(notes, ElementsAre(StatusCode::Ok));
}

TEST_F(SleepTest, CountsFromTheAwaitAndNotFromTheBeginningOfTheTurn) {
    std::optional<Clock::duration> lasted;
    const auto run = [&]() -> Task<> {
        static_cast<void>(co_await Sleep(mBus, 0ms));
        const auto busy = Clock::now() + 50ms;
        while (Clock::now() < busy) {
        }
        const auto begin = Clock::now();
        static_cast<void>(co_await Sleep(mBus, 40ms));
        lasted = Clock::now() - begin;
    };
    const Task<> task = run();
    ASSERT_TRUE(mServed->RunUntil([&] { return lasted.has_value(); }));
    EXPECT_GE(*lasted, 40ms);
}

TEST_F(SleepTest, ZeroAndLessGiveOthersTheirTurn) {
    for (const auto time : {0ms, -1000ms}) {
        notes.clear();
        const Task<> task = Note(Sleep(mBus, time));
        EXPECT_THAT(notes, IsEmpty());
        ASSERT_TRUE(RunUntilNoted());
        EXPECT_THAT(notes, ElementsAre(StatusCode::Ok));
    }
}

TEST_F(SleepTest, TheShorterEndsFirst) {
    TaskSet tasks;
    std::vector<int> order;
    const auto run = [&](int number, std::chrono::milliseconds time) -> Task<> {
        static_cast<void>(co_await Sleep(mBus, time));
        order.push_back(number);
    };
    tasks.Add(run(3, 60ms));
    tasks.Add(run(1, 0ms));
    tasks.Add(run(2, 30ms));
    ASSERT_TRUE(mServed->RunUntil([&] { return tasks.IsEmpty(); }));
    EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST_F(SleepTest, ForEverIsUntilTheBusCloses) {
    const Task<> task = Note(Sleep(mBus, std::chrono::hours::max()));
    EXPECT_EQ(mServed->End(), 0);
    EXPECT_THAT(notes, ElementsAre(StatusCode::Stopping));
}

TEST_F(SleepTest, IsCancelledWithItsTask) {
    { const Task<> task = Note(Sleep(mBus, 0ms)); }
    const Task<> later = Note(Sleep(mBus, 10ms));
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_EQ(notes.size(), 1U);
}

TEST_F(SleepTest, MayEndItsOwnTaskWhenItIsOver) {
    Task<> self;
    bool isOver = false;
    const auto run = [&]() -> Task<> {
        static_cast<void>(co_await Sleep(mBus, 1ms));
        self = {};
        isOver = true;
        static_cast<void>(co_await Sleep(mBus, 1ms));
        ADD_FAILURE() << "goes on";
    };
    self = run();
    ASSERT_TRUE(mServed->RunUntil([&] { return isOver; }));
    const Task<> later = Note(Sleep(mBus, 10ms));
    ASSERT_TRUE(RunUntilNoted());
}

TEST_F(SleepTest, OnABusThatIsNotOpenFailsAtOnce) {
    const Bus fresh;
    const Task<> early = Note(Sleep(fresh, 1ms));
    mBus.Close();
    const Task<> late = Note(Sleep(mBus, 1ms));
    Sleep kept(mBus, 1ms);
    mServed->bus.reset();
    const Task<> afterwards = Note(std::move(kept));
    EXPECT_THAT(notes, ElementsAre(StatusCode::NotInitialized, StatusCode::Stopping, StatusCode::Stopping));
}

TEST_F(SleepTest, TellsWhyItCannotWait) {
    const FaultScope scope(fault_sd_event_add_time);
    fault_sd_event_add_time.Fail(-ENOMEM);
    const Task<> task = Note(Sleep(mBus, 1ms));
    EXPECT_THAT(notes, ElementsAre(StatusCode::OutOfMemory));
    EXPECT_EQ(mServed->End(), 0);  // it is in no list
    EXPECT_EQ(notes.size(), 1U);
}

TEST_F(SleepTest, IsAwaitedByOtherCoroutines) {
    const auto run = [&]() -> Foreign {
        NoteOne(co_await Sleep(mBus, 1ms));
        throw 5;
    };
    const Foreign coroutine = run();
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(tern::test::Critical("Typed", "A coroutine threw int: no text")));
    EXPECT_EQ(mServed->GetExitCode(), -ENOTRECOVERABLE);
}

// ---- WaitFor

class Pair {
public:
    Pair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        mOurs = UniqueFd(ends[0]);
        mTheirs = UniqueFd(ends[1]);
    }
    int Get() const { return mOurs.Get(); }
    void Send() { EXPECT_EQ(write(mTheirs.Get(), "x", 1), 1); }
    void HangUp() { mTheirs = UniqueFd(); }

private:
    UniqueFd mOurs;
    UniqueFd mTheirs;
};

TEST_F(WaitForTest, GivesTheEventsSeen) {
    Pair pair;
    TaskSet tasks;
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLIN)));
    EXPECT_THAT(notes, IsEmpty());
    pair.Send();
    ASSERT_TRUE(RunUntilNoted());
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLIN | EPOLLOUT, 10s)));
    ASSERT_TRUE(RunUntilNoted(2));
    pair.HangUp();
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLPRI)));
    ASSERT_TRUE(RunUntilNoted(3));
    EXPECT_THAT(notes, ElementsAre(StatusCode::Ok, StatusCode::Ok, StatusCode::Ok));
    EXPECT_THAT(events, ElementsAre(EPOLLIN, EPOLLIN | EPOLLOUT, EPOLLHUP));
}

TEST_F(WaitForTest, EndsAtItsLimit) {
    Pair pair;
    const auto begin = Clock::now();
    const Task<> task = Note(WaitFor(mBus, pair.Get(), EPOLLIN, 20ms));
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_GE(Clock::now() - begin, 20ms);
    EXPECT_THAT(notes, ElementsAre(StatusCode::Timeout));
}

TEST_F(WaitForTest, ReadyCountsBeforeTheLimit) {
    Pair pair;
    pair.Send();
    const Task<> task = Note(WaitFor(mBus, pair.Get(), EPOLLIN, 0ms));
    ASSERT_TRUE(RunUntilNoted());
    EXPECT_THAT(notes, ElementsAre(StatusCode::Ok));
}

TEST_F(WaitForTest, EndsWithTheBus) {
    Pair pair;
    const Task<> task = Note(WaitFor(mBus, pair.Get(), EPOLLIN, 1h));
    EXPECT_EQ(mServed->End(), 0);
    const Task<> late = Note(WaitFor(mBus, pair.Get(), EPOLLIN));
    EXPECT_THAT(notes, ElementsAre(StatusCode::Stopping, StatusCode::Stopping));
}

TEST_F(WaitForTest, IsCancelledWithItsTaskAndLeavesTheDescriptorOpen) {
    Pair pair;
    { const Task<> task = Note(WaitFor(mBus, pair.Get(), EPOLLIN)); }
    pair.Send();
    mServed->loop->Turn();
    EXPECT_THAT(notes, IsEmpty());
    char byte = 0;
    EXPECT_EQ(read(pair.Get(), &byte, 1), 1);
}

TEST_F(WaitForTest, RefusesWhatCannotBeWaitedFor) {
    const tern::test::TempFolder folder;
    const UniqueFd file(open((folder.Path() + "/file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    Pair pair;
    TaskSet tasks;
    tasks.Add(Note(WaitFor(mBus, file.Get(), EPOLLIN)));
    tasks.Add(Note(WaitFor(mBus, -1, EPOLLIN)));
    tasks.Add(Note(WaitFor(mBus, 1 << 20, EPOLLIN)));
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLONESHOT)));
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLIN)));
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLIN)));
    EXPECT_THAT(
        notes, ElementsAre(StatusCode::AccessDenied, StatusCode::InvalidArgument, StatusCode::InvalidArgument,
                           StatusCode::InvalidArgument, StatusCode::AlreadyExists));
    EXPECT_EQ(tasks.GetSize(), 1U);
}

TEST_F(WaitForTest, TellsWhyItCannotWait) {
    Pair pair;
    TaskSet tasks;
    {
        const FaultScope scope(fault_sd_event_add_time);
        fault_sd_event_add_time.Fail(-ENOMEM);
        tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLIN, 1s)));
    }
    {
        const FaultScope scope(fault_sd_event_source_set_priority);
        fault_sd_event_source_set_priority.Fail(-ENOMEM);
        tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLIN, 1s)));
    }
    const Bus fresh;
    tasks.Add(Note(WaitFor(fresh, pair.Get(), EPOLLIN, 1s)));
    EXPECT_THAT(notes,
                ElementsAre(StatusCode::OutOfMemory, StatusCode::OutOfMemory, StatusCode::NotInitialized));
    // The descriptor is free again.
    tasks.Add(Note(WaitFor(mBus, pair.Get(), EPOLLOUT)));
    ASSERT_TRUE(RunUntilNoted(4));
    EXPECT_EQ(notes.back(), StatusCode::Ok);
}

}  // namespace
}  // namespace mwl::Typed

// The code of docs/typed.md about tasks, compiled and run: each block there stands here word for word.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/typed/all.h>
#include <tern/typed/first.h>
#include <tern/typed/on_pool.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_handler.h>
#include <tern/typed/task_set.h>
#include <tern/typed/wait_for.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "foundation/unique_fd.h"
#include "typed/served_bus.h"
#include "typed/task_bus.h"

namespace guide {

using mwl::StatusCode;
using namespace mwl::Typed;
using mwl::Threading::ThreadPool::ThreadPool;
using namespace std::chrono_literals;

class Lamp {
public:
    class On {
    public:
        explicit On(Lamp& lamp) : mLamp(lamp) { mLamp.isOn = true; }
        ~On() { mLamp.isOn = false; }
        On(const On&) = delete;
        On& operator=(const On&) = delete;

    private:
        Lamp& mLamp;
    };
    void Toggle() {
        isOn = !isOn;
        ++toggles;
    }

    bool isOn = false;
    int toggles = 0;
};

Task<> Blink(Bus& bus, Lamp& lamp) {
    const Lamp::On on(lamp);  // switched off at the end, and when the task is destroyed
    while (co_await Sleep(bus, 5ms) == StatusCode::Ok) {
        lamp.Toggle();
    }
}

Task<Outcome<std::uint32_t>> ReadNumber(Bus& bus, int fd) {
    const Outcome<std::uint32_t> seen = co_await WaitFor(bus, fd, EPOLLIN, 2s);
    if (!seen.IsOk()) {
        co_return seen.GetError();  // Timeout, Stopping, or what is wrong with the descriptor
    }
    std::uint32_t number = 0;
    if (read(fd, &number, sizeof number) != static_cast<ssize_t>(sizeof number)) {
        co_return StatusCode::IoError;
    }
    co_return number;
}

Task<> Report(Bus& bus, int fd, std::vector<std::string>& lines) {
    const Outcome<std::uint32_t> number = co_await ReadNumber(bus, fd);
    lines.push_back(number.IsOk() ? std::to_string(*number) : number.GetError().GetText());
}

Task<> Compare(Bus& bus, int left, int right, std::vector<std::string>& lines) {
    auto [a, b] = co_await All(ReadNumber(bus, left), ReadNumber(bus, right));
    lines.emplace_back(a.IsOk() && b.IsOk() && *a == *b ? "equal" : "different");
}

Task<> ReadInTime(Bus& bus, int fd, std::vector<std::string>& lines) {
    const auto done = co_await First(ReadNumber(bus, fd), Sleep(bus, 20ms));
    lines.emplace_back(done.index() == 0 ? "read" : "too late");  // too late: the reading has been cancelled
}

std::string ComputeDigest(const std::string& file) {
    if (file.empty()) {
        throw Error::InvalidArgs("no file");
    }
    return "digest of " + file;
}

Task<> ShowDigest(Bus& bus, ThreadPool& pool, std::string file, std::vector<std::string>& lines) {
    const Outcome<std::string> digest = co_await OnPool(bus, pool, &ComputeDigest, std::move(file));
    lines.push_back(digest.IsOk() ? *digest : digest.GetError().GetText());
}

Task<> ShowDigestOf(Bus& bus, ThreadPool& pool, std::string file, std::vector<std::string>& lines) {
    OnPool job(bus, pool, [file = std::move(file)] { return ComputeDigest(file); });
    const Outcome<std::string> digest = co_await job;
    lines.push_back(digest.IsOk() ? *digest : digest.GetError().GetText());
}

/// The user's objects.
class User {
public:
    void Begin(Bus& bus) {
        mBlinking = Blink(bus, mLamp);  // runs to its first wait, then returns
    }
    void End() {
        mBlinking = {};  // ends it where it waits
    }
    void Watch(Bus& bus, int fd) {
        mTasks.Add(Report(bus, fd, mLines));  // a TaskSet keeps it until it is done
    }

    Lamp mLamp;
    std::vector<std::string> mLines;
    Task<> mBlinking;
    TaskSet mTasks;
};

struct Probe1 {
    static constexpr const char* NAME = "com.example.Probe1";
    static constexpr Method<double(std::uint32_t)> Measure{"Measure", {"times", "mean"}, OPEN};
    static constexpr Members<Measure> ALL{};
};

class Probe final : public Implements<Probe, Probe1> {
public:
    explicit Probe(Bus& bus) : mBus(bus) {}
    static constexpr auto Describe() { return Bindings<Bind<Probe1::Measure, &Probe::Measure>>(); }

    int reads = 0;

private:
    Task<Outcome<double>> Measure(std::uint32_t times) {
        double sum = 0.0;
        for (std::uint32_t i = 0; i < times; ++i) {
            if (co_await Sleep(mBus, 2ms) != StatusCode::Ok) {
                co_return StatusCode::Stopping;
            }
            sum += Read();
        }
        co_return sum / times;
    }
    double Read() {
        ++reads;
        return 20.0;
    }

    Bus& mBus;
};

}  // namespace guide

namespace tern::test {
namespace {

using testing::ElementsAre;

/// A pipe with numbers.
class Numbers {
public:
    Numbers() {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        mRead = mwl::UniqueFd(ends[0]);
        mWrite = mwl::UniqueFd(ends[1]);
    }
    int Get() const { return mRead.Get(); }
    void Put(std::uint32_t number) {
        EXPECT_EQ(write(mWrite.Get(), &number, sizeof number), static_cast<ssize_t>(sizeof number));
    }

private:
    mwl::UniqueFd mRead;
    mwl::UniqueFd mWrite;
};

class TaskGuide : public testing::Test {
protected:
    PrivateBus mDaemon;
    TaskBus mServed;
    mwl::Typed::Bus& bus = *mServed.bus;
    guide::User user;
    Numbers mNumbers;
    Numbers mOthers;
};

TEST_F(TaskGuide, ATaskWaitsAndIsEnded) {
    user.Begin(bus);
    EXPECT_TRUE(user.mLamp.isOn);
    ASSERT_TRUE(mServed.RunUntil([&] { return user.mLamp.toggles >= 2; }));
    user.End();
    EXPECT_FALSE(user.mLamp.isOn);
}

TEST_F(TaskGuide, ATaskEndsWithTheBus) {
    user.Begin(bus);
    EXPECT_EQ(mServed.End(), 0);
    EXPECT_TRUE(user.mBlinking.IsDone());
    EXPECT_FALSE(user.mLamp.isOn);
}

TEST_F(TaskGuide, TasksAreAwaited) {
    user.Watch(bus, mNumbers.Get());
    mNumbers.Put(7);
    ASSERT_TRUE(mServed.RunUntil([&] { return user.mTasks.IsEmpty(); }));
    user.Watch(bus, mNumbers.Get());
    EXPECT_EQ(mServed.End(), 0);
    EXPECT_THAT(user.mLines, ElementsAre("7", "Stopping"));
}

TEST_F(TaskGuide, SeveralAreAwaited) {
    user.mTasks.Add(guide::Compare(bus, mNumbers.Get(), mOthers.Get(), user.mLines));
    mNumbers.Put(1);
    mOthers.Put(1);
    ASSERT_TRUE(mServed.RunUntil([&] { return user.mTasks.IsEmpty(); }));
    user.mTasks.Add(guide::ReadInTime(bus, mNumbers.Get(), user.mLines));
    ASSERT_TRUE(mServed.RunUntil([&] { return user.mTasks.IsEmpty(); }));
    mNumbers.Put(1);
    user.mTasks.Add(guide::ReadInTime(bus, mNumbers.Get(), user.mLines));
    ASSERT_TRUE(mServed.RunUntil([&] { return user.mTasks.IsEmpty(); }));
    EXPECT_THAT(user.mLines, ElementsAre("equal", "too late", "read"));
}

TEST_F(TaskGuide, WorkIsDoneOnAPool) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::ThreadsWatcher watcher(monitor);
    guide::ThreadPool pool(1, watcher, signals);
    pool.Start();
    for (const char* file : {"a", ""}) {
        user.mTasks.Add(guide::ShowDigest(bus, pool, file, user.mLines));
        ASSERT_TRUE(mServed.RunUntil([&] { return user.mTasks.IsEmpty(); }));
        user.mTasks.Add(guide::ShowDigestOf(bus, pool, file, user.mLines));
        ASSERT_TRUE(mServed.RunUntil([&] { return user.mTasks.IsEmpty(); }));
    }
    EXPECT_THAT(user.mLines, ElementsAre("digest of a", "digest of a", "no file", "no file"));
    pool.Stop(false);
}

TEST(TaskHandlerGuide, AMethodIsATask) {
    const PrivateBus daemon;
    Served served([](Served& it) {
        it.exported.push_back(
            it.typed->Export("/com/example/Probe", std::make_unique<guide::Probe>(*it.typed)));
        EXPECT_EQ(it.exported.back().GetStatus(), mwl::StatusCode::Ok);
    });
    Peer peer;
    EXPECT_EQ(peer.Call("/com/example/Probe", "com.example.Probe1", "Measure", "u", 3U), "type d");
}

}  // namespace
}  // namespace tern::test

#include <tern/diagnostics/recorder.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <tern/diagnostics/ring_reader.h>
#include <tern/foundation/log.h>
#include <tern/queued_processings/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/timer/timer.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "foundation/unique_fd.h"
#include "support/wait_until.h"
#include "threading/watching_doubles.h"

// With the real logger.

namespace {

using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using mwl::UniqueFd;
using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEnd;
using mwl::Diagnostics::FlightEvent;
using mwl::Diagnostics::FlightThread;
using mwl::Diagnostics::Recorder;
using mwl::Diagnostics::RingReader;
using tern::test::WaitUntil;
using testing::Contains;
using testing::HasSubstr;
using testing::NiceMock;

const std::string LOGGER = "Test";

Flight ReadNow(int fd = Recorder::GetFd()) {
    auto flight = RingReader::Read(fd);
    EXPECT_TRUE(flight.IsOk()) << flight.GetError().GetText();
    return flight.IsOk() ? std::move(*flight) : Flight();
}

class RecorderTest : public testing::Test {
protected:
    RecorderTest() {
        EXPECT_EQ(Recorder::Begin(), StatusCode::Ok);
        mBefore = ReadNow().written;
    }
    ~RecorderTest() override { Recorder::End(); }

    std::vector<FlightEvent> Events(const std::string& event) const {
        std::vector<FlightEvent> found;
        for (FlightEvent& each : ReadNow().events) {
            if (each.sequence > mBefore && each.event == event) {
                found.push_back(std::move(each));
            }
        }
        return found;
    }
    static const FlightThread* Find(const Flight& flight, pid_t id) {
        const auto found = std::find_if(
            flight.threads.begin(), flight.threads.end(),
            [id](const FlightThread& thread) { return thread.id == static_cast<std::uint32_t>(id); });
        return found == flight.threads.end() ? nullptr : &*found;
    }

    std::uint64_t mBefore = 0;
};

TEST_F(RecorderTest, BeginsOnceAndGoesOnInTheSameMemory) {
    const int fd = Recorder::GetFd();
    EXPECT_TRUE(Recorder::IsRecording());
    EXPECT_EQ(Recorder::Begin({.eventBytes = 1 << 20}), StatusCode::Ok);
    EXPECT_EQ(Recorder::GetFd(), fd);
    Recorder::End();
    Recorder::End();
    EXPECT_FALSE(Recorder::IsRecording());
    EXPECT_EQ(ReadNow().end, FlightEnd::Stopped);
    EXPECT_EQ(Recorder::Begin(), StatusCode::Ok);
    EXPECT_EQ(Recorder::GetFd(), fd);
    EXPECT_EQ(ReadNow().end, FlightEnd::None);
}

TEST_F(RecorderTest, RecordsJobsWithTheirDurations) {
    NiceMock<mwl::Threading::MockWatcher> watcher;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadPool::ThreadPool pool(1, watcher, signals);
    pool.Start();
    std::latch begun(1);
    std::latch goOn(1);
    std::atomic<pid_t> id{0};
    pool.QueueJob([&] {
        id = gettid();
        begun.count_down();
        goOn.wait();
    });
    begun.wait();
    const Flight during = ReadNow();
    const FlightThread* const worker = Find(during, id);
    ASSERT_NE(worker, nullptr);
    ASSERT_EQ(worker->doing.size(), 1U);
    EXPECT_EQ(worker->doing[0].event, "job_began");
    EXPECT_EQ(worker->watchName, "ThreadPool::Thread0");
    EXPECT_EQ(worker->watchPeriodNs, 60000000000U);
    goOn.count_down();
    ASSERT_TRUE(WaitUntil([&] { return Events("job_ended").size() == 1; }));
    EXPECT_GT(Events("job_ended")[0].value, 0U);
    EXPECT_EQ(Events("job_queued")[0].value, 1U);
    pool.Stop(false);
    // The thread has ended, and its entry is free.
    EXPECT_EQ(Find(ReadNow(), id), nullptr);
}

TEST_F(RecorderTest, ObjectsMadeBeforeAreKnownByName) {
    Recorder::End();
    class Executor : public mwl::QueuedProcessings::ExecutorInterface {
        StatusCode Initialize() override { return StatusCode::Ok; }
        void Execute() override {}
        void Stop() override {}
    } executor;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::QueuedProcessings::Component component("Upload", "upload", monitor, executor);
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    ASSERT_EQ(Recorder::Begin(), StatusCode::Ok);
    component.WakeUp();
    ASSERT_TRUE(WaitUntil([&] { return Events("run_ended").size() == 1; }));
    EXPECT_EQ(Events("wake_up")[0].name, "Upload");
    EXPECT_EQ(Events("run_ended")[0].name, "Upload");
    component.Stop();
    component.Join();
}

TEST_F(RecorderTest, RecordsTimers) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer does not know the threads that the C library makes for expiries";
#endif
    mwl::Timer::Timer timer(1, false, [] {});
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] { return Events("timer_ended").size() == 1; }));
    EXPECT_GT(Events("timer_began")[0].value, 0U);
}

TEST_F(RecorderTest, RecordsPipesAndMessages) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("12345678", 8), StatusCode::Ok);
    EXPECT_EQ(Events("pipe_written")[0].value, 8U);
    TERN_LOG_NOTICE(LOGGER, "not kept");
    TERN_LOG_WARNING(LOGGER, "the pump is %s", "slow");
    const Flight flight = ReadNow();
    ASSERT_FALSE(flight.messages.empty());
    EXPECT_THAT(flight.messages.back().text, HasSubstr("[Test] the pump is slow"));
    EXPECT_EQ(flight.messages.back().level, 4U);
    EXPECT_EQ(flight.messages.back().threadId, static_cast<std::uint32_t>(gettid()));
    EXPECT_EQ(Events("message").size(), 1U);
}

TEST_F(RecorderTest, PipeThatIsFullShowsWhoWaits) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    std::array<char, 4096> message{};
    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(pipe.WriteMessage(message.data(), message.size()), StatusCode::Ok);
    }
    std::atomic<pid_t> id{0};
    std::thread writer([&] {
        id = gettid();
        std::array<char, 4096> last{};
        EXPECT_EQ(pipe.WriteMessage(last.data(), last.size()), StatusCode::Ok);
    });
    ASSERT_TRUE(WaitUntil([&] { return !Events("pipe_full").empty(); }));
    const Flight flight = ReadNow();
    const FlightThread* const waiting = Find(flight, id);
    ASSERT_NE(waiting, nullptr);
    ASSERT_EQ(waiting->doing.size(), 1U);
    EXPECT_EQ(waiting->doing[0].event, "pipe_full");
    EXPECT_EQ(pipe.ReadMessage(message.data(), message.size(), 0), StatusCode::Ok);
    writer.join();
    EXPECT_GT(Events("pipe_waited").at(0).value, 0U);
}

TEST_F(RecorderTest, NothingIsRecordedBehindTheEnd) {
    Recorder::End();
    const std::uint64_t written = ReadNow().written;
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    TERN_LOG_WARNING(LOGGER, "not kept");
    EXPECT_EQ(ReadNow().written, written);
}

/// Runs `body` in a forked child and returns how it ended.
int StatusOf(const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(99);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

TEST_F(RecorderTest, ForkedChildWritesNothingIntoTheParentsMemory) {
    const std::uint64_t written = ReadNow().written;
    const int status = StatusOf([] {
        MessagePipe pipe;
        const bool isOk = pipe.Initialize() == StatusCode::Ok && pipe.WriteMessage("x", 1) == StatusCode::Ok;
        TERN_LOG_WARNING(LOGGER, "of a child");
        _exit(isOk && !Recorder::IsRecording() && Recorder::GetFd() == -1 ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadNow().written, written);
    EXPECT_TRUE(Recorder::IsRecording());
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_EQ(ReadNow().written, written + 1);
}

TEST_F(RecorderTest, ForkedChildMayHaveARecorderOfItsOwn) {
    const int status = StatusOf([] {
        if (Recorder::Begin() != StatusCode::Ok) {
            _exit(1);
        }
        MessagePipe pipe;
        const bool isOk = pipe.Initialize() == StatusCode::Ok && pipe.WriteMessage("x", 1) == StatusCode::Ok;
        const auto flight = RingReader::Read(Recorder::GetFd());
        _exit(isOk && flight.IsOk() && flight->written == 1 &&
                      flight->pid == static_cast<std::uint32_t>(getpid())
                  ? 0
                  : 2);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(RecorderTest, ForksOfSeveralThreadsLeaveItOn) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 10; ++i) {
                EXPECT_EQ(StatusOf([] { _exit(0); }), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::uint64_t written = ReadNow().written;
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_EQ(ReadNow().written, written + 1);
}

/// A child that records: its memory, as one from outside finds it, after the child has ended as `body` does.
Flight FlightOfChild(const std::function<void()>& body, int& status) {
    int ready[2];
    int go[2];
    EXPECT_EQ(pipe(ready), 0);
    EXPECT_EQ(pipe(go), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte = 0;
        int fd = Recorder::Begin() == StatusCode::Ok ? Recorder::GetFd() : -1;
        if (write(ready[1], &fd, sizeof fd) == sizeof fd && read(go[0], &byte, 1) == 1) {
            body();
        }
        _exit(99);
    }
    int fd = -1;
    EXPECT_EQ(read(ready[0], &fd, sizeof fd), static_cast<ssize_t>(sizeof fd));
    const UniqueFd memory(
        open(("/proc/" + std::to_string(child) + "/fd/" + std::to_string(fd)).c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(write(go[1], "x", 1), 1);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    for (const int end : {ready[0], ready[1], go[0], go[1]}) {
        close(end);
    }
    return ReadNow(memory.Get());
}

TEST(RecorderOfAChild, MarksAnOrderlyEnd) {
    int status = -1;
    const Flight flight = FlightOfChild([] { std::exit(0); }, status);  // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(flight.end, FlightEnd::Stopped);
}

TEST(RecorderOfAChild, MarksAnEndWithAFailure) {
    int status = -1;
    const Flight flight = FlightOfChild([] { std::exit(3); }, status);  // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(flight.end, FlightEnd::Failed);
}

TEST(RecorderOfAChild, HasNoEndWhenItIsKilledOrAborts) {
    int status = -1;
    EXPECT_EQ(FlightOfChild([] { raise(SIGKILL); }, status).end, FlightEnd::None);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_EQ(FlightOfChild([] { std::abort(); }, status).end, FlightEnd::None);
    EXPECT_EQ(FlightOfChild([] { _exit(0); }, status).end, FlightEnd::None);
}

TEST(RecorderOfAChild, IsReadFromOutsideWhileItIsBlocked) {
    int status = -1;
    const Flight flight = FlightOfChild(
        [] {
            TERN_LOG_ERROR(LOGGER, "the last words");
            raise(SIGKILL);
        },
        status);
    ASSERT_EQ(flight.messages.size(), 1U);
    EXPECT_THAT(flight.messages[0].text, HasSubstr("the last words"));
}

}  // namespace

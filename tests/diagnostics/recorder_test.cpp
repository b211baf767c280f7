#include <tern/diagnostics/recorder.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
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
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <latch>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "diagnostics/idle_executor.h"
#include "foundation/tell.h"
#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/temp_folder.h"
#include "support/threads_of_children.h"
#include "support/wait_until.h"
#include "threading/watching_doubles.h"

// With the real logger.

TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE_SYMBOL_(int, open, "open64", (const char* path, int flags, int mode), (path, flags, mode))
TERN_INTERPOSE(int, memfd_create, (const char* name, unsigned int flags), (name, flags))
#ifndef __SANITIZE_THREAD__
// ThreadSanitizer calls it before it can bear what a stand-in does.
TERN_INTERPOSE(int, pthread_key_create, (pthread_key_t * key, void (*destroy)(void*)), (key, destroy))
#endif
TERN_INTERPOSE_SYMBOL_(const mwl::Tell::Listener*, SetListener, "_ZN3mwl4Tell11SetListenerEPKNS0_8ListenerE",
                       (const mwl::Tell::Listener* listener), (listener))

/// What is done while a library is loaded (loaded/loaded.cpp), which calls this.
static std::function<void()> gOnLoaded;
extern "C" __attribute__((visibility("default"))) void OnLoaded();
extern "C" void OnLoaded() {
    gOnLoaded();
}

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
using tern::test::FaultScope;
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

// The watcher's reason to kill it is told with what the thread was in, which is found by this name.
TEST_F(RecorderTest, ThreadsWatchedBeforeHaveTheirWatch) {
    Recorder::End();
    NiceMock<mwl::Threading::MockWatcher> watcher;
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadPool::ThreadPool pool(1, watcher, signals);
    pool.Start();
    std::latch watched(1);
    pool.QueueJob([&] { watched.count_down(); });
    watched.wait();
    EXPECT_EQ(Recorder::Begin(), StatusCode::Ok);
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
    goOn.count_down();
    const FlightThread* const worker = Find(during, id);
    ASSERT_NE(worker, nullptr);
    EXPECT_EQ(worker->watchName, "ThreadPool::Thread0");
    EXPECT_EQ(worker->watchPeriodNs, 60000000000U);
}

TEST_F(RecorderTest, ObjectsMadeBeforeAreKnownByName) {
    Recorder::End();
    tern::test::IdleExecutor executor;
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

TEST_F(RecorderTest, ThousandThreadsThatComeAndGoShareTheEntries) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    const std::uint64_t lostBefore = ReadNow().threadsLost;
    const std::size_t threadsBefore = ReadNow().threads.size();
    const auto writeOnce = [&] {
        EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
        char byte = 0;
        EXPECT_EQ(pipe.ReadMessage(&byte, 1, 0), StatusCode::Ok);
        return gettid();
    };
    pid_t last = 0;
    pid_t oneBefore = 0;
    for (int i = 0; i < 1000; ++i) {
        std::thread([&] { oneBefore = std::exchange(last, writeOnce()); }).join();
    }
    Flight flight = ReadNow();
    EXPECT_EQ(flight.threadsLost, lostBefore);
    EXPECT_EQ(flight.threads.size(), threadsBefore);
    // Each event is its own thread's, though all of them had the same entry.
    const std::vector<FlightEvent> written = Events("pipe_written");
    ASSERT_GE(written.size(), 2U);
    EXPECT_EQ(written.back().threadId, static_cast<std::uint32_t>(last));
    EXPECT_EQ(written[written.size() - 2].threadId, static_cast<std::uint32_t>(oneBefore));
    EXPECT_NE(last, oneBefore);
}

TEST_F(RecorderTest, ThreadsBeyondTheTableAreCountedAndTheirEventsKept) {
    constexpr std::size_t COUNT = 100;
    constexpr std::size_t ENTRIES = 64;
    const std::uint64_t lostBefore = ReadNow().threadsLost;
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    std::latch written(COUNT);
    std::latch goOn(1);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < COUNT; ++i) {
        threads.emplace_back([&] {
            EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
            written.count_down();
            goOn.wait();
        });
    }
    written.wait();
    EXPECT_EQ(ReadNow().threads.size(), ENTRIES);
    EXPECT_GE(ReadNow().threadsLost, lostBefore + COUNT - ENTRIES);
    EXPECT_LE(ReadNow().threadsLost, lostBefore + COUNT);
    std::set<std::uint32_t> ids;
    for (const FlightEvent& event : Events("pipe_written")) {
        ids.insert(event.threadId);
    }
    EXPECT_EQ(ids.size(), COUNT);
    EXPECT_EQ(ids.count(0), 0U);
    goOn.count_down();
    for (std::thread& thread : threads) {
        thread.join();
    }
    // There is room again.
    pid_t late = 0;
    std::latch isIn(1);
    std::latch isRead(1);
    std::thread latecomer([&] {
        late = gettid();
        EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
        isIn.count_down();
        isRead.wait();
    });
    isIn.wait();
    EXPECT_NE(Find(ReadNow(), late), nullptr);
    isRead.count_down();
    latecomer.join();
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

TEST_F(RecorderTest, ForkedChildThatExitsLeavesNoMarkInTheParentsMemory) {
    const int status = StatusOf([] { std::exit(0); });  // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadNow().end, FlightEnd::None);
}

TEST_F(RecorderTest, ForkedChildAnnouncesNothingToTheServiceManager) {
    const tern::test::TempFolder folder;
    const std::string path = folder.Path() + "/notify";
    const UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(manager.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    // Its own recorder works; but the service's memory is the one to be kept.
    const int status =
        StatusOf([] { _exit(Recorder::Begin() == StatusCode::Ok && Recorder::IsRecording() ? 0 : 1); });
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(status, 0);
    char byte = 0;
    EXPECT_EQ(recv(manager.Get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(RecorderTest, ComponentsWithThousandNamesLeaveTheTableOfNamesBounded) {
    SKIP_WHERE_CHILDREN_HAVE_NO_THREADS();
    // In a process of its own: its table of names is full then.
    const int status = StatusOf([] {
        if (Recorder::Begin() != StatusCode::Ok) {
            _exit(1);
        }
        tern::test::IdleExecutor executor;
        mwl::Threading::Signals signals;
        mwl::Threading::ThreadsMonitor monitor(signals);
        for (int i = 0; i < 1000; ++i) {
            const mwl::QueuedProcessings::Component component("Churn" + std::to_string(i), "churn", monitor,
                                                              executor);
        }
        mwl::QueuedProcessings::Component component("Latecomer", "late", monitor, executor);
        component.WakeUp();
        const Flight flight = ReadNow();
        const auto found = std::find_if(flight.events.begin(), flight.events.end(),
                                        [](const FlightEvent& event) { return event.event == "wake_up"; });
        if (found == flight.events.end() || found->name != "(others)") {
            _exit(2);
        }
        _exit(flight.namesLost >= 1000 - 512 && flight.namesLost < 2000 ? 0 : 3);
    });
    EXPECT_EQ(status, 0);
}

/// Seconds that CLOCK_MONOTONIC and CLOCK_REALTIME are put on or back by.
std::atomic<long> gMonotonicJump{0};
std::atomic<long> gRealtimeJump{0};

/// From now on clocks do as the two say, and the processor's counter is not to be trusted.
void TakeClocksOver() {
    fault_clock_gettime.Replace(
        [](clockid_t clock, timespec* now) {
            const int r = fault_clock_gettime.Real(clock, now);
            now->tv_sec += clock == CLOCK_MONOTONIC  ? gMonotonicJump.load()
                           : clock == CLOCK_REALTIME ? gRealtimeJump.load()
                                                     : 0;
            return r;
        },
        std::numeric_limits<int>::max());
    fault_open.Replace(
        [](const char* path, int flags, int mode) {
            if (std::string_view(path).ends_with("current_clocksource")) {
                errno = ENOENT;
                return -1;
            }
            return fault_open.Real(path, flags, mode);
        },
        std::numeric_limits<int>::max());
}

/// Tells the recorder of an event, as the library would.
void Tell(mwl::Tell::Event event, const void* object) {
    const mwl::Tell::Listener* const listener = mwl::Tell::SetListener(nullptr);
    mwl::Tell::SetListener(listener);
    listener->onEvent(event, object, 0, nullptr);
}

TEST_F(RecorderTest, ClockThatJumpsBackMakesNoDurationsBeyondNumbers) {
#ifdef __aarch64__
    GTEST_SKIP() << "durations are taken from the processor's counter, for which no call stands";
#endif
    const int status = StatusOf([] {
        TakeClocksOver();
        const int object = 0;
        if (Recorder::Begin() != StatusCode::Ok) {
            _exit(1);
        }
        Tell(mwl::Tell::Event::JobBegan, &object);
        gMonotonicJump = -3600;
        Tell(mwl::Tell::Event::JobEnded, &object);
        Tell(mwl::Tell::Event::JobBegan, &object);
        gMonotonicJump = 0;
        Tell(mwl::Tell::Event::JobEnded, &object);
        const Flight flight = ReadNow();
        if (flight.events.size() != 4) {
            _exit(2);
        }
        // What seems to have ended before it began took no time; what lasted an hour by the clock took that.
        if (flight.events[1].value != 0 || flight.events[3].value < 3600000000000U ||
            flight.events[3].value > 4200000000000U) {
            _exit(3);
        }
        for (const FlightEvent& event : flight.events) {
            if (event.monotonicNs > flight.latestNs) {
                _exit(4);
            }
        }
        _exit(0);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(RecorderTest, TimeOfDayThatIsSetDoesNotChangeHowLongALifeWas) {
    const int status = StatusOf([] {
        TakeClocksOver();
        constexpr long YEARS = 50L * 365 * 86400;
        // A device without a clock of its own: in 1970 or so, until somebody tells it the time.
        gRealtimeJump = -YEARS;
        if (Recorder::Begin() != StatusCode::Ok) {
            _exit(1);
        }
        gRealtimeJump = 0;
        TERN_LOG_WARNING(LOGGER, "the time has come");
        Recorder::End();
        const Flight flight = ReadNow();
        const std::uint64_t ended = flight.endedNs + static_cast<std::uint64_t>(flight.toRealtimeNs);
        const auto now = static_cast<std::uint64_t>(time(nullptr)) * 1000000000U;
        if (ended + 60000000000U < now || ended > now + 60000000000U) {
            _exit(2);
        }
        // The child is a minute old at most.
        const std::uint64_t age = ended - flight.processStartedNs;
        _exit(flight.processStartedNs != 0 && age < 60000000000U ? 0 : 3);
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

// An object that a plug-in's initialisation made, and one of a thread that nothing had been recorded of,
// waited for each other for ever: for the lock of the known objects and that of the dynamic loader.
TEST_F(RecorderTest, FirstEventOfAThreadWaitsForNoLibraryThatIsLoaded) {
    std::latch isLoading(1);
    std::atomic<bool> isDone{false};
    std::thread other([&] {
        isLoading.wait();
        MessagePipe pipe;
        EXPECT_EQ(pipe.Initialize(), StatusCode::Ok);
        EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
        isDone = true;
    });
    gOnLoaded = [&] {
        isLoading.count_down();
        EXPECT_TRUE(WaitUntil([&] { return isDone.load(); }));
    };
    void* const library = dlopen(TERN_LOADED, RTLD_NOW);
    EXPECT_NE(library, nullptr) << dlerror();
    other.join();
    if (library != nullptr) {
        dlclose(library);
    }
}

/// What is done in a fork(2): while the parent prepares it, behind the recorder's own preparation, and in the
/// child, before the recorder has noticed.
std::function<void()> gBeforeFork;
std::function<void()> gInChild;
[[maybe_unused]] const int gAtFork = pthread_atfork(
    [] {
        if (gBeforeFork) {
            gBeforeFork();
        }
    },
    nullptr,
    [] {
        if (gInChild) {
            gInChild();
        }
    });

/// Forks, and does that meanwhile.
void ForkAnd(const std::function<void()>& before, const std::function<void()>& inChild = nullptr) {
    gBeforeFork = before;
    gInChild = inChild;
    EXPECT_EQ(StatusOf([] { _exit(0); }), 0);
    gBeforeFork = nullptr;
    gInChild = nullptr;
}

// A wait that ended while another thread forked was shown as going on for the rest of the service's life.
TEST_F(RecorderTest, WhatOtherThreadsDoDuringAForkIsRecorded) {
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    std::atomic<pid_t> id{0};
    std::atomic<bool> isFilling{true};
    std::latch written(1);
    std::latch goOn(1);
    std::array<char, 4096> message{};
    std::thread writer([&] {
        id = gettid();
        while (isFilling) {
            EXPECT_EQ(pipe.WriteMessage(message.data(), message.size()), StatusCode::Ok);
        }
        TERN_LOG_WARNING(LOGGER, "of another thread");
        written.count_down();
        goOn.wait();
    });
    EXPECT_TRUE(WaitUntil([&] {
        const Flight now = ReadNow();
        const FlightThread* const thread = Find(now, id);
        return thread != nullptr && !thread->doing.empty() && thread->doing[0].event == "pipe_full";
    }));
    isFilling = false;
    ForkAnd([&] {
        std::array<char, 4096> read{};
        EXPECT_EQ(pipe.ReadMessage(read.data(), read.size(), 0), StatusCode::Ok);
        written.wait();
    });
    const Flight flight = ReadNow();
    goOn.count_down();
    writer.join();
    const FlightThread* const thread = Find(flight, id);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(thread->doing.empty());
    EXPECT_EQ(Events("pipe_waited").size(), Events("pipe_full").size());
    ASSERT_FALSE(flight.messages.empty());
    EXPECT_THAT(flight.messages.back().text, HasSubstr("of another thread"));
}

TEST_F(RecorderTest, ThatBeginsDuringAForkIsWhole) {
    Recorder::End();
    ForkAnd([] { EXPECT_EQ(Recorder::Begin(), StatusCode::Ok); },
            [] {
                MessagePipe pipe;
                TERN_LOG_WARNING(LOGGER, "of a child");
                static_cast<void>(pipe.Initialize());
            });
    TERN_LOG_WARNING(LOGGER, "behind a fork");
    ASSERT_FALSE(ReadNow().messages.empty());
    EXPECT_THAT(ReadNow().messages.back().text, HasSubstr("behind a fork"));
    ForkAnd([] {});
    MessagePipe pipe;
    const std::uint64_t written = ReadNow().written;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_EQ(ReadNow().written, written + 1);
}

TEST_F(RecorderTest, ThatEndsDuringAForkStaysOffAndBeginsWhole) {
    ForkAnd([] { Recorder::End(); });
    const std::uint64_t written = ReadNow().written;
    MessagePipe pipe;
    ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_EQ(ReadNow().written, written);
    ASSERT_EQ(Recorder::Begin(), StatusCode::Ok);
    TERN_LOG_WARNING(LOGGER, "behind the end");
    ASSERT_FALSE(ReadNow().messages.empty());
    EXPECT_THAT(ReadNow().messages.back().text, HasSubstr("behind the end"));
}

/// A call that another thread is stopped in.
struct Stop {
    std::atomic<bool> isOver{false};
    std::latch isThere{1};
    std::latch goOn{1};

    void Wait() {
        Pass();
        goOn.wait();
    }
    /// Where the call is not made.
    void Pass() {
        if (!isOver.exchange(true)) {
            isThere.count_down();
        }
    }
};

// Of the memory that another thread was about to give up nothing is in the child; but it was still told.
TEST_F(RecorderTest, ChildThatIsForkedWhileAnotherThreadEndsItIsToldNothing) {
    Stop stop;
    const FaultScope scope(fault_SetListener);
    fault_SetListener.Replace([&](const mwl::Tell::Listener* listener) {
        stop.Wait();
        return fault_SetListener.Real(listener);
    });
    std::thread other([] { Recorder::End(); });
    stop.isThere.wait();
    const int status = StatusOf([] {
        MessagePipe pipe;
        const bool isOk = pipe.Initialize() == StatusCode::Ok && pipe.WriteMessage("x", 1) == StatusCode::Ok;
        _exit(isOk && !Recorder::IsRecording() ? 0 : 1);
    });
    stop.goOn.count_down();
    other.join();
    EXPECT_EQ(status, 0);
}

/// Whether a child that is forked while another thread of its parent is in Recorder::Begin, stopped in the
/// function that `fault` is of, has a recorder of its own.
template <typename Fault>
void BeginInAChildOfOneThatBegins(Fault& fault) {
    const int status = StatusOf([&fault] {
        Stop stop;
        fault.Replace([&](auto... arguments) {
            stop.Wait();
            return fault.Real(arguments...);
        });
        std::thread other([&stop] {
            if (Recorder::Begin() != StatusCode::Ok) {
                _exit(1);
            }
            stop.Pass();
        });
        stop.isThere.wait();
        fault.Reset();
        const int own = StatusOf([] {
            alarm(30);  // where it waits for ever
            if (Recorder::Begin() != StatusCode::Ok) {
                _exit(2);
            }
            TERN_LOG_WARNING(LOGGER, "of a child");
            const auto flight = RingReader::Read(Recorder::GetFd());
            _exit(flight.IsOk() && flight->messages.size() == 1 &&
                          flight->pid == static_cast<std::uint32_t>(getpid())
                      ? 0
                      : 3);
        });
        stop.goOn.count_down();
        other.join();
        _exit(own == 0 && Recorder::IsRecording() ? 0 : WIFSIGNALED(own) ? WTERMSIG(own) : 4);
    });
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
}

TEST(RecorderOfAChild, BeginsWhileAThreadOfItsParentMakesTheMemory) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    BeginInAChildOfOneThatBegins(fault_memfd_create);
}

TEST(RecorderOfAChild, BeginsWhileAThreadOfItsParentRegistersWhatItNeeds) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
#ifndef __SANITIZE_THREAD__
    // Once in a process: with the tests before this one in the same it has been called.
    BeginInAChildOfOneThatBegins(fault_pthread_key_create);
#endif
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

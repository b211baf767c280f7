#pragma once

// What the tests of ThreadsWatcher share. Include it in the one source of a test program.

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/supervision_doubles.h"
#include "threading/thread_state.h"
#include "threading/watching_doubles.h"

TERN_INTERPOSE(int, pthread_kill, (pthread_t thread, int number), (thread, number))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* bytes, size_t size), (fd, bytes, size))

namespace mwl::Threading::Tests {

using std::chrono::hours;
using std::chrono::milliseconds;
using tern::test::CountThreads;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MovedClock;
using tern::test::Notice;
using tern::test::OtherThread;
using tern::test::RunInChild;
using tern::test::WaitUntil;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::NiceMock;
using ::testing::SizeIs;

inline const std::string LOGGER = "Threading::ThreadsWatcher";
inline const LogEntry STARTED = Notice(LOGGER, "TaskWatch Started");
inline const LogEntry STOPPED = Notice(LOGGER, "TaskWatch Stopped");
inline constexpr int ROUNDS = 20000 / tern::test::SLOWNESS;

/// A monitor that only counts.
class CountingMonitor : public ThreadsMonitorInterface {
public:
    void AddWorkerThread(ThreadManager& thread) override {
        EXPECT_EQ(thread.GetThreadId(), 0UL);
        ++added;
    }
    void RemoveWorkerThread(ThreadManager&) override { ++removed; }
    void SetDBusThreadId(unsigned long) override {}
    void StopWorkerThreads() override {}
    void NotifyDBusThreadToStop(bool) override { ADD_FAILURE(); }
    void NotifyDBusThreadToStopOnFailure() override { ADD_FAILURE(); }
    bool HasFailure() override { return false; }
    std::atomic<int> added{0};
    std::atomic<int> removed{0};
};

/// A watcher that watches nobody yet.
class ThreadsWatcherTest : public ::testing::Test {
protected:
    ThreadsWatcherTest() { MovedClock::ForgetWaits(); }
    ~ThreadsWatcherTest() override { MovedClock::Resume(); }

    LogEntry StartOf(const std::string& name, const std::string& period) {
        return Notice(LOGGER, "Start watch " + name + " (period " + period + " ms, threadId " +
                                  std::to_string(pthread_self()) + ")");
    }
    static bool HasWaited(std::size_t times) {
        return WaitUntil([=] { return MovedClock::Waits().size() >= times; });
    }

    CountingMonitor mMonitor;
    LogCapture mLog;
    ThreadsWatcher mWatcher{mMonitor};
    ThreadWatched mPump{mWatcher, "pump"};
    ThreadWatched mFan{mWatcher, "fan"};
};

}  // namespace mwl::Threading::Tests

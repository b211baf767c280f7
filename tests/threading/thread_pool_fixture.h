#pragma once

// What the tests of ThreadPool share. Include it in the one source of a test program.

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_watcher.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/allocations.h"
#include "support/child.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/supervision_doubles.h"
#include "threading/watching_doubles.h"

TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))
TERN_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, sched_yield, (), ())

namespace mwl::Threading::ThreadPool::Tests {

using std::chrono::milliseconds;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::MovedClock;
using tern::test::RunInChild;
using tern::test::Trace;
using tern::test::WaitUntil;
using ::testing::_;
using ::testing::AnyNumber;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SizeIs;
using ::testing::StrictMock;
using ::testing::UnorderedElementsAre;

inline const std::string LOGGER = "Threading::ThreadPool";
inline constexpr int ROUNDS = 100000 / tern::test::SLOWNESS;
#ifdef __SANITIZE_THREAD__
inline constexpr std::size_t IDLE_THREADS = 2;  // with the sanitizer's own
#else
inline constexpr std::size_t IDLE_THREADS = 1;
#endif

class ThreadPoolTest : public ::testing::Test {
protected:
    void RunToTheEnd(ThreadPool& pool) {
        EXPECT_TRUE(WaitUntil([&] { return !pool.HasPendingJobs(); }));
        pool.Stop(false);
    }

    LogCapture mLog;
    NiceMock<MockWatcher> mWatcher;
    StrictMock<MockSignals> mSignals;
};

}  // namespace mwl::Threading::ThreadPool::Tests

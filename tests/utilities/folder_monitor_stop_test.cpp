// The end of a watch: by a failure, by Stop, by the callback and by the destructor.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <latch>
#include <memory>
#include <optional>

#include "support/threads_of_children.h"
#include "utilities/folder_monitor_fixture.h"

namespace mwl::Utilities {
namespace {

// The end of the watch by itself

TEST_F(FolderMonitorTest, ReadErrorIsLoggedAndEndsTheWatch) {
    const ChildResult child = WatchInChild(
        0, [] {}, [] { fault_read.Fail(-1, EIO); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "");
    EXPECT_THAT(
        child.log,
        ElementsAre(Started(), Error("[ThreadLoop] inotify read error: Input/output error"), Exiting()));
}

TEST_F(FolderMonitorTest, EndOfFileEndsTheWatchSilently) {
    const ChildResult child = WatchInChild(
        0, [] {}, [] { fault_read.Fail(0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.log, ElementsAre(Started(), Exiting()));
}

TEST_F(FolderMonitorTest, EndOfTheWatchRemovesItAndClosesTheDescriptor) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        std::atomic<int> removed{0};
        const FaultScope scope(fault_inotify_rm_watch);
        fault_inotify_rm_watch.Replace([&](int fd, int descriptor) {
            removed = descriptor;
            return fault_inotify_rm_watch.Real(fd, descriptor);
        });
        const std::size_t descriptors = CountDescriptors();
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        if (!log.WaitFor(Exiting()) || removed != 1) {
            return 1;
        }
        return WaitUntil([&] { return CountDescriptors() == descriptors; }) ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(FolderMonitorTest, StopOfAFinishedMonitorDoesNothing) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        const bool left = log.WaitFor(Exiting());
        monitor->Stop();
        return left ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting(), NotRunning()));
}

TEST_F(FolderMonitorTest, DestroyingAFinishedMonitorEndsTheProcess) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        FolderMonitor monitor(folder.Path());
        static_cast<void>(monitor.Start(Report, 0));
        DeleteFile("a");
        return log.WaitFor(Exiting()) ? 0 : 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting(), NotRunning()));
}

TEST_F(FolderMonitorTest, StartingAFinishedMonitorAgainEndsTheProcess) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        if (log.WaitFor(Exiting())) {
            static_cast<void>(monitor->Start(Report, 0));
        }
        return 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting(), Started()));
}

TEST_F(FolderMonitorTest, ExceptionFromTheCallbackEndsTheProcess) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        FolderMonitor monitor(folder.Path());
        static_cast<void>(
            monitor.Start([](const std::string&, unsigned int) { throw std::runtime_error("callback"); }, 0));
        DeleteFile("a");
        log.WaitFor(Exiting());
        return 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
}

// Stop

TEST_F(FolderMonitorTest, StopWhenNeverStartedOnlyTraces) {
    FolderMonitor monitor(folder.Path());
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(NotRunning()));
}

TEST_F(FolderMonitorTest, StoppedMonitorCanBeStartedAgain) {
    CreateFile("a");
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
    monitor.Stop();
    monitor.Stop();
    DeleteFile("a");
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
    monitor.Stop();
    EXPECT_THAT(log.Entries(),
                ElementsAre(Started(), Exiting(), Stopped(), NotRunning(), Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, DestructorStopsAWatchingMonitor) {
    {
        FolderMonitor monitor(folder.Path());
        ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    }
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, DescriptorIsNotClosedWhileTheThreadReadsIt) {
    // Closed by Stop before the thread had left, its number could be given to another file, and the read
    // would take that file's bytes.
    FolderMonitor monitor(folder.Path());
    std::latch reading(1);
    std::latch joining(1);
    bool openWhileRead = false;
    const FaultScope readScope(fault_read);
    fault_read.Replace([&](int fd, void*, size_t) -> ssize_t {
        reading.count_down();
        joining.wait();
        openWhileRead = fcntl(fd, F_GETFD) >= 0;
        errno = EBADF;
        return -1;
    });
    const FaultScope joinScope(fault_pthread_join);
    fault_pthread_join.Replace([&](pthread_t thread, void** result) {
        joining.count_down();
        return fault_pthread_join.Real(thread, result);
    });
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    reading.wait();
    monitor.Stop();
    EXPECT_TRUE(openWhileRead);
    // The read error of a stopping monitor is not worth a message.
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, StopFromInsideTheCallbackReturnsAtOnce) {
    CreateFile("a");
    CreateFile("b");
    std::latch done(1);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(
                  [&](const std::string& name, unsigned int mask) {
                      EXPECT_EQ(name, "a");
                      EXPECT_EQ(mask, static_cast<unsigned int>(IN_DELETE));
                      monitor.Stop();
                      monitor.Stop();
                      done.count_down();
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    DeleteFile("b");
    done.wait();
    EXPECT_TRUE(log.WaitFor(Exiting()));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Started(), Detected("200", "a"), Stopped(), NotRunning(), Exiting()));
}

TEST_F(FolderMonitorTest, StartedAgainFromInsideItsCallbackKeepsWatching) {
    // The thread of the first watch ends after the second one has begun, and must not end that one too.
    CreateFile("a");
    CreateFile("b");
    std::latch second(1);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      monitor.Stop();
                      EXPECT_EQ(monitor.Start(
                                    [&](const std::string& name, unsigned int) {
                                        EXPECT_EQ(name, "b");
                                        monitor.Stop();
                                        second.count_down();
                                    },
                                    0),
                                StatusCode::Ok);
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    ASSERT_TRUE(log.WaitFor(Exiting()));
    DeleteFile("b");
    second.wait();
    EXPECT_TRUE(WaitUntil([&] { return log.Count(Exiting()) == 2; }));
}

TEST_F(FolderMonitorTest, MonitorMayBeDestroyedFromInsideItsCallback) {
    CreateFile("a");
    std::latch done(1);
    auto monitor = std::make_unique<FolderMonitor>(folder.Path());
    const std::string captured = "lives in the callback";
    ASSERT_EQ(monitor->Start(
                  [&, captured](const std::string& name, unsigned int) {
                      monitor.reset();
                      EXPECT_EQ(name, "a");
                      EXPECT_EQ(captured, "lives in the callback");
                      done.count_down();
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    done.wait();
    EXPECT_TRUE(log.WaitFor(Exiting()));
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Detected("200", "a"), Stopped(), Exiting()));
}

// What the callback uses may be freed when the owner's Stop has returned, or its destructor.
TEST_F(FolderMonitorTest, StopWaitsForACallbackThatHasStoppedTheWatchItself) {
    CreateFile("a");
    StoppingCallback callback;
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { callback.Run(monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.ExpectToBeAwaitedBy([&] { monitor.Stop(); });
    EXPECT_THAT(log.Entries(),
                ElementsAre(Started(), Detected("200", "a"), Stopped(), NotRunning(), Exiting()));
}

TEST_F(FolderMonitorTest, DestructorWaitsForACallbackThatHasStoppedTheWatchItself) {
    CreateFile("a");
    StoppingCallback callback;
    std::optional<FolderMonitor> monitor(folder.Path());
    ASSERT_EQ(monitor->Start([&](const std::string&, unsigned int) { callback.Run(*monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.ExpectToBeAwaitedBy([&] { monitor.reset(); });
}

TEST_F(FolderMonitorTest, StopWaitsForTheCallbackOfAFormerWatchToo) {
    CreateFile("a");
    StoppingCallback callback;
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { callback.Run(monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.WaitUntilStopped();
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    callback.ExpectToBeAwaitedBy([&] { monitor.Stop(); });
    EXPECT_EQ(log.Count(Exiting()), 2U);
}

TEST_F(FolderMonitorTest, EveryStopWaitsForTheCallback) {
    CreateFile("a");
    StoppingCallback callback;
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { callback.Run(monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.WaitUntilStopped();
    std::thread other([&] { monitor.Stop(); });
    callback.ExpectToBeAwaitedBy([&] { monitor.Stop(); });
    other.join();
}

TEST_F(FolderMonitorTest, StopInsideACallbackDoesNotWaitForAFormerOne) {
    CreateFile("a");
    CreateFile("b");
    std::latch second(1);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      monitor.Stop();
                      EXPECT_EQ(monitor.Start(
                                    [&](const std::string&, unsigned int) {
                                        monitor.Stop();
                                        second.count_down();
                                    },
                                    0),
                                StatusCode::Ok);
                      DeleteFile("b");
                      second.wait();
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    second.wait();
    monitor.Stop();
    EXPECT_EQ(log.Count(Exiting()), 2U);
}

TEST_F(FolderMonitorTest, StopWaitsForARunningCallback) {
    CreateFile("a");
    std::latch inCallback(1);
    std::latch stopping(1);
    std::atomic<bool> finished{false};
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_pthread_join);
    fault_pthread_join.Replace([&](pthread_t thread, void** result) {
        stopping.count_down();
        return fault_pthread_join.Real(thread, result);
    });
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      inCallback.count_down();
                      stopping.wait();
                      monitor.Stop();  // beside the other one, without waiting for it
                      finished = true;
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    inCallback.wait();
    monitor.Stop();
    EXPECT_TRUE(finished);
    EXPECT_EQ(log.Count(Exiting()), 1U);
    EXPECT_EQ(log.Count(Stopped()), 2U);
}

TEST_F(FolderMonitorTest, StopsAndEventsFromManyThreadsDoNotDisturbEachOther) {
    FolderMonitor monitor(folder.Path());
    for (int round = 0; round < 20; ++round) {
        CreateFile("a");
        ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { monitor.Stop(); }, 0),
                  StatusCode::Ok);
        std::latch together(4);
        std::array<std::thread, 3> threads;
        for (std::thread& thread : threads) {
            thread = std::thread([&] {
                together.arrive_and_wait();
                monitor.Stop();
            });
        }
        together.arrive_and_wait();
        DeleteFile("a");
        for (std::thread& thread : threads) {
            thread.join();
        }
        monitor.Stop();
    }
}

// In a forked child

/// What a forked child does with the monitor of its parent; true when that succeeds within the time of a
/// test.
bool SucceedsInAForkedChild(const std::function<bool()>& act) {
    const pid_t forked = fork();
    if (forked == 0) {
        alarm(static_cast<unsigned int>(tern::test::GENEROUS_LIMIT.count()) / 2);
        _exit(act() ? 0 : 1);
    }
    int status = 0;
    return waitpid(forked, &status, 0) == forked && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Holds the watching thread in its pause, where it holds no lock that a forked child would need.
class HeldPause {
public:
    HeldPause() : mScope(fault_nanosleep) {
        fault_nanosleep.Replace([this](const timespec*, timespec*) {
            if (!mBegun.try_wait()) {
                mBegun.count_down();
            }
            mEnd.wait();
            return 0;
        });
    }
    void WaitUntilBegun() { mBegun.wait(); }
    void End() { mEnd.count_down(); }

private:
    std::latch mBegun{1};
    std::latch mEnd{1};
    FaultScope<int(const timespec*, timespec*)> mScope;
};

// It waited for a thread that only its parent has.
TEST_F(FolderMonitorTest, AForkedChildMayStopAndDestroyItsParentsMonitor) {
    SKIP_WHERE_EMULATED("a child of several threads is ended by an assertion of the emulator's own");
    const ChildResult child = RunInChild([&] {
        auto monitor = std::make_unique<FolderMonitor>(folder.Path());
        HeldPause pause;
        if (monitor->Start(IgnoreEvent, 0) != StatusCode::Ok) {
            return 1;
        }
        pause.WaitUntilBegun();
        const bool isStopped = SucceedsInAForkedChild([&] {
            const std::size_t descriptors = CountDescriptors();
            monitor->Stop();
            return CountDescriptors() == descriptors - 1;
        });
        const bool isDestroyed = SucceedsInAForkedChild([&] {
            monitor.reset();
            return true;
        });
        pause.End();
        monitor->Stop();
        return isStopped && isDestroyed ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log,
                ElementsAre(Started(), NotRunning(), NotRunning(), Exiting(), Stopped(), NotRunning()));
}

// Its parent's watch counted as its own.
TEST_F(FolderMonitorTest, AForkedChildMayStartItsParentsMonitor) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        std::thread([] {}).join();
        const std::size_t threads = CountThreads();
        // Sees what happens in the forked child too, finishes by itself, and is not to be destroyed then.
        auto* const monitor = new FolderMonitor(folder.Path());
        HeldPause pause;
        if (monitor->Start(IgnoreEvent, 0) != StatusCode::Ok) {
            return 1;
        }
        pause.WaitUntilBegun();
        const bool isStarted = SucceedsInAForkedChild([&] {
            pause.End();
            std::latch isCalled(1);
            const StatusCode status = monitor->Start(
                [&](const std::string&, unsigned int) {
                    monitor->Stop();
                    isCalled.count_down();
                },
                0);
            DeleteFile("a");
            isCalled.wait();
            return status == StatusCode::Ok;
        });
        pause.End();
        return isStarted && WaitUntil([&] { return CountThreads() == threads; }) ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// The destruction of its thread, which had finished by itself in the parent, ended the child.
TEST_F(FolderMonitorTest, AForkedChildMayDestroyItsParentsFinishedMonitor) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        std::thread([] {}).join();
        const std::size_t threads = CountThreads();
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(IgnoreEvent, 0));
        DeleteFile("a");
        if (!WaitUntil([&] { return CountThreads() == threads; })) {
            return 1;
        }
        return SucceedsInAForkedChild([&] {
            delete monitor;
            return true;
        })
                   ? 0
                   : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// It removed the watch that its parent has too, because the thread that forked is the watching one.
TEST_F(FolderMonitorTest, AChildForkedInsideTheCallbackMayDestroyItsParentsMonitor) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        std::latch done(1);
        bool isDestroyed = false;
        const FaultScope scope(fault_inotify_rm_watch);
        auto monitor = std::make_unique<FolderMonitor>(folder.Path());
        static_cast<void>(monitor->Start(
            [&](const std::string&, unsigned int) {
                isDestroyed = SucceedsInAForkedChild([&] {
                    fault_inotify_rm_watch.Fail(-1, EINVAL);
                    monitor.reset();
                    return fault_inotify_rm_watch.Calls() == 0;
                });
                monitor->Stop();
                done.count_down();
            },
            0));
        DeleteFile("a");
        done.wait();
        monitor.reset();
        return isDestroyed ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

}  // namespace
}  // namespace mwl::Utilities

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <latch>
#include <system_error>

#include "utilities/folder_monitor_fixture.h"

namespace mwl::Utilities {
namespace {

// Start

TEST_F(FolderMonitorTest, StartWithoutCallbackIsRefused) {
    FolderMonitor monitor(folder.Path());
    EXPECT_EQ(monitor.Start(nullptr, 0), StatusCode::InvalidArgument);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("[Start] FolderMonitor start failed: empty callback")));
}

TEST_F(FolderMonitorTest, StartOnMissingPathIsRefusedAndLeavesItIdle) {
    FolderMonitor monitor(folder / "none");
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::IoError);
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Error("[Start] inotify_add_watch failed for " + (folder / "none") +
                                                 ": No such file or directory"),
                                           NotRunning()));
    // Once it is there the same monitor watches it.
    CreateFile("none");
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    monitor.Stop();
}

TEST_F(FolderMonitorTest, StartWithoutInotifyIsRefused) {
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_inotify_init1);
    fault_inotify_init1.Fail(-1, EMFILE);
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("[Start] inotify_init1 failed: Too many open files")));
}

TEST_F(FolderMonitorTest, StartThatIsRefusedAThreadThrowsAndLeavesItIdle) {
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(monitor.Start(IgnoreEvent, 0), std::system_error);
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), NotRunning()));
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    monitor.Stop();
}

TEST_F(FolderMonitorTest, CallbackOfAStartThatThrowsMayUseTheMonitorWhileItIsDestroyed) {
    FolderMonitor monitor(folder.Path());
    std::thread stopping;
    auto held = std::shared_ptr<void>(nullptr, [&](void*) {
        // On a thread of its own, so that a lock held meanwhile fails the test and does not hang it.
        stopping = std::thread([&] { monitor.Stop(); });
        EXPECT_TRUE(log.WaitFor(NotRunning()));
    });
    const FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(monitor.Start([held = std::move(held)](const std::string&, unsigned int) {}, 0),
                 std::system_error);
    ASSERT_TRUE(stopping.joinable());
    stopping.join();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), NotRunning()));
}

TEST_F(FolderMonitorTest, StartWhileWatchingDropsTheNewCallback) {
    FolderMonitor monitor(folder.Path());
    std::latch called(1);
    CreateFile("a");
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      monitor.Stop();
                      called.count_down();
                  },
                  0),
              StatusCode::Ok);
    EXPECT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, IN_ALL_EVENTS),
              StatusCode::Ok);
    EXPECT_EQ(monitor.Start(nullptr, 0), StatusCode::Ok);
    const LogEntry active = Info("[Start] FolderMonitor already active on " + folder.Path());
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), active, active));
    DeleteFile("a");
    called.wait();
    EXPECT_TRUE(log.WaitFor(Exiting()));
}

TEST_F(FolderMonitorTest, DescriptorIsNonBlockingAndNotInheritedByPrograms) {
    FolderMonitor monitor(folder.Path());
    std::atomic<int> descriptor{-1};
    const FaultScope scope(fault_inotify_init1);
    fault_inotify_init1.Replace([&](int flags) { return descriptor = fault_inotify_init1.Real(flags); });
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    monitor.Stop();
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(FolderMonitorTest, MaskOfZeroMeansRemovals) {
    std::vector<unsigned int> masks;
    const FaultScope scope(fault_inotify_add_watch);
    fault_inotify_add_watch.Replace(
        [&](int fd, const char* path, unsigned int mask) {
            masks.push_back(mask);
            return fault_inotify_add_watch.Real(fd, path, mask);
        },
        2);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    monitor.Stop();
    ASSERT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    monitor.Stop();
    EXPECT_THAT(masks, ElementsAre(0x640U, static_cast<unsigned int>(IN_CREATE)));
}

// Events

TEST_F(FolderMonitorTest, DeletedFilesCallBackOnceOnly) {
    for (const char* const name : {"a", "b", "c"}) {
        CreateFile(name);
    }
    const ChildResult child = WatchInChild(0, [&] {
        DeleteFile("a");
        DeleteFile("b");
        EXPECT_TRUE(log.WaitFor(Exiting()));
        DeleteFile("c");
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'a' 200\n");
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting()));
}

TEST_F(FolderMonitorTest, MovedFileIsReported) {
    CreateFile("a");
    const ChildResult child =
        WatchInChild(0, [&] { EXPECT_EQ(rename((folder / "a").c_str(), (folder / "b").c_str()), 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'a' 40\n");
}

TEST_F(FolderMonitorTest, DeletedFolderIsReportedWithoutAName) {
    const ChildResult child = WatchInChild(0, [&] { EXPECT_EQ(rmdir(folder.Path().c_str()), 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'' 400\n");
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("400", ""), Exiting()));
}

TEST_F(FolderMonitorTest, MaskOfTheEventIsPassedOnWhole) {
    const ChildResult child =
        WatchInChild(IN_CREATE, [&] { EXPECT_EQ(mkdir((folder / "new").c_str(), 0700), 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'new' 40000100\n");
}

TEST_F(FolderMonitorTest, CreatedFileCallsNothingByDefault) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
    CreateFile("a");
    // Two more looks for events begin: whatever the first one finds has been handled at the second.
    const FaultScope scope(fault_read);
    fault_read.Replace(nullptr, 0);
    EXPECT_TRUE(WaitUntil([] { return fault_read.Calls() >= 2; }));
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, FirstRecordThatSharesABitWithTheMaskCounts) {
    struct Row {
        const char* about;
        std::string bytes;
        const char* reported;
    };
    const Row rows[] = {
        {"after records without a common bit",
         Record(IN_IGNORED, "", 0) + Record(IN_CREATE, "no", 16) + Record(IN_DELETE, "yes", 16),
         "'yes' 200\n"},
        {"the first of two", Record(IN_MOVED_FROM, "one", 16) + Record(IN_DELETE, "two", 16), "'one' 40\n"},
        {"one bit in common", Record(IN_DELETE | IN_ISDIR | IN_CREATE, "d", 16), "'d' 40000300\n"},
        {"without a name", Record(IN_DELETE_SELF, "", 0), "'' 400\n"},
        {"a name without padding", Record(IN_DELETE, "0123456789abcdef", 16), "'0123456789abcdef' 200\n"},
        {"a buffer filled to its end", Record(IN_IGNORED, "", 4096 - 16 - 32) + Record(IN_DELETE, "end", 16),
         "'end' 200\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.about);
        const ChildResult child = WatchInChild(
            0, [] {},
            [&] {
                fault_read.Replace([&](int, void* buffer, size_t size) -> ssize_t {
                    memcpy(buffer, row.bytes.data(), row.bytes.size());
                    return size == 4096 ? static_cast<ssize_t>(row.bytes.size()) : 0;
                });
            });
        EXPECT_EQ(child.exitCode, 0);
        EXPECT_EQ(child.error, row.reported);
    }
}

TEST_F(FolderMonitorTest, TornRecordsAreSteppedOver) {
    for (const std::string& bytes : {Record(IN_DELETE, "a", 16).substr(0, 15),
                                     Record(IN_DELETE, "a", 16).substr(0, 31), std::string("x")}) {
        FolderMonitor monitor(folder.Path());
        const FaultScope scope(fault_read);
        fault_read.Replace([&](int, void* buffer, size_t) {
            memcpy(buffer, bytes.data(), bytes.size());
            return static_cast<ssize_t>(bytes.size());
        });
        ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
        EXPECT_TRUE(WaitUntil([] { return fault_read.Calls() >= 2; }));
        monitor.Stop();
    }
}

TEST_F(FolderMonitorTest, LooksAgainAfterTheRestOfAnInterruptedPause) {
    const timespec rest{0, 1234};
    const pthread_t testThread = pthread_self();
    std::vector<std::int64_t> periods;
    std::atomic<int> calls{0};
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_nanosleep);
    fault_nanosleep.Replace(
        [&](const timespec* period, timespec* remaining) {
            if (pthread_self() == testThread || calls == 3) {
                return fault_nanosleep.Real(period, remaining);
            }
            periods.push_back(period->tv_sec * 1000000000LL + period->tv_nsec);
            const bool interrupted = calls++ == 0;
            if (interrupted) {
                *remaining = rest;
                errno = EINTR;
            }
            return interrupted ? -1 : 0;
        },
        INT_MAX);
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return calls == 3; }));
    monitor.Stop();
    EXPECT_THAT(periods, ElementsAre(100000000, 1234, 100000000));
}

// What is watched goes away

TEST_F(FolderMonitorTest, AFolderRemovedAndMadeAnewIsWatchedAgain) {
    FolderMonitor monitor(folder.Path());
    std::latch called(1);
    ASSERT_EQ(monitor.Start(
                  [&](const std::string& name, unsigned int mask) {
                      EXPECT_EQ(name, "new");
                      EXPECT_EQ(mask, static_cast<unsigned int>(IN_CREATE));
                      monitor.Stop();
                      called.count_down();
                  },
                  IN_CREATE),
              StatusCode::Ok);
    ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
    ASSERT_TRUE(log.WaitFor(Gone()));
    ASSERT_EQ(mkdir(folder.Path().c_str(), 0700), 0);
    ASSERT_TRUE(log.WaitFor(Back(2)));
    CreateFile("new");
    called.wait();
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Gone(), Back(2), Detected("100", "new"), Stopped(),
                                           testing::AnyOf(NotRunning(), Exiting()),
                                           testing::AnyOf(NotRunning(), Exiting())));
}

TEST_F(FolderMonitorTest, AFolderMadeAnewAtOnceIsWatchedAgainAsOftenAsItHappens) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, IN_CLOSE_WRITE),
              StatusCode::Ok);
    for (int round = 2; round < 5; ++round) {
        ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
        ASSERT_EQ(mkdir(folder.Path().c_str(), 0700), 0);
        ASSERT_TRUE(log.WaitFor(Back(round)));
    }
    monitor.Stop();
}

TEST_F(FolderMonitorTest, StopsWhileItsPathIsGone) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
    ASSERT_TRUE(log.WaitFor(Gone()));
    EXPECT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Gone(),
                                           Info("[Start] FolderMonitor already active on " + folder.Path()),
                                           Exiting(), Stopped()));
    // Stopped it is idle, and finds that there is nothing.
    EXPECT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::IoError);
}

TEST_F(FolderMonitorTest, AWatchThatIsRefusedAgainIsToldOncePerReason) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    const FaultScope scope(fault_inotify_add_watch);
    fault_inotify_add_watch.Fail(-1, ENOSPC, 3);
    ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
    ASSERT_TRUE(log.WaitFor(Gone()));
    ASSERT_EQ(mkdir(folder.Path().c_str(), 0700), 0);
    ASSERT_TRUE(log.WaitFor(Back(2)));
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Gone(),
                                           Error("[ThreadLoop] inotify_add_watch failed for " +
                                                 folder.Path() + ": No space left on device"),
                                           Back(2), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, PathMayBeAFile) {
    CreateFile("a");
    const std::string path = folder / "a";
    const ChildResult child = RunInChild([&] {
        auto* const monitor = new FolderMonitor(path);
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        return log.WaitFor(Trace("[ThreadLoop] FolderMonitor thread exiting for " + path)) ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'' 400\n");
}

}  // namespace
}  // namespace mwl::Utilities
